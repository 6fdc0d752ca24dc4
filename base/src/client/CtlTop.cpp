#include "client/CtlTop.h"

#include "client/CtlConsole.h"
#include "client/CtlInterrupt.h"
#include "client/CtlSession.h"
#include "client/TopFeed.h"
#include "client/TopScreen.h"

#include "platform/Thread.h"
#include "platform/Time.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace {

constexpr std::chrono::milliseconds ANSWER_TIME{15000}; ///< more than the server gives the ranks
constexpr double MIN_SECONDS = 0.1;                     ///< between two looks
constexpr double MAX_SECONDS = 3600.0;
constexpr double NOTICE_TIME = 10.0; ///< [s] for which a notice is shown
constexpr const char* PROMPT = "seconds between two looks: ";
constexpr const char* USAGE =
    "top takes -n COUNT, --seconds S (0.1 to 3600), --ranks and --sort P, M, W or N";

/// The number that the whole text is.
template <class T>
std::optional<T> toNumber(const std::string& text) {
    T number{};
    const auto [end, failed] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (failed != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return number;
}

std::optional<double> toSeconds(const std::string& text) {
    const std::optional<double> seconds = toNumber<double>(text);
    return seconds && *seconds >= MIN_SECONDS && *seconds <= MAX_SECONDS ? seconds : std::nullopt;
}

/// The escape codes of a style: the first with colours, the second without.
const char* escapeOf(TopStyle style, bool hasColours) {
    switch (style) {
    case TopStyle::TITLE:
        return "\033[1m";
    case TopStyle::HEAD:
        return "\033[1;4m";
    case TopStyle::SELECTED:
        return "\033[7m";
    case TopStyle::BAD:
        return hasColours ? "\033[1;31m" : "\033[1m";
    case TopStyle::SLOW:
        return hasColours ? "\033[1;33m" : "\033[1m";
    case TopStyle::MEMORY:
        return hasColours ? "\033[36m" : "";
    case TopStyle::FAINT:
        return hasColours ? "\033[90m" : "";
    case TopStyle::PLAIN:
        break;
    }
    return "";
}

/// All lines from the upper left corner; each one clears the rest of its row, where there is one.
std::string toPicture(const std::vector<TopScreen::Line>& lines, unsigned columns, bool hasColours) {
    std::string picture = "\033[H";
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::string escape = escapeOf(lines[i].style, hasColours);
        picture += (i == 0 ? "" : "\r\n") + escape + lines[i].text + (escape.empty() ? "" : "\033[0m");
        if (TopTable::widthOf(lines[i].text) < columns)
            picture += "\033[K";
    }
    return picture;
}

double now() {
    return Platform::time().getTime();
}

} // namespace

CtlTop::CtlTop(const CtlOptions& options, CtlSession& session, CtlConsole& console)
    : _options(options), _session(session), _console(console) {}

CtlTop::~CtlTop() = default;

void CtlTop::parse(const std::vector<CommandWords::Word>& arguments) {
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& word = arguments[i].text;
        if (word == "--ranks") {
            _view.showsRanks = true;
            continue;
        }
        const std::string value = ++i < arguments.size() ? arguments[i].text : std::string();
        if (word == "-n" && toNumber<unsigned>(value)) {
            _count = toNumber<unsigned>(value);
        } else if (word == "--seconds" && toSeconds(value)) {
            _view.seconds = *toSeconds(value);
        } else if (word != "--sort" || value.size() != 1 || !_view.setSort(value[0] & ~0x20)) {
            throw UsageError(USAGE);
        }
    }
}

int CtlTop::run(const std::vector<CommandWords::Word>& arguments) {
    parse(arguments);
    _view.isUtf8 = Platform::Terminal::isUtf8();
    const bool isPlain = _options.json || _count || !Platform::Terminal::isUsable();
    return isPlain ? runPlain() : runScreen();
}

int CtlTop::runPlain() {
    const CtlInterrupt interrupt(_session, _console);
    TopFeed feed(_session.getClient(), _session.getRecord().name, {});
    const unsigned count = _count.value_or(1);
    int result = ExitCode::SUCCESS;
    for (unsigned done = 0; count == 0 || done < count; ++done) {
        if (done > 0)
            Platform::time().sleep(_view.seconds);
        const TopFrame frame = feed.fetch(_view.getRequest(), _options.timeout.value_or(ANSWER_TIME));
        std::string text = done > 0 && !_options.json ? "\n" : "";
        if (_options.json)
            text += feed.getJson() + "\n";
        else
            for (const TopScreen::Line& line : TopScreen::drawPlain(frame, _view))
                text += line.text + "\n";
        _console.print(text);
        _console.flush();
        for (const std::string& notice : feed.takeNotices())
            _console.tell(notice);
        if (!frame.failure.empty())
            result = ExitCode::COMMAND_FAILED;
    }
    return result;
}

