#pragma once

/// Marks what the shared library OrvexMpiWrapper shows to others; everything else stays hidden.
#define ORVEX_MPIWRAPPER_EXPORT __attribute__((visibility("default")))
