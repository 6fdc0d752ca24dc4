# The libraries of others, each with its one place of use.

find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)

# Both MPI libraries serve one build: each driver links with its own, nothing else links with any.
# The C++ bindings of their headers stay out of sight.
pkg_check_modules(OMPI IMPORTED_TARGET ompi)
pkg_check_modules(MPICH IMPORTED_TARGET mpich)

# Behind OS::Log.
find_package(spdlog REQUIRED)
