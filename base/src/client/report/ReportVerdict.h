#pragma once

#include "client/report/ReportData.h"

#include <string>
#include <vector>

/// Text that a reader should know before all figures. Plain text, not HTML.
namespace ReportVerdict {

constexpr double GOOD = 0.8; ///< a parallel efficiency from here on is accepted, as the POP centre advises

/// A sentence or two: which rank or host holds the others up, and where, or that nothing stands out.
std::string sentence(const ReportData& data);
/// Reasons to doubt the times: a debug build, too many ranks on a host, commands that failed.
std::vector<std::string> warnings(const ReportData& data);

/// An instrument that was off, and how to turn it on.
struct Missing {
    std::string what;
    std::string command; ///< words for a shell
};
std::vector<Missing> missing(const ReportData& data);

/// "Rank 217 on node14", or "Rank 217" when the host isn't known.
std::string rankName(const ReportData& data, std::size_t rank);

} // namespace ReportVerdict
