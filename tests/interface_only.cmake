# The agents compile on the host interface alone: both sources, syntax only, with nothing on the
# include path but src-includes/api, the agents' own headers and a configuration that records no
# host capability. (A strict build's agent target has exactly that path already.)
if(NOT VELTA_STRICT_INTERFACE)
  set(VELTA_AGENT_HOST_KEY_HASH 0)
  set(VELTA_AGENT_HOST_LOOKAHEAD 0)
  configure_file(${PROJECT_SOURCE_DIR}/agent/Config.h.in
    ${CMAKE_CURRENT_BINARY_DIR}/interface-only/Velta/Agent/Config.h @ONLY)
  add_test(NAME agents_compile_on_interface_alone
    COMMAND ${CMAKE_CXX_COMPILER} -std=c++20 -fsyntax-only -Wall -Wextra -Werror
      -I${PROJECT_SOURCE_DIR}/src-includes/api -I${PROJECT_SOURCE_DIR}/agent/include
      -I${CMAKE_CURRENT_BINARY_DIR}/interface-only
      ${PROJECT_SOURCE_DIR}/agent/SubscriptionTranslator.cpp ${PROJECT_SOURCE_DIR}/agent/Aggregator.cpp)
  unset(VELTA_AGENT_HOST_KEY_HASH)
  unset(VELTA_AGENT_HOST_LOOKAHEAD)
endif()
