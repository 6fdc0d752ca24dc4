#pragma once

#include "machine/MachineExport.h"

#include <map>
#include <string>
#include <string_view>

/// An option as the row that parses it describes it.
struct CommandLineOption {
    std::string_view word;
    std::string_view values;  ///< the names of its values, with a blank between two; empty without any
    std::string_view meaning; ///< for people; empty for one that --help leaves out

    unsigned countValues() const;
};

/// A walk over the words of the command line, from the left, that records which options used how many words.
///
/// Several passes walk the same line one after the other, each for the options that it owns; the record tells
/// a later pass what earlier ones took.
class ORVEX_MACHINE_EXPORT CommandLine {
public:
    /// Option word to the number of words that it uses, the option itself included.
    using Consumed = std::map<std::string, unsigned>;

    /// The words are borrowed; null and empty ones are skipped where an option could stand.
    CommandLine(int argc, const char* const* argv, Consumed& consumed);

    /// Goes to the next word, argv[1] at first. False at the end of the line.
    bool next();
    const std::string& word() const { return _word; }

    /// Whether `count` further words follow.
    bool hasValues(unsigned count) const;
    /// The word that stands `offset` behind the present one; 1 is the first value. Empty for a null word.
    std::string value(unsigned offset = 1) const;
    /// The same word out of its Base64 form. @throw std::invalid_argument, which names the present word
    std::wstring decodedValue(unsigned offset = 1) const;

    /// Whether the present word is `option`.
    bool isAt(const CommandLineOption& option) const { return _word == option.word; }
    /// Whether all values of `option`, at which the walk stands, follow.
    bool hasValues(const CommandLineOption& option) const { return hasValues(option.countValues()); }

    /// Records that the present word is `option`, and passes over its values.
    void consume(const CommandLineOption& option);
    /// Passes over the words of an option that an earlier pass recorded. False when none did.
    bool skipConsumed();

    /// atoi() that stays within int for any text.
    static int toInt(const std::string& text);

private:
    int _argc;
    const char* const* _argv;
    Consumed& _consumed;
    int _index = 0;
    std::string _word;
};
