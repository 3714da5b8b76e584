// A listener in every test program: a test fails when framework objects it made are still alive
// at its end (counted in builds with lifecycle checks).
#include <gtest/gtest.h>

#include "Lumo/String.h"
#include "Wex/Entity.h"
#include "Wex/PtrInterface.h"

namespace {

// The global directory lives as long as the process; so does the module's tree "q7" in it,
// which the first module built puts there. A test that brings the tree into being (building
// the shared module, or another) is not held to the count: what it leaves includes the tree
// and the shared module. The tests after it in the same program are.
bool moduleTreeExists() { return Wex::System::globalDir()->entityPtr(Lumo::String("q7")) != nullptr; }

class LiveObjectsCheck final : public ::testing::EmptyTestEventListener {
public:
    void OnTestProgramStart(::testing::UnitTest const&) override { moduleTreeExists(); }
    void OnTestStart(::testing::TestInfo const&) override {
        treeBefore_ = moduleTreeExists();
        liveBefore_ = Wex::PtrInterface::liveObjects();
    }
    void OnTestEnd(::testing::TestInfo const&) override {
        long const made = Wex::PtrInterface::liveObjects() - liveBefore_;
        if (made == 0 || (!treeBefore_ && moduleTreeExists())) return;
        ADD_FAILURE() << made << " framework object(s) made by this test are still alive at its end";
    }

private:
    long liveBefore_ = 0;
    bool treeBefore_ = false;
};

[[maybe_unused]] bool const registered = [] {
    ::testing::UnitTest::GetInstance()->listeners().Append(new LiveObjectsCheck);
    return true;
}();

} // namespace
