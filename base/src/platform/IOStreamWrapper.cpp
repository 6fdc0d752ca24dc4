#include "platform/IOStreamWrapper.h"

IOStreamWrapper::IOStreamWrapper(std::ios& stream) : _ios(&stream) {}

IOStreamWrapper::~IOStreamWrapper() = default;

std::ios_base::fmtflags IOStreamWrapper::flags(std::ios_base::fmtflags flags) {
    return _ios->flags(flags);
}
std::ios_base::fmtflags IOStreamWrapper::flags() const {
    return _ios->flags();
}
std::ios_base::fmtflags IOStreamWrapper::setf(std::ios_base::fmtflags flags) {
    return _ios->setf(flags);
}
std::ios_base::fmtflags IOStreamWrapper::setf(std::ios_base::fmtflags flags, std::ios_base::fmtflags mask) {
    return _ios->setf(flags, mask);
}
void IOStreamWrapper::unsetf(std::ios_base::fmtflags flags) {
    _ios->unsetf(flags);
}
std::streamsize IOStreamWrapper::precision(std::streamsize precision) {
    return _ios->precision(precision);
}
std::streamsize IOStreamWrapper::precision() const {
    return _ios->precision();
}
std::streamsize IOStreamWrapper::width(std::streamsize width) {
    return _ios->width(width);
}
std::streamsize IOStreamWrapper::width() const {
    return _ios->width();
}
char IOStreamWrapper::fill(char character) {
    return _ios->fill(character);
}
char IOStreamWrapper::fill() const {
    return _ios->fill();
}
bool IOStreamWrapper::good() const {
    return _ios->good();
}
bool IOStreamWrapper::bad() const {
    return _ios->bad();
}
bool IOStreamWrapper::fail() const {
    return _ios->fail();
}
bool IOStreamWrapper::eof() const {
    return _ios->eof();
}
void IOStreamWrapper::clear(std::ios_base::iostate state) {
    _ios->clear(state);
}
bool IOStreamWrapper::operator!() const {
    return _ios->operator!();
}
void IOStreamWrapper::setBroadcastFlag(const bool&) {}
