#include "harness/MachineBench.h"
#include "harness/UnrecordedMessages.h"

#include "machine/Communicator.h"

#include <cstddef>

// The cost of the records around each message: the operation that other threads can read, and the hash of the
// collectives. The reference is the same path without them: checks, gate, wrapper call, look at the code.

namespace {

/// The same with all that Communicator does.
class Recorded {
public:
    explicit Recorded(Communicator& communicator) : _communicator(communicator) {}
    void send(const char* data, std::size_t bytes, unsigned dest) { _communicator.send(data, bytes, dest); }
    void recv(char* data, std::size_t bytes, unsigned source) { _communicator.recv(data, bytes, source); }
    void allReduce(int& value) { _communicator.allReduce(value, Communicator::MAX); }
    unsigned myRank() const { return _communicator.myRank(); }

private:
    Communicator& _communicator;
};

class RecordBench {
public:
    RecordBench(const MpiBench&, BenchHarness& harness) : _harness(harness) {}

    void addAll() {
        _harness.addReference("ping-pong 8 B", "without records", [this](int n) { pingPong(_without, n); });
        _harness.addCase("with records", [this](int n) { pingPong(_with, n); });
        _harness.addReference("all-reduce of an int", "without records",
                              [this](int n) { allReduce(_without, n); });
        _harness.addCase("with records", [this](int n) { allReduce(_with, n); });
    }

private:
    template <class Path>
    void pingPong(Path& path, int iterations) {
        constexpr std::size_t BYTES = 8;
        const unsigned me = path.myRank();
        if (me > 1)
            return;
        for (int i = 0; i < iterations; ++i) {
            if (me == 0)
                path.send(_buffer, BYTES, 1);
            path.recv(_buffer, BYTES, 1 - me);
            if (me == 1)
                path.send(_buffer, BYTES, 0);
        }
    }
    template <class Path>
    static void allReduce(Path& path, int iterations) {
        for (int i = 0; i < iterations; ++i) {
            int value = i;
            path.allReduce(value);
        }
    }

    BenchHarness& _harness;
    Communicator _communicator;
    UnrecordedMessages _without{_communicator};
    Recorded _with{_communicator};
    char _buffer[8] = {};
};

} // namespace

int main(int argc, char** argv) {
    return runMachineBench<RecordBench>("RecordBench", argc, argv);
}
