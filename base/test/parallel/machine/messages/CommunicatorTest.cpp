// Every operation of the communicator with every kind of value, among ranks of any number.

#include "parallel/harness/ParallelTest.h"
#include "support/Values.h"

#include "machine/Communicator.h"

#include "kernel/Error.h"
#include "kernel/Properties.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <numeric>
#include <string>
#include <typeinfo>

/// A struct of which only one member travels.
struct Labelled {
    int travels;
    int stays;
};
template <>
struct StructMembers<Labelled> {
    static constexpr auto list = std::tuple(&Labelled::travels);
};

namespace {

template <class T>
void append(std::vector<T>& all, const std::vector<T>& more) {
    all.insert(all.end(), more.begin(), more.end());
}

/// The contribution of rank `rank` where lengths differ; some contribute nothing.
unsigned lengthOf(unsigned rank, unsigned base) {
    return base == 0 ? 0 : (rank * 3 + base) % 5 * base;
}

/// A job of more ranks than processors waits long for each message: the rest of the sorts and sizes belongs
/// to small jobs.
bool isSmallJob() {
    return ParallelTest::size() <= 3;
}

class Job : public testing::Test {
protected:
    unsigned right() const { return (_me + 1) % _ranks; }
    unsigned left() const { return (_me + _ranks - 1) % _ranks; }

