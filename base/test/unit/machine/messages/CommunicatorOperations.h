#pragma once

#include "support/ScriptedMpi.h"
#include "support/Values.h"

#include "machine/Communicator.h"
#include "machine/PersistentRequestStack.h"
#include "machine/RequestStack.h"

#include "kernel/Properties.h"

#include <functional>
#include <set>
#include <string>
#include <vector>

/// One operation of a communicator of 3 ranks, of which this process is rank 1, and what statistics see of
/// it:
/// "<name> <bytes>" of a collective, "<name> <bytes> <partner>" of the others, a word each without the class.
struct CommunicatorOperation {
    std::string name;
    std::vector<std::string> events;
    std::function<void(Communicator&)> run;
    /// Whether the gate lets it pass: it moves nothing.
    bool isUngated = false;
};

/// Every operation, with every way through it that differs in its wrapper calls.
inline const std::vector<CommunicatorOperation>& communicatorOperations() {
    static double value = 1.5;
    static std::vector<double> three(3);
    static std::vector<double> nine(9);
    static std::vector<unsigned> counts(3);
    static const auto sum = [](const Particle& a, const Particle& b) { return a.cell > b.cell ? a : b; };
    static const auto deliver = [](int source, int tag) {
        static ScriptedMpi& mpi = ScriptedMpi::load();
        mpi.deliver(source, tag, &value, sizeof value);
    };
    using Comm = Communicator;
    static const std::vector<CommunicatorOperation> operations{
        {"send", {"Send 8 2"}, [](Comm& c) { c.send(value, 2); }},
        {"syncSend", {"Send 8 0"}, [](Comm& c) { c.syncSend(value, 0); }},
        {"send container", {"Send 4 2", "Send 24 2"}, [](Comm& c) { c.send(three, 2); }},
        {"send no elements", {"Send 4 2"}, [](Comm& c) { c.send(std::vector<double>(), 2); }},
        {"send struct", {"Send 48 2"}, [](Comm& c) { c.send(Particle(), 2); }},
        {"recv", {"Recv 8 2"}, [](Comm& c) { c.recv(value, 2); }},
        {"recv container",
         {"Recv 4 2"},
         [](Comm& c) {
             std::vector<double> got;
             c.recv(got, 2);
         }},
        {"recvFromAny",
         {"Recv 8 2"},
         [](Comm& c) {
             unsigned source = 0;
             deliver(2, 7);
             c.recvFromAny(value, source, 7);
         }},
        {"sendrecv", {"SendRecv 8 0"}, [](Comm& c) { c.sendrecv(value, 2, value, 0); }},
        {"iSend",
         {"iSend 8 2", "Wait 0 0"},
         [](Comm& c) {
             MpiCore::RequestStack requests;
             c.iSend(value, 2, requests);
             c.wait(requests);
         }},
        {"iSyncSend",
         {"iSend 24 2", "Wait 0 0"},
         [](Comm& c) {
             MpiCore::RequestStack requests;
             std::vector<unsigned> sources;
             c.iSyncSend(three, 2, requests);
             c.wait(requests, sources);
         }},
        {"iRecv",
         {"iRecv 8 2", "iRecv 8 0", "Test 0 0"},
         [](Comm& c) {
             MpiCore::RequestStack requests;
             c.iRecv(value, 2, requests);
             c.iRecvFromAny(value, requests);
             c.test(requests);
         }},
        {"freeRequest",
         {"iSend 8 2", "FreeRequest 0 0"},
         [](Comm& c) {
             MpiCore::RequestStack requests;
             c.iSend(value, 2, requests);
             c.freeRequest(requests);
         }},
        {"recvInit",
         {"recvInit 8 2", "recvInit 8 0", "Start 0 0", "Wait 0 0"},
         [](Comm& c) {
             MpiCore::PersistentRequestStack requests;
             c.recvInit(value, 2, requests);
             c.recvInit(value, 0, requests);
             c.start(requests);
             c.wait(requests);
         }},
        {"probe",
         {"Probe 0 2", "Recv 8 2"},
         [](Comm& c) {
             unsigned source = MpiCore::ANY_SOURCE, tag = 9, count = 0;
             deliver(2, 9);
             c.probe<double>(source, tag, count);
             c.recv(value, 2, 9); // takes it away
         }},
        {"iProbe",
         {"Probe 0 0"},
         [](Comm& c) {
             unsigned source = 2, tag = 9, count = 0;
             c.iProbe<double>(source, tag, count);
         }},
        {"createCommunicator",
         {},
         [](Comm& c) {
             c.createCommunicator({2, 1});
         }},
        {"createSharedMemCommunicators", {}, [](Comm& c) { c.createSharedMemCommunicators(); }},
        {"synchronise", {"Synchronise 0"}, [](Comm& c) { c.synchronise(); }},
        {"noSpinSynchronise",
         {"Test 0 0", "Wait 0 0", "iSend 0 0", "iRecv 0 0", "Test 0 0", "Wait 0 0", "Wait 0 0", "Wait 0 0"},
         [](Comm& c) { c.noSpinSynchronise(1.0); }},
        {"broadcast", {"Broadcast 24"}, [](Comm& c) { c.broadcast(three.data(), 3, 0); }},
        {"broadcast container", {"Broadcast 8", "Broadcast 24"}, [](Comm& c) { c.broadcast(three, 1); }},
        {"broadcast strings",
         {"Broadcast 8", "Broadcast 16", "Broadcast 2", "Broadcast 1"},
         [](Comm& c) {
             std::vector<std::string> words{"ab", "c"};
             c.broadcast(words, 1);
         }},
        {"broadcast properties",
         {"Broadcast 8", "Broadcast 2"},
         [](Comm& c) {
             Properties tree;
             c.broadcast(tree, 1);
         }},
        {"broadcast nothing", {}, [](Comm& c) { c.broadcast(three.data(), 0, 0); }, true},
        {"gather", {"Gather 24"}, [](Comm& c) { c.gather(three.data(), 3, nine.data(), 1); }},
        {"gather nothing", {}, [](Comm& c) { c.gather(three.data(), 0, nine.data(), 1); }, true},
        {"gatherVector",
         {"Gather 4", "Broadcast 8", "GatherVector 24"},
         [](Comm& c) { c.gatherVector(three, nine, counts, 0); }},
        {"gather properties",
         {"Gather 4", "Broadcast 8", "GatherVector 2"},
         [](Comm& c) {
             std::vector<Properties> all;
             c.gather(Properties(), all);
         }},
        {"gather strings",
         {"Gather 4", "Broadcast 8", "GatherVector 3"},
         [](Comm& c) {
             std::vector<std::string> all;
             c.gather("abc", all, 1);
         }},
        {"allGather", {"AllGather 24"}, [](Comm& c) { c.allGather(three.data(), 3, nine.data()); }},
        {"allGather nothing", {}, [](Comm& c) { c.allGather(three.data(), 0, nine.data()); }, true},
        {"allGatherVector",
         {"AllGather 4", "AllGatherVector 24"},
         [](Comm& c) {
             std::vector<double> all;
             c.allGatherVector(three, all, counts);
         }},
        {"allGather strings",
         {"AllGather 4", "AllGatherVector 3"},
         [](Comm& c) {
             std::vector<std::string> all;
             c.allGather("abc", all);
         }},
        {"allGather sets",
         {"AllGather 4", "AllGatherVector 3", "AllGather 4", "AllGatherVector 8"},
         [](Comm& c) {
             std::set<std::string> all;
             c.allGather(std::set<std::string>{"ab", "c"}, all);
         }},
        {"scatter", {"Scatter 24"}, [](Comm& c) { c.scatter(nine.data(), three.data(), 3, 1); }},
        {"scatter nothing", {}, [](Comm& c) { c.scatter(nine.data(), three.data(), 0, 1); }, true},
        {"scatterVector",
         {"Scatter 4", "Broadcast 8", "ScatterVector 0"},
         [](Comm& c) {
             std::vector<double> got;
             c.scatterVector(three, {1, 0, 2}, got, 1);
         }},
        {"reduce", {"Reduce 24"}, [](Comm& c) { c.reduce(three, Comm::SUM, 1); }},
        {"reduce nothing", {}, [](Comm& c) { c.reduce(three.data(), 0, Comm::SUM, 1); }, true},
        {"allReduce", {"AllReduce 8"}, [](Comm& c) { c.allReduce(value, Comm::MAX); }},
        {"allReduce nothing", {}, [](Comm& c) { c.allReduce(three.data(), 0, Comm::SUM); }, true},
        {"allReduce records",
         {"AllReduce 96"},
         [](Comm& c) {
             std::vector<Particle> particles(2);
             c.allReduce(particles, sum);
         }},
        {"scan", {"scan 24"}, [](Comm& c) { c.scan(three, Comm::SUM); }},
        {"scan nothing", {}, [](Comm& c) { c.scan(three.data(), 0, Comm::SUM); }, true},
        {"reduceScatter", {"reduceScatter 72"}, [](Comm& c) { c.reduceScatter(nine, three, Comm::SUM); }},
        {"reduceScatter nothing",
         {"reduceScatter 0"},
         [](Comm& c) { c.reduceScatter(nine.data(), three.data(), 0, Comm::SUM); }},
        {"allToAll", {"AllToAll 72"}, [](Comm& c) { c.allToAll(nine, nine); }},
        {"allToAll nothing", {"AllToAll 0"}, [](Comm& c) { c.allToAll(nine.data(), nine.data(), 0); }},
        {"allToAllVector",
         {"AllToAll 12", "AllToAllVector 24"},
         [](Comm& c) {
             std::vector<double> got;
             c.allToAllVector(three, {1, 0, 2}, got, counts);
         }},
    };
    return operations;
}
