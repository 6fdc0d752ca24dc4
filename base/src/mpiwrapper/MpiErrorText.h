#pragma once

/// The wrapper's own text of an error class or of one of its own codes, for when no MPI can be asked.
/// Null for a code that is neither.
const char* mpiErrorText(int code);
