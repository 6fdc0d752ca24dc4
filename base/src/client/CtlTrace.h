#pragma once

#include "client/CommandWords.h"
#include "client/CtlConsole.h"
#include "client/CtlOptions.h"
#include "client/CtlSession.h"
#include "client/TraceData.h"
#include "client/TraceFile.h"

#include "kernel/Properties.h"

#include <chrono>
#include <string>
#include <vector>

/// Takes a trace of the session's ranks and writes it into a file.
///
/// The first Ctrl-C while it waits ends the trace early, and what was taken is still written; one after that
/// leaves without a file. Other clients' commands go on undisturbed.
class CtlTrace {
public:
    CtlTrace(const CtlOptions& options, CtlConsole& console, CtlSession& session)
        : _options(options), _console(console), _session(session) {}

    /// @return the answer for people or programs
    /// @throw UsageError, RpcClientError, OutputError when the file can't be written
    Properties run(const std::vector<CommandWords::Word>& arguments);

    /// The message of a failure that the server told.
    class Refusal : public std::runtime_error {
    public:
        explicit Refusal(const RpcClient::Reply& reply) : std::runtime_error(reply.message), _reply(reply) {}
        const RpcClient::Reply& getReply() const { return _reply; }

    private:
        RpcClient::Reply _reply;
    };

private:
    void parse(const std::vector<CommandWords::Word>& arguments);
    Properties call(const Properties& request);
    Properties ask(const std::string& action);
    void begin();
    void wait();
    void end();
    void fetch(TraceData::Rank& rank, std::size_t count);
    bool fetchPiece(TraceData::Rank& rank, std::size_t count);
    void release() noexcept;
    Properties summarise(const TraceFile::Summary& summary) const;

    const CtlOptions& _options;
    CtlConsole& _console;
    CtlSession& _session;
    double _seconds = 10.0;
    std::string _path = "trace.json";
    unsigned _trace = 0;
    std::vector<std::size_t> _counts; ///< of the records of each rank
    TraceData _data;
};
