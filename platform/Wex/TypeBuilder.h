// Wex::TypeBuilder: the one way a unit declares a type's table.
#pragma once

#include <functional>
#include <initializer_list>
#include <stdexcept>
#include <tuple>

// Included by Wex/Type.h.

namespace Wex {

template <class K> struct KeyTraits;        // Wex/Collection.h
template <class K, class V> struct Entry;   // Wex/EntryMap.h

namespace detail {
// The parameters an operation takes beside its object: all those of a member function, those
// after the object (T&) for a lambda.
template <class M> struct MemberFnParams;
template <class C, class R, class... A> struct MemberFnParams<R (C::*)(A...)> { using Tuple = std::tuple<std::decay_t<A>...>; };
template <class C, class R, class... A> struct MemberFnParams<R (C::*)(A...) const> : MemberFnParams<R (C::*)(A...)> {};
template <class C, class R, class... A> struct MemberFnParams<R (C::*)(A...) noexcept> : MemberFnParams<R (C::*)(A...)> {};
template <class C, class R, class... A> struct MemberFnParams<R (C::*)(A...) const noexcept> : MemberFnParams<R (C::*)(A...)> {};
template <class Tuple> struct DropFirst;
template <class First, class... Rest> struct DropFirst<std::tuple<First, Rest...>> { using Tuple = std::tuple<Rest...>; };
template <class F, bool = std::is_member_function_pointer_v<F>>
struct OpParamsOf { using Tuple = typename DropFirst<typename MemberFnParams<decltype(&F::operator())>::Tuple>::Tuple; };
template <class F> struct OpParamsOf<F, true> { using Tuple = typename MemberFnParams<F>::Tuple; };
template <class F> using OpParams = typename OpParamsOf<F>::Tuple;
template <class F, std::size_t I> using OpParam = std::tuple_element_t<I, OpParams<F>>;

template <class F, class... A>
Value invokeToValue(F const& f, A&&... a) {
    using R = std::invoke_result_t<F const&, A...>;
    if constexpr (std::is_void_v<R>) {
        std::invoke(f, std::forward<A>(a)...);
        return Value();
    } else {
        return Value::of<std::decay_t<R>>(std::invoke(f, std::forward<A>(a)...));
    }
}

// What reflection shows of a collection's member by default: the member itself, or the value
// of a plain (key, value) entry.
struct ShowMember {
    template <class M>
    M const& operator()(M const& m) const noexcept { return m; }
    template <class K, class V>
    V const& operator()(Entry<K, V> const& e) const noexcept { return e.value; }
};
// The watch of a collection: its typed watcher, telling the key as a Value.
template <class C>
class CollectionWatch final : public WexAttr::Watch, private C::Watcher {
public:
    CollectionWatch(C const& collection, WexAttr::ChangeHandler onChange)
        : collection_(collection), onChange_(std::move(onChange)) {
        collection_.watcherIs(this, true);
    }
    ~CollectionWatch() override { collection_.watcherIs(this, false); }

private:
    void onMember(C const&, typename C::Key const& key, typename C::Member const*) override { onChange_(Value::of(key)); }
    C const& collection_;
    WexAttr::ChangeHandler onChange_;
};

template <class Show, class M> using Shown = std::decay_t<std::invoke_result_t<Show const&, M const&>>;
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

    // A writable attribute: set is (T&, V const&). A write with no arguments stores V{}; one
    // from text reads V with its type's own reader.
    template <class G, class S>
    TypeBuilder& attribute(std::string name, G get, S set) {
        using V = detail::OpParam<S, 0>;
        WexAttr& a = add(name, AttrKind::attribute, getter(get)).attrs_back();
        a.set_ = [set, name, typeName = type_.name_](void* o, Args const& args) {
            std::invoke(set, *self(o), args.empty() ? V{} : args.getOrOnly<V>(typeName, name));
        };
        a.setFromText_ = [set, name](void* o, std::string_view text) {
            std::invoke(set, *self(o), valueFromText<V>(text, name));
        };
        return *this;
    }

