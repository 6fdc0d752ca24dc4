#include "kernel/OrvexVersion.h"

// The one source that knows which kind of version this is: both kinds share all other objects.

const bool OrvexVersion::_isDevelopmentVersion = ORVEX_VERSION_IS_DEVELOPMENT;
const char* const OrvexVersion::_releaseNumber = ORVEX_VERSION_NUMBER;
const char* const OrvexVersion::_releaseDate = ORVEX_VERSION_DATE;
const char* const OrvexVersion::_buildArch = ORVEX_VERSION_ARCH;
const char* const OrvexVersion::_buildEnv = ORVEX_VERSION_ENV;

std::string OrvexVersion::_machineConfig = "Serial";

std::string OrvexVersion::getProductName() {
    return "OrvexSim";
}

std::string OrvexVersion::getVersionedProductName() {
    return getProductName() + " " + _releaseNumber + (_isDevelopmentVersion ? " development version" : "");
}
