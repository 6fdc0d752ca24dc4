#pragma once

#include "platform/PlatformExport.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

/// How the first process of a job learns why another one on its host ends: the dying one writes its reason
/// into a pipe, and one that dies without a word is seen to be gone.
class ORVEX_PLATFORM_EXPORT JobWatch {
public:
    /// @param index   of the process, in the order given to start()
    /// @param reason  its own words; empty when it has ended without any
    using Callback = std::function<void(std::size_t index, const std::string& reason)>;

    /// Told of the first end, once, on a thread of its own. @throw std::system_error without descriptors
    explicit JobWatch(Callback callback);
    JobWatch(const JobWatch&) = delete;
    JobWatch& operator=(const JobWatch&) = delete;
    /// Stops. Not from the callback.
    ~JobWatch();

    /// The place of the pipe for the other ranks; for openNews() on any host.
    std::string getAddress() const;
    /// Starts the thread. @param pids  one for each process; 0 for this one and for those of other hosts
    /// @throw std::system_error when the system has no thread left
    void start(const std::vector<int>& pids);
    /// Looks at once whether a process has ended. Any thread.
    bool hasLost() const;

    /// Opens the pipe of the first process. @return -1 when that isn't on this host, or can't be seen
    static int openNews(const std::string& address);
    /// Writes the reason of this end; one system call, no memory. @param descriptor  from openNews()
    static void tell(int descriptor, std::size_t index, std::string_view reason);

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};
