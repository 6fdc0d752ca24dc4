#pragma once

#include <memory>

class ProfileFile;

/// Keeps what this rank does and did in a file in memory (ProfileLayout), where others of the user read it
/// without this rank: the live view, and who looks after a job that died.
///
/// The file goes at an orderly end of the process, and stays after any other. Main thread; local.
class RankProfile {
public:
    /// Moves the record of operations into the file. Without one, for example since /dev/shm is full, the
    /// process goes on and nobody else sees its record. The role and the host are known by then.
    static void start();
    /// Moves the record back and removes the file.
    static void stop();
    static bool isKept() { return _file != nullptr; }

private:
    static ProfileFile* _file; ///< lives on when the process dies
};
