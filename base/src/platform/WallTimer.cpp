#include "platform/WallTimer.h"

WallTimer::~WallTimer() = default;
