#pragma once

#include "client/report/ReportData.h"

#include <string>

/// The report as one HTML page that needs no other file, no network and, except to sort and zoom, no script.
namespace ReportPage {

std::string make(const ReportData& data);

} // namespace ReportPage
