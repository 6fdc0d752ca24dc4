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

    /// Runs a transfer as often as the test repeats it. @return [s] in all
    template <class Transfer>
    double time(unsigned bytes, Transfer transfer);
    /// @param elapsed  [s] of all repetitions
    /// @param moved    [bytes] by one of them
    Measurement makeMeasurement(double elapsed, double latency, double moved) const;
    static void set(const std::vector<Measurement>& measurements, Properties& entry);

    Communicator& communicator() const { return *_communicator; }
    const std::vector<unsigned>& lengths() const { return *_messageLengths; }

private:
    double now() const;
    void settle();

    std::string _name;
    Communicator* _communicator;
    unsigned _nSamples;
    const std::vector<unsigned>* _messageLengths;
};

template <class Transfer>
double MpiStressTest::time(unsigned bytes, Transfer transfer) {
    settle();
    std::vector<unsigned> words(bytes / sizeof(unsigned));
    const double start = now();
    for (unsigned sample = 0; sample < _nSamples; ++sample)
        transfer(words.empty() ? nullptr : words.data(), words.size(), sample);
    return now() - start;
}
