#include "BoostMpi.h"

#include <boost/mpi/collectives.hpp>
#include <boost/mpi/communicator.hpp>
#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/ptree_serialization.hpp>
#include <boost/serialization/set.hpp>
#include <boost/serialization/string.hpp>

namespace {

namespace mpi = boost::mpi;

const mpi::communicator& world() {
    static const mpi::communicator world;
    return world;
}

void stringPingPong(std::string& text, int rank, int iterations) {
    if (rank > 1)
        return;
    for (int i = 0; i < iterations; ++i) {
        if (rank == 0) {
            world().send(1, 7, text);
            world().recv(1, 7, text);
        } else {
            world().recv(0, 7, text);
            world().send(0, 7, text);
        }
    }
}

void stringBroadcast(std::string& text, int size, int iterations) {
    for (int i = 0; i < iterations; ++i)
        mpi::broadcast(world(), text, i % size);
}

void gatherStrings(const std::string& in, std::vector<std::string>& out, int size, int iterations) {
    for (int i = 0; i < iterations; ++i)
        mpi::gather(world(), in, out, i % size);
}

void uniteSets(const std::set<std::string>& in, std::set<std::string>& out, int iterations) {
    std::vector<std::set<std::string>> all;
    for (int i = 0; i < iterations; ++i) {
        mpi::all_gather(world(), in, all);
        out.clear();
        for (const std::set<std::string>& one : all)
            out.insert(one.begin(), one.end());
    }
}

void gatherTrees(const std::vector<std::string>& keys, int iterations) {
    boost::property_tree::ptree tree;
    for (const std::string& key : keys) {
        boost::property_tree::ptree part;
        part.put("text", key);
        part.put("number", 12345);
        part.put("real", 0.25);
        tree.add_child(key, part);
    }
    std::vector<boost::property_tree::ptree> all;
    for (int i = 0; i < iterations; ++i)
        mpi::gather(world(), tree, all, 0);
}

} // namespace

extern "C" __attribute__((visibility("default"))) const BoostMpi ORVEX_BOOST_MPI_SYMBOL;
const BoostMpi ORVEX_BOOST_MPI_SYMBOL{&stringPingPong, &stringBroadcast, &gatherStrings, &uniteSets,
                                      &gatherTrees};
