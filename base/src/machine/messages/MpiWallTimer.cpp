#include "machine/messages/MpiWallTimer.h"

#include "mpiwrapper/OxmMpi.h"

#include <utility>

MpiCore::MpiWallTimer::MpiWallTimer() = default;
MpiCore::MpiWallTimer::~MpiWallTimer() = default;

std::unique_ptr<WallTimer> MpiCore::MpiWallTimer::clone() const {
    return std::make_unique<MpiWallTimer>(*this);
}

double MpiCore::MpiWallTimer::resolution() const {
    return OXM_MPI_Wtick();
}

int MpiCore::MpiWallTimer::start() {
    _start = OXM_MPI_Wtime();
    return std::exchange(running, true) ? 1 : 0;
}

int MpiCore::MpiWallTimer::stop() {
    _start = 0.0;
    return std::exchange(running, false) ? 0 : 1;
}

int MpiCore::MpiWallTimer::getElapsedTime(double& dt) const {
    if (!running)
        return 1;
    dt = OXM_MPI_Wtime() - _start;
    return 0;
}
