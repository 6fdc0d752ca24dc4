#include "machine/InputFileStream.h"

#include "machine/Communicator.h"
#include "machine/MachineGround.h"

#include "kernel/Raise.h"
#include "platform/FileSystem.h"

#include <algorithm>
#include <utility>

InputFileStream::InputFileStream(std::shared_ptr<std::ifstream> stream)
    : IStreamWrapper(*stream), _stream(std::move(stream)), _isReader(MachineGround::isSerialOrMaster()) {}

InputFileStream::InputFileStream() : InputFileStream(std::make_shared<std::ifstream>()) {}

InputFileStream::InputFileStream(const char* path) : InputFileStream() {
    // Only the reader touches the file: thousands of ranks at once would be a burden to the file system.
    if (_isReader)
        openHere(path);
}

InputFileStream::~InputFileStream() = default;

void InputFileStream::openHere(const char* path) {
    // The standard stream keeps the file that it has when it can't open another.
    if (_stream->is_open())
        _stream->close();
    // It would also open a directory, which fails at the first read only, or wait for the writer of a pipe.
    if (Platform::filesystem().canBeRead(Platform::filesystem().fromSystem(path)))
        _stream->open(path, std::ios_base::in | std::ios_base::binary);
    else
        _stream->setstate(std::ios_base::failbit);
}

bool InputFileStream::open(const char* path) {
    if (_isReader)
        openHere(path);
    return is_open();
}

void InputFileStream::close() {
    if (_isReader)
        _stream->close();
}

bool InputFileStream::is_open() const {
    bool isOpen = _isReader ? _stream->is_open() : true;
    if (MachineGround::isParallel())
        MachineGround::globalCommunicator().broadcast(isOpen, Communicator::_master);
    return isOpen;
}

void InputFileStream::setBroadcastFlag(const bool& on) {
    _broadcast = MachineGround::isParallel() && on;
}

template <class T>
void InputFileStream::share(T& value) const {
    if (_broadcast)
        MachineGround::globalCommunicator().broadcast(value, Communicator::_master);
}

void InputFileStream::share(char* characters, std::streamsize count) const {
    if (_broadcast)
        MachineGround::globalCommunicator().broadcast(
            characters, static_cast<std::size_t>(std::max<std::streamsize>(count, 0)), Communicator::_master);
}

template <class T>
IStreamWrapper& InputFileStream::extract(T& value) {
    if (_isReader)
        IStreamWrapper::operator>>(value);
    share(value);
    return *this;
}

bool InputFileStream::good() const {
    bool result = _isReader ? IStreamWrapper::good() : true;
    share(result);
    return result;
}

bool InputFileStream::bad() const {
    bool result = _isReader && IStreamWrapper::bad();
    share(result);
    return result;
}

bool InputFileStream::fail() const {
    bool result = _isReader && IStreamWrapper::fail();
    share(result);
    return result;
}

bool InputFileStream::eof() const {
    bool result = _isReader ? IStreamWrapper::eof() : true;
    share(result);
    return result;
}

IStreamWrapper& InputFileStream::operator>>(std::streambuf* target) {
    return _isReader ? IStreamWrapper::operator>>(target) : *this;
}

IStreamWrapper& InputFileStream::operator>>(void*& value) {
    return _isReader ? IStreamWrapper::operator>>(value) : *this;
}

IStreamWrapper& InputFileStream::operator>>(long double& value) {
    return extract(value);
}

IStreamWrapper& InputFileStream::operator>>(double& value) {
    return extract(value);
}

IStreamWrapper& InputFileStream::operator>>(float& value) {
    return extract(value);
}

IStreamWrapper& InputFileStream::operator>>(unsigned long long& value) {
    return extract(value);
}

IStreamWrapper& InputFileStream::operator>>(long long& value) {
    return extract(value);
}

IStreamWrapper& InputFileStream::operator>>(unsigned int& value) {
    return extract(value);
}

IStreamWrapper& InputFileStream::operator>>(int& value) {
    return extract(value);
}

IStreamWrapper& InputFileStream::operator>>(unsigned short& value) {
    return extract(value);
}

IStreamWrapper& InputFileStream::operator>>(short& value) {
    return extract(value);
}

IStreamWrapper& InputFileStream::operator>>(bool& value) {
    return extract(value);
}

IStreamWrapper& InputFileStream::operator>>(std::string& word) {
    return extract(word);
}

IStreamWrapper& InputFileStream::operator>>(unsigned char* word) {
    if (_isReader)
        IStreamWrapper::operator>>(word);
    return refuseToShare();
}

IStreamWrapper& InputFileStream::operator>>(char* word) {
    if (_isReader)
        IStreamWrapper::operator>>(word);
    return refuseToShare();
}

IStreamWrapper& InputFileStream::refuseToShare() {
    ORVEX_ASSERT_AS(!_broadcast, "false", "Not implemented yet");
    return *this;
}

IStreamWrapper& InputFileStream::operator>>(unsigned char& value) {
    return extract(value);
}

IStreamWrapper& InputFileStream::operator>>(char& value) {
    return extract(value);
}

IStreamWrapper& InputFileStream::read(char* target, std::streamsize count) {
    if (_isReader)
        IStreamWrapper::read(target, count);
    share(target, count);
    return *this;
}

bool InputFileStream::get(char* target, std::streamsize count) {
    bool result = _isReader ? IStreamWrapper::get(target, count) : true;
    share(target, count);
    share(result);
    return result;
}

bool InputFileStream::get(char& character) {
    bool result = _isReader ? IStreamWrapper::get(character) : true;
    share(character);
    share(result);
    return result;
}

int InputFileStream::get() {
    int result = _isReader ? IStreamWrapper::get() : -1;
    share(result);
    return result;
}

bool InputFileStream::getline(char* target, std::streamsize count) {
    bool result = _isReader ? IStreamWrapper::getline(target, count) : true;
    share(target, count);
    share(result);
    return result;
}

int InputFileStream::peek() {
    int result = _isReader ? IStreamWrapper::peek() : -1;
    share(result);
    return result;
}

std::streampos InputFileStream::tellg() {
    if (!_broadcast)
        return _isReader ? IStreamWrapper::tellg() : std::streampos(0);
    long long offset = _isReader ? static_cast<long long>(std::streamoff(IStreamWrapper::tellg())) : 0;
    share(offset);
    return std::streampos(offset);
}

std::streamsize InputFileStream::gcount() const {
    long long count = _isReader ? IStreamWrapper::gcount() : 0;
    share(count);
    return count;
}
