#pragma once

#include "kernel/profile/LiveJob.h"
#include "machine/failures/HostWatch.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

class ParallelErrorHandler;
class Properties;

namespace XmlRpc {
class XmlRpcServerMethod;
}

/// Shows all ranks at work, as often as a client asks, without asking each of them: one rank of each host
/// reads the profiles of those on its host. No main thread takes part.
class LiveView {
public:
    static constexpr unsigned MAX_LISTED = 512; ///< ranks with a line each, unless one host is asked for

    /// @param channel  gets the method of this object, and must not have started. Borrowed; ends before this
    ///                 object. Null in a serial process
    explicit LiveView(ParallelErrorHandler* channel);
    LiveView(const LiveView&) = delete;
    LiveView& operator=(const LiveView&) = delete;
    ~LiveView();

    /// The answer to a client, see LiveJob. Serial or on the master, any thread except the main and the
    /// channel's, one at a time.
    /// @param request  "ranks": with a line for each rank; "host": of this host alone, with its ranks
    /// @throw InputError when there is no such host
    Properties answer(const Properties& request);

private:
    class LiveCmd;
    struct Host {
        std::string name;
        std::vector<RankSource::Process> ranks; ///< ascending
    };

    LiveHost lookHere(bool withList);
    LiveJob look(const std::vector<const Host*>& hosts, bool withList);
    std::vector<std::optional<LiveHost>> ask(const std::vector<const Host*>& hosts,
                                             const std::vector<unsigned>& ranks, bool withList);
    LiveHost makeSilent(const Host& host) const;

    ParallelErrorHandler* const _channel;
    std::unique_ptr<XmlRpc::XmlRpcServerMethod> _method;
    std::vector<Host> _hosts; ///< in the order of their first ranks
    std::mutex _mutex;        ///< guards the one below
    HostWatch _watch;         ///< of this host
};
