#pragma once

#include <string>

namespace XmlRpc {

class XmlRpcValue;

/// A method that a server offers. The server borrows it.
class XmlRpcServerMethod {
public:
    explicit XmlRpcServerMethod(std::string name) : _name(std::move(name)) {}
    virtual ~XmlRpcServerMethod();
    XmlRpcServerMethod(const XmlRpcServerMethod&) = delete;
    XmlRpcServerMethod& operator=(const XmlRpcServerMethod&) = delete;

    const std::string& getName() const { return _name; }
    /// Runs on the thread that is in XmlRpcServer::work(). An exception becomes a fault for the caller.
    /// @param params  an array with an element for each parameter
    /// @param result  nil at first
    virtual void execute(const XmlRpcValue& params, XmlRpcValue& result) = 0;

private:
    const std::string _name;
};

} // namespace XmlRpc
