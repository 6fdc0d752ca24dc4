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

void sendString(const std::string& text, int to) {
    const unsigned length = static_cast<unsigned>(text.size());
    check(MPI_Send(&length, 1, MPI_UNSIGNED, to, 7, MPI_COMM_WORLD));
    if (length > 0)
        check(MPI_Send(text.data(), static_cast<int>(length), MPI_CHAR, to, 7, MPI_COMM_WORLD));
}

void receiveString(std::string& text, int from) {
    MPI_Status status;
    unsigned length = 0;
    check(MPI_Recv(&length, 1, MPI_UNSIGNED, from, 7, MPI_COMM_WORLD, &status));
    text.resize(length);
    if (length > 0)
        check(MPI_Recv(text.data(), static_cast<int>(length), MPI_CHAR, from, 7, MPI_COMM_WORLD, &status));
}

void stringPingPong(std::string& text, int rank, int iterations) {
    if (rank > 1)
        return;
    for (int i = 0; i < iterations; ++i) {
        if (rank == 0) {
            sendString(text, 1);
            receiveString(text, 1);
        } else {
            receiveString(text, 0);
            sendString(text, 0);
        }
    }
}

void broadcastString(std::string& text, int root) {
    unsigned long long length = text.size();
    check(MPI_Bcast(&length, 1, MPI_UNSIGNED_LONG_LONG, root, MPI_COMM_WORLD));
    text.resize(length);
    check(MPI_Bcast(text.data(), static_cast<int>(length), MPI_CHAR, root, MPI_COMM_WORLD));
}

void stringBroadcast(std::string& text, int, int size, int iterations) {
    for (int i = 0; i < iterations; ++i)
        broadcastString(text, i % size);
}

void stringsBroadcast(std::vector<std::string>& texts, int, int size, int iterations) {
    std::vector<unsigned long long> lengths;
    for (int i = 0; i < iterations; ++i) {
        const int root = i % size;
        unsigned long long count = texts.size();
        check(MPI_Bcast(&count, 1, MPI_UNSIGNED_LONG_LONG, root, MPI_COMM_WORLD));
        texts.resize(count);
        lengths.resize(count);
        for (std::size_t k = 0; k < count; ++k)
            lengths[k] = texts[k].size();
        check(
            MPI_Bcast(lengths.data(), static_cast<int>(count), MPI_UNSIGNED_LONG_LONG, root, MPI_COMM_WORLD));
        for (std::size_t k = 0; k < count; ++k) {
            texts[k].resize(lengths[k]);
            check(MPI_Bcast(texts[k].data(), static_cast<int>(lengths[k]), MPI_CHAR, root, MPI_COMM_WORLD));
        }
    }
}

/// Fills the places of the blocks; the sum of the counts.
int place(const std::vector<int>& counts, std::vector<int>& places) {
    int total = 0;
    for (std::size_t i = 0; i < counts.size(); ++i) {
        places[i] = total;
        total += counts[i];
    }
    return total;
}

void gatherVector(const std::string& in, std::string& out, int rank, int size, int iterations) {
    const int length = static_cast<int>(in.size());
    std::vector<int> counts(static_cast<std::size_t>(size));
    std::vector<int> places(counts.size());
    for (int i = 0; i < iterations; ++i) {
        const int root = i % size;
        unsigned long long total = 0;
        check(MPI_Gather(&length, 1, MPI_INT, counts.data(), 1, MPI_INT, root, MPI_COMM_WORLD));
        if (rank == root) {
            total = static_cast<unsigned long long>(place(counts, places));
            out.resize(total);
        }
        check(MPI_Bcast(&total, 1, MPI_UNSIGNED_LONG_LONG, root, MPI_COMM_WORLD));
        check(MPI_Gatherv(in.data(), length, MPI_CHAR, out.data(), counts.data(), places.data(), MPI_CHAR,
                          root, MPI_COMM_WORLD));
    }
}

void allGatherVector(const std::string& in, std::string& out, int size, int iterations) {
    const int length = static_cast<int>(in.size());
    std::vector<int> counts(static_cast<std::size_t>(size));
    std::vector<int> places(counts.size());
    for (int i = 0; i < iterations; ++i) {
        check(MPI_Allgather(&length, 1, MPI_INT, counts.data(), 1, MPI_INT, MPI_COMM_WORLD));
        out.resize(static_cast<std::size_t>(place(counts, places)));
        check(MPI_Allgatherv(in.data(), length, MPI_CHAR, out.data(), counts.data(), places.data(), MPI_CHAR,
                             MPI_COMM_WORLD));
    }
}

void writeFile(const char* path, long long offset, const char* data, int bytes, int iterations) {
    for (int i = 0; i < iterations; ++i) {
        MPI_File file;
        MPI_Status status;
        check(MPI_File_open(MPI_COMM_WORLD, path, MPI_MODE_CREATE | MPI_MODE_RDWR, MPI_INFO_NULL, &file));
        check(MPI_File_write_at_all(file, static_cast<MPI_Offset>(offset), data, bytes, MPI_CHAR, &status));
        check(MPI_File_close(&file));
    }
}

} // namespace

extern "C" __attribute__((visibility("default"))) const RawMpi ORVEX_RAW_MPI_SYMBOL;
const RawMpi ORVEX_RAW_MPI_SYMBOL{&pingPong,     &exchange,        &allReduceInt,    &barrier,
                                  &broadcast,    &stringPingPong,  &stringBroadcast, &stringsBroadcast,
                                  &gatherVector, &allGatherVector, &writeFile};
