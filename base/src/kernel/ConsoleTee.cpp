#include "kernel/ConsoleTee.h"

#include <algorithm>
#include <utility>

ConsoleTee::ConsoleTee(std::ostream& stream, std::size_t limit, std::function<void()> onText)
    : _stream(stream), _beneath(stream.rdbuf()), _limit(limit), _onText(std::move(onText)) {
    _stream.rdbuf(this);
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
    std::streamsize written = 0;
    {
        const std::lock_guard lock(_forwardMutex);
        written = _beneath->sputn(text, size);
    }
    if (_wanted && size > 0)
        keep(text, static_cast<std::size_t>(size));
    return written;
}

int ConsoleTee::sync() {
    int result = 0;
    {
        const std::lock_guard lock(_forwardMutex);
        result = _beneath->pubsync();
    }
    bool pending = false;
    if (_wanted) {
        const std::lock_guard lock(_textMutex);
        pending = !_text.empty();
    }
    if (pending)
        _onText();
    return result;
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
