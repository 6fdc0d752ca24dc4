#pragma once

#include "kernel/KernelExport.h"
#include "kernel/Properties.h"

#include <string>

/// Settings that a user or a site makes once for all runs: a JSON object in the file "settings.json" of the
/// directory "orvex" below XDG_CONFIG_HOME, or below ".config" of the home directory.
///
/// The file is read on first use. Without it every setting has its default, and a bad file or a value of the
/// wrong type is logged as a warning and counts as absent: a setting never stops a run. Any thread.
class ORVEX_KERNEL_EXPORT SiteSettings {
public:
    static constexpr std::size_t MAX_FILE_SIZE = std::size_t(1) << 16; ///< [bytes]

    static SiteSettings& getSingleton();
    static void reset();

    int getInt(const std::string& key, int defaultValue) const;
    double getReal(const std::string& key, double defaultValue) const;
    bool getBool(const std::string& key, bool defaultValue) const;
    std::string getString(const std::string& key, const std::string& defaultValue) const;

    /// The path of the file; empty when the user has no home.
    static std::wstring getFilePath();

private:
    SiteSettings();
    ~SiteSettings();

    static SiteSettings* _singleton;
    Properties _settings;
};
