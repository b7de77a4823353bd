# The Node headers of the runtime the module is built for, as the interface target zel::node_headers: their include
# directory and the V8 defines that runtime's build options require. Every target that includes v8.h links it.
#
# NODE_INCLUDE_DIR names the headers; left empty, they are chosen as node-gyp does (npm_config_nodedir, else the
# headers of the Node that runs the build). The build record zelbridge-build.json is written beside the modules.
find_program(NODE_EXECUTABLE node REQUIRED)
set(NODE_INCLUDE_DIR "" CACHE PATH "Node headers (node.h, v8.h, config.gypi); empty: those of the running Node")

set(_args --cmake ${PROJECT_BINARY_DIR}/node-headers.cmake --record ${PROJECT_BINARY_DIR}/zelbridge-build.json)
if(NODE_INCLUDE_DIR)
  list(PREPEND _args --include-dir ${NODE_INCLUDE_DIR})
endif()
execute_process(COMMAND ${NODE_EXECUTABLE} ${CMAKE_CURRENT_LIST_DIR}/node-headers.js ${_args}
  RESULT_VARIABLE _result ERROR_VARIABLE _error)
if(NOT _result EQUAL 0)
  string(STRIP "${_error}" _error)
  message(FATAL_ERROR "${_error}")
endif()
include(${PROJECT_BINARY_DIR}/node-headers.cmake)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
  ${CMAKE_CURRENT_LIST_DIR}/node-headers.js ${ZEL_NODE_INCLUDE_DIR}/config.gypi ${ZEL_NODE_INCLUDE_DIR}/common.gypi
  ${ZEL_NODE_INCLUDE_DIR}/node_version.h)
message(STATUS "Node headers: ${ZEL_NODE_INCLUDE_DIR} (Node ${ZEL_NODE_VERSION}, module version "
  "${ZEL_NODE_MODULE_VERSION}, V8 ${ZEL_V8_VERSION}, defines: ${ZEL_V8_DEFINES})")

add_library(zel_node_headers INTERFACE)
add_library(zel::node_headers ALIAS zel_node_headers)
target_include_directories(zel_node_headers SYSTEM INTERFACE ${ZEL_NODE_INCLUDE_DIR})
target_compile_definitions(zel_node_headers INTERFACE ${ZEL_V8_DEFINES})
