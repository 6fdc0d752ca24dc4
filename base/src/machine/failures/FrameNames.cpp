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
/// Parts of the paths of the sources of libraries, where the system has their debug information.
constexpr std::array<std::string_view, 4> LIBRARY_SOURCES{"sysdeps/", "nptl/", "/c++/", "/libc-"};
/// The same of the functions that call a command.
constexpr std::array<std::string_view, 6> CALLERS{
    "runCommand", "Controller::", "CommandController::", "CommandThread::", "Machine::", "main"};

template <std::size_t size>
bool beginsWithOne(std::string_view text, const std::array<std::string_view, size>& beginnings) {
    return std::any_of(beginnings.begin(), beginnings.end(),
                       [text](std::string_view each) { return text.starts_with(each); });
}

template <std::size_t size>
bool holdsOne(std::string_view text, const std::array<std::string_view, size>& parts) {
    return std::any_of(parts.begin(), parts.end(),
                       [text](std::string_view each) { return text.find(each) != std::string_view::npos; });
}

/// Called by solvers and commands: a message, or the way of an error. Where a rank is inside it changes from
/// look to look, or says nothing.
bool isBoundary(std::string_view function) {
    return function.starts_with("Communicator::") || function == "Machine::handleParallelError";
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
    std::string_view file; ///< without its folder
    std::string_view library;
    bool isOfLibrary = false;
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
    parts.isOfLibrary = beginsWithOne(parts.library, LIBRARIES) ||
                        holdsOne(frame.substr(std::min(file, frame.size())), LIBRARY_SOURCES);
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
        if (parts.function.empty() || parts.function.starts_with("0x") || parts.function.starts_with("(no "))
            continue;
        const Frame frame{shorten(parts.function), std::string(parts.file)};
        const bool isInside = isBoundary(frame.function);
        if (isInside) {
            all.clear();
            picked.clear();
            outside = false;
        }
        all.push_back(frame);
        outside = outside || (!isInside && beginsWithOne(frame.function, CALLERS));
        if (!outside && !isInside && !parts.isOfLibrary && !beginsWithOne(frame.function, LAYER) &&
            !frame.function.starts_with("_"))
            picked.push_back(frame);
    }
    return picked.empty() ? all : picked;
}
