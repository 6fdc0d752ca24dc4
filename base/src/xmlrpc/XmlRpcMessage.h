#pragma once

#include "xmlrpc/XmlRpcValue.h"

#include <optional>
#include <string>
#include <string_view>

namespace XmlRpc {

/// The documents of XML-RPC: a call, and its answer, which is a result or a fault.
struct XmlRpcMessage {
    /// The usual codes of faults.
    enum FaultCode { NOT_PARSED = -32700, UNKNOWN_METHOD = -32601, METHOD_FAILED = -32500 };

    struct Call {
        std::string method;
        XmlRpcValue params; ///< an array
    };
    struct Fault {
        std::int64_t code = 0;
        std::string text;
    };
    struct Answer {
        XmlRpcValue result;
        std::optional<Fault> fault;
    };

    /// @param params  an array has an element for each parameter; any other value is one parameter
    /// @throw std::invalid_argument when the method's name or a value can't be written
    static std::string writeCall(const std::string& method, const XmlRpcValue& params);
    static std::string writeResult(const XmlRpcValue& result);
    /// Never fails: of a text that XML can't hold the bytes become marks such as "\xFF".
    static std::string writeFault(int code, std::string_view text);

    /// @throw std::invalid_argument with the reason
    static Call readCall(std::string_view text);
    static Answer readAnswer(std::string_view text);
};

} // namespace XmlRpc
