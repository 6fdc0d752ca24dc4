#pragma once

#include "kernel/KernelExport.h"
#include "kernel/server/SessionRecord.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

class Properties;

/// Tells clients of the same user what runs on this host, through the session records.
///
/// A record lies in a directory that its user alone may enter, below the home directory or, for a user
/// without one, below the temporary directory. The next look at the records removes that of a process which
/// is gone, but never the record of a server that can't be seen: one of another host, another boot of this
/// host, or another container.
class ORVEX_KERNEL_EXPORT SessionLocator {
public:
    static SessionLocator& getSingleton();
    /// Withdraws this process's record and destroys the instance.
    static void reset();

    /// Ends the job for a Server that has no abort callback of its own.
    void setAbortCallback(std::function<void()> callback);
    const std::function<void()>& getAbortCallback() const;
    void setNumberProcesses(unsigned count);
    unsigned getNumberProcesses() const;
    /// Keeps records in this folder instead of the user's own places. Call it before anything else.
    void setDirectory(const std::wstring& path);

    /// Writes this process's record; fills in who, where and when this process is. Replaces an earlier one.
    /// @throw SystemError when no directory can be had that is this user's alone
    void publish(SessionRecord record);
    /// Removes this process's record; without one it has no effect. Any thread.
    void withdraw();
    /// The same for a process that dies: takes no lock and never throws. Any thread, not in a signal handler.
    static void cleanup() noexcept;

    /// True while this process's record stands.
    bool isRunning() const;
    /// True when there is no record to wait for: it was withdrawn.
    bool stopRequested() const;
    /// This process's session in words, without the key; left alone when there is none.
    void getInfo(Properties& info) const;
    /// The path of this process's record, empty when there is none.
    std::wstring getRecordPath() const;

    /// The listed sessions of this user: first those that are seen to live, then those that bear this host's
    /// name and can't be seen, then those of other hosts, which a shared home directory shows; the newest
    /// first among each. Records of dead processes and half-written ones of long ago are removed on the way.
    /// @param ignored  gets, for each record that isn't for its user alone or is none, why it was left out
    std::vector<SessionRecord> findSessions(std::vector<std::string>* ignored = nullptr) const;
    /// The record in a file that this user alone can read, in a folder that no other user can change.
    /// @throw InputError when it isn't such a file or holds no record
    static SessionRecord readRecord(const std::wstring& path);

private:
    struct Impl;
    SessionLocator();
    ~SessionLocator();
    std::unique_ptr<Impl> _impl;
};
