// churn: changes many entries many times, as a busy agent's state does, serving the loop
// between rounds so that its peers are served meanwhile.
#include "host/Command.h"

#include <chrono>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "Wex/EventLoop.h"
#include "host/AttributeText.h"

namespace Q7Agent {
namespace {

class ChurnCommand : public Command {
public:
    // Entry k<i> is set to r<round> (padded to --size) in every round: the last round's values are what stands.
    void run(Host& host) override {
        Wex::AttributeAt const at = attributeOrThrow(path_);
        if (at.attr->kind() != Wex::AttrKind::collection)
            throw CLI::ValidationError("path", fmt::format("{} is not a keyed collection", path_));
        auto const began = std::chrono::steady_clock::now();
        for (unsigned round = 0; round < rounds_; ++round) {
            std::string value = fmt::format("r{}", round);
            if (value.size() < size_) value.resize(size_, '.');
            value = stringText(value, "value");
            for (unsigned i = 0; i < entries_; ++i)
                at.attr->memberIsFromText(at.object(), stringText(fmt::format("k{}", i), "key"), value);
            Wex::eventLoop().poll();
        }
        std::chrono::duration<double> const took = std::chrono::steady_clock::now() - began;
        fmt::print(host.out(), "  churn: {} changes to {} entries of {} in {:.2f} s\n", std::uint64_t(entries_) * rounds_,
                   entries_, path_, took.count());
    }

protected:
    void bind(CLI::App& app) override {
        app.add_option("path", path_)->required();
        app.add_option("entries", entries_)->required()->check(CLI::Range(1u, 10'000'000u));
        app.add_option("rounds", rounds_)->required()->check(CLI::Range(1u, 10'000'000u));
        app.add_option("--size", size_, "pad each value with '.' to this many bytes")->check(CLI::Range(0u, 1u << 20));
    }

private:
    std::string path_;
    unsigned entries_ = 0;
    unsigned rounds_ = 0;
    unsigned size_ = 0;
};

CommandRegistrar<ChurnCommand> const registrar("churn", "churn PATH ENTRIES ROUNDS [--size BYTES]",
                                               "set entries k0.. of a collection to r<round>, round after round");

} // namespace
} // namespace Q7Agent
