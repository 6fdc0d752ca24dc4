#pragma once

#include "machine/MachineExport.h"
#include "machine/MpiCore.h"

#include <cstddef>
#include <vector>

/// Owns a set of non-blocking requests and completes them as one.
///
/// Requests start through Communicator's non-blocking operations, which append to a stack; any number share
/// one. Completion empties the stack, which can then be used again. The buffers of the messages must stay
/// alive until then. Main thread; the calls here run no check of Communicator's locks.
///
/// All but the destructor raise NonRecoverableError when the message layer fails. The stack then keeps all
/// its slots, those of requests that are through as null ones, which every call here passes over: another
/// wait(), cancel() or free() empties it.
class ORVEX_MACHINE_EXPORT MpiCore::RequestStack {
public:
    RequestStack();
    /// Takes the request over and clears the caller's handle.
    explicit RequestStack(int& request);
    /// Only between empty stacks. @throw InternalError when one of them isn't empty
    RequestStack(const RequestStack& rhs);
    const RequestStack& operator=(const RequestStack& rhs);
    /// Warns on the standard output when requests are left. Receives are cancelled and completed first, for
    /// 5 s at most, so that no later message comes into memory that its owner gives back. Sends are only let
    /// go of: their buffers must outlive the messages.
    virtual ~RequestStack();

    /// A new slot for the wrapper to write a request into; valid until the next push_back().
    int* push_back();
    /// Hands the last request to the caller; 0 on an empty stack.
    int pop();
    std::size_t size() const { return _requests.size(); }
    bool empty() const { return _requests.empty(); }

    /// Completes all requests; local, returns when all messages are through.
    /// @throw NonRecoverableError, which names each failed request when there are several
    void wait();
    /// @param sources  the source of each request's message, in the order of the requests; untouched on an
    ///                 empty stack
    void wait(std::vector<unsigned>& sources);
    /// Completes one request; later ones move down. 0xFFFFFFFF in `source` on an empty stack.
    /// @throw NonRecoverableError when that request failed; InternalError when no live request is left
    void waitAny(unsigned& source);
    /// Whether all requests are complete; if so, the stack is empty now. @throw as wait() does
    bool test();
    /// Whether one request is complete; if so, it has left the stack. True on an empty stack.
    /// @param source  of the completed request, else 0xFFFFFFFF
    /// @throw as waitAny() does
    bool testAny(unsigned& source);
    /// Cancels all requests and completes them.
    void cancel();
    /// Cancels all requests; they stay, for a later wait().
    void cancelNoWait();
    /// Lets go of requests that nobody will wait for.
    /// @throw NonRecoverableError at the first that can't be freed: it and the later ones stay
    void free();

protected:
    /// Called after all requests completed. @throw InternalError when a live request is left
    virtual void clear();
    /// Called after the request at `index` completed.
    virtual void remove(const unsigned& index);

    std::vector<int>& requests() { return _requests; }
    /// Each request is a receive that was started.
    void noteReceives();

private:
    friend class Communicator;

    void assertEmptyWith(const RequestStack& rhs) const;
    /// Waits for all; fills one source for each request where `sources` isn't null.
    void complete(unsigned* sources);

    std::vector<int> _requests;
    std::vector<bool> _isReceiving; ///< of each request
};
