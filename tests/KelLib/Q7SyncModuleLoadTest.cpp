// The module library loaded into a process that does not link it: loading registers the type
// tables of its units and does nothing else; reflection alone then builds and dumps the module.
#include <dlfcn.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Memtrail/Memtrail.h"
#include "Oru/DumpContext.h"
#include "Wex/Entity.h"
#include "Wex/Type.h"

namespace {

std::vector<std::string> const kUnits = {
    "KelLib/Q7SyncContainer",        "KelLib/Q7SyncListenConfig",     "KelLib/Q7SyncListenSm",
    "KelLib/Q7SyncListenStatus",     "KelLib/Q7SyncModule",           "KelLib/Q7SyncSubscribeRequest",
    "KelLib/Q7SyncSubscribeSm",      "KelLib/Q7SyncSubscribeStatus",  "KelLib/ShowQ7SyncDebugCallback"};

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

std::string readAll(std::FILE* f) {
    std::string out;
    std::rewind(f);
    char chunk[4096];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, f)) > 0;) out.append(chunk, n);
    return out;
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

TEST_F(ModuleLoadTest, LoadingRegistersTheNineTablesInOrderAndBuildsNothing) {
    ASSERT_FALSE(loaded()) << "this program must not link the module";
    std::vector<std::string> const before = tableNames();
    std::set<std::string> const globalBefore = globalNames();
    long const live = Wex::PtrInterface::liveObjects();
    for (auto const& unit : kUnits) ASSERT_EQ(std::count(before.begin(), before.end(), unit), 0) << unit;

    ASSERT_TRUE(load());
    std::vector<std::string> after = tableNames();
    ASSERT_EQ(after.size(), before.size() + kUnits.size());
    EXPECT_TRUE(std::equal(before.begin(), before.end(), after.begin()));
    EXPECT_EQ(std::vector<std::string>(after.begin() + long(before.size()), after.end()), kUnits);
    EXPECT_TRUE(Wex::typeNode("Kel::Q7Sync::Module"));
    EXPECT_TRUE(Wex::typeNode("Kel::Q7Sync::ShowQ7SyncDebugCallback"));
    // Nothing but registration ran: no object made, nothing put into the global directory.
    EXPECT_EQ(Wex::PtrInterface::liveObjects(), live);
    EXPECT_EQ(globalNames(), globalBefore);

    EXPECT_EQ(unload(), 0);
    EXPECT_FALSE(loaded());
    EXPECT_EQ(tableNames(), before);
    EXPECT_FALSE(Wex::typeNode("Kel::Q7Sync::Module"));
}

TEST_F(ModuleLoadTest, ReflectionAloneBuildsTheModuleAndDumpsIt) {
    ASSERT_TRUE(load());
    Wex::WexType const* type = Wex::typeNode("Kel::Q7Sync::Module");
    ASSERT_TRUE(type);
    (void)Wex::System::globalDir();  // the root directory is the framework's, not the module's
    long const live = Wex::PtrInterface::liveObjects();
    std::string dump;
    {
        Wex::WexAttr const& get = type->attrOrThrow("get");
        ASSERT_EQ(get.kind(), Wex::AttrKind::staticOperation);
        Lumo::Ptr<Wex::PtrInterface const> module(get.call(nullptr, {}).object());
        ASSERT_TRUE(module);
        EXPECT_EQ(module->fwkType(), type);
        EXPECT_EQ(get.call(nullptr, {}).object(), module.ptr());
        ASSERT_TRUE(Wex::System::globalDir()->entityPtr("q7"));

        std::FILE* out = std::tmpfile();
        ASSERT_TRUE(out);
        {
            Lumo::Ptr<Oru::DumpContext> ctx(new Oru::DumpContext(fileno(out), nullptr, 0));
            ctx->hasNotificationActiveIs(true);
            Oru::Impl::doObjDumpChildPtrGeneric(module, type, ctx, 0);
            ctx->flush();
        }
        dump = readAll(out);
        std::fclose(out);
    }
    // The module's own attributes are the unindented lines, in the order of its table.
    std::vector<std::string> attributes, shown;
    for (Wex::WexAttr const& a : type->attrs())
        if (a.kind() == Wex::AttrKind::attribute) attributes.emplace_back(a.name());
    for (std::size_t at = 0; at < dump.size();) {
        std::size_t const end = std::min(dump.find('\n', at), dump.size());
        if (dump[at] != ' ') shown.push_back(dump.substr(at, dump.find(':', at) - at));
        at = end + 1;
    }
    EXPECT_EQ(shown, attributes) << dump;
    for (char const* dir : {"'local' -> ", "'writeSync' -> ", "'remote' -> "})
        EXPECT_NE(dump.find(dir), std::string::npos) << dir << " in\n" << dump;
    EXPECT_EQ(dump.find("<error"), std::string::npos) << dump;

    // Unloading releases the shared module before its code goes; its directories stay.
    EXPECT_GT(Wex::PtrInterface::liveObjects(), live + 4);
    EXPECT_EQ(unload(), 0);
    EXPECT_FALSE(loaded());
    EXPECT_FALSE(Wex::typeNode("Kel::Q7Sync::Module"));
    EXPECT_EQ(Wex::PtrInterface::liveObjects(), live + 4);
    Lumo::Ptr<Wex::Dir> q7 = Lumo::ptr_cast<Wex::Dir>(Wex::System::globalDir()->entityPtr("q7"));
    ASSERT_TRUE(q7);
    EXPECT_EQ(q7->entities(), 3u);
}

} // namespace
