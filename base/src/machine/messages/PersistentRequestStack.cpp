#include "machine/PersistentRequestStack.h"

#include "mpiwrapper/OxmMpi.h"

MpiCore::PersistentRequestStack::PersistentRequestStack() = default;
MpiCore::PersistentRequestStack::PersistentRequestStack(int& request) : RequestStack(request) {}
MpiCore::PersistentRequestStack::PersistentRequestStack(const PersistentRequestStack&) = default;
MpiCore::PersistentRequestStack::~PersistentRequestStack() = default;

const MpiCore::PersistentRequestStack&
MpiCore::PersistentRequestStack::operator=(const PersistentRequestStack&) {
    return *this;
}

void MpiCore::PersistentRequestStack::start() {
    std::vector<int>& live = requests();
    if (live.size() == 1)
        handleError(OXM_MPI_Start(&live.front()));
    else if (!live.empty())
        handleError(OXM_MPI_Startall(static_cast<int>(live.size()), live.data()));
    noteReceives();
}

void MpiCore::PersistentRequestStack::clear() {
    free();
}

void MpiCore::PersistentRequestStack::remove(const unsigned& index) {
    handleError(OXM_MPI_Request_free(&requests()[index]));
    RequestStack::remove(index);
}
