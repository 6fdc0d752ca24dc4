#include "machine/ground/CommandLine.h"

#include "platform/Base64Encoder.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <stdexcept>

unsigned CommandLineOption::countValues() const {
    return values.empty() ? 0 : 1 + static_cast<unsigned>(std::count(values.begin(), values.end(), ' '));
}

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

std::wstring CommandLine::decodedValue(unsigned offset) const {
    try {
        return Base64Encoder::decode(value(offset));
    } catch (const std::invalid_argument& error) {
        throw std::invalid_argument("Invalid value of '" + _word + "': " + error.what());
    }
}

void CommandLine::consume(const CommandLineOption& option) {
    const unsigned values = option.countValues();
    _consumed[_word] = 1 + values;
    _index += static_cast<int>(values);
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
