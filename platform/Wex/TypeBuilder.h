// Wex::TypeBuilder: the one way a unit declares a type's table.
#pragma once

#include <initializer_list>
#include <tuple>

// Included by Wex/Type.h.

namespace Wex {

namespace detail {
template <class F> struct LambdaArgs : LambdaArgs<decltype(&F::operator())> {};
template <class C, class R, class... A> struct LambdaArgs<R (C::*)(A...) const> { using Tuple = std::tuple<std::decay_t<A>...>; };
template <class F, std::size_t I> using LambdaArg = std::tuple_element_t<I, typename LambdaArgs<F>::Tuple>;

template <class F, class... A>
Value invokeToValue(F const& f, A&&... a) {
    using R = std::invoke_result_t<F const&, A...>;
    if constexpr (std::is_void_v<R>) {
        f(std::forward<A>(a)...);
        return Value();
    } else {
        return Value::of<std::decay_t<R>>(f(std::forward<A>(a)...));
    }
}
} // namespace detail

template <class T>
class TypeBuilder {
public:
    TypeBuilder(WexModule& module, WexType& type) : module_(module), type_(type) {}

    template <class B>
    TypeBuilder& base() {
        static_assert(std::is_base_of_v<B, T>);
        type_.base_ = [] { return wexTypeOf<B>(); };
        return *this;
    }

    // A read-only attribute: get is (T const&) -> value.
    template <class G>
    TypeBuilder& readOnly(std::string name, G get) { return add(std::move(name), AttrKind::attribute, getter(get)); }
    template <class G>
    TypeBuilder& constant(std::string name, G get) { return add(std::move(name), AttrKind::constant, getter(get)); }

    // A writable attribute: set is (T&, V const&). A write with no arguments stores V{}.
    template <class G, class S>
    TypeBuilder& attribute(std::string name, G get, S set) {
        using V = detail::LambdaArg<S, 1>;
        WexAttr& a = add(name, AttrKind::attribute, getter(get)).attrs_back();
        a.set_ = [set, name, typeName = type_.name_](void* o, Args const& args) {
            if (args.empty()) return set(*self(o), V{});
            Value const* v = args.find(name) ? args.find(name) : (args.size() == 1 ? &args.begin()->second : nullptr);
            if (!v) throw NewEntityArgsException(typeName, name, "is missing");
            Args one{{name, *v}};
            set(*self(o), one.get<V>(typeName, name));
        };
        return *this;
    }

    // A keyed collection: access is (T const&) -> the Wex::Collection.
    template <class A>
    TypeBuilder& collection(std::string name, A access) {
        WexAttr& a = add(std::move(name), AttrKind::collection, {}).attrs_back();
        a.walk_ = [access](void const* o, WexAttr::Visitor const& visit) {
            auto const& c = access(*self(o));
            using C = std::decay_t<decltype(c)>;
            for (auto const& v : c) {
                if constexpr (C::kIsSet) visit(Value(), Value::of(v));  // a set member is its own key
                else visit(Value::of(c.keyOf(v)), Value::of(v));
            }
        };
        a.count_ = [access](void const* o) { return access(*self(o)).size(); };
        return *this;
    }

    // An operation, callable through reflection: f is (T&, Args const&) -> result or void.
    template <class F>
    TypeBuilder& operation(std::string name, std::initializer_list<std::string> params, F f) {
        WexAttr& a = add(std::move(name), AttrKind::operation, {}).attrs_back();
        a.params_ = params;
        a.call_ = [f](void* o, Args const& args) { return detail::invokeToValue(f, *self(o), args); };
        return *this;
    }
    // An operation shown in the table that reflection may not call.
    TypeBuilder& hidden(std::string name, AttrKind kind = AttrKind::operation) { return add(std::move(name), kind, {}); }

    // A static operation: f is (Args const&) -> result or void.
    template <class F>
    TypeBuilder& staticOperation(std::string name, std::initializer_list<std::string> params, F f) {
        WexAttr& a = add(std::move(name), AttrKind::staticOperation, {}).attrs_back();
        a.params_ = params;
        a.call_ = [f](void*, Args const& args) { return detail::invokeToValue(f, args); };
        return *this;
    }

    // Generic construction from named arguments: f is (Args const&) -> the new value or pointer.
    template <class F>
    TypeBuilder& maker(F f) {
        type_.maker_ = [f](Args const& args) { return detail::invokeToValue(f, args); };
        return *this;
    }

    // Directories make entities of this type from a name alone (T(Lumo::String)); a generic
    // construction takes the argument "name" and refuses any other.
    TypeBuilder& entityMaker() {
        type_.entityMaker_ = [](Lumo::String const& name) {
            Lumo::Ptr<T> e(new T(name));
            e->hasNotificationActiveIs(true);
            return Lumo::Ptr<Entity>(e);
        };
        type_.maker_ = [typeName = type_.name_](Args const& args) {
            args.checkOnly(typeName, {"name"});
            Lumo::Ptr<T> e(new T(args.get<Lumo::String>(typeName, "name")));
            e->hasNotificationActiveIs(true);
            return Value::of(e);
        };
        return *this;
    }

private:
    static T* self(void* o) {
        if constexpr (std::is_base_of_v<PtrInterface, T>) return dynamic_cast<T*>(static_cast<PtrInterface*>(o));
        else return static_cast<T*>(o);
    }
    static T const* self(void const* o) { return self(const_cast<void*>(o)); }

    template <class G>
    static WexAttr::Getter getter(G get) {
        return [get](void const* o) { return Value::of<std::decay_t<decltype(get(*self(o)))>>(get(*self(o))); };
    }
    TypeBuilder& add(std::string name, AttrKind kind, WexAttr::Getter get) {
        WexAttr& a = type_.attrs_.emplace_back();
        a.name_ = std::move(name);
        a.kind_ = kind;
        a.owner_ = &type_;
        a.get_ = std::move(get);
        return *this;
    }
    WexAttr& attrs_back() { return type_.attrs_.back(); }

    WexModule& module_;
    WexType& type_;
};

template <class T>
TypeBuilder<T> WexModule::type(std::string name) {
    WexType& t = types_.emplace_back();
    t.name_ = std::move(name);
    t.module_ = this;
    t.index_ = types_.size() - 1;
    t.counted_ = std::is_base_of_v<PtrInterface, T>;
    if constexpr (std::is_base_of_v<PtrInterface, T>)
        t.downcast_ = [](PtrInterface* p) -> void* { return dynamic_cast<T*>(p) ? static_cast<void*>(p) : nullptr; };
    slots_.push_back(&wexTypeSlot<T>());
    return TypeBuilder<T>(*this, t);
}

} // namespace Wex
