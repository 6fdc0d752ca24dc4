#include "machine/GlobalFloatingPointExceptionStatus.h"

#include "machine/GlobalFloatingPointError.h"

#include "kernel/FpeAgnosticMode.h"
#include "kernel/FriendKey.h"
#include "kernel/IsolatedFpuContext.h"
#include "kernel/SignalHandler.h"
#include "platform/FloatingPointErrorRecord.h"
#include "platform/FpuHandling.h"

/// The one place of this library that holds the keys to the status flags.
class FpuAccess {
public:
    static bool hasPendingFault() {
        return !FpeAgnosticMode::isActive() && !IsolatedFpuContext::isActive(FriendKey<FpuAccess>()) &&
               !SignalHandler::_catchFpeSignals && !FpuHandling::isFpeStatusClear(FpeStatusReadAccessKey());
    }

    /// Whether a fault is recorded.
    static bool hasRecord() { return !FloatingPointErrorRecord::get().empty(); }

    /// The text of the pending fault, which is then cleared.
    static std::string takeFault() {
        std::string text = FpuHandling::getFpeStatusAsString(FpeStatusReadAccessKey());
        FpuHandling::clearFpeStatus(FpeStatusWriteAccessKey());
        return text;
    }
};

void GlobalFloatingPointExceptionStatus::TestAndSaveLocalContext(const char* context) {
    if (!FpuAccess::hasPendingFault())
        return;
    std::string text = FpuAccess::takeFault();
    if (context != nullptr)
        text.append(", context: ").append(context);
    else if (FpuAccess::hasRecord())
        return; // its text may name the cause of these flags
    else
        text += ", the specific cause cannot be identified";
    FloatingPointErrorRecord::set(text);
}

void GlobalFloatingPointExceptionStatus::TestAndSaveLocalContext(const std::string& context) {
    TestAndSaveLocalContext(context.c_str());
}

void GlobalFloatingPointExceptionStatus::AssertNoException(AssertNoFpeAccessKey) {
    TestAndSaveLocalContext(nullptr);
    GlobalFloatingPointError::assertNoError();
}
