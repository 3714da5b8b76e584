// Q7Sync::Backoff: how long to wait before the next try to connect.
#pragma once

#include <chrono>
#include <cstdint>
#include <random>

namespace Q7Sync {

// Exponential backoff with jitter: the n-th try in a row waits a random time between half and
// all of min(cap, first * 2^n), so that agents that lost one publisher do not come back in step.
class Backoff {
public:
    using Duration = std::chrono::milliseconds;
    static constexpr Duration kFirst{100};
    static constexpr Duration kCap{5000};

    explicit Backoff(std::uint32_t seed = std::random_device{}()) : random_(seed) {}

    Duration next() {
        Duration ceiling = kCap;
        if (tries_ < 16 && kFirst * (1 << tries_) < kCap) ceiling = kFirst * (1 << tries_);
        ++tries_;
        std::uniform_int_distribution<Duration::rep> pick(ceiling.count() / 2, ceiling.count());
        return Duration(pick(random_));
    }
    // A connection was made: the next loss starts from the first wait again.
    void reset() noexcept { tries_ = 0; }
    std::uint32_t tries() const noexcept { return tries_; }

private:
    std::minstd_rand random_;
    std::uint32_t tries_ = 0;
};

} // namespace Q7Sync
