#include "machine/ThreadUtility.h"

#include "kernel/Raise.h"
#include "kernel/ThreadParallelContext.h"

#include <tbb/parallel_for_each.h>

#include <numeric>
#include <vector>

void ThreadUtility::forEach(std::size_t count, const std::function<void(std::size_t)>& work) {
    ORVEX_ASSERT(ThreadParallelContext::_threadParallelContext,
                 "Usage of ThreadUtility outside of hybrid parallelism mode is locked out!");
    std::vector<std::size_t> indices(count);
    std::iota(indices.begin(), indices.end(), std::size_t{0});
    tbb::parallel_for_each(indices.begin(), indices.end(), work);
}
