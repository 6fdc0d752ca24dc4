#pragma once

#include "kernel/OrvexVersion.h"

#include <fstream>
#include <sstream>
#include <string>

/// The content of a file.
inline std::string readReport(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

/// The head of a report, as all reports of this build have it.
inline std::string headOfReport(const std::string& title, unsigned ranks, const std::string& limit) {
    return "\n" + title + "\n\n" + OrvexVersion::getProductName() +
           "\nRelease Version : " + OrvexVersion::_releaseNumber +
           "\nRelease Date    : " + OrvexVersion::_releaseDate +
           "\nBuild ENV       : " + OrvexVersion::_buildEnv +
           "\nBuild ARCH      : " + OrvexVersion::_buildArch +
           "\nNumber of Cores : " + std::to_string(ranks) + "\n\n" + limit + "\n";
}
