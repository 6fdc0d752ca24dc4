#include "client/CtlPrompt.h"

#include "client/CtlConsole.h"
#include "client/CtlSession.h"
#include "client/OwnCommands.h"
#include "kernel/Command.h"

#include "platform/FileSystem.h"
#include "platform/Io.h"
#include "platform/Process.h"
#include "platform/StringHelper.h"
#include "platform/System.h"

#include <histedit.h>

#include <algorithm>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <utility>
#include <vector>

namespace {

constexpr char PROMPT[] = "orvex> ";
constexpr int HISTORY_SIZE = 1000;
constexpr std::size_t MAX_SHOWN = 100; ///< candidates of a completion

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
    Impl(CtlSession& theSession, CtlConsole& theConsole) : session(theSession), console(theConsole) {}

    static Impl& of(EditLine* editor) {
        void* data = nullptr;
        el_get(editor, EL_CLIENTDATA, &data);
        return *static_cast<Impl*>(data);
    }
    static char* prompt(EditLine*) { return const_cast<char*>(PROMPT); }
    static int getCharacter(EditLine* editor, wchar_t* character);
    static unsigned char complete(EditLine* editor, int);
    static unsigned char clearLine(EditLine* editor, int);
    static unsigned char suspend(EditLine* editor, int);

    std::vector<std::string> candidates(const std::string& before, std::string& begun);
    void showCandidates(const std::vector<std::string>& words);
    void loadHistory();
    void remember(const std::string& line);

    CtlSession& session;
    CtlConsole& console;
    EditLine* editor = nullptr;
    History* history = nullptr;
    std::string historyPath;
    std::vector<std::string> names; ///< of the server's commands
    bool waiting = false;           ///< the prompt is on the screen
    bool cleared = false;           ///< the line was given up
};

int CtlPrompt::Impl::getCharacter(EditLine* editor, wchar_t* character) {
    Impl& self = of(editor);
    self.waiting = true;
    try {
        self.session.getClient().waitForInput(Platform::io().getDescriptor(stdin));
    } catch (const std::exception& error) { // libedit is C: nothing may pass through it
        self.console.tell(error.what());
        self.session.getClient().close();
    }
    self.waiting = false;
    if (!self.session.getClient().isConnected()) {
        self.console.tell("\nThe server closed the connection.");
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
        const std::vector<std::string> own = OwnCommands::getNames();
        if (first != "list-commands" || blank == std::string::npos)
            words.insert(words.end(), own.begin(), own.end());
        if (blank == std::string::npos)
            words.emplace_back("quit");
    } else if (OwnCommands::isOne(first)) {
        words = OwnCommands::getOptions(first);
    } else {
        for (const CommandWords::KeyType& argument : session.getHelp(first).arguments)
            if (argument.key != CommandKey::ANY)
                words.push_back(argument.key + "=");
    }
    std::erase_if(words, [&](const std::string& word) { return !word.starts_with(begun); });
    std::sort(words.begin(), words.end());
    return words;
}

void CtlPrompt::Impl::showCandidates(const std::vector<std::string>& words) {
    std::string text = "\n";
    for (std::size_t i = 0; i < std::min(words.size(), MAX_SHOWN); ++i)
        text += words[i] + (i + 1 == words.size() ? "" : "  ");
    console.print(text + (words.size() > MAX_SHOWN ? "...\n" : "\n"));
    console.flush();
}

/// As a shell does: the line stays on the screen, and a new one begins.
unsigned char CtlPrompt::Impl::clearLine(EditLine* editor, int) {
    of(editor).cleared = true;
    return CC_NEWLINE;
}

unsigned char CtlPrompt::Impl::suspend(EditLine*, int) {
    std::raise(SIGTSTP); // the editor sees to the terminal
    return CC_NORM;
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
        self.showCandidates(words);
        return CC_REDISPLAY;
    } catch (const std::exception&) { // nothing to complete with; the next request tells why
        return CC_ERROR;
    }
}

/// Reads the history's file and writes it anew, without what is too old.
void CtlPrompt::Impl::loadHistory() {
    HistEvent event;
    history = history_init();
    ::history(history, &event, H_SETSIZE, HISTORY_SIZE);
    ::history(history, &event, H_SETUNIQUE, 1);
    const std::wstring directory = historyDirectory();
    if (directory.empty() || !Platform::filesystem().makePrivateDirectory(directory))
        return;
    const std::wstring path = directory + L"/history";
    const std::wstring shorter = path + L"." + std::to_wstring(Platform::process().getPid());
    historyPath = StringHelper::toString(path);
    ::history(history, &event, H_LOAD, historyPath.c_str()); // none yet: it is made now
    if (::history(history, &event, H_SAVE, StringHelper::toString(shorter).c_str()) < 0 ||
        Platform::filesystem().rename(shorter, path) != 0)
        Platform::filesystem().deleteFile(shorter); // on a full disk the history stays what it was
}

/// Adds the line to the history and, at once, to its file: others may add to it too, and this process may be
/// killed.
void CtlPrompt::Impl::remember(const std::string& line) {
    HistEvent event;
    ::history(history, &event, H_ENTER, line.c_str());
    std::FILE* const file = historyPath.empty() ? nullptr : std::fopen(historyPath.c_str(), "ae");
    if (!file)
        return;
    std::fseek(file, 0, SEEK_END); // so that the head of the file isn't written again
    ::history(history, &event, H_NSAVE_FP, std::size_t(0),
              file); // the newest; lost on a full disk, which harms nobody
    std::fclose(file);
}

CtlPrompt::CtlPrompt(CtlSession& session, CtlConsole& console)
    : _impl(std::make_unique<Impl>(session, console)) {
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
    el_set(editor, EL_ADDFN, "clear-line", "Give up the line", &Impl::clearLine);
    el_set(editor, EL_BIND, "^C", "clear-line", nullptr);
    el_set(editor, EL_ADDFN, "suspend", "Stop this process", &Impl::suspend);
    el_set(editor, EL_BIND, "^Z", "suspend", nullptr);
    el_set(editor, EL_SETTY, "-d", "-isig",
           nullptr); // while a line is edited, ^C and ^Z are keys like others
    _impl->loadHistory();
    el_set(editor, EL_HIST, ::history, _impl->history);
    console.beforeText = [this] {
        if (_impl->waiting)
            std::cout << "\r\033[K" << std::flush;
    };
    console.afterText = [this] {
        if (_impl->waiting)
            el_set(_impl->editor, EL_REFRESH);
    };
}

CtlPrompt::~CtlPrompt() {
    _impl->console.beforeText = nullptr;
    _impl->console.afterText = nullptr;
    history_end(_impl->history);
    el_end(_impl->editor);
}

std::optional<std::string> CtlPrompt::readLine() {
    int count = 0;
    const char* const line = el_gets(_impl->editor, &count);
    if (std::exchange(_impl->cleared, false)) {
        _impl->console.print("^C\n");
        return std::string();
    }
    if (!line || count <= 0) {
        _impl->console.print("\n");
        return std::nullopt;
    }
    std::string text(line, static_cast<std::size_t>(count));
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    if (text.find_first_not_of(' ') != std::string::npos)
        _impl->remember(text);
    return text;
}
