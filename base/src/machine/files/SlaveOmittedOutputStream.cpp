#include "machine/SlaveOmittedOutputStream.h"

#include "machine/Machine.h"

bool FirstPartitionConditional::holds() {
    return Machine::getPartitionId() == 0;
}

SlaveOmittedOutputStream::SlaveOmittedOutputStream(std::ostream& stream)
    : ConditionalOutputStreamWrapper(stream) {}

SlaveOmittedOutputStream::~SlaveOmittedOutputStream() = default;
