// libFuzzer target: ListenConfig's text form, as a whole string.
#include <cstddef>
#include <cstdint>

#include "KelLib/Q7SyncListenConfig.h"
#include "RoundTrip.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Q7Fuzz::checkRoundTrip<Kel::Q7Sync::ListenConfig>(data, size);
    return 0;
}
