#pragma once

#include "client/report/ReportFigures.h"
#include "client/report/ReportText.h"

#include <string>
#include <vector>

/// Pictures of the report as SVG. The style sheet gives colours to their classes. All texts given are plain.
namespace SvgPlot {

/// The texts of a plot, for its axes and for readers that can't see it.
struct Labels {
    std::string title;
    std::string across; ///< the axis from left to right
    std::string up;
    ReportText::Unit unit; ///< of the values, on the axis upwards, or across for a histogram
};

/// Values over the ranks in ascending order.
std::string quantiles(const std::vector<double>& ascending, std::size_t ranks, const Labels& labels);
std::string histogram(const ReportFigures::Histogram& histogram, const Labels& labels);

struct Line {
    std::string name;
    std::vector<double> values;
};
/// Lines over the same places; the first is thick, the second dashed.
/// @param greatest  the upper end of the axis, 0: that of the values
std::string lines(const std::vector<double>& places, const std::vector<Line>& lines, double greatest,
                  const Labels& labels);

/// A bar that is divided into useful, imbalance and waiting, of 100.
std::string parts(const std::array<int, 3>& parts);
/// A line from the least to the greatest value, with a box for the middle half and a mark for the median.
std::string strip(const ReportFigures::Spread& spread, double greatest);

struct HeatMap {
    std::string id; ///< of the data for the script, letters only
    std::string title;
    std::string across;
    std::string down;
    ReportText::Unit unit;
    ReportFigures::CellTable cells;
    std::vector<std::string> rowNames;    ///< of the rows of cells; none: numbers
    std::vector<std::string> columnNames; ///< none: numbers
    bool isSquare = false;                ///< rows and columns are the same things
    /// The value of each row that gets the middle colour; twice as much gets the last one. None: all rows
    /// together, by the logarithm of the value.
    std::vector<double> rowMeans{};
};
std::string heatMap(const HeatMap& map);

/// Round values between the two for an axis.
std::vector<double> ticks(double least, double greatest);
/// The integers among the round values from 0 on.
std::vector<std::size_t> wholeTicks(std::size_t greatest);
std::string text(double x, double y, const std::string& words, const char* classes);
/// A coordinate with one digit behind the point, or none.
std::string coordinate(double value);

} // namespace SvgPlot
