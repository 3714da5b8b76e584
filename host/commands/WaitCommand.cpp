// wait: serves the event loop until a condition holds or a timeout passes, so that a script
// can wait for what its peers do.
#include "host/Command.h"

#include <charconv>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "Q7Sync/Service.h"
#include "Wex/EventLoop.h"
#include "host/AttributeText.h"

namespace Q7Agent {
namespace {

using Q7Serdes::WexUtils::SyncStatusEnum;

constexpr double kMaxSeconds = 3600;

// A condition, and what stands now as one line: what held, or what was seen instead.
struct Condition {
    std::function<bool()> holds;
    std::function<std::string()> seen;
};

double seconds(std::string const& text, char const* argument) {
    double s = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), s);
    if (error != std::errc() || end != text.data() + text.size() || !(s > 0 && s <= kMaxSeconds))
        throw CLI::ValidationError(argument, fmt::format("'{}' is not a number of seconds above 0, at most {}", text, kMaxSeconds));
    return s;
}

SyncStatusEnum statusNamed(std::string const& name) {
    for (auto s : {SyncStatusEnum::notConnected, SyncStatusEnum::connecting, SyncStatusEnum::syncing,
                   SyncStatusEnum::inSync, SyncStatusEnum::failed})
        if (valueToStrep(s) == name) return s;
    throw CLI::ValidationError("status", fmt::format("'{}' is none of notConnected, connecting, syncing, inSync, failed", name));
}

// The status, and when `reasonPart` is given, a reason that contains it.
Condition statusIs(std::string const& uri, SyncStatusEnum wanted, std::string const& reasonPart) {
    auto const status = [uri] { return Q7Sync::Service::instance().syncStatus(uri); };
    return {[status, wanted, reasonPart] {
                auto const s = status();
                return s && s->status() == wanted && s->reason().view().find(reasonPart) != std::string_view::npos;
            },
            [status, uri] {
                auto const s = status();
                if (!s) return fmt::format("{} is not subscribed", uri);
                return fmt::format("{} is {}{}", uri, s->status(), s->reason().empty() ? "" : fmt::format(" ({})", s->reason()));
            }};
}

// The entry `key` of the collection at `path` (its value as text), or nothing when it has none.
std::optional<std::string> entryAt(std::string const& path, std::string const& key) {
    Wex::AttributeAt const at = Wex::attributeAt(path);
    if (!at || at.attr->kind() != Wex::AttrKind::collection) return std::nullopt;
    auto const found = keyOf(at, key);
    if (!found) return std::nullopt;
    return at.attr->member(at.object(), *found).text();
}

Condition entryIs(std::string const& path, std::string const& key, std::optional<std::string> const& value, bool absent) {
    // A collection may be missing yet (its container not made); anything else is a mistake.
    if (Wex::AttributeAt const at = Wex::attributeAt(path); at && at.attr->kind() != Wex::AttrKind::collection)
        throw CLI::ValidationError("path", fmt::format("{} is not a keyed collection", path));
    return {[=] {
                auto const now = entryAt(path, key);
                return absent ? !now : now && (!value || *now == *value);
            },
            [=] {
                auto const now = entryAt(path, key);
                return now ? fmt::format("{} has {} = {}", path, key, *now) : fmt::format("{} has no {}", path, key);
            }};
}

class WaitCommand : public Command {
public:
    void run(Host& host) override {
        std::size_t const n = args_.size();
        bool const counted = what_ == "seconds" ? n == 1 : what_ == "absent" ? n == 2 : n == 2 || n == 3;
        if (!counted) throw CLI::ValidationError("arguments", fmt::format("'wait {}' takes {}", what_, usage()));
        if (what_ == "seconds") {
            if (timeoutOption_->count()) throw CLI::ValidationError("--timeout", "'wait seconds' takes no timeout");
            double const s = seconds(args_[0], "seconds");
            Wex::runUntil([] { return false; }, duration(s));
            fmt::print(host.out(), "  wait: served the loop for {:g} s\n", s);
            return;
        }
        if (!(timeout_ > 0 && timeout_ <= kMaxSeconds))
            throw CLI::ValidationError("--timeout", fmt::format("takes seconds above 0, at most {}", kMaxSeconds));
        Condition const c = condition();
        if (Wex::runUntil(c.holds, duration(timeout_))) {
            fmt::print(host.out(), "  wait: {}\n", c.seen());
            return;
        }
        fmt::print(host.out(), "  wait: timed out after {:g} s: {}\n", timeout_, c.seen());
        throw Failed();
    }

protected:
    void bind(CLI::App& app) override {
        app.add_option("what", what_)->required()->check(CLI::IsMember({"status", "entry", "absent", "seconds"}));
        app.add_option("arguments", args_)->required()->expected(1, 3);
        timeoutOption_ = app.add_option("--timeout", timeout_);
    }

private:
    static std::chrono::steady_clock::duration duration(double s) {
        return std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(s));
    }
    std::string usage() const {
        if (what_ == "status") return "URI STATUS [REASON]";
        if (what_ == "entry") return "PATH KEY [VALUE]";
        if (what_ == "absent") return "PATH KEY";
        return "S";
    }
    Condition condition() const {
        if (what_ == "status") return statusIs(args_[0], statusNamed(args_[1]), args_.size() == 3 ? args_[2] : "");
        std::optional<std::string> value;
        if (args_.size() == 3) value = stringText(args_[2], "value");
        return entryIs(args_[0], stringText(args_[1], "key"), value, what_ == "absent");
    }

    std::string what_;
    std::vector<std::string> args_;
    double timeout_ = 10;
    CLI::Option* timeoutOption_ = nullptr;  // whether a timeout was given: 'wait seconds' takes none
};

CommandRegistrar<WaitCommand> const registrar(
    "wait", "wait status URI STATUS [REASON] | entry PATH KEY [VALUE] | absent PATH KEY [--timeout S] | seconds S",
    "serve the loop until the condition holds (a status with a reason containing REASON, if given; fails after the "
    "timeout, 10 s), or for S seconds");

} // namespace
} // namespace Q7Agent
