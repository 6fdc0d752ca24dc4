# The libraries of others, each with its one place of use.

find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)

# Both MPI libraries serve one build: each driver links with its own, nothing else links with any.
# The C++ bindings of their headers stay out of sight.
pkg_check_modules(OMPI IMPORTED_TARGET ompi)
pkg_check_modules(MPICH IMPORTED_TARGET mpich)

# Hardware topology and binding.
pkg_check_modules(HWLOC REQUIRED IMPORTED_TARGET hwloc>=2.4)

# Behind OS::Log.
find_package(spdlog REQUIRED)

# Behind Properties: RapidJSON (headers alone) for its JSON, pugixml for its XML.
find_package(RapidJSON REQUIRED)
find_package(pugixml REQUIRED)

# Behind the keys of sessions.
find_package(OpenSSL REQUIRED COMPONENTS Crypto)

# Behind the server's sockets: standalone asio (headers alone).
find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)

# Behind orvexctl: its command line, its prompt.
find_package(CLI11 REQUIRED)
pkg_check_modules(LIBEDIT REQUIRED IMPORTED_TARGET libedit)
