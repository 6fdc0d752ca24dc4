#pragma once

#include "kernel/KernelExport.h"
#include "kernel/SessionRecord.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

class Properties;

/// Tells clients of the same user what runs on this host, through the session records.
///
/// A record lies in a directory that its user alone may enter, below the home directory or, for a user
/// without one, below the temporary directory. A record whose process is gone is removed by whoever comes
/// across it.
class ORVEX_KERNEL_EXPORT SessionLocator {
public:
    static SessionLocator& getSingleton();
    /// Withdraws this process's record and destroys the instance.
    static void reset();

    /// What ends the job for the Server when that has no abort callback of its own.
    void setAbortCallback(std::function<void()> callback);
    const std::function<void()>& getAbortCallback() const;
    void setNumberProcesses(unsigned count);
    unsigned getNumberProcesses() const;
    /// Where records are kept instead of the user's own places. Before anything else is asked.
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

    /// The listed sessions of this user, newest first; stale records of this host are removed on the way.
    /// Sessions of other hosts, which a shared home directory shows, can't be tested and come last.
    std::vector<SessionRecord> findSessions() const;
    /// The record in a file that this user alone can read.
    /// @throw InputError when it isn't such a file or holds no record
    static SessionRecord readRecord(const std::wstring& path);

private:
    struct Impl;
    SessionLocator();
    ~SessionLocator();
    std::unique_ptr<Impl> _impl;
};
