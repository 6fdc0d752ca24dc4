#pragma once

namespace XmlRpc {

/// Descriptors of sockets.
class XmlRpcSocket {
public:
    static constexpr int InvalidSocket = -1;

    /// Programs that this process starts don't inherit the descriptor.
    static void keepFromChildren(int descriptor);
};

} // namespace XmlRpc
