#include "harness/BenchHarness.h"

#include "machine/AffinityMask.h"
#include "machine/CpuTopology.h"

#include "support/TestMachine.h"

#include <hwloc.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <numeric>
#include <string>

// The cost of masks over hwloc's bitmaps, and of the choice of processors on a large machine.
//
//     TopologyBench [--rounds N] [--json FILE]

namespace {

using Bitmap = std::unique_ptr<hwloc_bitmap_s, decltype(&hwloc_bitmap_free)>;

Bitmap makeBitmap(unsigned bits, unsigned step) {
    Bitmap bitmap(hwloc_bitmap_alloc(), &hwloc_bitmap_free);
    for (unsigned bit = 0; bit < bits; bit += step)
        hwloc_bitmap_set(bitmap.get(), bit);
    return bitmap;
}

/// The mask of every `step`-th processor of a machine.
AffinityMask makeMask(const CpuTopology& topology, unsigned step) {
    AffinityMask mask;
    for (unsigned lpu = 0; lpu < topology.getNumberLpus(); lpu += step)
        mask |= topology.getLpuMask(lpu);
    return mask;
}

struct Operands {
    Bitmap bitmapA, bitmapB, bitmapC;
    AffinityMask a, b, c;
    long sink = 0;
};

void addMasks(BenchHarness& harness, unsigned bits, const CpuTopology& topology) {
    const auto operands = std::make_shared<Operands>(Operands{makeBitmap(bits, 2), makeBitmap(bits, 3),
                                                              makeBitmap(bits, 1), makeMask(topology, 2),
                                                              makeMask(topology, 3), makeMask(topology, 1)});
    Operands& data = *operands;
    const auto add = [&](const char* name, auto raw, auto typed) {
        harness.addReference(name + (", " + std::to_string(bits)) + " bits", "hwloc", [operands, raw](int n) {
            for (int i = 0; i < n; ++i)
                operands->sink += raw();
        });
        harness.addCase("mask", [operands, typed](int n) {
            for (int i = 0; i < n; ++i)
                operands->sink += typed();
        });
    };
    const auto addInPlace = [&](const char* name, auto raw, auto typed) {
        add(
            name, [&data, raw] { return raw(data.bitmapC.get(), data.bitmapC.get(), data.bitmapB.get()); },
            [&data, typed] {
                typed(data.c, data.b);
                return 1;
            });
    };
    const auto addNew = [&](const char* name, auto raw, auto typed) {
        add(
            name,
            [&data, raw] {
                const Bitmap result(hwloc_bitmap_alloc(), &hwloc_bitmap_free);
                return raw(result.get(), data.bitmapA.get(), data.bitmapB.get()) +
                       hwloc_bitmap_iszero(result.get());
            },
            [&data, typed] { return typed(data.a, data.b).empty(); });
    };
    const auto addQuestion = [&](const char* name, auto raw, auto typed) {
        add(
            name, [&data, raw] { return raw(data.bitmapA.get(), data.bitmapB.get()); },
            [&data, typed] { return typed(data.a, data.b); });
    };
    using Mask = AffinityMask;
    addInPlace("intersect in place", hwloc_bitmap_and, [](Mask& a, const Mask& b) { a &= b; });
    addInPlace("unite in place", hwloc_bitmap_or, [](Mask& a, const Mask& b) { a |= b; });
    addInPlace("differ in place", hwloc_bitmap_xor, [](Mask& a, const Mask& b) { a ^= b; });
    addNew("new intersection", hwloc_bitmap_and, [](const Mask& a, const Mask& b) { return a & b; });
    addNew("new union", hwloc_bitmap_or, [](const Mask& a, const Mask& b) { return a | b; });
    addNew("new difference", hwloc_bitmap_xor, [](const Mask& a, const Mask& b) { return a ^ b; });
    addQuestion("is equal", hwloc_bitmap_isequal, [](const Mask& a, const Mask& b) { return a == b; });
    addQuestion("intersects", hwloc_bitmap_intersects,
                [](const Mask& a, const Mask& b) { return a.intersectsWith(b); });
    addQuestion("is included", hwloc_bitmap_isincluded,
                [](const Mask& a, const Mask& b) { return a.isIncludedIn(b); });
    add(
        "clear",
        [&data] {
            hwloc_bitmap_zero(data.bitmapC.get());
            return 1;
        },
        [&data] {
            data.c.clear();
            return 1;
        });
    add(
        "copy",
        [&data] {
            const Bitmap copy(hwloc_bitmap_dup(data.bitmapA.get()), &hwloc_bitmap_free);
            return hwloc_bitmap_iszero(copy.get());
        },
        [&data] { return Mask(data.a).empty(); });
}

/// 128 of 256 processors; the peer is hwloc's own distribution of as many over its tree.
void addSubset(BenchHarness& harness, const std::shared_ptr<CpuTopology>& machine, hwloc_topology_t tree) {
    std::vector<unsigned> lpus(machine->getNumberLpus());
    std::iota(lpus.begin(), lpus.end(), 0u);
    harness.addReference("128 of 256 processors", "hwloc_distrib", [tree](int n) {
        for (int i = 0; i < n; ++i) {
            hwloc_obj_t root = hwloc_get_root_obj(tree);
            std::vector<hwloc_cpuset_t> sets(128);
            hwloc_distrib(tree, &root, 1, sets.data(), 128, 99, 0);
            for (const hwloc_cpuset_t set : sets)
                hwloc_bitmap_free(set);
        }
    });
    harness.addCase("getLpuSubset", [machine, lpus](int n) {
        for (int i = 0; i < n; ++i)
            if (machine->getLpuSubset(lpus, 128, CpuTopology::Spread, true).size() != 128)
                std::abort();
    });
}

int run(int argc, char** argv) {
    int rounds = 400;
    const char* json = nullptr;
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], "--rounds") == 0)
            rounds = std::max(1, std::atoi(argv[i + 1]));
        else if (std::strcmp(argv[i], "--json") == 0)
            json = argv[i + 1];
    }
    BenchHarness harness("TopologyBench", {});
    for (const unsigned bits : {64u, 256u, 1024u})
        addMasks(harness, bits,
                 CpuTopology(makeTestMachine("machine core:" + std::to_string(bits) + " pu:1")));
    const std::string large = makeTestMachine("machine pack:2 die:2 [numa] core:32 pu:2");
    hwloc_topology_t tree = nullptr;
    if (hwloc_topology_init(&tree) != 0 ||
        hwloc_topology_set_xmlbuffer(tree, large.data(), static_cast<int>(large.size())) != 0 ||
        hwloc_topology_load(tree) != 0)
        return EXIT_FAILURE;
    addSubset(harness, std::make_shared<CpuTopology>(large), tree);
    harness.run(rounds);
    harness.print(stdout);
    if (json)
        harness.writeJson(json);
    hwloc_topology_destroy(tree);
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "TopologyBench: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
