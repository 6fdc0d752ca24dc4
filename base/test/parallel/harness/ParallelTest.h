#pragma once

#include <gtest/gtest.h>

/// GoogleTest inside a real job. The main program is ParallelTestMain.cpp; tests are written with TEST as
/// anywhere.
///
/// All ranks run the same tests in the same order and agree on each before it begins. A failure on any rank
/// fails the run: rank 0 prints it with the rank's number. A test that doesn't end in time ends the job, and
/// each rank tells where it stands.
namespace ParallelTest {

/// A test program links one definition of these two. The start brings up the message layer that is to be
/// tested, with the wrapper running at its end; the stop takes it down. `argv` has "-mpi" and a driver's name
/// in it.
void startMessageLayer(int& argc, char**& argv);
void stopMessageLayer();

/// Of this process in the world of the job. From the start of the message layer on.
int rank();
int size();
/// The driver's name as the command line gives it: "openmpi4", "mpich2".
const char* driver();

} // namespace ParallelTest

/// At the beginning of a test: skips it, on all ranks alike, in a job of fewer ranks.
#define ORVEX_NEEDS_RANKS(minimum)                                                                           \
    do {                                                                                                     \
        if (ParallelTest::size() < (minimum))                                                                \
            GTEST_SKIP() << "needs at least " << (minimum) << " ranks";                                      \
    } while (false)
