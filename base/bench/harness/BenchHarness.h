#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

/// Measures small differences on a noisy machine.
///
/// All cases run in one process, in batches of a fifth of a millisecond with a barrier and one unmeasured
/// iteration before each, round after round, each round in another order. A case's cost is the median of its
/// batches; its ratio is the median, over the rounds, of its batch to the reference's batch of the same
/// round. Each group measures its reference twice: the second is the null case, whose ratio tells how much of
/// the other ratios is noise.
///
/// In a job of several ranks every rank does the same, and rank 0 measures.
class BenchHarness {
public:
    /// Does its work `iterations` times.
    using Batch = std::function<void(int iterations)>;

    /// Two operations that keep the ranks in step. In a serial program both do nothing.
    struct Ranks {
        int rank = 0;
        int size = 1;
        std::function<void()> barrier = [] {};
        /// Gives rank 0's value to all.
        std::function<int(int)> broadcast = [](int value) { return value; };
    };

    /// @param subject  the program and what it runs on, for the report
    BenchHarness(std::string subject, Ranks ranks);

    /// Begins a group of comparable cases with what the others are compared to.
    void addReference(const std::string& group, const std::string& name, Batch batch);
    /// A further case of the latest group.
    void addCase(const std::string& name, Batch batch);

    /// Runs the groups with `only` in their names. Collective.
    void run(int rounds, const std::string& only = {});

    /// On rank 0: a table for people, and one JSON object for `compare`.
    void print(std::FILE* stream) const;
    void writeJson(const std::string& path) const;

    /// One line of a report: the cost of a case and its ratio to the group's reference.
    struct Figure {
        std::string group;
        std::string name;
        double nanoseconds;
        double ratio;
    };
    static void writeJson(const std::string& path, const std::string& subject, int ranks, int rounds,
                          const std::vector<Figure>& figures);

private:
    struct Case {
        std::string name;
        Batch batch;
        std::vector<double> nanoseconds{}; ///< for one iteration, by round
    };
    struct Group {
        std::string name;
        std::vector<Case> cases; ///< the reference, the null case, then the others
        int iterations = 1;
    };

    double measure(const Batch& batch, int iterations) const;
    int calibrate(const Batch& batch) const;
    static double getRatio(const Group& group, const Case& other);

    std::string _subject;
    Ranks _ranks;
    std::vector<Group> _groups;
    int _rounds = 0;
};
