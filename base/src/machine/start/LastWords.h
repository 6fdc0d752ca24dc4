#pragma once

#include <string>
#include <string_view>

/// Tells clients and users why this process ends; without that they would only see that it has ended.
///
/// The words go to the standard error stream that the process was started with, wherever its streams lead by
/// then, with the rank. On the serial or master process they go to the clients as "server.abort"; a worker
/// hands them to the master of its host. Only the first words count; the session record goes with them. The
/// master also tells its clients when a process of the job on its host is gone without a word, and takes the
/// job down when its launcher doesn't.
///
/// A launcher passes a user's SIGTERM on to all ranks, and sends the same signal when it ends a job in which
/// a rank died. The master takes it for the latter when a process of its host has ended or said why it ends.
/// Under Open MPI the launcher's signal is the end of the job in any case; under MPICH the death of a rank on
/// another host can't be told from a user's wish.
class LastWords {
public:
    /// Keeps the standard error stream, and makes a write that fails an error and no signal. The first step
    /// of the process, main thread.
    static void prepare();
    /// Speaks for the signals that end this process from now on. Main thread, once the role is fixed.
    static void install();
    /// From now to endWork() an end of this process is untimely, that by exit() too. Collective, main thread.
    static void beginWork();
    /// The end of the process is in order from now on. Main thread.
    static void endWork();
    /// The same for a process that takes the job down in words of its own. Any thread.
    static void disarm();

    /// Tells why this process ends; returns within about a second. Any thread, also the handler of a fault.
    static void say(std::string_view reason);
    /// say() when the end is untimely and nothing was said yet.
    static void sayIfUntimely(std::string_view reason);
    /// Whether the job is about to end, as far as this process can know. Any thread.
    static bool isJobDying();
    /// Ends a process that was forked from this one, with a message: it must not speak for the server.
    /// Nothing in the process itself. Any thread.
    static void endForkedChild(const std::string& reason);
};
