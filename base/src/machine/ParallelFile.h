#pragma once

#include "machine/Communicator.h"
#include "machine/MachineExport.h"

#include <map>
#include <string>

/// One file that every rank of a communicator reads and writes at offsets of its own, by MPI-IO.
///
/// Transfers larger than the communicator's limit, or of more elements than a call takes, are cut in halves.
/// In a collective one all ranks must be on the same side of that limit: who cuts makes more calls. What the
/// file system says against a transfer isn't reported, but by writeAt(); getFileSize() tells what arrived.
///
/// One thread of each rank at a time. Every transfer and query raises InternalError "file not open" on a
/// closed file, and NonRecoverableError when the MPI in use has no parallel files.
class ORVEX_MACHINE_EXPORT ParallelFile {
public:
    using ConstBuffer = Communicator::ConstBufferBase<unsigned int>;
    using Buffer = Communicator::BufferBase<unsigned int>;

    /// Closed.
    ParallelFile();
    /// open(); isOpen() tells whether that worked.
    ParallelFile(Communicator& communicator, const std::wstring& path, int mode);
    /// close().
    virtual ~ParallelFile();
    ParallelFile(const ParallelFile&) = delete;
    ParallelFile& operator=(const ParallelFile&) = delete;

    /// Opens `path`, with hints for striped file systems. A file open before is closed. Collective over
    /// `communicator`, which is borrowed until close().
    /// @param mode  a sum of OXM_MPI_MODE_...; what exists isn't cut off
    /// @return whether the file is open on this rank
    bool open(Communicator& communicator, const std::wstring& path, int mode);
    /// Nothing on a closed file. Collective over the communicator.
    void close();
    bool isOpen() const { return _file != 0; }

    /// How the file lies on its disks: "alignment_size", the number of bytes to which it pays to align
    /// transfers, and on a file system that tells "stripe_unit", "number_comp", "layout_type",
    /// "raid5_width", "raid5_depth". Local.
    void getInfo(std::map<std::string, std::string>& info) const;
    /// [bytes] Local.
    unsigned long long getFileSize() const;
    Communicator& communicator() const { return *_communicator; }

    // At this rank's file pointer, which moves on. Local.
    void write(ConstBuffer buffer);
    void read(Buffer buffer);
    // At `offset` [bytes]. Local.
    /// @return 0, or the wrapper's error code for getErrorStr(); nothing more is written after a failure
    int writeAt(long long offset, ConstBuffer buffer);
    void readAt(long long offset, Buffer buffer);
    // The same, collective over the communicator.
    void writeAtAll(long long offset, ConstBuffer buffer);
    void readAtAll(long long offset, Buffer buffer);

    // The same with `count` values of a type that Communicator takes.
    template <class T>
    void write(const T* values, std::size_t count) {
        write(Views::viewOf<unsigned>(values, count));
    }
    template <class T>
    void read(T* values, std::size_t count) {
        read(Views::viewOf<unsigned>(values, count));
    }
    template <class T>
    int writeAt(long long offset, const T* values, std::size_t count) {
        return writeAt(offset, Views::viewOf<unsigned>(values, count));
    }
    template <class T>
    void readAt(long long offset, T* values, std::size_t count) {
        readAt(offset, Views::viewOf<unsigned>(values, count));
    }
    template <class T>
    void writeAtAll(long long offset, const T* values, std::size_t count) {
        writeAtAll(offset, Views::viewOf<unsigned>(values, count));
    }
    template <class T>
    void readAtAll(long long offset, T* values, std::size_t count) {
        readAtAll(offset, Views::viewOf<unsigned>(values, count));
    }

    /// What a code of writeAt() means. Any thread.
    static std::string getErrorStr(int code);

private:
    friend class ParallelFileTestAccess;

    struct Views : MessageBuffers {
        using MessageBuffers::viewOf;
    };

    bool exceedsMaximumBufferSize(unsigned long long bytes) const;
    /// Whether a transfer goes in halves.
    bool isTooLarge(ConstBuffer buffer) const;
    void assertOpen() const;
    /// Each half of a buffer by `transfer(offset, half)`, which gives a code: a failure of the first half
    /// ends it when `stopsAtFailure`.
    template <class View, class Transfer>
    int transferHalves(long long offset, View buffer, bool stopsAtFailure, const Transfer& transfer) const;

    static int fileOpen(int communicator, const std::string& name, int mode, int* file);
    static int fileClose(int* file);
    static unsigned long long getFileSizeImp(int file);
    static long long fileTell(int file);
    static int fileWrite(int file, ConstBuffer buffer);
    static int fileRead(int file, Buffer buffer);
    static int fileWriteAt(int file, long long offset, ConstBuffer buffer);
    static int fileReadAt(int file, long long offset, Buffer buffer);
    static int fileWriteAtAll(int file, long long offset, ConstBuffer buffer);
    static int fileReadAtAll(int file, long long offset, Buffer buffer);
    static void fileGetInfo(int file, std::map<std::string, std::string>& info);
    static int handleError(int code);
    static int setPanfsHints(int info);
    static void translatePanfsInfo(int info, std::map<std::string, std::string>& result);
    static int convertToMpiWrapperMode(int mode);

    Communicator* _communicator = nullptr; ///< borrowed; null when closed
    std::string _name;
    int _file = 0;
};
