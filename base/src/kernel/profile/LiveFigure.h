#pragma once

#include "kernel/KernelExport.h"
#include "kernel/Properties.h"

/// A quantity over ranks: its sum, and which ranks have the least and the most of it. A value type.
struct ORVEX_KERNEL_EXPORT LiveFigure {
    unsigned count = 0; ///< ranks that know it; without one, nothing below counts
    double total = 0.0;
    double min = 0.0;
    double max = 0.0;
    unsigned minRank = 0;
    unsigned maxRank = 0;

    void add(double value, unsigned rank);
    /// Adds those of other ranks. Of equal extremes the lowest rank counts.
    void add(const LiveFigure& other);
    double mean() const { return count == 0 ? 0.0 : total / count; }
    /// Of the ranks other than that with the least.
    double meanWithoutMin() const { return count < 2 ? 0.0 : (total - min) / (count - 1); }

    Properties toProperties() const;
    /// Keys that are missing or of another type keep their defaults.
    static LiveFigure fromProperties(const Properties& properties);
};
