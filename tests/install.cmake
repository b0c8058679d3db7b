# Installs the project into a scratch prefix, runs the installed velta-sim from there (no library
# path set), builds and runs tests/consumer against the prefix (CMake package), and checks that the
# pkg-config file names the prefix it was installed to, and builds the conformance kit's program from
# the kit's pkg-config file alone.
set(VELTA_CONSUMER_PREFIX ${CMAKE_BINARY_DIR}/consumer-prefix)
set(VELTA_CONSUMER_FLAGS "")
if(VELTA_SANITIZE)
  set(VELTA_CONSUMER_FLAGS "-fsanitize=address,undefined -fno-sanitize-recover=all")
endif()
add_test(NAME install_and_consume
  COMMAND ${CMAKE_COMMAND}
    -DBUILD_DIR=${CMAKE_BINARY_DIR}
    -DPREFIX=${VELTA_CONSUMER_PREFIX}
    -DSOURCE=${CMAKE_CURRENT_SOURCE_DIR}/consumer
    -DGENERATOR=${CMAKE_GENERATOR}
    -DCXX=${CMAKE_CXX_COMPILER}
    -DFLAGS=${VELTA_CONSUMER_FLAGS}
    -DEXAMPLE=$<$<TARGET_EXISTS:velta-sim>:${PROJECT_SOURCE_DIR}/examples/aggregation.yaml>
    -P ${CMAKE_CURRENT_SOURCE_DIR}/consumer/check.cmake)
set_tests_properties(install_and_consume PROPERTIES TIMEOUT 300 RUN_SERIAL TRUE)
