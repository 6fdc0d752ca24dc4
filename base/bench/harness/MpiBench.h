#pragma once

#include "BenchHarness.h"
#include "BoostMpi.h"
#include "RawMpi.h"

#include <string>

/// The frame of a benchmark of the message layer: its command line, the raw calls, and a harness over the
/// ranks.
///
///     PROGRAM -mpi DRIVER [--rounds N] [--only GROUP] [--json FILE]
class MpiBench {
public:
    MpiBench(int& argc, char**& argv);

    /// "openmpi4", "mpich2": also the words for the machine's own start.
    const std::string& driver() const { return _driver; }
    int getRounds() const { return _rounds; }
    /// Loads the driver and starts MPI with nothing but the wrapper.
    void startWrapper(int& argc, char**& argv);

    /// With MPI running: the raw calls of the same library.
    const RawMpi& raw() const;
    /// With MPI running: the peer on the same library, or null where it wasn't built.
    const BoostMpi* boost() const;
    /// With MPI running: a harness over the world.
    BenchHarness makeHarness(const std::string& program) const;
    /// Runs all cases, prints and writes what the command line asks for.
    void report(BenchHarness& harness) const;

private:
    std::string _driver;
    std::string _json;
    std::string _only;
    int _rounds = 400;
};
