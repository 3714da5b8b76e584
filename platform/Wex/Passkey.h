// Wex::Passkey: restricts a public call to the one class that may make it.
#pragma once

namespace Wex {

// A call that takes a Passkey<T> can be made by T alone: only T can make the key (its
// constructor is private, T its friend). The call stays public for T to reach, and its
// signature says who that is.
template <class T>
class Passkey {
    friend T;
    Passkey() = default;
};

} // namespace Wex
