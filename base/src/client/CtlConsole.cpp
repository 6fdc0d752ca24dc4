#include "client/CtlConsole.h"

#include "platform/Io.h"
#include "platform/StringHelper.h"

#include <cstdio>

namespace {

constexpr std::chrono::milliseconds LAST_WORDS_TIME{500};

} // namespace

CtlConsole::Stream::Stream(int descriptor)
    : queue(descriptor), terminal(Platform::io().isTerminal(descriptor)) {}

void CtlConsole::Stream::write(std::string_view text) {
    queue.write(terminal ? toVisible(text) : text);
}

CtlConsole::CtlConsole()
    : _output(Platform::io().getDescriptor(stdout)), _error(Platform::io().getDescriptor(stderr)),
      _together(Platform::io().isSameFile(Platform::io().getDescriptor(stdout),
                                          Platform::io().getDescriptor(stderr))) {}

void CtlConsole::write(Stream& stream, std::string_view text) {
    if (_together) // in the order in which it came
        (&stream == &_output ? _error : _output).queue.flush();
    if (!beforeText) {
        stream.write(text);
        return;
    }
    beforeText();
    stream.write(text);
    stream.queue.flush();
    afterText();
}

void CtlConsole::print(std::string_view text) {
    write(_output, text);
}

void CtlConsole::show(std::string_view text, bool toError) {
    write(toError ? _error : _output, text);
}

void CtlConsole::tell(const std::string& line) {
    try {
        write(_error, line + "\n");
    } catch (const OutputError&) { // there is nobody to tell
    }
}

void CtlConsole::showProgress(const std::string& line) {
    if (_error.terminal)
        write(_error, line + "\n");
    else if (_output.terminal)
        write(_output, line + "\n");
}

void CtlConsole::flush() {
    _output.queue.flush();
    _error.queue.flush();
}

void CtlConsole::leave(bool patience) {
    for (Stream* stream : {&_error, &_output}) {
        try {
            patience ? stream->queue.flush() : stream->queue.flush(LAST_WORDS_TIME);
        } catch (const OutputError&) { // was told, where it could be
        }
    }
}

std::string CtlConsole::toVisible(std::string_view text) {
    static constexpr char HEX[] = "0123456789abcdef";
    const std::string valid = StringHelper::toValidUtf8(text);
    std::string visible;
    for (std::size_t i = 0; i < valid.size(); ++i) {
        const auto c = static_cast<unsigned char>(valid[i]);
        const auto next = static_cast<unsigned char>(valid[i + 1]); // 0 behind the last
        if (c == 0xC2 && next >= 0x80 && next < 0xA0) { // a control character of the second set, as UTF-8
            visible += std::string("\\x") + HEX[next >> 4] + HEX[next & 15];
            ++i;
        } else if (c == '\n' || c == '\t' || (c >= 0x20 && c != 0x7F))
            visible += valid[i];
        else if (c != '\r' || next != '\n')
            visible += std::string("^") + static_cast<char>(c ^ 0x40);
    }
    return visible;
}
