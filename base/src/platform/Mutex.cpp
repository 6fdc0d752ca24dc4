#include "platform/Mutex.h"

Mutex::Mutex() = default;

Mutex::~Mutex() = default;
