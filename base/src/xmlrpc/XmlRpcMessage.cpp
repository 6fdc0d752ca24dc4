#include "xmlrpc/XmlRpcMessage.h"

#include "platform/StringHelper.h"
#include "xmlrpc/XmlText.h"

#include <pugixml.hpp>

#include <stdexcept>

namespace XmlRpc {

namespace {

constexpr std::string_view DECLARATION = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
constexpr std::size_t MAX_METHOD_SIZE = 256;

void checkMethod(const std::string& method) {
    constexpr std::string_view ALLOWED = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.:/";
    if (method.empty() || method.size() > MAX_METHOD_SIZE ||
        method.find_first_not_of(ALLOWED) != std::string::npos)
        throw std::invalid_argument("malformed XML-RPC: the name of the method isn't one");
}

void appendMark(char c, std::string& text) {
    constexpr std::string_view DIGITS = "0123456789ABCDEF";
    const auto byte = static_cast<unsigned char>(c);
    text.append("\\x").append({DIGITS[byte / 16], DIGITS[byte % 16]});
}

/// The bytes at the beginning of `text` that XML doesn't allow, of one character.
std::size_t countBadBytes(std::string_view text) {
    for (const std::string_view noCharacter : {"\xEF\xBF\xBE", "\xEF\xBF\xBF"})
        if (text.starts_with(noCharacter))
            return noCharacter.size();
    const auto byte = static_cast<unsigned char>(text[0]);
    return byte < 0x20 && byte != '\t' && byte != '\n' && byte != '\r' ? 1 : 0;
}

/// Any bytes as text for XML: each byte that isn't UTF-8 or not allowed there becomes a mark that people can
/// read.
std::string toPlainText(std::string_view bytes) {
    const std::string valid = StringHelper::toString(StringHelper::fromBytes(bytes));
    std::string plain;
    for (std::string_view rest = valid; !rest.empty();) {
        const std::size_t bad = countBadBytes(rest);
        for (const char c : rest.substr(0, bad))
            appendMark(c, plain);
        if (bad == 0)
            plain += rest[0];
        rest.remove_prefix(bad == 0 ? 1 : bad);
    }
    return plain;
}

void expectRoot(pugi::xml_node root, std::string_view name) {
    if (name != root.name())
        throw std::invalid_argument("malformed XML-RPC: a \"" + std::string(name) + "\" was expected");
}

XmlRpcMessage::Fault readFault(const XmlRpcValue& value) {
    const XmlRpcValue* code = value.find("faultCode");
    const XmlRpcValue* text = value.find("faultString");
    if (!code || !text)
        throw std::invalid_argument("malformed XML-RPC: a fault has no code or no text");
    return {code->getI8(), text->getString()};
}

} // namespace

std::string XmlRpcMessage::writeCall(const std::string& method, const XmlRpcValue& params) {
    checkMethod(method);
    std::string text(DECLARATION);
    text.append("<methodCall><methodName>").append(method).append("</methodName><params>");
    const bool several = params.getType() == XmlRpcValue::Type::ARRAY;
    for (const XmlRpcValue& param : several ? params.getArray() : XmlRpcValue::Array{params}) {
        text += "<param>";
        XmlText::append(param, text);
        text += "</param>";
    }
    return text += "</params></methodCall>\n";
}

std::string XmlRpcMessage::writeResult(const XmlRpcValue& result) {
    std::string text(DECLARATION);
    text += "<methodResponse><params><param>";
    XmlText::append(result, text);
    return text += "</param></params></methodResponse>\n";
}

std::string XmlRpcMessage::writeFault(int code, std::string_view text) {
    XmlRpcValue fault;
    fault.set("faultCode", XmlRpcValue(code));
    fault.set("faultString", XmlRpcValue(toPlainText(text)));
    std::string document(DECLARATION);
    document += "<methodResponse><fault>";
    XmlText::append(fault, document);
    return document += "</fault></methodResponse>\n";
}

XmlRpcMessage::Call XmlRpcMessage::readCall(std::string_view text) {
    const XmlText document(text);
    expectRoot(document.getRoot(), "methodCall");
    Call call;
    call.method = StringHelper::trim(XmlText::textOf(document.getRoot().child("methodName")));
    checkMethod(call.method);
    call.params = XmlRpcValue(XmlRpcValue::Array());
    for (const pugi::xml_node param : document.getRoot().child("params").children("param"))
        call.params.append(XmlText::readValue(XmlText::onlyChild(param, "value")));
    return call;
}

XmlRpcMessage::Answer XmlRpcMessage::readAnswer(std::string_view text) {
    const XmlText document(text);
    expectRoot(document.getRoot(), "methodResponse");
    Answer answer;
    if (const pugi::xml_node fault = document.getRoot().child("fault"))
        answer.fault = readFault(XmlText::readValue(XmlText::onlyChild(fault, "value")));
    else
        answer.result = XmlText::readValue(XmlText::onlyChild(
            XmlText::onlyChild(XmlText::onlyChild(document.getRoot(), "params"), "param"), "value"));
    return answer;
}

} // namespace XmlRpc
