#pragma once

#include "kernel/KernelExport.h"

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

/// A tree of keys in the order in which they were set.
///
/// Its text form is JSON (RFC 8259) on one line, `{}` when empty, and toString() and the constructor from
/// that text round-trip exactly: 64-bit integers, non-finite reals, embedded zeros, wide text (as UTF-8). A
/// real has a fraction or an exponent in the text, an integer neither. A real that isn't finite is the object
/// {"$real":"nan"}, {"$real":"inf"} or {"$real":"-inf"}.
///
/// Narrow text is UTF-8; each byte that isn't part of it becomes U+FFFD when it is set. Text that is parsed
/// must be UTF-8 without fault. What JSON calls null can be parsed and written, but no getter takes it.
///
/// A value type; one thread at a time.
class ORVEX_KERNEL_EXPORT Properties {
public:
    enum class Mode {
        REPLACE, ///< a present key gets the new value and keeps its place
        KEEP,    ///< a present key keeps its value
        NEW      ///< a present key is an InternalError
    };

    /// Bounds of what the constructor from text accepts.
    static constexpr std::size_t MAX_TEXT_SIZE = std::size_t(1) << 30; ///< [bytes]
    static constexpr unsigned MAX_DEPTH = 64;

    Properties();
    /// @throw InputError naming the position and reason when `text` isn't a JSON object within the bounds
    explicit Properties(std::string_view text);
    Properties(const Properties&);
    Properties(Properties&&) noexcept;
    Properties& operator=(const Properties&);
    Properties& operator=(Properties&&) noexcept;
    ~Properties();

    /// The same keys in the same order with the same values, kinds of numbers included; NaN equals NaN.
    bool operator==(const Properties&) const;

    /// One line of JSON.
    std::string toString() const;
    /// Indented JSON for people.
    std::string toPrettyString() const;
    /// The same tree as a struct of XML-RPC: the text that follows "<value>" there,
    /// "<struct>...</struct></value>". Any XML-RPC client can read it. What XML-RPC can't tell has a mark, so
    /// that fromXml() makes an equal tree.
    /// @throw InternalError when the tree is deeper than MAX_DEPTH
    std::string toXml() const;
    /// Reads what toXml() writes, with or without the "<value>" before it, and a struct from any XML-RPC
    /// client.
    /// @throw InputError with the reason
    static Properties fromXml(std::string_view xml);

    void set(const std::string& key, bool value, Mode mode = Mode::REPLACE);
    void set(const std::string& key, int value, Mode mode = Mode::REPLACE);
    void set(const std::string& key, unsigned value, Mode mode = Mode::REPLACE);
    void set(const std::string& key, long value, Mode mode = Mode::REPLACE);
    void set(const std::string& key, unsigned long value, Mode mode = Mode::REPLACE);
    void set(const std::string& key, long long value, Mode mode = Mode::REPLACE);
    void set(const std::string& key, unsigned long long value, Mode mode = Mode::REPLACE);
    void set(const std::string& key, double value, Mode mode = Mode::REPLACE);
    void set(const std::string& key, const char* value, Mode mode = Mode::REPLACE);
    void set(const std::string& key, const std::string& value, Mode mode = Mode::REPLACE);
    void set(const std::string& key, const wchar_t* value, Mode mode = Mode::REPLACE);
    void set(const std::string& key, const std::wstring& value, Mode mode = Mode::REPLACE);
    void set(const std::string& key, const Properties& value, Mode mode = Mode::REPLACE);
    void set(const std::string& key, const std::vector<bool>& value, Mode mode = Mode::REPLACE);
    void set(const std::string& key, const std::vector<int>& value, Mode mode = Mode::REPLACE);
    void set(const std::string& key, const std::vector<unsigned>& value, Mode mode = Mode::REPLACE);
    void set(const std::string& key, const std::vector<long long>& value, Mode mode = Mode::REPLACE);
    void set(const std::string& key, const std::vector<double>& value, Mode mode = Mode::REPLACE);
    void set(const std::string& key, const std::vector<std::string>& value, Mode mode = Mode::REPLACE);
    void set(const std::string& key, const std::vector<std::wstring>& value, Mode mode = Mode::REPLACE);
    void set(const std::string& key, const std::vector<Properties>& value, Mode mode = Mode::REPLACE);

    // ---- Getters.
    //
    // They convert between number types where nothing is lost. A missing key, a value of another type and a
    // value out of range are an InputError that names the key, the value and the expected type.
    std::string getString(const std::string& key) const;
    std::wstring getOrvexString(const std::string& key) const;
    int getInt(const std::string& key) const;
    unsigned getUnsignedInt(const std::string& key) const;
    long long getLong(const std::string& key) const;
    unsigned long long getUnsignedLong(const std::string& key) const;
    double getReal(const std::string& key) const;
    bool getBool(const std::string& key) const;
    Properties getProperties(const std::string& key) const;

    /// The value under `key`, or `otherwise` when there is no such key. T is one of the types that get()
    /// takes, or unsigned long long.
    template <class T>
    T getOr(const std::string& key, T otherwise) const;
    std::string getOr(const std::string& key, const char* otherwise) const;

    void get(const std::string& key, bool& value) const;
    void get(const std::string& key, int& value) const;
    void get(const std::string& key, unsigned& value) const;
    void get(const std::string& key, long long& value) const;
    void get(const std::string& key, double& value) const;
    void get(const std::string& key, std::string& value) const;
    void get(const std::string& key, std::wstring& value) const;
    void get(const std::string& key, Properties& value) const;
    void get(const std::string& key, std::vector<bool>& value) const;
    void get(const std::string& key, std::vector<int>& value) const;
    void get(const std::string& key, std::vector<unsigned>& value) const;
    void get(const std::string& key, std::vector<long long>& value) const;
    void get(const std::string& key, std::vector<double>& value) const;
    void get(const std::string& key, std::vector<std::string>& value) const;
    void get(const std::string& key, std::vector<std::wstring>& value) const;
    void get(const std::string& key, std::vector<Properties>& value) const;

    /// Sets each key of `other`.
    void merge(const Properties& other, Mode mode = Mode::REPLACE);

    bool hasName(const std::string& key) const;
    /// Removing a missing key has no effect.
    void remove(const std::string& key);
    void clear();
    bool empty() const;
    std::size_t size() const;
    /// The keys in their order.
    std::vector<std::string> getNames() const;

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};
