// The module library loaded into a process that does not link it: loading registers the type
// tables of its units and does nothing else; reflection alone then builds the shared module, and
// unloading releases it.
#include <dlfcn.h>

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Memtrail/Memtrail.h"
#include "Wex/Entity.h"
#include "Wex/Type.h"

namespace {

std::vector<std::string> tableNames() {
    std::vector<std::string> out;
    for (Wex::WexModule const* m : Wex::wexModules()) out.emplace_back(m->name());
    return out;
}

std::set<std::string> globalNames() {
    std::set<std::string> out;
    for (auto const& e : Wex::System::globalDir()->entity()) out.insert(e->name().str());
    return out;
}

bool loaded() {
    void* h = ::dlopen(Q7_MODULE_LIBRARY, RTLD_NOW | RTLD_NOLOAD);
    if (h) ::dlclose(h);
    return h != nullptr;
}

// The module's trace records point into the library's text; they go before it is unloaded.
class ModuleLoadTest : public ::testing::Test {
protected:
    ModuleLoadTest() : previous_(Memtrail::defaultHandle()) { Memtrail::defaultHandleIs(nullptr); }
    ~ModuleLoadTest() override {
        if (library_) ::dlclose(library_);
        Memtrail::defaultHandleIs(previous_);
    }
    void* load() {
        library_ = ::dlopen(Q7_MODULE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        EXPECT_TRUE(library_) << ::dlerror();
        return library_;
    }
    int unload() { return ::dlclose(std::exchange(library_, nullptr)); }

private:
    Memtrail::Handle* previous_;
    void* library_ = nullptr;
};

// Loading runs nothing but registration: no object made, nothing put into the global directory.
// Unloading releases the shared module before its code goes; its four directories stay.
TEST_F(ModuleLoadTest, LoadingRegistersTheNineTablesReflectionAloneBuildsTheModuleAndUnloadingReleasesIt) {
    ASSERT_FALSE(loaded()) << "this program must not link the module";
    std::vector<std::string> const before = tableNames();
    std::set<std::string> const globalBefore = globalNames();  // the root directory is the framework's
    long const live = Wex::PtrInterface::liveObjects();
    ASSERT_TRUE(load());
    std::vector<std::string> expected = before;
    for (char const* unit : {"Container", "ListenConfig", "ListenSm", "ListenStatus", "Module", "SubscribeRequest",
                             "SubscribeSm", "SubscribeStatus"})
        expected.push_back(std::string("KelLib/Q7Sync") + unit);
    expected.push_back("KelLib/ShowQ7SyncDebugCallback");
    EXPECT_EQ(tableNames(), expected);
    EXPECT_TRUE(Wex::typeNode("Kel::Q7Sync::ShowQ7SyncDebugCallback"));
    EXPECT_EQ(Wex::PtrInterface::liveObjects(), live);
    EXPECT_EQ(globalNames(), globalBefore);

    Wex::WexType const* type = Wex::typeNode("Kel::Q7Sync::Module");
    ASSERT_TRUE(type);
    {
        Wex::WexAttr const& get = type->attrOrThrow("get");
        Lumo::Ptr<Wex::PtrInterface const> const module(get.call(nullptr, {}).object());
        ASSERT_TRUE(module);
        EXPECT_EQ(module->fwkType(), type);
        EXPECT_EQ(get.call(nullptr, {}).object(), module.ptr());
        EXPECT_TRUE(Wex::System::globalDir()->entityPtr("q7"));
    }
    EXPECT_GT(Wex::PtrInterface::liveObjects(), live + 4);
    EXPECT_EQ(unload(), 0);
    EXPECT_FALSE(loaded());
    EXPECT_EQ(tableNames(), before);
    EXPECT_FALSE(Wex::typeNode("Kel::Q7Sync::Module"));
    EXPECT_EQ(Wex::PtrInterface::liveObjects(), live + 4);
    auto const q7 = Lumo::ptr_cast<Wex::Dir>(Wex::System::globalDir()->entityPtr("q7"));
    ASSERT_TRUE(q7);
    EXPECT_EQ(q7->entities(), 3u);
}

}  // namespace
