#include "harness/MachineBench.h"

#include "kernel/Properties.h"
#include "kernel/Task.h"
#include "machine/Communicator.h"
#include "machine/GlobalCondition.h"
#include "machine/MpiStatisticsManager.h"

#include <set>
#include <string>
#include <vector>

// The cost of the typed messages: over the raw calls that a solver developer would write by hand, and against
// a peer that takes the same containers.

namespace {

constexpr std::size_t KIB = 1024;
constexpr std::size_t MIB = KIB * KIB;

std::string makeText(std::size_t size) {
    std::string text(size, ' ');
    for (std::size_t i = 0; i < size; ++i)
        text[i] = static_cast<char>('a' + i % 26);
    return text;
}

class MessageBench {
public:
    MessageBench(const MpiBench& bench, BenchHarness& harness)
        : _raw(bench.raw()), _boost(bench.boost()), _harness(harness) {}

    void addAll() {
        if (_size > 1) {
            addPingPong("ping-pong 8 B", 8);
            addPingPong("ping-pong 64 KiB", 64 * KIB);
            addPingPong("ping-pong 1 MiB", MIB);
        }
        addSmallCollectives();
        addContainers();
        addCutting();
        if (_boost)
            addPeer();
    }

private:
    static void pingPong(Communicator& comm, std::string& buffer, std::size_t bytes, int iterations) {
        if (comm.myRank() > 1)
            return;
        char* const data = buffer.data();
        for (int i = 0; i < iterations; ++i) {
            if (comm.myRank() == 0) {
                comm.send(data, bytes, 1);
                comm.recv(data, bytes, 1);
            } else {
                comm.recv(data, bytes, 0);
                comm.send(data, bytes, 0);
            }
        }
    }

    void addPingPong(const std::string& name, std::size_t bytes) {
        _harness.addReference(name, "raw", [this, bytes](int n) {
            _raw.pingPong(_buffer.data(), static_cast<int>(bytes), _rank, n);
        });
        _harness.addCase("typed", [this, bytes](int n) { pingPong(_comm, _buffer, bytes, n); });
        _harness.addCase("with the timer", [this, bytes](int n) {
            _comm.enableCommunicationTimer(true);
            pingPong(_comm, _buffer, bytes, n);
            _comm.enableCommunicationTimer(false);
        });
        _harness.addCase("with statistics", [this, bytes](int n) {
            MpiStatisticsManager::enable(false);
            pingPong(_comm, _buffer, bytes, n);
            MpiStatisticsManager::disable(false);
        });
    }

    void addSmallCollectives() {
        _harness.addReference("all-reduce of an int", "raw", _raw.allReduceInt);
        _harness.addCase("typed", [this](int n) {
            for (int i = 0; i < n; ++i) {
                int value = i;
                _comm.allReduce(value, Communicator::MAX);
            }
        });
        _harness.addCase("global condition", [this](int n) {
            for (int i = 0; i < n; ++i)
                _sink = GlobalCondition(i != _rank, GlobalCondition::ON_ALL);
        });
        _harness.addCase("invariant condition", [this](int n) {
            for (int i = 0; i < n; ++i)
                _sink = GlobalCondition(_sink, GlobalCondition::ON_ALL_INVARIANT);
        });
        _harness.addCase("task that advances", [this](int n) {
            for (int i = 0; i < n; ++i)
                _task.advance(0.0);
        });
        _harness.addReference("barrier", "raw", _raw.barrier);
        _harness.addCase("synchronise", [this](int n) {
            for (int i = 0; i < n; ++i)
                _comm.synchronise();
        });
        _harness.addCase("noSpinSynchronise", [this](int n) {
            for (int i = 0; i < n; ++i)
                _comm.noSpinSynchronise(1.0);
        });
    }

    void addContainers() {
        for (const auto& [label, size] : {std::pair{"64 B", 64 * std::size_t{1}}, std::pair{"1 MiB", MIB}}) {
            std::string text = makeText(size);
            if (_size > 1) {
                _harness.addReference(std::string("string, sent, ") + label, "by hand",
                                      [this, text](int n) mutable { _raw.stringPingPong(text, _rank, n); });
                _harness.addCase("typed", [this, text](int n) mutable { stringPingPong(text, n); });
            }
            _harness.addReference(
                std::string("string, broadcast, ") + label, "by hand",
                [this, text](int n) mutable { _raw.stringBroadcast(text, _rank, _size, n); });
            _harness.addCase("typed", [this, text](int n) mutable { stringBroadcast(text, n); });
        }
        std::vector<std::string> texts(16, makeText(100));
        _harness.addReference("16 strings, broadcast", "by hand", [this, texts](int n) mutable {
            _raw.stringsBroadcast(texts, _rank, _size, n);
        });
        _harness.addCase("typed", [this, texts](int n) mutable {
            for (int i = 0; i < n; ++i)
                _comm.broadcast(texts, getRoot(i));
        });
        for (const auto& [label, size] :
             {std::pair{"100 B", 100 * std::size_t{1}}, std::pair{"64 KiB", 64 * KIB}}) {
            std::string text = makeText(size);
            _harness.addReference(std::string("gatherVector, ") + label, "by hand", [this, text](int n) {
                _raw.gatherVector(text, _gathered, _rank, _size, n);
            });
            _harness.addCase("typed", [this, text](int n) {
                for (int i = 0; i < n; ++i)
                    _comm.gatherVector(text, _gathered, _counts, getRoot(i));
            });
            _harness.addReference(std::string("allGatherVector, ") + label, "by hand",
                                  [this, text](int n) { _raw.allGatherVector(text, _gathered, _size, n); });
            _harness.addCase("typed", [this, text](int n) {
                for (int i = 0; i < n; ++i)
                    _comm.allGatherVector(text, _gathered, _counts);
            });
        }
    }

