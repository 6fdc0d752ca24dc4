#include "machine/RemoteShellFactory.h"

#include "kernel/SingletonCleaner.h"

#include <utility>

RemoteShellFactory* RemoteShellFactory::_singleton = nullptr;

RemoteShellFactory& RemoteShellFactory::getSingleton() {
    if (!_singleton)
        _singleton = new RemoteShellFactory;
    return *_singleton;
}

void RemoteShellFactory::reset() {
    delete std::exchange(_singleton, nullptr);
}

RemoteShellFactory::RemoteShellFactory() {
    SingletonCleaner::registerReset(&RemoteShellFactory::reset);
}

RemoteShellFactory::~RemoteShellFactory() = default;
