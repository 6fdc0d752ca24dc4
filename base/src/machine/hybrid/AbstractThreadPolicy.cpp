#include "machine/AbstractThreadPolicy.h"

AbstractThreadPolicy::~AbstractThreadPolicy() = default;

std::vector<std::string> AbstractThreadPolicy::reportThreadAffinities() const {
    return {};
}
