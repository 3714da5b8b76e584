// Wex::eventLoop: the one event loop of the framework's thread.
#pragma once

#include <chrono>
#include <functional>

#include <asio/io_context.hpp>

namespace Wex {

// Sockets, timers and the host's input are all served by this loop, on the framework's
// thread, so that notifications and handlers run there as the framework requires. Only its
// owner (the host, a test) runs it: until then nothing it would do happens, no connection either.
asio::io_context& eventLoop();

// Runs the loop until `done()` holds or `timeout` passes; true when `done()` held. `done()` is
// asked first and after each handler the loop runs.
bool runUntil(std::function<bool()> const& done, std::chrono::steady_clock::duration timeout);

} // namespace Wex
