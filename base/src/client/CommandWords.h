#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

/// The typed words can't be understood.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A command as people write it: its name and words of the form key=value or key:=json.
///
/// The type of a value is the one that the command's help tells for the key. Without help, true and false are
/// truth values, numbers are numbers, [...], {...} and "..." are JSON, and everything else is text.
class CommandWords {
public:
    struct Word {
        std::string text;
        bool quoted = false; ///< its value stood in quotes: it is text in any form
    };
    /// The types that the command's help tells, in the order of its keys.
    struct KeyType {
        std::string key;
        std::string type;
    };

    /// Words of a script's or prompt's line, quotes and backslashes as in a shell; empty for a comment.
    /// @throw UsageError when a quote isn't closed
    static std::vector<Word> split(std::string_view line);

    /// The JSON text of the arguments in `words`, the command's name not among them.
    /// @throw UsageError naming the word and what was expected
    static std::string toParams(const std::vector<Word>& words, const std::vector<KeyType>& types);
};
