# Installs the built SDK into a scratch prefix, then configures, builds and runs the
# example host under examples/host against it with find_package(TessraKite CONFIG).
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix}
  RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "install failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples/host -B ${WORK_DIR}/example
  -G ${GENERATOR} -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=RelWithDebInfo
  -DCMAKE_CXX_COMPILER=${CXX_COMPILER} "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${LINKER_FLAGS}"
  RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "configuring the example against the installed package failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/example RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "building the example failed: ${rc}")
endif()
set(ENV{TESSRA_HOME} ${WORK_DIR}/home)
execute_process(COMMAND ${WORK_DIR}/example/example-host RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
message("${out}${err}")
if(rc)
  message(FATAL_ERROR "the example host failed: ${rc}")
endif()
