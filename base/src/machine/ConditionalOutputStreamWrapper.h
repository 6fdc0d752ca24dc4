#pragma once

#include "machine/MachineExport.h"

#include "platform/OStreamWrapper.h"

/// An output stream that writes on some ranks only: elsewhere each output operation costs one test of a flag,
/// before anything is formatted.
///
/// RankConditional is a type with a static member holds(): whether this process writes. It is asked once, at
/// construction.
template <class RankConditional>
class ORVEX_MACHINE_EXPORT ConditionalOutputStreamWrapper : public OStreamWrapper {
public:
    explicit ConditionalOutputStreamWrapper(std::ostream& stream)
        : OStreamWrapper(stream), _condition(RankConditional::holds()) {}

    using OStreamWrapper::operator<<;
    OStreamWrapper& operator<<(std::ios_base& (*manipulator)(std::ios_base&)) override {
        return insert(manipulator);
    }
    OStreamWrapper& operator<<(std::ios& (*manipulator)(std::ios&)) override { return insert(manipulator); }
    OStreamWrapper& operator<<(std::ostream& (*manipulator)(std::ostream&)) override {
        return insert(manipulator);
    }
    OStreamWrapper& operator<<(OStreamWrapper& (*manipulator)(OStreamWrapper&)) override {
        return insert(manipulator);
    }
    OStreamWrapper& operator<<(std::streambuf* source) override { return insert(source); }
    OStreamWrapper& operator<<(const void* value) override { return insert(value); }
    OStreamWrapper& operator<<(long double value) override { return insert(value); }
    OStreamWrapper& operator<<(double value) override { return insert(value); }
    OStreamWrapper& operator<<(float value) override { return insert(value); }
    OStreamWrapper& operator<<(unsigned long long value) override { return insert(value); }
    OStreamWrapper& operator<<(long long value) override { return insert(value); }
    OStreamWrapper& operator<<(unsigned long value) override { return insert(value); }
    OStreamWrapper& operator<<(long value) override { return insert(value); }
    OStreamWrapper& operator<<(unsigned int value) override { return insert(value); }
    OStreamWrapper& operator<<(int value) override { return insert(value); }
    OStreamWrapper& operator<<(unsigned short value) override { return insert(value); }
    OStreamWrapper& operator<<(short value) override { return insert(value); }
    OStreamWrapper& operator<<(bool value) override { return insert(value); }
    OStreamWrapper& operator<<(const std::string& text) override { return insert<const std::string&>(text); }
    OStreamWrapper& operator<<(const unsigned char* text) override { return insert(text); }
    OStreamWrapper& operator<<(const char* text) override { return insert(text); }
    OStreamWrapper& operator<<(unsigned char value) override { return insert(value); }
    OStreamWrapper& operator<<(char value) override { return insert(value); }
    OStreamWrapper& write(const char* data, std::streamsize count) override {
        return _condition ? OStreamWrapper::write(data, count) : *this;
    }
    OStreamWrapper& flush() override { return _condition ? OStreamWrapper::flush() : *this; }
    OStreamWrapper& put(char character) override {
        return _condition ? OStreamWrapper::put(character) : *this;
    }
    OStreamWrapper& seekp(std::streamoff offset, std::ios_base::seekdir direction) override {
        return _condition ? OStreamWrapper::seekp(offset, direction) : *this;
    }
    OStreamWrapper& seekp(std::streampos position) override {
        return _condition ? OStreamWrapper::seekp(position) : *this;
    }

protected:
    bool holdsCondition() const { return _condition; }

private:
    template <class T>
    OStreamWrapper& insert(T value) {
        return _condition ? OStreamWrapper::operator<<(value) : *this;
    }

    bool _condition;
};
