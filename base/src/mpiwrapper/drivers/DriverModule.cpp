#include "mpiwrapper/drivers/DriverModule.h"

#include <dlfcn.h>
#include <link.h>

const void* DriverModule::findSymbol(void* library, const char* name) {
    return dlsym(library, name);
}

std::string DriverModule::getFile(void* library) {
    link_map* map = nullptr;
    if (dlinfo(library, RTLD_DI_LINKMAP, &map) != 0 || !map)
        return "a library without a file";
    // The main program's entry has an empty name.
    return map->l_name && *map->l_name ? map->l_name : "the program itself";
}
