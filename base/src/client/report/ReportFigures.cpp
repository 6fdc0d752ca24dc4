#include "client/report/ReportFigures.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>

namespace {

double quantile(const std::vector<double>& sorted, double part) {
    const double place = part * static_cast<double>(sorted.size() - 1);
    const auto below = static_cast<std::size_t>(place);
    const std::size_t above = std::min(below + 1, sorted.size() - 1);
    return std::lerp(sorted[below], sorted[above], place - static_cast<double>(below));
}

std::vector<double> sortedCopy(std::span<const double> values) {
    std::vector<double> sorted(values.begin(), values.end());
    std::sort(sorted.begin(), sorted.end());
    return sorted;
}

double sumOf(std::span<const double> values) {
    return std::accumulate(values.begin(), values.end(), 0.0);
}

/// Adds `factor` times `values` to `sums`, as far as there are some.
void add(const std::vector<double>& values, double factor, std::vector<double>& sums) {
    for (std::size_t i = 0; i < values.size(); ++i)
        sums[i] += factor * values[i];
}

std::size_t upwards(std::size_t count, std::size_t divisor) {
    return (count + divisor - 1) / divisor;
}

} // namespace

ReportFigures::Spread ReportFigures::spreadOf(std::span<const double> values) {
    Spread spread;
    spread.count = values.size();
    if (values.empty())
        return spread;
    const auto [min, max] = std::minmax_element(values.begin(), values.end());
    spread.minRank = static_cast<std::size_t>(min - values.begin());
    spread.maxRank =
        static_cast<std::size_t>(std::max_element(values.begin(), values.end()) - values.begin());
    spread.min = *min;
    spread.max = *max;
    spread.total = sumOf(values);
    spread.mean = spread.total / static_cast<double>(values.size());
    const std::vector<double> sorted = sortedCopy(values);
    constexpr std::array PARTS{0.1, 0.25, 0.5, 0.75, 0.9};
    for (std::size_t i = 0; i < PARTS.size(); ++i)
        spread.quantiles[i] = quantile(sorted, PARTS[i]);
    return spread;
}

std::vector<double> ReportFigures::quantileCurve(std::span<const double> values, std::size_t points) {
    std::vector<double> sorted = sortedCopy(values);
    if (sorted.size() <= points || points < 2)
        return sorted;
    std::vector<double> curve;
    curve.reserve(points);
    for (std::size_t i = 0; i < points; ++i)
        curve.push_back(quantile(sorted, static_cast<double>(i) / static_cast<double>(points - 1)));
    return curve;
}

ReportFigures::Histogram ReportFigures::histogramOf(std::span<const double> values, std::size_t bins) {
    Histogram histogram;
    if (values.empty() || bins == 0)
        return histogram;
    const auto [min, max] = std::minmax_element(values.begin(), values.end());
    histogram.first = *min;
    histogram.width = (*max - *min) / static_cast<double>(bins);
    histogram.counts.assign(bins, 0);
    for (const double value : values) {
        const double place = histogram.width > 0.0 ? (value - *min) / histogram.width : 0.0;
        ++histogram.counts[std::min(static_cast<std::size_t>(place), bins - 1)];
    }
    return histogram;
}

std::vector<std::size_t> ReportFigures::greatest(std::span<const double> values, std::size_t count) {
    std::vector<std::size_t> indices(values.size());
    std::iota(indices.begin(), indices.end(), std::size_t(0));
    const std::size_t kept = std::min(count, values.size());
    std::partial_sort(
        indices.begin(), indices.begin() + static_cast<std::ptrdiff_t>(kept), indices.end(),
        [&](std::size_t a, std::size_t b) { return values[a] != values[b] ? values[a] > values[b] : a < b; });
    indices.resize(kept);
    return indices;
}

ReportFigures::CellTable ReportFigures::cellsOf(const std::vector<std::vector<double>>& values) {
    CellTable table;
    if (values.empty() || values.front().empty())
        return table;
    const std::size_t width = values.front().size();
    table.rowsEach = upwards(values.size(), CellTable::MAX_CELLS);
    table.columnsEach = upwards(width, CellTable::MAX_CELLS);
    table.rows = upwards(values.size(), table.rowsEach);
    table.columns = upwards(width, table.columnsEach);
    table.max.assign(table.rows * table.columns, 0.0);
    table.mean.assign(table.rows * table.columns, 0.0);
    std::vector<double> counts(table.mean.size(), 0.0);
    for (std::size_t row = 0; row < values.size(); ++row)
        for (std::size_t column = 0; column < width; ++column) {
            const std::size_t cell = row / table.rowsEach * table.columns + column / table.columnsEach;
            table.max[cell] = std::max(table.max[cell], values[row][column]);
            table.mean[cell] += values[row][column];
            counts[cell] += 1.0;
        }
    for (std::size_t cell = 0; cell < counts.size(); ++cell)
        table.mean[cell] /= counts[cell];
    return table;
}

