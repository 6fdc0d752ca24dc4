#include "kernel/ReportStream.h"

#include "platform/Io.h"

#include <atomic>

namespace {

constexpr int STANDARD_ERROR = 2;
std::atomic<int> reportDescriptor{STANDARD_ERROR};

} // namespace

void ReportStream::setDescriptor(int descriptor) {
    reportDescriptor = descriptor;
}

int ReportStream::getDescriptor() {
    return reportDescriptor;
}

void ReportStream::write(const std::string& text) {
    static_cast<void>(Platform::io().write(reportDescriptor, text.data(), text.size()));
}
