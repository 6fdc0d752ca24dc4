#pragma once

#include "machine/MachineExport.h"
#include "machine/SlaveOmittedOutputStream.h"

#include <fstream>
#include <memory>

/// A file that all processes write with the same calls and one process really writes: the serial process, or
/// rank 0 of a job. Elsewhere an output operation costs one test.
///
/// open() and is_open() are collective over the global communicator in a job; with the broadcast flag set so
/// are good(), bad(), fail() and eof(), on the main thread. All else is local. With the flag clear a rank
/// that doesn't write sees a healthy stream: a solver that must stop all ranks on a failed write sets the
/// flag first, on all of them. tellp() is of use on the writer only. Nothing here throws except a broadcast
/// that fails.
class ORVEX_MACHINE_EXPORT OutputFileStream : public SlaveOmittedOutputStream {
public:
    OutputFileStream();
    /// The copy shares the stream, which is closed with the last of them.
    OutputFileStream(const OutputFileStream&) = default;
    ~OutputFileStream() override;

    bool good() const override;
    bool bad() const override;
    bool fail() const override;
    bool eof() const override;
    const bool& getBroadcastFlag() const { return _broadcast; }
    /// Stays clear in a serial process. Local: to be called on all ranks alike.
    void setBroadcastFlag(const bool& on) override;

    /// Opens `path` with the modes of std::ios_base in `mode`, in place of the file that is open, which is
    /// closed in any case. A pipe that nobody reads is refused. Collective.
    /// @return on all ranks, whether the writer could
    virtual bool open(const char* path, int mode);
    /// The same for binary output; the old content of the file is gone.
    virtual bool open(const char* path);
    /// A failure sets the writer's state. Local.
    virtual void close();
    /// Collective.
    virtual bool is_open() const;

protected:
    /// Opens `path` on the writer, for text; is_open() tells whether that worked. Local.
    explicit OutputFileStream(const char* path);

private:
    explicit OutputFileStream(std::shared_ptr<std::ofstream> stream);

    void openHere(const char* path, std::ios_base::openmode mode);
    /// The writer's value, with the broadcast flag everywhere.
    bool share(bool value) const;

    std::shared_ptr<std::ofstream> _stream; ///< of all copies
    bool _broadcast = false;
};
