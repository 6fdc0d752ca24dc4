#pragma once

#include "platform/PlatformExport.h"

#include <ios>

/// A standard stream behind virtual operations, so that code written against it runs unchanged on a stream
/// that many processes share. Here and in the classes below everything acts on the wrapped stream.
///
/// The wrapper borrows the stream; a copy shares it.
class ORVEX_PLATFORM_EXPORT IOStreamWrapper {
public:
    virtual std::ios_base::fmtflags flags(std::ios_base::fmtflags flags);
    virtual std::ios_base::fmtflags flags() const;
    virtual std::ios_base::fmtflags setf(std::ios_base::fmtflags flags);
    virtual std::ios_base::fmtflags setf(std::ios_base::fmtflags flags, std::ios_base::fmtflags mask);
    virtual void unsetf(std::ios_base::fmtflags flags);
    virtual std::streamsize precision(std::streamsize precision);
    virtual std::streamsize precision() const;
    virtual std::streamsize width(std::streamsize width);
    virtual std::streamsize width() const;
    virtual char fill(char character);
    virtual char fill() const;
    virtual bool good() const;
    virtual bool bad() const;
    virtual bool fail() const;
    virtual bool eof() const;
    virtual void clear(std::ios_base::iostate state = std::ios_base::goodbit);
    virtual bool operator!() const;
    /// Asks a stream shared by many processes to give all of them the same answers. Nothing to do here.
    virtual void setBroadcastFlag(const bool& on);
    virtual ~IOStreamWrapper();

    explicit operator bool() const { return !operator!(); }

protected:
    explicit IOStreamWrapper(std::ios& stream);
    IOStreamWrapper(const IOStreamWrapper&) = default;
    IOStreamWrapper& operator=(const IOStreamWrapper&) = default;

private:
    std::ios* _ios;
};
