// Oru::TaskScheduler: running queued tasks, and its type table.
#include "Oru/TaskScheduler.h"

#include <exception>
#include <string>

#include "Memtrail/Memtrail.h"
#include "Wex/Type.h"

namespace Oru {

namespace {
constexpr Memtrail::Site kTaskThrew{0, "TaskScheduler", "runPending", "task threw: {}"};
constexpr Memtrail::Site kTaskThrewOther{0, "TaskScheduler", "runPending", "task threw a non-standard exception"};
} // namespace

void TaskScheduler::taskIs(Task task) {
    if (!task) throw Wex::NullArgumentException("task");
    tasks_.push_back(std::move(task));
}

std::size_t TaskScheduler::runPending() noexcept {
    // A task may drop the last reference to the scheduler.
    Lumo::Ptr<TaskScheduler const> const self(this);
    std::size_t ran = 0;
    while (!tasks_.empty()) {
        // Taken off the queue first, so a task that runs the scheduler again does not rerun itself.
        Task task = std::move(tasks_.front());
        tasks_.pop_front();
        ++ran;
        try {
            task();
        } catch (std::exception const& e) {
            if (auto* h = Memtrail::defaultHandle())
                h->write(kTaskThrew, "Oru", std::string(e.what()));
        } catch (...) {
            if (auto* h = Memtrail::defaultHandle())
                h->write(kTaskThrewOther, "Oru");
        }
    }
    return ran;
}

Wex::WexType const* TaskScheduler::fwkType() const noexcept { return Wex::wexTypeOf<TaskScheduler>(); }

namespace {
Wex::WexModuleRegistrar registrar("Oru/TaskScheduler", [](Wex::WexModule& m) {
    m.type<TaskScheduler>("Oru::TaskScheduler")
        .readOnly("pending", [](TaskScheduler const& s) { return s.pending(); })
        .maker([](Wex::Args const& args) {
            args.checkOnly("Oru::TaskScheduler", {});
            Lumo::Ptr<TaskScheduler> s(new TaskScheduler());
            s->hasNotificationActiveIs(true);
            return s;
        });
});
} // namespace

} // namespace Oru
