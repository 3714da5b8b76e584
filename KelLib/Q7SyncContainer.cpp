// SyncContainer, SyncContainerHandler and SyncContainerHandlerRegistry, with their type tables.
#include "KelLib/Q7SyncContainer.h"

#include <cstdint>
#include <utility>

#include <fmt/format.h>

#include "Wex/Type.h"

namespace Kel::Q7Sync {

namespace {
constexpr char kContainerTypeName[] = "Kel::Q7Sync::SyncContainer";
constexpr char kHandlerTypeName[] = "Kel::Q7Sync::SyncContainerHandler";
constexpr char kRegistryTypeName[] = "Kel::Q7Sync::SyncContainerHandlerRegistry";
// The one flags value whose containers start from a reset "syncAttribute".
constexpr std::uint8_t kResetSyncAttributeFlags = 0x15;
} // namespace

Wex::RunToCompletion& clientEvents() {
    static Wex::RunToCompletion events;
    return events;
}

// SyncContainer

SyncContainer::SyncContainer(Lumo::String name) : Wex::Entity(std::move(name)) {}

SyncContainer::~SyncContainer() { hasNotificationActiveIs(false); }

Lumo::Ptr<SyncContainer> SyncContainer::create(Lumo::Ptr<Wex::Dir> const& dir, PathSubscribeConfig const& config) {
    if (!dir) throw Wex::NullArgumentException("dir");
    Wex::WexType const* type = config.syncContainerType();
    if (!type) throw Wex::NullArgumentException("syncContainerType");
    // createEntity returns what dir already holds under the name, whatever its type.
    bool const made = !dir->entityPtr(config.syncContainerKey());
    Lumo::Ptr<Wex::Entity> entity = dir->createEntity(type, config.syncContainerKey());
    Lumo::Ptr<SyncContainer> container = Lumo::ptr_cast<SyncContainer>(entity);
    Wex::WexType const* heldType = entity->fwkType();
    if (!container || !heldType || !heldType->isDerived(type))
        throw Wex::NewEntityArgsException(type->name(), "syncContainerKey",
                                          fmt::format("'{}' is held by an entity of type {}", config.syncContainerKey(),
                                                      heldType ? heldType->name() : "unknown"));
    // A container that serves another subscription is left as it is, its attribute included.
    if (container->pathSubscribeConfig_ && !(config == container->pathSubscribeConfig_))
        throw Wex::ReInstantiationException("pathSubscribeConfig");
    try {
        if (std::uint8_t(config.flags()) == kResetSyncAttributeFlags) {
            Wex::WexAttr const* attr = type->attr("syncAttribute");
            if (attr && attr->resettable()) attr->genericIfSet(type->genericIf(container), {});
        }
        container->setConfig(config);
    } catch (...) {
        // A container made here and refused by its own type goes again: create makes nothing then.
        if (made) dir->deleteEntity(config.syncContainerKey());
        throw;
    }
    return container;
}

// A container serves one subscription for its whole life ("!pathSubscribeConfig_ || config ==
// pathSubscribeConfig_").
void SyncContainer::setConfig(PathSubscribeConfig const& config) {
    if (pathSubscribeConfig_ && !(config == pathSubscribeConfig_)) throw Wex::ReInstantiationException("pathSubscribeConfig");
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

// Run to completion: a change asked for while a hand-over is under way would overtake it (the
// handler going out would keep containers, the one coming in get some twice); it waits instead.
void SyncContainerHandlerRegistry::syncContainerHandlerIs(Lumo::Ptr<SyncContainerHandler const> const& handler) {
    if (!handler) throw Wex::NullArgumentException("syncContainerHandler");
    clientEvents().post([self = Lumo::Ptr<SyncContainerHandlerRegistry>(this), handler] {
        self->syncContainerHandler_.set(handler);
    });
}

Lumo::Ptr<SyncContainerHandler const> SyncContainerHandlerRegistry::syncContainerHandlerDel(Lumo::String const& key) {
    Lumo::Ptr<SyncContainerHandler const> registered = syncContainerHandler_.get(key);
    clientEvents().post([self = Lumo::Ptr<SyncContainerHandlerRegistry>(this), key] { self->syncContainerHandler_.del(key); });
    return registered;
}

void SyncContainerHandlerRegistry::syncContainerHandlerDelAll() {
    clientEvents().post([self = Lumo::Ptr<SyncContainerHandlerRegistry>(this)] { self->syncContainerHandler_.delAll(); });
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
        .memberDel(&SyncContainerHandlerRegistry::syncContainerHandlerDel)
        .memberDelAll(&SyncContainerHandlerRegistry::syncContainerHandlerDelAll);
}
Wex::WexModuleRegistrar registrar("KelLib/Q7SyncContainer", buildTypeTable);
} // namespace

} // namespace Kel::Q7Sync