std::array<int, 3> ReportFigures::Efficiency::getParts() const {
    if (!(seconds > 0.0))
        return {100, 0, 0};
    const std::array<double, 3> shares{100.0 * usefulMean / seconds,
                                       100.0 * (usefulMax - usefulMean) / seconds,
                                       100.0 * (seconds - usefulMax) / seconds};
    std::array<int, 3> parts{};
    std::array<double, 3> rests{};
    for (std::size_t i = 0; i < parts.size(); ++i) {
        parts[i] = static_cast<int>(shares[i]);
        rests[i] = shares[i] - parts[i];
    }
    for (int left = 100 - parts[0] - parts[1] - parts[2]; left > 0; --left) { // to those that lost most
        const auto most = std::max_element(rests.begin(), rests.end());
        ++parts[static_cast<std::size_t>(most - rests.begin())];
        *most = -1.0;
    }
    return parts;
}

ReportFigures::Efficiency ReportFigures::efficiencyOf(double seconds, std::span<const double> useful) {
    if (useful.empty())
        return {seconds, seconds, seconds};
    return {seconds, sumOf(useful) / static_cast<double>(useful.size()),
            *std::max_element(useful.begin(), useful.end())};
}

ReportFigures::Efficiency ReportFigures::efficiencyOf(const ReportData::Bill& bill) {
    const double mean = std::clamp(bill.wall - bill.waiting.mean, 0.0, bill.wall);
    return {bill.wall, mean, std::clamp(bill.wall - bill.waiting.min, mean, bill.wall)};
}

ReportFigures::HostBalance ReportFigures::hostBalanceOf(const ReportData& data,
                                                        std::span<const double> useful) {
    HostBalance balance;
    const std::size_t hosts = data.hosts.size();
    if (hosts < 2 || data.rankHost.size() != useful.size() || useful.empty())
        return balance;
    std::vector<double> sums(hosts, 0.0);
    std::vector<std::size_t> counts(hosts, 0);
    for (std::size_t rank = 0; rank < useful.size(); ++rank) {
        sums[data.rankHost[rank]] += useful[rank];
        ++counts[data.rankHost[rank]];
    }
    const double most = *std::max_element(sums.begin(), sums.end());
    const double max = *std::max_element(useful.begin(), useful.end());
    balance.valid = most > 0.0 && std::all_of(counts.begin(), counts.end(),
                                              [&](std::size_t each) { return each == counts.front(); });
    if (!balance.valid)
        return balance;
    balance.inside = most * static_cast<double>(hosts) / (max * static_cast<double>(useful.size()));
    balance.between = sumOf(useful) / (most * static_cast<double>(hosts));
    return balance;
}

std::vector<double> ReportFigures::usefulTimes(const ReportData& data) {
    std::vector<double> useful;
    useful.reserve(data.waiting.size());
    for (const double waiting : data.waiting)
        useful.push_back(std::max(0.0, data.seconds - waiting));
    return useful;
}

std::vector<ReportFigures::EventTotal> ReportFigures::eventTotals(const ReportData& data) {
    std::map<std::string, std::size_t> places;
    std::vector<EventTotal> totals;
    std::vector<std::size_t> placeOf;
    for (const ReportData::Event& event : data.events) {
        const auto [place, isNew] = places.emplace(event.name, totals.size());
        if (isNew)
            totals.push_back(
                {event.name, std::vector<double>(data.ranks), std::vector<double>(data.ranks), {}});
        placeOf.push_back(place->second);
        EventTotal& total = totals[place->second];
        add(event.seconds, 1.0, total.seconds);
        add(event.seconds, 1.0, total.own);
        total.count.resize(std::max(total.count.size(), event.count.size()));
        add(event.count, 1.0, total.count);
        total.open = total.open || event.open;
    }
    for (const ReportData::Event& event : data.events)
        if (event.parent >= 0)
            add(event.seconds, -1.0, totals[placeOf[static_cast<std::size_t>(event.parent)]].own);
    std::vector<std::pair<double, std::size_t>> order;
    for (std::size_t i = 0; i < totals.size(); ++i) {
        for (double& own : totals[i].own)
            own = std::max(0.0, own);
        order.emplace_back(-sumOf(totals[i].own), i);
    }
    std::sort(order.begin(), order.end());
    std::vector<EventTotal> sorted;
    sorted.reserve(totals.size());
    for (const auto& [time, place] : order)
        sorted.push_back(std::move(totals[place]));
    return sorted;
}
