#pragma once

/// Marks what the shared library OrvexPlatform shows to others; everything else stays hidden.
#define ORVEX_PLATFORM_EXPORT __attribute__((visibility("default")))
