// SyncContainer, SyncContainerHandler and SyncContainerHandlerRegistry, with their type tables.
#include "KelLib/Q7SyncContainer.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include <fmt/format.h>

#include "Wex/Trace.h"
#include "Wex/Type.h"

namespace Kel::Q7Sync {

namespace {
constexpr char kContainerTypeName[] = "Kel::Q7Sync::SyncContainer";
constexpr char kHandlerTypeName[] = "Kel::Q7Sync::SyncContainerHandler";
constexpr char kRegistryTypeName[] = "Kel::Q7Sync::SyncContainerHandlerRegistry";
// The one flags value whose containers start from a reset "syncAttribute".
constexpr std::uint8_t kResetSyncAttributeFlags = 0x15;

Wex::TraceHandle& traceHandle() {
    static Wex::TraceHandle handle("KelQ7SyncContainer", false);
    return handle;
}
} // namespace

// SyncContainer

SyncContainer::SyncContainer(Lumo::String name) : Wex::Entity(std::move(name)) {}

SyncContainer::~SyncContainer() { hasNotificationActiveIs(false); }

Lumo::Ptr<SyncContainer> SyncContainer::create(Lumo::Ptr<Wex::Dir> const& dir, PathSubscribeConfig const& config) {
    if (!dir) throw Wex::NullArgumentException("dir");
    Wex::WexType const* type = config.syncContainerType();
    if (!type) throw Wex::NullArgumentException("syncContainerType");
    // createEntity returns what dir already holds under the name, whatever its type.
    Lumo::Ptr<Wex::Entity> entity = dir->createEntity(type, config.syncContainerKey());
    Lumo::Ptr<SyncContainer> container = Lumo::ptr_cast<SyncContainer>(entity);
    Wex::WexType const* heldType = entity->fwkType();
    if (!container || !heldType || !heldType->isDerived(type))
        throw Wex::NewEntityArgsException(type->name(), "syncContainerKey",
                                          fmt::format("'{}' is held by an entity of type {}", config.syncContainerKey(),
                                                      heldType ? heldType->name() : "unknown"));
    // A container that serves another subscription is left as it is; setConfig reports it.
    bool const accepts = !container->pathSubscribeConfig_ || config == container->pathSubscribeConfig_;
    if (accepts && std::uint8_t(config.flags()) == kResetSyncAttributeFlags) {
        Wex::WexAttr const* attr = type->attr("syncAttribute");
        if (attr && attr->kind() == Wex::AttrKind::attribute && !attr->readOnly())
            attr->genericIfSet(type->genericIf(container), {});
    }
    container->setConfig(config);
    return container;
}

void SyncContainer::setConfig(PathSubscribeConfig const& config) {
    if (pathSubscribeConfig_ && !(config == pathSubscribeConfig_)) {
        WEX_TRACE(traceHandle(), 0, "SyncContainer",
                  "check failed: !pathSubscribeConfig_ || config == pathSubscribeConfig_ "
                  "(container {} keeps localUri {} remoteUri {}, refuses remoteUri {})",
                  name(), pathSubscribeConfig_.localUri(), pathSubscribeConfig_.remoteUri(), config.remoteUri());
        return;
    }
    pathSubscribeConfigIs(config);
}

void SyncContainer::pathSubscribeConfigIs(PathSubscribeConfig const& config) {
    if (config == pathSubscribeConfig_) return;
    PathSubscribeConfig const previous = std::exchange(pathSubscribeConfig_, config);
    publisher_.publishChangeRecursive(kPathSubscribeConfig, &pathSubscribeConfig_, &previous);
}

Wex::WexType const* SyncContainer::fwkType() const noexcept { return Wex::wexTypeOf<SyncContainer>(); }

// SyncContainerHandler

SyncContainerHandler::SyncContainerHandler(Lumo::String syncContainerKey)
    : syncContainerKey_(std::move(syncContainerKey)) {}

SyncContainerHandler::~SyncContainerHandler() { hasNotificationActiveIs(false); }

Wex::WexType const* SyncContainerHandler::fwkType() const noexcept { return Wex::wexTypeOf<SyncContainerHandler>(); }

// SyncContainerHandlerRegistry

Lumo::Ptr<SyncContainerHandlerRegistry> SyncContainerHandlerRegistry::SyncContainerHandlerRegistryIs() {
    Lumo::Ptr<SyncContainerHandlerRegistry> registry(new SyncContainerHandlerRegistry());
    registry->hasNotificationActiveIs(true);
    return registry;
}

Lumo::Ptr<SyncContainerHandlerRegistry> syncContainerHandlerRegistryFactory() {
    return SyncContainerHandlerRegistry::SyncContainerHandlerRegistryIs();
}

SyncContainerHandlerRegistry::~SyncContainerHandlerRegistry() { hasNotificationActiveIs(false); }

void SyncContainerHandlerRegistry::syncContainerHandlerIs(Lumo::Ptr<SyncContainerHandler const> const& handler) {
    if (!handler) throw Wex::NullArgumentException("syncContainerHandler");
    refuseIfLocked(handler->syncContainerKey());
    syncContainerHandler_.set(handler);
}

Lumo::Ptr<SyncContainerHandler const> SyncContainerHandlerRegistry::syncContainerHandlerDel(Lumo::String const& key) {
    refuseIfLocked(key);
    return syncContainerHandler_.del(key);
}

void SyncContainerHandlerRegistry::syncContainerHandlerDelAll() {
    if (!locks_.empty()) refuseIfLocked(locks_.front().first);
    syncContainerHandler_.delAll();
}

bool SyncContainerHandlerRegistry::syncContainerHandlerLocked(Lumo::String const& key) const noexcept {
    return std::any_of(locks_.begin(), locks_.end(), [&](auto const& lock) { return lock.first == key; });
}

void SyncContainerHandlerRegistry::syncContainerHandlerLockIs(Lumo::String const& key, bool locked) const {
    auto it = std::find_if(locks_.begin(), locks_.end(), [&](auto const& lock) { return lock.first == key; });
    if (locked) {
        if (it == locks_.end()) locks_.emplace_back(key, 1u);
        else ++it->second;
    } else if (it != locks_.end() && --it->second == 0) {
        locks_.erase(it);
    }
}

// The handler being replaced or removed would miss containers it holds, or the one coming in
// get some twice, if the replay under way were overtaken by another for the same key.
void SyncContainerHandlerRegistry::refuseIfLocked(Lumo::String const& key) const {
    if (syncContainerHandlerLocked(key))
        throw Wex::Exception("syncContainerHandler",
                             fmt::format("{}: the handler of '{}' cannot change while the containers of '{}' are being "
                                         "handed to its handlers (a call from inside containerIs or containerDel)",
                                         kRegistryTypeName, key, key));
}

Wex::WexType const* SyncContainerHandlerRegistry::fwkType() const noexcept {
    return Wex::wexTypeOf<SyncContainerHandlerRegistry>();
}

namespace {
void buildTypeTable(Wex::WexModule& m) {
    m.type<SyncContainer>(kContainerTypeName)
        .base<Wex::Entity>()
        .constant("syncAttributeName", [](SyncContainer const& c) { return c.syncAttributeName(); })
        .readOnly("pathSubscribeConfig", [](SyncContainer const& c) { return c.pathSubscribeConfig(); })
        .readOnly("remoteAddr", [](SyncContainer const& c) { return c.remoteAddr(); })
        .operation("setConfig", {"config"},
                   [](SyncContainer& c, Wex::Args const& args) {
                       c.setConfig(args.get<PathSubscribeConfig>(kContainerTypeName, "config"));
                   })
        .staticOperation("create", {"dir", "config"},
                         [](Wex::Args const& args) {
                             return SyncContainer::create(args.get<Lumo::Ptr<Wex::Dir>>(kContainerTypeName, "dir"),
                                                          args.get<PathSubscribeConfig>(kContainerTypeName, "config"));
                         })
        .entityMaker();
    m.type<SyncContainerHandler>(kHandlerTypeName)
        .readOnly("syncContainerKey", [](SyncContainerHandler const& h) { return h.syncContainerKey(); })
        .operation("containerIs", {"container"},
                   [](SyncContainerHandler& h, Wex::Args const& args) {
                       auto container = args.get<Lumo::Ptr<SyncContainer const>>(kHandlerTypeName, "container");
                       if (!container) throw Wex::NullArgumentException("container");
                       h.containerIs(container);
                   })
        .operation("containerDel", {"pathSubscribeConfig"},
                   [](SyncContainerHandler& h, Wex::Args const& args) {
                       h.containerDel(args.get<PathSubscribeConfig>(kHandlerTypeName, "pathSubscribeConfig"));
                   });
    m.type<SyncContainerHandlerRegistry>(kRegistryTypeName)
        .collection("syncContainerHandler",
                    [](SyncContainerHandlerRegistry const& r) -> auto const& { return r.syncContainerHandler(); })
        .memberIs(&SyncContainerHandlerRegistry::syncContainerHandlerIs)
        .memberDel(&SyncContainerHandlerRegistry::syncContainerHandlerDel);
}
Wex::WexModuleRegistrar registrar("KelLib/Q7SyncContainer", buildTypeTable);
} // namespace

} // namespace Kel::Q7Sync
