// Oru::TaskScheduler: the queue of deferred work that the framework thread runs.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>

#include "Wex/PtrInterface.h"

namespace Oru {

// A first-in first-out queue of tasks. Tasks are queued and run on the framework thread only;
// whoever drives that thread calls runPending() when it is idle.
class TaskScheduler : public Wex::PtrInterface {
public:
    using Task = std::function<void()>;

    TaskScheduler() = default;

    // Queues `task` behind those already queued. An empty task is a NullArgumentException.
    void taskIs(Task task);
    // Runs the queued tasks in order, and those they queue meanwhile, until the queue is empty;
    // returns how many ran. A task that throws is recorded in the default Memtrail handle and
    // counted; the others still run. A task that always queues another keeps this call busy.
    std::size_t runPending() noexcept;
    std::size_t pending() const noexcept { return tasks_.size(); }

    Wex::WexType const* fwkType() const noexcept override;

protected:
    ~TaskScheduler() override = default;

private:
    std::deque<Task> tasks_;
};

} // namespace Oru
