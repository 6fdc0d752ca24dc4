#pragma once

#include "kernel/KernelExport.h"

#include <vector>

class Observer;
class Properties;

/// Tells its observers, in the order in which they were attached.
///
/// notify() works on a snapshot: an observer detached by an earlier one of the same pass is skipped,
/// one attached during the pass is told from the next pass on. No lock: one thread at a time.
class ORVEX_KERNEL_EXPORT Subject {
public:
    virtual ~Subject();
    virtual void notify();
    virtual void notify(Properties& properties);

    /// Attaching twice has no further effect. The observer stays the caller's.
    void attach(Observer& observer);
    /// Detaching an observer that isn't attached has no effect.
    void detach(Observer& observer);
    bool isAttached(const Observer& observer) const;

private:
    std::vector<Observer*> _observers;
};
