#include "client/CtlPrompt.h"

#include "client/CtlSession.h"

#include "platform/FileSystem.h"
#include "platform/Io.h"
#include "platform/StringHelper.h"
#include "platform/System.h"

#include <histedit.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <iostream>
#include <vector>

namespace {

constexpr char PROMPT[] = "orvex> ";
constexpr int HISTORY_SIZE = 1000;
constexpr std::size_t MAX_SHOWN = 100; ///< candidates of a completion
const std::vector<std::string> OWN_WORDS{"help",   "list-commands", "list-sessions", "status",
                                         "cancel", "stop",          "abort",         "quit"};

std::wstring historyDirectory() {
    const std::wstring home = Platform::system().getHomeDirectory();
    return home.empty() ? std::wstring() : home + L"/.local/state/orvex";
}

std::string commonBeginning(const std::vector<std::string>& texts) {
    std::string common = texts.front();
    for (const std::string& text : texts)
        common.resize(static_cast<std::size_t>(
            std::mismatch(common.begin(), common.end(), text.begin(), text.end()).first - common.begin()));
    return common;
}

/// Reads the rest of a UTF-8 character whose first byte is there.
bool readCharacter(int first, wchar_t& character) {
    const unsigned byte = static_cast<unsigned>(first);
    const int more = byte >= 0xF0 ? 3 : byte >= 0xE0 ? 2 : byte >= 0xC0 ? 1 : 0;
    std::string bytes(1, static_cast<char>(first));
    for (int i = 0; i < more; ++i) {
        const int next = std::getc(stdin);
        if (next == EOF)
            return false;
        bytes += static_cast<char>(next);
    }
    const std::wstring wide = StringHelper::toWString(bytes);
    character = wide.empty() ? L'?' : wide.front();
    return true;
}

} // namespace

struct CtlPrompt::Impl {
    explicit Impl(CtlSession& theSession) : session(theSession) {}

    static Impl& of(EditLine* editor) {
        void* data = nullptr;
        el_get(editor, EL_CLIENTDATA, &data);
        return *static_cast<Impl*>(data);
    }
    static char* prompt(EditLine*) { return const_cast<char*>(PROMPT); }
    static int getCharacter(EditLine* editor, wchar_t* character);
    static unsigned char complete(EditLine* editor, int);

    std::vector<std::string> candidates(const std::string& before, std::string& begun);
    void loadHistory();
    void saveHistory();

    CtlSession& session;
    EditLine* editor = nullptr;
    History* history = nullptr;
    std::string historyPath;
    std::vector<std::string> names; ///< of the server's commands
    bool waiting = false;           ///< the prompt is on the screen
};

int CtlPrompt::Impl::getCharacter(EditLine* editor, wchar_t* character) {
    Impl& self = of(editor);
    self.waiting = true;
    try {
        self.session.getClient().waitForInput(Platform::io().getDescriptor(stdin));
    } catch (const std::exception& error) { // libedit is C: nothing may pass through it
        std::cerr << error.what() << std::endl;
        self.session.getClient().close();
    }
    self.waiting = false;
    if (!self.session.getClient().isConnected()) {
        std::cerr << "\nThe server closed the connection." << std::endl;
        return 0;
    }
    const int first = std::getc(stdin);
    return first != EOF && readCharacter(first, *character) ? 1 : 0;
}

std::vector<std::string> CtlPrompt::Impl::candidates(const std::string& before, std::string& begun) {
    const std::size_t blank = before.rfind(' ');
    begun = blank == std::string::npos ? before : before.substr(blank + 1);
    std::vector<std::string> words;
    const std::string first = before.substr(0, before.find(' '));
    const bool namesCommand = blank == std::string::npos || first == "help" || first == "list-commands";
    if (namesCommand) {
        if (names.empty())
            names = session.getCommandNames();
        words = names;
        if (blank == std::string::npos)
            words.insert(words.end(), OWN_WORDS.begin(), OWN_WORDS.end());
    } else {
        for (const CommandWords::KeyType& argument : session.getHelp(first).arguments)
            words.push_back(argument.key + "=");
    }
    std::erase_if(words, [&](const std::string& word) { return !word.starts_with(begun); });
    std::sort(words.begin(), words.end());
    return words;
}

