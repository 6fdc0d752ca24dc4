#include "kernel/SessionLocator.h"

#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "kernel/SingletonCleaner.h"

#include "platform/FileSystem.h"
#include "platform/Io.h"
#include "platform/Process.h"
#include "platform/StringHelper.h"
#include "platform/System.h"
#include "platform/Time.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <mutex>

namespace {

constexpr wchar_t EXTENSION[] = L".session";
constexpr std::size_t MAX_RECORDS = 10000; ///< of one directory that are looked at

SessionLocator* singleton = nullptr;

/// The record to remove when the process dies on whatever way; owned by whoever takes it out.
std::atomic<std::wstring*> recordToRemove{nullptr};
std::atomic<int> recordOwner{0}; ///< a forked child must not remove its parent's

void removeRecord() {
    if (recordOwner.load() != Platform::process().getPid())
        return;
    const std::unique_ptr<std::wstring> path(recordToRemove.exchange(nullptr));
    if (path)
        Platform::filesystem().deleteFile(*path); // nothing can be done about a file that won't go
}

/// Both sides must come to the same places whatever their environment says, so none is asked.
std::vector<std::wstring> standardDirectories() {
    std::vector<std::wstring> directories;
    const std::wstring home = Platform::system().getHomeDirectory();
    if (!home.empty() && Platform::filesystem().isDirectory(home))
        directories.push_back(home + L"/.local/state/orvex/sessions");
    directories.push_back(L"/tmp/orvex-" + std::to_wstring(Platform::system().getUserId()) + L"/sessions");
    return directories;
}

/// The host name as part of a file name.
std::wstring fileNameOf(const SessionRecord& record) {
    std::string name = record.host;
    for (char& c : name)
        if (c == '/' || static_cast<unsigned char>(c) < 0x21)
            c = '_';
    return StringHelper::toWString(name) + L"-" + std::to_wstring(record.pid) + EXTENSION;
}

bool isRecordName(const std::wstring& name) {
    return name.ends_with(EXTENSION);
}

std::optional<SessionRecord> readPrivateRecord(const std::wstring& path) {
    std::string text;
    if (!Platform::filesystem().isPrivateFile(path) ||
        !Platform::filesystem().readFile(path, text, SessionRecord::MAX_TEXT_SIZE))
        return std::nullopt;
    std::optional<SessionRecord> record = SessionRecord::fromText(text);
    if (record)
        record->path = path;
    return record;
}

} // namespace

struct SessionLocator::Impl {
    mutable std::mutex mutex;
    std::function<void()> abortCallback;
    unsigned numberProcesses = 1;
    std::vector<std::wstring> directories = standardDirectories();
    std::optional<SessionRecord> published;
    bool withdrawn = false;
};

SessionLocator::SessionLocator() : _impl(std::make_unique<Impl>()) {
    SingletonCleaner::registerReset(&SessionLocator::reset);
}

SessionLocator::~SessionLocator() {
    withdraw();
}

SessionLocator& SessionLocator::getSingleton() {
    if (!singleton)
        singleton = new SessionLocator;
    return *singleton;
}

void SessionLocator::reset() {
    delete singleton;
    singleton = nullptr;
}

void SessionLocator::setAbortCallback(std::function<void()> callback) {
    _impl->abortCallback = std::move(callback);
}

const std::function<void()>& SessionLocator::getAbortCallback() const {
    return _impl->abortCallback;
}

void SessionLocator::setNumberProcesses(unsigned count) {
    _impl->numberProcesses = count;
}

unsigned SessionLocator::getNumberProcesses() const {
    return _impl->numberProcesses;
}

void SessionLocator::setDirectory(const std::wstring& path) {
    _impl->directories = {path};
}

