// The host's command interpreter: one line, one command from the registry, on the host's state.
#pragma once

#include <cstdio>
#include <string_view>

#include "Host.h"

namespace Q7Agent {

class Shell {
public:
    explicit Shell(std::FILE* out) : host_(out) {}

    // Runs one command line. Returns false when it asks to quit. Bad commands print one line
    // "error: ..." with the command's usage and change nothing; nothing here throws.
    bool execute(std::string_view line);
    // The lines that failed so far.
    int failures() const noexcept { return failures_; }

    Host const& host() const noexcept { return host_; }

private:
    Host host_;
    int failures_ = 0;
};

} // namespace Q7Agent
