#include "platform/Runnable.h"

Runnable::~Runnable() = default;
