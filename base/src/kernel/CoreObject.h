#pragma once

#include "kernel/KernelExport.h"

/// An object that lives on the heap and is ended through destroy().
class ORVEX_KERNEL_EXPORT CoreObject {
public:
    CoreObject(const CoreObject&) = delete;
    CoreObject& operator=(const CoreObject&) = delete;

    /// Ends `object`; null has no effect.
    static void destroy(CoreObject* object) { delete object; }

protected:
    CoreObject() = default;
    virtual ~CoreObject();
};
