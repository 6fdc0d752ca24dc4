#include "kernel/server/SessionLocator.h"

#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "kernel/SingletonCleaner.h"

#include "platform/FileSystem.h"
#include "platform/Io.h"
#include "platform/PrivateFile.h"
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
constexpr double WRITING_TIME = 3600.0;    ///< [s] after which a half-written record is a leftover

SessionLocator* singleton = nullptr;

/// The record to remove when the process ends in any way. The one that takes it out owns it.
std::atomic<std::wstring*> recordToRemove{nullptr};
std::atomic<int> recordOwner{0}; ///< a forked child must not remove its parent's

void removeRecord() {
    if (recordOwner.load() != Platform::process().getPid())
        return;
    const std::unique_ptr<std::wstring> path(recordToRemove.exchange(nullptr));
    if (path)
        Platform::filesystem().deleteFile(*path); // nothing can be done about a file that won't go
}

/// Both sides must come to the same places, so the environment is not asked.
std::vector<std::wstring> standardDirectories() {
    std::vector<std::wstring> directories;
    const std::wstring home = Platform::system().getHomeDirectory();
    if (!home.empty() && Platform::filesystem().isDirectory(home))
        directories.push_back(home + L"/.local/state/orvex/sessions");
    directories.push_back(L"/tmp/orvex-" + std::to_wstring(Platform::system().getUserId()) + L"/sessions");
    return directories;
}

/// Unlike that of any other server whose records may lie in the same directory: hosts and containers that
/// share it may bear one name, and their processes one number.
std::wstring fileNameOf(const SessionRecord& record) {
    std::string name = record.host + "-" + record.boot.substr(0, 8) + "-" +
                       std::to_string(record.pidNamespace) + "-" + std::to_string(record.pid);
    for (char& c : name)
        if (c == '/' || static_cast<unsigned char>(c) < 0x21)
            c = '_';
    return StringHelper::toWString(name) + EXTENSION;
}

bool isRecordName(const std::wstring& name) {
    return name.ends_with(EXTENSION);
}

/// A record is written under a longer name first, which stays when its writer dies at that moment.
bool isLeftover(const std::wstring& directory, const std::wstring& name) {
    const double written =
        Platform::filesystem().getModificationTime(Platform::filesystem().join(directory, name));
    return name.find(EXTENSION + std::wstring(L".")) != std::wstring::npos && written > 0.0 &&
           Platform::time().getSecondsSinceEpoch() - written > WRITING_TIME;
}

/// The names of the records in `directory`; leftovers are removed on the way.
std::vector<std::wstring> listRecords(const std::wstring& directory) {
    std::vector<std::wstring> directories;
    std::vector<std::wstring> files;
    // A directory that isn't there holds no sessions.
    Platform::filesystem().listDirectory(directory, directories, files);
    for (const std::wstring& name : files)
        if (isLeftover(directory, name))
            Platform::filesystem().deleteFile(
                Platform::filesystem().join(directory, name)); // another process may have been faster
    std::erase_if(files, [](const std::wstring& name) { return !isRecordName(name); });
    if (files.size() > MAX_RECORDS)
        files.resize(MAX_RECORDS);
    return files;
}

/// @param reason  gets why there is none, in words that begin with the path
std::optional<SessionRecord> readPrivateRecord(const std::wstring& path, std::string& reason) {
    std::optional<SessionRecord> record;
    if (const auto text = Platform::PrivateFile::read(path, SessionRecord::MAX_TEXT_SIZE, reason)) {
        record = SessionRecord::fromText(*text);
        reason = "it holds no session record";
    }
    if (record)
        record->path = path;
    reason.insert(0, StringHelper::toString(path) + ": ");
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
    record.boot = Platform::system().getBootId();
    record.pidNamespace = Platform::process().getPidNamespace();
    std::string reasons;
    for (const std::wstring& directory : _impl->directories) {
        record.path = Platform::filesystem().join(directory, fileNameOf(record));
        const bool made = Platform::filesystem().makePrivateDirectory(directory);
        const std::string weakness = made ? Platform::PrivateFile::findWeakness(directory)
                                          : "the folder can't be had for this user alone";
        if (!weakness.empty() || !Platform::filesystem().writePrivateFile(record.path, record.toText())) {
            reasons += "; " + StringHelper::toString(directory) + ": " +
                       (weakness.empty() ? "the record can't be written" : weakness);
            continue;
        }
        listRecords(directory);
        const std::lock_guard lock(_impl->mutex);
        [[maybe_unused]] static const int registered = std::atexit(&SessionLocator::cleanup);
        recordOwner = record.pid;
        delete recordToRemove.exchange(new std::wstring(record.path));
        _impl->published = std::move(record);
        _impl->withdrawn = false;
        return;
    }
    raise(SystemError("There is no place for the session record" + reasons));
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

std::vector<SessionRecord> SessionLocator::findSessions(std::vector<std::string>* ignored) const {
    std::vector<SessionRecord> sessions;
    for (const std::wstring& directory : _impl->directories) {
        for (const std::wstring& name : listRecords(directory)) {
            const std::wstring path = Platform::filesystem().join(directory, name);
            std::string reason;
            std::optional<SessionRecord> record = readPrivateRecord(path, reason);
            if (!record) {
                if (ignored && Platform::filesystem().exists(path)) // else its server has just ended
                    ignored->push_back(reason);
            } else if (record->isVisible() && !record->isAliveHere())
                Platform::filesystem().deleteFile(record->path); // another client may have been faster
            else if (record->listed)
                sessions.push_back(std::move(*record));
        }
    }
    std::stable_sort(sessions.begin(), sessions.end(), [](const SessionRecord& a, const SessionRecord& b) {
        return a.startTime > b.startTime;
    });
    const auto elsewhere = std::stable_partition(sessions.begin(), sessions.end(),
                                                 [](const auto& each) { return each.isOnThisHost(); });
    std::stable_partition(sessions.begin(), elsewhere, [](const auto& each) { return each.isVisible(); });
    return sessions;
}

SessionRecord SessionLocator::readRecord(const std::wstring& path) {
    std::string reason;
    const std::optional<SessionRecord> record = readPrivateRecord(path, reason);
    if (!record)
        raise(InputError("The session record can't be used: " + reason));
    return *record;
}
