#include "xmlrpc/XmlRpcServerMethod.h"

namespace XmlRpc {

XmlRpcServerMethod::~XmlRpcServerMethod() = default;

} // namespace XmlRpc
