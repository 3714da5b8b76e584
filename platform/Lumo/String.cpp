// Lumo::String: shared buffer allocation and release.
#include "Lumo/String.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <ostream>

namespace Lumo {

String::String(std::string_view s) {
    if (s.empty()) return;
    void* mem = std::malloc(offsetof(Rep, data) + s.size() + 1);
    if (!mem) throw std::bad_alloc();
    rep_ = static_cast<Rep*>(mem);
    rep_->refs = 1;
    rep_->size = static_cast<std::uint32_t>(s.size());
    std::memcpy(rep_->data, s.data(), s.size());
    rep_->data[s.size()] = '\0';
}

void String::release() noexcept {
    if (rep_ && --rep_->refs == 0) std::free(rep_);
    rep_ = nullptr;
}

std::ostream& operator<<(std::ostream& os, String const& s) { return os << s.view(); }

} // namespace Lumo
