#include "harness/MachineBench.h"

#include "machine/Communicator.h"
#include "machine/ConditionalOutputStreamWrapper.h"
#include "machine/InputFileStream.h"
#include "machine/ParallelFile.h"
#include "machine/StreamRedirector.h"
#include "machine/files/ParallelConsoleBuf.h"

#include "mpiwrapper/OxmMpi.h"
#include "platform/FileSystem.h"
#include "platform/StringHelper.h"

#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

// The cost of the files of a job over code that a solver developer would write by hand. With few rounds the
// files are small: such a run only shows that the benchmark works.

namespace {

constexpr std::size_t MIB = std::size_t(1) << 20;
constexpr std::size_t BLOCK = 4 * MIB;
constexpr int SERIOUS_ROUNDS = 10;

struct Nobody {
    static bool holds() { return false; }
};

class FileBench {
public:
    FileBench(const MpiBench& bench, BenchHarness& harness)
        : _raw(bench.raw()), _harness(harness), _isSerious(bench.getRounds() >= SERIOUS_ROUNDS),
          _fileSize(_isSerious ? 256 * MIB : 4 * MIB), _count(_isSerious ? 1000000 : 10000) {
        if (_rank == 0)
            makeFiles();
        _comm.broadcast(_folder, 0);
        _comm.synchronise();
    }
    ~FileBench() {
        if (_rank == 0)
            Platform::filesystem().deleteTree(StringHelper::toWString(_folder));
    }

    void addAll() {
        addBlockRead();
        addFormattedRead();
        addOperatorsOffTheWriter();
        addCollectiveWrite();
        addConsole();
    }

private:
    std::string path(const char* name) const { return _folder + "/" + name; }

    void makeFiles() {
        _folder = StringHelper::toString(Platform::filesystem().makeTemporaryDirectory(
            Platform::filesystem().getDefaultTemporaryDirectory(), L"orvex-bench-"));
        std::ofstream block(path("block"), std::ios::binary);
        for (std::size_t i = 0; i < _fileSize; i += MIB)
            block << std::string(MIB, 'x');
        std::ofstream numbers(path("numbers"));
        numbers.precision(12);
        for (std::size_t i = 0; i < _count; ++i)
            numbers << 1.0 / static_cast<double>(i + 1) << '\n';
        if (!block.flush() || !numbers.flush())
            throw std::runtime_error("no room for the files of the benchmark");
    }

    void addBlockRead() {
        _harness.addReference("a file read in blocks", "fread and broadcast", [this](int n) {
            for (int i = 0; i < n; ++i) {
                std::FILE* const file = _rank == 0 ? std::fopen(path("block").c_str(), "rb") : nullptr;
                for (std::size_t done = 0; done < _fileSize; done += BLOCK) {
                    if (file && std::fread(_block.data(), 1, BLOCK, file) != BLOCK)
                        throw std::runtime_error("the file is too short");
                    _raw.broadcast(_block.data(), static_cast<int>(BLOCK), 1);
                }
                if (file)
                    std::fclose(file);
            }
        });
        _harness.addCase("InputFileStream", [this](int n) {
            for (int i = 0; i < n; ++i) {
                InputFileStream file(path("block").c_str());
                file.setBroadcastFlag(true);
                for (std::size_t done = 0; done < _fileSize; done += BLOCK)
                    file.read(_block.data(), static_cast<std::streamsize>(BLOCK));
            }
        });
    }

    void addFormattedRead() {
        _harness.addReference("numbers in text", "read, one broadcast", [this](int n) {
            for (int i = 0; i < n; ++i) {
                std::vector<double> values(_count);
                if (_rank == 0) {
                    std::ifstream file(path("numbers"));
                    for (double& value : values)
                        file >> value;
                }
                _raw.broadcast(reinterpret_cast<char*>(values.data()),
                               static_cast<int>(_count * sizeof(double)), 1);
            }
        });
        _harness.addCase("each broadcast", [this](int n) {
            for (int i = 0; i < n; ++i) {
                std::vector<double> values(_count);
                InputFileStream file(path("numbers").c_str());
                file.setBroadcastFlag(true);
                for (double& value : values)
                    file >> value;
            }
        });
        _harness.addCase("in blocks, parsed by all", [this](int n) {
            for (int i = 0; i < n; ++i)
                readInBlocks();
        });
    }

