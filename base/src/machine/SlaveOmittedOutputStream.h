#pragma once

#include "machine/ConditionalOutputStreamWrapper.h"
#include "machine/MachineExport.h"

/// Whether this process is the serial one or rank 0 of a job.
struct ORVEX_MACHINE_EXPORT FirstPartitionConditional {
    static bool holds();
};

/// An output stream that writes on the serial process and on rank 0 of a job; the other ranks drop the
/// output. Local.
class ORVEX_MACHINE_EXPORT SlaveOmittedOutputStream
    : public ConditionalOutputStreamWrapper<FirstPartitionConditional> {
public:
    explicit SlaveOmittedOutputStream(std::ostream& stream);
    SlaveOmittedOutputStream(const SlaveOmittedOutputStream&) = default;
    ~SlaveOmittedOutputStream() override;
};
