#pragma once

#include "kernel/KernelExport.h"

#include <string>

/// Pieces of file names. A name starts behind the last separator; an extension at the name's last ".", unless
/// that is its first character.
class ORVEX_KERNEL_EXPORT FileHelper {
public:
    /// "/a/b.c.sim" gives "b.c.sim".
    static std::wstring stripPath(const std::wstring& path);
    /// "/a/b.c.sim" gives "/a/b.c".
    static std::wstring stripExtension(const std::wstring& path);
    /// "/a/b.c.sim" gives "b.c".
    static std::wstring stripPathAndExtension(const std::wstring& path);
    /// With its "."; empty when there is none.
    static std::wstring getExtension(const std::wstring& path);
};
