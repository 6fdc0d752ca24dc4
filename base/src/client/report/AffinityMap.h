#pragma once

#include "client/report/ReportData.h"

#include <string>

/// Pictures of the places where the ranks of each host may run: sockets, NUMA nodes, cores and their
/// processors.
namespace AffinityMap {

/// Hosts that are built and bound alike share one picture. Empty when the profile tells of no processors.
std::string toHtml(const ReportData& data);

} // namespace AffinityMap
