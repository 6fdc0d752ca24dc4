#pragma once

/// Marks what the shared library OrvexKernel shows to others; everything else stays hidden.
#define ORVEX_KERNEL_EXPORT __attribute__((visibility("default")))
