# Installs the build tree into a fresh staging directory, laid out exactly as
# `cmake --install build --prefix /usr` would lay it out on a host.
file(REMOVE_RECURSE ${STAGE_DIR})
execute_process(
  COMMAND ${CMAKE_COMMAND} -E env DESTDIR=${STAGE_DIR}
          ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix /usr
  RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "installing into ${STAGE_DIR} failed: ${status}")
endif()
