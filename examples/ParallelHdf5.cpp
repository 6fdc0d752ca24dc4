// A module with a library that needs the MPI communicator itself. All ranks write one field into an HDF5
// file, each its own part. Then each rank reads back the part of the next rank.
//
//   orvexctl StoreInHdf5 path=field.h5 points=1000000
//
// The module is built once for each MPI library whose parallel HDF5 is found. A server that runs with the
// other library refuses the command.

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/Error.h"
#include "kernel/Module.h"
#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "machine/Communicator.h"
#include "machine/GlobalCondition.h"
#include "machine/Machine.h"

#include <hdf5.h>

#include <string>
#include <vector>

namespace {

#ifdef OPEN_MPI
constexpr const char* LIBRARY = "Open MPI";
#else
constexpr const char* LIBRARY = "MPICH";
#endif

/// An identifier of HDF5, closed at the end of its scope. A failure of one rank is raised on all of them.
class Hdf5Object {
public:
    Hdf5Object(hid_t id, herr_t (*close)(hid_t), const char* what) : _id(id), _close(close) {
        check(id, what);
    }
    ~Hdf5Object() {
        if (_id >= 0)
            _close(_id);
    }
    Hdf5Object(const Hdf5Object&) = delete;
    Hdf5Object& operator=(const Hdf5Object&) = delete;
    operator hid_t() const { return _id; }

    /// Collective.
    static void check(long long result, const char* what) {
        if (GlobalCondition(result < 0, GlobalCondition::ON_ANY))
            raise(SystemError(std::string("HDF5 can't ") + what));
    }

private:
    hid_t _id;
    herr_t (*_close)(hid_t);
};

/// The points of one rank. They follow those of the previous rank.
struct Part {
    hsize_t begin, count;

    Part(unsigned points, unsigned rank, unsigned ranks)
        : begin(hsize_t(points) * rank / ranks), count(hsize_t(points) * (rank + 1) / ranks - begin) {}
    std::vector<double> values() const {
        std::vector<double> result;
        for (hsize_t i = 0; i < count; ++i)
            result.push_back(0.5 * static_cast<double>(begin + i));
        return result;
    }
};

/// Calls H5Dwrite or H5Dread for `part`, on all ranks together.
template <class Transfer>
void move(hid_t dataset, const Part& part, Transfer transfer) {
    const Hdf5Object memory(H5Screate_simple(1, &part.count, nullptr), H5Sclose, "describe memory");
    const Hdf5Object space(H5Dget_space(dataset), H5Sclose, "describe the dataset");
    const Hdf5Object together(H5Pcreate(H5P_DATASET_XFER), H5Pclose, "prepare the transfer");
    Hdf5Object::check(H5Pset_dxpl_mpio(together, H5FD_MPIO_COLLECTIVE), "prepare the transfer");
    Hdf5Object::check(H5Sselect_hyperslab(space, H5S_SELECT_SET, &part.begin, nullptr, &part.count, nullptr),
                      "select the part of a rank");
    Hdf5Object::check(transfer(memory, space, together), "transfer the field");
}

class StoreInHdf5 : public QueryCommand {
public:
    StoreInHdf5()
        : QueryCommand({"Writes a field into an HDF5 file from all ranks, and reads it back.",
                        {{"path", "text", "the file; an old one is replaced"},
                         {"points", "unsigned", "number of points, as many as ranks or more"}},
                        {{"equal", "bool", "whether all ranks read what another one wrote"}}}) {}
    std::string getName() const override { return "StoreInHdf5"; }

    void execute(const Properties& arguments, Properties& response) override {
        const std::string path = arguments.getString("path");
        const unsigned points = arguments.getUnsignedInt("points");
        if (!Machine::isParallel() || points < Machine::nProcesses())
            raise(InputError("StoreInHdf5 needs a parallel server, and a point for each rank"));
        Communicator& world = Machine::globalCommunicator();
        const MPI_Comm native = MPI_Comm_f2c(world.nativeHandle().forLibrary(LIBRARY));
        const Part mine(points, world.myRank(), world.size());
        const Part next(points, (world.myRank() + 1) % world.size(), world.size());
        H5Eset_auto(H5E_DEFAULT, nullptr, nullptr); // failures are raised, not printed

        const Hdf5Object access(H5Pcreate(H5P_FILE_ACCESS), H5Pclose, "prepare the file");
        Hdf5Object::check(H5Pset_fapl_mpio(access, native, MPI_INFO_NULL), "use the communicator");
        const hsize_t size = points;
        {
            const Hdf5Object file(H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, access), H5Fclose,
                                  "create the file");
            const Hdf5Object space(H5Screate_simple(1, &size, nullptr), H5Sclose, "describe the field");
            const Hdf5Object field(
                H5Dcreate2(file, "field", H5T_IEEE_F64LE, space, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT),
                H5Dclose, "create the dataset");
            const std::vector<double> values = mine.values();
            move(field, mine, [&](hid_t memory, hid_t part, hid_t together) {
                return H5Dwrite(field, H5T_NATIVE_DOUBLE, memory, part, together, values.data());
            });
            Hdf5Object::check(H5Fflush(file, H5F_SCOPE_GLOBAL), "write the file");
        }
        const Hdf5Object file(H5Fopen(path.c_str(), H5F_ACC_RDONLY, access), H5Fclose, "open the file");
        const Hdf5Object field(H5Dopen2(file, "field", H5P_DEFAULT), H5Dclose, "find the dataset");
        std::vector<double> values(next.count);
        move(field, next, [&](hid_t memory, hid_t part, hid_t together) {
            return H5Dread(field, H5T_NATIVE_DOUBLE, memory, part, together, values.data());
        });
        response.set("equal", bool(GlobalCondition(values == next.values(), GlobalCondition::ON_ALL)));
    }
};

} // namespace

ORVEX_MODULE_ENTRY() {
    Controller::getSingleton().registerCommand(new StoreInHdf5);
}
