#include "kernel/Error.h"

#include "platform/StackTracer.h"
#include "platform/StringHelper.h"

#include <optional>
#include <typeinfo>

namespace {

constexpr std::size_t MAX_TRACE_FRAMES = 48;

/// The text under `key`; nothing when there is none, for a response may come from anywhere.
std::optional<std::string> findText(const Properties& properties, const char* key) {
    if (!properties.hasName(key))
        return std::nullopt;
    try {
        return properties.getString(key);
    } catch (const InputError&) {
        return std::nullopt;
    }
}

std::optional<int> findSeverity(const Properties& properties) {
    if (!properties.hasName(Error::SEVERITY_TAG))
        return std::nullopt;
    try {
        return properties.getInt(Error::SEVERITY_TAG);
    } catch (const InputError&) {
        return std::nullopt;
    }
}

Properties describeAssertion(const std::string& condition, const std::string& file, int line) {
    Properties properties;
    properties.set("Condition", condition);
    properties.set("File", file);
    properties.set("Line", line);
    const std::vector<std::string> trace = Platform::error().getStackTrace(MAX_TRACE_FRAMES);
    if (!trace.empty())
        properties.set(Error::STACK_TRACE_TAG, StringHelper::join(trace, "\n"));
    return properties;
}

} // namespace

Error::Error(const std::string& message, int severity, const Properties& properties, const std::string& type,
             bool collective)
    : _properties(properties), _what(message), _collective(collective) {
    _properties.set(ERROR_TAG, type);
    _properties.set(MESSAGE_TAG, message);
    _properties.set(SEVERITY_TAG, severity);
}

Error::Error(const Error&) = default;
Error& Error::operator=(const Error&) = default;
Error::~Error() = default;

const char* Error::what() const noexcept {
    return _what.c_str();
}

int Error::getSeverity() const {
    return findSeverity(_properties).value_or(NON_RECOVERABLE_SEVERITY);
}

const char* Error::getKind() const {
    return SOLVER_KIND;
}

Properties Error::toResponse() const {
    Properties response = _properties;
    const bool needsMessage = _what.empty() && !_collective;
    complete(response,
             needsMessage ? "An error of type " + Platform::StackTracer::demangle(typeid(*this).name()) +
                                " without a message"
                          : _what,
             getKind());
    return response;
}

bool Error::isErrorIn(const Properties& response) {
    return response.hasName(ERROR_TAG);
}

std::string Error::getMessage(const Properties& response) {
    return isErrorIn(response) ? findText(response, MESSAGE_TAG).value_or(std::string()) : std::string();
}

void Error::complete(Properties& response, const std::string& message, const char* kind) {
    if (!findText(response, ERROR_TAG))
        response.set(ERROR_TAG, DEFAULT_ERROR_TYPE);
    if (findText(response, MESSAGE_TAG).value_or(std::string()).empty())
        response.set(MESSAGE_TAG, message);
    if (!findSeverity(response))
        response.set(SEVERITY_TAG, RECOVERABLE_SEVERITY);
    if (!findText(response, KIND_TAG))
        response.set(KIND_TAG, kind);
}

RecoverableError::RecoverableError(const std::string& message, int severity, const Properties& properties,
                                   const std::string& type, bool collective)
    : Error(message, severity, properties, type, collective) {}

const char* InputError::getKind() const {
    return INPUT_KIND;
}

const char* SystemError::getKind() const {
    return SYSTEM_KIND;
}

NonRecoverableError::NonRecoverableError(const std::string& message, const Properties& properties,
                                         const std::string& type)
    : Error(message, NON_RECOVERABLE_SEVERITY, properties, type) {}

const char* NonRecoverableError::getKind() const {
    return INTERNAL_KIND;
}

bool NonRecoverableError::isNonRecoverableErrorIn(const Properties& response) {
    return isErrorIn(response) && findSeverity(response) == NON_RECOVERABLE_SEVERITY;
}

InternalError::InternalError(const std::string& message, const std::string& condition,
                             const std::string& file, int line)
    : NonRecoverableError(message, describeAssertion(condition, file, line)) {}
