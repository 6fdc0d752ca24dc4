#pragma once

#include "kernel/KernelExport.h"

#include <optional>
#include <string>
#include <string_view>

/// Why a message can't be served or a request failed: code and words of JSON-RPC.
struct RpcFault {
    enum Code : int {
        PARSE_ERROR = -32700,
        INVALID_REQUEST = -32600,
        METHOD_NOT_FOUND = -32601,
        INVALID_PARAMS = -32602,
        INTERNAL_ERROR = -32603,
        COMMAND_FAILED = -32000,   ///< the command's own error, with kind, severity and ranks in the data
        VERSION_MISMATCH = -32001, ///< client and server speak different protocols
        NOT_AUTHENTICATED = -32002,
        BUSY = -32003, ///< another client is connected and the session serves one at a time
        STOPPING = -32004
    };
    int code = INTERNAL_ERROR;
    std::string message;
};

/// A line of JSON-RPC 2.0: its members, each as the JSON text that stands in the line (empty: not there).
struct ORVEX_KERNEL_EXPORT RpcMessage {
    static constexpr unsigned MAX_DEPTH = 64; ///< of `params` and `result`
    static constexpr std::size_t MAX_ID_LENGTH = 128;
    static constexpr std::size_t MAX_METHOD_LENGTH = 256;

    std::string method; ///< decoded
    std::string id;     ///< a string, a number or null
    std::string_view params;
    std::string_view result;
    std::string_view error;
    std::string_view bill; ///< of an answer: JSON text of what the command cost, see server.bill

    bool isRequest() const { return !method.empty(); }

    /// Reads `line`, to which the views then point. What stands in `id` after a fault is the id to answer to.
    /// @return what is wrong with it, if anything
    std::optional<RpcFault> parse(std::string_view line);

    // The lines to send, each with its line end. `params`, `result` and `data` are JSON texts.
    static std::string request(std::string_view id, std::string_view method, std::string_view params);
    static std::string notification(std::string_view method, std::string_view params);
    /// @param bill  JSON text of what the command cost; empty: the client didn't ask for it
    static std::string answer(std::string_view id, std::string_view result, std::string_view bill = {});
    /// An empty `id` stands for a request that couldn't be read.
    static std::string failure(std::string_view id, const RpcFault& fault, std::string_view data = {},
                               std::string_view bill = {});
    /// `text` as a JSON string; bytes that aren't UTF-8 become the replacement character.
    static std::string quote(std::string_view text);
};
