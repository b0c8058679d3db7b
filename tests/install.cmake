# Installs the project into a scratch prefix, then builds and runs tests/consumer against it
# (CMake package), and checks the pkg-config file.
set(VELTA_CONSUMER_PREFIX ${CMAKE_BINARY_DIR}/consumer-prefix)
set(VELTA_CONSUMER_FLAGS "")
if(VELTA_SANITIZE)
  set(VELTA_CONSUMER_FLAGS "-fsanitize=address,undefined")
endif()
add_test(NAME install_and_consume
  COMMAND ${CMAKE_COMMAND}
    -DBUILD_DIR=${CMAKE_BINARY_DIR}
    -DPREFIX=${VELTA_CONSUMER_PREFIX}
    -DSOURCE=${CMAKE_CURRENT_SOURCE_DIR}/consumer
    -DGENERATOR=${CMAKE_GENERATOR}
    -DFLAGS=${VELTA_CONSUMER_FLAGS}
    -P ${CMAKE_CURRENT_SOURCE_DIR}/consumer/check.cmake)
set_tests_properties(install_and_consume PROPERTIES TIMEOUT 300 RUN_SERIAL TRUE)
