// Runs the current test again, alone, in a new process of the same program: for scenarios that
// need the process-wide state (the shared module, the global directory) as a new process has it.
#pragma once

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

extern char** environ;

namespace Kel::Q7Sync::Test {

inline constexpr char kFreshProcessVariable[] = "Q7_TEST_FRESH_PROCESS";

inline std::string currentTestName() {
    ::testing::TestInfo const* info = ::testing::UnitTest::GetInstance()->current_test_info();
    return info ? std::string(info->test_suite_name()) + "." + info->name() : std::string();
}

// True in the process that runFreshProcess() started for the current test.
inline bool isFreshProcess() {
    char const* name = std::getenv(kFreshProcessVariable);
    return name && currentTestName() == name;
}

// Starts this program with only the current test and waits for it: its exit status (0 when the
// test passed), 128 + the signal that ended it, or -1 when it could not be started.
inline int runFreshProcess() {
    std::string const prefix = std::string(kFreshProcessVariable) + "=";
    std::string const filter = "--gtest_filter=" + currentTestName(), marker = prefix + currentTestName();
    // The program's own path: under a tool that runs programs (valgrind) /proc/self/exe names
    // the tool, while readlink of it gives the program.
    std::string self = "/proc/self/exe";
    char path[4096];
    if (ssize_t const n = ::readlink("/proc/self/exe", path, sizeof path - 1); n > 0) self.assign(path, std::size_t(n));
    std::vector<char*> argv{self.data(), const_cast<char*>(filter.c_str()), nullptr};
    std::vector<char*> env;
    for (char** e = environ; *e; ++e)
        if (std::string(*e).rfind(prefix, 0) != 0) env.push_back(*e);
    env.push_back(const_cast<char*>(marker.c_str()));
    env.push_back(nullptr);
    std::fflush(nullptr);  // nothing buffered here is written twice
    pid_t pid;
    if (posix_spawn(&pid, self.c_str(), nullptr, nullptr, argv.data(), env.data()) != 0) return -1;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0)
        if (errno != EINTR) return -1;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
}

// In a test body: `if (!inFreshProcess()) return;` runs the rest of the body in a new process,
// and the test fails when that process fails.
inline bool inFreshProcess() {
    if (isFreshProcess()) return true;
    EXPECT_EQ(runFreshProcess(), 0) << "the test failed in its own process (its output is above)";
    return false;
}

}  // namespace Kel::Q7Sync::Test
