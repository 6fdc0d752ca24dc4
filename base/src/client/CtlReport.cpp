#include "client/CtlReport.h"

#include "client/OutputQueue.h"
#include "client/report/ReportData.h"
#include "client/report/ReportPage.h"
#include "client/report/ReportText.h"

#include "platform/FileSystem.h"
#include "platform/Process.h"
#include "platform/StringHelper.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace {

/// `path`, or the file that it leads to as a symbolic link.
std::string behindLinks(const std::string& path) {
    std::error_code failure;
    const std::filesystem::path target = std::filesystem::canonical(path, failure);
    return failure ? path : target.string();
}

/// For a file's name: letters, digits and a few signs.
std::string nameOf(const std::string& session) {
    constexpr std::size_t LONGEST = 60;
    std::string name = session.substr(session.rfind('/') + 1).substr(0, LONGEST);
    std::replace_if(
        name.begin(), name.end(),
        [](unsigned char c) { return !std::isalnum(c) && c != '.' && c != '-' && c != '_'; }, '_');
    return name.empty() || name.front() == '.' ? "job" + name : name;
}

[[noreturn]] void fail(const std::string& path, int reason) {
    throw OutputError("The report can't be written to " + path + ": " + std::strerror(reason));
}

void writeAll(const std::string& path, const char* mode, std::string_view text,
              const std::string& shownPath) {
    std::FILE* const file = std::fopen(path.c_str(), mode);
    if (!file)
        fail(shownPath, errno);
    int reason = std::fwrite(text.data(), 1, text.size(), file) == text.size() ? 0 : errno;
    if (std::fclose(file) != 0 && reason == 0)
        reason = errno;
    if (reason != 0 && path != shownPath)
        std::remove(path.c_str());
    if (reason != 0)
        fail(shownPath, reason);
}

/// In one step: the old file stays until the new one is complete. Devices and pipes are written to directly.
void writeFile(const std::string& path, std::string_view text) {
    const std::wstring wide = Platform::filesystem().fromSystem(path);
    if (Platform::filesystem().isDirectory(wide))
        fail(path, EISDIR);
    if (Platform::filesystem().exists(wide) && Platform::filesystem().getSize(wide) < 0)
        return writeAll(path, "wb", text, path);
    const std::string target = behindLinks(path);
    const std::string temporary = target + ".new-" + std::to_string(Platform::process().getPid());
    writeAll(temporary, "wbx", text, path);
    if (std::rename(temporary.c_str(), target.c_str()) != 0) {
        const int reason = errno;
        std::remove(temporary.c_str());
        fail(path, reason);
    }
}

} // namespace

CtlReport CtlReport::parse(const std::vector<CommandWords::Word>& words) {
    CtlReport report;
    for (std::size_t i = 0; i < words.size(); i += 2) {
        std::string* const value = words[i].text == "--output" ? &report.output
                                   : words[i].text == "--from" ? &report.from
                                                               : nullptr;
        if (!value || i + 1 == words.size() || words[i + 1].text.empty())
            throw UsageError("report takes --output FILE and --from FILE");
        *value = words[i + 1].text;
    }
    return report;
}

bool CtlReport::isOffline(const std::vector<std::string>& words) {
    return !words.empty() && words.front() == "report" &&
           std::find(words.begin(), words.end(), "--from") != words.end();
}

std::string CtlReport::read() const {
    const std::wstring path = Platform::filesystem().fromSystem(from);
    std::string text;
    if (!Platform::filesystem().readFile(path, text, ReportData::MAX_SIZE))
        throw UsageError(Platform::filesystem().getSize(path) > static_cast<long long>(ReportData::MAX_SIZE)
                             ? "The profile " + from + " is larger than " +
                                   std::to_string(ReportData::MAX_SIZE >> 20) + " MiB"
                             : "The profile " + from + " can't be read: " + std::strerror(errno));
    return text;
}

std::string CtlReport::write(std::string_view profile, const std::string& session, bool json,
                             CtlConsole& console) const {
    const ReportData data =
        ReportData::parse(profile); // also before it is saved: a damaged one is told at once
    const std::string text = json ? std::string(profile) + "\n" : ReportPage::make(data);
    if (output == "-" || (json && output.empty())) {
        console.print(text);
        return {};
    }
    std::string path = output;
    if (path.empty()) {
        std::string time = ReportText::time(data.written);
        std::erase_if(time, [](char c) { return c == '-' || c == ':'; });
        std::replace(time.begin(), time.end(), ' ', '-');
        path = "orvex-report-" + nameOf(data.session.empty() ? session : data.session) +
               (time.empty() ? "" : "-" + time) + ".html";
    }
    writeFile(path, text);
    return (json ? "The profile is in " : "The report is in ") + behindLinks(path);
}
