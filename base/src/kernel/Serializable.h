#pragma once

#include "kernel/CoreObject.h"
#include "kernel/KernelExport.h"

class Properties;

/// An object whose state a session file can hold.
class ORVEX_KERNEL_EXPORT Serializable : public CoreObject {
public:
    virtual void save(Properties& state) const = 0;
    /// @throw InputError when `state` isn't what save() wrote; the object is unchanged then
    virtual void restore(const Properties& state) = 0;

protected:
    ~Serializable() override;
};
