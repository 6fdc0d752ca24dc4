#include "platform/System.h"

#include "platform/ProcFs.h"
#include "platform/StringHelper.h"

#include <cerrno>
#include <cstdlib>
#include <gnu/libc-version.h>
#include <pwd.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <vector>

namespace Platform {

namespace {

/// The entry of the effective user in the user data base.
struct User {
    std::string name;
    std::string home;
};

std::optional<User> findUser() {
    constexpr std::size_t LARGEST = 1u << 20;
    std::vector<char> buffer(1024);
    while (buffer.size() <= LARGEST) {
        passwd entry{};
        passwd* found = nullptr;
        const int result = ::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found);
        if (result == 0 && found != nullptr)
            return User{found->pw_name, found->pw_dir};
        if (result != ERANGE && result != EINTR)
            return std::nullopt;
        buffer.resize(buffer.size() * 2);
    }
    return std::nullopt;
}

/// The value of PRETTY_NAME in the system's description of itself.
std::string readDistribution() {
    const auto text = ProcFs::readText("/etc/os-release");
    if (!text)
        return {};
    const std::string key = "PRETTY_NAME=";
    for (const std::string& line : StringHelper::tokenize(*text, "\n")) {
        if (!line.starts_with(key))
            continue;
        std::string value = line.substr(key.size());
        if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
            value.back() == value.front())
            value = value.substr(1, value.size() - 2);
        return value;
    }
    return {};
}

} // namespace

std::string System::getUserName() const {
    const auto user = findUser();
    return user && !user->name.empty() ? user->name : std::to_string(::geteuid());
}

unsigned System::getUserId() const {
    return ::geteuid();
}

std::wstring System::getHomeDirectory() const {
    const auto user = findUser();
    return user ? StringHelper::fromBytes(user->home) : std::wstring();
}

std::wstring System::getExecutablePath() const {
    return StringHelper::fromBytes(ProcFs::readExecutable("self"));
}

std::string System::getOs() const {
    utsname kernel{};
    std::string text = readDistribution();
    if (::uname(&kernel) == 0) {
        if (!text.empty())
            text += ", ";
        text += std::string(kernel.sysname) + " " + kernel.release;
    }
    return text;
}

std::string System::getGlibc() const {
    return ::gnu_get_libc_version();
}

std::string System::getBootId() const {
    return StringHelper::trim(ProcFs::readText("/proc/sys/kernel/random/boot_id").value_or(std::string()));
}

std::optional<std::string> System::getEnvironment(const std::string& name) const {
    const char* value = std::getenv(name.c_str());
    return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

System& system() {
    static System service;
    return service;
}

} // namespace Platform
