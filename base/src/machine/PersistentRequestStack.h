#pragma once

#include "machine/RequestStack.h"

/// The requests made by Communicator::recvInit().
///
/// A persistent request outlives its completion, so this stack frees it then: it serves one start() and one
/// completion, and the next use begins with recvInit() again.
class ORVEX_MACHINE_EXPORT MpiCore::PersistentRequestStack : public MpiCore::RequestStack {
public:
    PersistentRequestStack();
    /// Takes the request over and clears the caller's handle.
    explicit PersistentRequestStack(int& request);
    /// Only between empty stacks. @throw InternalError when one of them isn't empty
    PersistentRequestStack(const PersistentRequestStack& rhs);
    /// Changes nothing on either side.
    const PersistentRequestStack& operator=(const PersistentRequestStack& rhs);
    ~PersistentRequestStack() override;

    /// Starts all requests.
    void start();

protected:
    void clear() override;
    void remove(const unsigned& index) override;
};
