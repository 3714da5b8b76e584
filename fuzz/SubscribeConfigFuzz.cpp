// libFuzzer target: PathSubscribeConfig's text form, as a whole string. A parsed value has no
// container type and keeps its derived strings as read, so printing it loses nothing.
#include <cstddef>
#include <cstdint>

#include "KelLib/Q7SyncSubscribeRequest.h"
#include "RoundTrip.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Q7Fuzz::checkRoundTrip<Kel::Q7Sync::PathSubscribeConfig>(data, size);
    return 0;
}
