// Wex::Value and Wex::Args: values and named arguments as reflection passes them around.
#pragma once

#include <any>
#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>
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

// The C++ name of a type, as errors show it.
std::string typeName(std::type_info const& type);

// A reflected value of any type: its text form, the object it refers to if it is a pointer,
// and its hash and truth value where its type has them.
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
    // The value's own hash(seed) with seed 0, as tables of such values use it; nothing for a
    // type without one.
    std::optional<std::uint32_t> hash() const { return ops_ ? ops_->hash(v_) : std::nullopt; }
    // The value as a bool (a value type's explicit operator bool, a pointer's non-null); nothing
    // for a type without one.
    std::optional<bool> truth() const { return ops_ ? ops_->truth(v_) : std::nullopt; }
    std::string typeName() const { return ops_ ? Wex::typeName(v_.type()) : std::string("no value"); }

    // The value as a T: a T itself or, for a counted pointer, a pointer to any object of a
    // matching type (a null pointer of any type is a null T). Nothing for anything else.
    template <class T>
    std::optional<T> to() const {
        if (T const* t = as<T>()) return *t;
        if constexpr (ObjectPtr<T>) {
            if (ops_ && ops_->pointer) {
                PtrInterface const* o = object();
                if (!o) return T();
                using P = typename IsPtr<T>::Pointee;
                if (auto* p = dynamic_cast<P*>(const_cast<PtrInterface*>(o))) return T(p);
            }
        }
        return std::nullopt;
    }

private:
    struct Ops {
        std::string (*text)(std::any const&);
        PtrInterface const* (*object)(std::any const&);
        std::optional<std::uint32_t> (*hash)(std::any const&);
        std::optional<bool> (*truth)(std::any const&);
        bool pointer;
    };
    template <class T>
    static constexpr Ops opsFor{
        [](std::any const& a) { return textOf(*std::any_cast<T>(&a)); },
        [](std::any const& a) -> PtrInterface const* {
            if constexpr (ObjectPtr<T>)
                return std::any_cast<T>(&a)->ptr();
            else return nullptr;
        },
        [](std::any const& a) -> std::optional<std::uint32_t> {
            if constexpr (requires(T const& v) { { v.hash(std::uint32_t(0)) } -> std::convertible_to<std::uint32_t>; })
                return std::any_cast<T>(&a)->hash(std::uint32_t(0));
            else return std::nullopt;
        },
        [](std::any const& a) -> std::optional<bool> {
            if constexpr (std::is_constructible_v<bool, T const&>)
                return static_cast<bool>(*std::any_cast<T>(&a));
            else return std::nullopt;
        },
        ObjectPtr<T>};

    std::any v_;
    Ops const* ops_ = nullptr;
};

// The value v as a T, for the attribute or argument `name` of `owner`: refused when v is
// missing (NewEntityArgsException) or of another type (ValueTypeException).
template <class T>
T valueAs(Value const* v, std::string_view owner, std::string_view name) {
    if (!v) throw NewEntityArgsException(owner, name, "is missing");
    if (std::optional<T> t = v->to<T>()) return *std::move(t);
    throw ValueTypeException(owner, name, typeName(typeid(T)), v->typeName());
}

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
    // The argument `name`, or the only argument whatever its name: a write of one value.
    Value const* findOrOnly(std::string_view name) const noexcept {
        Value const* v = find(name);
        return v || args_.size() != 1 ? v : &args_.front().second;
    }

    // The argument `name` as a T (see Value::to). `owner` names the type or operation in the
    // error of a missing (NewEntityArgsException) or mistyped (ValueTypeException) argument.
    template <class T>
    T get(std::string_view owner, std::string_view name) const { return valueAs<T>(find(name), owner, name); }
    // The same for a write of one value: the argument `name`, or the only one.
    template <class T>
    T getOrOnly(std::string_view owner, std::string_view name) const { return valueAs<T>(findOrOnly(name), owner, name); }
    // Refuses any argument not in `allowed`.
    void checkOnly(std::string_view owner, std::initializer_list<std::string_view> allowed) const;
    void checkOnly(std::string_view owner, std::vector<std::string> const& allowed) const;

private:
    std::vector<std::pair<std::string, Value>> args_;
};
} // namespace Wex
