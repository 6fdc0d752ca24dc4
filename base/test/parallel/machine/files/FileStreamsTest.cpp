// Files that one rank reads or writes for all, and files that all write. The ranks share a folder.

#include "machine/Communicator.h"
#include "machine/InputFileStream.h"
#include "machine/Machine.h"
#include "machine/OutputFileStream.h"
#include "machine/ParallelFile.h"

#include "mpiwrapper/OxmMpi.h"
#include "platform/FileSystem.h"
#include "platform/StringHelper.h"
#include "unit/machine/Failures.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <numeric>
#include <sstream>
#include <tuple>

#include <sys/stat.h>

namespace {

class FileStreams : public testing::Test {
protected:
    void SetUp() override {
        if (Machine::isSerial())
            GTEST_SKIP() << "for a job";
        if (_isReader)
            _folder = StringHelper::toString(Platform::filesystem().makeTemporaryDirectory(
                Platform::filesystem().getDefaultTemporaryDirectory(), L"orvex-files-"));
        Machine::globalCommunicator().broadcast(_folder, 0);
    }
    void TearDown() override {
        if (Machine::isSerial())
            return;
        Machine::globalCommunicator().synchronise();
        if (_isReader)
            Platform::filesystem().deleteTree(StringHelper::toWString(_folder));
    }
    std::string path(const std::string& name) const { return _folder + "/" + name; }
    std::wstring widePath(const std::string& name) const { return StringHelper::toWString(path(name)); }
    /// A file that exists on all ranks when this returns.
    std::string write(const std::string& name, const std::string& content) const {
        if (_isReader)
            std::ofstream(path(name), std::ios::binary) << content;
        Machine::globalCommunicator().synchronise();
        return path(name);
    }
    static std::string contentOf(const std::string& name) {
        std::ostringstream text;
        text << std::ifstream(name, std::ios::binary).rdbuf();
        return text.str();
    }

