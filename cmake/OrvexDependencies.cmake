# Third-party libraries, each with its only place of use.

find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)

# Both MPI libraries serve one build. Each driver links with its own library, and nothing else links with one.
# Each user of their headers switches the C++ bindings off.
pkg_check_modules(OMPI IMPORTED_TARGET ompi)
pkg_check_modules(MPICH IMPORTED_TARGET mpich)

# Hardware topology and binding.
pkg_check_modules(HWLOC REQUIRED IMPORTED_TARGET hwloc>=2.4)

# Threads of hybrid contexts.
find_package(TBB REQUIRED COMPONENTS tbb)
find_package(OpenMP REQUIRED COMPONENTS CXX)

# Used by OS::Log.
find_package(spdlog REQUIRED)

# Used by Properties: RapidJSON (only headers) for JSON, pugixml for XML. xmlrpc uses pugixml too.
find_package(RapidJSON REQUIRED)
find_package(pugixml REQUIRED)

# Used by the keys of sessions.
find_package(OpenSSL REQUIRED COMPONENTS Crypto)

# Used by the server's sockets and by xmlrpc: standalone asio (only headers).
find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)

# Used by xmlrpc for the messages of HTTP.
find_path(HTTP_PARSER_INCLUDE_DIR http_parser.h REQUIRED)
find_library(HTTP_PARSER_LIBRARY http_parser REQUIRED)

# Used by orvexctl for its command line and its prompt.
find_package(CLI11 REQUIRED)
pkg_check_modules(LIBEDIT REQUIRED IMPORTED_TARGET libedit)
