#pragma once

#include <string>
#include <vector>

/// Loops over raw calls of an MPI library, for comparisons with what lies above it. They stand in a module
/// for each MPI, linked like its driver: only inside such a module can the calls be reached. MPI is started
/// by the driver.
struct RawMpi {
    /// Ranks 0 and 1 send `bytes` to and fro; the others do nothing.
    void (*pingPong)(char* buffer, int bytes, int rank, int iterations);
    /// The same with non-blocking calls and one wait for both requests.
    void (*exchange)(char* out, char* in, int bytes, int rank, int iterations);
    /// One integer, in place.
    void (*allReduceInt)(int iterations);
    void (*barrier)(int iterations);
    void (*broadcast)(char* buffer, int bytes, int iterations);

    // The code that a careful solver developer writes by hand where the message layer takes a container. The
    // roots of the collectives take turns, so that no rank runs ahead.

    /// A length, then the characters, if any.
    void (*stringPingPong)(std::string& text, int rank, int iterations);
    void (*stringBroadcast)(std::string& text, int rank, int size, int iterations);
    /// The number of strings, their lengths, then each by itself.
    void (*stringsBroadcast)(std::vector<std::string>& texts, int rank, int size, int iterations);
    /// The lengths, the total (so that all ranks agree on whether it fits one call), the characters.
    void (*gatherVector)(const std::string& in, std::string& out, int rank, int size, int iterations);
    void (*allGatherVector)(const std::string& in, std::string& out, int size, int iterations);

    /// Opens a file, writes into it with all ranks, and closes it.
    void (*writeFile)(const char* path, long long offset, const char* data, int bytes, int iterations);
};

#define ORVEX_RAW_MPI_SYMBOL orvexRawMpi
#define ORVEX_RAW_MPI_SYMBOL_NAME "orvexRawMpi"
