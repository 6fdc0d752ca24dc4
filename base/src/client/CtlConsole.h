#pragma once

#include "client/OutputQueue.h"

#include <functional>
#include <string>
#include <string_view>

/// The output streams of orvexctl. On a terminal they show control characters and don't obey them: the text
/// may come from anybody. Into a file or a pipe the text goes as it is.
class CtlConsole {
public:
    CtlConsole();

    /// Answers, to the standard output. @throw OutputError when earlier text couldn't be written
    void print(std::string_view text);
    /// Text that the server's process printed: to the standard output too, or to the standard error stream
    /// when that is kept for answers. @throw OutputError
    void show(std::string_view text, bool toError);
    /// A line that isn't for programs, to the standard error stream.
    void tell(const std::string& line);
    /// How far a task is: to a terminal or to nobody.
    void showProgress(const std::string& line);
    /// Returns when all is written. @throw OutputError
    void flush();
    /// The last call: what was written still goes out, without `patience` only what is taken within a moment.
    void leave(bool patience);

    /// Called before and after text appears, so that a prompt can make room.
    std::function<void()> beforeText;
    std::function<void()> afterText;

    /// `text` with "^[" in place of escape, and so on for the other control characters but line end and
    /// tabulator; those beyond ASCII as "\x9b".
    static std::string toVisible(std::string_view text);

private:
    struct Stream {
        explicit Stream(int descriptor);
        void write(std::string_view text);

        OutputQueue queue;
        bool terminal;
    };
    void write(Stream& stream, std::string_view text);

    Stream _output;
    Stream _error;
    bool _together; ///< both lead to one terminal, file or pipe
};
