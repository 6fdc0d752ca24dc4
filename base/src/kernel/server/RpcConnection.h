#pragma once

#include "kernel/server/FrameBuffer.h"
#include "kernel/server/RequestBudget.h"
#include "kernel/server/ServerLimits.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

struct RpcSocket;

/// One client's end of the line: cuts what it sends into lines and holds what it hasn't read yet, both
/// bounded.
///
/// A peer that ends its sending gets the answers to what it has sent before the connection ends.
///
/// Reading, timing and closing belong to the service thread. Lines are sent from any thread, straight to the
/// socket while the peer keeps up, so an answer needs no hand-over to the service thread.
class RpcConnection : public std::enable_shared_from_this<RpcConnection> {
public:
    using Clock = std::chrono::steady_clock;

    /// The server of the lines. Called on the service thread.
    class Owner {
    public:
        virtual ~Owner() = default;
        virtual void onLine(RpcConnection& connection, std::string_view line) = 0;
        /// A line exceeds the frame limit; nothing more can be read.
        virtual void onTooLong(RpcConnection& connection) = 0;
        /// @param regular  the client has left, or the owner ended it
        virtual void onClosed(RpcConnection& connection, const std::string& reason, bool regular) = 0;
        /// The connection holds unsent bytes, or waits for its end: supervise() it from time to time.
        virtual void onSupervisionNeeded() = 0;
    };
    /// The state of the client's proof.
    struct Peer {
        bool authenticated = false;
        bool control = false;           ///< only asks and steers the server, runs no commands
        std::string client;             ///< its own words
        std::optional<double> deadline; ///< of its next command [s]
        bool wantsBills = false;        ///< with the answers to its commands
        std::string nonce;              ///< ours to it
        std::chrono::system_clock::time_point since = std::chrono::system_clock::now();
        Clock::time_point connected = Clock::now();
    };

    /// @param budget  shared by all connections of the server
    RpcConnection(std::unique_ptr<RpcSocket> socket, const ServerLimits& limits,
                  std::shared_ptr<RequestBudget> budget, Owner& owner);
    RpcConnection(const RpcConnection&) = delete;
    RpcConnection& operator=(const RpcConnection&) = delete;
    ~RpcConnection();

    // ---- Service thread.
    void start();
    Peer& getPeer() { return _peer; }
    const Peer& getPeer() const { return _peer; }
    /// Address and port of the client, for logs.
    const std::string& getAddress() const { return _address; }
    /// The proof is there: the limits of a client instead of a stranger's.
    void liftHandshakeLimit() {
        _frames.setLimit(_peer.control ? _limits.controlFrameSize : _limits.frameSize);
    }
    /// The longest line that it may send now. [bytes]
    std::size_t getLineLimit() const { return _frames.getLimit(); }
    /// A request is on its way to the commands; finishRequest() answers it.
    /// @param size  [bytes] that count as queued
    /// @return      lives as long as they do
    std::shared_ptr<void> beginRequest(std::size_t size);
    /// [bytes] of a request of which the rest isn't read, since all clients together hold too much; 0: none.
    std::size_t getHeldBack() const;
    /// Reads that rest in spite of it, which has to come without a long stop.
    void goOnBeyondBudget();
    bool isBeyondBudget() const { return _beyondBudget; }
    /// Sends a last line (or none), lets the peer read it, then closes.
    void endWith(std::string_view line, const std::string& reason);
    /// Closes at once.
    void close(const std::string& reason) { close(reason, true); }
    bool isOpen() const { return _state == State::SERVING; }
    /// Cuts off a peer that stands still. @return whether there is more to supervise
    bool supervise(Clock::time_point now);

    // ---- Any thread.
    void send(std::string_view line);
    /// `lines` lines of console output as one notification; lost, and counted, when the client doesn't keep
    /// up.
    void sendNotice(std::string_view notification, std::size_t lines);
    /// Answers a request that was begun; an empty line is no answer.
    void finishRequest(std::string_view line);
    /// [bytes] not yet taken by the socket
    std::size_t getUnsent() const;
    /// Hands unsent bytes to the socket. @return true when none are left
    bool flush();
    /// Whether the peer failed to keep up with the last flush that waited for it.
    bool isSlow() const;
    void setSlow(bool slow);

private:
    enum class State { SERVING, LINGERING, CLOSED };

    void close(const std::string& reason, bool regular);
    void read();
    void onRead(std::size_t size);
    void onReadFailed(const std::string& why);
    void onInputEnded();
    void endWhenAnswered();
    void serveLines();
    void countReceived();
    bool lacksRoom() const;
    void shutDownSending();
    void onWritable();
    void watchWritable();
    // With _mutex held.
    bool isBlocked() const;
    std::size_t backlog() const { return _out.size() - _outBegin; }
    void append(std::string_view text, bool answer);
    void writeOut();
    void noteLoss();

    const ServerLimits _limits;
    Owner& _owner;
    std::unique_ptr<RpcSocket> _socket;
    std::string _address;
    Peer _peer;
    FrameBuffer _frames;
    State _state = State::SERVING;
    std::shared_ptr<RequestBudget> _budget;
    std::size_t _received = 0;           ///< bytes in _frames, as the budget knows them
    std::atomic<std::size_t> _queued{0}; ///< bytes of begun requests
    bool _reading = false;
    bool _beyondBudget = false;
    Clock::time_point _lastRead = Clock::now();
    Clock::time_point _lingerEnd;
    std::size_t _lingerRead = 0; ///< bytes read and dropped since the last line [bytes]
    std::string _closeReason;

    mutable std::mutex _mutex; ///< guards what follows and every write to the socket
    std::string _out;          ///< unsent bytes from _outBegin on
    std::size_t _outBegin = 0;
    std::uint64_t _appended = 0;   ///< bytes ever queued
    std::uint64_t _sent = 0;       ///< bytes ever taken by the socket
    std::uint64_t _answersEnd = 0; ///< where the last answer ends, counted like those two
    std::size_t _lostLines = 0;
    std::size_t _pending = 0; ///< requests begun and not answered
    bool _paused = false;     ///< reading waits for the client to take its answers, or for the budget
    bool _inputEnded = false; ///< the peer sends no more
    bool _watching = false;   ///< the loop tells when the socket can be written
    bool _broken = false;     ///< nothing can be sent any more
    bool _slow = false;
    Clock::time_point _lastProgress = Clock::now();
};