int CtlTop::runScreen() {
    _session.getClient().setInterruptCallback([] { return false; });
    std::exception_ptr failure;
    bool wasEnded = false;
    {
        Platform::Terminal terminal;
        _feed = std::make_unique<TopFeed>(_session.getClient(), _session.getRecord().name,
                                          [&terminal] { terminal.wake(); });
        Thread thread(*_feed, "orvex-top");
        thread.start();
        try {
            watch(terminal);
        } catch (const std::exception&) {
            failure = std::current_exception(); // is told on the screen of before
        }
        wasEnded = terminal.wasEnded();
        _feed->stop();
        thread.join();
    }
    takeNews();
    _session.getClient().setInterruptCallback(nullptr);
    for (const std::string& notice : _notices)
        _console.tell(notice);
    _feed.reset();
    if (failure)
        std::rethrow_exception(failure);
    return wasEnded ? ExitCode::GIVEN_UP : ExitCode::SUCCESS;
}

/// Returns when the user wants to leave.
void CtlTop::watch(Platform::Terminal& terminal) {
    _frameTime = _nextTime = now();
    _frame.session = _session.getRecord().name;
    while (true) {
        if (!_view.isPaused && now() >= _nextTime) {
            _feed->ask(_view.getRequest());
            _nextTime = now() + _view.seconds;
        }
        showFrame(terminal);
        const double until = _view.isPaused ? 1.0 : std::clamp(_nextTime - now(), 0.0, 1.0);
        const int key = terminal.waitForKey(until);
        takeNews();
        if (std::optional<TopFrame> frame = _feed->take()) {
            _frame = std::move(*frame);
            _hasFrame = true;
            _frameTime = now();
        }
        if (key == Platform::Terminal::LEAVE || (key != 0 && !onKey(key, terminal.getSize().rows)))
            return;
    }
}

void CtlTop::takeNews() {
    for (const std::string& notice : _feed->takeNotices()) {
        _notices.push_back(notice);
        _noticeTime = now();
    }
}

void CtlTop::showFrame(Platform::Terminal& terminal) {
    const Platform::Terminal::Size size = terminal.getSize();
    _frame.age = now() - _frameTime;
    const bool hasNotice = !_notices.empty() && now() - _noticeTime < NOTICE_TIME;
    _frame.notice = hasNotice ? _notices.back() : _hasFrame ? std::string() : "the server is asked";
    const std::vector<TopScreen::Line> lines = TopScreen::draw(_frame, _view, size.columns, size.rows);
    terminal.draw(toPicture(lines, size.columns, Platform::Terminal::hasColours()));
}

/// @return false to leave
bool CtlTop::onKey(int key, unsigned rows) {
    using Terminal = Platform::Terminal;
    if (!_view.prompt.empty()) {
        onPromptKey(key);
        return true;
    }
    if (_view.showsHelp) {
        _view.showsHelp = false;
        return true;
    }
    const long page = static_cast<long>(std::max(rows, 10U)) - 8;
    const std::array<std::pair<int, long>, 6> steps{{{Terminal::UP, -1},
                                                     {Terminal::DOWN, 1},
                                                     {Terminal::PAGE_UP, -page},
                                                     {Terminal::PAGE_DOWN, page},
                                                     {Terminal::HOME, -100000000},
                                                     {Terminal::END, 100000000}}};
    for (const auto& [each, lines] : steps)
        if (key == each)
            TopScreen::move(_frame, _view, rows, lines);
    const std::string request = _view.getRequest();
    switch (key) {
    case 'q':
        return false;
    case 'h':
    case '?':
    case Terminal::HELP:
        _view.showsHelp = true;
        break;
    case 'p':
        _view.isPaused = !_view.isPaused;
        break;
    case 'd':
    case 's':
        _view.prompt = PROMPT;
        break;
    case 'R':
        _view.isReversed = !_view.isReversed;
        break;
    case 'a':
        _view.showsAll = !_view.showsAll;
        break;
    case 'r':
        _view.switchLines();
        break;
    case Terminal::ENTER:
        _view.enter();
        break;
    default:
        _view.setSort(key);
    }
    if (key == ' ' || request != _view.getRequest()) {
        _feed->ask(_view.getRequest());
        _nextTime = now() + _view.seconds;
    }
    return true;
}

/// A number is typed.
void CtlTop::onPromptKey(int key) {
    constexpr int DELETE = 127;
    constexpr int BACKSPACE = 8;
    constexpr std::size_t MAX_LENGTH = 8;
    const std::string typed = _view.prompt.substr(std::string(PROMPT).size());
    if ((key >= '0' && key <= '9') || key == '.') {
        if (typed.size() < MAX_LENGTH)
            _view.prompt += static_cast<char>(key);
    } else if (key == DELETE || key == BACKSPACE) {
        if (!typed.empty())
            _view.prompt.pop_back();
    } else {
        _view.prompt.clear();
        if (key == Platform::Terminal::ENTER && toSeconds(typed)) {
            _view.seconds = *toSeconds(typed);
            _nextTime = now();
        }
    }
}
