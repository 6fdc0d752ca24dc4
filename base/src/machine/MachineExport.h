#pragma once

/// Marks what the shared library OrvexMachine shows to others; everything else stays hidden.
#define ORVEX_MACHINE_EXPORT __attribute__((visibility("default")))
