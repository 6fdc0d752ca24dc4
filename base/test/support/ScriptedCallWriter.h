#pragma once

#include "support/ScriptedMpi.h"

#include <set>
#include <string>
#include <type_traits>

/// Takes the arguments of a call apart.
class ScriptedCallWriter {
public:
    /// @param argumentNames "(count, comm)" @param commSize length of the arrays with an element for each
    /// rank
    ScriptedCallWriter(ScriptedCall& call, const std::string& argumentNames, int commSize)
        : _call(call), _names(argumentNames.substr(1, argumentNames.size() - 2)), _commSize(commSize) {
        _call._text = call.name + "(";
    }

    template <class T>
    void add(T value) {
        const bool isFirst = _position++ == 0;
        const std::string name = takeName();
        if constexpr (std::is_integral_v<T>) {
            if (_position <= 2)
                _firstNumber =
                    static_cast<int>(value); // length of the arrays of calls without a communicator
            addNumber(name, value);
        } else if constexpr (std::is_same_v<T, const char*>) {
            _call.texts[name] = value;
            show(name, "\"" + _call.texts[name] + "\"");
        } else if constexpr (std::is_same_v<T, const int*> || std::is_same_v<T, const long long*>) {
            const bool isByRank =
                std::is_same_v<T, const int*> && (name.ends_with("Counts") || name.ends_with("isplacements"));
            addArray(name, value, isByRank ? _commSize : _firstNumber);
        } else if constexpr (!std::is_function_v<std::remove_pointer_t<T>>) {
            _call.addresses[name] = const_cast<void*>(static_cast<const void*>(value));
            if constexpr (std::is_same_v<T, int*>) {
                static const std::set<std::string> results{"newInfo", "supported", "disable", "argc"};
                if (name == "requests")
                    addArray(name, value, _firstNumber);
                else if (isFirst && !results.contains(name))
                    addNumber(name, *value);
            }
            if (name.ends_with("uffer") && (!value || _call.addresses[name] == OXM_MPI_IN_PLACE))
                show(name, value ? "IN_PLACE" : "null");
        }
    }

    void end() { _call._text += ")"; }

private:
    std::string takeName() {
        std::string name = _names.substr(0, _names.find(", "));
        _names.erase(0, name.size() + 2);
        return name;
    }
    void show(const std::string& name, const std::string& value) {
        _call._text += (_call._text.back() == '(' ? "" : ", ") + name + "=" + value;
    }
    void addNumber(const std::string& name, long long value) {
        _call.numbers.emplace_back(name, value);
        show(name, std::to_string(value));
    }
    template <class T>
    void addArray(const std::string& name, const T* values, int count) {
        _call.addresses[name] = const_cast<T*>(values);
        std::string text;
        for (int i = 0; values && i < count; ++i) {
            _call.arrays[name].push_back(values[i]);
            text += (i ? " " : "") + std::to_string(values[i]);
        }
        show(name, values ? "[" + text + "]" : "null");
    }

    ScriptedCall& _call;
    std::string _names;
    int _commSize;
    int _position = 0;
    int _firstNumber = 0;
};
