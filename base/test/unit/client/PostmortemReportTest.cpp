#include "client/PostmortemReport.h"

#include "kernel/Properties.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace {

using Life = ProfileSnapshot::Life;

/// Rank `rank` of 6, which stands in an operation.
ProfileSnapshot rankOf(unsigned rank, const char* operation, double began, bool isOpen = true) {
    ProfileSnapshot member;
    member.life = Life::DIED;
    member.rank = rank;
    member.ranks = 6;
    member.pid = 100 + static_cast<int>(rank);
    member.masterPid = 100;
    member.host = member.masterHost = "n0";
    member.product = "Product 1";
    member.began = 1000.0;
    member.lastActivity = member.moment = began + (isOpen ? 0.0 : 0.5);
    member.begunOperations = 42;
    member.isInside = isOpen;
    member.depth = 1;
    member.commands = {{"Solve", 1005.0, began - 1005.0, 40, 800, (began - 1005.0) / (rank + 2), 0.0, 0}};
    member.operations = {{42, operation, "global, 6 ranks", 8, -1, isOpen, true, began, isOpen ? 0.0 : 0.5},
                         {41, "send", "", 800, 2, false, false, 0.0, 0.0}};
    member.bills = {{2, "GetTimes", 1002.0, 2.0, 1.0, 0.25 * (rank + 1), 7, 100, 3'000'000, 0, rank == 1},
                    {1, "GetHosts", 1001.0, 0.1, 0.1, 0.0, 0, 0, 2'000'000, 0, false}};
    member.events = {{"Solver::step", 10 + rank, 1.5, rank == 2, rank == 2 ? 0.25 : 0.0}};
    return member;
}

ProfileJob jobOf(std::vector<ProfileSnapshot> members) {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    ProfileJob job;
    for (ProfileSnapshot& member : members)
        job.add(std::move(member));
    return job;
}

} // namespace

TEST(PostmortemReport, PutsRanksThatStoodAlikeTogether) {
    std::vector<ProfileSnapshot> members{rankOf(3, "allReduce", 1017.0), rankOf(0, "allReduce", 1016.0),
                                         rankOf(1, "allReduce", 1018.5), rankOf(2, "receive", 1010.0, false),
                                         rankOf(5, "allReduce", 1018.0)};
    EXPECT_EQ(PostmortemReport(jobOf(members)).getText(),
              R"(Job 100 on n0, 6 ranks; 5 profiles here
  Product 1
  began 1970-01-01 00:16:40, last activity 1970-01-01 00:16:58, 18.5 s later
Ranks 0-1,3,5 (4 ranks) died in allReduce, on global, 6 ranks, 8 bytes
  since 00:16:56 (the first), at the last activity of the job (the last)
  in the command Solve, since 00:16:45: 40 operations
Rank 2 died outside of messages, after receive, on global, 6 ranks, 8 bytes
  it ended at 00:16:50, 8.0 s before the last activity of the job
  in the command Solve, since 00:16:45: 40 operations
Rank 4 left no profile here: on another host, ended in order, or removed
Most ranks waited in allReduce. Rank 2 was not in it.

Commands at work, up to the last note of each rank
  command  began     time    mean waiting  most waiting   operations
  Solve    00:16:45  13.5 s  29 %          50 % (rank 0)  40

Commands before, the last one first
  command   began     time      mean waiting  most waiting   operations  peak memory  end
  GetTimes  00:16:42  2.0 s     40 %          75 % (rank 5)  7           2.9 MiB      failed
  GetHosts  00:16:41  100.0 ms  0 %           0 % (rank 0)   0           1.9 MiB      done

Events
  event         count  mean time  most time       open on ranks
  Solver::step  15     1.6 s      1.8 s (rank 2)  2
)");
}

TEST(PostmortemReport, TellsOfLivingRanks) {
    ProfileSnapshot member = rankOf(4, "barrier", 1019.0);
    member.life = Life::LIVES;
    member.commands.clear();
    member.depth = 0;
    const std::string text = PostmortemReport(jobOf({rankOf(0, "recv", 1017.0), member})).getText();
    EXPECT_NE(text.find("Rank 4 lives, in barrier, on global, 6 ranks, 8 bytes\n"
                        "  since 00:16:59\n  between commands\n"
                        "Ranks 1-3,5 left no profile here"),
              std::string::npos)
        << text;
}

TEST(PostmortemReport, TellsOneRankInFull) {
    const ProfileJob job = jobOf({rankOf(0, "allReduce", 1016.0), rankOf(1, "allReduce", 1018.5)});
    const PostmortemReport report(job);
    EXPECT_EQ(report.describeRank(0).value_or(""),
              R"(Rank 0 died in allReduce, on global, 6 ranks, 8 bytes
  since 00:16:56, 2.5 s before the last activity of the job
  in the command Solve, since 00:16:45: 40 operations
  process 100 on n0; last note at 1970-01-01 00:16:56
  since its start 42 operations with 0 B, waiting for 0 s

Last operations, the newest first; ago: before the last note
  number  operation  communicator     partner or root  bytes  ago  took
  42      allReduce  global, 6 ranks                   8      0 s  open
  41      send                        2                800

Commands at work, up to the last note of each rank
  command  began     time    mean waiting  most waiting   operations
  Solve    00:16:45  11.0 s  50 %          50 % (rank 0)  40

Commands before, the last one first
  command   began     time      mean waiting  most waiting   operations  peak memory  end
  GetTimes  00:16:42  2.0 s     12 %          12 % (rank 0)  7           2.9 MiB      done
  GetHosts  00:16:41  100.0 ms  0 %           0 % (rank 0)   0           1.9 MiB      done

Events
  event         count  mean time  most time       open on ranks
  Solver::step  10     1.5 s      1.5 s (rank 0)
)");
    EXPECT_FALSE(report.describeRank(2));
    EXPECT_EQ(report.getSummary().toString(),
              R"({"masterProcess":100,"masterHost":"n0","batchJob":"","product":"Product 1","ranks":6,)"
              R"("profiles":2,"died":2,"live":0,"command":"Solve","began":1000.0,"lastActivity":1018.5})");
}
