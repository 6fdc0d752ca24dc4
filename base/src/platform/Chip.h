#pragma once

#include "platform/PlatformExport.h"

#include <string>

namespace Platform {

/// The processor and the memory of this host, read once. A value that the host doesn't tell is 0 or
/// "unknown". Local, any thread.
class ORVEX_PLATFORM_EXPORT Chip {
public:
    /// The sets of vector instructions; a higher level includes the lower ones.
    enum VectorizationLevel { NO_VECTORS = 0, SSE2 = 1, SSE42 = 2, AVX = 3, AVX2 = 4, AVX512 = 5 };

    /// The maker's name of the processor.
    std::string getModel() const;
    /// The instruction set, as in "x86_64".
    std::string getArchitecture() const;
    /// One line: model, architecture, processors, clock, cache, vectorization, memory.
    std::string getDescription() const;
    /// The level that processor and operating system both support: a VectorizationLevel.
    int getVectorizationLevel() const;
    /// The level of an x86-64 processor that has these sets of instructions.
    static VectorizationLevel toVectorizationLevel(bool sse42, bool avx, bool avx2, bool avx512);
    /// As in "AVX2".
    static std::string getVectorizationLevelText(int level);
    /// [MHz] the highest clock that is known
    int getClockSpeed() const;
    /// [KiB] of the last cache level
    int getCacheSize() const;
    /// [bytes] installed in this host
    long long getMemorySize() const;
};

/// The one chip service of the process.
ORVEX_PLATFORM_EXPORT Chip& chip();

} // namespace Platform
