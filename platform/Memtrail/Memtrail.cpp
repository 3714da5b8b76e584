// Memtrail: ring storage and reading records back.
#include "Memtrail/Memtrail.h"

#include <algorithm>

namespace Memtrail {

std::string Record::message() const {
    if (!ops_) return {};
    try {
        return ops_->format(format(), args_);
    } catch (std::exception const& e) {
        return fmt::format("<unformattable '{}': {}>", format(), e.what());
    }
}

std::string Record::text() const {
    return fmt::format("{}[{}] {}::{}: {}", handle(), level(), className(), function(), message());
}

Handle::Handle(std::size_t capacityPerLevel) : capacity_(std::max<std::size_t>(1, capacityPerLevel)) {
    for (Ring& r : rings_) r.slots = std::make_unique<Record[]>(capacity_);
}

std::vector<Record const*> Handle::records(unsigned level) const {
    std::vector<Record const*> out;
    if (level >= kLevels) return out;
    Ring const& r = rings_[level];
    out.reserve(r.count);
    std::size_t first = (r.next + capacity_ - r.count) % capacity_;
    for (std::size_t i = 0; i < r.count; ++i) out.push_back(&r.slots[(first + i) % capacity_]);
    return out;
}

std::vector<Record const*> Handle::records() const {
    std::vector<Record const*> out;
    for (unsigned l = 0; l < kLevels; ++l) {
        auto level = records(l);
        out.insert(out.end(), level.begin(), level.end());
    }
    std::sort(out.begin(), out.end(), [](Record const* a, Record const* b) { return a->sequence() < b->sequence(); });
    return out;
}

void Handle::clear() {
    for (Ring& r : rings_) {
        r.slots = std::make_unique<Record[]>(capacity_);
        r.next = r.count = 0;
    }
}

namespace {
Handle& processHandle() {
    static Handle handle;
    return handle;
}
} // namespace

Handle* detail::gDefault = nullptr;
bool detail::gDefaultChosen = false;

// The first trace point of a process that chose none gets the framework's own handle.
Handle* detail::defaultHandleChosen() noexcept {
    gDefault = &processHandle();
    gDefaultChosen = true;
    return gDefault;
}

void defaultHandleIs(Handle* handle) noexcept {
    detail::gDefault = handle;
    detail::gDefaultChosen = true;
}

} // namespace Memtrail
