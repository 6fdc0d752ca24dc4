#pragma once

#include "machine/MachineExport.h"
#include "machine/MpiCore.h"
#include "platform/WallTimer.h"

#include <memory>

/// The stopwatch on the message layer's clock.
class ORVEX_MACHINE_EXPORT MpiCore::MpiWallTimer : public WallTimer {
public:
    MpiWallTimer();
    ~MpiWallTimer() override;
    std::unique_ptr<WallTimer> clone() const override;
    double resolution() const override;
    int start() override;
    int stop() override;
    int getElapsedTime(double& dt) const override;

private:
    double _start = 0.0; ///< [s]
};
