#include "machine/files/ParallelConsoleBuf.h"

#include "machine/AtExitRegister.h"
#include "machine/MachineGround.h"

#include "kernel/server/ConsoleTee.h"
#include "platform/FileSystem.h"
#include "platform/Io.h"
#include "platform/Lock.h"
#include "platform/Mutex.h"

#include <algorithm>
#include <cerrno>
#include <iomanip>
#include <sstream>

namespace {

constexpr int STANDARD_OUTPUT = 1; ///< the descriptor, also when it was redirected

/// Guards all console buffers of the process and what goes out through them. Never destroyed: whatever is
/// destroyed at the end of the process may still print.
Mutex& _consoleMutex = *new Mutex;

/// "Proc[<rank>] : ", in columns for up to 99 ranks.
std::string rankPrefix() {
    std::ostringstream prefix;
    prefix << "Proc[" << std::setw(MachineGround::nProcesses() > 9 ? 2 : 1) << MachineGround::getPartitionId()
           << "] : ";
    return prefix.str();
}

} // namespace

ParallelConsoleBuf::ParallelConsoleBuf(std::ostream& target, const std::string& logDirectory, bool logFile,
                                       bool console, int bufferSize)
    : _bufferSize(static_cast<std::size_t>(std::max(bufferSize, 1))), _logDirectory(logDirectory),
      _target(&target) {
    _buffer.reserve(_bufferSize);
    _savedBuffer = _target->rdbuf(this);
    static_cast<void>(enableLogFile(logFile)); // output is never a reason to fail
    enableConsole(console);
}

ParallelConsoleBuf::~ParallelConsoleBuf() {
    _target->rdbuf(_savedBuffer);
    static_cast<void>(enableLogFile(false)); // to close is no failure
}

std::string ParallelConsoleBuf::getLogPath(unsigned rank) const {
    return _logDirectory + "/partition" + std::to_string(rank) + ".log";
}

int ParallelConsoleBuf::enableLogFile(bool on) {
    const Lock lock(_consoleMutex);
    flushLocked();
    int error = 0;
    if (on && !_logFileOn)
        error = openLogLocked();
    else if (!on && _logFileOn)
        _logStream.close();
    _logFileOn = on && error == 0;
    return error;
}

int ParallelConsoleBuf::openLogLocked() {
    const std::string path = getLogPath(MachineGround::getPartitionId());
    errno = 0;
    // The file first: the console may be a pipe that is read slowly.
    if (Platform::filesystem().createFile(Platform::filesystem().fromSystem(path)))
        _logStream.open(path);
    if (_logStream.is_open())
        return 0;
    return errno != 0 ? errno : EIO;
}

void ParallelConsoleBuf::enableConsole(bool on) {
    const Lock lock(_consoleMutex);
    flushLocked();
    _consoleOn = on || MachineGround::isMaster();
    _prefix = on ? rankPrefix() : std::string();
}

bool ParallelConsoleBuf::isConsoleOn() const {
    const Lock lock(_consoleMutex);
    return _consoleOn;
}

ParallelConsoleBuf::int_type ParallelConsoleBuf::overflow(int_type character) {
    if (!traits_type::eq_int_type(character, traits_type::eof())) {
        const char single = traits_type::to_char_type(character);
        xsputn(&single, 1);
    }
    return traits_type::not_eof(character);
}

std::streamsize ParallelConsoleBuf::xsputn(const char* text, std::streamsize count) {
    // The lock and the streams may be gone by then.
    if (!AtExitRegister::isExiting()) {
        const Lock lock(_consoleMutex);
        append(text, static_cast<std::size_t>(count));
    }
    return count;
}

int ParallelConsoleBuf::sync() {
    if (!AtExitRegister::isExiting()) {
        const Lock lock(_consoleMutex);
        flushLocked();
    }
    return 0;
}

void ParallelConsoleBuf::append(const char* text, std::size_t count) {
    while (count > 0) {
        const std::size_t part = std::min(count, _bufferSize - _buffer.size());
        _buffer.append(text, part);
        text += part;
        count -= part;
        if (_buffer.size() == _bufferSize)
            flushLocked();
    }
}

void ParallelConsoleBuf::flushLocked() {
    if (_buffer.empty())
        return;
    const std::string block = _prefix + _buffer;
    _buffer.clear();
    if (_logFileOn)
        _logStream << block << std::flush;
    if (!_consoleOn)
        return;
    // A full disk or a closed pipe loses the output of that time only.
    const std::string text = (_lostBytes > 0 ? describeLostOutput(_lostBytes) : std::string()) + block;
    _lostBytes =
        Platform::io().write(STANDARD_OUTPUT, text.data(), text.size()) ? 0 : _lostBytes + block.size();
}
