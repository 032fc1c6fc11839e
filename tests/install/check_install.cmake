# Installs the build tree BUILD to a temporary prefix and builds the README's
# example against it twice: a CMake project with find_package(varkel), and one
# compiler line with pkg-config. The installed command line runs on its own
# runtime path, and the installed Python package (when PYTHON_DIR is given)
# imports from where it landed. The prefix is removed afterwards.
set(prefix ${WORK}/prefix)
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${ARGN}\n${out}")
  endif()
endfunction()

# The example's statements, taken from the README, in a main function.
file(READ ${SOURCE}/README.md readme)
if(NOT readme MATCHES "```cpp\n((#include <varkel/[a-z]+\\.h>\n)+)([^`]*)```")
  message(FATAL_ERROR "no library example in README.md")
endif()
file(WRITE ${WORK}/example.cpp "${CMAKE_MATCH_1}#include <cstdio>\n#include <unistd.h>\n\nint main()\n{\n"
                               "${CMAKE_MATCH_3}  return 0;\n}\n")

run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix})
run(${CMAKE_COMMAND} -S ${SOURCE}/tests/install -B ${WORK}/cmake -DCMAKE_PREFIX_PATH=${prefix}
    -DEXAMPLE=${WORK}/example.cpp -DCMAKE_CXX_COMPILER=${CXX})
run(${CMAKE_COMMAND} --build ${WORK}/cmake)

file(GLOB_RECURSE pc ${prefix}/varkel.pc)
get_filename_component(pc_dir "${pc}" DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
execute_process(COMMAND pkg-config --cflags --libs varkel OUTPUT_VARIABLE flags RESULT_VARIABLE rc
                OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know varkel from ${pc_dir}")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
run(${CXX} -std=c++20 ${WORK}/example.cpp ${flags} -o ${WORK}/example-pkg-config)

set(ENV{LD_LIBRARY_PATH} "")
run(${prefix}/bin/varkel --sim kinlet get exposure)
if(PYTHON_DIR)
  set(ENV{PYTHONPATH} ${prefix}/${PYTHON_DIR})
  run(${PYTHON} -c "import sys, varkel; sys.exit(not varkel.__file__.startswith(sys.argv[1]))" ${prefix})
endif()

file(REMOVE_RECURSE ${WORK})
