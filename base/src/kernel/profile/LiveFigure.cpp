#include "kernel/profile/LiveFigure.h"

#include "kernel/profile/LiveKeys.h"

#include <algorithm>

void LiveFigure::add(double value, unsigned rank) {
    LiveFigure one;
    one.count = 1;
    one.total = one.min = one.max = value;
    one.minRank = one.maxRank = rank;
    add(one);
}

void LiveFigure::add(const LiveFigure& other) {
    if (other.count == 0)
        return;
    if (count == 0) {
        *this = other;
        return;
    }
    count += other.count;
    total += other.total;
    if (other.min < min || (other.min == min && other.minRank < minRank)) {
        min = other.min;
        minRank = other.minRank;
    }
    if (other.max > max || (other.max == max && other.maxRank < maxRank)) {
        max = other.max;
        maxRank = other.maxRank;
    }
}

Properties LiveFigure::toProperties() const {
    Properties properties;
    properties.set("count", count);
    properties.set("total", total);
    properties.set("min", min);
    properties.set("minRank", minRank);
    properties.set("mean", mean());
    properties.set("max", max);
    properties.set("maxRank", maxRank);
    properties.set("imbalance", mean() == 0.0 ? 1.0 : max / mean());
    return properties;
}

LiveFigure LiveFigure::fromProperties(const Properties& properties) {
    LiveFigure figure;
    LiveKeys::read(properties, "count", figure.count);
    LiveKeys::read(properties, "total", figure.total);
    LiveKeys::read(properties, "min", figure.min);
    LiveKeys::read(properties, "minRank", figure.minRank);
    LiveKeys::read(properties, "max", figure.max);
    LiveKeys::read(properties, "maxRank", figure.maxRank);
    return figure;
}
