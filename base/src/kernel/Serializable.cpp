#include "kernel/Serializable.h"

Serializable::~Serializable() = default;
