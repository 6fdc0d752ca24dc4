#pragma once

#include <set>
#include <string>
#include <vector>

/// The same data by Boost.MPI, a peer that serialises what it sends. In a module of its own beside the driver
/// of the MPI that Boost.MPI was built for. The roots of the collectives take turns.
struct BoostMpi {
    void (*stringPingPong)(std::string& text, int rank, int iterations);
    void (*stringBroadcast)(std::string& text, int size, int iterations);
    void (*gatherStrings)(const std::string& in, std::vector<std::string>& out, int size, int iterations);
    /// Each rank gets the union of all ranks' sets.
    void (*uniteSets)(const std::set<std::string>& in, std::set<std::string>& out, int iterations);
    /// A property tree with these keys, each with a text, a whole number and a real one, to rank 0.
    void (*gatherTrees)(const std::vector<std::string>& keys, int iterations);
};

#define ORVEX_BOOST_MPI_SYMBOL orvexBoostMpi
#define ORVEX_BOOST_MPI_SYMBOL_NAME "orvexBoostMpi"
