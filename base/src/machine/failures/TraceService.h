#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

class ParallelErrorHandler;
class Properties;

namespace XmlRpc {
class XmlRpcServerMethod;
class XmlRpcValue;
} // namespace XmlRpc

/// Takes a trace of all ranks for a client: begins and ends it through the error channel while the main
/// threads work, and hands out the records of one rank after the other.
///
/// One trace at a time. It belongs to the client that began it until that client releases it, or asks for
/// nothing for IDLE_TIME. A serial process, which has no channel, traces itself.
class TraceService {
public:
    static constexpr double IDLE_TIME = 60.0;  ///< [s]
    static constexpr double EXTRA_TIME = 30.0; ///< [s] after which a rank ends a trace that nobody ends

    /// @param channel  gets the methods of this object, and must not have started. Borrowed; ends before this
    ///                 object. Null in a serial process
    explicit TraceService(ParallelErrorHandler* channel);
    TraceService(const TraceService&) = delete;
    TraceService& operator=(const TraceService&) = delete;
    ~TraceService();

    /// Of this rank; called about once a second.
    static void tick();
    /// The answer to a client, see "server.trace" in the protocol. Serial or on the master, one thread at a
    /// time, not the main and the channel's.
    /// @throw InputError for a wrong request, or while the trace of another client is taken
    Properties answer(const Properties& request);

private:
    class BeginCmd;
    class EndCmd;
    class FetchCmd;
    class ReleaseCmd;
    using Clock = std::chrono::steady_clock;

    Properties begin(const Properties& request);
    Properties end(const Properties& request);
    Properties fetch(const Properties& request);
    Properties release(const Properties& request);
    void expect(const Properties& request);
    void refuseWhileBusy();
    std::vector<std::optional<XmlRpc::XmlRpcValue>> callAll(XmlRpc::XmlRpcServerMethod& method,
                                                            const XmlRpc::XmlRpcValue& parameters) const;
    std::optional<XmlRpc::XmlRpcValue> callOne(XmlRpc::XmlRpcServerMethod& method, unsigned rank,
                                               const XmlRpc::XmlRpcValue& parameters) const;

    ParallelErrorHandler* const _channel;
    std::vector<std::string> _hosts; ///< of each rank
    std::vector<unsigned> _pids;     ///< of each rank, on its host
    std::unique_ptr<XmlRpc::XmlRpcServerMethod> _begin;
    std::unique_ptr<XmlRpc::XmlRpcServerMethod> _end;
    std::unique_ptr<XmlRpc::XmlRpcServerMethod> _fetch;
    std::unique_ptr<XmlRpc::XmlRpcServerMethod> _release;

    std::uint32_t _trace = 0; ///< the last one that was begun
    bool _isTaken = false;    ///< it belongs to somebody
    std::string _owner;       ///< as the client calls itself
    double _seconds = 0.0;    ///< that it wants
    Clock::time_point _began;
    Clock::time_point _asked; ///< when the owner asked last
};
