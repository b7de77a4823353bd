# The Node headers of the runtime the module is built for, as the interface target zel::node_headers: their include
# directory and the V8 defines that runtime's build options require. Every target that includes v8.h links it.
#
# node-gyp configures a copy of binding.gyp for the runtime (cmake/node-gyp-config.js) and both are read back from
# what it generated, so this build and the package's node-gyp build agree by construction. NODE_DIR is node-gyp's
# --nodedir (a directory whose include/node holds the headers); left empty, the headers are chosen as the install
# chooses them: npm's knobs (npm_config_nodedir, ...), else those of the Node that runs the build. The build record
# zelbridge-build.json is written beside the modules.
find_program(NODE_EXECUTABLE node REQUIRED)
set(NODE_DIR "" CACHE PATH "node-gyp's --nodedir for the runtime to build for; empty: as the install chooses")

set(_work ${PROJECT_BINARY_DIR}/node-gyp)
set(_args --work ${_work} --cmake ${PROJECT_BINARY_DIR}/node-headers.cmake
  --record ${PROJECT_BINARY_DIR}/zelbridge-build.json)
if(NODE_DIR)
  list(APPEND _args --nodedir ${NODE_DIR})
endif()
execute_process(COMMAND ${NODE_EXECUTABLE} ${PROJECT_SOURCE_DIR}/cmake/node-gyp-config.js ${_args}
  RESULT_VARIABLE _result ERROR_VARIABLE _error)
if(NOT _result EQUAL 0)
  string(STRIP "${_error}" _error)
  message(FATAL_ERROR "${_error}")
endif()
include(${PROJECT_BINARY_DIR}/node-headers.cmake)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/binding.gyp
  ${PROJECT_SOURCE_DIR}/sources.gypi ${PROJECT_SOURCE_DIR}/cmake/node-gyp-config.js
  ${PROJECT_SOURCE_DIR}/scripts/build-record.js ${ZEL_NODE_INCLUDE_DIR}/config.gypi
  ${ZEL_NODE_INCLUDE_DIR}/common.gypi ${ZEL_NODE_INCLUDE_DIR}/node_version.h)
message(STATUS "Node headers: ${ZEL_NODE_INCLUDE_DIR} (Node ${ZEL_NODE_VERSION}, module version "
  "${ZEL_NODE_MODULE_VERSION}, V8 ${ZEL_V8_VERSION}, defines: ${ZEL_V8_DEFINES})")

add_library(zel_node_headers INTERFACE)
add_library(zel::node_headers ALIAS zel_node_headers)
target_include_directories(zel_node_headers SYSTEM INTERFACE ${ZEL_NODE_INCLUDE_DIR})
target_compile_definitions(zel_node_headers INTERFACE ${ZEL_V8_DEFINES})

# zel_module_sources(<variable> <group>): the sources of one group of sources.gypi (zelbridge_<group>_sources), the
# one list of the module's sources, as absolute paths.
file(READ ${PROJECT_SOURCE_DIR}/sources.gypi _ZEL_SOURCES_GYPI)
function(zel_module_sources variable group)
  string(JSON _list GET "${_ZEL_SOURCES_GYPI}" variables zelbridge_${group}_sources)
  string(JSON _count LENGTH "${_list}")
  set(_sources "")
  math(EXPR _last "${_count} - 1")
  foreach(_i RANGE ${_last})
    string(JSON _source GET "${_list}" ${_i})
    list(APPEND _sources ${PROJECT_SOURCE_DIR}/${_source})
  endforeach()
  set(${variable} ${_sources} PARENT_SCOPE)
endfunction()
