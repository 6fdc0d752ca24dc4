#pragma once

#include "kernel/Command.h"

/// Solves the heat conduction in a plate on all ranks, and tells how accurate and how fast that was.
class SolveHeatConduction : public QueryCommand {
public:
    SolveHeatConduction();
    std::string getName() const override { return "SolveHeatConduction"; }
    void execute(const Properties& args, Properties& response) override;
};
