#pragma once

/// Proves that the ranks of each host share memory.
class ShmemTester {
public:
    /// Each rank prints what it reads of what the first rank of its host wrote. Does nothing in a serial
    /// process, and with a driver without shared memory. Collective over the job. Main thread.
    /// @throw InternalError when a rank reads something else
    void runTest();
};
