#include "machine/OutputFileStream.h"

#include "machine/Communicator.h"
#include "machine/MachineGround.h"

#include "platform/FileSystem.h"

#include <utility>

OutputFileStream::OutputFileStream(std::shared_ptr<std::ofstream> stream)
    : SlaveOmittedOutputStream(*stream), _stream(std::move(stream)) {}

OutputFileStream::OutputFileStream() : OutputFileStream(std::make_shared<std::ofstream>()) {}

OutputFileStream::OutputFileStream(const char* path) : OutputFileStream() {
    if (holdsCondition()) // a second process would cut off the output of the first
        openHere(path, std::ios_base::out);
}

OutputFileStream::~OutputFileStream() = default;

void OutputFileStream::openHere(const char* path, std::ios_base::openmode mode) {
    // The standard stream would keep its file when it can't open another, or wait for the reader of a pipe.
    if (_stream->is_open())
        _stream->close();
    if (Platform::filesystem().canBeWritten(Platform::filesystem().fromSystem(path)))
        _stream->open(path, mode);
    else
        _stream->setstate(std::ios_base::failbit);
}

bool OutputFileStream::share(bool value) const {
    if (_broadcast)
        MachineGround::globalCommunicator().broadcast(value, Communicator::_master);
    return value;
}

bool OutputFileStream::good() const {
    return share(holdsCondition() ? SlaveOmittedOutputStream::good() : true);
}

bool OutputFileStream::bad() const {
    return share(holdsCondition() && SlaveOmittedOutputStream::bad());
}

bool OutputFileStream::fail() const {
    return share(holdsCondition() && SlaveOmittedOutputStream::fail());
}

bool OutputFileStream::eof() const {
    return share(holdsCondition() && SlaveOmittedOutputStream::eof());
}

void OutputFileStream::setBroadcastFlag(const bool& on) {
    _broadcast = MachineGround::isParallel() && on;
}

bool OutputFileStream::open(const char* path, int mode) {
    if (holdsCondition())
        openHere(path, static_cast<std::ios_base::openmode>(mode));
    return is_open();
}

bool OutputFileStream::open(const char* path) {
    return OutputFileStream::open(path, std::ios_base::out | std::ios_base::binary);
}

void OutputFileStream::close() {
    if (holdsCondition())
        _stream->close();
}

bool OutputFileStream::is_open() const {
    bool isOpen = holdsCondition() ? _stream->is_open() : true;
    if (MachineGround::isParallel())
        MachineGround::globalCommunicator().broadcast(isOpen, Communicator::_master);
    return isOpen;
}
