#include "machine/ParallelFile.h"

#include "machine/messages/CollectiveHistory.h"
#include "machine/messages/OperationRecord.h"

#include "kernel/Raise.h"
#include "mpiwrapper/OxmMpi.h"
#include "platform/FileSystem.h"
#include "platform/StringHelper.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <limits>
#include <type_traits>

namespace {

constexpr unsigned long long MAX_ELEMENTS = 0x7FFFFFFF; ///< of one call

constexpr const char* LAYOUT_TYPE = "panfs_layout_type";
constexpr const char* STRIPE_UNIT = "panfs_layout_stripe_unit";
constexpr const char* NUMBER_OF_COMPONENTS = "panfs_layout_total_num_comps";
constexpr const char* PARITY_WIDTH = "panfs_layout_parity_stripe_width";
constexpr const char* PARITY_DEPTH = "panfs_layout_parity_stripe_depth";

/// A hint that no file system knows. An MPI that gives it back gives all hints back as they were set, and
/// can't tell how the file lies.
constexpr const char* ECHO = "orvex_echo";

struct Hint {
    const char* key;
    const char* value;
};
constexpr Hint HINTS[] = {
    {"panfs_concurrent_write", "1"},
    {STRIPE_UNIT, "65536"},
    {NUMBER_OF_COMPONENTS, "128"},
    {LAYOUT_TYPE, "3"},
    {PARITY_WIDTH, "9"},
    {PARITY_DEPTH, "1"},
    {"panfs_layout_visit_policy", "1"},
    {ECHO, "1"},
};

/// "No failure" among codes of which the smallest counts.
constexpr int NONE = std::numeric_limits<int>::max();

/// The value of a key; empty when there is none, or when the driver can't tell.
std::string valueOf(int info, const char* key) {
    constexpr int LIMIT = 1024;
    std::array<char, LIMIT + 1> value{};
    int isThere = 0;
    if (OXM_MPI_Info_get(info, key, LIMIT, value.data(), &isThere) != OXM_MPI_SUCCESS || isThere == 0)
        return {};
    return value.data();
}

/// The unsigned number that `text` begins with, 0 without one.
unsigned long long numberOf(const std::string& text) {
    unsigned long long number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

/// `buffer` from element `begin` on.
template <class View>
View part(View buffer, unsigned begin, unsigned count) {
    using Byte =
        std::conditional_t<std::is_const_v<std::remove_pointer_t<decltype(buffer.data)>>, const char, char>;
    buffer.data = static_cast<Byte*>(buffer.data) + std::size_t(begin) * buffer.typeSize;
    buffer.size = count;
    return buffer;
}

constexpr MessageOperation OPEN{"ParallelFile::open", CommunicatorStatistics::GLOBAL, true,
                                Collective::OPEN_FILE};
constexpr MessageOperation CLOSE{"ParallelFile::close"};
constexpr MessageOperation READ_ALL{"ParallelFile::readAtAll", CommunicatorStatistics::GLOBAL, true,
                                    Collective::READ_FILE};
constexpr MessageOperation WRITE_ALL{"ParallelFile::writeAtAll", CommunicatorStatistics::GLOBAL, true,
                                     Collective::WRITE_FILE};
constexpr MessageOperation READ{"ParallelFile::read"};
constexpr MessageOperation WRITE{"ParallelFile::write"};

/// The record of a collective call. The ranks may transfer different lengths.
OperationRecord::Scope note(const MessageOperation& operation, const Communicator& communicator) {
    CollectiveHistory::of(communicator).note(CollectiveHistory::wordOf(operation.collective, 0));
    return OperationRecord::Scope(operation);
}

std::uint64_t labelOf(const Communicator& communicator) {
    return CollectiveHistory::of(communicator).getLabel();
}

/// One call of the message layer on one piece; `place` is the file, and the offset where there is one. A read
/// that the end of the file cuts short is an error here, though it is none to MPI.
template <class Call, class View, class... Place>
int callWith(Call call, const View& buffer, Place... place) {
    OXM_MPI_Status_struct status{};
    const int code = call(place..., buffer.data, static_cast<int>(buffer.size), buffer.type, &status);
    if constexpr (std::is_same_v<View, ParallelFile::Buffer>) {
        int count = 0;
        const int told = code == OXM_MPI_SUCCESS ? OXM_MPI_Get_count(&status, buffer.type, &count) : code;
        if (told == OXM_MPI_SUCCESS && count != static_cast<int>(buffer.size))
            return OXM_MPI_ERR_TRUNCATE;
        return told;
    }
    return code;
}

} // namespace

ParallelFile::ParallelFile() = default;

ParallelFile::ParallelFile(Communicator& communicator, const std::wstring& path, int mode) {
    open(communicator, path, mode);
}

ParallelFile::ParallelFile(Communicator& communicator, const std::string& path, int mode) {
    open(communicator, path, mode);
}

ParallelFile::~ParallelFile() {
    try {
        // With the agreement of close(): other ranks may call that.
        static_cast<void>(close());
    } catch (const std::exception&) {
        // A destructor can't tell of a failure.
    }
}

bool ParallelFile::open(Communicator& communicator, const std::wstring& path, int mode) {
    static_cast<void>(close()); // a caller that wants the code calls close() before
    _communicator = &communicator;
    _name = Platform::filesystem().toSystem(path);
    _openError = fileOpen(mode);
    // A rank that opened a file that another rank couldn't open leaves it open: closing is collective.
    if (_openError != OXM_MPI_SUCCESS)
        _file = 0;
    return isOpen();
}

bool ParallelFile::open(Communicator& communicator, const std::string& path, int mode) {
    return open(communicator, Platform::filesystem().fromSystem(path), mode);
}

int ParallelFile::close() {
    int code = OXM_MPI_SUCCESS;
    if (isOpen()) {
        const int closed = [this] {
            const OperationRecord::Scope recorded(CLOSE, 0); // the communicator may be gone
            return fileClose(&_file);
        }();
        _file = 0;
        // Without a message layer the ranks can't agree.
        code = closed == OXM_MPI_ERR_NOT_RUNNING
                   ? closed
                   : agree(_writeError != OXM_MPI_SUCCESS ? _writeError : closed);
    }
    _writeError = OXM_MPI_SUCCESS;
    _communicator = nullptr;
    _name.clear();
    return code;
}

int ParallelFile::agree(int code) const {
    int smallest = code == OXM_MPI_SUCCESS ? NONE : code;
    _communicator->allReduce(smallest, Communicator::MIN);
    return smallest == NONE ? OXM_MPI_SUCCESS : smallest;
}

int ParallelFile::noted(int code) {
    if (_writeError == OXM_MPI_SUCCESS)
        _writeError = code;
    return code;
}

void ParallelFile::assertOpen() const {
    ORVEX_ASSERT(isOpen(), "file not open");
}

void ParallelFile::getInfo(std::map<std::string, std::string>& info) const {
    assertOpen();
    fileGetInfo(_file, info);
}

unsigned long long ParallelFile::getFileSize() const {
    assertOpen();
    return getFileSizeImp(_file);
}

bool ParallelFile::exceedsMaximumBufferSize(unsigned long long bytes) const {
    return bytes > _communicator->getMaxBufferSize();
}

bool ParallelFile::isTooLarge(ConstBuffer buffer) const {
    const unsigned long long count = buffer.size;
    return count > MAX_ELEMENTS || (count > 1 && exceedsMaximumBufferSize(count * buffer.typeSize));
}

template <class View>
void ParallelFile::cut(long long offset, View buffer, std::vector<Piece<View>>& pieces) const {
    if (!isTooLarge(buffer)) {
        pieces.push_back({offset, buffer});
        return;
    }
    const unsigned first = buffer.size >> 1;
    const unsigned second = first + (buffer.size & 1);
    cut(offset, part(buffer, 0, first), pieces);
    cut(offset + static_cast<long long>(first) * buffer.typeSize, part(buffer, first, second), pieces);
}

template <class View, class Transfer>
int ParallelFile::transferAlone(long long offset, View buffer, bool stopsAtFailure,
                                const Transfer& transfer) const {
    std::vector<Piece<View>> pieces;
    cut(offset, buffer, pieces);
    int result = OXM_MPI_SUCCESS;
    for (const Piece<View>& piece : pieces) {
        const int code = handleError(transfer(piece.offset, piece.buffer));
        if (result == OXM_MPI_SUCCESS)
            result = code;
        if (code != OXM_MPI_SUCCESS && stopsAtFailure)
            break;
    }
    return result;
}

template <class View, class Transfer>
int ParallelFile::transferTogether(long long offset, View buffer, const Transfer& transfer) const {
    std::vector<Piece<View>> pieces;
    cut(offset, buffer, pieces);
    int result = NONE;
    for (std::size_t i = 0;; ++i) {
        const Piece<View> piece = i < pieces.size() ? pieces[i] : Piece<View>{offset, part(buffer, 0, 0)};
        const int code = transfer(piece.offset, piece.buffer);
        // One message tells the failures and whether a rank has more to transfer; each is the smallest.
        int news[] = {code == OXM_MPI_SUCCESS ? NONE : code, i + 1 < pieces.size() ? 0 : 1};
        _communicator->allReduce(news, std::size(news), Communicator::MIN);
        result = std::min(result, news[0]);
        if (news[1] == 1)
            return handleError(result == NONE ? OXM_MPI_SUCCESS : result);
    }
}

int ParallelFile::write(ConstBuffer buffer) {
    assertOpen();
    return noted(transferAlone(0, buffer, false, [&](long long, ConstBuffer piece) {
        const OperationRecord::Scope recorded(WRITE, labelOf(*_communicator), piece.size * piece.typeSize);
        return fileWrite(_file, piece);
    }));
}

int ParallelFile::read(Buffer buffer) {
    assertOpen();
    return transferAlone(0, buffer, false, [&](long long, Buffer piece) {
        const OperationRecord::Scope recorded(READ, labelOf(*_communicator), piece.size * piece.typeSize);
        return fileRead(_file, piece);
    });
}

int ParallelFile::writeAt(long long offset, ConstBuffer buffer) {
    assertOpen();
    return noted(transferAlone(offset, buffer, true, [&](long long at, ConstBuffer piece) {
        const OperationRecord::Scope recorded(WRITE, labelOf(*_communicator), piece.size * piece.typeSize);
        return fileWriteAt(_file, at, piece);
    }));
}

int ParallelFile::readAt(long long offset, Buffer buffer) {
    assertOpen();
    return transferAlone(offset, buffer, false, [&](long long at, Buffer piece) {
        const OperationRecord::Scope recorded(READ, labelOf(*_communicator), piece.size * piece.typeSize);
        return fileReadAt(_file, at, piece);
    });
}

int ParallelFile::writeAtAll(long long offset, ConstBuffer buffer) {
    assertOpen();
    return noted(transferTogether(offset, buffer, [&](long long at, ConstBuffer piece) {
        const OperationRecord::Scope recorded = note(WRITE_ALL, *_communicator);
        return fileWriteAtAll(_file, at, piece);
    }));
}

int ParallelFile::readAtAll(long long offset, Buffer buffer) {
    assertOpen();
    return transferTogether(offset, buffer, [&](long long at, Buffer piece) {
        const OperationRecord::Scope recorded = note(READ_ALL, *_communicator);
        return fileReadAtAll(_file, at, piece);
    });
}

std::string ParallelFile::getErrorStr(int code) {
    std::array<char, OXM_MPI_MAX_ERROR_STRING + 1> text{};
    int length = 0;
    std::string result;
    if (OXM_MPI_Error_string(code, text.data(), &length) == OXM_MPI_SUCCESS)
        result = text.data();
    if (code == OXM_MPI_ERR_NO_SPACE)
        result += ". Possibly out of disk space. ";
    if (code == OXM_MPI_ERR_TRUNCATE)
        result += ". Possibly the file ends before. ";
    return result;
}

int ParallelFile::fileOpen(int mode) {
    int info = 0;
    int code = OXM_MPI_Info_create(&info);
    const bool hasInfo = code == OXM_MPI_SUCCESS;
    if (hasInfo)
        code = setPanfsHints(info);
    // One rank looks, for all: to open a pipe would wait for another process, and there is no file without a
    // name.
    Platform::FileSystem& files = Platform::filesystem();
    if (_communicator->myRank() == 0 && (_name.empty() || !files.canBeRead(files.fromSystem(_name))))
        code = OXM_MPI_ERR_BAD_FILE;
    code = agree(code); // none opens alone
    if (code == OXM_MPI_SUCCESS) {
        const OperationRecord::Scope recorded = note(OPEN, *_communicator);
        code = OXM_MPI_File_open(_communicator->handle(), _name.c_str(), convertToMpiWrapperMode(mode), info,
                                 &_file);
    }
    const int freed = hasInfo ? OXM_MPI_Info_free(&info) : OXM_MPI_SUCCESS;
    return agree(code == OXM_MPI_SUCCESS ? freed : code);
}

int ParallelFile::fileClose(int* file) {
    return OXM_MPI_File_close(file);
}

unsigned long long ParallelFile::getFileSizeImp(int file) {
    OXM_MPI_Offset size = 0;
    handleError(OXM_MPI_File_get_size(file, &size));
    return static_cast<unsigned long long>(size);
}

long long ParallelFile::fileTell(int file) {
    OXM_MPI_Offset position = 0;
    OXM_MPI_Offset bytes = 0;
    handleError(OXM_MPI_File_get_position(file, &position));
    handleError(OXM_MPI_File_get_byte_offset(file, position, &bytes));
    return bytes;
}

int ParallelFile::fileWrite(int file, ConstBuffer buffer) {
    return callWith(OXM_MPI_File_write, buffer, file);
}

int ParallelFile::fileRead(int file, Buffer buffer) {
    return callWith(OXM_MPI_File_read, buffer, file);
}

int ParallelFile::fileWriteAt(int file, long long offset, ConstBuffer buffer) {
    return callWith(OXM_MPI_File_write_at, buffer, file, offset);
}

int ParallelFile::fileReadAt(int file, long long offset, Buffer buffer) {
    return callWith(OXM_MPI_File_read_at, buffer, file, offset);
}

int ParallelFile::fileWriteAtAll(int file, long long offset, ConstBuffer buffer) {
    return callWith(OXM_MPI_File_write_at_all, buffer, file, offset);
}

int ParallelFile::fileReadAtAll(int file, long long offset, Buffer buffer) {
    return callWith(OXM_MPI_File_read_at_all, buffer, file, offset);
}

void ParallelFile::fileGetInfo(int file, std::map<std::string, std::string>& info) {
    info["alignment_size"] = "2097152";
    int hints = 0;
    if (handleError(OXM_MPI_File_get_info(file, &hints)) != OXM_MPI_SUCCESS)
        return; // the default is all that is known then
    if (valueOf(hints, ECHO).empty())
        translatePanfsInfo(hints, info);
    handleError(OXM_MPI_Info_free(&hints));
}

int ParallelFile::handleError(int code) {
    if (code == OXM_MPI_ERR_NO_PARALLEL_IO)
        raise(NonRecoverableError("Parallel IO is not supported with this MPI Distribution"));
    if (code == OXM_MPI_ERR_NO_FUNCTION)
        raise(NonRecoverableError("Error accessing MPI function that is not supported"));
    return code;
}

int ParallelFile::setPanfsHints(int info) {
    for (const Hint& hint : HINTS) {
        const int code = OXM_MPI_Info_set(info, hint.key, hint.value);
        if (code != OXM_MPI_SUCCESS)
            return code;
    }
    return OXM_MPI_SUCCESS;
}

void ParallelFile::translatePanfsInfo(int info, std::map<std::string, std::string>& result) {
    const std::string type = valueOf(info, LAYOUT_TYPE);
    if (type.empty())
        return;
    const std::string stripeUnit = valueOf(info, STRIPE_UNIT);
    const std::string numberOfComponents = valueOf(info, NUMBER_OF_COMPONENTS);
    result["stripe_unit"] = stripeUnit;
    result["number_comp"] = numberOfComponents;
    enum PanfsLayout : unsigned long long { RAID0 = 2, RAID5 = 3, RAID10 = 4 };
    switch (numberOf(type)) {
    case RAID0:
        result["layout_type"] = "RAID0";
        break;
    case RAID10:
        result["layout_type"] = "RAID10";
        break;
    case RAID5: {
        result["layout_type"] = "RAID5";
        const unsigned long long width =
            std::min(numberOf(valueOf(info, PARITY_WIDTH)), numberOf(numberOfComponents));
        result["raid5_width"] = std::to_string(width);
        result["raid5_depth"] = std::to_string(numberOf(valueOf(info, PARITY_DEPTH)));
        // The data of one stripe; a stripe of parity alone says nothing.
        if (width > 1 && numberOf(stripeUnit) > 0)
            result["alignment_size"] = std::to_string((width - 1) * numberOf(stripeUnit));
        break;
    }
    default:
        break; // an unknown layout
    }
}

int ParallelFile::convertToMpiWrapperMode(int mode) {
    constexpr int KNOWN = 0x1FF | OXM_MPI_MODE_TRUNCATE;
    return mode & KNOWN;
}
