#include "kernel/Observer.h"

Observer::~Observer() = default;
