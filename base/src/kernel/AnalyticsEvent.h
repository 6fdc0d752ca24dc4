#pragma once

#include "kernel/KernelExport.h"
#include "kernel/Properties.h"

#include <string>

/// A record of what is used, kept in a file of this user on this host. Nothing is sent anywhere.
namespace Analytics {

/// Something that happened, with attributes.
class ORVEX_KERNEL_EXPORT Event {
public:
    explicit Event(std::string name);
    ~Event();

    const std::string& getName() const { return _name; }
    const Properties& getAttributes() const { return _attributes; }
    void addAttribute(const std::string& key, const std::string& value) { _attributes.set(key, value); }
    void addAttribute(const std::string& key, const char* value) { _attributes.set(key, value); }
    void addAttribute(const std::string& key, unsigned value) { _attributes.set(key, value); }

private:
    std::string _name;
    Properties _attributes;
};

} // namespace Analytics
