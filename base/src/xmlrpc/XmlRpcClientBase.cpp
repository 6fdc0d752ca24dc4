#include "xmlrpc/XmlRpcClientBase.h"

namespace XmlRpc {

XmlRpcClientBase::~XmlRpcClientBase() = default;

} // namespace XmlRpc
