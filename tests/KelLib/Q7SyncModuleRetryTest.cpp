// The shared module when its first construction throws. A program of its own: the scenario
// needs a process in which nothing has called Module::get yet.
#include "KelLib/Q7SyncModule.h"

#include <gtest/gtest.h>

#include <string>

#include "Wex/Entity.h"

namespace Kel::Q7Sync::Test {
namespace {

TEST(ModuleRetryTest, AFirstGetThatThrowsStoresNothingAndTheNextGetBuildsTheModule) {
    Lumo::Ptr<Wex::Dir> const& global = Wex::System::globalDir();
    ASSERT_FALSE(global->entityPtr("q7")) << "something built the module before this test";
    // "q7" taken by an entity that is not a directory: the module cannot build its tree.
    Lumo::Ptr<Wex::Entity> impostor = global->createEntity("Kel::Q7Sync::SyncContainer", "q7");
    ASSERT_TRUE(impostor);
    long const live = Wex::PtrInterface::liveObjects();

    for (int attempt = 0; attempt < 2; ++attempt) {
        try {
            Module::get();
            ADD_FAILURE() << "attempt " << attempt << ": get() returned a module without its directory tree";
        } catch (Wex::Exception const& e) {
            EXPECT_NE(std::string(e.what()).find("'q7'"), std::string::npos) << e.what();
        }
        EXPECT_EQ(Wex::PtrInterface::liveObjects(), live) << "attempt " << attempt;
        EXPECT_EQ(global->entityPtr("q7"), impostor);
    }

    global->deleteEntity("q7");
    impostor = nullptr;
    Lumo::Ptr<Module> module = Module::get();
    ASSERT_TRUE(module);
    Lumo::Ptr<Wex::Dir> const q7 = Lumo::ptr_cast<Wex::Dir>(global->entityPtr("q7"));
    ASSERT_TRUE(q7);
    EXPECT_EQ(module->q7Dir(), q7);
    EXPECT_EQ(q7->entities(), 3u);
    EXPECT_TRUE(module->remoteDir() && module->subscribeStatus() && module->pathSubscribeRequestDedupTable());

    // From now on the one module is shared.
    std::uint32_t const held = module->references();
    Lumo::Ptr<Module> again = Module::get();
    EXPECT_EQ(again, module);
    EXPECT_EQ(module->references(), held + 1);
}

} // namespace
} // namespace Kel::Q7Sync::Test
