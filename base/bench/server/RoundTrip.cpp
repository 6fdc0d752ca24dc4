// Back-to-back round trips of an empty query command against the server, and of the same line against
// BareServer, both through the same few lines of socket code, in turns.
//
//   RoundTrip SESSION_RECORD BARE_PORT TURNS SECONDS_PER_TURN
//
// Prints one JSON object: the median round trip of each turn's batches [us], and the ratio of the medians.

#include "kernel/server/RpcMessage.h"
#include "kernel/server/SessionHandshake.h"
#include "kernel/server/SessionRecord.h"

#include <utility> // asio forgets it

#include <boost/asio.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace asio = boost::asio;
using Clock = std::chrono::steady_clock;

/// Lines to and from a port of this host.
class LineSocket {
public:
    explicit LineSocket(unsigned port) : _socket(_context) {
        _socket.connect({asio::ip::address_v4::loopback(), static_cast<unsigned short>(port)});
        _socket.set_option(asio::ip::tcp::no_delay(true));
    }
    void send(const std::string& line) { asio::write(_socket, asio::buffer(line)); }
    std::string receive() {
        const std::size_t n = asio::read_until(_socket, asio::dynamic_buffer(_buffer, 1 << 20), '\n');
        std::string line = _buffer.substr(0, n);
        _buffer.erase(0, n);
        return line;
    }

private:
    asio::io_context _context;
    asio::ip::tcp::socket _socket;
    std::string _buffer;
};

void authenticate(LineSocket& socket, const SessionRecord& record) {
    const std::string line = socket.receive();
    RpcMessage message;
    message.parse(line);
    const auto greeting = SessionHandshake::Greeting::fromMessage(message);
    const auto key = SessionKey::fromHex(record.key);
    if (!greeting || !key)
        throw std::runtime_error("no server answers there: " + line);
    socket.send(RpcMessage::request("0", SessionHandshake::AUTHENTICATE,
                                    SessionHandshake::answer(*greeting, *key, SessionKey::makeNonce(),
                                                             SessionHandshake::Access::COMMANDS, "bench")));
    const std::string answer = socket.receive();
    if (answer.find("\"result\"") == std::string::npos)
        throw std::runtime_error("not let in: " + answer);
}

double median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2),
                     values.end());
    return values[values.size() / 2];
}

/// The median round trip of one turn [us].
double measure(LineSocket& socket, double seconds) {
    const std::string request = RpcMessage::request("1", "GetNumberOfWorkers", "{}");
    std::vector<double> trips;
    const auto start = Clock::now();
    const auto warm = start + std::chrono::duration<double>(0.2 * seconds);
    const auto end = start + std::chrono::duration<double>(seconds);
    for (auto before = start; before < end;) {
        socket.send(request);
        const std::string answer = socket.receive();
        const auto after = Clock::now();
        if (answer.find("\"result\"") == std::string::npos)
            throw std::runtime_error("refused: " + answer);
        if (before >= warm)
            trips.push_back(std::chrono::duration<double, std::micro>(after - before).count());
        before = after;
    }
    return median(std::move(trips));
}

std::string toJson(const std::vector<double>& values) {
    std::ostringstream text;
    for (std::size_t i = 0; i < values.size(); ++i)
        text << (i ? "," : "[") << values[i];
    return text.str() + "]";
}

int run(char** argv) {
    std::ifstream file(argv[1]);
    std::ostringstream text;
    text << file.rdbuf();
    const auto record = SessionRecord::fromText(text.str());
    if (!record)
        throw std::runtime_error(std::string("no session record: ") + argv[1]);
    LineSocket server(record->port);
    authenticate(server, *record);
    LineSocket bare(static_cast<unsigned>(std::atoi(argv[2])));
    const int turns = std::atoi(argv[3]);
    const double seconds = std::atof(argv[4]);
    std::vector<double> ofServer;
    std::vector<double> ofBare;
    for (int turn = 0; turn < turns; ++turn) {
        // The other job's ranks must have ended their spinning.
        std::this_thread::sleep_for(std::chrono::milliseconds(1300));
        ofServer.push_back(measure(server, seconds));
        std::this_thread::sleep_for(std::chrono::milliseconds(1300));
        ofBare.push_back(measure(bare, seconds));
    }
    std::cout << "{\"server_us\":" << toJson(ofServer) << ",\"bare_us\":" << toJson(ofBare)
              << ",\"ratio\":" << median(ofServer) / median(ofBare) << "}" << std::endl;
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fputs("usage: RoundTrip SESSION_RECORD BARE_PORT TURNS SECONDS_PER_TURN\n", stderr);
        return 2;
    }
    try {
        return run(argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "RoundTrip: %s\n", error.what());
        return 1;
    }
}
