#pragma once

#include "kernel/KernelExport.h"

class Properties;

/// Is told by the Subject it is attached to. Detach it before it dies.
class ORVEX_KERNEL_EXPORT Observer {
public:
    virtual ~Observer();
    virtual void update(Properties& properties) = 0;
};
