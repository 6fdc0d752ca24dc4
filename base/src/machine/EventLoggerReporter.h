#pragma once

#include "machine/MachineExport.h"

#include "kernel/EventLoggerManager.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

class OStreamWrapper;
class OutputFileStream;

/// The common part of the reports on events: tables as text, statistics over ranks, and the ways on which the
/// ranks' events come to the master. Without state.
///
/// Local, except what is named collective: over the global communicator, on the main thread of all ranks.
class ORVEX_MACHINE_EXPORT EventLoggerReporter {
public:
    /// A value and the rank that has it.
    using RankedValue = std::pair<double, unsigned>;

    /// A line of `length` characters "=" between two "|".
    static void heavyRule(OStreamWrapper& out, int length);
    /// The same with "-".
    static void lightRule(OStreamWrapper& out, int length);
    /// The value with 3 decimals, " / ", and the rank, as wide as the largest rank of the job.
    static std::string getValueRankText(const RankedValue& value);
    static std::string getValueRankText(const std::pair<long long, unsigned>& value);

    // ---- Statistics of one value for each rank. No values give zeros.

    /// The lowest rank of those with the largest value.
    static RankedValue getMaximum(const std::vector<double>& values);
    static RankedValue getMinimum(const std::vector<double>& values);
    static double getMean(const std::vector<double>& values);
    /// The population's. Exactly 0 for equal values.
    static double getStandardDeviation(const std::vector<double>& values);

    /// Merges sorted texts: all ranks get the texts of all ranks, sorted, each once. Collective. A rank holds
    /// no more than two lists at a time. No text holds the character of value 0.
    /// @param names    the texts, one after the other
    /// @param lengths  [bytes] of each
    static void mergeKeys(std::string& names, std::vector<unsigned>& lengths);

protected:
    /// The rows of one rank's table. Column by column, as they travel.
    struct Rows {
        explicit Rows(std::size_t numberColumns) : columns(numberColumns) {}
        void add(const std::vector<double>& values, std::uint32_t counter, const std::string& name);
        std::size_t size() const { return counters.size(); }
        std::string getName(std::size_t row) const {
            return names.substr(offsets[row], offsets[row + 1] - offsets[row]);
        }

        std::vector<std::vector<double>> columns;
        std::vector<std::uint32_t> counters;
        std::vector<unsigned> offsets{0}; ///< where the names begin; the last one closes the list
        std::string names;
    };

    ~EventLoggerReporter() = default;

    /// Gives all ranks the events of all ranks. Collective; nothing in a serial process.
    static void shareEvents(EventLoggerManager& manager);
    /// Calls `print` on the master, or in the serial process, with the rows of each rank in rank order.
    /// Collective. The master asks one rank after the other, so it holds the rows of one at a time.
    static void forEachRank(const Rows& own,
                            const std::function<void(unsigned rank, const Rows& rows)>& print);

    /// Calls `take` on the master for each row, with the values that all ranks have there: a list in rank
    /// order for each column. Collective, with as many rows on all ranks. Many rows travel together, but the
    /// master holds no more than some 65,536 numbers at a time.
    /// @param columns  this rank's values
    static void forEachRow(
        const std::vector<std::vector<double>>& columns,
        const std::function<void(std::size_t row, const std::vector<std::vector<double>>& ofRanks)>& take);

    /// The base of a file name: that of the session without folder and extension.
    static std::wstring getStem(const std::wstring& session);
    /// Opens the file of a report in the working directory, says so on all ranks, and writes the head down to
    /// the number of cores with an empty line. Collective.
    /// @param label   begins the line on the standard output
    /// @param prefix  begins the file name
    /// @param title   begins the second line of the file
    static void openReport(OutputFileStream& out, const std::string& label, const std::wstring& prefix,
                           const std::string& title, const std::wstring& session);
    /// Flushes and closes. A file that couldn't be written gets a line on the standard output. Local.
    static void closeReport(OutputFileStream& out);

    /// The width of the column of names: that of the longest name on any rank, within limits. Collective.
    static int getNameWidth(std::size_t longest);
    /// At most `width` bytes of a name, whole characters.
    static std::string cutName(const std::string& name, int width);
    static std::string alignLeft(const std::string& text, int width);
    static std::string alignRight(const std::string& text, int width);
    /// In fixed notation.
    static std::string toText(double value, int decimals);
    /// Both rules and the cells "Proc # " and rank of a table's head, with `titles` between them.
    static void printRankHead(OStreamWrapper& out, int nameWidth, int ruleLength, int rank,
                              const std::string& titles);
};
