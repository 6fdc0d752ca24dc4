#include "platform/IStreamWrapper.h"

#include <algorithm>

namespace {

/// Extracts a word of at most width() - 1 characters, when a width is set, with a terminating zero behind it.
template <class Character>
void extractWord(std::istream& stream, Character* target) {
    const std::streamsize room = stream.width();
    std::string word;
    if (room == 1)
        stream.setstate(std::ios_base::failbit); // no room for a character
    else
        stream.width(room > 1 ? room - 1 : 0);
    stream >> word;
    stream.width(0);
    *std::copy(word.begin(), word.end(), target) = Character{};
}

} // namespace

IStreamWrapper::IStreamWrapper(std::istream& stream) : IOStreamWrapper(stream), _istream(&stream) {}

IStreamWrapper::~IStreamWrapper() = default;

IStreamWrapper& IStreamWrapper::operator>>(std::ios_base& (*manipulator)(std::ios_base&)) {
    *_istream >> manipulator;
    return *this;
}

IStreamWrapper& IStreamWrapper::operator>>(std::ios& (*manipulator)(std::ios&)) {
    *_istream >> manipulator;
    return *this;
}

IStreamWrapper& IStreamWrapper::operator>>(std::istream& (*manipulator)(std::istream&)) {
    *_istream >> manipulator;
    return *this;
}

IStreamWrapper& IStreamWrapper::operator>>(IStreamWrapper& (*manipulator)(IStreamWrapper&)) {
    return manipulator(*this);
}

IStreamWrapper& IStreamWrapper::operator>>(std::streambuf* target) {
    *_istream >> target;
    return *this;
}

IStreamWrapper& IStreamWrapper::operator>>(void*& value) {
    *_istream >> value;
    return *this;
}

IStreamWrapper& IStreamWrapper::operator>>(long double& value) {
    *_istream >> value;
    return *this;
}

IStreamWrapper& IStreamWrapper::operator>>(double& value) {
    *_istream >> value;
    return *this;
}

IStreamWrapper& IStreamWrapper::operator>>(float& value) {
    *_istream >> value;
    return *this;
}

IStreamWrapper& IStreamWrapper::operator>>(unsigned long long& value) {
    *_istream >> value;
    return *this;
}

IStreamWrapper& IStreamWrapper::operator>>(long long& value) {
    *_istream >> value;
    return *this;
}

IStreamWrapper& IStreamWrapper::operator>>(unsigned int& value) {
    *_istream >> value;
    return *this;
}

IStreamWrapper& IStreamWrapper::operator>>(int& value) {
    *_istream >> value;
    return *this;
}

IStreamWrapper& IStreamWrapper::operator>>(unsigned short& value) {
    *_istream >> value;
    return *this;
}

IStreamWrapper& IStreamWrapper::operator>>(short& value) {
    *_istream >> value;
    return *this;
}

IStreamWrapper& IStreamWrapper::operator>>(bool& value) {
    *_istream >> value;
    return *this;
}

IStreamWrapper& IStreamWrapper::operator>>(std::string& word) {
    *_istream >> word;
    return *this;
}

IStreamWrapper& IStreamWrapper::operator>>(unsigned char* word) {
    extractWord(*_istream, word);
    return *this;
}

IStreamWrapper& IStreamWrapper::operator>>(char* word) {
    extractWord(*_istream, word);
    return *this;
}

IStreamWrapper& IStreamWrapper::operator>>(unsigned char& value) {
    *_istream >> value;
    return *this;
}

IStreamWrapper& IStreamWrapper::operator>>(char& value) {
    *_istream >> value;
    return *this;
}

IStreamWrapper& IStreamWrapper::read(char* target, std::streamsize count) {
    _istream->read(target, count);
    return *this;
}

bool IStreamWrapper::get(char* target, std::streamsize count) {
    return !_istream->get(target, count).fail();
}

bool IStreamWrapper::get(char& character) {
    return !_istream->get(character).fail();
}

int IStreamWrapper::get() {
    return _istream->get();
}

bool IStreamWrapper::getline(char* target, std::streamsize count) {
    return !_istream->getline(target, count).fail();
}

IStreamWrapper& IStreamWrapper::ignore(std::streamsize count, int delimiter) {
    _istream->ignore(count, delimiter);
    return *this;
}

int IStreamWrapper::peek() {
    return _istream->peek();
}

IStreamWrapper& IStreamWrapper::putback(char character) {
    _istream->putback(character);
    return *this;
}

IStreamWrapper& IStreamWrapper::seekg(std::streamoff offset, std::ios_base::seekdir direction) {
    _istream->seekg(offset, direction);
    return *this;
}

IStreamWrapper& IStreamWrapper::seekg(std::streampos position) {
    _istream->seekg(position);
    return *this;
}

std::streampos IStreamWrapper::tellg() {
    return _istream->tellg();
}

std::streamsize IStreamWrapper::gcount() const {
    return _istream->gcount();
}

IStreamWrapper& IStreamWrapper::operator>>(unsigned long& value) {
    static_assert(sizeof(unsigned long) == sizeof(unsigned long long));
    unsigned long long wide = value;
    operator>>(wide);
    value = wide;
    return *this;
}

IStreamWrapper& IStreamWrapper::operator>>(long& value) {
    static_assert(sizeof(long) == sizeof(long long));
    long long wide = value;
    operator>>(wide);
    value = wide;
    return *this;
}
