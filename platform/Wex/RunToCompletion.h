// Wex::RunToCompletion: events handled one at a time, each to its end before the next begins.
#pragma once

#include <deque>
#include <exception>
#include <functional>
#include <utility>

namespace Wex {

// Reactors call client code (a handler told of a container, say) from inside the change that
// caused the call, and that code may call back into them. Run to completion keeps such calls
// from landing in the middle of the event that is still under way: an event posted while
// another runs is queued, and runs when that one has completed, before the outermost call
// returns. Each event so finds the state as if the calls had come one after the other.
// Framework thread only.
class RunToCompletion {
public:
    RunToCompletion() = default;
    RunToCompletion(RunToCompletion const&) = delete;
    RunToCompletion& operator=(RunToCompletion const&) = delete;

    bool running() const noexcept { return running_; }
    std::size_t queued() const noexcept { return queue_.size(); }

    // Runs `event` now when no event is running; otherwise queues it behind those queued.
    template <class F>
    void post(F&& event) {
        if (running_) queue_.emplace_back(std::forward<F>(event));
        else now(std::forward<F>(event));
    }

    // Runs `work` now: as part of the event that is running, or as an event of its own when
    // none is. Use it where client code is called, so that what that code posts waits.
    // The events queued meanwhile run before this returns, even when `work` throws; an event
    // that was queued cannot report to its poster, which has returned: what it throws is
    // recorded in the default Memtrail handle and the others still run.
    template <class F>
    void now(F&& work) {
        if (running_) {
            std::forward<F>(work)();
            return;
        }
        running_ = true;
        try {
            std::forward<F>(work)();
        } catch (...) {
            runQueued();
            throw;
        }
        runQueued();
    }

private:
    void runQueued() noexcept;

    std::deque<std::function<void()>> queue_;
    bool running_ = false;
};

} // namespace Wex
