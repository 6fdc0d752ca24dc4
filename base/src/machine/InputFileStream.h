#pragma once

#include "machine/MachineExport.h"

#include "platform/IStreamWrapper.h"

#include <fstream>
#include <memory>

/// A file that one process reads for all: the serial process, or the master of a job.
///
/// With the broadcast flag set, every value and the state of the stream reach every rank: all ranks take the
/// same branch. With the flag clear an operation is local; a rank that isn't the reader
/// then sees good() and eof() true, bad() and fail() false, and its targets are left alone.
///
/// open() and is_open() are collective over the global communicator in a job. With the flag set so is every
/// other operation, on the main thread, except those that always stay local: manipulators, ignore(),
/// putback(), seekg(), clear(), the format, and the extractions into pointers. All ranks make the same calls
/// in the same order with the same flag. Nothing here throws except a broadcast that fails.
///
/// Each extraction with the flag set costs a broadcast: 0.1 to 0.5 microseconds with two ranks and more with
/// many, beside the 0.2 that it takes to read a number. Where many values follow one another, read() takes
/// them as one block of text, which each rank then parses with std::from_chars: in a tenth of the time.
class ORVEX_MACHINE_EXPORT InputFileStream : public IStreamWrapper {
public:
    InputFileStream();
    /// Opens `path`; is_open() tells whether that worked. Local.
    explicit InputFileStream(const char* path);
    /// The copy shares the stream, which is closed with the last of them.
    InputFileStream(const InputFileStream&) = default;
    ~InputFileStream() override;

    /// Opens `path` for binary reading in place of the file that is open, which is closed in any case. A pipe
    /// is refused: to open one waits for another process. Collective.
    /// @return on all ranks, whether the reader could
    bool open(const char* path);
    /// Closes the file; a failure sets the reader's state. Local.
    void close();
    /// Collective.
    bool is_open() const;

    const bool& getBroadcastFlag() const { return _broadcast; }
    /// Stays clear in a serial process. Local: to be called on all ranks alike.
    void setBroadcastFlag(const bool& on) override;

    bool good() const override;
    bool bad() const override;
    bool fail() const override;
    bool eof() const override;

    using IStreamWrapper::operator>>;
    /// The reader only, never broadcast.
    IStreamWrapper& operator>>(std::streambuf* target) override;
    IStreamWrapper& operator>>(void*& value) override;
    IStreamWrapper& operator>>(long double& value) override;
    IStreamWrapper& operator>>(double& value) override;
    IStreamWrapper& operator>>(float& value) override;
    IStreamWrapper& operator>>(unsigned long long& value) override;
    IStreamWrapper& operator>>(long long& value) override;
    IStreamWrapper& operator>>(unsigned int& value) override;
    IStreamWrapper& operator>>(int& value) override;
    IStreamWrapper& operator>>(unsigned short& value) override;
    IStreamWrapper& operator>>(short& value) override;
    IStreamWrapper& operator>>(bool& value) override;
    IStreamWrapper& operator>>(std::string& word) override;
    /// Only the reader knows where the word ends. @throw InternalError on all ranks with the broadcast flag
    /// set, after the reader has taken the word
    IStreamWrapper& operator>>(unsigned char* word) override;
    IStreamWrapper& operator>>(char* word) override;
    IStreamWrapper& operator>>(unsigned char& value) override;
    IStreamWrapper& operator>>(char& value) override;
    /// Reads a block. All `count` characters are broadcast, also those that the file didn't fill: see
    /// gcount().
    IStreamWrapper& read(char* target, std::streamsize count) override;
    bool get(char* target, std::streamsize count) override;
    bool get(char& character) override;
    int get() override;
    bool getline(char* target, std::streamsize count) override;
    int peek() override;
    /// -1 on all ranks when the stream has failed; without the flag 0 off the reader.
    std::streampos tellg() override;
    std::streamsize gcount() const override;

private:
    explicit InputFileStream(std::shared_ptr<std::ifstream> stream);

    void openHere(const char* path);
    template <class T>
    IStreamWrapper& extract(T& value);
    template <class T>
    void share(T& value) const;
    void share(char* characters, std::streamsize count) const;
    IStreamWrapper& refuseToShare();

    std::shared_ptr<std::ifstream> _stream; ///< of all copies
    bool _broadcast = false;
    bool _isReader;
};
