# Settings of all targets: language level, warnings, sanitizers, output folders.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release)
endif()

# Programs, libraries and modules are side by side as in an installation. So a module is found beside the program in
# both places.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR};$ORIGIN")
add_link_options(-Wl,--enable-new-dtags)

find_program(ORVEX_CCACHE ccache)
if(ORVEX_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_C_COMPILER_LAUNCHER ${ORVEX_CCACHE})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${ORVEX_CCACHE})
endif()

# The first two options let a fault inside a command become an exception on the thread that caused it.
# The prefix maps let messages and stack traces name sources relative to the repository. The second map is for a
# ccache that gives the compiler paths relative to the build folder (its `base_dir`).
file(RELATIVE_PATH way_to_sources ${CMAKE_BINARY_DIR} ${CMAKE_SOURCE_DIR}) # ends with a slash
add_compile_options(-fnon-call-exceptions -fasynchronous-unwind-tables
                    -ffile-prefix-map=${CMAKE_SOURCE_DIR}/= -ffile-prefix-map=${way_to_sources}=)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  # clang 14 has no -fnon-call-exceptions. Builds with clang serve for checks only.
  add_compile_options(-Qunused-arguments -Wno-ignored-optimization-argument)
endif()

# Every kind of build has line tables, so that a stack trace names file and line.
string(APPEND CMAKE_CXX_FLAGS_RELEASE " -g1")
string(APPEND CMAKE_C_FLAGS_RELEASE " -g1")

add_library(orvex_warnings INTERFACE)
target_compile_options(orvex_warnings INTERFACE -Wall -Wextra -Wconversion -Wshadow -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # At -O3 this warning reports overlaps inside the standard library's `"text" + string` that don't exist.
  target_compile_options(orvex_warnings INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict>)
endif()

if(ORVEX_SANITIZER)
  add_compile_options(-fsanitize=${ORVEX_SANITIZER} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ORVEX_SANITIZER})
endif()

# orvex_add_library(<target> ALIAS <Orvex::Name> FOLDER <folder under base/src> SOURCES ... HEADERS ...)
# Adds a shared library for one floor. Its HEADERS are public and are installed under include/orvex/<folder>.
function(orvex_add_library target)
  cmake_parse_arguments(ARG "" "ALIAS;FOLDER" "SOURCES;HEADERS" ${ARGN})
  add_library(${target} SHARED ${ARG_SOURCES})
  add_library(${ARG_ALIAS} ALIAS ${target})
  string(REPLACE "Orvex::" "" export_name ${ARG_ALIAS})
  set_target_properties(${target} PROPERTIES
    EXPORT_NAME ${export_name} VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}
    VERIFY_INTERFACE_HEADER_SETS ON)
  target_sources(${target} PUBLIC FILE_SET HEADERS BASE_DIRS ${CMAKE_SOURCE_DIR}/base/src FILES ${ARG_HEADERS})
  target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:orvex_warnings>)
  target_compile_features(${target} PUBLIC cxx_std_20)
  install(TARGETS ${target} EXPORT OrvexTargets
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
          FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orvex)
endfunction()

# orvex_add_module(<target> SOURCES ... LIBRARIES ...)
# Adds a module that the server loads at run time by the name of the target.
function(orvex_add_module target)
  cmake_parse_arguments(ARG "TEST_ONLY" "" "SOURCES;LIBRARIES" ${ARGN})
  add_library(${target} MODULE ${ARG_SOURCES})
  target_link_libraries(${target} PRIVATE orvex_warnings ${ARG_LIBRARIES})
  if(NOT ARG_TEST_ONLY)
    install(TARGETS ${target} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  endif()
endfunction()
