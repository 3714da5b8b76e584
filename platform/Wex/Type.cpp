// Wex type tables: the registry and generic access through attributes.
#include "Wex/Type.h"

#include <algorithm>
#include <functional>
#include <unordered_map>

#include "Wex/Entity.h"

namespace Wex {

namespace {
// Hashes a name given as a string or a view alike, so that a look-up makes no string.
struct NameHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view name) const noexcept { return std::hash<std::string_view>{}(name); }
};

struct Registry {
    std::vector<WexModule*> modules;
    // Directories make every container and agent directory by its type's name: one hash and
    // one compare per look-up. Nothing else keeps pointers into the tables, which go when
    // their library is unloaded.
    std::unordered_map<std::string, WexType const*, NameHash, std::equal_to<>> byName;
    std::uint64_t nextSequence = 1;
};
Registry& registry() {
    static Registry r;
    return r;
}
} // namespace

Value WexAttr::get(void const* object) const {
    if (!get_) throw AttributeAccessException(owner_->name(), name_, "cannot be read");
    return get_(object);
}

void WexAttr::set(void* object, Args const& args) const {
    // A collection is written member by member; written with no arguments it is reset.
    if (kind_ == AttrKind::collection && args.empty() && memberDelAll_) return memberDelAll_(object);
    if (!set_) refuse(kind_ == AttrKind::collection ? "is written member by member" : "is read-only");
    set_(object, args);
}

void WexAttr::setFromText(void* object, std::string_view text) const {
    if (!setFromText_) refuse("is read-only");
    setFromText_(object, text);
}

Value WexAttr::call(void* object, Args const& args) const {
    if (!call_) throw AttributeAccessException(owner_->name(), name_, "cannot be called");
    return call_(object, args);
}

void WexAttr::forEach(void const* object, Visitor const& visit) const {
    requireCollection();
    walk_(object, visit);
}

std::size_t WexAttr::count(void const* object) const {
    requireCollection();
    return count_(object);
}

Value WexAttr::member(void const* object, Value const& key) const {
    requireCollection();
    return member_(object, key);
}

bool WexAttr::memberHas(void const* object, Value const& key) const {
    requireCollection();
    return memberHas_(object, key);
}

Value WexAttr::memberIs(void* object, Args const& args) const {
    requireCollection();
    if (!memberIs_) refuse("is read-only");
    return memberIs_(object, args);
}

Value WexAttr::memberIsFromText(void* object, std::string_view keyText, std::string_view valueText) const {
    requireCollection();
    if (!memberIsFromText_) refuse("is read-only");
    return memberIsFromText_(object, keyText, valueText);
}

Value WexAttr::memberDel(void* object, Value const& key) const {
    requireCollection();
    if (!memberDel_) refuse("does not delete members");
    return memberDel_(object, key);
}

Value WexAttr::keyFromText(std::string_view keyText) const {
    requireCollection();
    return keyFromText_(keyText);
}

Value WexAttr::memberDelFromText(void* object, std::string_view keyText) const {
    requireCollection();
    if (!memberDel_) refuse("does not delete members");
    return memberDel_(object, keyFromText_(keyText));
}

void WexAttr::memberDelAll(void* object) const {
    requireCollection();
    if (!memberDelAll_) refuse("does not delete all members");
    memberDelAll_(object);
}

namespace {
// A plain attribute's watch: its object tells no key, so any change is told without one.
class PlainWatch final : public WexAttr::Watch, private AttributeWatcher {
public:
    PlainWatch(PtrInterface const& object, WexAttr::ChangeHandler onChange)
        : object_(object), onChange_(std::move(onChange)) {
        watchIs(object_, true);
    }
    ~PlainWatch() override { watchIs(object_, false); }

private:
    void onAttribute(AttributeId, void const*) override { onChange_(Value()); }
    PtrInterface const& object_;
    WexAttr::ChangeHandler onChange_;
};
} // namespace

std::unique_ptr<WexAttr::Watch> WexAttr::watch(PtrInterface const& object, ChangeHandler onChange) const {
    if (watch_) return watch_(&object, std::move(onChange));
    if (kind_ != AttrKind::attribute || !get_) throw AttributeAccessException(owner_->name(), name_, "cannot be watched");
    return std::make_unique<PlainWatch>(object, std::move(onChange));
}

