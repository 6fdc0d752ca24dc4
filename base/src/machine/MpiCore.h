#pragma once

#include "kernel/TypedSubject.h"
#include "machine/MachineExport.h"

#include <string>
#include <vector>

struct OXM_MPI_Status_struct;

/// The thin layer over the MPI wrapper: return codes become errors, and a few questions about the driver that
/// runs. Only static members; never instantiated.
///
/// Main thread, except handleError(), which runs wherever the wrapper call ran.
class ORVEX_MACHINE_EXPORT MpiCore {
public:
    class DerivedDatatype;
    class MpiWallTimer;
    class PersistentRequestStack;
    class RequestStack;

    /// Matches any tag of a message that is received or probed.
    static constexpr unsigned ANY_TAG = 0x7FFFFFFF;
    /// Matches any source.
    static constexpr unsigned ANY_SOURCE = 0x7FFFFFFF;

    MpiCore() = delete;

    /// Does nothing for the code 0.
    /// @throw NonRecoverableError with the wrapper's text of `code`
    static void handleError(const int& code) {
        if (code != 0) [[unlikely]]
            raiseError(code);
    }
    /// The same for a call that filled one status.
    static void handleError(const int& code, const OXM_MPI_Status_struct& status) {
        if (code != 0) [[unlikely]]
            raiseError(code, &status, 1);
    }
    /// The same for a call that filled statuses; the text, which also goes to the standard error stream,
    /// names each failed one by its index.
    static void handleError(const int& code, const std::vector<OXM_MPI_Status_struct>& statuses);

    /// The name and the version of the MPI library, for reports.
    static std::string getDistribName();
    static void setDistribName(const std::string& name);
    static std::string getMpiVersionName();
    static void setMpiVersionName(const std::string& name);

    /// Whether shared-memory windows work with the driver that runs. Asked afresh at each call.
    /// @throw InternalError when the driver can't tell
    static bool hasMpiSharedMemory();
    /// Whether the driver says that a test for processes bound to the same processor is meaningless.
    static bool disableCpuBindingCollisionTest();

    /// Told just before the message layer closes, so that the owners of its resources let go of them.
    static TypedSubject<>& getOnFinalizationObservable() { return _onFinalizationObservable; }
    /// Tells the observers, then closes the message layer, also when one of them raises; what it raised comes
    /// out afterwards. Called from within one of these observers, it closes at once. Collective over the job.
    static void finalize();

private:
    friend class RequestStack;

    [[noreturn]] static void raiseError(int code);
    [[noreturn]] static void raiseError(int code, const OXM_MPI_Status_struct* statuses, std::size_t count);

    static TypedSubject<> _onFinalizationObservable;
    static bool _isNotifyingFinalization;
};
