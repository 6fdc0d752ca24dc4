#include "support/TestMachine.h"

#include <hwloc.h>

#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace {

void check(int result, const std::string& line) {
    if (result < 0)
        throw std::runtime_error("hwloc refuses \"" + line + '"');
}

using Bitmap = std::unique_ptr<hwloc_bitmap_s, decltype(&hwloc_bitmap_free)>;

Bitmap parse(const std::string& mask) {
    Bitmap bitmap(hwloc_bitmap_alloc(), &hwloc_bitmap_free);
    check(hwloc_bitmap_taskset_sscanf(bitmap.get(), mask.c_str()), mask);
    return bitmap;
}

/// Calls `take` with the rest of each line that begins with `word`.
void forEach(const std::string& description, const std::string& word,
             const std::function<void(const std::string&)>& take) {
    std::istringstream lines(description);
    for (std::string line; std::getline(lines, line);)
        if (line.compare(0, word.size() + 1, word + ' ') == 0)
            take(line.substr(word.size() + 1));
}

} // namespace

std::string makeTestMachine(const std::string& description) {
    hwloc_topology_t topology = nullptr;
    check(hwloc_topology_init(&topology), "init");
    const std::unique_ptr<hwloc_topology, decltype(&hwloc_topology_destroy)> owner(topology,
                                                                                   &hwloc_topology_destroy);
    check(hwloc_topology_set_flags(topology, HWLOC_TOPOLOGY_FLAG_INCLUDE_DISALLOWED), "flags");
    forEach(description, "machine", [&](const std::string& text) {
        check(hwloc_topology_set_synthetic(topology, text.c_str()), text);
    });
    forEach(description, "without", [&](const std::string& name) {
        hwloc_obj_type_t type{};
        check(hwloc_type_sscanf(name.c_str(), &type, nullptr, 0), name);
        check(hwloc_topology_set_type_filter(topology, type, HWLOC_TYPE_FILTER_KEEP_NONE), name);
    });
    check(hwloc_topology_load(topology), description);
    forEach(description, "restrict", [&](const std::string& mask) {
        check(hwloc_topology_restrict(topology, parse(mask).get(), 0), mask);
    });
    forEach(description, "restrict-nodes", [&](const std::string& nodes) {
        check(hwloc_topology_restrict(topology, parse(nodes).get(), HWLOC_RESTRICT_FLAG_BYNODESET), nodes);
    });
    forEach(description, "allow", [&](const std::string& mask) {
        check(hwloc_topology_allow(topology, parse(mask).get(), nullptr, HWLOC_ALLOW_FLAG_CUSTOM), mask);
    });
    forEach(description, "kind", [&](const std::string& words) {
        const std::size_t blank = words.find(' ');
        check(hwloc_cpukinds_register(topology, parse(words.substr(0, blank)).get(),
                                      std::stoi(words.substr(blank)), 0, nullptr, 0),
              words);
    });
    char* buffer = nullptr;
    int length = 0;
    check(hwloc_topology_export_xmlbuffer(topology, &buffer, &length, 0), "export");
    std::string xml(buffer, static_cast<std::size_t>(length));
    hwloc_free_xmlbuffer(topology, buffer);
    forEach(description, "edit", [&](const std::string& line) {
        const std::size_t arrow = line.find(" => ");
        const std::string from = line.substr(0, arrow);
        const std::size_t place = xml.find(from);
        if (place == std::string::npos)
            throw std::runtime_error('"' + from + "\" isn't in the XML:\n" + xml);
        xml.replace(place, from.size(), line.substr(arrow + 4));
    });
    return xml;
}
