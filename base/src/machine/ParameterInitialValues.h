#pragma once

#include "machine/MachineExport.h"

#include <map>
#include <string>

/// The values that the command line gives to parameters of the simulation, for the modules that own them.
class ORVEX_MACHINE_EXPORT ParameterInitialValues {
public:
    static ParameterInitialValues& getSingleton();
    ParameterInitialValues(const ParameterInitialValues&) = delete;
    ParameterInitialValues& operator=(const ParameterInitialValues&) = delete;

    /// Sets the value of `name`, replacing an earlier one.
    void addParameterArg(std::string name, std::string value);
    const std::map<std::string, std::string>& getParameterValues() const { return _values; }

private:
    friend class MachineTestAccess;

    ParameterInitialValues() = default;
    ~ParameterInitialValues() = default;
    static void reset();

    static ParameterInitialValues* _singleton;

    std::map<std::string, std::string> _values;
};
