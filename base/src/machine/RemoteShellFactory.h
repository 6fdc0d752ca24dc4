#pragma once

#include "machine/MachineExport.h"

#include <string>

/// Knows how processes are started on other hosts.
class ORVEX_MACHINE_EXPORT RemoteShellFactory {
public:
    static RemoteShellFactory& getSingleton();
    static void reset();
    RemoteShellFactory(const RemoteShellFactory&) = delete;
    RemoteShellFactory& operator=(const RemoteShellFactory&) = delete;
    virtual ~RemoteShellFactory();

    /// @param command  the remote shell client, with its path and options where they are wanted
    void setDefaultRemoteProcessLauncher(const std::wstring& command) { _defaultCommand = command; }
    const std::wstring& getDefaultCommand() const { return _defaultCommand; }

private:
    RemoteShellFactory();

    static RemoteShellFactory* _singleton;

    std::wstring _defaultCommand = L"ssh";
};
