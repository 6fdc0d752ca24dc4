// A module whose static object can't be made.

#include <stdexcept>

namespace {

struct Table {
    Table() { throw std::runtime_error("no table"); }
} table;

} // namespace
