#pragma once

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
};

#define ORVEX_RAW_MPI_SYMBOL orvexRawMpi
#define ORVEX_RAW_MPI_SYMBOL_NAME "orvexRawMpi"
