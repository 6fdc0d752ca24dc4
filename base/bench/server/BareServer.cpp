// The least that a parallel server must do for a command, written by hand: read a line from a socket, meet
// all ranks in a barrier that sleeps after its spin time, broadcast the line, fold one number, gather one
// length from each rank and the (empty) texts, answer the line. The measure for the real server, which does
// the same collectives.
//
//   BareServer PORT_FILE   the port is written there once all ranks are ready; the end of the connection ends
//   the job

#include <mpi.h>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr int TAG = 1022;
constexpr double SPIN_TIME = 1.0;   // [s]
constexpr useconds_t SLEEP = 10000; // [us]
constexpr const char* ANSWER = "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":{\"NumberOfWorkers\":1}}\n";

void check(bool good, const char* what) {
    if (good)
        return;
    std::perror(what);
    MPI_Abort(MPI_COMM_WORLD, 1);
}

void poll(std::vector<MPI_Request>& requests) {
    const double start = MPI_Wtime();
    int done = 0;
    while (!done) {
        if (MPI_Wtime() - start > SPIN_TIME)
            usleep(SLEEP);
        MPI_Testall(static_cast<int>(requests.size()), requests.data(), &done, MPI_STATUSES_IGNORE);
    }
    requests.clear();
}

void sleepingBarrier(int rank, int size) {
    std::vector<MPI_Request> receives;
    std::vector<MPI_Request> sends;
    const int parent = (rank - 1) / 2;
    const int first = 2 * rank + 1;
    const int end = std::min(2 * rank + 3, size);
    for (int child = first; child < end; ++child)
        MPI_Irecv(nullptr, 0, MPI_UNSIGNED, child, TAG, MPI_COMM_WORLD, &receives.emplace_back());
    poll(receives);
    if (rank != 0) {
        MPI_Isend(nullptr, 0, MPI_UNSIGNED, parent, TAG, MPI_COMM_WORLD, &sends.emplace_back());
        MPI_Irecv(nullptr, 0, MPI_UNSIGNED, parent, TAG, MPI_COMM_WORLD, &receives.emplace_back());
        poll(receives);
    }
    for (int child = first; child < end; ++child)
        MPI_Isend(nullptr, 0, MPI_UNSIGNED, child, TAG, MPI_COMM_WORLD, &sends.emplace_back());
    MPI_Waitall(static_cast<int>(sends.size()), sends.data(), MPI_STATUSES_IGNORE);
}

/// The next line, empty at the end of the connection.
std::string readLine(int connection, std::string& buffer) {
    for (;;) {
        const std::size_t end = buffer.find('\n');
        if (end != std::string::npos) {
            std::string line = buffer.substr(0, end);
            buffer.erase(0, end + 1);
            return line;
        }
        char block[4096];
        const ssize_t n = read(connection, block, sizeof block);
        if (n <= 0)
            return {};
        buffer.append(block, static_cast<std::size_t>(n));
    }
}

int listenAndTell(const char* portFile) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    check(bind(listener, reinterpret_cast<sockaddr*>(&address), length) == 0, "bind");
    check(listen(listener, 1) == 0, "listen");
    check(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) == 0, "getsockname");
    const std::string unfinished = std::string(portFile) + ".new";
    std::FILE* const file = std::fopen(unfinished.c_str(), "w");
    check(file != nullptr, "port file");
    std::fprintf(file, "%d\n", ntohs(address.sin_port));
    std::fclose(file);
    check(std::rename(unfinished.c_str(), portFile) == 0, "port file");
    const int connection = accept(listener, nullptr, nullptr);
    check(connection >= 0, "accept");
    const int on = 1;
    setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    close(listener);
    return connection;
}

/// The collectives of one command. @return false when the job is to end
bool serve(std::string& line, int rank, int size) {
    sleepingBarrier(rank, size);
    unsigned long long length = line.size();
    MPI_Bcast(&length, 1, MPI_UNSIGNED_LONG_LONG, 0, MPI_COMM_WORLD);
    if (length == 0)
        return false;
    line.resize(length);
    MPI_Bcast(line.data(), static_cast<int>(length), MPI_CHAR, 0, MPI_COMM_WORLD);
    unsigned failed = 0;
    MPI_Allreduce(MPI_IN_PLACE, &failed, 1, MPI_UNSIGNED, MPI_SUM, MPI_COMM_WORLD);
    const unsigned mine = 0;
    std::vector<unsigned> lengths(static_cast<std::size_t>(size));
    MPI_Allgather(&mine, 1, MPI_UNSIGNED, lengths.data(), 1, MPI_UNSIGNED, MPI_COMM_WORLD);
    const std::vector<int> counts(static_cast<std::size_t>(size), 0);
    char nothing = 0;
    MPI_Allgatherv(&nothing, 0, MPI_CHAR, &nothing, counts.data(), counts.data(), MPI_CHAR, MPI_COMM_WORLD);
    return true;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: BareServer PORT_FILE\n", stderr);
        return 2;
    }
    MPI_Init(&argc, &argv);
    int rank = 0;
    int size = 1;
    MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    MPI_Comm_size(MPI_COMM_WORLD, &size);
    MPI_Barrier(MPI_COMM_WORLD);
    const int connection = rank == 0 ? listenAndTell(argv[1]) : -1;
    std::string buffer;
    for (;;) {
        std::string line;
        if (rank == 0)
            line = readLine(connection, buffer);
        if (!serve(line, rank, size))
            break;
        const std::string answer = ANSWER;
        if (rank == 0)
            check(write(connection, answer.data(), answer.size()) == static_cast<ssize_t>(answer.size()),
                  "write");
    }
    MPI_Finalize();
    return 0;
}