unsigned char CtlPrompt::Impl::complete(EditLine* editor, int) {
    Impl& self = of(editor);
    try {
        const LineInfo* line = el_line(editor);
        std::string begun;
        const std::vector<std::string> words =
            self.candidates(std::string(line->buffer, line->cursor), begun);
        if (words.empty())
            return CC_ERROR;
        std::string rest = commonBeginning(words).substr(begun.size());
        if (words.size() == 1 && !words.front().ends_with('='))
            rest += ' ';
        if (!rest.empty())
            return el_insertstr(editor, rest.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
        std::cout << '\n';
        for (std::size_t i = 0; i < std::min(words.size(), MAX_SHOWN); ++i)
            std::cout << words[i] << (i + 1 == words.size() ? "" : "  ");
        std::cout << (words.size() > MAX_SHOWN ? "..." : "") << std::endl;
        return CC_REDISPLAY;
    } catch (const std::exception&) { // nothing to complete with; the next request tells why
        return CC_ERROR;
    }
}

void CtlPrompt::Impl::loadHistory() {
    HistEvent event;
    history = history_init();
    ::history(history, &event, H_SETSIZE, HISTORY_SIZE);
    ::history(history, &event, H_SETUNIQUE, 1);
    const std::wstring directory = historyDirectory();
    if (directory.empty() || !Platform::filesystem().makePrivateDirectory(directory))
        return;
    historyPath = StringHelper::toString(directory + L"/history");
    ::history(history, &event, H_LOAD, historyPath.c_str()); // none yet: it is made at the end
}

void CtlPrompt::Impl::saveHistory() {
    HistEvent event;
    if (!historyPath.empty())
        ::history(history, &event, H_SAVE, historyPath.c_str()); // lost on a full disk, which harms nobody
}

CtlPrompt::CtlPrompt(CtlSession& session) : _impl(std::make_unique<Impl>(session)) {
    std::setlocale(LC_CTYPE, "C.UTF-8");     // for the editor's characters; all our text is UTF-8
    std::setvbuf(stdin, nullptr, _IONBF, 0); // a byte that lies in a buffer would not wake the waiting
    _impl->editor = el_init("orvexctl", stdin, stdout, stderr);
    EditLine* const editor = _impl->editor;
    el_set(editor, EL_CLIENTDATA, _impl.get());
    el_set(editor, EL_PROMPT, &Impl::prompt);
    el_set(editor, EL_EDITOR, "emacs");
    el_set(editor, EL_SIGNAL, 1);
    el_set(editor, EL_GETCFN, &Impl::getCharacter);
    el_set(editor, EL_ADDFN, "complete", "Complete a command or an argument", &Impl::complete);
    el_set(editor, EL_BIND, "^I", "complete", nullptr);
    _impl->loadHistory();
    el_set(editor, EL_HIST, ::history, _impl->history);
    session.beforeText = [this] {
        if (_impl->waiting)
            std::cout << "\r\033[K";
    };
    session.afterText = [this] {
        if (_impl->waiting)
            el_set(_impl->editor, EL_REFRESH);
    };
}

CtlPrompt::~CtlPrompt() {
    _impl->session.beforeText = nullptr;
    _impl->session.afterText = nullptr;
    _impl->saveHistory();
    history_end(_impl->history);
    el_end(_impl->editor);
}

std::optional<std::string> CtlPrompt::readLine() {
    int count = 0;
    const char* const line = el_gets(_impl->editor, &count);
    if (!line || count <= 0) {
        std::cout << std::endl;
        return std::nullopt;
    }
    std::string text(line, static_cast<std::size_t>(count));
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    if (text.find_first_not_of(' ') != std::string::npos) {
        HistEvent event;
        ::history(_impl->history, &event, H_ENTER, text.c_str());
    }
    return text;
}
