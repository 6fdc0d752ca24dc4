#pragma once

#include "machine/HybridMachine.h"
#include "machine/HybridMpiThreadOperation.h"
#include "machine/MachineExport.h"
#include "machine/MachineGround.h"

#include <concepts>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

/// Runs work on few processes with many threads, in a job of one rank per core.
///
/// In each scope (NUMA node, socket or host) the first rank runs the work, with as many threads as the scope
/// has ranks, on the cores of all of them. The other ranks sleep meanwhile. All leave together. A serial
/// process runs the work with one thread.
///
///     double sum = 0.0;
///     HybridMpiThreadContext::execute(Machine::HOST_SCOPE, [&](const HybridMachine& machine) {
///         sum = tbb::parallel_reduce(...);                       // on all cores of this host
///         if (machine.isParallel())
///             machine.getCommunicator().allReduce(sum, Communicator::SUM); // over the hosts
///     });
///
/// The work's loops have their threads in TBB, OpenMP and the mathematical libraries, each thread bound to a
/// core if the process was bound. Before and afterwards each of them has one. A rank that takes no part has
/// no part in the results either: broadcast what all need.
///
/// An error that leaves the work comes out of execute() on its rank. All other ranks, also those that slept,
/// get a RecoverableError that tells of it, so that a command fails on all ranks and the server lives on.
class ORVEX_MACHINE_EXPORT HybridMpiThreadContext {
public:
    HybridMpiThreadContext() = delete;

    /// Collective over the global communicator. Main thread.
    /// @throw InternalError inside a field loop, and inside another context
    static void execute(MachineGround::ShmemScope scope, HybridMpiThreadOperation& operation);
    /// The same for a function of a HybridMachine. Profiles and reports call it by `name`, or
    /// by the type of the function.
    template <std::invocable<const HybridMachine&> Work>
    requires(!std::derived_from<std::remove_cvref_t<Work>, HybridMpiThreadOperation>) static void execute(
        MachineGround::ShmemScope scope, Work&& work) {
        Function<std::remove_reference_t<Work>> operation(work);
        run(scope, operation, nameOf(typeid(Work)));
    }
    template <std::invocable<const HybridMachine&> Work>
    static void execute(MachineGround::ShmemScope scope, const std::string& name, Work&& work) {
        Function<std::remove_reference_t<Work>> operation(work);
        run(scope, operation, name);
    }

private:
    template <class Work>
    class Function : public HybridMpiThreadOperation {
    public:
        explicit Function(Work& work) : _work(work) {}
        void run(const HybridMachine& machine) override { _work(machine); }

    private:
        Work& _work;
    };

    static std::string nameOf(const std::type_info& type);
    static void run(MachineGround::ShmemScope scope, HybridMpiThreadOperation& operation,
                    const std::string& name);
    static void runThreads(MachineGround::ShmemScope scope, HybridMpiThreadOperation& operation,
                           const std::string& name, bool bindThreads);
};
