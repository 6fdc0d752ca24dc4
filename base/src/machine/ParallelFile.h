#pragma once

#include "machine/Communicator.h"
#include "machine/MachineExport.h"

#include <map>
#include <string>
#include <vector>

/// One file that every rank of a communicator reads and writes at offsets of its own, by MPI-IO.
///
/// Transfers larger than the communicator's limit, or of more elements than a call takes, are cut in halves;
/// the ranks of a collective one may have blocks of different sizes, and none. Each transfer gives 0 or a
/// code for getErrorStr(): a collective one the same code on all ranks, so that all of them can fail
/// together, another one that of this rank. A read that finds the end of the file before its buffer is full
/// gives OXM_MPI_ERR_TRUNCATE, a write to a full disk OXM_MPI_ERR_NO_SPACE. After a failure the file holds a
/// part of the data, and so does the buffer of a read. close() tells of the failures of all writes before.
///
/// Paths are wide text, or UTF-8. One thread of each rank at a time. Every transfer and query raises
/// InternalError "file not open" on a closed file, and NonRecoverableError when the MPI in use has no
/// parallel files.
class ORVEX_MACHINE_EXPORT ParallelFile {
public:
    using ConstBuffer = Communicator::ConstBufferBase<unsigned int>;
    using Buffer = Communicator::BufferBase<unsigned int>;

    /// Closed.
    ParallelFile();
    /// open(); isOpen() tells whether that worked.
    ParallelFile(Communicator& communicator, const std::wstring& path, int mode);
    ParallelFile(Communicator& communicator, const std::string& path, int mode);
    /// close(), without its code.
    virtual ~ParallelFile();
    ParallelFile(const ParallelFile&) = delete;
    ParallelFile& operator=(const ParallelFile&) = delete;

    /// Opens `path`, with hints for striped file systems. A file open before is closed. A directory or a pipe
    /// is refused with OXM_MPI_ERR_BAD_FILE. Collective over `communicator`, which is borrowed until close().
    /// @param mode  a sum of OXM_MPI_MODE_...; OXM_MPI_MODE_TRUNCATE empties the file, without it the content
    /// stays
    /// @return on all ranks, whether all could; getOpenError() tells why not
    bool open(Communicator& communicator, const std::wstring& path, int mode);
    bool open(Communicator& communicator, const std::string& path, int mode);
    /// The code of the last open(), the same on all ranks. Local.
    int getOpenError() const { return _openError; }
    /// Nothing on a closed file. Collective over the communicator.
    /// @return on all ranks 0 when each write since open() and the closing itself worked on every rank; else
    /// one of their codes
    int close();
    bool isOpen() const { return _file != 0; }

    /// How the file lies on its disks: "alignment_size", the number of bytes to which it pays to align
    /// transfers, and on a file system that tells "stripe_unit", "number_comp", "layout_type",
    /// "raid5_width", "raid5_depth". Hints that the MPI only gives back aren't told. Local.
    void getInfo(std::map<std::string, std::string>& info) const;
    /// [bytes] Local.
    unsigned long long getFileSize() const;
    Communicator& communicator() const { return *_communicator; }

    // ---- Transfers at this rank's file pointer, which moves on. Local. @return this rank's code
    int write(ConstBuffer buffer);
    int read(Buffer buffer);
    // ---- Transfers at `offset` [bytes]. Local. @return this rank's code; writeAt() writes nothing more
    // after a failure
    int writeAt(long long offset, ConstBuffer buffer);
    int readAt(long long offset, Buffer buffer);
    // ---- The same, collective over the communicator. @return on all ranks, the smallest code of a rank that
    // failed
    int writeAtAll(long long offset, ConstBuffer buffer);
    int readAtAll(long long offset, Buffer buffer);

    // ---- The same with `count` values of a type that Communicator takes.
    template <class T>
    int write(const T* values, std::size_t count) {
        return write(Views::viewOf<unsigned>(values, count));
    }
    template <class T>
    int read(T* values, std::size_t count) {
        return read(Views::viewOf<unsigned>(values, count));
    }
    template <class T>
    int writeAt(long long offset, const T* values, std::size_t count) {
        return writeAt(offset, Views::viewOf<unsigned>(values, count));
    }
    template <class T>
    int readAt(long long offset, T* values, std::size_t count) {
        return readAt(offset, Views::viewOf<unsigned>(values, count));
    }
    template <class T>
    int writeAtAll(long long offset, const T* values, std::size_t count) {
        return writeAtAll(offset, Views::viewOf<unsigned>(values, count));
    }
    template <class T>
    int readAtAll(long long offset, T* values, std::size_t count) {
        return readAtAll(offset, Views::viewOf<unsigned>(values, count));
    }

    /// The meaning of a code in words. Any thread.
    static std::string getErrorStr(int code);

private:
    struct Views : MessageBuffers {
        using MessageBuffers::viewOf;
    };

    bool exceedsMaximumBufferSize(unsigned long long bytes) const;
    /// Whether a transfer goes in halves.
    bool isTooLarge(ConstBuffer buffer) const;
    void assertOpen() const;
    template <class View>
    struct Piece {
        long long offset;
        View buffer;
    };
    /// The pieces of a transfer, one for each call, in the order of the file: one piece at least.
    template <class View>
    void cut(long long offset, View buffer, std::vector<Piece<View>>& pieces) const;
    /// Each piece by `transfer(offset, piece)`, which gives a code. @return the first failure
    template <class View, class Transfer>
    int transferAlone(long long offset, View buffer, bool stopsAtFailure, const Transfer& transfer) const;
    /// The same with as many calls on each rank as the one with the most pieces needs.
    template <class View, class Transfer>
    int transferTogether(long long offset, View buffer, const Transfer& transfer) const;
    /// The smallest code of the ranks that failed, 0 when none did. Collective.
    int agree(int code) const;
    /// Keeps the first failure of a write for close().
    int noted(int code);

    /// The same code on all ranks. Collective.
    int fileOpen(int mode);
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
    int _openError = 0;
    int _writeError = 0; ///< the first of this rank since open()
};
