#pragma once

#include "machine/MachineExport.h"
#include "machine/ShmemWindow.h"
#include "machine/messages/MessageOperation.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

/// A place where all ranks of the job meet while some of them work on: those that wait sleep at no cost, and
/// wake up within microseconds.
///
/// The ranks of a host wait for a number in memory that they share; the first ranks of the hosts meet by
/// messages. Where a host has no such memory the ranks meet by messages that they look for between sleeps.
/// The threads that watch over the job (ParallelErrorHandler, LauncherWatch) go on meanwhile and end the
/// process if need be; a rank that waits wakes up now and then so that its messages move on.
///
/// Made and destroyed by all ranks together. Main thread.
class ORVEX_MACHINE_EXPORT HostMeeting {
public:
    /// Collective over the job, once the ranks have communicators along the hardware. One at a time.
    HostMeeting();
    ~HostMeeting();
    HostMeeting(const HostMeeting&) = delete;
    HostMeeting& operator=(const HostMeeting&) = delete;

    /// Returns when all ranks have called it: in the place that is made, or else by messages. Collective over
    /// the job.
    /// @param ranks      all ranks of the job: the communicator that they meet on
    /// @param operation  as the record of operations shows it
    /// @param spinTime   [s] that a rank looks without a sleep
    static void meet(Communicator& ranks, const MessageOperation& operation, double spinTime);
    /// The same for ranks that may have something to tell. @return whether any rank was marked
    static bool meet(Communicator& ranks, const MessageOperation& operation, bool isMarked, double spinTime);

private:
    using Word = std::atomic<std::uint32_t>;
    struct Words;

    void makeWords();
    enum class Mark { NOT_ASKED, NO, YES };
    static bool meet(Communicator& ranks, const MessageOperation& operation, Mark mark, double spinTime);
    bool meetByMemory(Mark mark, double spinTime);
    static bool meetByMessages(Communicator& ranks, Mark mark, double spinTime);
    void lead(Mark mark, double spinTime);
    template <class Condition>
    static void await(const Word& word, double spinTime, Condition isDone);

    static HostMeeting* _current;

    std::unique_ptr<ShmemWindow<std::byte>> _window;
    Words* _words = nullptr; ///< in the window; null without shared memory
};
