#include "WireFuzzer.h"

#include "kernel/Error.h"
#include "kernel/Properties.h"
#include "kernel/server/FrameBuffer.h"
#include "kernel/server/RpcMessage.h"
#include "kernel/server/SessionHandshake.h"
#include "kernel/server/SessionRecord.h"
#include "platform/StringHelper.h"
#include "xmlrpc/HttpReader.h"
#include "xmlrpc/XmlRpcMessage.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>

namespace {

constexpr std::size_t LIMIT = 4096;

void demand(bool holds, const char* promise, std::string_view line) {
    if (holds)
        return;
    std::cerr << "Broken promise: " << promise << "\nfor: " << line << std::endl;
    std::abort();
}

void fuzzArguments(std::string_view text, std::string_view line) {
    for (Properties (*const read)(std::string_view) :
         {+[](std::string_view json) { return Properties(json); }, &Properties::fromXml}) {
        try {
            const Properties properties = read(text);
            const std::string written = properties.toString();
            demand(Properties(std::string_view(written)) == properties, "what was read is read again", line);
            demand(written.find('\n') == std::string::npos, "the text form is one line", line);
        } catch (const InputError&) {
            // refused in words, which is all that is asked
        }
    }
}

void fuzzHandshake(const RpcMessage& message, std::string_view line) {
    static const SessionKey key = SessionKey::generate();
    static const std::string nonce = SessionKey::makeNonce();
    SessionHandshake::Admission admission;
    demand(SessionHandshake::admit(message, key, nonce, admission).has_value(),
           "nobody gets in without the key", line);
    demand(!SessionHandshake::isProven(message.result, key, nonce, nonce),
           "no server is trusted without the key", line);
    if (const auto greeting = SessionHandshake::Greeting::fromMessage(message))
        demand(!greeting->toLine().empty(), "a greeting can be written", line);
}

void fuzzLine(std::string_view line) {
    RpcMessage message;
    const std::optional<RpcFault> fault = message.parse(line);
    demand(!fault || !fault->message.empty(), "a fault has words", line);
    RpcMessage again;
    std::string answer = RpcMessage::failure(
        message.id, fault.value_or(RpcFault{RpcFault::INTERNAL_ERROR, std::string(line)}));
    answer.pop_back();
    demand(answer.find('\n') == std::string::npos, "an answer is one line", line);
    demand(!again.parse(answer) && again.id == (message.id.empty() ? "null" : message.id),
           "an answer can be read", line);
    if (fault)
        return;
    demand(StringHelper::isValidUtf8(line), "what is accepted is UTF-8", line);
    if (!message.params.empty()) {
        demand(message.params.front() == '{' && message.params.back() == '}', "arguments are an object",
               line);
        fuzzArguments(message.params, line);
    }
    fuzzHandshake(message, line);
}

void fuzzXmlRpc(std::string_view text) {
    for (XmlRpc::XmlRpcValue (*const read)(std::string_view) :
         {&XmlRpc::XmlRpcValue::fromXml,
          +[](std::string_view xml) { return XmlRpc::XmlRpcMessage::readCall(xml).params; },
          +[](std::string_view xml) { return XmlRpc::XmlRpcMessage::readAnswer(xml).result; }}) {
        try {
            const std::string written = read(text).toXml();
            demand(XmlRpc::XmlRpcValue::fromXml(written).toXml() == written,
                   "a value is written as it was read", text);
        } catch (const std::invalid_argument& error) {
            demand(*error.what() != 0, "a refusal has words", text);
        }
    }
    const std::string fault = XmlRpc::XmlRpcMessage::writeFault(1, text.substr(0, LIMIT));
    demand(XmlRpc::XmlRpcMessage::readAnswer(fault).fault.has_value(), "a fault of any bytes arrives", text);
}

void fuzzHttp(XmlRpc::HttpReader::Kind kind, std::string_view text) {
    using State = XmlRpc::HttpReader::State;
    XmlRpc::HttpReader whole(kind, LIMIT), pieces(kind, LIMIT);
    State state = State::INCOMPLETE;
    for (std::size_t at = 0, step = 1; at < text.size(); at += step, step = 1 + (text.size() + at) % 97)
        state = pieces.read(text.substr(at, step));
    demand(text.empty() || whole.read(text) == state, "a message doesn't depend on its pieces", text);
    demand(whole.readEnd() != State::INCOMPLETE && whole.readEnd() == pieces.readEnd(), "a message ends",
           text);
    demand(whole.getBody().size() <= LIMIT, "no body exceeds the limit", text);
    demand(whole.getBody() == pieces.getBody(), "a body doesn't depend on its pieces", text);
}

} // namespace

void fuzzWire(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    FrameBuffer frames(LIMIT);
    std::size_t handedOut = 0;
    for (std::size_t at = 0; at < text.size() && !frames.isTooLong();) {
        const std::span<char> room = frames.prepare();
        const std::size_t step = std::min({room.size(), text.size() - at, 1 + (text.size() + at) % 997});
        std::memcpy(room.data(), text.data() + at, step);
        frames.commit(step);
        at += step;
        while (const std::optional<std::string_view> line = frames.next()) {
            demand(line->size() <= LIMIT, "no line exceeds the limit", *line);
            demand(*line == text.substr(handedOut, line->size()), "lines are what was sent", *line);
            handedOut += line->size() + 1;
            fuzzLine(*line);
        }
        demand(frames.size() <= LIMIT + room.size(), "no more is held than a line and a read", text);
    }
    const std::string_view rest = text.substr(handedOut);
    demand(frames.isTooLong() == (rest.substr(0, rest.find('\n')).size() > LIMIT) &&
               (frames.isTooLong() || frames.size() == rest.size()),
           "each line is handed out, unless it is too long", text);
    fuzzLine(text);
    fuzzArguments(text, text);
    fuzzXmlRpc(text);
    fuzzHttp(XmlRpc::HttpReader::Kind::REQUEST, text);
    fuzzHttp(XmlRpc::HttpReader::Kind::ANSWER, text);
    SessionRecord::fromText(std::string(text));
}