    Communicator _comm;
    const unsigned _ranks = _comm.size();
    const unsigned _me = _comm.myRank();
};

template <class T>
class CommunicatorValues : public Job {
protected:
    void SetUp() override {
        if (!isSmallJob() && !std::is_same_v<T, char> && !std::is_same_v<T, Swarm>)
            GTEST_SKIP() << "in small jobs only";
    }
};

/// One of each sort that takes another way through the typed operations.
using Sorts = testing::Types<char, double, std::array<Vector3, 2>, Swarm>;
TYPED_TEST_SUITE(CommunicatorValues, Sorts);

TYPED_TEST(CommunicatorValues, ArriveByBlockingMessages) {
    ORVEX_NEEDS_RANKS(2);
    using T = TypeParam;
    Communicator& comm = this->_comm;
    const unsigned right = this->right();
    const unsigned left = this->left();
    for (const unsigned base : {0u, 1u, 6u}) {
        const std::vector<T> mine = makeValues<T>(this->_me, base + this->_me % 2);
        const std::vector<T> theirs = makeValues<T>(left, base + left % 2);
        std::vector<T> got;
        // One rank receives first, so that synchronous sends around the ring come through.
        const auto pass = [&](auto send, auto receive) {
            got = makeValues<T>(99, 3);
            if (this->_me != 0)
                send();
            receive();
            if (this->_me == 0)
                send();
            EXPECT_TRUE(got == theirs) << base;
        };
        pass([&] { comm.send(mine, right); }, [&] { comm.recv(got, left); });
        pass([&] { comm.syncSend(mine, right, 5); }, [&] { comm.recv(got, left, 5); });
        pass([&] { comm.send(mine, right, 32766); },
             [&] {
                 unsigned source = 99;
                 comm.recvFromAny(got, source, 32766);
                 EXPECT_EQ(source, left);
             });
        pass([&] { comm.syncSend(mine.data(), mine.size(), right); },
             [&] {
                 got.resize(theirs.size() + 2); // more room than the message needs
                 comm.recv(got.data(), got.size(), left);
                 got.resize(theirs.size());
             });
        comm.sendrecv(mine, right, got = makeValues<T>(99, 3), left);
        EXPECT_TRUE(got == theirs);
        got = makeValues<T>(96, theirs.size());
        comm.sendrecv(mine.data(), mine.size(), right, got.data(), got.size(), left);
        EXPECT_TRUE(got == theirs);
        got = makeValues<T>(96, theirs.size());
        comm.sendrecv(std::span(mine), right, std::span(got), left);
        EXPECT_TRUE(got == theirs);
    }
    T other = MakeValue<T>::from(77);
    comm.sendrecv(MakeValue<T>::from(this->_me), right, other, left);
    EXPECT_TRUE(other == MakeValue<T>::from(left));
}

TYPED_TEST(CommunicatorValues, ArriveByNonBlockingMessages) {
    ORVEX_NEEDS_RANKS(2);
    using T = TypeParam;
    Communicator& comm = this->_comm;
    const unsigned right = this->right();
    const unsigned left = this->left();
    for (const std::size_t count : {0u, 1u, 6u}) {
        const std::vector<T> mine = makeValues<T>(this->_me, count);
        const std::vector<T> theirs = makeValues<T>(left, count);
        const T one = MakeValue<T>::from(this->_me);
        T other{};
        std::vector<T> got[4];
        for (auto& each : got)
            each = makeValues<T>(50, count);
        Communicator::RequestStack requests;
        comm.iRecv(got[0], left, requests, 1);
        comm.iRecv(got[1].data(), count, left, requests, 2);
        comm.iRecvFromAny(got[2], requests, 3);
        comm.iRecv(other, left, requests, 4);
        comm.iSend(mine, right, requests, 1);
        comm.iSyncSend(mine.data(), count, right, requests, 2);
        comm.iSyncSend(mine, right, requests, 3);
        comm.iSend(one, right, requests, 4);
        std::vector<unsigned> sources;
        comm.wait(requests, sources);
        EXPECT_TRUE(requests.empty());
        ASSERT_EQ(sources.size(), 8u);
        EXPECT_TRUE(std::vector(sources.begin(), sources.begin() + 4) == std::vector(4, left));
        EXPECT_TRUE(other == MakeValue<T>::from(left));

        Communicator::PersistentRequestStack prepared;
        comm.recvInit(got[3], left, prepared, 5);
        comm.start(prepared);
        comm.iSend(mine, right, requests, 5);
        while (!comm.test(prepared)) {
        }
        comm.wait(requests);
        EXPECT_TRUE(prepared.empty());
        for (const auto& each : got)
            EXPECT_TRUE(each == theirs);

        comm.iSend(mine, right, requests, 7);
        unsigned source = MpiCore::ANY_SOURCE;
        unsigned tag = MpiCore::ANY_TAG;
        unsigned length = 0;
        comm.template probe<T>(source, tag, length);
        EXPECT_EQ((std::vector{source, tag, length}), (std::vector{left, 7u, unsigned(count)}));
        source = left;
        EXPECT_TRUE(comm.template iProbe<T>(source, tag, length));
        EXPECT_EQ(length, count);
        comm.recv(got[0].data(), count, left, 7);
        tag = 8;
        EXPECT_FALSE(comm.template iProbe<T>(source, tag, length));
        EXPECT_EQ((std::vector{source, tag, length}), (std::vector{left, 8u, 0u}));
        comm.wait(requests);
    }
}

/// All collectives that move data.
template <class T>
void moveData(Communicator& comm, const std::vector<unsigned>& bases) {
    const unsigned ranks = comm.size();
    const unsigned me = comm.myRank();
    for (const unsigned base : bases) {
        std::vector<T> equalBlocks;
        std::vector<T> blocks;
        std::vector<unsigned> lengths;
        for (unsigned rank = 0; rank < ranks; ++rank) {
            append<T>(equalBlocks, makeValues<T>(rank, base));
            lengths.push_back(lengthOf(rank, base));
            append<T>(blocks, makeValues<T>(rank, lengths.back()));
        }
        const std::vector<T> mine = makeValues<T>(me, base);
        const std::vector<T> myBlock = makeValues<T>(me, lengths[me]);
        const std::vector<T> junk = makeValues<T>(1234, 4);
        const std::vector<unsigned> oldCounts{1, 2, 3};
        std::vector<T> got = junk;
        std::vector<unsigned> counts = oldCounts;
        for (const unsigned root : {0u, ranks - 1}) {
            SCOPED_TRACE(testing::Message() << "base " << base << " root " << root);
            const bool here = me == root;
            std::vector<T> value = makeValues<T>(me, base + me);
            comm.broadcast(value, root);
            EXPECT_TRUE(value == makeValues<T>(root, base + root));
            comm.gather(mine, got = junk, root);
            EXPECT_TRUE(got == (here ? equalBlocks : junk));
            comm.gatherVector(myBlock, got = junk, counts = oldCounts, root);
            EXPECT_TRUE(got == (here ? blocks : junk));
            EXPECT_TRUE(counts == (here ? lengths : oldCounts));
            got = std::vector<T>(base);
            comm.scatter(here ? equalBlocks : std::vector<T>(), got, root);
            EXPECT_TRUE(got == mine);
            comm.scatterVector(here ? blocks : std::vector<T>(), here ? lengths : oldCounts, got = junk,
                               root);
            EXPECT_TRUE(got == myBlock);
        }
        comm.allGather(mine, got = junk);
        EXPECT_TRUE(got == equalBlocks);
        comm.allGatherVector(myBlock, got = junk, counts);
        EXPECT_TRUE(got == blocks);
        EXPECT_TRUE(counts == lengths);

        // Blocks in reverse order with a gap of one value between them.
        std::vector<unsigned> places(ranks);
        unsigned place = 0;
        for (unsigned rank = ranks; rank-- > 0; place += lengths[rank] + 1)
            places[rank] = place;
        std::vector<T> spread(place);
        std::vector<T> expected(place);
        for (unsigned rank = 0; rank < ranks; ++rank)
            std::copy_n(makeValues<T>(rank, lengths[rank]).begin(), lengths[rank],
                        expected.begin() + places[rank]);
        comm.allGatherVector(myBlock.data(), myBlock.size(), spread.data(), lengths.data(), places.data());
        EXPECT_TRUE(spread == expected);
        spread = std::vector<T>(place);
        comm.gatherVector(myBlock.data(), myBlock.size(), spread.data(), lengths.data(), places.data(),
                          ranks - 1);
        EXPECT_TRUE(spread == (me == ranks - 1 ? expected : std::vector<T>(place)));
        got = std::vector<T>(myBlock.size());
        comm.scatterVector(expected.data(), lengths.data(), places.data(), got.data(), got.size(), 0);
        EXPECT_TRUE(got == myBlock);
    }
}

TYPED_TEST(CommunicatorValues, ArriveByCollectives) {
    moveData<TypeParam>(this->_comm, {0, 4});
}

TYPED_TEST(CommunicatorValues, ArriveInPieces) {
    // A length of 8 bytes travels with the content, so no limit is below that.
    this->_comm.setMaxBufferSize(std::max<std::size_t>(8, (isSmallJob() ? 3 : 9) * sizeof(TypeParam) + 5));
    moveData<TypeParam>(this->_comm, {3});
}

/// From each rank to each: blocks of 0 to 3 times `scale` values, then blocks of `scale`.
template <class T>
void exchangeBlocks(Communicator& comm, unsigned scale) {
    const unsigned ranks = comm.size();
    const unsigned me = comm.myRank();
    const auto lengthTo = [scale](unsigned from, unsigned to) { return (from * 2 + to) % 4 * scale; };
    std::vector<T> send;
    std::vector<T> expected;
    std::vector<unsigned> sendCounts;
    std::vector<unsigned> expectedCounts;
    for (unsigned rank = 0; rank < ranks; ++rank) {
        sendCounts.push_back(lengthTo(me, rank));
        expectedCounts.push_back(lengthTo(rank, me));
        append<T>(send, makeValues<T>(me * 10 + rank, sendCounts.back()));
        append<T>(expected, makeValues<T>(rank * 10 + me, expectedCounts.back()));
    }
    std::vector<T> got;
    std::vector<unsigned> counts;
    comm.allToAllVector(send, sendCounts, got, counts);
    EXPECT_TRUE(got == expected);
    EXPECT_TRUE(counts == expectedCounts);
    got = std::vector<T>(expected.size());
    comm.allToAllVector(send.data(), sendCounts.data(), nullptr, got.data(), counts.data(), nullptr);
    EXPECT_TRUE(got == expected);
    send.clear();
    expected.clear();
    for (unsigned rank = 0; rank < ranks; ++rank) {
        append<T>(send, makeValues<T>(me * 10 + rank, scale));
        append<T>(expected, makeValues<T>(rank * 10 + me, scale));
    }
    got = std::vector<T>(send.size());
    comm.allToAll(send.data(), got.data(), scale);
    EXPECT_TRUE(got == expected);
}

TYPED_TEST(CommunicatorValues, ArriveFromEachToEach) {
    for (const unsigned scale : {0u, 1u, 3u})
        exchangeBlocks<TypeParam>(this->_comm, scale);
}

TYPED_TEST(CommunicatorValues, ArriveAsOneOfEachRank) {
    using T = TypeParam;
    Communicator& comm = this->_comm;
    const unsigned root = this->_ranks - 1;
    T value = MakeValue<T>::from(this->_me);
    comm.broadcast(value, root);
    EXPECT_TRUE(value == MakeValue<T>::from(root));
    std::vector<T> expected;
    for (unsigned rank = 0; rank < this->_ranks; ++rank)
        expected.push_back(MakeValue<T>::from(rank));
    const T mine = MakeValue<T>::from(this->_me);
    const std::vector<T> given = this->_me == root ? expected : std::vector<T>();
    std::vector<T> got;
    comm.gather(mine, got, root);
    EXPECT_TRUE(got == given);
    comm.scatter(given, value = T{}, root);
    EXPECT_TRUE(value == mine);
    comm.allGather(mine, got = {});
    EXPECT_TRUE(got == expected);
    comm.allToAll(std::vector<T>(this->_ranks, mine), got = {});
    EXPECT_TRUE(got == expected);
}

/// Each primitive has its datatype: the values that arrive are those that were sent, and a sum is a sum.
template <class T>
void checkPrimitive(Communicator& comm) {
    SCOPED_TRACE(typeid(T).name());
    const unsigned me = comm.myRank();
    const unsigned ranks = comm.size();
    const T mine = MakeValue<T>::from(me + 40);
    const auto all = std::make_unique<T[]>(ranks);
    comm.allGather(&mine, 1, all.get());
    T sum = mine;
    T expected{};
    constexpr bool hasSum =
        std::is_arithmetic_v<T> && !std::is_same_v<T, bool> && !std::is_same_v<T, wchar_t>;
    if constexpr (hasSum)
        comm.allReduce(sum, Communicator::SUM);
    for (unsigned rank = 0; rank < ranks; ++rank) {
        EXPECT_TRUE(all[rank] == MakeValue<T>::from(rank + 40));
        if constexpr (hasSum)
            expected = static_cast<T>(expected + all[rank]);
    }
    EXPECT_TRUE(!hasSum || sum == expected);
}

template <class... T>
void checkPrimitives(Communicator& comm) {
    (checkPrimitive<T>(comm), ...);
}

TEST_F(Job, CarriesEveryPrimitive) {
    if (!isSmallJob())
        GTEST_SKIP() << "in small jobs only";
    checkPrimitives<bool, char, signed char, unsigned char, char8_t, wchar_t, char16_t, char32_t, short,
                    unsigned short, int, unsigned, long, unsigned long, long long, unsigned long long, float,
                    double, long double, std::complex<float>, std::complex<double>, std::complex<long double>,
                    Phase, LocatedValue<float>, LocatedValue<double>, LocatedValue<long>, LocatedValue<int>,
                    LocatedValue<long double>>(_comm);
}

template <class T>
class Reductions : public Job {
protected:
    using Fold = T (*)(const T&, const T&);

