#include "parallel/WrapperTestTools.h"

#include <algorithm>
#include <array>
#include <climits>
#include <numeric>

using namespace WrapperTest;

namespace {

int valueOf(int sender, int index) {
    return 100 * sender + index;
}

/// `count` values of each rank from `first` to `last`, in rank order.
std::vector<int> blocks(int first, int last, int count) {
    std::vector<int> values;
    for (int sender = first; sender <= last; ++sender)
        for (int i = 0; i < count; ++i)
            values.push_back(valueOf(sender, i));
    return values;
}
std::vector<int> own(int count) {
    return blocks(rank(), rank(), count);
}

/// Rank r contributes r + 1 values, with a gap of one between the blocks.
struct Uneven {
    Uneven() {
        int begin = 0;
        for (int i = 0; i < size(); ++i) {
            counts.push_back(i + 1);
            displacements.push_back(begin);
            begin += i + 2;
            for (int k = 0; k <= i; ++k)
                content.push_back(valueOf(i, k));
            content.push_back(-1);
        }
    }
    std::vector<int> counts;
    std::vector<int> displacements;
    std::vector<int> content;
};

TEST(WrapperCollectives, regularOnesFromEveryRoot) {
    constexpr int COUNT = 3;
    const std::vector<int> all = blocks(0, size() - 1, COUNT);
    for (int root = 0; root < size(); ++root) {
        const bool isRoot = rank() == root;
        std::vector<int> data = isRoot ? all : std::vector<int>(all.size(), -1);
        ORVEX_GOOD(OXM_MPI_Bcast(data.data(), static_cast<int>(data.size()), INT, root, WORLD));
        EXPECT_EQ(data, all);

        std::vector<int> mine = own(COUNT);
        std::vector<int> gathered(isRoot ? all.size() : 0, -1);
        ORVEX_GOOD(OXM_MPI_Gather(mine.data(), COUNT, INT, gathered.data(), COUNT, INT, root, WORLD));
        EXPECT_EQ(gathered, isRoot ? all : std::vector<int>());

        std::vector<int> part(COUNT, -1);
        ORVEX_GOOD(OXM_MPI_Scatter(all.data(), COUNT, INT, part.data(), COUNT, INT, root, WORLD));
        EXPECT_EQ(part, mine);
    }
    std::vector<int> gathered(all.size(), -1);
    const std::vector<int> mine = own(COUNT);
    ORVEX_GOOD(OXM_MPI_Allgather(mine.data(), COUNT, INT, gathered.data(), COUNT, INT, WORLD));
    EXPECT_EQ(gathered, all);

    std::vector<int> out;
    std::vector<int> expected;
    for (int other = 0; other < size(); ++other) {
        out.push_back(valueOf(rank(), other));
        expected.push_back(valueOf(other, rank()));
    }
    std::vector<int> in(out.size(), -1);
    ORVEX_GOOD(OXM_MPI_Alltoall(out.data(), 1, INT, in.data(), 1, INT, WORLD));
    EXPECT_EQ(in, expected);
}

TEST(WrapperCollectives, unevenOnesFromEveryRoot) {
    const Uneven all;
    const std::vector<int> mine = own(rank() + 1);
    for (int root = 0; root < size(); ++root) {
        const bool isRoot = rank() == root;
        std::vector<int> gathered(all.content.size(), -1);
        ORVEX_GOOD(OXM_MPI_Gatherv(mine.data(), rank() + 1, INT, gathered.data(),
                                   isRoot ? all.counts.data() : nullptr,
                                   isRoot ? all.displacements.data() : nullptr, INT, root, WORLD));
        EXPECT_EQ(gathered, isRoot ? all.content : std::vector<int>(all.content.size(), -1));
        std::vector<int> part(mine.size(), -1);
        ORVEX_GOOD(OXM_MPI_Scatterv(
            isRoot ? all.content.data() : nullptr, isRoot ? all.counts.data() : nullptr,
            isRoot ? all.displacements.data() : nullptr, INT, part.data(), rank() + 1, INT, root, WORLD));
        EXPECT_EQ(part, mine);
    }
    std::vector<int> gathered(all.content.size(), -1);
    ORVEX_GOOD(OXM_MPI_Allgatherv(mine.data(), rank() + 1, INT, gathered.data(), all.counts.data(),
                                  all.displacements.data(), INT, WORLD));
    EXPECT_EQ(gathered, all.content);

    // To each rank r go r + 1 values, so from each come rank() + 1.
    std::vector<int> out;
    std::vector<int> outDisplacements;
    for (int other = 0; other < size(); ++other) {
        outDisplacements.push_back(static_cast<int>(out.size()));
        out.insert(out.end(), static_cast<std::size_t>(other) + 1, valueOf(rank(), other));
    }
    const std::vector<int> inCounts(ranks(), rank() + 1);
    std::vector<int> inDisplacements;
    std::vector<int> expected;
    for (int other = 0; other < size(); ++other) {
        inDisplacements.push_back(static_cast<int>(expected.size()));
        expected.insert(expected.end(), static_cast<std::size_t>(rank()) + 1, valueOf(other, rank()));
    }
    std::vector<int> in(expected.size(), -1);
    ORVEX_GOOD(OXM_MPI_Alltoallv(out.data(), all.counts.data(), outDisplacements.data(), INT, in.data(),
                                 inCounts.data(), inDisplacements.data(), INT, WORLD));
    EXPECT_EQ(in, expected);
}

TEST(WrapperCollectives, inPlace) {
    constexpr int COUNT = 2;
    const std::vector<int> all = blocks(0, size() - 1, COUNT);
    const auto ownPlace = static_cast<std::size_t>(rank() * COUNT);
    std::vector<int> data(all.size(), -1);
    std::copy_n(own(COUNT).begin(), COUNT, data.begin() + static_cast<std::ptrdiff_t>(ownPlace));
    ORVEX_GOOD(OXM_MPI_Allgather(OXM_MPI_IN_PLACE, 0, INT, data.data(), COUNT, INT, WORLD));
    EXPECT_EQ(data, all);

    const int root = size() - 1;
    const bool isRoot = rank() == root;
    std::vector<int> mine = own(COUNT);
    data.assign(all.size(), -1);
    std::copy_n(mine.begin(), COUNT, data.begin() + static_cast<std::ptrdiff_t>(ownPlace));
    ORVEX_GOOD(OXM_MPI_Gather(isRoot ? OXM_MPI_IN_PLACE : mine.data(), COUNT, INT,
                              isRoot ? data.data() : nullptr, COUNT, INT, root, WORLD));
    if (isRoot) {
        EXPECT_EQ(data, all);
    }
    ORVEX_GOOD(OXM_MPI_Scatter(all.data(), COUNT, INT, isRoot ? OXM_MPI_IN_PLACE : mine.data(), COUNT, INT,
                               root, WORLD));
    EXPECT_EQ(mine, own(COUNT));

    int sum = rank() + 1;
    ORVEX_GOOD(OXM_MPI_Allreduce(OXM_MPI_IN_PLACE, &sum, 1, INT, OXM_MPI_SUM, WORLD));
    EXPECT_EQ(sum, size() * (size() + 1) / 2);
    int prefix = rank() + 1;
    ORVEX_GOOD(OXM_MPI_Scan(OXM_MPI_IN_PLACE, &prefix, 1, INT, OXM_MPI_SUM, WORLD));
    EXPECT_EQ(prefix, (rank() + 1) * (rank() + 2) / 2);
    int rooted = rank() + 1;
    ORVEX_GOOD(OXM_MPI_Reduce(isRoot ? OXM_MPI_IN_PLACE : &rooted, isRoot ? &rooted : nullptr, 1, INT,
                              OXM_MPI_SUM, root, WORLD));
    EXPECT_EQ(rooted, isRoot ? sum : rank() + 1);
    std::vector<int> parts(ranks(), rank() + 1);
    const std::vector<int> ones(ranks(), 1);
    ORVEX_GOOD(OXM_MPI_Reduce_scatter(OXM_MPI_IN_PLACE, parts.data(), ones.data(), INT, OXM_MPI_SUM, WORLD));
    EXPECT_EQ(parts[0], sum);
}

TEST(WrapperCollectives, reduceWithEachOperation) {
    struct Row {
        int op;
        int (*fold)(int, int);
    };
    const Row rows[] = {
        {OXM_MPI_MAX, [](int a, int b) { return std::max(a, b); }},
        {OXM_MPI_MIN, [](int a, int b) { return std::min(a, b); }},
        {OXM_MPI_SUM, [](int a, int b) { return a + b; }},
        {OXM_MPI_PROD, [](int a, int b) { return a * b; }},
        {OXM_MPI_BAND, [](int a, int b) { return a & b; }},
        {OXM_MPI_BOR, [](int a, int b) { return a | b; }},
        {OXM_MPI_LAND, [](int a, int b) { return int(a && b); }},
        {OXM_MPI_LOR, [](int a, int b) { return int(a || b); }},
        {OXM_MPI_LXOR, [](int a, int b) { return int(!a != !b); }},
        {OXM_MPI_BXOR, [](int a, int b) { return a ^ b; }},
    };
    const auto valueAt = [](int r, int i) { return i == 0 ? (r * 5) % 7 : r + i; };
    for (const Row& row : rows) {
        std::array<int, 3> in{};
        std::array<int, 3> expected{};
        for (int i = 0; i < 3; ++i) {
            const auto index = static_cast<std::size_t>(i);
            in[index] = valueAt(rank(), i);
            expected[index] = valueAt(0, i);
            for (int r = 1; r < size(); ++r)
                expected[index] = row.fold(expected[index], valueAt(r, i));
        }
        std::array<int, 3> out{};
        ORVEX_GOOD(OXM_MPI_Allreduce(in.data(), out.data(), 3, INT, row.op, WORLD));
        if (size() > 1) { // a single rank's logical value may come back as it was
            EXPECT_EQ(out, expected) << row.op;
        }
        std::array<int, 3> rooted{};
        ORVEX_GOOD(OXM_MPI_Reduce(in.data(), rooted.data(), 3, INT, row.op, 0, WORLD));
        EXPECT_EQ(rooted, rank() == 0 ? out : (std::array<int, 3>{})) << row.op;
    }
    struct {
        double value;
        int index;
    } in{rank() == size() / 2 ? 9.0 : 1.0, rank()}, out{};
    ORVEX_GOOD(OXM_MPI_Allreduce(&in, &out, 1, OXM_MPI_DOUBLE_INT, OXM_MPI_MAXLOC, WORLD));
    EXPECT_EQ(out.value, 9.0);
    EXPECT_EQ(out.index, size() / 2);
}

TEST(WrapperCollectives, reduceNarrowTypes) {
    const bool isFirst = rank() == 0;
    bool any = false;
    bool all = true;
    ORVEX_GOOD(OXM_MPI_Allreduce(&isFirst, &any, 1, OXM_MPI_BOOL, OXM_MPI_LOR, WORLD));
    ORVEX_GOOD(OXM_MPI_Allreduce(&isFirst, &all, 1, OXM_MPI_BOOL, OXM_MPI_LAND, WORLD));
    EXPECT_TRUE(any);
    EXPECT_EQ(all, size() == 1);
    const char letter = static_cast<char>('a' + rank());
    char highest = 0;
    ORVEX_GOOD(OXM_MPI_Allreduce(&letter, &highest, 1, OXM_MPI_CHAR, OXM_MPI_MAX, WORLD));
    EXPECT_EQ(highest, static_cast<char>('a' + size() - 1));
    const long long big = LLONG_MAX - rank();
    long long lowest = 0;
    ORVEX_GOOD(OXM_MPI_Allreduce(&big, &lowest, 1, OXM_MPI_INT64, OXM_MPI_MIN, WORLD));
    EXPECT_EQ(lowest, LLONG_MAX - size() + 1);
}

TEST(WrapperCommunicators, followTheGroupsOrder) {
    int group = 0;
    ORVEX_GOOD(OXM_MPI_Comm_group(WORLD, &group));
    // Every second rank, backwards.
    std::vector<int> chosen;
    for (int r = size() - 1; r >= 0; r -= 2)
        chosen.push_back(r);
    int subset = 0;
    int comm = -1;
    ORVEX_GOOD(OXM_MPI_Group_incl(group, static_cast<int>(chosen.size()), chosen.data(), &subset));
    ORVEX_GOOD(OXM_MPI_Comm_create(WORLD, subset, &comm));
    const auto place = std::find(chosen.begin(), chosen.end(), rank());
    if (place == chosen.end()) {
        EXPECT_EQ(comm, OXM_MPI_COMM_NULL);
    } else {
        int newRank = -1;
        int newSize = -1;
        ORVEX_GOOD(OXM_MPI_Comm_rank(comm, &newRank));
        ORVEX_GOOD(OXM_MPI_Comm_size(comm, &newSize));
        EXPECT_EQ(newRank, place - chosen.begin());
        EXPECT_EQ(newSize, static_cast<int>(chosen.size()));
        int first = rank();
        ORVEX_GOOD(OXM_MPI_Bcast(&first, 1, INT, 0, comm));
        EXPECT_EQ(first, chosen.front());
        EXPECT_EQ(OXM_MPI_Bcast(&first, 1, INT, newSize, comm), OXM_MPI_ERR_ROOT) << "errors return here too";
        const int freed = comm;
        ORVEX_GOOD(OXM_MPI_Comm_free(&comm));
        EXPECT_EQ(comm, OXM_MPI_COMM_NULL);
        EXPECT_EQ(OXM_MPI_Barrier(freed), OXM_MPI_ERR_COMM);
    }
    ORVEX_GOOD(OXM_MPI_Group_free(&subset));
    // Nobody at all.
    ORVEX_GOOD(OXM_MPI_Group_incl(group, 0, nullptr, &subset));
    ORVEX_GOOD(OXM_MPI_Comm_create(WORLD, subset, &comm));
    EXPECT_EQ(comm, OXM_MPI_COMM_NULL);
    ORVEX_GOOD(OXM_MPI_Group_free(&subset));
    EXPECT_EQ(subset, OXM_MPI_GROUP_NULL);
    ORVEX_GOOD(OXM_MPI_Group_free(&group));
    int world = WORLD;
    EXPECT_NE(OXM_MPI_Comm_free(&world), OXM_MPI_SUCCESS);
    EXPECT_EQ(world, WORLD);
}

/// A record with a gap that the compiler leaves.
struct Record {
    char kind;
    double weight;
    int hits;
};

int makeRecordType() {
    const int lengths[] = {1, 1, 1};
    const OXM_MPI_Aint displacements[] = {offsetof(Record, kind), offsetof(Record, weight),
                                          offsetof(Record, hits)};
    const int types[] = {OXM_MPI_CHAR, OXM_MPI_DOUBLE, OXM_MPI_INT};
    int narrow = 0;
    int type = 0;
    OXM_MPI_Aint lowerBound = -1;
    EXPECT_TRUE(isGood(OXM_MPI_Type_create_struct(3, lengths, displacements, types, &narrow)));
    EXPECT_TRUE(isGood(OXM_MPI_Type_create_resized(narrow, 0, sizeof(Record), &type)));
    EXPECT_TRUE(isGood(OXM_MPI_Type_free(&narrow)));
    EXPECT_TRUE(isGood(OXM_MPI_Type_commit(&type)));
    OXM_MPI_Aint extent = -1;
    EXPECT_TRUE(isGood(OXM_MPI_Type_get_extent(type, &lowerBound, &extent)));
    EXPECT_EQ(lowerBound, 0);
    EXPECT_EQ(extent, static_cast<OXM_MPI_Aint>(sizeof(Record)));
    return type;
}

int datatypeSeen = 0;

/// The heaviest kind, and all hits.
void foldRecords(void* in, void* inout, int* length, int* datatype) {
    datatypeSeen = *datatype;
    const auto* const source = static_cast<const Record*>(in);
    auto* const target = static_cast<Record*>(inout);
    for (int i = 0; i < *length; ++i) {
        if (source[i].weight > target[i].weight) {
            target[i].kind = source[i].kind;
            target[i].weight = source[i].weight;
        }
        target[i].hits += source[i].hits;
    }
}

TEST(WrapperTypes, recordsTravelAndAreReduced) {
    int type = makeRecordType();
    std::vector<Record> out;
    for (int i = 0; i < 3; ++i)
        out.push_back({static_cast<char>('a' + rank()), 1.5 * rank() + i, i});
    std::vector<Record> in(3);
    OXM_MPI_Status_struct status;
    ORVEX_GOOD(OXM_MPI_Sendrecv(out.data(), 3, type, nextRank(), 0, in.data(), 3, type, previousRank(), 0,
                                WORLD, &status));
    for (int i = 0; i < 3; ++i) {
        const Record& record = in[static_cast<std::size_t>(i)];
        EXPECT_EQ(record.kind, 'a' + previousRank());
        EXPECT_EQ(record.weight, 1.5 * previousRank() + i);
        EXPECT_EQ(record.hits, i);
    }
    int count = 0;
    ORVEX_GOOD(OXM_MPI_Get_count(&status, type, &count));
    EXPECT_EQ(count, 3);

    int op = 0;
    ORVEX_GOOD(OXM_MPI_Op_create(&foldRecords, 1, &op));
    ORVEX_GOOD(OXM_MPI_Allreduce(OXM_MPI_IN_PLACE, out.data(), 3, type, op, WORLD));
    for (int i = 0; i < 3; ++i) {
        const Record& record = out[static_cast<std::size_t>(i)];
        EXPECT_EQ(record.kind, 'a' + size() - 1);
        EXPECT_EQ(record.weight, 1.5 * (size() - 1) + i);
        EXPECT_EQ(record.hits, size() * i);
    }
    // An MPI may leave the whole fold to other ranks, but who takes part sees the wrapper's handle.
    if (size() > 1 && datatypeSeen != 0) {
        EXPECT_EQ(datatypeSeen, type);
    }
    ORVEX_GOOD(OXM_MPI_Op_free(&op));
    EXPECT_EQ(op, OXM_MPI_OP_NULL);
    ORVEX_GOOD(OXM_MPI_Type_free(&type));
    EXPECT_EQ(type, OXM_MPI_DATATYPE_NULL);

    int triple = 0;
    ORVEX_GOOD(OXM_MPI_Type_contiguous(3, OXM_MPI_DOUBLE, &triple));
    double values[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(OXM_MPI_Bcast(values, 2, triple, 0, WORLD), OXM_MPI_ERR_TYPE) << "not committed";
    ORVEX_GOOD(OXM_MPI_Type_commit(&triple));
    ORVEX_GOOD(OXM_MPI_Bcast(values, 2, triple, 0, WORLD));
    ORVEX_GOOD(OXM_MPI_Type_free(&triple));
    int fixed = OXM_MPI_INT;
    EXPECT_NE(OXM_MPI_Type_free(&fixed), OXM_MPI_SUCCESS);
}

void addInts(void* in, void* inout, int* length, int*) {
    for (int i = 0; i < *length; ++i)
        static_cast<int*>(inout)[i] += static_cast<const int*>(in)[i];
}
void multiplyInts(void* in, void* inout, int* length, int*) {
    for (int i = 0; i < *length; ++i)
        static_cast<int*>(inout)[i] *= static_cast<const int*>(in)[i];
}

TEST(WrapperTypes, userReductionsAreKeptApart) {
    constexpr int LIMIT = 32;
    std::vector<int> ops(LIMIT);
    for (std::size_t i = 0; i < LIMIT; ++i)
        ORVEX_GOOD(OXM_MPI_Op_create(i % 2 ? &multiplyInts : &addInts, 1, &ops[i]));
    int oneMore = 5;
    const int code = OXM_MPI_Op_create(&addInts, 1, &oneMore);
    EXPECT_EQ(code, OXM_MPI_ERR_NO_REDUCTION_SLOT);
    EXPECT_EQ(errorText(code), "Too many user-defined reductions are alive at a time");
    EXPECT_EQ(oneMore, OXM_MPI_OP_NULL);
    for (std::size_t i = 0; i < LIMIT; ++i) {
        int value = 2;
        int expected = 2;
        for (int r = 1; r < size(); ++r)
            expected = i % 2 ? expected * 2 : expected + 2;
        ORVEX_GOOD(OXM_MPI_Allreduce(OXM_MPI_IN_PLACE, &value, 1, INT, ops[i], WORLD));
        EXPECT_EQ(value, expected) << i;
    }
    ORVEX_GOOD(OXM_MPI_Op_free(&ops[7]));
    ORVEX_GOOD(OXM_MPI_Op_create(&addInts, 1, &ops[7]));
    int value = rank();
    ORVEX_GOOD(OXM_MPI_Allreduce(OXM_MPI_IN_PLACE, &value, 1, INT, ops[7], WORLD));
    EXPECT_EQ(value, size() * (size() - 1) / 2);
    for (int& op : ops)
        ORVEX_GOOD(OXM_MPI_Op_free(&op));
}

} // namespace
