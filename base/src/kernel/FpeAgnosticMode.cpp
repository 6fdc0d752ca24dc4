#include "kernel/FpeAgnosticMode.h"

bool FpeAgnosticMode::_active = false;