    /// As the documentation of InputFileStream recommends it for many values.
    void readInBlocks() {
        std::vector<double> values;
        InputFileStream file(path("numbers").c_str());
        file.setBroadcastFlag(true);
        std::string text;
        for (std::streamsize got = 1; got > 0;) {
            const std::size_t rest = text.size();
            text.resize(rest + MIB);
            file.read(text.data() + rest, static_cast<std::streamsize>(MIB));
            got = file.gcount();
            text.resize(rest + static_cast<std::size_t>(got));
            const char* begin = text.data();
            const char* const end = begin + (got > 0 ? text.rfind('\n') + 1 : text.size());
            for (double value = 0.0; begin < end; ++begin) { // past the line end
                begin = std::from_chars(begin, end, value).ptr;
                values.push_back(value);
            }
            text.erase(0, static_cast<std::size_t>(begin - text.data()));
        }
        if (values.size() != _count)
            throw std::runtime_error("numbers were lost");
    }

    void addOperatorsOffTheWriter() {
        _harness.addReference("output off the writer", "empty loop", [this](int n) {
            for (int i = 0; i < n; ++i)
                asm volatile("" : : "g"(_sink) : "memory");
        });
        _harness.addCase("a double", [this](int n) {
            for (int i = 0; i < n; ++i)
                *_sink << 1.5;
        });
        _harness.addCase("a string", [this](int n) {
            for (int i = 0; i < n; ++i)
                *_sink << _folder;
        });
    }

    void addCollectiveWrite() {
        const std::size_t mine = _fileSize / _comm.size();
        _field.resize(mine / sizeof(double));
        const auto offset = static_cast<long long>(_rank * _field.size() * sizeof(double));
        _harness.addReference("one file from all ranks", "raw", [this, offset](int n) {
            _raw.writeFile(path("raw").c_str(), offset, reinterpret_cast<const char*>(_field.data()),
                           static_cast<int>(_field.size() * sizeof(double)), n);
        });
        _harness.addCase("ParallelFile", [this, offset](int n) {
            for (int i = 0; i < n; ++i) {
                ParallelFile file(_comm, StringHelper::toWString(path("typed")),
                                  OXM_MPI_MODE_CREATE | OXM_MPI_MODE_RDWR);
                file.writeAtAll(offset, _field.data(), _field.size());
            }
        });
    }

    void addConsole() {
        const std::string block(254, 'x');
        const auto silently = [](const auto& work) {
            const StreamRedirector silent(stdout, Platform::filesystem().getNullDevice());
            work();
        };
        _harness.addReference("console, blocks of 254 B", "write", [block, silently](int n) {
            silently([&] {
                for (int i = 0; i < n; ++i)
                    if (::write(STDOUT_FILENO, block.data(), block.size()) < 0)
                        throw std::runtime_error("the null device is full");
            });
        });
        _harness.addCase("ParallelConsoleBuf", [this, block, silently](int n) {
            silently([&] {
                const ParallelConsoleBuf console(std::cout, _folder, false, true, 255);
                for (int i = 0; i < n; ++i)
                    (std::cout << block).flush();
            });
        });
    }

    const RawMpi& _raw;
    BenchHarness& _harness;
    Communicator _comm;
    const unsigned _rank = _comm.myRank();
    const bool _isSerious;
    const std::size_t _fileSize;
    const std::size_t _count;
    std::string _folder;
    std::string _block = std::string(BLOCK, ' ');
    std::vector<double> _field;
    std::unique_ptr<OStreamWrapper> _sink =
        std::make_unique<ConditionalOutputStreamWrapper<Nobody>>(std::cout);
};

} // namespace

int main(int argc, char** argv) {
    return runMachineBench<FileBench>("FileBench", argc, argv);
}
