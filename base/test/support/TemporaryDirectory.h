#pragma once

#include "platform/FileSystem.h"

#include <fstream>
#include <sstream>
#include <string>

/// A directory of a test, gone with it.
class TemporaryDirectory {
public:
    TemporaryDirectory()
        : _path(_files.makeTemporaryDirectory(_files.getDefaultTemporaryDirectory(), L"orvex-test-")) {}
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    ~TemporaryDirectory() { _files.deleteTree(_path); }

    std::wstring operator/(const std::wstring& name) const { return _files.join(_path, name); }
    const std::wstring& getPath() const { return _path; }

private:
    Platform::FileSystem& _files = Platform::filesystem();
    std::wstring _path;
};