void SessionLocator::publish(SessionRecord record) {
    withdraw();
    record.host = Platform::io().getHostName();
    record.pid = Platform::process().getPid();
    record.startStamp = Platform::process().getStartStamp(record.pid);
    record.ranks = _impl->numberProcesses;
    record.startTime = Platform::time().getSecondsSinceEpoch();
    record.user = Platform::system().getUserName();
    std::wstring tried;
    for (const std::wstring& directory : _impl->directories) {
        tried += (tried.empty() ? L"" : L", ") + directory;
        record.path = directory + L"/" + fileNameOf(record);
        if (!Platform::filesystem().makePrivateDirectory(directory) ||
            !Platform::filesystem().writePrivateFile(record.path, record.toText()))
            continue;
        const std::lock_guard lock(_impl->mutex);
        [[maybe_unused]] static const int registered = std::atexit(&SessionLocator::cleanup);
        recordOwner = record.pid;
        delete recordToRemove.exchange(new std::wstring(record.path));
        _impl->published = std::move(record);
        _impl->withdrawn = false;
        return;
    }
    raise(
        SystemError("The session record can't be written: none of these directories can be had for this user "
                    "alone: " +
                    StringHelper::toString(tried)));
}

void SessionLocator::withdraw() {
    const std::lock_guard lock(_impl->mutex);
    removeRecord();
    _impl->published.reset();
    _impl->withdrawn = true;
}

void SessionLocator::cleanup() noexcept {
    try {
        removeRecord();
    } catch (...) { // NOLINT: the process dies; a record that stays is found stale by the next client
    }
}

bool SessionLocator::isRunning() const {
    const std::lock_guard lock(_impl->mutex);
    return _impl->published.has_value();
}

bool SessionLocator::stopRequested() const {
    const std::lock_guard lock(_impl->mutex);
    return _impl->withdrawn;
}

void SessionLocator::getInfo(Properties& info) const {
    const std::lock_guard lock(_impl->mutex);
    if (_impl->published)
        info = _impl->published->describe();
}

std::wstring SessionLocator::getRecordPath() const {
    const std::lock_guard lock(_impl->mutex);
    return _impl->published ? _impl->published->path : std::wstring();
}

std::vector<SessionRecord> SessionLocator::findSessions() const {
    std::vector<SessionRecord> here;
    std::vector<SessionRecord> elsewhere;
    for (const std::wstring& directory : _impl->directories) {
        std::vector<std::wstring> directories;
        std::vector<std::wstring> files;
        // A directory that isn't there holds no sessions.
        Platform::filesystem().listDirectory(directory, directories, files);
        std::erase_if(files, [](const std::wstring& name) { return !isRecordName(name); });
        if (files.size() > MAX_RECORDS)
            files.resize(MAX_RECORDS);
        for (const std::wstring& name : files) {
            std::optional<SessionRecord> record = readPrivateRecord(directory + L"/" + name);
            if (!record)
                continue;
            if (record->isOnThisHost() && !record->isAliveHere())
                Platform::filesystem().deleteFile(record->path); // another client may have been faster
            else if (record->listed)
                (record->isOnThisHost() ? here : elsewhere).push_back(std::move(*record));
        }
    }
    const auto newer = [](const SessionRecord& a, const SessionRecord& b) {
        return a.startTime > b.startTime;
    };
    std::stable_sort(here.begin(), here.end(), newer);
    std::stable_sort(elsewhere.begin(), elsewhere.end(), newer);
    here.insert(here.end(), elsewhere.begin(), elsewhere.end());
    return here;
}

SessionRecord SessionLocator::readRecord(const std::wstring& path) {
    const std::string name = StringHelper::toString(path);
    if (!Platform::filesystem().exists(path))
        raise(InputError("There is no session record " + name));
    if (!Platform::filesystem().isPrivateFile(path))
        raise(InputError("The session record " + name +
                         " isn't a file of this user that nobody else can read, so its key isn't trusted"));
    std::optional<SessionRecord> record = readPrivateRecord(path);
    if (!record)
        raise(InputError("The file " + name + " holds no session record"));
    return *record;
}
