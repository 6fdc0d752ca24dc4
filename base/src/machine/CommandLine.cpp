#include "machine/CommandLine.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

CommandLine::CommandLine(int argc, const char* const* argv, Consumed& consumed)
    : _argc(argc), _argv(argv), _consumed(consumed) {}

bool CommandLine::next() {
    while (++_index < _argc) {
        if (!_argv[_index] || !*_argv[_index])
            continue;
        _word = _argv[_index];
        return true;
    }
    return false;
}

bool CommandLine::hasValues(unsigned count) const {
    return count < static_cast<unsigned>(_argc - _index);
}

std::string CommandLine::value(unsigned offset) const {
    const char* const text = _argv[_index + static_cast<int>(offset)];
    return text ? text : "";
}

void CommandLine::consume(unsigned words) {
    _consumed[_word] = words;
    _index += static_cast<int>(words) - 1;
}

bool CommandLine::skipConsumed() {
    const auto found = _consumed.find(_word);
    if (found == _consumed.end())
        return false;
    _index += static_cast<int>(found->second) - 1;
    return true;
}

int CommandLine::toInt(const std::string& text) {
    const long number = std::strtol(text.c_str(), nullptr, 10);
    return static_cast<int>(
        std::clamp<long>(number, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}
