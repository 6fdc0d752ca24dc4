#pragma once

#include "xmlrpc/XmlRpcValue.h"

#include <string>

namespace XmlRpc {

/// The outcome of a call.
struct XmlRpcAnswer {
    bool answered = false;
    XmlRpcValue result;  ///< when answered
    std::string failure; ///< otherwise: the server's address and the reason
};

} // namespace XmlRpc
