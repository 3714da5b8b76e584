// Input: a stream read line by line, or a descriptor read through the event loop.
#include "Input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <optional>

#include <asio/executor_work_guard.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/read_until.hpp>
#include <asio/streambuf.hpp>
#include <fmt/format.h>

#include "Wex/EventLoop.h"

namespace Q7Agent {

namespace {
// The reading under way, shared with its handler: a read cancelled at the end still completes
// (aborted) later, into a buffer that must still be there.
struct Reading {
    Reading(asio::io_context& loop, int fd) : in(loop, fd) {}
    asio::posix::stream_descriptor in;
    asio::streambuf buffer;
    std::optional<std::string> line;
    bool ended = false;
};

void readLine(std::shared_ptr<Reading> const& reading) {
    asio::async_read_until(reading->in, reading->buffer, '\n', [reading](asio::error_code ec, std::size_t n) {
        if (ec == asio::error::operation_aborted) return;
        // At the end, a last line without its newline still counts.
        if (ec) n = ec == asio::error::eof ? reading->buffer.size() : 0;
        if (n > 0) {
            // A streambuf's input is one contiguous buffer.
            std::string text(static_cast<char const*>(reading->buffer.data().data()), n);
            reading->buffer.consume(n);
            if (text.ends_with('\n')) text.pop_back();
            reading->line = std::move(text);
        }
        reading->ended = bool(ec);
    });
}
} // namespace

void Input::streamRun(std::istream& in) {
    for (std::string line; std::getline(in, line);) {
        bool const more = lineRun(line, true);
        poll();
        std::fflush(shell_.host().out());
        if (!more) return;
    }
}

void Input::descriptorRun(int fd) {
    asio::io_context& loop = Wex::eventLoop();
    std::FILE* out = shell_.host().out();
    bool const terminal = ::isatty(fd) != 0;
    // The loop reads without blocking, which is a flag of the file the shell that started us
    // shares: it gets it back as it was.
    int const flags = ::fcntl(fd, F_GETFL);
    auto const reading = std::make_shared<Reading>(loop, ::dup(fd));
    auto const busy = asio::make_work_guard(loop);
    auto const next = [&] {
        if (terminal) fmt::print(out, "q7agent> ");
        std::fflush(out);
        readLine(reading);
    };
    next();
    for (;;) {
        if (reading->line) {
            std::string const line = std::move(*reading->line);
            reading->line.reset();
            if (!lineRun(line, !terminal)) break;
            if (!reading->ended) next();
            continue;
        }
        if (reading->ended) break;
        if (loop.stopped()) loop.restart();
        loop.run_one();
        std::fflush(out);
    }
    if (terminal && reading->ended) fmt::print(out, "\n");
    asio::error_code ignored;
    reading->in.close(ignored);
    poll();  // the cancelled read completes, and lets go of what it shares
    if (flags >= 0) ::fcntl(fd, F_SETFL, flags);
}

bool Input::waitsForWriter(int fd) {
    struct stat st {};
    if (::fstat(fd, &st) != 0) return false;
    return S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode) || ::isatty(fd) != 0;
}

void Input::poll() {
    asio::io_context& loop = Wex::eventLoop();
    // A loop that ran out of work stops, and would run nothing more until restarted.
    if (loop.stopped()) loop.restart();
    loop.poll();
}

bool Input::lineRun(std::string const& line, bool shown) {
    // A script's commands are shown before their output; its comments and echoes are not.
    auto const first = line.find_first_not_of(" \t\r");
    if (shown && first != std::string::npos && line[first] != '#' &&
        line.compare(first, line.find_first_of(" \t\r", first) - first, "echo") != 0)
        fmt::print(shell_.host().out(), "> {}\n", line);
    bool const more = shell_.execute(line);
    std::fflush(shell_.host().out());
    return more;
}

} // namespace Q7Agent
