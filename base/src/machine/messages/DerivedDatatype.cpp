#include "machine/DerivedDatatype.h"

#include "machine/messages/MessageGate.h"

#include "mpiwrapper/OxmMpi.h"

#include <utility>
#include <vector>

unsigned MpiCore::DerivedDatatype::_epoch = 1;

/// Frees the lasting types when the message layer closes.
class MpiCore::DerivedDatatype::Release : public TypedObserver<> {
public:
    static Release& getSingleton() {
        static Release release;
        return release;
    }

    void keep(int type) {
        getOnFinalizationObservable().attach(*this);
        _types.push_back(type);
    }

    void update() override {
        ++_epoch;
        std::vector<int> types;
        types.swap(_types);
        int code = OXM_MPI_SUCCESS;
        for (int& type : types)
            if (const int failed = OXM_MPI_Type_free(&type); failed != OXM_MPI_SUCCESS)
                code = failed;
        handleError(code); // once none is left that could be freed
    }

private:
    std::vector<int> _types;
};

int MpiCore::DerivedDatatype::defineMpiStructType(int count, const int* blockLengths,
                                                  const long long* displacements, const int* types) {
    int type = OXM_MPI_DATATYPE_NULL;
    handleError(OXM_MPI_Type_create_struct(count, blockLengths, displacements, types, &type));
    return type;
}

int MpiCore::DerivedDatatype::defineMpiContiguousType(int count, const int& type) {
    int contiguous = OXM_MPI_DATATYPE_NULL;
    handleError(OXM_MPI_Type_contiguous(count, type, &contiguous));
    return contiguous;
}

void MpiCore::DerivedDatatype::commitMpiType(std::size_t size, int& type) {
    OXM_MPI_Aint lowerBound = 0;
    OXM_MPI_Aint extent = 0;
    handleError(OXM_MPI_Type_get_extent(type, &lowerBound, &extent));
    const auto wanted = static_cast<OXM_MPI_Aint>(size);
    if (extent != wanted) {
        int resized = OXM_MPI_DATATYPE_NULL;
        handleError(OXM_MPI_Type_create_resized(type, lowerBound, wanted, &resized));
        int old = std::exchange(type, resized);
        handleError(OXM_MPI_Type_free(&old));
    }
    handleError(OXM_MPI_Type_commit(&type));
}

void MpiCore::DerivedDatatype::freeMpiType(int& type) {
    handleError(OXM_MPI_Type_free(&type));
}

int MpiCore::DerivedDatatype::makeLastingStructType(std::size_t size, int count, const int* blockLengths,
                                                    const long long* displacements, const int* types) {
    // It is made on the way to a message, so a message that is refused makes none.
    MessageGate::pass();
    int type = defineMpiStructType(count, blockLengths, displacements, types);
    try {
        commitMpiType(size, type);
    } catch (...) {
        OXM_MPI_Type_free(&type); // the failure that counts is on its way
        throw;
    }
    Release::getSingleton().keep(type);
    return type;
}