// A collection that allows no write at all says so, whichever write was refused.
void WexAttr::refuse(std::string_view detail) const {
    throw AttributeAccessException(owner_->name(), name_, readOnly() ? "is read-only" : detail);
}

void WexAttr::requireCollection() const {
    if (kind_ != AttrKind::collection) throw AttributeAccessException(owner_->name(), name_, "is not a collection");
}

bool WexType::isDerived(WexType const* other) const noexcept {
    for (WexType const* t = this; t; t = t->base())
        if (t == other) return true;
    return false;
}

std::vector<WexAttr const*> WexType::allAttrs() const {
    std::vector<WexAttr const*> out;
    if (WexType const* b = base()) out = b->allAttrs();
    for (WexAttr const& a : attrs_) out.push_back(&a);
    return out;
}

WexAttr const* WexType::attr(std::string_view name) const noexcept {
    for (WexAttr const& a : attrs_)
        if (a.name() == name) return &a;
    WexType const* b = base();
    return b ? b->attr(name) : nullptr;
}

WexAttr const& WexType::attrOrThrow(std::string_view name) const {
    if (WexAttr const* a = attr(name)) return *a;
    throw AttributeAccessException(name_, name, "no such attribute");
}

GenericIf WexType::genericIf(Lumo::Ptr<PtrInterface> const& object) const {
    if (!object) throw NullArgumentException(name_);
    if (!downcast_ || !downcast_(object.ptr()))
        throw AttributeAccessException(name_, "", "object is not of this type");
    return GenericIf{this, object.ptr(), object};
}

Value WexType::newValue(Args const& args) const {
    if (!maker_) throw NewEntityArgsException(name_, "", "type has no generic construction");
    return maker_(args);
}

Lumo::Ptr<Entity> WexType::newEntity(Lumo::String const& name) const {
    if (!entityMaker_) throw NewEntityArgsException(name_, "name", "type does not make named entities");
    return entityMaker_(name);
}

bool typeLess(WexType const* a, WexType const* b) noexcept {
    if (a == b) return false;
    if (!a || !b) return !a;
    if (&a->module() != &b->module()) return a->module().sequence() < b->module().sequence();
    return a->index() < b->index();
}

WexModule::~WexModule() = default;

void wexModuleIs(WexModule& module) {
    Registry& r = registry();
    if (std::find(r.modules.begin(), r.modules.end(), &module) != r.modules.end()) return;
    module.sequence_ = r.nextSequence++;
    r.modules.push_back(&module);
    for (std::size_t i = 0; i < module.types_.size(); ++i) {
        r.byName[std::string(module.types_[i].name())] = &module.types_[i];
        *module.slots_[i] = &module.types_[i];
    }
}

void wexModuleDel(WexModule& module) noexcept {
    Registry& r = registry();
    auto it = std::find(r.modules.begin(), r.modules.end(), &module);
    if (it == r.modules.end()) return;
    r.modules.erase(it);
    for (std::size_t i = 0; i < module.types_.size(); ++i) {
        auto n = r.byName.find(module.types_[i].name());
        if (n != r.byName.end() && n->second == &module.types_[i]) r.byName.erase(n);
        if (*module.slots_[i] == &module.types_[i]) *module.slots_[i] = nullptr;
    }
}

std::vector<WexModule const*> wexModules() {
    auto const& m = registry().modules;
    return {m.begin(), m.end()};
}

WexType const* typeNode(std::string_view name) noexcept {
    Registry const& r = registry();
    auto it = r.byName.find(name);
    return it == r.byName.end() ? nullptr : it->second;
}

WexModuleRegistrar::WexModuleRegistrar(std::string name, void (*build)(WexModule&))
    : module_(std::make_unique<WexModule>(std::move(name))) {
    build(*module_);
    wexModuleIs(*module_);
}

WexModuleRegistrar::~WexModuleRegistrar() { wexModuleDel(*module_); }

} // namespace Wex
