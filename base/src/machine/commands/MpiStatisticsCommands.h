#pragma once

class Controller;

/// "EnableMpiStatistics" and "ReportMpiStatistics" have their own places in the order of the commands: two
/// calls.
void registerEnableMpiStatistics(Controller& controller);
void registerReportMpiStatistics(Controller& controller);
