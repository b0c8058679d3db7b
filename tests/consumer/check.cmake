# Script mode: install, run the installed runner, configure the consumer against the prefix, build
# it, run it and the host conformance kit, check pkg-config and build the kit's program with it alone.
function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGV}\n${out}\n${err}")
  endif()
  set(LAST_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${PREFIX} ${BUILD_DIR}/consumer-build)
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX})

# The installed runner finds the installed libraries by itself (its run path is relative to it).
if(EXAMPLE)
  run(${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH ${PREFIX}/bin/velta-sim check ${EXAMPLE})
  message(STATUS "installed velta-sim: ${LAST_OUTPUT}")
endif()

run(${CMAKE_COMMAND} -S ${SOURCE} -B ${BUILD_DIR}/consumer-build -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${PREFIX} "-DCMAKE_CXX_FLAGS=${FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${FLAGS}")
run(${CMAKE_COMMAND} --build ${BUILD_DIR}/consumer-build)
run(${BUILD_DIR}/consumer-build/consumer)
message(STATUS "consumer: ${LAST_OUTPUT}")
run(${BUILD_DIR}/consumer-build/host_conformance --gtest_brief=1)

# The pkg-config file names the prefix it lies in, not the one chosen when the build was configured.
file(GLOB_RECURSE pcfiles ${PREFIX}/*/SubscriptionHandling.pc)
if(NOT pcfiles)
  message(FATAL_ERROR "no SubscriptionHandling.pc installed")
endif()
list(GET pcfiles 0 pc)
get_filename_component(pcdir ${pc} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pcdir})
run(pkg-config --cflags --libs SubscriptionHandling)
string(FIND "${LAST_OUTPUT}" "-I${PREFIX}/" at_include)
string(FIND "${LAST_OUTPUT}" "-L${PREFIX}/" at_lib)
if(at_include EQUAL -1 OR at_lib EQUAL -1 OR NOT LAST_OUTPUT MATCHES "-lSubscriptionHandling")
  message(FATAL_ERROR "pkg-config gave: ${LAST_OUTPUT}")
endif()

# A host author who does not use CMake builds the same kit program from the kit's pkg-config file.
run(pkg-config --cflags --libs SubscriptionHandlingConformance SubscriptionHandling)
separate_arguments(kit_flags UNIX_COMMAND "${LAST_OUTPUT}")
separate_arguments(extra_flags UNIX_COMMAND "${FLAGS}")
run(pkg-config --variable=libdir SubscriptionHandling)
string(STRIP "${LAST_OUTPUT}" libdir)
run(${CXX} ${extra_flags} ${SOURCE}/host_conformance.cpp -o ${BUILD_DIR}/consumer-build/host_conformance_pc
    ${kit_flags} -Wl,-rpath,${libdir})
run(${BUILD_DIR}/consumer-build/host_conformance_pc --gtest_brief=1)
