#pragma once

#include "kernel/KernelExport.h"
#include "kernel/Properties.h"

#include <exception>
#include <string>

/// An error as a tree of properties that can cross ranks and reach a client.
///
/// The tree holds ERROR_TAG (the type text), MESSAGE_TAG, SEVERITY_TAG and, where one was taken,
/// STACK_TRACE_TAG, beside the keys that the raiser added. In a response it holds KIND_TAG as well: see
/// toResponse(). An error object that is only built is not raised: see raise() in kernel/Raise.h.
class ORVEX_KERNEL_EXPORT Error : public std::exception {
public:
    static constexpr const char* ERROR_TAG = "Error";
    static constexpr const char* MESSAGE_TAG = "Message";
    static constexpr const char* SEVERITY_TAG = "Severity";
    static constexpr const char* STACK_TRACE_TAG = "StackTrace";
    static constexpr const char* KIND_TAG = "Kind"; ///< one of the kinds below, for programs
    static constexpr const char* DEFAULT_ERROR_TYPE = "Server::Error";

    static constexpr const char* INPUT_KIND = "input";   ///< the user asked for the wrong thing
    static constexpr const char* SYSTEM_KIND = "system"; ///< the surroundings: files, memory, installation
    static constexpr const char* SOLVER_KIND = "solver"; ///< the computation: it diverged, it was cancelled
    static constexpr const char* INTERNAL_KIND = "internal"; ///< the program: to be reported to its makers

    static constexpr int RECOVERABLE_SEVERITY = 2;
    static constexpr int NON_RECOVERABLE_SEVERITY = 3;

    /// @param collective  true when all ranks raise this same error at the same place
    Error(const std::string& message, int severity, const Properties& properties = Properties(),
          const std::string& type = DEFAULT_ERROR_TYPE, bool collective = false);
    Error(const Error&);
    Error& operator=(const Error&);
    ~Error() override;

    const char* what() const noexcept override;
    const Properties& getProperties() const { return _properties; }
    Properties& getProperties() { return _properties; }
    int getSeverity() const;
    bool isCollective() const { return _collective; }
    /// The kind of all errors of the class. A raiser who knows better sets KIND_TAG in the tree.
    virtual const char* getKind() const;
    /// The tree as it goes into a response: with type, message, severity and kind in any case. An error
    /// without a message tells its class; a collective one leaves that to the rank that has the message.
    Properties toResponse() const;

    /// True when `response` carries an error (it has ERROR_TAG).
    static bool isErrorIn(const Properties& response);
    /// The message of the error in `response`, empty when there is none.
    static std::string getMessage(const Properties& response);
    /// Adds to the tree of an error in a response what it lacks, or holds with another type: type, severity,
    /// and `message` and `kind` as given.
    static void complete(Properties& response, const std::string& message, const char* kind);

private:
    Properties _properties;
    std::string _what;
    bool _collective;
};

/// An error that fails a command and leaves the server running.
class ORVEX_KERNEL_EXPORT RecoverableError : public Error {
public:
    explicit RecoverableError(const std::string& message, int severity = RECOVERABLE_SEVERITY,
                              const Properties& properties = Properties(),
                              const std::string& type = DEFAULT_ERROR_TYPE, bool collective = false);
};

/// The user's input is at fault.
class ORVEX_KERNEL_EXPORT InputError : public RecoverableError {
public:
    using RecoverableError::RecoverableError;
    const char* getKind() const override;
};

/// The operating system, the file system or the installation is at fault.
class ORVEX_KERNEL_EXPORT SystemError : public RecoverableError {
public:
    using RecoverableError::RecoverableError;
    const char* getKind() const override;
};

/// A floating-point fault, as a signal or found in the status flags.
class ORVEX_KERNEL_EXPORT FloatingPointError : public RecoverableError {
public:
    using RecoverableError::RecoverableError;
};

/// An error after which the job can't go on, unless all ranks meet it together.
class ORVEX_KERNEL_EXPORT NonRecoverableError : public Error {
public:
    explicit NonRecoverableError(const std::string& message, const Properties& properties = Properties(),
                                 const std::string& type = DEFAULT_ERROR_TYPE);
    const char* getKind() const override;

    static bool isNonRecoverableErrorIn(const Properties& response);
};

/// A broken invariant: a fault of the program, with the place where it was seen.
///
/// The tree adds "Condition", "File" and "Line".
class ORVEX_KERNEL_EXPORT InternalError : public NonRecoverableError {
public:
    InternalError(const std::string& message, const std::string& condition, const std::string& file,
                  int line);
};
