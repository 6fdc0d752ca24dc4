# Tests inside real jobs.

find_package(Python3 REQUIRED COMPONENTS Interpreter)
find_program(ORVEX_OPENMPI_LAUNCHER NAMES mpirun.openmpi)
find_program(ORVEX_MPICH_LAUNCHER NAMES mpiexec.mpich mpiexec.hydra)

# The MPIs that can be tested: the driver is built and the launcher is installed.
set(ORVEX_TESTED_MPIS "")
if(TARGET OrvexOpenMpi4 AND ORVEX_OPENMPI_LAUNCHER)
  list(APPEND ORVEX_TESTED_MPIS openmpi4)
  set(ORVEX_LAUNCHER_openmpi4 ${ORVEX_OPENMPI_LAUNCHER})
  set(ORVEX_DRIVER_openmpi4 OrvexOpenMpi4)
endif()
if(TARGET OrvexMpich2Ch3 AND ORVEX_MPICH_LAUNCHER)
  list(APPEND ORVEX_TESTED_MPIS mpich2)
  set(ORVEX_LAUNCHER_mpich2 ${ORVEX_MPICH_LAUNCHER})
  set(ORVEX_DRIVER_mpich2 OrvexMpich2Ch3)
endif()

# Sanitizers slow the programs down.
set(ORVEX_TEST_PATIENCE 1)
if(ORVEX_SANITIZER)
  set(ORVEX_TEST_PATIENCE 4)
endif()

set(ORVEX_RUN_RANKS ${CMAKE_CURRENT_LIST_DIR}/../support/run-ranks.py)

# orvex_add_parallel_run(<name> COMMAND <program> <argument>... RANKS <count>...
#                        [SECONDS <for one launch>] [EXPECT <regular expression>...] [MPI <launcher's driver>...]
#                        [EXIT_VALUE <number>] [DRIVER <driver's name>])
# Adds one test for each MPI, "parallel.<name>.<mpi>". The program is launched once with each rank count, with
# "-mpi <mpi>" behind its arguments. With EXPECT each launch must fail, with these words in its output. With
# EXIT_VALUE the launcher must end with that value.
function(orvex_add_parallel_run name)
  cmake_parse_arguments(ARG "" "SECONDS;DRIVER;EXIT_VALUE" "COMMAND;RANKS;EXPECT;MPI" ${ARGN})
  if(NOT ARG_SECONDS)
    set(ARG_SECONDS 60)
  endif()
  if(NOT ARG_MPI)
    set(ARG_MPI ${ORVEX_TESTED_MPIS})
  endif()
  math(EXPR seconds "${ARG_SECONDS} * ${ORVEX_TEST_PATIENCE}")
  list(LENGTH ARG_RANKS launches)
  math(EXPR timeout "${launches} * (${seconds} + 10)")
  list(JOIN ARG_RANKS "," ranks)
  set(options --ranks ${ranks} --seconds ${seconds})
  foreach(expression ${ARG_EXPECT})
    list(APPEND options --expect ${expression})
  endforeach()
  if(ARG_EXIT_VALUE)
    list(APPEND options --exit-value ${ARG_EXIT_VALUE})
  endif()
  if(ARG_DRIVER)
    list(APPEND options --driver ${ARG_DRIVER})
  endif()
  foreach(mpi ${ARG_MPI})
    if(NOT mpi IN_LIST ORVEX_TESTED_MPIS)
      continue()
    endif()
    add_test(NAME parallel.${name}.${mpi}
      COMMAND ${Python3_EXECUTABLE} -B ${ORVEX_RUN_RANKS} --mpi ${mpi} --launcher ${ORVEX_LAUNCHER_${mpi}}
              ${options} -- ${ARG_COMMAND})
    # Each job fills the machine. Two jobs at a time could both exceed their time limits.
    set_tests_properties(parallel.${name}.${mpi} PROPERTIES
      LABELS parallel TIMEOUT ${timeout} PROCESSORS 2)
  endforeach()
endfunction()

# orvex_add_parallel_test(<name> SOURCES <test source>... LIBRARIES <target>... RANKS <count>... [SECONDS <for one launch>])
# Adds a program Parallel<name> of GoogleTest tests (see ParallelTest.h), and its runs under each MPI. One of the sources
# defines startMessageLayer() and stopMessageLayer(); the library OrvexWrapperTestLayer does that for the wrapper.
function(orvex_add_parallel_test name)
  cmake_parse_arguments(ARG "" "SECONDS" "SOURCES;LIBRARIES;RANKS" ${ARGN})
  set(target Parallel${name})
  add_executable(${target} ${ARG_SOURCES})
  target_link_libraries(${target} PRIVATE orvex_warnings OrvexParallelTestMain ${ARG_LIBRARIES})
  foreach(mpi ${ORVEX_TESTED_MPIS})
    add_dependencies(${target} ${ORVEX_DRIVER_${mpi}})
  endforeach()
  math(EXPR test_seconds "30 * ${ORVEX_TEST_PATIENCE}")
  set(seconds)
  if(ARG_SECONDS)
    set(seconds SECONDS ${ARG_SECONDS})
  endif()
  string(TOLOWER ${name} test_name)
  orvex_add_parallel_run(${test_name} COMMAND $<TARGET_FILE:${target}> --gtest_color=no
      --test-seconds=${test_seconds}
    RANKS ${ARG_RANKS} ${seconds})
endfunction()
