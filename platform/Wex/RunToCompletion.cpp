// Wex::RunToCompletion: running the queued events.
#include "Wex/RunToCompletion.h"

#include <string>

#include "Memtrail/Memtrail.h"

namespace Wex {

namespace {
constexpr Memtrail::Site kEventThrew{0, "RunToCompletion", "runQueued", "queued event threw: {}"};
constexpr Memtrail::Site kEventThrewOther{0, "RunToCompletion", "runQueued", "queued event threw a non-standard exception"};
} // namespace

void RunToCompletion::runQueued() noexcept {
    while (!queue_.empty()) {
        // Off the queue before it runs: what it posts goes behind it, and what its destruction
        // posts (the last reference to a request it held, say) too.
        std::function<void()> event = std::move(queue_.front());
        queue_.pop_front();
        try {
            event();
        } catch (std::exception const& e) {
            if (auto* h = Memtrail::defaultHandle()) h->write(kEventThrew, "Wex", std::string(e.what()));
        } catch (...) {
            if (auto* h = Memtrail::defaultHandle()) h->write(kEventThrewOther, "Wex");
        }
    }
    running_ = false;
}

} // namespace Wex
