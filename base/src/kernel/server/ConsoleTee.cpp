#include "kernel/server/ConsoleTee.h"

#include <algorithm>
#include <utility>

ConsoleTee::ConsoleTee(std::ostream& stream, std::size_t limit, std::function<void()> onText)
    : _stream(stream), _beneath(stream.rdbuf()), _limit(limit), _onText(std::move(onText)) {
    _stream.rdbuf(this); // which clears the stream's state, too
}

ConsoleTee::~ConsoleTee() {
    if (_stream.rdbuf() == this)
        _stream.rdbuf(_beneath);
}

ConsoleTee::Text ConsoleTee::take() {
    const std::lock_guard lock(_textMutex);
    return {std::exchange(_text, std::string()), std::exchange(_lostLines, 0)};
}

ConsoleTee::int_type ConsoleTee::overflow(int_type c) {
    if (traits_type::eq_int_type(c, traits_type::eof()))
        return traits_type::not_eof(c);
    const char character = traits_type::to_char_type(c);
    return xsputn(&character, 1) == 1 ? c : traits_type::eof();
}

std::streamsize ConsoleTee::xsputn(const char* text, std::streamsize size) {
    if (size <= 0)
        return 0;
    forward(text, static_cast<std::size_t>(size));
    if (_wanted)
        keep(text, static_cast<std::size_t>(size));
    return size; // else the stream would refuse all that follows, and those who read along would get nothing
}

void ConsoleTee::forward(const char* text, std::size_t size) {
    const std::lock_guard lock(_forwardMutex);
    const std::streamsize written =
        tellLoss() ? _beneath->sputn(text, static_cast<std::streamsize>(size)) : 0;
    _lostBytes += size - static_cast<std::size_t>(std::max<std::streamsize>(written, 0));
}

/// Tells the buffer beneath what it lost. @return whether it takes text again
bool ConsoleTee::tellLoss() {
    if (_lostBytes > 0 && _pendingLoss.empty()) {
        const std::string line = describeLostOutput(_lostBytes);
        const std::streamsize written =
            _beneath->sputn(line.data(), static_cast<std::streamsize>(line.size()));
        if (written <= 0)
            return false;
        _lostBytes = 0;
        _pendingLoss = line.substr(static_cast<std::size_t>(written));
    }
    if (_pendingLoss.empty())
        return true;
    const std::streamsize written =
        _beneath->sputn(_pendingLoss.data(), static_cast<std::streamsize>(_pendingLoss.size()));
    _pendingLoss.erase(0, static_cast<std::size_t>(std::max<std::streamsize>(written, 0)));
    return _pendingLoss.empty();
}

int ConsoleTee::sync() {
    {
        // A flush that fails leaves its text with the buffer beneath, which tries it again with the next one.
        const std::lock_guard lock(_forwardMutex);
        static_cast<void>(_beneath->pubsync());
    }
    bool pending = false;
    if (_wanted) {
        const std::lock_guard lock(_textMutex);
        pending = !_text.empty();
    }
    if (pending)
        _onText();
    return 0;
}

void ConsoleTee::revive() {
    if (!_stream.good())
        _stream.clear();
}

void ConsoleTee::keep(const char* text, std::size_t size) {
    const auto lines = static_cast<std::size_t>(std::count(text, text + size, '\n'));
    {
        const std::lock_guard lock(_textMutex);
        if (_lostLines > 0 || _text.size() + size > _limit) {
            _lostLines += std::max<std::size_t>(lines, _lostLines == 0 ? 1 : 0);
            return;
        }
        _text.append(text, size);
    }
    if (lines > 0)
        _onText();
}
