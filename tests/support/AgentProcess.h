// A q7agent process driven as a person would drive it: commands on its standard input, its
// output read line by line.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

extern char** environ;

namespace Kel::Q7Sync::Test {

class AgentProcess {
public:
    explicit AgentProcess(std::string program) : program_(std::move(program)) { start(); }
    ~AgentProcess() { kill(SIGKILL); }
    AgentProcess(AgentProcess const&) = delete;
    AgentProcess& operator=(AgentProcess const&) = delete;

    void start() {
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDERR_FILENO);
        std::vector<char*> argv{program_.data(), nullptr};
        if (posix_spawn(&pid_, program_.c_str(), &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]);
        ::close(out[1]);
        input_ = in[1];
        output_ = out[0];
        seen_.clear();
        buffer_.clear();
    }

    // Ends the process with `signal` and waits for it.
    void kill(int signal) {
        if (pid_ <= 0) return;
        ::kill(pid_, signal);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        ::close(input_);
        ::close(output_);
    }

    void command(std::string const& line) {
        std::string const text = line + "\n";
        [[maybe_unused]] ssize_t const n = ::write(input_, text.data(), text.size());
    }

    // Reads output until a line contains `text`; false (with what was read in seen()) when
    // the timeout passes or the output ends first.
    bool expect(std::string const& text, std::chrono::milliseconds timeout = std::chrono::seconds(15)) {
        auto const deadline = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            for (std::size_t nl; (nl = buffer_.find('\n')) != std::string::npos;) {
                std::string line = buffer_.substr(0, nl);
                buffer_.erase(0, nl + 1);
                seen_ += line + "\n";
                if (line.find(text) != std::string::npos) return true;
            }
            auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return false;
            pollfd p{output_, POLLIN, 0};
            if (::poll(&p, 1, int(left.count())) <= 0) continue;
            char chunk[4096];
            ssize_t const n = ::read(output_, chunk, sizeof chunk);
            if (n <= 0) return false;
            buffer_.append(chunk, std::size_t(n));
        }
    }
    // Runs `line`, then reads up to the mark an echo after it prints: the command's own output.
    std::string run(std::string const& line) {
        std::string const mark = "--- done " + std::to_string(++marks_);
        std::size_t const from = seen_.size();
        command(line);
        command("echo " + mark);
        expect(mark);
        return seen_.substr(from);
    }
    std::string const& seen() const noexcept { return seen_; }

private:
    std::string program_;
    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    std::string buffer_;
    std::string seen_;
    unsigned marks_ = 0;
};

} // namespace Kel::Q7Sync::Test
