#pragma once

#include <cstddef>
#include <string>
#include <vector>

class Communicator;
class Properties;

/// One pattern of messages, measured for each of some lengths.
class MpiStressTest {
public:
    /// All repetitions of one length.
    struct Measurement {
        double time = 0.0;      ///< [s] on average
        double bandwidth = 0.0; ///< [bytes/s]
    };

    /// @param messageLengths  borrowed
    MpiStressTest(std::string name, Communicator& communicator, unsigned nSamples,
                  const std::vector<unsigned>& messageLengths);
    virtual ~MpiStressTest();
    MpiStressTest(const MpiStressTest&) = delete;
    MpiStressTest& operator=(const MpiStressTest&) = delete;

    /// Collective over the communicator.
    virtual Properties run() = 0;
    const std::string& getName() const { return _name; }

protected:
    /// The bytes of the shortest message, whose time counts as latency.
    static constexpr unsigned LATENCY_BYTES = 4;

    /// Repetitions of a transfer, timed together.
    struct Timing {
        double seconds; ///< in all
        unsigned repetitions;
    };
    /// Runs a transfer once untimed, then as often as the test repeats it: all repetitions, or as many as all
    /// ranks agree on when these would take longer than a quarter of a second.
    enum class Repetitions { ALL, AGREED };
    template <class Transfer>
    Timing time(unsigned bytes, Repetitions repetitions, Transfer transfer);
    /// @param moved  [bytes] by one repetition
    static Measurement makeMeasurement(Timing timing, double latency, double moved);
    static void set(const std::vector<Measurement>& measurements, Properties& entry);

    /// The first step of run(). Collective.
    void chooseSettleRounds();

    Communicator& communicator() const { return *_communicator; }
    const std::vector<unsigned>& lengths() const { return *_messageLengths; }

private:
    double now() const;
    void meet();
    void settle();
    unsigned agree(double seconds);

    std::string _name;
    Communicator* _communicator;
    unsigned _nSamples;
    unsigned _settleRounds = 1;
    const std::vector<unsigned>* _messageLengths;
};

template <class Transfer>
MpiStressTest::Timing MpiStressTest::time(unsigned bytes, Repetitions repetitions, Transfer transfer) {
    meet();
    std::vector<unsigned> words(bytes / sizeof(unsigned));
    unsigned* const data = words.empty() ? nullptr : words.data();
    const double begin = now();
    transfer(data, words.size(), 0);
    const unsigned count = repetitions == Repetitions::ALL ? _nSamples : agree(now() - begin);
    settle();
    const double start = now();
    for (unsigned sample = 0; sample < count; ++sample)
        transfer(data, words.size(), sample);
    return {now() - start, count};
}