    /// Elements 0 to `count` folded over _ranks 0 to `last`.
    static std::vector<T> fold(unsigned last, std::size_t count, Fold fold) {
        std::vector<T> result = makeValues<T>(0, count);
        for (unsigned rank = 1; rank <= last; ++rank) {
            const std::vector<T> more = makeValues<T>(rank, count);
            std::transform(result.begin(), result.end(), more.begin(), result.begin(), fold);
        }
        return result;
    }

    static T add(const T& a, const T& b) { return static_cast<T>(a + b); }
    static T larger(const T& a, const T& b) { return std::max(a, b); }

    /// All reductions of one operation, which is given by its code or as the function itself.
    template <class Operation>
    void check(Operation operation, Fold expected, const std::vector<unsigned>& counts = {0, 5}) {
        for (const std::size_t count : counts) {
            const std::vector<T> mine = makeValues<T>(_me, count);
            const std::vector<T> total = fold(_ranks - 1, count, expected);
            std::vector<T> got = mine;
            _comm.allReduce(got, operation);
            EXPECT_TRUE(got == total);
            _comm.scan(got = mine, operation);
            EXPECT_TRUE(got == fold(_me, count, expected));
            const unsigned root = count == 0 ? 0 : _ranks - 1;
            _comm.reduce(got = mine, operation, root);
            EXPECT_TRUE(got == (_me == root ? total : mine));
        }
    }
    void checkReduceScatter(std::size_t block) {
        const std::vector<T> total = fold(_ranks - 1, block * _ranks, &add);
        std::vector<T> got(block);
        _comm.reduceScatter(makeValues<T>(_me, block * _ranks), got, Communicator::SUM);
        EXPECT_TRUE(std::equal(got.begin(), got.end(), total.begin() + static_cast<long>(_me * block)));
    }
};

using Numbers = testing::Types<unsigned char, int, unsigned long long, double>;
TYPED_TEST_SUITE(Reductions, Numbers);

TYPED_TEST(Reductions, CombineNumbers) {
    using T = TypeParam;
    if (!isSmallJob() && std::is_integral_v<T>)
        GTEST_SKIP() << "in small jobs only";
    std::vector<std::pair<Communicator::Operation, typename TestFixture::Fold>> operations{
        {Communicator::SUM, &TestFixture::add},
        {Communicator::MAX, &TestFixture::larger},
        {Communicator::MIN, [](const T& a, const T& b) { return std::min(a, b); }},
    };
    if constexpr (std::is_integral_v<T>) {
        const auto multiply = [](const T& a, const T& b) { // modulo 2^n, as the message library
            return static_cast<T>(static_cast<unsigned long long>(a) * static_cast<unsigned long long>(b));
        };
        operations.insert(
            operations.end(),
            {
                {Communicator::PRODUCT, multiply},
                {Communicator::BITWISE_AND, [](const T& a, const T& b) { return static_cast<T>(a & b); }},
                {Communicator::BITWISE_OR, [](const T& a, const T& b) { return static_cast<T>(a | b); }},
                {Communicator::BITWISE_XOR, [](const T& a, const T& b) { return static_cast<T>(a ^ b); }},
                {Communicator::LOGICAL_AND, [](const T& a, const T& b) { return static_cast<T>(a && b); }},
                {Communicator::LOGICAL_OR, [](const T& a, const T& b) { return static_cast<T>(a || b); }},
                {Communicator::LOGICAL_XOR, [](const T& a, const T& b) { return static_cast<T>(!a != !b); }},
            });
    }
    for (const auto& [operation, expected] : operations)
        this->check(operation, expected);
    this->check(&TestFixture::add, &TestFixture::add); // a plain function
    this->check([](const T& from, T& into) { into = std::max(into, from); }, &TestFixture::larger);
    for (const std::size_t block : {0u, 1u, 3u})
        this->checkReduceScatter(block);
}

// The message libraries change their algorithms with the size.
using ReductionsOfDoubles = Reductions<double>;
TEST_F(ReductionsOfDoubles, AndAllCollectivesWorkAtEachSize) {
    const std::vector<unsigned> sizes = isSmallJob() ? std::vector{3u, 40u, 256u} : std::vector{40u};
    for (const unsigned kibibytes : sizes) {
        const unsigned count = kibibytes << 7;
        moveData<double>(_comm, {count});
        exchangeBlocks<double>(_comm, count);
        check(Communicator::SUM, &add, {count});
        checkReduceScatter(count);
    }
}

TEST_F(Job, ReducesOthersThanNumbers) {
    bool all = _me != _ranks - 1;
    bool any = _me == _ranks - 1;
    _comm.allReduce(all, Communicator::LOGICAL_AND);
    _comm.allReduce(any, Communicator::LOGICAL_OR);
    EXPECT_FALSE(all);
    EXPECT_TRUE(any);

    std::complex<double> z(1.0, _me);
    _comm.allReduce(z, Communicator::SUM);
    EXPECT_EQ(z, std::complex<double>(_ranks, _ranks * (_ranks - 1) / 2.0));

    LocatedValue<double> largest{_me == _ranks / 2 ? 5.0 : 1.0, static_cast<int>(_me)};
    LocatedValue<double> smallest{2.0, static_cast<int>(_me)};
    _comm.allReduce(largest, Communicator::MAX_LOCATION);
    _comm.allReduce(smallest, Communicator::MIN_LOCATION);
    EXPECT_EQ(largest, (LocatedValue<double>{5.0, static_cast<int>(_ranks / 2)}));
    EXPECT_EQ(smallest, (LocatedValue<double>{2.0, 0}));
}

TEST_F(Job, ComparesUnsignedNumbersAsSuch) {
    const auto check = [this]<class T>(T) {
        const T huge = std::numeric_limits<T>::max(); // -1 for a library that takes it for a signed number
        T largest = _me == 0 ? huge : T(5);
        T smallest = largest;
        _comm.allReduce(largest, Communicator::MAX);
        _comm.reduce(smallest, Communicator::MIN, 0);
        EXPECT_EQ(largest, huge);
        if (_me == 0) {
            EXPECT_EQ(smallest, _ranks > 1 ? T(5) : huge);
        }
    };
    check(static_cast<unsigned char>(0));
    check(static_cast<unsigned short>(0));
    check(0u);
    check(0ul);
    check(0ull);
}

using ReductionsOfRecords = Reductions<Swarm>;
TEST_F(ReductionsOfRecords, GoByFunction) {
    const auto larger = [](const Swarm& a, const Swarm& b) { return a.leader.cell > b.leader.cell ? a : b; };
    check(larger, larger, {0, 9});
}

// Composition of x -> a * x + b, which is associative and doesn't commute.
TEST_F(Job, ReducesInRankOrder) {
    using Map = std::array<unsigned, 2>;
    const auto compose = [](const Map& first, const Map& then) {
        return Map{first[0] * then[0], first[1] * then[0] + then[1]};
    };
    // Maps with different fixed points, so that no two of them commute.
    const auto mapOf = [](unsigned rank) { return Map{2 * rank + 3, rank + 2}; };
    for (const std::size_t count : {1u, 300u, 100'000u}) {
        Map total{1, 0};
        Map upToHere{};
        for (unsigned rank = 0; rank < _ranks; ++rank) {
            total = compose(total, mapOf(rank));
            if (rank == _me)
                upToHere = total;
        }
        const std::vector<Map> mine(count, mapOf(_me));
        std::vector<Map> got = mine;
        _comm.allReduce(got, Communicator::InRankOrder(compose));
        EXPECT_TRUE(got == std::vector<Map>(count, total)) << count;
        _comm.scan(got = mine, Communicator::InRankOrder(compose));
        EXPECT_TRUE(got == std::vector<Map>(count, upToHere)) << count;
        for (const unsigned root : {0u, _ranks - 1}) {
            _comm.reduce(got = mine, Communicator::InRankOrder(compose), root);
            EXPECT_TRUE(got == (_me == root ? std::vector<Map>(count, total) : mine)) << count;
        }
    }
}

TEST_F(Job, LeavesMembersAloneThatDontTravelWhenItCutsAGather) {
    _comm.setMaxBufferSize(64);
    std::vector<Labelled> got(5u * _ranks, {0, 7});
    const std::vector<Labelled> mine(5, {static_cast<int>(_me), 0});
    const auto check = [&](auto gather) {
        std::fill(got.begin(), got.end(), Labelled{0, 7});
        gather();
        for (std::size_t i = 0; i < got.size(); ++i)
            EXPECT_TRUE(got[i].travels == static_cast<int>(i / 5) && got[i].stays == 7) << i;
    };
    std::vector<unsigned> counts;
    check([&] { _comm.allGather(mine.data(), mine.size(), got.data()); });
    check([&] { _comm.allGatherVector(mine, got, counts); });
    // Ranks other than the root pass no memory, so theirs stays as it is.
    std::fill(got.begin(), got.end(), Labelled{0, 7});
    _comm.gather(mine.data(), mine.size(), _me == 0 ? got.data() : nullptr, 0);
    _comm.gatherVector(mine, got, counts, _ranks - 1);
    EXPECT_TRUE(std::all_of(got.begin(), got.end(), [](const Labelled& each) { return each.stays == 7; }));
}

TEST_F(Job, TakesBackTheReceivesOfADyingStack) {
    ORVEX_NEEDS_RANKS(2);
    int lost = 0;
    int kept = 0;
    if (_me == 1) {
        Communicator::RequestStack requests;
        Communicator::PersistentRequestStack prepared;
        _comm.iRecv(lost, 0, requests);
        _comm.recvInit(lost, 0, prepared, 1);
        _comm.start(prepared);
    }
    _comm.synchronise();
    if (_me == 0) {
        _comm.send(5, 1);
        _comm.send(6, 1, 1);
    } else if (_me == 1) {
        unsigned source = 0;
        unsigned tag = MpiCore::ANY_TAG;
        unsigned length = 0;
        EXPECT_THROW(_comm.probe<double>(source, tag, length), InternalError) << "half a value";
        EXPECT_THROW(_comm.iProbe<Vector3>(source, tag, length), InternalError) << "a third of one";
        _comm.recv(kept, 0);
        EXPECT_EQ(kept, 5);
        _comm.recv(kept, 0, 1);
        EXPECT_EQ(kept, 6);
        EXPECT_EQ(lost, 0);
    }
}

TEST_F(Job, CarriesTexts) {
    const auto textOf = [](unsigned rank) { return std::string(rank % 3 * 7, 'x') + std::string(1, '\0'); };
    std::vector<std::string> expected;
    for (unsigned rank = 0; rank < _ranks; ++rank)
        expected.push_back(textOf(rank));
    for (const std::size_t limit : {_comm.getMaxBufferSize(), std::size_t(isSmallJob() ? 8 : 64)}) {
        _comm.setMaxBufferSize(limit);
        for (const unsigned root : {0u, _ranks - 1}) {
            const bool here = _me == root;
            std::string text = textOf(_me);
            _comm.broadcast(text, root);
            EXPECT_EQ(text, textOf(root));
            std::vector<std::string> words{"", "a word", "", std::string(40, 'w'), ""};
            std::vector<std::string> got = here ? words : std::vector<std::string>(_me * 3, "old");
            _comm.broadcast(got, root);
            EXPECT_EQ(got, words);
            got = here ? std::vector<std::string>() : words;
            _comm.broadcast(got, root);
            EXPECT_TRUE(got.empty());
            _comm.gather(textOf(_me), got = {"old"}, root);
            EXPECT_EQ(got, here ? expected : std::vector<std::string>{"old"});
            std::wstring wide = here ? L"w\x00e9\x4e16" : L"";
            _comm.broadcast(wide, root);
            EXPECT_EQ(wide, L"w\x00e9\x4e16");
        }
        std::vector<std::string> got;
        _comm.allGather(textOf(_me), got);
        EXPECT_EQ(got, expected);
    }
}

TEST_F(Job, UnitesSets) {
    const std::set<std::string> old{"kept", "r0"};
    std::set<std::string> out = old;
    _comm.allGather(std::set<std::string>(), out);
    EXPECT_EQ(out, old);
    std::set<std::string> expected = old;
    for (unsigned rank = 0; rank < _ranks; ++rank)
        expected.insert({"all", "", "r" + std::to_string(rank), std::to_string(rank % 2) + "zz"});
    _comm.allGather({"all", "", "r" + std::to_string(_me), std::to_string(_me % 2) + "zz"}, out);
    EXPECT_EQ(out, expected);
    out.clear();
    _comm.allGather(_me == _ranks - 1 ? std::set<std::string>{"last"} : std::set<std::string>(), out);
    EXPECT_EQ(out, std::set<std::string>{"last"});
}

TEST_F(Job, CarriesProperties) {
    const auto treeOf = [](unsigned rank) {
        Properties tree;
        if (rank != 1) {
            tree.set("rank", rank);
            tree.set("text", std::string(rank * 10, 'p'));
        }
        return tree;
    };
    std::vector<Properties> all(3);
    _comm.gather(treeOf(_me), all);
    ASSERT_EQ(all.size(), _me == 0 ? _ranks : 0u);
    for (unsigned rank = 0; rank < all.size(); ++rank)
        EXPECT_EQ(all[rank], treeOf(rank));
    Properties tree = treeOf(_me);
    _comm.broadcast(tree, _ranks - 1);
    EXPECT_EQ(tree, treeOf(_ranks - 1));
}

TEST_F(Job, MakesCommunicatorsOfSomeRanks) {
    std::vector<unsigned> reversed(_ranks);
    std::iota(reversed.rbegin(), reversed.rend(), 0u);
    const std::unique_ptr<Communicator> all = _comm.createCommunicator(reversed);
    ASSERT_TRUE(all);
    EXPECT_FALSE(*all == _comm);
    EXPECT_EQ(all->size(), _ranks);
    EXPECT_EQ(all->myRank(), _ranks - 1 - _me);
    unsigned value = all->myRank();
    all->broadcast(value, 0);
    EXPECT_EQ(value, 0u);

    std::vector<unsigned> odd;
    for (unsigned rank = 1; rank < _ranks; rank += 2)
        odd.push_back(rank);
    const std::unique_ptr<Communicator> some = _comm.createCommunicator(odd);
    EXPECT_EQ(some != nullptr, _me % 2 == 1);
    if (some) {
        std::vector<unsigned> members;
        some->allGather(_me, members);
        EXPECT_EQ(members, odd);
    }
    EXPECT_FALSE(_comm.createCommunicator({}));
    const std::unique_ptr<Communicator> shared = _comm.createSharedMemCommunicators();
    ASSERT_TRUE(shared);
    unsigned sum = 1;
    shared->allReduce(sum, Communicator::SUM);
    EXPECT_EQ(sum, shared->size());
    EXPECT_TRUE(Communicator() == _comm);
}

TEST_F(Job, TestsItself) {
    _comm.testCommunicator();
}

// A fault of one rank is told to that rank alone, and its communicator works on.
TEST_F(Job, TellsAFaultToItsRankAlone) {
    if (_me == _ranks - 1) {
        EXPECT_THROW(_comm.send(1, _me), InternalError);
    }
    _comm.synchronise();
    unsigned sum = _me;
    _comm.allReduce(sum, Communicator::SUM);
    EXPECT_EQ(sum, _ranks * (_ranks - 1) / 2);
}

} // namespace
