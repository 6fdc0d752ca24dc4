#pragma once

#include "support/ScriptedMpi.h"
#include "support/Values.h"

#include "machine/Communicator.h"

#include "kernel/Properties.h"

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

/// One operation of a communicator of 3 ranks, of which this process is rank 1, and the events that
/// statistics see of it:
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
    static unsigned source = 0, tag = 0, count = 0;
    static std::vector<double> three(3), nine(9), got;
    static const std::vector<double> none;
    static std::vector<unsigned> counts(3), sources;
    static const std::vector<unsigned> lengths{1, 0, 2}, some{2, 1};
    static std::vector<std::string> words{"ab", "c"}, texts;
    static std::set<std::string> names;
    static const std::set<std::string> letters{"ab", "c"};
    static Properties tree;
    static std::vector<Properties> trees;
    static std::vector<Particle> particles(2);
    static const auto larger = [](const Particle& a, const Particle& b) { return a.cell > b.cell ? a : b; };
    static const auto deliver = [](int from, int with) {
        static ScriptedMpi& mpi = ScriptedMpi::load();
        mpi.deliver(from, with, &value, sizeof value);
    };
    using Comm = Communicator;
    static const std::vector<CommunicatorOperation> operations{
        {"send", {"Send 8 2"}, [](Comm& c) { c.send(value, 2); }},
        {"syncSend", {"Send 8 0"}, [](Comm& c) { c.syncSend(value, 0); }},
        {"send container", {"Send 4 2", "Send 24 2"}, [](Comm& c) { c.send(three, 2); }},
        {"send no elements", {"Send 4 2"}, [](Comm& c) { c.send(none, 2); }},
        {"send struct", {"Send 48 2"}, [](Comm& c) { c.send(particles[0], 2); }},
        {"recv", {"Recv 8 2"}, [](Comm& c) { c.recv(value, 2); }},
        {"recv container", {"Recv 4 2"}, [](Comm& c) { c.recv(got, 2); }},
        {"recvFromAny",
         {"Recv 8 2"},
         [](Comm& c) {
             deliver(2, 7);
             c.recvFromAny(value, source, 7);
         }},
        {"sendrecv", {"SendRecv 8 0"}, [](Comm& c) { c.sendrecv(value, 2, value, 0); }},
        {"iSend",
         {"iSend 8 2", "iSend 24 2", "Wait 0 0"},
         [](Comm& c) {
             Comm::RequestStack requests;
             c.iSend(value, 2, requests);
             c.iSyncSend(three, 2, requests);
             c.wait(requests, sources);
         }},
        {"iRecv",
         {"iRecv 8 2", "iRecv 8 0", "Test 0 0"},
         [](Comm& c) {
             Comm::RequestStack requests;
             c.iRecv(value, 2, requests);
             c.iRecvFromAny(value, requests);
             c.test(requests);
         }},
        {"freeRequest",
         {"iSend 8 2", "FreeRequest 0 0"},
         [](Comm& c) {
             Comm::RequestStack requests;
             c.iSend(value, 2, requests);
             c.freeRequest(requests);
         }},
        {"recvInit",
         {"recvInit 8 2", "recvInit 8 0", "Start 0 0", "Wait 0 0"},
         [](Comm& c) {
             Comm::PersistentRequestStack requests;
             c.recvInit(value, 2, requests);
             c.recvInit(value, 0, requests);
             c.start(requests);
             c.wait(requests);
         }},
        {"probe",
         {"Probe 0 2", "Recv 8 2"},
         [](Comm& c) {
             deliver(2, 9);
             c.probe<double>(source = MpiCore::ANY_SOURCE, tag = 9, count);
             c.recv(value, 2, 9); // takes it away
         }},
        {"iProbe", {"Probe 0 0"}, [](Comm& c) { c.iProbe<double>(source = 2, tag = 9, count); }},
        // Each alone: in the rows above the gate refuses an operation before it.
        {"wait", {"Wait 0 0"}, [](Comm& c) { c.wait(*std::make_unique<Comm::RequestStack>()); }},
        {"test", {"Test 0 0"}, [](Comm& c) { c.test(*std::make_unique<Comm::RequestStack>()); }},
        {"wait for sources",
         {"Wait 0 0"},
         [](Comm& c) { c.wait(*std::make_unique<Comm::RequestStack>(), sources); }},
        {"start", {"Start 0 0"}, [](Comm& c) { c.start(*std::make_unique<Comm::PersistentRequestStack>()); }},
        {"free none",
         {"FreeRequest 0 0"},
         [](Comm& c) { c.freeRequest(*std::make_unique<Comm::RequestStack>()); }},
        {"createCommunicator", {}, [](Comm& c) { c.createCommunicator(some); }},
        {"createSharedMemCommunicators", {}, [](Comm& c) { c.createSharedMemCommunicators(); }},
        {"synchronise", {"Synchronise 0"}, [](Comm& c) { c.synchronise(); }},
        {"noSpinSynchronise",
         {"Test 0 0", "Wait 0 0", "iSend 0 0", "iRecv 0 0", "Test 0 0", "Wait 0 0", "Wait 0 0", "Wait 0 0"},
         [](Comm& c) { c.noSpinSynchronise(1.0); }},
        {"noSpinBroadcast",
         {"iRecv 8 0", "Test 0 0", "iRecv 2 0", "Test 0 0"},
         [](Comm& c) { c.noSpinBroadcast(words[0]); }},
        {"broadcast", {"Broadcast 24"}, [](Comm& c) { c.broadcast(three.data(), 3, 0); }},
        {"broadcast container", {"Broadcast 8", "Broadcast 24"}, [](Comm& c) { c.broadcast(three, 1); }},
        {"broadcast strings",
         {"Broadcast 8", "Broadcast 16", "Broadcast 2", "Broadcast 1"},
         [](Comm& c) { c.broadcast(words, 1); }},
        {"broadcast properties", {"Broadcast 8", "Broadcast 2"}, [](Comm& c) { c.broadcast(tree, 1); }},
        {"broadcast nothing", {}, [](Comm& c) { c.broadcast(three.data(), 0, 0); }, true},
        {"gather", {"Gather 24"}, [](Comm& c) { c.gather(three.data(), 3, nine.data(), 1); }},
        {"gather nothing", {}, [](Comm& c) { c.gather(three.data(), 0, nine.data(), 1); }, true},
        {"gatherVector",
         {"Gather 4", "Broadcast 8", "GatherVector 24"},
         [](Comm& c) { c.gatherVector(three, nine, counts, 0); }},
        {"gather properties",
         {"Gather 4", "Broadcast 8", "GatherVector 2"},
         [](Comm& c) { c.gather(tree, trees); }},
        {"gather strings",
         {"Gather 4", "Broadcast 8", "GatherVector 3"},
         [](Comm& c) { c.gather("abc", texts, 1); }},
        {"allGather", {"AllGather 24"}, [](Comm& c) { c.allGather(three.data(), 3, nine.data()); }},
        {"allGather nothing", {}, [](Comm& c) { c.allGather(three.data(), 0, nine.data()); }, true},
        {"allGatherVector",
         {"AllGather 4", "AllGatherVector 24"},
         [](Comm& c) { c.allGatherVector(three, got, counts); }},
        {"allGather strings",
         {"AllGather 4", "AllGatherVector 3"},
         [](Comm& c) { c.allGather("abc", texts); }},
        {"allGather sets",
         {"AllGather 4", "AllGatherVector 3", "AllGather 4", "AllGatherVector 8"},
         [](Comm& c) { c.allGather(letters, names); }},
        {"scatter", {"Scatter 24"}, [](Comm& c) { c.scatter(nine.data(), three.data(), 3, 1); }},
        {"scatter nothing", {}, [](Comm& c) { c.scatter(nine.data(), three.data(), 0, 1); }, true},
        {"scatterVector",
         {"Scatter 4", "Broadcast 8", "ScatterVector 0"},
         [](Comm& c) { c.scatterVector(three, lengths, got, 1); }},
        {"reduce", {"Reduce 24"}, [](Comm& c) { c.reduce(three, Comm::SUM, 1); }},
        {"reduce nothing", {}, [](Comm& c) { c.reduce(three.data(), 0, Comm::SUM, 1); }, true},
        {"allReduce", {"AllReduce 8"}, [](Comm& c) { c.allReduce(value, Comm::MAX); }},
        {"allReduce nothing", {}, [](Comm& c) { c.allReduce(three.data(), 0, Comm::SUM); }, true},
        {"allReduce records", {"AllReduce 96"}, [](Comm& c) { c.allReduce(particles, larger); }},
        {"scan", {"scan 24"}, [](Comm& c) { c.scan(three, Comm::SUM); }},
        {"scan nothing", {}, [](Comm& c) { c.scan(three.data(), 0, Comm::SUM); }, true},
        {"reduceScatter", {"reduceScatter 72"}, [](Comm& c) { c.reduceScatter(nine, three, Comm::SUM); }},
        {"allToAll", {"AllToAll 72"}, [](Comm& c) { c.allToAll(nine, nine); }},
        {"allToAll nothing", {"AllToAll 0"}, [](Comm& c) { c.allToAll(nine.data(), nine.data(), 0); }},
        {"allToAllVector",
         {"AllToAll 12", "AllToAllVector 24"},
         [](Comm& c) { c.allToAllVector(three, lengths, got, counts); }},
    };
    return operations;
}
