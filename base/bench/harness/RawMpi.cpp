#include "RawMpi.h"

#include <mpi.h>

#include <cstdio>
#include <cstdlib>

namespace {

void check(int code) {
    if (code == MPI_SUCCESS) [[likely]]
        return;
    std::fprintf(stderr, "a raw MPI call failed with code %d\n", code);
    std::abort();
}

void pingPong(char* buffer, int bytes, int rank, int iterations) {
    if (rank > 1)
        return;
    MPI_Status status;
    for (int i = 0; i < iterations; ++i) {
        if (rank == 0) {
            check(MPI_Send(buffer, bytes, MPI_CHAR, 1, 7, MPI_COMM_WORLD));
            check(MPI_Recv(buffer, bytes, MPI_CHAR, 1, 7, MPI_COMM_WORLD, &status));
        } else {
            check(MPI_Recv(buffer, bytes, MPI_CHAR, 0, 7, MPI_COMM_WORLD, &status));
            check(MPI_Send(buffer, bytes, MPI_CHAR, 0, 7, MPI_COMM_WORLD));
        }
    }
}

void exchange(char* out, char* in, int bytes, int rank, int iterations) {
    if (rank > 1)
        return;
    MPI_Request requests[2];
    MPI_Status statuses[2];
    for (int i = 0; i < iterations; ++i) {
        check(MPI_Irecv(in, bytes, MPI_CHAR, 1 - rank, 8, MPI_COMM_WORLD, &requests[0]));
        check(MPI_Isend(out, bytes, MPI_CHAR, 1 - rank, 8, MPI_COMM_WORLD, &requests[1]));
        check(MPI_Waitall(2, requests, statuses));
    }
}

void allReduceInt(int iterations) {
    for (int i = 0; i < iterations; ++i) {
        int value = i;
        check(MPI_Allreduce(MPI_IN_PLACE, &value, 1, MPI_INT, MPI_MAX, MPI_COMM_WORLD));
    }
}

void barrier(int iterations) {
    for (int i = 0; i < iterations; ++i)
        check(MPI_Barrier(MPI_COMM_WORLD));
}

void broadcast(char* buffer, int bytes, int iterations) {
    for (int i = 0; i < iterations; ++i)
        check(MPI_Bcast(buffer, bytes, MPI_CHAR, 0, MPI_COMM_WORLD));
}

} // namespace

extern "C" __attribute__((visibility("default"))) const RawMpi ORVEX_RAW_MPI_SYMBOL;
const RawMpi ORVEX_RAW_MPI_SYMBOL{&pingPong, &exchange, &allReduceInt, &barrier, &broadcast};
