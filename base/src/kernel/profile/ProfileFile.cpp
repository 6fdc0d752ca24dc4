#include "kernel/profile/ProfileFile.h"

#include "platform/FileSystem.h"
#include "platform/MappedFile.h"
#include "platform/Memory.h"
#include "platform/Process.h"
#include "platform/StringHelper.h"
#include "platform/System.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <optional>

namespace {

constexpr std::size_t MAX_FILES = 10000; ///< of one folder that are looked at

/// Both the writer and the readers come to the same places.
std::vector<std::string> standardFolders() {
    std::vector<std::string> folders{Platform::Memory::SHARED_MEMORY_FOLDER};
    const std::optional<std::string> own = Platform::system().getEnvironment("XDG_RUNTIME_DIR");
    if (own && own->starts_with('/'))
        folders.push_back(*own);
    return folders;
}

std::vector<std::string>& folders() {
    static std::vector<std::string> folders = standardFolders();
    return folders;
}

std::string prefix() {
    return "orvex-profile-" + std::to_string(Platform::system().getUserId()) + "-";
}

/// Unlike that of any other process whose file may lie there: containers may share the folder.
std::string nameOf(const ProfileLayout::Header& header) {
    return prefix() + std::to_string(header.pidNamespace) + "-" + std::to_string(header.pid) + "-" +
           std::to_string(header.startStamp);
}

void identify(ProfileLayout::Header& header) {
    header.version = ProfileLayout::VERSION;
    header.byteOrder = ProfileLayout::BYTE_ORDER_MARK;
    header.size = sizeof(ProfileLayout::Page);
    header.pid = Platform::process().getPid();
    header.startStamp = Platform::process().getStartStamp(header.pid);
    header.pidNamespace = Platform::process().getPidNamespace();
    const std::string bootId = Platform::system().getBootId();
    std::memcpy(header.bootId, bootId.data(), std::min(bootId.size(), sizeof header.bootId - 1));
}

} // namespace

std::unique_ptr<ProfileFile> ProfileFile::create(std::string* reason) {
    std::string reasons;
    const auto add = [&reasons](const std::string& text) { reasons += (reasons.empty() ? "" : "; ") + text; };
    ProfileLayout::Header header{};
    identify(header);
    for (const std::string& folder : folders()) {
        if (!Platform::MappedFile::isMemory(folder)) {
            add("the files of " + folder + " don't lie in memory");
            continue;
        }
        const std::string path = folder + "/" + nameOf(header);
        std::string trouble;
        if (auto file = Platform::MappedFile::create(path, sizeof(ProfileLayout::Page), trouble))
            return std::unique_ptr<ProfileFile>(new ProfileFile(std::move(file), path));
        add(trouble);
    }
    if (reason != nullptr)
        *reason = reasons;
    return nullptr;
}

ProfileFile::ProfileFile(std::unique_ptr<Platform::MappedFile> file, const std::string& path)
    : _file(std::move(file)), _path(path), _owner(Platform::process().getPid()) {
    identify((new (_file->getData()) ProfileLayout::Page{})->header);
}

ProfileFile::~ProfileFile() {
    if (!_isKept && _owner == Platform::process().getPid())
        remove(_path); // nothing can be done about a file that won't go
}

ProfileLayout::Page& ProfileFile::getPage() {
    return *std::launder(static_cast<ProfileLayout::Page*>(_file->getData()));
}

std::vector<std::string> ProfileFile::find() {
    std::vector<std::string> paths;
    for (const std::string& folder : folders()) {
        std::vector<std::wstring> directories;
        std::vector<std::wstring> files;
        // A folder that isn't there holds no profiles.
        Platform::filesystem().listDirectory(StringHelper::toWString(folder), directories, files);
        std::erase_if(files, [start = StringHelper::toWString(prefix())](const std::wstring& name) {
            return !name.starts_with(start);
        });
        files.resize(std::min(files.size(), MAX_FILES));
        for (const std::wstring& name : files)
            paths.push_back(folder + "/" + StringHelper::toString(name));
    }
    return paths;
}

bool ProfileFile::remove(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash != std::string::npos && path.compare(slash + 1, prefix().size(), prefix()) == 0 &&
           Platform::filesystem().deleteFile(StringHelper::toWString(path));
}

void ProfileFile::setFolders(const std::vector<std::string>& list) {
    folders() = list;
}
