#pragma once

#include "machine/MachineExport.h"

class Controller;

/// The commands of the client's file browser: GetDir, SetDir, ListDir, GetSize, GetFileExists, GetReadOnly,
/// CreateFile, CreateFolder, DeleteFile, RenameFile, IsWindows, GetFileSystemRoots.
///
/// They run on every rank. Those that read answer with what the rank's process sees; those that change files
/// act on the serial or master process only. The library registers them when it is loaded.
class ORVEX_MACHINE_EXPORT FileSystemCommands {
public:
    /// Registers one object of each, in the order above. Main thread.
    static void registerCommands(Controller& controller);
};
