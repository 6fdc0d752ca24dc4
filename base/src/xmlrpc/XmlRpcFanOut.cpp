#include "xmlrpc/XmlRpcFanOut.h"

#include "xmlrpc/HttpText.h"
#include "xmlrpc/XmlRpcAddress.h"
#include "xmlrpc/XmlRpcExchange.h"
#include "xmlrpc/XmlRpcMessage.h"
#include "xmlrpc/XmlRpcTime.h"

#include <algorithm>
#include <map>
#include <stdexcept>

namespace XmlRpc {

namespace {

using Clock = std::chrono::steady_clock;
using asio::ip::tcp;

/// One run: the calls that are open, and those that wait for a connection.
class Run {
public:
    Run(const std::vector<XmlRpcFanOut::Call>& calls, const std::string& secret,
        const XmlRpcFanOut::Callback& arrived)
        : _calls(calls), _secret(secret), _arrived(arrived), _answers(calls.size()) {}

    std::vector<XmlRpcFanOut::Answer> run(double totalSeconds, double callSeconds) {
        resolveHosts();
        _end = Clock::now() + XmlRpcTime::toDuration(totalSeconds);
        _callTime = XmlRpcTime::toDuration(callSeconds);
        startCalls();
        _loop.run();
        return std::move(_answers);
    }

private:
    struct Host {
        std::vector<asio::ip::address> addresses;
        std::string failure;
    };

    void resolveHosts() {
        for (const XmlRpcFanOut::Call& call : _calls) {
            const auto [host, isNew] = _hosts.try_emplace(call.host);
            if (!isNew)
                continue;
            for (const tcp::endpoint& endpoint : XmlRpcAddress::resolve(call.host, 0, host->second.failure))
                host->second.addresses.push_back(endpoint.address());
        }
    }

    void startCalls() {
        if (_starting)
            return; // a call that ended at once asks for the next one
        _starting = true;
        while (_open < XmlRpcFanOut::MAX_CONNECTIONS && _next < _calls.size()) {
            const std::size_t index = _next++;
            try {
                start(index);
            } catch (const std::exception& error) {
                arrive(index, {false, XmlRpcValue(), error.what()});
            }
        }
        _starting = false;
    }

    void start(std::size_t index) {
        const XmlRpcFanOut::Call& call = _calls[index];
        const std::string where = XmlRpcAddress::describe(call.host, call.port);
        const Host& host = _hosts.at(call.host);
        const Clock::time_point now = Clock::now();
        if (host.addresses.empty() || call.port <= 0 || call.port > 65535)
            throw std::invalid_argument(
                where + " can't be reached: " + (host.failure.empty() ? "the port isn't one" : host.failure));
        if (now >= _end)
            throw std::invalid_argument(where + " wasn't called: the time for all calls was up");
        std::vector<tcp::endpoint> endpoints;
        for (const asio::ip::address& address : host.addresses)
            endpoints.emplace_back(address, static_cast<asio::ip::port_type>(call.port));
        std::string request = HttpText::makeRequest(call.host, call.port, _secret,
                                                    XmlRpcMessage::writeCall(call.method, call.params));
        std::make_shared<XmlRpcExchange>(_loop, where)
            ->start(endpoints, std::move(request), std::min(_end, now + _callTime),
                    [this, index](XmlRpcFanOut::Answer&& answer) {
                        --_open;
                        arrive(index, std::move(answer));
                        startCalls();
                    });
        ++_open; // the answer comes later than this
    }

    void arrive(std::size_t index, XmlRpcFanOut::Answer answer) {
        _answers[index] = std::move(answer);
        if (_arrived)
            _arrived(index, _answers[index]);
    }

    const std::vector<XmlRpcFanOut::Call>& _calls;
    const std::string& _secret;
    const XmlRpcFanOut::Callback& _arrived;
    std::vector<XmlRpcFanOut::Answer> _answers;
    std::map<std::string, Host> _hosts;
    Clock::time_point _end;
    Clock::duration _callTime{};
    std::size_t _next = 0;
    std::size_t _open = 0;
    bool _starting = false;
    asio::io_context _loop{1}; ///< the last member: what waits in it goes first
};

} // namespace

std::vector<XmlRpcFanOut::Answer> XmlRpcFanOut::call(const std::vector<Call>& calls, double totalSeconds,
                                                     double callSeconds, const Callback& arrived) const {
    return Run(calls, _secret, arrived).run(totalSeconds, callSeconds);
}

} // namespace XmlRpc
