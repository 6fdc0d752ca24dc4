#pragma once

class Controller;

/// Registers the commands that compute a value that isn't finite: one command for each kind of fault.
void registerFloatingPointFaults(Controller& controller);

/// Registers the commands that check the floating-point status of a thread, and the error of the job.
void registerFloatingPointTests(Controller& controller);
