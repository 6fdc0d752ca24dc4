#include "machine/ParameterInitialValues.h"

#include "kernel/SingletonCleaner.h"

#include <utility>

ParameterInitialValues* ParameterInitialValues::_singleton = nullptr;

ParameterInitialValues& ParameterInitialValues::getSingleton() {
    if (!_singleton) {
        _singleton = new ParameterInitialValues;
        SingletonCleaner::registerReset(&ParameterInitialValues::reset);
    }
    return *_singleton;
}

void ParameterInitialValues::reset() {
    delete std::exchange(_singleton, nullptr);
}

void ParameterInitialValues::addParameterArg(std::string name, std::string value) {
    _values.insert_or_assign(std::move(name), std::move(value));
}
