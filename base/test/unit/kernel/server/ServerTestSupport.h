#pragma once

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/Properties.h"
#include "kernel/Server.h"
#include "kernel/server/RpcClient.h"
#include "kernel/server/ServerLimits.h"
#include "kernel/server/SessionLocator.h"
#include "support/TemporaryDirectory.h"

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <string>

/// A connection without manners: bytes as they come, every wait limited.
class RawConnection {
public:
    explicit RawConnection(unsigned port);

    /// Whether the peer took all of it; false when it took nothing more for `patience` seconds, or left.
    bool send(std::string_view text, long patience = 5);
    /// The next line that holds `part`; empty at the end of the connection or after `patience` seconds of
    /// silence.
    std::string read(std::string_view part = {}, long patience = 5);
    void endSending() { _socket.shutdown(_socket.shutdown_send); }
    /// Whether the peer ends the connection; what it sends before that is dropped.
    bool ends();

private:
    asio::ip::tcp::socket _socket;
    std::string _received;
};

/// A Server on loopback with commands of the test's own: the main thread runs them, another plays the
/// clients.
///
/// Echo answers its arguments, Fail raises what it is told, Undone answers "Success": false, as a result that
/// its help tells, Diverged the same without help, Print prints `lines` lines, Wait waits for release() or a
/// cancel, Hang for release() alone, Deaf with a task that doesn't look for a cancel, Big answers `bytes`
/// bytes.
class ServerFixture : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    Server& server() { return Server::getSingleton(); }
    /// Starts the server and runs commands until `clients` is done and the server has stopped; on one thread,
    /// as with -nothreads, unless `threaded`.
    void serve(const std::function<void()>& clients, bool threaded = true);
    /// Both, one after the other, each with a server of its own that prints to `console`.
    void onTwoThreadsAndOnOne(const std::function<void()>& clients, std::streambuf* console = nullptr);

    RpcClient::Target target() const;
    /// Connects as `name`.
    void connect(RpcClient& client, const std::string& name = "test",
                 SessionHandshake::Access access = SessionHandshake::Access::COMMANDS) const;
    /// The words with which the server refuses a client; empty when it lets it in.
    std::string refusal(const RpcClient::Target& target) const;
    /// Waits until `condition` holds, for 10 s at most.
    static bool waitFor(const std::function<bool()>& condition);
    static void release() { released = true; }
    /// [bytes] of memory of this process in use.
    static std::size_t memory();

    static std::atomic<bool> released;
    static std::atomic<int> executed; ///< commands that ran

private:
    static void addCommands();

    TemporaryDirectory _directory;
    std::ostringstream _console; ///< stands in for the standard output
    std::streambuf* _standardOutput = nullptr;
};
