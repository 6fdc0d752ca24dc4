#include "machine/LegalFileHelper.h"

#include "machine/GlobalErrorCheck.h"

#include "kernel/Properties.h"
#include "platform/FileSystem.h"
#include "platform/StringHelper.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace {

constexpr std::wstring_view RESTRICTED_IN_FILE = L"\\/:*?\"<>|!@$&()[]'`={},;";
constexpr std::wstring_view RESTRICTED_IN_PATH = L"*\"<>|!@$&[]'`={},;";
static_assert(RESTRICTED_IN_FILE.size() == 24 && RESTRICTED_IN_PATH.size() == 18);

constexpr std::wstring_view RESERVED[] = {
    L"AUX",  L"COM1", L"COM2", L"COM3", L"COM4", L"COM5", L"COM6", L"COM7", L"COM8", L"COM9", L"CON",
    L"LPT1", L"LPT2", L"LPT3", L"LPT4", L"LPT5", L"LPT6", L"LPT7", L"LPT8", L"LPT9", L"NUL",  L"PRN",
};

/// The part before the first ".", in upper case.
std::wstring stemOf(std::wstring_view name) {
    return StringHelper::toUpper(name.substr(0, name.find(L'.')));
}

/// The words for the two parts of a name in the objections.
constexpr const char* FILE_PART = "The file name ";
constexpr const char* PATH_PART = "The path name ";

std::string checkCharacters(const char* what, std::wstring_view part, std::wstring_view restricted) {
    if (part.find_first_of(restricted) == std::wstring_view::npos)
        return {};
    return std::string(what) + "contains one or more restricted characters:\n" +
           StringHelper::toString(restricted) + "\n\n";
}

/// A colon stands behind a drive letter, a question mark in the prefix of a long path.
std::string checkDriveAndPrefix(std::wstring_view path) {
    constexpr std::size_t NONE = std::wstring_view::npos;
    constexpr std::size_t BEHIND_DRIVE = 1;
    constexpr std::size_t BEHIND_PREFIXED_DRIVE = 5;
    const bool hasPrefix = path.starts_with(L"\\\\?\\");
    const std::size_t colon = path.find(L':');
    const std::size_t question = path.find(L'?');
    std::string objections;
    if (colon != NONE && colon != BEHIND_DRIVE && colon != BEHIND_PREFIXED_DRIVE)
        objections += "The path name contains illegal usage of the : character.\n\n\n";
    if (question != NONE && !(question == 2 && hasPrefix))
        objections += "The path name contains illegal usage of the ? character.\n\n\n";
    if (colon == BEHIND_PREFIXED_DRIVE && !hasPrefix)
        objections += "The path name contains illegal usage of the ? and : characters.\n\n\n";
    return objections;
}

std::string checkReservedNames(std::wstring_view file, std::wstring_view path, wchar_t separator) {
    std::string objections;
    if (std::find(std::begin(RESERVED), std::end(RESERVED), stemOf(file)) != std::end(RESERVED))
        objections += "The file name is illegal on Windows.  For portability reasons, it is not allowed.\n\n";
    const std::vector<std::wstring> folders = StringHelper::tokenize(path, std::wstring_view(&separator, 1));
    for (const std::wstring_view reserved : RESERVED)
        for (const std::wstring& folder : folders)
            if (stemOf(folder) == reserved)
                objections += "The path name contains " + StringHelper::toString(folder) +
                              ", which is illegal on Windows.\n\n";
    return objections;
}

std::string checkEnds(const char* what, std::wstring_view part) {
    if (part.empty()) // a folder's name with its separator, or a file of the root
        return {};
    std::string objections;
    const auto object = [&](const char* objection) { objections += std::string(what) + objection + "\n\n"; };
    if (part.front() == L'-')
        object("begins with a '-'.");
    if (part.front() == L' ')
        object("begins with a space.");
    if (part.back() == L' ')
        object("ends with a space.");
    if (part.back() == L'.')
        object("ends with a period.");
    return objections;
}

std::string checkPrintable(const char* what, std::wstring_view part) {
    constexpr wchar_t FIRST_PRINTABLE = 32;
    constexpr wchar_t DELETE = 127;
    std::string objections;
    for (const wchar_t character : part)
        if (character < FIRST_PRINTABLE || character == DELETE)
            objections += std::string(what) + "contains non-printable characters.\n\n";
    return objections;
}

} // namespace

std::string LegalFileHelper::checkFileNameIsLegal(const std::wstring& name) {
    const std::wstring full = Platform::filesystem().getFilePath(name);
    const wchar_t separator = Platform::filesystem().getSeparator();
    std::wstring_view file = full;
    std::wstring_view path = full; // a bare name has to be legal as either
    const std::size_t last = full.rfind(separator);
    if (last != std::wstring::npos) {
        file.remove_prefix(last + 1);
        path = path.substr(0, last);
    }
    return checkCharacters(FILE_PART, file, RESTRICTED_IN_FILE) +
           checkCharacters(PATH_PART, path, RESTRICTED_IN_PATH) + checkDriveAndPrefix(path) +
           checkReservedNames(file, path, separator) + checkEnds(FILE_PART, file) +
           checkEnds(PATH_PART, path) + checkPrintable(FILE_PART, file) + checkPrintable(PATH_PART, path);
}

std::wstring LegalFileHelper::getLegalFileNameFromProperties(const Properties& properties,
                                                             const std::string& key) {
    std::wstring name = properties.hasName(key) ? properties.getOrvexString(key) : std::wstring();
    if (name.empty())
        return name;
    const std::string message = checkFileNameIsLegal(name);
    ORVEX_GLOBAL_CHECK(message.empty(), GlobalCondition::ON_ALL_INVARIANT, InputError(message));
    return name;
}

std::string LegalFileHelper::getLegalFileNameFromProperties_Std(const Properties& properties,
                                                                const std::string& key) {
    return StringHelper::toString(getLegalFileNameFromProperties(properties, key));
}
