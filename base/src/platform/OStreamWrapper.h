#pragma once

#include "platform/IOStreamWrapper.h"

#include <ostream>
#include <string>

/// A standard output stream behind virtual operations.
///
/// A class that overrides some of the insertions says `using OStreamWrapper::operator<<;`.
class ORVEX_PLATFORM_EXPORT OStreamWrapper : public IOStreamWrapper {
public:
    explicit OStreamWrapper(std::ostream& stream);
    OStreamWrapper(const OStreamWrapper&) = default;
    OStreamWrapper& operator=(const OStreamWrapper&) = default;
    ~OStreamWrapper() override;

    virtual OStreamWrapper& operator<<(std::ios_base& (*manipulator)(std::ios_base&));
    virtual OStreamWrapper& operator<<(std::ios& (*manipulator)(std::ios&));
    virtual OStreamWrapper& operator<<(std::ostream& (*manipulator)(std::ostream&));
    virtual OStreamWrapper& operator<<(OStreamWrapper& (*manipulator)(OStreamWrapper&));
    virtual OStreamWrapper& operator<<(std::streambuf* source);
    virtual OStreamWrapper& operator<<(const void* value);
    virtual OStreamWrapper& operator<<(long double value);
    virtual OStreamWrapper& operator<<(double value);
    virtual OStreamWrapper& operator<<(float value);
    virtual OStreamWrapper& operator<<(unsigned long long value);
    virtual OStreamWrapper& operator<<(long long value);
    virtual OStreamWrapper& operator<<(unsigned long value);
    virtual OStreamWrapper& operator<<(long value);
    virtual OStreamWrapper& operator<<(unsigned int value);
    virtual OStreamWrapper& operator<<(int value);
    virtual OStreamWrapper& operator<<(unsigned short value);
    virtual OStreamWrapper& operator<<(short value);
    virtual OStreamWrapper& operator<<(bool value);
    virtual OStreamWrapper& operator<<(const std::string& text);
    virtual OStreamWrapper& operator<<(const unsigned char* text);
    virtual OStreamWrapper& operator<<(const char* text);
    virtual OStreamWrapper& operator<<(unsigned char value);
    virtual OStreamWrapper& operator<<(char value);
    virtual OStreamWrapper& write(const char* data, std::streamsize count);
    virtual OStreamWrapper& flush();
    virtual OStreamWrapper& put(char character);
    virtual OStreamWrapper& seekp(std::streamoff offset, std::ios_base::seekdir direction);
    virtual OStreamWrapper& seekp(std::streampos position);
    virtual std::streampos tellp();

private:
    std::ostream* _ostream;
};
