// Wex type tables: types by full name, their attributes in declaration order, and the
// generic read, write, call and construction that reflection offers through them.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "Lumo/Ptr.h"
#include "Wex/Exception.h"
#include "Wex/PtrInterface.h"
#include "Wex/Value.h"

namespace Wex {

class WexType;
class WexModule;
class Entity;

enum class AttrKind : std::uint8_t { attribute, collection, operation, staticOperation, constant };

// An object seen through its type: what reflection reads, writes and calls on. For counted
// types `object` is the PtrInterface; for value types it is the value itself.
struct GenericIf {
    WexType const* type = nullptr;
    void* object = nullptr;
    Lumo::Ptr<PtrInterface> hold;
};

// One entry of a type's table: an attribute, a keyed collection, an operation or a constant.
// Writes go through the owner's own typed operations, so that a reflective write notifies and
// refuses exactly as the typed call does.
class WexAttr {
public:
    using Getter = std::function<Value(void const*)>;
    using Setter = std::function<void(void*, Args const&)>;
    using TextSetter = std::function<void(void*, std::string_view)>;
    using Caller = std::function<Value(void*, Args const&)>;
    using Visitor = std::function<void(Value const& key, Value const& value)>;
    using Walker = std::function<void(void const*, Visitor const&)>;
    using Counter = std::function<std::size_t(void const*)>;
    using Finder = std::function<Value(void const*, Value const& key)>;
    using Tester = std::function<bool(void const*, Value const& key)>;
    using KeyReader = std::function<Value(std::string_view)>;
    using MemberWriter = std::function<Value(void*, Args const&)>;
    using MemberTextWriter = std::function<Value(void*, std::string_view key, std::string_view value)>;
    using Deleter = std::function<Value(void*, Value const& key)>;
    using Clearer = std::function<void(void*)>;

    std::string_view name() const noexcept { return name_; }
    AttrKind kind() const noexcept { return kind_; }
    bool readable() const noexcept { return bool(get_) || bool(walk_); }
    // Nothing can be written: neither the attribute nor any member of the collection.
    bool readOnly() const noexcept { return !set_ && !memberIs_ && !memberDel_ && !memberDelAll_; }
    // Written with no arguments it is reset: an attribute to its initial value, a collection
    // that deletes all its members to empty (through the owner's operation).
    bool resettable() const noexcept { return bool(set_) || bool(memberDelAll_); }
    bool deletesMembers() const noexcept { return bool(memberDel_); }
    bool deletesAllMembers() const noexcept { return bool(memberDelAll_); }
    bool callable() const noexcept { return bool(call_); }
    // An operation's parameters; a collection's construction values, for one whose owner makes
    // its members from them.
    std::vector<std::string> const& params() const noexcept { return params_; }
    WexType const* owner() const noexcept { return owner_; }

    Value get(void const* object) const;
    void set(void* object, Args const& args) const;
    // Writes the value read from `text` with its type's own reader (Wex::readValue).
    void setFromText(void* object, std::string_view text) const;
    Value call(void* object, Args const& args) const;

    // Keyed collections. A key or value of another type than the collection's is refused
    // with ValueTypeException, bad text with RangeException, any write of a read-only
    // collection with AttributeAccessException; a refusal changes nothing.
    void forEach(void const* object, Visitor const& visit) const;
    std::size_t count(void const* object) const;
    // The member under key as the collection shows it, or an empty Value when there is none
    // (so that an absent entry is told from one holding an empty value).
    Value member(void const* object, Value const& key) const;
    bool memberHas(void const* object, Value const& key) const;
    // Writes one member through the owner's operation: the member as the only argument (or
    // under the attribute's name), or the construction values named by params(). Returns what
    // the operation returns (the entry made, for an owner that makes them).
    Value memberIs(void* object, Args const& args) const;
    // The same from text: the key and the value, each read with its type's own reader.
    Value memberIsFromText(void* object, std::string_view keyText, std::string_view valueText) const;
    // Deletes the member under key and returns what the owner's operation removed.
    Value memberDel(void* object, Value const& key) const;
    Value memberDelFromText(void* object, std::string_view keyText) const;
    // A key of the collection read from its text form (RangeException for bad text).
    Value keyFromText(std::string_view keyText) const;
    void memberDelAll(void* object) const;

    // The same on an object seen through its generic interface. Writing an attribute with
    // empty arguments resets it to its initial value.
    void genericIfSet(GenericIf const& gi, Args const& args) const { set(gi.object, args); }
    void genericIfSetFromText(GenericIf const& gi, std::string_view text) const { setFromText(gi.object, text); }
    Value genericIfGet(GenericIf const& gi) const { return get(gi.object); }
    Value genericIfCall(GenericIf const& gi, Args const& args) const { return call(gi.object, args); }
    std::size_t genericIfCount(GenericIf const& gi) const { return count(gi.object); }
    Value genericIfMember(GenericIf const& gi, Value const& key) const { return member(gi.object, key); }
    bool genericIfMemberHas(GenericIf const& gi, Value const& key) const { return memberHas(gi.object, key); }
    Value genericIfMemberIs(GenericIf const& gi, Args const& args) const { return memberIs(gi.object, args); }
    Value genericIfMemberIsFromText(GenericIf const& gi, std::string_view keyText, std::string_view valueText) const {
        return memberIsFromText(gi.object, keyText, valueText);
    }
    Value genericIfMemberDel(GenericIf const& gi, Value const& key) const { return memberDel(gi.object, key); }
    Value genericIfMemberDelFromText(GenericIf const& gi, std::string_view keyText) const {
        return memberDelFromText(gi.object, keyText);
    }
    void genericIfMemberDelAll(GenericIf const& gi) const { memberDelAll(gi.object); }

