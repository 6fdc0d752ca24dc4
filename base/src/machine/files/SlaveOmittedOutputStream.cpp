#include "machine/SlaveOmittedOutputStream.h"

#include "machine/MachineGround.h"

bool FirstPartitionConditional::holds() {
    return MachineGround::getPartitionId() == 0;
}

SlaveOmittedOutputStream::SlaveOmittedOutputStream(std::ostream& stream)
    : ConditionalOutputStreamWrapper(stream) {}

SlaveOmittedOutputStream::~SlaveOmittedOutputStream() = default;
