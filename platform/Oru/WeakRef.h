// Oru::WeakRef: a non-counted back pointer, as an attribute shows it to reflection.
#pragma once

#include <string>

#include <fmt/format.h>

#include "Wex/PtrInterface.h"

namespace Oru {

// An attribute whose getter returns a WeakRef marks its pointer as a back pointer: its text
// is the address, reflection never treats it as an object it holds, and a dump follows it
// only while the dump context's followWeakReferences() is on. Whoever hands out a WeakRef
// clears its pointer before the object goes, so a non-null one is always safe to follow.
class WeakRef {
public:
    constexpr WeakRef() noexcept = default;
    constexpr explicit WeakRef(Wex::PtrInterface const* object) noexcept : object_(object) {}

    constexpr Wex::PtrInterface const* ptr() const noexcept { return object_; }
    friend constexpr bool operator==(WeakRef, WeakRef) noexcept = default;

private:
    Wex::PtrInterface const* object_ = nullptr;
};

// The address, or "null" as a null counted pointer reads.
inline std::string valueToStrep(WeakRef r) {
    return r.ptr() ? fmt::format("{}", static_cast<void const*>(r.ptr())) : std::string("null");
}

} // namespace Oru
