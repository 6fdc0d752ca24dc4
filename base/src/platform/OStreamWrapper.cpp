#include "platform/OStreamWrapper.h"

OStreamWrapper::OStreamWrapper(std::ostream& stream) : IOStreamWrapper(stream), _ostream(&stream) {}

OStreamWrapper::~OStreamWrapper() = default;

OStreamWrapper& OStreamWrapper::operator<<(std::ios_base& (*manipulator)(std::ios_base&)) {
    *_ostream << manipulator;
    return *this;
}

OStreamWrapper& OStreamWrapper::operator<<(std::ios& (*manipulator)(std::ios&)) {
    *_ostream << manipulator;
    return *this;
}

OStreamWrapper& OStreamWrapper::operator<<(std::ostream& (*manipulator)(std::ostream&)) {
    *_ostream << manipulator;
    return *this;
}

OStreamWrapper& OStreamWrapper::operator<<(OStreamWrapper& (*manipulator)(OStreamWrapper&)) {
    return manipulator(*this);
}

OStreamWrapper& OStreamWrapper::operator<<(std::streambuf* source) {
    *_ostream << source;
    return *this;
}

OStreamWrapper& OStreamWrapper::operator<<(const void* value) {
    *_ostream << value;
    return *this;
}

OStreamWrapper& OStreamWrapper::operator<<(long double value) {
    *_ostream << value;
    return *this;
}

OStreamWrapper& OStreamWrapper::operator<<(double value) {
    *_ostream << value;
    return *this;
}

OStreamWrapper& OStreamWrapper::operator<<(float value) {
    *_ostream << value;
    return *this;
}

OStreamWrapper& OStreamWrapper::operator<<(unsigned long long value) {
    *_ostream << value;
    return *this;
}

OStreamWrapper& OStreamWrapper::operator<<(long long value) {
    *_ostream << value;
    return *this;
}

OStreamWrapper& OStreamWrapper::operator<<(unsigned long value) {
    *_ostream << value;
    return *this;
}

OStreamWrapper& OStreamWrapper::operator<<(long value) {
    *_ostream << value;
    return *this;
}

OStreamWrapper& OStreamWrapper::operator<<(unsigned int value) {
    *_ostream << value;
    return *this;
}

OStreamWrapper& OStreamWrapper::operator<<(int value) {
    *_ostream << value;
    return *this;
}

OStreamWrapper& OStreamWrapper::operator<<(unsigned short value) {
    *_ostream << value;
    return *this;
}

OStreamWrapper& OStreamWrapper::operator<<(short value) {
    *_ostream << value;
    return *this;
}

OStreamWrapper& OStreamWrapper::operator<<(bool value) {
    *_ostream << value;
    return *this;
}

OStreamWrapper& OStreamWrapper::operator<<(const std::string& text) {
    *_ostream << text;
    return *this;
}

OStreamWrapper& OStreamWrapper::operator<<(const unsigned char* text) {
    *_ostream << text;
    return *this;
}

OStreamWrapper& OStreamWrapper::operator<<(const char* text) {
    *_ostream << text;
    return *this;
}

OStreamWrapper& OStreamWrapper::operator<<(unsigned char value) {
    *_ostream << value;
    return *this;
}

OStreamWrapper& OStreamWrapper::operator<<(char value) {
    *_ostream << value;
    return *this;
}

OStreamWrapper& OStreamWrapper::write(const char* data, std::streamsize count) {
    _ostream->write(data, count);
    return *this;
}

OStreamWrapper& OStreamWrapper::flush() {
    _ostream->flush();
    return *this;
}

OStreamWrapper& OStreamWrapper::put(char character) {
    _ostream->put(character);
    return *this;
}

OStreamWrapper& OStreamWrapper::seekp(std::streamoff offset, std::ios_base::seekdir direction) {
    _ostream->seekp(offset, direction);
    return *this;
}

OStreamWrapper& OStreamWrapper::seekp(std::streampos position) {
    _ostream->seekp(position);
    return *this;
}

std::streampos OStreamWrapper::tellp() {
    return _ostream->tellp();
}
