// Wex::eventLoop: the framework thread's asio loop, and running it until a condition holds.
#include "Wex/EventLoop.h"

#include <asio/executor_work_guard.hpp>

namespace Wex {

asio::io_context& eventLoop() {
    // Never destroyed: sockets held by objects that live to exit close with the process.
    static asio::io_context* loop = new asio::io_context(1);
    return *loop;
}

bool runUntil(std::function<bool()> const& done, std::chrono::steady_clock::duration timeout) {
    asio::io_context& loop = eventLoop();
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    // Held so that an idle loop waits for the deadline instead of returning at once.
    auto const busy = asio::make_work_guard(loop);
    if (loop.stopped()) loop.restart();
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        loop.run_one_until(deadline);
    }
    return true;
}

} // namespace Wex
