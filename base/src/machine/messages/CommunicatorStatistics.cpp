#include "machine/messages/CommunicatorStatistics.h"

#include "kernel/MessagingGate.h"

#include <utility>

CommunicatorStatistics* CommunicatorStatistics::_installed = nullptr;

CommunicatorStatistics::~CommunicatorStatistics() = default;

CommunicatorStatistics* CommunicatorStatistics::install(CommunicatorStatistics* statistics) {
    MessagingGate::set(MessagingGate::STATISTICS, statistics != nullptr);
    return std::exchange(_installed, statistics);
}
