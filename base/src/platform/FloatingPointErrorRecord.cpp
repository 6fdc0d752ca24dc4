#include "platform/FloatingPointErrorRecord.h"

namespace {

std::string& getRecord() {
    static std::string record;
    return record;
}

} // namespace

void FloatingPointErrorRecord::set(const std::string& text) {
    getRecord() = text;
}

const std::string& FloatingPointErrorRecord::get() {
    return getRecord();
}

void FloatingPointErrorRecord::clear() {
    getRecord().clear();
}
