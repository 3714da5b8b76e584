// Wex::Value and Wex::Args: values and named arguments as reflection passes them around.
#pragma once

#include <any>
#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "Lumo/Ptr.h"
#include "Lumo/String.h"
#include "Wex/CharRange.h"
#include "Wex/Exception.h"
#include "Wex/PtrInterface.h"

namespace Wex {

template <class T> struct IsPtr : std::false_type { using Pointee = void; };
template <class T> struct IsPtr<Lumo::Ptr<T>> : std::true_type { using Pointee = T; };

// A counted pointer to a framework object.
template <class T>
concept ObjectPtr = IsPtr<T>::value && std::is_base_of_v<PtrInterface, std::remove_cv_t<typename IsPtr<T>::Pointee>>;

// The text form of any reflected value: the type's own valueToStrep where it has one,
// counted objects as their address.
template <class T>
std::string textOf(T const& v) {
    if constexpr (IsPtr<T>::value) return v ? fmt::format("{}", static_cast<void const*>(v.ptr())) : std::string("null");
    else if constexpr (std::is_same_v<T, bool>) return v ? "true" : "false";
    else if constexpr (requires { valueToStrep(v); }) return std::string(valueToStrep(v));
    else if constexpr (std::is_enum_v<T>) return fmt::format("{}", static_cast<std::underlying_type_t<T>>(v));
    else if constexpr (std::is_arithmetic_v<T>) return fmt::format("{}", v);
    else if constexpr (requires { v.ptr(); }) return fmt::format("{}", static_cast<void const*>(v.ptr()));
    else return "<value>";
}

// A reflected value of any type: its text form, and the object it refers to if it is a pointer.
class Value {
public:
    Value() = default;

    template <class T>
    static Value of(T v) {
        Value out;
        out.ops_ = &opsFor<T>;
        out.v_ = std::move(v);
        return out;
    }

    bool empty() const noexcept { return ops_ == nullptr; }
    template <class T> T const* as() const noexcept { return std::any_cast<T>(&v_); }
    std::type_info const& type() const noexcept { return v_.type(); }
    std::string text() const { return ops_ ? ops_->text(v_) : std::string(); }
    // The counted object a pointer value refers to (null for other values and null pointers).
    PtrInterface const* object() const noexcept { return ops_ ? ops_->object(v_) : nullptr; }

private:
    struct Ops {
        std::string (*text)(std::any const&);
        PtrInterface const* (*object)(std::any const&);
    };
    template <class T>
    static constexpr Ops opsFor{
        [](std::any const& a) { return textOf(*std::any_cast<T>(&a)); },
        [](std::any const& a) -> PtrInterface const* {
            if constexpr (ObjectPtr<T>)
                return std::any_cast<T>(&a)->ptr();
            else return nullptr;
        }};

    std::any v_;
    Ops const* ops_ = nullptr;
};

// Named arguments of a generic construction, call or write.
class Args {
public:
    Args() = default;
    Args(std::initializer_list<std::pair<std::string, Value>> args) : args_(args) {}

    Args& add(std::string name, Value v) { args_.emplace_back(std::move(name), std::move(v)); return *this; }
    std::size_t size() const noexcept { return args_.size(); }
    bool empty() const noexcept { return args_.empty(); }
    auto begin() const noexcept { return args_.begin(); }
    auto end() const noexcept { return args_.end(); }
    Value const* find(std::string_view name) const noexcept {
        for (auto const& a : args_) if (a.first == name) return &a.second;
        return nullptr;
    }

    // The argument `name` as a T; a counted pointer accepts any object of a matching type.
    // `owner` names the type or operation in the error of a missing or mistyped argument.
    template <class T>
    T get(std::string_view owner, std::string_view name) const {
        Value const* v = find(name);
        if (!v) throw NewEntityArgsException(owner, name, "is missing");
        if (T const* t = v->as<T>()) return *t;
        if constexpr (IsPtr<T>::value) {
            using P = typename IsPtr<T>::Pointee;
            if (v->object() == nullptr && v->text() == "null") return T();
            if (auto* p = dynamic_cast<P*>(const_cast<PtrInterface*>(v->object()))) return T(p);
        }
        throw NewEntityArgsException(owner, name, "has the wrong type");
    }
    // Refuses any argument not in `allowed`.
    void checkOnly(std::string_view owner, std::initializer_list<std::string_view> allowed) const;

private:
    std::vector<std::pair<std::string, Value>> args_;
};

} // namespace Wex
