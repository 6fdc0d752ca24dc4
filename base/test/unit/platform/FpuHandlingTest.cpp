#include "platform/FpuHandling.h"

#include <gtest/gtest.h>

#include <cfenv>
#include <cmath>
#include <limits>

/// The door that the access keys leave to tests.
class PlatformTestAccess {
public:
    static FpeStatusReadAccessKey read() { return {}; }
    static FpeStatusWriteAccessKey write() { return {}; }
};

namespace {

using Access = PlatformTestAccess;

volatile double zero = 0.0;
volatile double one = 1.0;
volatile double huge = std::numeric_limits<double>::max();
volatile double tiny = std::numeric_limits<double>::denorm_min();
volatile double result = 0.0;

} // namespace

TEST(FpuHandling, StatusTellsWhatHappened) {
    for (const auto& [operation, status, text] :
         {std::tuple<void (*)(), unsigned, std::string>([] { result = one + one; }, 0,
                                                        "No floating-point exception"),
          {[] { result = one / 3.0; }, 0, "No floating-point exception"}, // inexact doesn't count
          {[] { result = tiny * 0.5; }, 0, "No floating-point exception"},
          {[] { result = one / zero; }, 1, "Floating-point exception: division by zero"},
          {[] { result = zero / zero; }, 2, "Floating-point exception: invalid operation"},
          {[] { result = huge + huge; }, 4, "Floating-point exception: overflow"},
          {[] {
               result = one / zero;
               result = huge * huge;
           },
           5, "Floating-point exception: division by zero, overflow"}}) {
        FpuHandling::clearFpeStatus(Access::write());
        operation();
        EXPECT_EQ(FpuHandling::isFpeStatusClear(Access::read()), status == 0) << text;
        for (const unsigned bit : {1u, 2u, 4u})
            EXPECT_EQ(FpuHandling::testFpeStatus(Access::read(), bit), (status & bit) != 0) << text << bit;
        EXPECT_EQ(FpuHandling::getFpeStatusAsString(Access::read()), text);
    }
}
