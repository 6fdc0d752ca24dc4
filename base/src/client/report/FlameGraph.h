#pragma once

#include "client/report/ReportData.h"

#include <string>

/// The nested events of all ranks together as a picture: the outermost on top, the width is the time.
namespace FlameGraph {

/// Empty when no event took time.
std::string toHtml(const ReportData& data);

} // namespace FlameGraph