    const bool _isReader = Machine::isMaster();
    std::string _folder;
};

TEST_F(FileStreams, whatTheReaderGetsReachesAll) {
    InputFileStream file;
    ASSERT_TRUE(
        file.open(write("table", "1 -2 3.5 -4.25 5e300 7 -8 9 10 1 word xy\nline one\nab\n").c_str()));
    EXPECT_TRUE(file.is_open());
    file.setBroadcastFlag(true);
    EXPECT_TRUE(file.getBroadcastFlag());
    unsigned short us = 99;
    short s = 99;
    float f = 99;
    double d = 99;
    long double ld = 99;
    unsigned int u = 99;
    int i = 99;
    unsigned long long ull = 99;
    long ll = 99;
    bool b = false;
    std::string word = "something longer than the word";
    file >> us >> s >> f >> d >> ld >> u >> i >> ull >> ll >> b >> word;
    EXPECT_EQ(std::tie(us, s, f, d, ld, u, i, ull, ll, b, word),
              std::tuple(1, -2, 3.5f, -4.25, 5e300L, 7u, -8, 9ull, 10L, true, std::string("word")));
    char c = 0;
    unsigned char uc = 0;
    file >> c >> uc;
    EXPECT_EQ(std::string({c, static_cast<char>(uc)}), "xy");
    EXPECT_EQ(file.peek(), '\n');
    EXPECT_EQ(file.get(), '\n');
    const std::streampos position = file.tellg();
    EXPECT_EQ(std::streamoff(position), 41);
    char line[16] = "before";
    EXPECT_TRUE(file.getline(line, sizeof line));
    EXPECT_STREQ(line, "line one");
    EXPECT_EQ(file.gcount(), 9);
    file.seekg(position);
    EXPECT_TRUE(file.get(line, 5));
    EXPECT_STREQ(line, "line");
    EXPECT_TRUE(file.get(c));
    EXPECT_EQ(c, ' ');
    EXPECT_TRUE(file.good());
    EXPECT_FALSE(file.eof());
    // Past the end: what the file doesn't fill goes out as well, and all see the same state.
    std::string block(12, _isReader ? '#' : '?');
    file.read(block.data(), 12);
    EXPECT_EQ(block, "one\nab\n#####");
    EXPECT_EQ(file.gcount(), 7);
    EXPECT_TRUE(file.eof());
    EXPECT_TRUE(file.fail());
    EXPECT_FALSE(file.bad());
    EXPECT_FALSE(file.good());
    EXPECT_EQ(std::streamoff(file.tellg()), -1);
    EXPECT_EQ(file.get(), -1);
    EXPECT_FALSE(file.get(c));
    EXPECT_FALSE(file.getline(line, sizeof line));
    // What couldn't be read leaves the master's value, which is everybody's.
    file.clear();
    i = _isReader ? 4711 : 1;
    word = _isReader ? "" : "old";
    file >> word;
    EXPECT_EQ(word, "");
    file.close();
    EXPECT_FALSE(file.is_open());
}

TEST_F(FileStreams, withoutBroadcastOnlyTheReaderReads) {
    InputFileStream file(write("table", "12 34 word").c_str());
    EXPECT_TRUE(file.is_open()) << "told to all in any case";
    int i = 7;
    file >> i;
    EXPECT_EQ(i, _isReader ? 12 : 7);
    EXPECT_TRUE(file.good());
    EXPECT_EQ(file.eof(), !_isReader);
    EXPECT_FALSE(file.bad());
    EXPECT_FALSE(file.fail());
    EXPECT_EQ(std::streamoff(file.tellg()), _isReader ? 2 : 0);
    EXPECT_EQ(file.get(), _isReader ? ' ' : -1);
    EXPECT_EQ(file.gcount(), _isReader ? 1 : 0);
    EXPECT_EQ(file.peek(), _isReader ? '3' : -1);
    char text[8] = "before";
    char c = 'x';
    EXPECT_TRUE(file.get(c));
    EXPECT_EQ(c, _isReader ? '3' : 'x');
    EXPECT_TRUE(file.get(text, 2));
    EXPECT_STREQ(text, _isReader ? "4" : "before");
    // A copy shares the stream: what one takes the other doesn't see, and it stays open for the last of them.
    {
        InputFileStream copy(file);
        std::string word = "old";
        copy >> word;
        EXPECT_EQ(word, _isReader ? "word" : "old");
    }
    EXPECT_TRUE(file.is_open());
    file.clear();
    file.seekg(0, std::ios::beg);
    file >> text;
    EXPECT_STREQ(text, _isReader ? "12" : "before");
    file.setBroadcastFlag(true);
    expectAssertion([&] { file >> text; }, "Not implemented yet", "false", "InputFileStream.cpp");
    EXPECT_STREQ(text, _isReader ? "34" : "before") << "the reader has taken it";
    unsigned char bytes[8] = "";
    expectAssertion([&] { file >> bytes; }, "Not implemented yet", "false", "InputFileStream.cpp");
    file.setBroadcastFlag(false);
    EXPECT_FALSE(file.getBroadcastFlag());
}

TEST_F(FileStreams, whatCannotBeReadIsClosedForAll) {
    if (_isReader) {
        ASSERT_EQ(mkfifo(path("pipe").c_str(), S_IRWXU), 0);
    }
    const std::string good = write("good", "7");
    for (const std::string& name : {path("missing"), _folder, path("no/folder"), path("pipe")}) {
        InputFileStream file;
        ASSERT_TRUE(file.open(good.c_str()));
        EXPECT_FALSE(file.open(name.c_str())) << name << " in place of an open file";
        EXPECT_FALSE(file.is_open());
        file.setBroadcastFlag(true);
        EXPECT_TRUE(file.fail());
        int value = _isReader ? 5 : 6;
        file >> value;
        EXPECT_EQ(value, 5) << "the master's, wherever it came from";
        EXPECT_FALSE(InputFileStream(name.c_str()).is_open());
    }
    // Cut off while it is read.
    InputFileStream file;
    ASSERT_TRUE(file.open(write("cut", std::string(100000, '1') + " 2").c_str()));
    file.setBroadcastFlag(true);
    EXPECT_EQ(file.get(), '1');
    if (_isReader)
        std::ofstream(path("cut"), std::ios::trunc).put('x');
    std::string block(100001, ' ');
    file.read(block.data(), 100001);
    EXPECT_LT(file.gcount(), 100001);
    EXPECT_TRUE(file.eof());
}

TEST_F(FileStreams, onlyTheFirstRankWrites) {
    const std::string name = path("report");
    OutputFileStream file;
    ASSERT_TRUE(file.open(name.c_str()));
    const std::string text = "text ";
    std::istringstream source("buffer ");
    file << std::scientific << std::hex << std::endl
         << true << ' ' << 1.5 << ' ' << 2.5f << ' ' << 3.5L << '\n';
    file << short(-1) << (unsigned short)(2) << -3 << 4u << -5L << 6uL << -7LL << 8uLL << 'c'
         << (unsigned char)('d') << "e " << (const unsigned char*)("f ") << text << source.rdbuf();
    file.put('!').write("written", 5).flush();
    file.seekp(0, std::ios::beg).put('#');
    file.seekp(std::streampos(0)).put('$');
    EXPECT_TRUE(file.good());
    EXPECT_FALSE(file.eof());
    file.close();
    EXPECT_FALSE(file.is_open());
    Machine::globalCommunicator().synchronise();
    EXPECT_EQ(contentOf(name), "$1 1.500000e+00 2.500000e+00 3.500000e+00\n"
                               "ffff2fffffffd4fffffffffffffffb6fffffffffffffff98cde f text buffer !writt");
    if (!_isReader) {
        EXPECT_EQ(source.str(), "buffer ") << "nobody else has taken anything";
    }
    // Appended to, with the caller's mode; then cut off.
    Machine::globalCommunicator().synchronise();
    ASSERT_TRUE(file.open(name.c_str(), std::ios::out | std::ios::app));
    OutputFileStream copy(file);
    copy << "more";
    copy.close();
    EXPECT_FALSE(file.is_open()) << "the same stream";
    Machine::globalCommunicator().synchronise();
    EXPECT_TRUE(contentOf(name).ends_with("!writtmore"));
    Machine::globalCommunicator().synchronise();
    EXPECT_TRUE(file.open(name.c_str()));
    file.close();
    Machine::globalCommunicator().synchronise();
    EXPECT_EQ(contentOf(name), "");
    // A failure is the same everywhere, when asked for everywhere; the file that was open is closed.
    ASSERT_TRUE(file.open(name.c_str()));
    EXPECT_FALSE(file.open(path("no/folder").c_str()));
    file << "into the void";
    EXPECT_EQ(file.good(), !_isReader);
    EXPECT_EQ(file.fail(), _isReader);
    file.setBroadcastFlag(true);
    EXPECT_FALSE(file.good());
    EXPECT_TRUE(file.fail());
    if (Platform::filesystem().exists(L"/dev/full")) {
        OutputFileStream full;
        full.setBroadcastFlag(true);
        ASSERT_TRUE(full.open("/dev/full", std::ios::out));
        full << "x";
        full.flush();
        EXPECT_TRUE(full.bad());
    }
}

TEST_F(FileStreams, allRanksWriteOneFile) {
    Communicator& communicator = Machine::globalCommunicator();
    const unsigned me = communicator.myRank();
    const unsigned ranks = communicator.size();
    const std::size_t limit = communicator.getMaxBufferSize();
    std::size_t file = 0;
    for (const std::size_t count : {1u, 7u, 9u, 33u}) {
        for (const std::size_t bytes : {limit, std::size_t(64), std::size_t(8)}) {
            if (count * sizeof(double) > 9 * bytes)
                continue; // each piece is a collective call, which takes its time with many ranks
            SCOPED_TRACE(std::to_string(count) + " values, " + std::to_string(bytes) + " bytes");
            communicator.setMaxBufferSize(bytes);
            std::vector<double> mine(count);
            std::iota(mine.begin(), mine.end(), me * 1000.0);
            const long long offset = static_cast<long long>(me * count * sizeof(double));
            const std::wstring name = widePath("field" + std::to_string(++file));
            ParallelFile field(communicator, name, OXM_MPI_MODE_CREATE | OXM_MPI_MODE_RDWR);
            ASSERT_TRUE(field.isOpen());
            EXPECT_EQ(field.writeAtAll(offset, mine.data(), count), 0);
            communicator.synchronise();
            EXPECT_EQ(field.getFileSize(), ranks * count * sizeof(double));
            // What the neighbour wrote, collectively and alone.
            const unsigned next = (me + 1) % ranks;
            const long long nextOffset = static_cast<long long>(next * count * sizeof(double));
            std::vector<double> expected(count);
            std::iota(expected.begin(), expected.end(), next * 1000.0);
            std::vector<double> got(count);
            EXPECT_EQ(field.readAtAll(nextOffset, got.data(), count), 0);
            EXPECT_EQ(got, expected);
            std::fill(got.begin(), got.end(), 0.0);
            EXPECT_EQ(field.readAt(nextOffset, got.data(), count), 0);
            EXPECT_EQ(got, expected);
            communicator.synchronise();
            EXPECT_EQ(field.writeAt(offset, expected.data(), count), 0);
            communicator.synchronise();
            // The file pointer of each rank begins at the start of the file, where rank 0 wrote its
            // neighbour's.
            field.read(got.data(), count);
            std::iota(expected.begin(), expected.end(), (1 % ranks) * 1000.0);
            EXPECT_EQ(got, expected);
            std::map<std::string, std::string> info;
            field.getInfo(info);
            EXPECT_EQ(info, (std::map<std::string, std::string>{{"alignment_size", "2097152"}}))
                << "no layout that the MPI only gives back";
            EXPECT_EQ(field.close(), 0);
            EXPECT_FALSE(field.isOpen());
        }
    }
    communicator.setMaxBufferSize(limit);
    // One rank alone, at the file pointer.
    ParallelFile log(communicator, widePath("log"), OXM_MPI_MODE_CREATE | OXM_MPI_MODE_RDWR);
    if (me == ranks - 1) {
        log.write("abc", 3);
        log.write("de", 2);
    }
    log.close();
    communicator.synchronise();
    EXPECT_EQ(contentOf(path("log")), "abcde");

    ParallelFile readOnly(communicator, widePath("log"), OXM_MPI_MODE_RDONLY);
    ASSERT_TRUE(readOnly.isOpen());
    const int code = readOnly.writeAt(0, "x", 1);
    EXPECT_NE(code, 0);
    EXPECT_NE(ParallelFile::getErrorStr(code), "");
    EXPECT_EQ(readOnly.close(), code) << "told to nobody before";
}

TEST_F(FileStreams, allRanksHearOfAFailure) {
    Communicator& communicator = Machine::globalCommunicator();
    const unsigned me = communicator.myRank();
    const bool isLast = me + 1 == communicator.size();
    const std::size_t limit = communicator.getMaxBufferSize();
    communicator.setMaxBufferSize(64);
    const std::string name = write("gr\u00f6\u00dfe.bin", std::string(100000, '-'));
    constexpr int MODE = OXM_MPI_MODE_CREATE | OXM_MPI_MODE_RDWR;
    {
        ParallelFile field(communicator, name, MODE);
        EXPECT_EQ(field.getFileSize(), 100000u) << "what was there stays";
        ASSERT_TRUE(field.open(communicator, name, MODE | OXM_MPI_MODE_TRUNCATE));
        EXPECT_EQ(field.getFileSize(), 0u);
        communicator.synchronise();
        // Blocks of different sizes: some ranks cut theirs, the first has none.
        std::vector<int> mine(me * 20, static_cast<int>(me));
        const long long offset = me * (me - 1ll) / 2 * 20 * static_cast<long long>(sizeof(int));
        EXPECT_EQ(field.writeAtAll(offset, mine.data(), mine.size()), 0);
        std::vector<int> got(mine.size());
        EXPECT_EQ(field.readAtAll(offset, got.data(), got.size()), 0);
        EXPECT_EQ(got, mine);
        // The last one asks for more than there is.
        got.resize(mine.size() + isLast);
        EXPECT_EQ(field.readAtAll(offset, got.data(), got.size()), OXM_MPI_ERR_TRUNCATE);
        EXPECT_EQ(field.readAt(offset, got.data(), got.size()), isLast ? OXM_MPI_ERR_TRUNCATE : 0);
        EXPECT_EQ(field.close(), 0);
        if (_isReader) {
            ASSERT_EQ(mkfifo(path("pipe").c_str(), S_IRWXU), 0);
        }
        for (const std::wstring& none : {std::wstring(L"a\0b", 3), widePath("pipe"), widePath("missing")}) {
            EXPECT_FALSE(field.open(communicator, none, OXM_MPI_MODE_RDONLY));
            EXPECT_EQ(field.getOpenError(),
                      none == widePath("missing") ? OXM_MPI_ERR_NO_SUCH_FILE : OXM_MPI_ERR_BAD_FILE);
        }
    }
    communicator.setMaxBufferSize(limit);
    ASSERT_TRUE(Platform::filesystem().exists(StringHelper::toWString(name)));
    // Only the last rank has something to write, together with the others and alone.
    for (const bool together : {true, false}) {
        ParallelFile full(communicator, "/dev/full", OXM_MPI_MODE_WRONLY);
        const std::size_t count = isLast ? 7 : 0;
        const int code = together ? full.writeAtAll(0, "no room", count) : full.writeAt(0, "no room", count);
        EXPECT_EQ(code, together || isLast ? OXM_MPI_ERR_NO_SPACE : 0);
        EXPECT_EQ(full.close(), OXM_MPI_ERR_NO_SPACE);
    }
}

} // namespace
