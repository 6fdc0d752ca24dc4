// A command in which one rank makes a classic mistake of parallel programs, while the others go on to a
// reduction. It shows how a job ends that waits for such a rank, or tells of it.

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/Module.h"
#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "machine/Communicator.h"
#include "machine/Machine.h"
#include "machine/ShmemWindow.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <latch>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

/// One rank among the others, and whether it makes the mistake.
struct Rank {
    Communicator& ranks = Machine::globalCommunicator();
    bool isWrong = false;

    unsigned me() const { return ranks.myRank(); }
    unsigned size() const { return ranks.size(); }
};

void reduce(const Rank& rank) {
    double residual = 1.0;
    rank.ranks.allReduce(residual, Communicator::SUM);
}

void broadcast(const Rank& rank, unsigned root) {
    std::vector<double> parameters(8, 1.0);
    rank.ranks.broadcast(parameters.data(), parameters.size(), root);
}

void skipCollective(const Rank& rank) {
    if (!rank.isWrong)
        reduce(rank);
}

void swapCollectives(const Rank& rank) {
    if (rank.isWrong)
        reduce(rank);
    broadcast(rank, Communicator::masterRank());
    if (!rank.isWrong)
        reduce(rank);
}

void takeWrongRoot(const Rank& rank) {
    broadcast(rank, rank.isWrong ? 1 : Communicator::masterRank());
}

void takeWrongCount(const Rank& rank) {
    std::vector<double> forces(rank.isWrong ? 3 : 4, 1.0);
    rank.ranks.allReduce(forces, Communicator::SUM);
}

void receiveWithoutSend(const Rank& rank) {
    double halo = 0.0;
    if (rank.isWrong)
        rank.ranks.recv(halo, (rank.me() + 1) % rank.size());
}

/// A ring: each rank sends to the next one.
void raiseBetweenPostAndWait(const Rank& rank) {
    double mine = 1.0;
    double halo = 0.0;
    Communicator::RequestStack requests;
    rank.ranks.iRecv(halo, (rank.me() + rank.size() - 1) % rank.size(), requests);
    rank.ranks.iSend(mine, (rank.me() + 1) % rank.size(), requests);
    if (rank.isWrong)
        raise(InputError("The time step is negative"));
    rank.ranks.wait(requests);
}

/// Each rank waits in shared memory for a neighbour, and for the end of the window.
void raiseBeforeCounter(const Rank& rank) {
    ShmemWindow<std::uint64_t> steps(rank.size(), Machine::sharedMemCommunicator(Machine::HOST_SCOPE));
    const unsigned before = (rank.me() + rank.size() - 1) % rank.size();
    steps[rank.me()] = 0;
    steps.fence();
    if (rank.isWrong)
        raise(InputError("The time step is negative"));
    steps.raiseCounter(steps[rank.me()], 1);
    steps.awaitCounter(steps[before], 1, before);
}

void leave(const Rank& rank) {
    if (rank.isWrong)
        std::exit(3);
}

/// Two threads lock two mutexes in opposite orders. The threads never end, so nothing of theirs may either.
void deadlock(const Rank& rank) {
    if (!rank.isWrong)
        return;
    static std::mutex mesh;
    static std::mutex field;
    static std::latch& bothHoldOne = *new std::latch(2);
    std::thread([] {
        const std::lock_guard first(field);
        bothHoldOne.arrive_and_wait();
        const std::lock_guard second(mesh);
    }).detach();
    const std::lock_guard first(mesh);
    bothHoldOne.arrive_and_wait();
    const std::lock_guard second(field);
}

void loop(const Rank& rank) {
    const volatile double tolerance = 0.0;
    volatile double residual = 1.0;
    while (rank.isWrong && residual > tolerance)
        residual = 0.5 * residual + 0.5;
}

/// More than a process can address.
void allocateTooMuch(const Rank& rank) {
    const volatile std::size_t size = std::size_t(1) << 50;
    std::vector<double> matrix(rank.isWrong ? size : 1);
    matrix.back() = 1.0;
}

struct Mistake {
    const char* kind;
    void (*make)(const Rank& rank);
};

constexpr Mistake MISTAKES[] = {{"skippedCollective", skipCollective},
                                {"swappedCollectives", swapCollectives},
                                {"wrongRoot", takeWrongRoot},
                                {"wrongCount", takeWrongCount},
                                {"receiveWithoutSend", receiveWithoutSend},
                                {"exceptionBeforeWait", raiseBetweenPostAndWait},
                                {"exceptionBeforeCounter", raiseBeforeCounter},
                                {"exit", leave},
                                {"deadlock", deadlock},
                                {"endlessLoop", loop},
                                {"failedAllocation", allocateTooMuch}};

std::string listKinds() {
    std::string list;
    for (const Mistake& mistake : MISTAKES)
        list.append(list.empty() ? "" : ", ").append(mistake.kind);
    return list;
}

class MakeMistake : public Command {
public:
    MakeMistake()
        : Command({"Lets one rank make a mistake, while the others go on to an all-reduce.",
                   {{"kind", "text", listKinds()},
                    {"rank", "unsigned", "makes the mistake; 1 by default", false}},
                   {{"ranks", "unsigned", "the sum over the all-reduce, in which each rank counts 1"}}}) {}
    std::string getName() const override { return "MakeMistake"; }

    void execute(const Properties& args, Properties& response) override {
        const Mistake& mistake = findMistake(args.getString("kind"));
        const unsigned wrong = args.getOr("rank", 1u);
        if (Machine::nProcesses() < 2 || wrong >= Machine::nProcesses())
            raise(InputError("\"rank\" must be a rank of a job of two ranks or more, but it is " +
                             std::to_string(wrong) + " of " + std::to_string(Machine::nProcesses())));
        Rank rank;
        rank.isWrong = rank.me() == wrong;
        mistake.make(rank);
        unsigned ranks = 1;
        rank.ranks.allReduce(ranks, Communicator::SUM);
        response.set("ranks", ranks);
    }

private:
    static const Mistake& findMistake(const std::string& kind) {
        for (const Mistake& mistake : MISTAKES)
            if (kind == mistake.kind)
                return mistake;
        raise(InputError("\"kind\" must be one of " + listKinds() + ", but it is \"" + kind + "\""));
    }
};

} // namespace

ORVEX_MODULE_ENTRY() {
    Controller::getSingleton().registerCommand(new MakeMistake);
}
