#include "xmlrpc/XmlRpcSocket.h"

#include <fcntl.h>

namespace XmlRpc {

void XmlRpcSocket::keepFromChildren(int descriptor) {
    // A descriptor that refuses the flag is lost already; its next use tells.
    static_cast<void>(fcntl(descriptor, F_SETFD, FD_CLOEXEC));
}

} // namespace XmlRpc
