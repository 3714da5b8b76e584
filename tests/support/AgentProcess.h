// q7agent processes driven on standard input and read on standard output, and the connections `ss` lists.
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

#include <fmt/format.h>

extern char** environ;

namespace Kel::Q7Sync::Test {

using namespace std::chrono_literals;

// The host program run with `arguments`; its standard output and error read as one stream.
class AgentProcess {
public:
    explicit AgentProcess(std::vector<std::string> arguments = {}) : arguments_(std::move(arguments)) { start(); }
    ~AgentProcess() { finish(SIGKILL); }
    AgentProcess(AgentProcess const&) = delete;
    AgentProcess& operator=(AgentProcess const&) = delete;

    // Starts it, again after finish(), with the same arguments and nothing read yet.
    void start() {
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDERR_FILENO);
        std::vector<char*> argv{const_cast<char*>(Q7_AGENT_PROGRAM)};
        for (auto& a : arguments_) argv.push_back(a.data());
        argv.push_back(nullptr);
        if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]);
        ::close(out[1]);
        input_ = in[1];
        output_ = out[0];
        text_.clear();
    }
    // Sends `signal` if any, closes the input, reads the output to its end: the exit status, or -1.
    int finish(int signal = 0) {
        if (pid_ <= 0) return -1;
        if (signal) ::kill(pid_, signal);
        ::close(input_);
        auto const deadline = std::chrono::steady_clock::now() + 30s;
        while (readSome(deadline)) {}
        if (std::chrono::steady_clock::now() >= deadline) ::kill(pid_, SIGKILL);  // hung: the test fails anyway
        ::close(output_);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    // Sends `number` (SIGSTOP and SIGCONT to hang and resume it, say) and goes on driving it.
    void signal(int number) const {
        if (pid_ > 0) ::kill(pid_, number);
    }
    void send(std::string const& text) { [[maybe_unused]] ssize_t const n = ::write(input_, text.data(), text.size()); }
    // Runs `line` and returns what came out from then to the mark that an echo after it prints.
    std::string run(std::string const& line) {
        std::size_t const from = text_.size();
        std::string const mark = fmt::format("--- done {}", ++marks_);
        send(fmt::format("{}\necho {}\n", line, mark));
        auto const deadline = std::chrono::steady_clock::now() + 20s;
        while (text_.find("== " + mark + "\n", from) == std::string::npos && readSome(deadline)) {}
        return text_.substr(from);
    }
    std::string const& output() const noexcept { return text_; }

private:
    bool readSome(std::chrono::steady_clock::time_point deadline) {
        auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd p{output_, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&p, 1, int(left.count())) <= 0) return false;
        char chunk[4096];
        ssize_t const n = ::read(output_, chunk, sizeof chunk);
        if (n > 0) text_.append(chunk, std::size_t(n));
        return n > 0;
    }

    std::vector<std::string> arguments_;
    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    std::string text_;
    unsigned marks_ = 0;
};

inline bool has(std::string const& text, std::string const& part) { return text.find(part) != std::string::npos; }

// Connections established to `port` on this machine, counted from the connecting side, as `ss` lists them.
inline int connectionsTo(std::uint16_t port) {
    std::FILE* ss = ::popen(fmt::format("ss -tnH state established '( dport = :{} )'", port).c_str(), "r");
    int lines = 0;
    for (int c; ss && (c = std::fgetc(ss)) != EOF;) lines += c == '\n';
    return ss && ::pclose(ss) == 0 ? lines : -1;
}

} // namespace Kel::Q7Sync::Test
