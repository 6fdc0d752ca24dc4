#include "machine/failures/FrameNames.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

namespace {

/// Beginnings of the names of libraries below the solvers.
constexpr std::array<std::string_view, 16> LIBRARIES{
    "libc.",  "libc-",   "libm.", "libm-",  "libpthread", "ld-linux",  "libstdc++", "libgcc",
    "libmpi", "libopen", "libuc", "libpmi", "libevent",   "libfabric", "mca_",      "libhwloc"};
/// Beginnings of the names of functions in the message layer and in the standard library.
constexpr std::array<std::string_view, 10> LAYER{"std::",
                                                 "Communicator::",
                                                 "CommunicatorFrame",
                                                 "MpiCore::",
                                                 "OperationRecord",
                                                 "RequestStack",
                                                 "PersistentRequestStack",
                                                 "OXM_",
                                                 "MPI_",
                                                 "PMPI_"};
/// The same of the functions that call a command.
constexpr std::array<std::string_view, 6> CALLERS{
    "runCommand", "Controller::", "CommandController::", "CommandThread::", "Machine::", "main"};

template <std::size_t size>
bool beginsWithOne(std::string_view text, const std::array<std::string_view, size>& beginnings) {
    return std::any_of(beginnings.begin(), beginnings.end(),
                       [text](std::string_view each) { return text.starts_with(each); });
}

std::string_view baseOf(std::string_view path) {
    return path.substr(path.rfind('/') + 1);
}

/// Without arguments, template arguments and unnamed namespaces.
std::string shorten(std::string_view function) {
    function = function.substr(0, function.find("::{lambda"));
    constexpr std::string_view UNNAMED = "(anonymous namespace)::";
    std::string text;
    int depth = 0;
    for (std::size_t i = 0; i < function.size(); ++i) {
        if (function.substr(i).starts_with(UNNAMED)) {
            i += UNNAMED.size() - 1;
            continue;
        }
        const char c = function[i];
        const bool isOperator = text.ends_with("operator");
        if (c == '(' && depth == 0 && !(isOperator && function.substr(i).starts_with("()"))) {
            if (function.substr(i).find(")::") == std::string_view::npos)
                break; // the arguments of the function itself
        }
        if ((c == '<' || c == '(') && !isOperator)
            ++depth;
        else if ((c == '>' || c == ')') && depth > 0)
            --depth;
        else if (depth == 0)
            text += c;
    }
    const std::size_t blank = text.rfind(' '); // a result type stands before the name of a template
    if (blank != std::string::npos && text.find("operator") == std::string::npos)
        text.erase(0, blank + 1);
    return text.empty() ? std::string(function) : text;
}

struct Parts {
    std::string_view function;
    std::string_view file;
    std::string_view library;
};

Parts split(std::string_view frame) {
    Parts parts;
    const std::size_t file = frame.rfind(" at ");
    const std::size_t library = frame.rfind(" in ");
    parts.function = frame.substr(0, std::min(file, library));
    if (file != std::string_view::npos)
        parts.file = baseOf(frame.substr(file + 4));
    else if (library != std::string_view::npos)
        parts.library = baseOf(frame.substr(library + 4));
    return parts;
}

} // namespace

std::string FrameNames::Frame::describe() const {
    return place.empty() ? function : function + " (" + place + ")";
}

std::vector<FrameNames::Frame> FrameNames::pick(const std::vector<std::string>& stack) {
    std::vector<Frame> all;
    std::vector<Frame> picked;
    bool outside = false;
    for (const std::string& text : stack) {
        const Parts parts = split(text);
        if (parts.function.empty() || parts.function.starts_with("0x"))
            continue;
        const Frame frame{shorten(parts.function), std::string(parts.file)};
        all.push_back(frame);
        outside = outside || beginsWithOne(frame.function, CALLERS);
        if (!outside && !beginsWithOne(parts.library, LIBRARIES) && !beginsWithOne(frame.function, LAYER) &&
            !frame.function.starts_with("_"))
            picked.push_back(frame);
    }
    return picked.empty() ? all : picked;
}
