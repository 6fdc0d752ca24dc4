#include "kernel/ThreadParallelContext.h"

unsigned ThreadParallelContext::_threadParallelContext = 0;
