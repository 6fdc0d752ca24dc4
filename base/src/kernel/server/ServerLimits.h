#pragma once

#include <chrono>
#include <cstddef>

/// Limits on what clients may cost the server. The defaults suit a job of any size; tests set smaller ones.
struct ServerLimits {
    std::size_t frameSize = std::size_t(16) << 20; ///< longest request line [bytes]
    std::size_t handshakeFrameSize = 4096;         ///< the same before the client has proved its key [bytes]
    std::size_t controlFrameSize = std::size_t(64) << 10; ///< the same of a client for control [bytes]
    std::chrono::milliseconds handshakeTime{5000};        ///< from the connection to the proof
    std::size_t strangers = 64;                           ///< connections without proof; the oldest gives way
    std::size_t clients = 64;         ///< connections with proof, those for control included
    std::size_t pendingRequests = 64; ///< unanswered commands of one client; then reading pauses
    /// Of the requests of all clients together that were received and not answered; then reading pauses for
    /// those who hold more than the allowance. [bytes]
    std::size_t requestBytes = std::size_t(64) << 20;
    std::size_t requestAllowance = std::size_t(256) << 10; ///< of one client, in any case [bytes]
    /// Of the unsent answers of one client, the largest one included; a response beyond is lost. [bytes]
    std::size_t responseBytes = std::size_t(256) << 20;
    std::size_t consoleBacklog = std::size_t(1) << 20; ///< unsent bytes above which console lines are lost
    std::size_t answerBacklog = std::size_t(1) << 20;  ///< unsent bytes above which reading pauses
    std::chrono::milliseconds stallTime{30000}; ///< an unsent answer of which nothing was taken for so long
    std::chrono::milliseconds lingerTime{1000}; ///< for a last message to a client that is being cut off
    std::chrono::milliseconds flushTime{500}; ///< for the waits of flushNotifies(), notifyAbort() and the end
    std::chrono::milliseconds rollCallTime{10000}; ///< in which the ranks have to answer
    std::chrono::milliseconds forceTime{2000};     ///< for a task to look for a cancel, before force is used
    std::chrono::milliseconds deadlineTime{10000}; ///< the same at a deadline, before the client is told
};
