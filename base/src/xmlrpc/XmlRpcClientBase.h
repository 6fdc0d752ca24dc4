#pragma once

#include <string>

namespace XmlRpc {

class XmlRpcValue;

/// Interface of a client: one call at a time, on the calling thread.
class XmlRpcClientBase {
public:
    /// The time of a call that tells none.
    static constexpr double DEFAULT_SECONDS = 5.0;

    XmlRpcClientBase() = default;
    virtual ~XmlRpcClientBase();
    XmlRpcClientBase(const XmlRpcClientBase&) = delete;
    XmlRpcClientBase& operator=(const XmlRpcClientBase&) = delete;

    /// Calls a method and waits for its result.
    /// @param host    a numeric address or a name. A name is asked of the system, outside the time.
    /// @param params  an array has an element for each parameter; any other value is one parameter
    /// @param result  is set when the call succeeds
    /// @param seconds for the whole call; below 0: DEFAULT_SECONDS, so that no call waits for ever
    /// @return false on a failure: getLastFailure() tells the reason
    virtual bool call(const std::string& host, int port, const std::string& method, const XmlRpcValue& params,
                      XmlRpcValue& result, double seconds) = 0;
    /// The secret that the servers ask for.
    virtual void setSecret(const std::string& secret) = 0;

    /// The reason of the last failure; empty when the last call succeeded.
    const std::string& getLastFailure() const { return _lastFailure; }

protected:
    void setLastFailure(const std::string& failure) { _lastFailure = failure; }

private:
    std::string _lastFailure;
};

} // namespace XmlRpc