    /// A message above the limit goes in halves of halves.
    void addCutting() {
        _cut.setMaxBufferSize(MIB);
        _harness.addReference("broadcast of 64 MiB", "uncut", [this](int n) { broadcastAll(_comm, n); });
        _harness.addCase("cut at 1 MiB", [this](int n) { broadcastAll(_cut, n); });
    }

    /// The code by hand there sends the same messages as the typed case: no layer above them can be
    /// faster.
    void addPeer() {
        for (const auto& [label, size] : {std::pair{"64 B", 64 * std::size_t{1}}, std::pair{"1 MiB", MIB}}) {
            std::string text = makeText(size);
            if (_size > 1) {
                _harness.addReference(
                    std::string("peer: string, sent, ") + label, "Boost.MPI",
                    [this, text](int n) mutable { _boost->stringPingPong(text, _rank, n); });
                _harness.addCase("by hand",
                                 [this, text](int n) mutable { _raw.stringPingPong(text, _rank, n); });
                _harness.addCase("typed", [this, text](int n) mutable { stringPingPong(text, n); });
            }
            _harness.addReference(std::string("peer: string, broadcast, ") + label, "Boost.MPI",
                                  [this, text](int n) mutable { _boost->stringBroadcast(text, _size, n); });
            _harness.addCase("typed", [this, text](int n) mutable { stringBroadcast(text, n); });
        }
        for (const auto& [label, size] :
             {std::pair{"100 B", 100 * std::size_t{1}}, std::pair{"64 KiB", 64 * KIB}}) {
            std::string text = makeText(size);
            _harness.addReference(std::string("peer: gather of strings, ") + label, "Boost.MPI",
                                  [this, text](int n) { _boost->gatherStrings(text, _all, _size, n); });
            _harness.addCase("by hand, one text",
                             [this, text](int n) { _raw.gatherVector(text, _gathered, _rank, _size, n); });
            _harness.addCase("typed", [this, text](int n) {
                for (int i = 0; i < n; ++i)
                    _comm.gather(text, _all, getRoot(i));
            });
        }
        std::vector<std::string> keys;
        Properties tree;
        for (int i = 0; i < 20; ++i) {
            keys.push_back("setting" + std::to_string(i));
            Properties part;
            part.set("text", keys.back());
            part.set("number", 12345);
            part.set("real", 0.25);
            tree.set(keys.back(), part);
        }
        for (const int count : {100, 1000}) {
            std::set<std::string> names; // of boundaries, say: most ranks have most of them
            for (int i = 0; i < count; ++i)
                if (i % 10 != _rank)
                    names.insert("boundary of region " + std::to_string(i));
            _harness.addReference("peer: union of sets, " + std::to_string(count), "Boost.MPI",
                                  [this, names](int n) { _boost->uniteSets(names, _union, n); });
            _harness.addCase("typed", [this, names](int n) {
                for (int i = 0; i < n; ++i) {
                    _union.clear();
                    _comm.allGather(names, _union);
                }
            });
        }
        _harness.addReference("peer: gather of trees", "Boost.MPI",
                              [this, keys](int n) { _boost->gatherTrees(keys, n); });
        _harness.addCase("typed", [this, tree](int n) {
            for (int i = 0; i < n; ++i)
                _comm.gather(tree, _trees);
        });
    }

    void stringPingPong(std::string& text, int iterations) {
        if (_rank > 1)
            return;
        for (int i = 0; i < iterations; ++i) {
            if (_rank == 0) {
                _comm.send(text, 1);
                _comm.recv(text, 1);
            } else {
                _comm.recv(text, 0);
                _comm.send(text, 0);
            }
        }
    }

    void stringBroadcast(std::string& text, int iterations) {
        for (int i = 0; i < iterations; ++i)
            _comm.broadcast(text, getRoot(i));
    }

    void broadcastAll(Communicator& comm, int iterations) {
        for (int i = 0; i < iterations; ++i)
            comm.broadcast(_large.data(), _large.size(), getRoot(i));
    }

    unsigned getRoot(int iteration) const { return static_cast<unsigned>(iteration % _size); }

    const RawMpi& _raw;
    const BoostMpi* const _boost;
    BenchHarness& _harness;
    Communicator _comm;
    Communicator _cut;
    const int _rank = static_cast<int>(_comm.myRank());
    const int _size = static_cast<int>(_comm.size());
    std::string _buffer = std::string(MIB, 'x');
    std::string _large = std::string(64 * MIB, 'x');
    std::string _gathered;
    std::vector<unsigned> _counts;
    std::vector<std::string> _all;
    std::set<std::string> _union;
    std::vector<Properties> _trees;
    Task _task{"MessageBench"};
    bool _sink = true;
};

} // namespace

int main(int argc, char** argv) {
    return runMachineBench<MessageBench>("MessageBench", argc, argv);
}
