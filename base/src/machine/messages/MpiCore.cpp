#include "machine/MpiCore.h"

#include "machine/messages/OperationRecord.h"

#include "kernel/Raise.h"
#include "mpiwrapper/OxmMpi.h"

#include <algorithm>
#include <array>
#include <exception>
#include <iostream>

static_assert(MpiCore::ANY_TAG == OXM_MPI_ANY_TAG && MpiCore::ANY_SOURCE == OXM_MPI_ANY_SOURCE);

TypedSubject<> MpiCore::_onFinalizationObservable;
bool MpiCore::_isNotifyingFinalization = false;

namespace {

std::string getErrorText(int code) {
    std::array<char, OXM_MPI_MAX_ERROR_STRING> text{};
    int length = 0;
    // A code without a text still has to be reported, so this call's own result isn't looked at.
    OXM_MPI_Error_string(code, text.data(), &length);
    const auto end = static_cast<std::size_t>(std::max(length, 0));
    return std::string(text.data(), std::min(end, text.size()));
}

using TextGetter = int (*)(char*, int*, int);

std::string getName(TextGetter getter) {
    std::array<char, OXM_MPI_MAX_LIBRARY_VERSION_STRING> text{};
    int length = 0;
    MpiCore::handleError(getter(text.data(), &length, static_cast<int>(text.size())));
    text.back() = '\0';
    return text.data();
}

/// Keeps the mark of a running pass, also when an observer throws.
class Mark {
public:
    explicit Mark(bool& flag) : _flag(flag) { _flag = true; }
    ~Mark() { _flag = false; }
    Mark(const Mark&) = delete;
    Mark& operator=(const Mark&) = delete;

private:
    bool& _flag;
};

/// The surroundings are at fault: the network, another rank that is gone, the installation.
[[noreturn]] void raiseMpiError(const std::string& text) {
    Properties properties;
    properties.set(Error::KIND_TAG, Error::SYSTEM_KIND);
    raise(NonRecoverableError(text, properties));
}

} // namespace

void MpiCore::handleError(const int& code, const std::vector<OXM_MPI_Status_struct>& statuses) {
    if (code != 0)
        raiseError(code, statuses.data(), statuses.size());
}

void MpiCore::raiseError(int code) {
    raiseMpiError("MPI Error : " + getErrorText(code));
}

void MpiCore::raiseError(int code, const OXM_MPI_Status_struct* statuses, std::size_t count) {
    std::string text = "MPI Errors[" + std::to_string(code) + "] : ";
    if (code == OXM_MPI_ERR_IN_STATUS) {
        for (std::size_t i = 0; i < count; ++i)
            if (statuses[i].error != OXM_MPI_SUCCESS)
                text += "Status index[" + std::to_string(i) + "] : " + getErrorText(statuses[i].error) + "\n";
    } else {
        text += getErrorText(code);
    }
    std::cerr << "MPI Error : " << text << std::endl;
    raiseMpiError(text);
}

std::string MpiCore::getDistribName() {
    return getName(OXM_MPI_Get_mpi_name);
}

void MpiCore::setDistribName(const std::string& name) {
    handleError(OXM_MPI_Set_mpi_name(name.c_str(), static_cast<int>(name.size() + 1)));
}

std::string MpiCore::getMpiVersionName() {
    return getName(OXM_MPI_Get_mpi_version);
}

void MpiCore::setMpiVersionName(const std::string& name) {
    handleError(OXM_MPI_Set_mpi_version(name.c_str(), static_cast<int>(name.size() + 1)));
}

bool MpiCore::hasMpiSharedMemory() {
    int shmSupported = 0;
    ORVEX_ASSERT(OXM_MPI_Supports_v3_shared_memory(&shmSupported) == OXM_MPI_SUCCESS,
                 "MPI_Supports_v3_shared_memory failed");
    return shmSupported != 0;
}

bool MpiCore::disableCpuBindingCollisionTest() {
    int disable = 0;
    handleError(OXM_MPI_disable_cpu_bind_collision_test(&disable));
    return disable == 1;
}

void MpiCore::finalize() {
    std::exception_ptr failure; // of an observer, which keeps no process in the message layer
    if (!_isNotifyingFinalization) {
        const Mark mark(_isNotifyingFinalization);
        try {
            _onFinalizationObservable.notify();
        } catch (...) {
            failure = std::current_exception();
        }
    }
    static constexpr MessageOperation FINALIZE{"MpiCore::finalize"};
    const OperationRecord::Scope recorded(FINALIZE, 0);
    const int code = OXM_MPI_Finalize();
    if (failure)
        std::rethrow_exception(failure);
    handleError(code);
}
