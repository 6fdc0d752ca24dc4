#include "ServerTestSupport.h"

#include "kernel/Raise.h"
#include "kernel/Task.h"
#include "platform/Memory.h"
#include "support/TestCommand.h"

#include <cerrno>
#include <chrono>
#include <iostream>
#include <malloc.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;

std::atomic<bool> ServerFixture::released{false};
std::atomic<int> ServerFixture::executed{0};

namespace {

void fail(const Properties& args, Properties& response) {
    response.set("before", true);
    Properties more;
    more.set("Rank", args.getInt("rank"));
    raise(InputError(args.getString("text"), Error::RECOVERABLE_SEVERITY, more));
}

void print(const Properties& args, Properties&) {
    for (int i = 0; i < args.getInt("lines"); ++i)
        std::cout << "line " << i << ' ' << args.getString("text") << '\n';
    std::cout << "end" << std::flush;
}

asio::io_context sockets;

/// Lets the system end each wait of the socket.
void setPatience(asio::ip::tcp::socket& socket, int option, long patience) {
    const timeval time{patience, 0};
    EXPECT_EQ(setsockopt(socket.native_handle(), SOL_SOCKET, option, &time, sizeof time), 0);
}

} // namespace

RawConnection::RawConnection(unsigned port) : _socket(sockets, asio::ip::tcp::v4()) {
    // So that a peer that isn't read from feels it soon.
    _socket.set_option(asio::socket_base::receive_buffer_size(64 * 1024));
    _socket.connect({asio::ip::address_v4::loopback(), static_cast<asio::ip::port_type>(port)});
}

bool RawConnection::send(std::string_view text, long patience) {
    setPatience(_socket, SO_SNDTIMEO, patience);
    return ::send(_socket.native_handle(), text.data(), text.size(), MSG_NOSIGNAL) == ssize_t(text.size());
}

std::string RawConnection::read(std::string_view part, long patience) {
    setPatience(_socket, SO_RCVTIMEO, patience);
    for (;;) {
        for (std::size_t end = 0; (end = _received.find('\n')) != std::string::npos;) {
            const std::string line = _received.substr(0, end);
            _received.erase(0, end + 1);
            if (line.find(part) != std::string::npos)
                return line;
        }
        char bytes[65536];
        const ssize_t size = recv(_socket.native_handle(), bytes, sizeof bytes, 0);
        if (size <= 0)
            return {};
        _received.append(bytes, static_cast<std::size_t>(size));
    }
}

bool RawConnection::ends() {
    setPatience(_socket, SO_RCVTIMEO, 5);
    char bytes[65536];
    ssize_t size = 1;
    while (size > 0)
        size = recv(_socket.native_handle(), bytes, sizeof bytes, 0);
    return size == 0 || errno != EAGAIN;
}

void ServerFixture::SetUp() {
    if (!_standardOutput)
        _standardOutput = std::cout.rdbuf(_console.rdbuf());
    released = false;
    executed = 0;
    Server::reset();
    Controller::reset();
    SessionLocator::reset();
    SessionLocator::getSingleton().setDirectory(_directory.getPath());
    addCommands();
    server().setConnectionMode(Server::COLLABORATIVE);
}

void ServerFixture::addCommands() {
    const auto add = [](const char* name, const TestCommand::Body& body,
                        const std::vector<CommandKey>& results = {}) {
        const TestCommand::Body counted = [body](const Properties& args, Properties& response) {
            ++executed;
            body(args, response);
        };
        const CommandHelp help{
            std::string("For tests: ") + name,
            {{"text", "text", "anything", false}, {CommandKey::ANY, "any", "anything else", false}},
            results};
        Controller::getSingleton().registerCommand(new TestCommand(name, counted, help));
    };
    add("Echo", [](const Properties& args, Properties& response) { response.set("args", args); });
    add("Fail", &fail);
    const auto undone = [](const Properties& args, Properties& response) {
        response.set("Success", args.hasName("text"));
        response.set("Reason", "no room");
    };
    add("Undone", undone, {{"Success", "bool", "false when it wasn't done"}});
    add("Diverged", undone);
    add("Print", &print);
    add("Wait", [](const Properties&, Properties&) {
        Task task("waiting");
        for (int i = 0; i < 10000 && !released; ++i) {
            task.advance(0.25, "a quarter");
            std::this_thread::sleep_for(1ms);
        }
    });
    const auto hang = [](const Properties&, Properties&) {
        for (int i = 0; i < 10000 && !released; ++i)
            std::this_thread::sleep_for(1ms);
    };
    add("Hang", hang);
    add("Deaf", [hang](const Properties& args, Properties& response) {
        const Task task("deaf");
        hang(args, response);
    });
    add("Big", [](const Properties& args, Properties& response) {
        response.set("text", std::string(args.getUnsignedInt("bytes"), 'x'));
    });
}

void ServerFixture::TearDown() {
    Server::reset();
    Controller::reset();
    SessionLocator::reset();
    EXPECT_EQ(std::cout.rdbuf(), _console.rdbuf()); // the server gave it back
    std::cout.rdbuf(_standardOutput);
}

void ServerFixture::serve(const std::function<void()>& clients, bool threaded) {
    if (threaded)
        server().startInThread(L"test", 0);
    std::thread player([&] {
        EXPECT_TRUE(
            waitFor([&] { return server().isRunning() && SessionLocator::getSingleton().isRunning(); }));
        EXPECT_NO_THROW(clients());
        release();
        server().stop();
    });
    threaded ? Controller::getSingleton().processCommands() : server().start(L"test", 0);
    player.join();
    server().join();
}

void ServerFixture::onTwoThreadsAndOnOne(const std::function<void()>& clients, std::streambuf* console) {
    for (const bool threaded : {true, false}) {
        SetUp();
        std::streambuf* const before = std::cout.rdbuf(console ? console : std::cout.rdbuf());
        serve(clients, threaded);
        EXPECT_FALSE(server().isRunning());
        std::cout.rdbuf(before);
    }
}

RpcClient::Target ServerFixture::target() const {
    const auto record = SessionLocator::readRecord(SessionLocator::getSingleton().getRecordPath());
    return {{record.address}, record.port, SessionKey::fromHex(record.key).value()};
}

void ServerFixture::connect(RpcClient& client, const std::string& name,
                            SessionHandshake::Access access) const {
    client.connect(target(), access, name, 5s);
}

std::string ServerFixture::refusal(const RpcClient::Target& target) const {
    try {
        RpcClient client;
        client.connect(target, SessionHandshake::Access::COMMANDS, "refused", 5s);
        return {};
    } catch (const RpcClientError& error) {
        return error.what();
    }
}

bool ServerFixture::waitFor(const std::function<bool()>& condition) {
    for (int i = 0; i < 2000 && !condition(); ++i)
        std::this_thread::sleep_for(5ms);
    return condition();
}

std::size_t ServerFixture::memory() {
    malloc_trim(0);
    Platform::MemoryUse use;
    EXPECT_TRUE(Platform::MemoryQuery(getpid()).query(use));
#ifdef ORVEX_TEST_SHADOW_MEMORY
    use.residentSize /= 8; // a sanitizer's shadow, and what it keeps back of freed memory
#endif
    return static_cast<std::size_t>(use.residentSize);
}
