#include "machine/reports/CommandBill.h"
#include "client/CtlBill.h"

#include <gtest/gtest.h>

namespace {

CommandBill::Cost costOf(double wall, double processor, double waiting, double lent = 0.0) {
    CommandBill::Cost cost;
    cost.wall = wall;
    cost.processor = processor;
    cost.waiting = waiting;
    cost.lent = lent;
    cost.peakMemory = 1024.0 * 1024.0 * processor;
    cost.addedMemory = -1024.0;
    cost.messages = 7.0;
    return cost;
}

} // namespace

TEST(CommandBill, NamesTheRanksBehindItsFigures) {
    Properties bill =
        CommandBill::describe({costOf(4.0, 4.0, 0.0), costOf(4.0, 1.0, 3.0), costOf(4.0, 1.0, 1.0)});
    bill.set("command", "Solve");
    bill.set("began", 0.0);
    EXPECT_EQ(
        CtlBill::describe(bill),
        "Bill of Solve: 4.00 s on 3 ranks\n"
        "                         total        least (rank)         mean         most (rank)  most/mean\n"
        "  processor time        6.00 s          1.00 s (1)       2.00 s          4.00 s (0)       2.00\n"
        "  waiting               4.00 s             0 s (0)       1.33 s          3.00 s (1)       2.25\n"
        "  share of waiting                       0.0 % (0)       33.3 %          75.0 % (1)       2.25\n"
        "  peak memory          6.0 MiB         1.0 MiB (1)      2.0 MiB         4.0 MiB (0)       2.00\n"
        "  added memory        -3.0 KiB        -1.0 KiB (0)     -1.0 KiB        -1.0 KiB (0)       1.00\n"
        "  messages                  21               7 (0)            7               7 (0)       1.00\n"
        "  bytes                    0 B             0 B (0)          0 B             0 B (0)       1.00\n");
    Properties serial = CommandBill::describe({costOf(0.25, 0.5, 0.0, 0.125)});
    serial.set("command", "Short");
    EXPECT_EQ(CtlBill::describe(serial).substr(0, 96), "Bill of Short: 250.0 ms\n"
                                                       "  processor time      500.0 ms\n"
                                                       "  waiting                  0 s\n"
                                                       "  share of");
    EXPECT_NE(CtlBill::describe(serial).find("lent to threads     125.0 ms"), std::string::npos);
    bill.set("command", std::string(60, 'x'));
    bill.set("failed", true);
    const std::string list = CtlBill::list({bill});
    EXPECT_NE(list.find(std::string(40, 'x') +
                        "      4.00 s      6.00 s       2.00    33.3 %       4.0 MiB          21"
                        "         0 B  failed\n"),
              std::string::npos)
        << list;
}
