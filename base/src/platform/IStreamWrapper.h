#pragma once

#include "platform/IOStreamWrapper.h"

#include <istream>
#include <string>

/// A standard input stream behind virtual operations.
///
/// A class that overrides some of the extractions says `using IStreamWrapper::operator>>;`.
class ORVEX_PLATFORM_EXPORT IStreamWrapper : public IOStreamWrapper {
public:
    explicit IStreamWrapper(std::istream& stream);
    IStreamWrapper(const IStreamWrapper&) = default;
    IStreamWrapper& operator=(const IStreamWrapper&) = default;
    ~IStreamWrapper() override;

    virtual IStreamWrapper& operator>>(std::ios_base& (*manipulator)(std::ios_base&));
    virtual IStreamWrapper& operator>>(std::ios& (*manipulator)(std::ios&));
    virtual IStreamWrapper& operator>>(std::istream& (*manipulator)(std::istream&));
    virtual IStreamWrapper& operator>>(IStreamWrapper& (*manipulator)(IStreamWrapper&));
    virtual IStreamWrapper& operator>>(std::streambuf* target);
    virtual IStreamWrapper& operator>>(void*& value);
    virtual IStreamWrapper& operator>>(long double& value);
    virtual IStreamWrapper& operator>>(double& value);
    virtual IStreamWrapper& operator>>(float& value);
    virtual IStreamWrapper& operator>>(unsigned long long& value);
    virtual IStreamWrapper& operator>>(long long& value);
    virtual IStreamWrapper& operator>>(unsigned int& value);
    virtual IStreamWrapper& operator>>(int& value);
    virtual IStreamWrapper& operator>>(unsigned short& value);
    virtual IStreamWrapper& operator>>(short& value);
    virtual IStreamWrapper& operator>>(bool& value);
    virtual IStreamWrapper& operator>>(std::string& word);
    /// Extracts a word with a terminating zero. The caller sets width() to the room there is, or knows that
    /// the word fits.
    virtual IStreamWrapper& operator>>(unsigned char* word);
    virtual IStreamWrapper& operator>>(char* word);
    virtual IStreamWrapper& operator>>(unsigned char& value);
    virtual IStreamWrapper& operator>>(char& value);
    virtual IStreamWrapper& read(char* target, std::streamsize count);
    /// @return false when the stream has failed, here and in the other two below
    virtual bool get(char* target, std::streamsize count);
    virtual bool get(char& character);
    /// The next character, or -1 at the end.
    virtual int get();
    virtual bool getline(char* target, std::streamsize count);
    virtual IStreamWrapper& ignore(std::streamsize count = 1, int delimiter = -1);
    virtual int peek();
    virtual IStreamWrapper& putback(char character);
    virtual IStreamWrapper& seekg(std::streamoff offset, std::ios_base::seekdir direction);
    virtual IStreamWrapper& seekg(std::streampos position);
    virtual std::streampos tellg();
    virtual std::streamsize gcount() const;

    /// The two integer types that the virtual operations leave out, by way of those of the same size.
    IStreamWrapper& operator>>(unsigned long& value);
    IStreamWrapper& operator>>(long& value);

private:
    std::istream* _istream;
};