    // A keyed collection: access is (T const&) -> the Wex::Collection. Reflection walks it,
    // counts it and reads and tests members by key; `show` (member -> value) makes it show
    // something other than what it stores. Writes follow as memberIs, memberDel and
    // memberDelAll, each the owner's own operation; without them the collection is read-only.
    template <class A, class Show = detail::ShowMember>
    auto collection(std::string name, A access, Show show = {}) {
        using C = std::remove_cvref_t<std::invoke_result_t<A const&, T const&>>;
        using K = typename C::Key;
        using Shown = detail::Shown<Show, typename C::Member>;
        WexAttr& a = add(name, AttrKind::collection, {}).attrs_back();
        a.walk_ = [access, show](void const* o, WexAttr::Visitor const& visit) {
            auto const& c = access(*self(o));
            for (auto const& m : c) {
                if constexpr (C::kIsSet) visit(Value(), Value::of<Shown>(show(m)));  // a set member is its own key
                else visit(Value::of(c.keyOf(m)), Value::of<Shown>(show(m)));
            }
        };
        a.count_ = [access](void const* o) { return access(*self(o)).size(); };
        a.member_ = [access, show, name, typeName = type_.name_](void const* o, Value const& key) {
            auto const* m = access(*self(o)).find(valueAs<K>(&key, typeName, name));
            return m ? Value::of<Shown>(show(*m)) : Value();
        };
        a.memberHas_ = [access, name, typeName = type_.name_](void const* o, Value const& key) {
            return access(*self(o)).has(valueAs<K>(&key, typeName, name));
        };
        a.keyFromText_ = [name](std::string_view text) { return Value::of(valueFromText<K>(text, name)); };
        a.watch_ = [access](void const* o, WexAttr::ChangeHandler onChange) -> std::unique_ptr<WexAttr::Watch> {
            return std::make_unique<detail::CollectionWatch<C>>(access(*self(o)), std::move(onChange));
        };
        return CollectionBuilder<T, C, Show>(*this, a);
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

protected:
    static T* self(void* o) {
        if constexpr (std::is_base_of_v<PtrInterface, T>) return dynamic_cast<T*>(static_cast<PtrInterface*>(o));
        else return static_cast<T*>(o);
    }
    static T const* self(void const* o) { return self(const_cast<void*>(o)); }

private:
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

// The writes of the collection just declared. Each goes through an operation of the owner,
// (T&, ...) as a lambda or the member function itself, which notifies and refuses as it does
// for its typed callers; keys and values are converted, and refused, before it runs.
template <class T, class C, class Show>
class CollectionBuilder : public TypeBuilder<T> {
public:
    using Key = typename C::Key;
    using Member = typename C::Member;

    CollectionBuilder(TypeBuilder<T> const& builder, WexAttr& attr) : TypeBuilder<T>(builder), attr_(attr) {}

    // op takes the member: it comes as the only argument, or under the collection's name. From
    // text, the value is read and its key must be the key given.
    template <class F>
    CollectionBuilder& memberIs(F op) {
        static_assert(std::tuple_size_v<detail::OpParams<F>> == 1, "a member, or construction values with their names");
        using V = detail::OpParam<F, 0>;
        std::string const name(attr_.name());
        attr_.memberIs_ = [op, name, typeName = ownerName()](void* o, Args const& args) {
            return detail::invokeToValue(op, *self(o), args.getOrOnly<V>(typeName, name));
        };
        if constexpr (std::is_same_v<V, Member>) {
            attr_.memberIsFromText_ = [op, name](void* o, std::string_view keyText, std::string_view valueText) {
                V const v = valueFromText<V>(valueText, name);
                if (!KeyTraits<Key>::eq(C::keyOf(v), valueFromText<Key>(keyText, name)))
                    throw RangeException(name, "the key given is not the key of the value");
                return detail::invokeToValue(op, *self(o), v);
            };
        } else {
            attr_.memberIsFromText_ = noTextWrite(name, "what the collection shows cannot be written from text");
        }
        return *this;
    }

    // op takes the construction values of a member the owner makes, named by `params`; other
    // arguments are refused. From text, a (key, value) pair is the two construction values.
    template <class F>
    CollectionBuilder& memberIs(std::initializer_list<std::string> params, F op) {
        using P = detail::OpParams<F>;
        if (params.size() != std::tuple_size_v<P>)
            throw std::logic_error(std::string(attr_.name()) + ": one name per construction value");
        attr_.params_ = params;
        attr_.memberIs_ = [op, names = attr_.params_, typeName = ownerName()](void* o, Args const& args) {
            args.checkOnly(typeName, names);
            P const values = constructionValues<P>(args, typeName, names, std::make_index_sequence<std::tuple_size_v<P>>{});
            return invokeWith(op, *self(o), values);
        };
        std::string const name(attr_.name());
        if constexpr (std::tuple_size_v<P> == 2 && std::is_same_v<std::tuple_element_t<0, P>, Key>) {
            attr_.memberIsFromText_ = [op, name](void* o, std::string_view keyText, std::string_view valueText) {
                P const values{valueFromText<std::tuple_element_t<0, P>>(keyText, name),
                               valueFromText<std::tuple_element_t<1, P>>(valueText, name)};
                return invokeWith(op, *self(o), values);
            };
        } else {
            attr_.memberIsFromText_ = noTextWrite(name, "its members are not made from a key and a value");
        }
        return *this;
    }

    // op is (T&, key) -> what it removed.
    template <class F>
    CollectionBuilder& memberDel(F op) {
        using K = detail::OpParam<F, 0>;
        attr_.memberDel_ = [op, name = std::string(attr_.name()), typeName = ownerName()](void* o, Value const& key) {
            return detail::invokeToValue(op, *self(o), valueAs<K>(&key, typeName, name));
        };
        return *this;
    }

    // op is (T&).
    template <class F>
    CollectionBuilder& memberDelAll(F op) {
        attr_.memberDelAll_ = [op](void* o) { std::invoke(op, *self(o)); };
        return *this;
    }

private:
    using TypeBuilder<T>::self;
    std::string ownerName() const { return std::string(attr_.owner()->name()); }
    static WexAttr::MemberTextWriter noTextWrite(std::string name, char const* why) {
        return [name = std::move(name), why](void*, std::string_view, std::string_view) -> Value {
            throw RangeException(name, why);
        };
    }
    // The construction values named `names`, converted (braced, left to right) in their order.
    template <class P, std::size_t... I>
    static P constructionValues(Args const& args, std::string const& typeName, std::vector<std::string> const& names,
                                std::index_sequence<I...>) {
        return P{args.get<std::tuple_element_t<I, P>>(typeName, names[I])...};
    }
    // Calls op with construction values, all of them converted before.
    template <class F, class P>
    static Value invokeWith(F const& op, T& object, P const& values) {
        return std::apply([&](auto const&... v) { return detail::invokeToValue(op, object, v...); }, values);
    }

    WexAttr& attr_;
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
