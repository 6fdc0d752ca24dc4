// The entry of libFuzzer, in builds by clang: wireFuzzer -max_total_time=600 CORPUS_DIRECTORY

#include "WireFuzzer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzWire(data, size);
    return 0;
}
