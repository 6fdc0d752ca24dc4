// Files of a job: one rank reads a table for all, and all ranks write one field into one file.
//
//   mpirun -np 4 field_file table.txt field.bin -mpi openmpi4
//
// The table holds the number of points, then rows of a position and a value. The file holds a double for each
// point of [0, 1]. Between two rows the value is interpolated linearly.

#include "machine/Communicator.h"
#include "machine/InputFileStream.h"
#include "machine/Machine.h"
#include "machine/ParallelFile.h"
#include "mpiwrapper/OxmMpi.h"

#include <exception>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

struct Table {
    unsigned points = 0;
    std::vector<double> positions, values;
};

/// All ranks get the values that the master reads, and the end of the file. So all leave the loop together.
Table readTable(const char* path) {
    InputFileStream file;
    if (!file.open(path))
        throw std::runtime_error(std::string("can't open ") + path);
    file.setBroadcastFlag(true);
    Table table;
    file >> table.points;
    for (double position = 0.0, value = 0.0;;) {
        file >> position >> value;
        if (file.fail())
            break;
        table.positions.push_back(position);
        table.values.push_back(value);
    }
    if (table.points < 2 || table.positions.size() < 2)
        throw std::runtime_error(std::string(path) + " needs two points and two rows at least");
    return table;
}

double interpolate(const Table& table, double x) {
    std::size_t row = 1;
    while (row + 1 < table.positions.size() && table.positions[row] < x)
        ++row;
    const double share = (x - table.positions[row - 1]) / (table.positions[row] - table.positions[row - 1]);
    return table.values[row - 1] + share * (table.values[row] - table.values[row - 1]);
}

/// Each rank computes and writes its own part. All ranks get the same error, for example that of a full disk.
void writeField(const Table& table, const std::string& path) {
    Communicator& ranks = Machine::globalCommunicator();
    const std::size_t begin = table.points * std::size_t(ranks.myRank()) / ranks.size();
    const std::size_t end = table.points * std::size_t(ranks.myRank() + 1) / ranks.size();
    std::vector<double> part;
    for (std::size_t i = begin; i < end; ++i)
        part.push_back(interpolate(table, static_cast<double>(i) / (table.points - 1)));
    ParallelFile file(ranks, path, OXM_MPI_MODE_CREATE | OXM_MPI_MODE_TRUNCATE | OXM_MPI_MODE_WRONLY);
    if (!file.isOpen())
        throw std::runtime_error("can't create " + path + ": " +
                                 ParallelFile::getErrorStr(file.getOpenError()));
    file.writeAtAll(static_cast<long long>(begin * sizeof(double)), part.data(), part.size());
    // close() also reports failures of the writes before it. After several writes one check here is enough.
    const int code = file.close();
    if (code != OXM_MPI_SUCCESS)
        throw std::runtime_error("can't write " + path + ": " + ParallelFile::getErrorStr(code));
}

} // namespace

int main(int argc, char** argv) {
    std::map<std::string, unsigned> consumed;
    try {
        if (argc < 3)
            throw std::runtime_error("usage: field_file TABLE FIELD -mpi DRIVER");
        Machine& machine = Machine::getSingleton();
        machine.startCommunicators(argc, &argv, consumed);
        const Table table = readTable(argv[1]);
        writeField(table, argv[2]);
        if (Machine::isMaster())
            std::cout << Machine::nProcesses() << " ranks wrote " << table.points << " points" << std::endl;
        machine.stopCommunicators();
    } catch (const std::exception& error) {
        std::cerr << "field_file: " << error.what() << std::endl;
        Machine::abortFromAnywhere();
        return 1;
    }
}
