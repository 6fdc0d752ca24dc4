#include "platform/Chip.h"

#include "platform/ProcFs.h"
#include "platform/StringHelper.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <sstream>
#include <sys/utsname.h>
#include <unistd.h>

namespace Platform {

namespace {

struct Facts {
    std::string model = "unknown";
    std::string architecture = "unknown";
    int level = Chip::NO_VECTORS;
    int clock = 0;
    int cache = 0;
    long long memory = 0;
    unsigned processors = 1;
};

int detectLevel() {
#if defined(__x86_64__)
    // These tests ask the operating system's share too: whether it saves the wide registers.
    __builtin_cpu_init();
    return Chip::toVectorizationLevel(__builtin_cpu_supports("sse4.2") != 0,
                                      __builtin_cpu_supports("avx") != 0, __builtin_cpu_supports("avx2") != 0,
                                      __builtin_cpu_supports("avx512f") != 0);
#else
    return Chip::NO_VECTORS;
#endif
}

/// Model and highest clock of all processors, from the system's processor page.
void readProcessorPage(Facts& facts) {
    const auto page = ProcFs::readText("/proc/cpuinfo", std::size_t{1} << 24);
    if (!page)
        return;
    for (const std::string& line : StringHelper::tokenize(*page, "\n")) {
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos)
            continue;
        const std::string key = StringHelper::trim(std::string_view(line).substr(0, colon));
        const std::string value = StringHelper::trim(std::string_view(line).substr(colon + 1));
        if ((key == "model name" || key == "Model") && facts.model == "unknown")
            facts.model = value;
        else if (key == "cpu MHz")
            facts.clock =
                std::max(facts.clock, static_cast<int>(std::lround(std::strtod(value.c_str(), nullptr))));
    }
}

int readClockLimit() {
    const auto text = ProcFs::readText("/sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq");
    return text ? static_cast<int>(std::strtol(text->c_str(), nullptr, 10) / 1000) : 0; // from kHz
}

int readCache() {
    for (const int level : {_SC_LEVEL4_CACHE_SIZE, _SC_LEVEL3_CACHE_SIZE, _SC_LEVEL2_CACHE_SIZE}) {
        const long bytes = ::sysconf(level);
        if (bytes > 0)
            return static_cast<int>(bytes / 1024);
    }
    return 0;
}

Facts readFacts() {
    Facts facts;
    readProcessorPage(facts);
    if (const int limit = readClockLimit(); limit > 0)
        facts.clock = limit;
    utsname kernel{};
    if (::uname(&kernel) == 0)
        facts.architecture = kernel.machine;
    facts.level = detectLevel();
    facts.cache = readCache();
    const long pages = ::sysconf(_SC_PHYS_PAGES);
    const long pageSize = ::sysconf(_SC_PAGESIZE);
    if (pages > 0 && pageSize > 0)
        facts.memory = static_cast<long long>(pages) * pageSize;
    const long processors = ::sysconf(_SC_NPROCESSORS_ONLN);
    if (processors > 0)
        facts.processors = static_cast<unsigned>(processors);
    return facts;
}

const Facts& getFacts() {
    static const Facts facts = readFacts();
    return facts;
}

} // namespace

std::string Chip::getModel() const {
    return getFacts().model;
}

std::string Chip::getArchitecture() const {
    return getFacts().architecture;
}

std::string Chip::getDescription() const {
    const Facts& facts = getFacts();
    std::ostringstream text;
    text << facts.model << " (" << facts.architecture << "), " << facts.processors
         << (facts.processors == 1 ? " processor" : " processors");
    if (facts.clock > 0)
        text << ", " << facts.clock << " MHz";
    if (facts.cache > 0)
        text << ", " << facts.cache << " KiB cache";
    text << ", " << getVectorizationLevelText(facts.level);
    if (facts.memory > 0)
        text << ", " << facts.memory / (1024 * 1024) << " MiB memory";
    return text.str();
}

int Chip::getVectorizationLevel() const {
    return getFacts().level;
}

Chip::VectorizationLevel Chip::toVectorizationLevel(bool sse42, bool avx, bool avx2, bool avx512) {
    return avx512 ? AVX512 : avx2 ? AVX2 : avx ? AVX : sse42 ? SSE42 : SSE2;
}

std::string Chip::getVectorizationLevelText(int level) {
    switch (level) {
    case NO_VECTORS:
        return "no vectorization";
    case SSE2:
        return "SSE2";
    case SSE42:
        return "SSE4.2";
    case AVX:
        return "AVX";
    case AVX2:
        return "AVX2";
    case AVX512:
        return "AVX-512";
    }
    return "vectorization level " + std::to_string(level);
}

int Chip::getClockSpeed() const {
    return getFacts().clock;
}

int Chip::getCacheSize() const {
    return getFacts().cache;
}

long long Chip::getMemorySize() const {
    return getFacts().memory;
}

Chip& chip() {
    static Chip service;
    return service;
}

} // namespace Platform
