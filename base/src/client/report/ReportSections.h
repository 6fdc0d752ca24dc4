#pragma once

#include "client/report/ReportData.h"

#include <string>

/// The sections of the page as HTML, each empty when the profile has nothing for it. A section is in a source
/// of its own.
namespace ReportSections {

/// Efficiencies, the balance between the ranks, and the ranks that stand out.
std::string balance(const ReportData& data);
/// The commands, with the efficiencies of each.
std::string commands(const ReportData& data);
/// Events by rank, and the flame graph.
std::string events(const ReportData& data);
/// Messages by operation, size and partner.
std::string messages(const ReportData& data);
/// Memory by rank and over time.
std::string memory(const ReportData& data);
/// The places where the ranks may run.
std::string hosts(const ReportData& data);
/// The start of the job.
std::string start(const ReportData& data);
/// Versions and options.
std::string settings(const ReportData& data);

/// A value of all ranks as two plots, and the ten ranks with the most of it.
/// @param name  plain text, "Computing time"
std::string ranksOf(const ReportData& data, const ReportData::PerRank& values, bool isTime,
                    const std::string& name);
/// "217 on node14", escaped.
std::string rankLabel(const ReportData& data, std::size_t rank);
/// A section with a heading; empty when the content is.
std::string section(const std::string& id, const std::string& heading, const std::string& content);

} // namespace ReportSections
