// A throwaway certificate authority for agents that talk mutual TLS: made afresh by
// scripts/make-authority.sh in a temporary directory, which goes with it. For the test
// programs that have Q7_SOURCE_DIR (tests/CMakeLists.txt).
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <fmt/format.h>

namespace Kel::Q7Sync::Test {

class Authority {
public:
    Authority() {
        std::string pattern = (std::filesystem::temp_directory_path() / "q7-authority-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("no temporary directory for the authority");
        dir_ = pattern;
        std::string const command = fmt::format("bash '{}/scripts/make-authority.sh' '{}'", Q7_SOURCE_DIR, dir_);
        if (std::system(command.c_str()) != 0) {
            removeDir();
            throw std::runtime_error(fmt::format("'{}' failed", command));
        }
    }
    ~Authority() { removeDir(); }
    Authority(Authority const&) = delete;
    Authority& operator=(Authority const&) = delete;

    std::string const& dir() const noexcept { return dir_; }
    std::string ca() const { return dir_ + "/ca.pem"; }
    std::string agentKey() const { return dir_ + "/agent.key"; }

    // q7agent's options for an agent that ca() vouches for.
    std::vector<std::string> agentArguments() const {
        return {"--tls-cert", dir_ + "/agent.pem", "--tls-key", agentKey(), "--tls-ca", ca()};
    }
    // For an impostor: a certificate of another authority, while it trusts ca() itself.
    std::vector<std::string> rogueArguments() const {
        return {"--tls-cert", dir_ + "/rogue.pem", "--tls-key", dir_ + "/rogue.key", "--tls-ca", ca()};
    }

private:
    void removeDir() noexcept {
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }

    std::string dir_;
};

} // namespace Kel::Q7Sync::Test
