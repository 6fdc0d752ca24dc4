#include "kernel/CoreObject.h"

CoreObject::~CoreObject() = default;
