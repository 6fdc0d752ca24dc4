#include "harness/MpiBench.h"

#include "mpiwrapper/OxmMpi.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <vector>

// The cost of the wrapper's dispatch and of a driver's translations over the raw calls.

namespace {

void check(int code) {
    if (code != OXM_MPI_SUCCESS) [[unlikely]]
        throw std::runtime_error("a wrapper call failed");
}

void pingPong(char* buffer, int bytes, int rank, int iterations) {
    if (rank > 1)
        return;
    OXM_MPI_Status_struct status;
    for (int i = 0; i < iterations; ++i) {
        if (rank == 0) {
            check(OXM_MPI_Send(buffer, bytes, OXM_MPI_CHAR, 1, 7, OXM_MPI_COMM_WORLD));
            check(OXM_MPI_Recv(buffer, bytes, OXM_MPI_CHAR, 1, 7, OXM_MPI_COMM_WORLD, &status));
        } else {
            check(OXM_MPI_Recv(buffer, bytes, OXM_MPI_CHAR, 0, 7, OXM_MPI_COMM_WORLD, &status));
            check(OXM_MPI_Send(buffer, bytes, OXM_MPI_CHAR, 0, 7, OXM_MPI_COMM_WORLD));
        }
    }
}

void exchange(char* out, char* in, int bytes, int rank, int iterations) {
    if (rank > 1)
        return;
    int requests[2];
    OXM_MPI_Status_struct statuses[2];
    for (int i = 0; i < iterations; ++i) {
        check(OXM_MPI_Irecv(in, bytes, OXM_MPI_CHAR, 1 - rank, 8, OXM_MPI_COMM_WORLD, &requests[0]));
        check(OXM_MPI_Isend(out, bytes, OXM_MPI_CHAR, 1 - rank, 8, OXM_MPI_COMM_WORLD, &requests[1]));
        check(OXM_MPI_Waitall(2, requests, statuses));
    }
}

void allReduceInt(int iterations) {
    for (int i = 0; i < iterations; ++i) {
        int value = i;
        check(OXM_MPI_Allreduce(OXM_MPI_IN_PLACE, &value, 1, OXM_MPI_INT, OXM_MPI_MAX, OXM_MPI_COMM_WORLD));
    }
}

void barrier(int iterations) {
    for (int i = 0; i < iterations; ++i)
        check(OXM_MPI_Barrier(OXM_MPI_COMM_WORLD));
}

void run(int argc, char** argv) {
    MpiBench bench(argc, argv);
    bench.startWrapper(argc, argv);
    const RawMpi& raw = bench.raw();
    BenchHarness harness = bench.makeHarness("WrapperBench");
    int rank = 0;
    int size = 0;
    check(OXM_MPI_Comm_rank(OXM_MPI_COMM_WORLD, &rank));
    check(OXM_MPI_Comm_size(OXM_MPI_COMM_WORLD, &size));

    std::vector<char> out(1 << 16, 'x');
    std::vector<char> in(1 << 16);
    struct Row {
        int bytes;
        const char* pingPong;
        const char* exchange;
    };
    if (size > 1)
        for (const Row& row :
             {Row{8, "ping-pong 8 B", "exchange 8 B"}, Row{1 << 16, "ping-pong 64 KiB", nullptr}}) {
            harness.addReference(row.pingPong, "raw",
                                 [&, row](int n) { raw.pingPong(out.data(), row.bytes, rank, n); });
            harness.addCase("wrapper", [&, row](int n) { pingPong(out.data(), row.bytes, rank, n); });
            if (!row.exchange)
                continue;
            harness.addReference(row.exchange, "raw", [&, row](int n) {
                raw.exchange(out.data(), in.data(), row.bytes, rank, n);
            });
            harness.addCase("wrapper",
                            [&, row](int n) { exchange(out.data(), in.data(), row.bytes, rank, n); });
        }
    harness.addReference("all-reduce of an int", "raw", raw.allReduceInt);
    harness.addCase("wrapper", allReduceInt);
    harness.addReference("barrier", "raw", raw.barrier);
    harness.addCase("wrapper", barrier);
    bench.report(harness);
    check(OXM_MPI_Finalize());
}

} // namespace

int main(int argc, char** argv) {
    try {
        run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "WrapperBench: %s\n", error.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
