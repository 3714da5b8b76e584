// Input: where the host's command lines come from, and the event loop served between them.
#pragma once

#include <istream>
#include <string>

#include "Shell.h"

namespace Q7Agent {

// Commands run one at a time on the framework's thread, and the event loop serves the agent's
// peers between them. A script or a file is read as fast as its commands run, with the loop
// polled after each; a pipe or a terminal is read through the loop, so that the agent keeps
// serving while no command comes. Either ends at the end of input or at a line that quits.
class Input {
public:
    explicit Input(Shell& shell) : shell_(shell) {}

    // Runs the lines of `in`, each shown before its output as a script's are.
    void streamRun(std::istream& in);
    // Reads descriptor `fd` through the loop: with a prompt when it is a terminal, showing
    // each line as a script's otherwise.
    void descriptorRun(int fd);

    // True for what waits for its writer (a pipe, a socket, a terminal): read through the loop.
    static bool waitsForWriter(int fd);
    // Runs the loop's handlers that are ready, without waiting for any.
    static void poll();

private:
    // Shows the line when `shown`, then runs it; false once it quits.
    bool lineRun(std::string const& line, bool shown);

    Shell& shell_;
};

} // namespace Q7Agent