    // Watching through the table, for code that knows the attribute by name only (the sync
    // service serving a path). `onChange` hears the key of each member written or deleted; a
    // plain attribute tells no key, so it hears an empty Value after any change of its object
    // and reads the attribute again. Watching stops when the returned watch goes; the object
    // must outlive it.
    using ChangeHandler = std::function<void(Value const& key)>;
    class Watch {
    public:
        virtual ~Watch() = default;
    };
    std::unique_ptr<Watch> watch(PtrInterface const& object, ChangeHandler onChange) const;

private:
    template <class T> friend class TypeBuilder;
    template <class T, class C, class Show> friend class CollectionBuilder;
    [[noreturn]] void refuse(std::string_view detail) const;
    void requireCollection() const;

    std::string name_;
    AttrKind kind_ = AttrKind::attribute;
    std::vector<std::string> params_;
    WexType const* owner_ = nullptr;
    Getter get_;
    Setter set_;
    TextSetter setFromText_;
    Caller call_;
    Walker walk_;
    Counter count_;
    Finder member_;
    Tester memberHas_;
    KeyReader keyFromText_;
    MemberWriter memberIs_;
    MemberTextWriter memberIsFromText_;
    Deleter memberDel_;
    Clearer memberDelAll_;
    std::function<std::unique_ptr<Watch>(void const*, ChangeHandler)> watch_;
};

class WexType {
public:
    std::string_view name() const noexcept { return name_; }
    WexModule const& module() const noexcept { return *module_; }
    std::size_t index() const noexcept { return index_; }
    WexType const* base() const noexcept { return base_ ? base_() : nullptr; }
    bool isCounted() const noexcept { return counted_; }
    // True when this type is `other` or descends from it.
    bool isDerived(WexType const* other) const noexcept;

    std::deque<WexAttr> const& attrs() const noexcept { return attrs_; }
    // Own and inherited attributes, the base's first.
    std::vector<WexAttr const*> allAttrs() const;
    WexAttr const* attr(std::string_view name) const noexcept;
    // Like attr(), but an unknown name is an AttributeAccessException.
    WexAttr const& attrOrThrow(std::string_view name) const;

    GenericIf genericIf(Lumo::Ptr<PtrInterface> const& object) const;
    // Generic construction from named arguments; refused when the type has no maker.
    Value newValue(Args const& args) const;
    // Makes an entity of this type named `name`, as a directory does.
    Lumo::Ptr<Entity> newEntity(Lumo::String const& name) const;
    bool makesEntities() const noexcept { return bool(entityMaker_); }

private:
    template <class T> friend class TypeBuilder;
    friend class WexModule;
    std::string name_;
    WexModule const* module_ = nullptr;
    std::size_t index_ = 0;
    bool counted_ = false;
    WexType const* (*base_)() = nullptr;
    std::function<void*(PtrInterface*)> downcast_;
    std::deque<WexAttr> attrs_;
    std::function<Value(Args const&)> maker_;
    std::function<Lumo::Ptr<Entity>(Lumo::String const&)> entityMaker_;
};

// Orders types by identity: the table they belong to, then their index in it.
bool typeLess(WexType const* a, WexType const* b) noexcept;

// The C++ type's registered WexType, or null before its table is registered.
template <class T>
WexType const*& wexTypeSlot() noexcept {
    static WexType const* slot = nullptr;
    return slot;
}
template <class T>
WexType const* wexTypeOf() noexcept { return wexTypeSlot<std::remove_cv_t<T>>(); }

template <class T> class TypeBuilder;
template <class T, class C, class Show> class CollectionBuilder;

// One unit's type table. Built and registered by a WexModuleRegistrar at load time.
class WexModule {
public:
    explicit WexModule(std::string name) : name_(std::move(name)) {}
    WexModule(WexModule const&) = delete;
    WexModule& operator=(WexModule const&) = delete;
    ~WexModule();

    std::string_view name() const noexcept { return name_; }
    std::deque<WexType> const& types() const noexcept { return types_; }
    std::uint64_t sequence() const noexcept { return sequence_; }

    template <class T>
    TypeBuilder<T> type(std::string name);

private:
    friend void wexModuleIs(WexModule& module);
    friend void wexModuleDel(WexModule& module) noexcept;
    std::string name_;
    std::deque<WexType> types_;
    std::vector<WexType const**> slots_;
    std::uint64_t sequence_ = 0;
};

// Registers a unit's table: its types become known by name. The registry is a function-local
// static, so the order of static initialisation across units never matters.
void wexModuleIs(WexModule& module);
void wexModuleDel(WexModule& module) noexcept;
std::vector<WexModule const*> wexModules();
WexType const* typeNode(std::string_view name) noexcept;

// Builds and registers a table at load, unregisters it at unload. One per unit:
//   static Wex::WexModuleRegistrar registrar("KelLib/Unit", [](Wex::WexModule& m) { m.type<X>("Ns::X")...; });
class WexModuleRegistrar {
public:
    WexModuleRegistrar(std::string name, void (*build)(WexModule&));
    ~WexModuleRegistrar();
    WexModule const& module() const noexcept { return *module_; }

private:
    std::unique_ptr<WexModule> module_;
};

} // namespace Wex

#include "Wex/TypeBuilder.h"
