#pragma once

class Controller;

/// "EnableMpiStatistics", "ReportMpiStatistics" and "PerformPerformanceMpiStressTest". Each has its own place
/// in the order of the commands: three calls.
void registerEnableMpiStatistics(Controller& controller);
void registerReportMpiStatistics(Controller& controller);
void registerMpiStressTest(Controller& controller);
