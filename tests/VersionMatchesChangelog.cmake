# The tree's version is read by CMake from the first line of
# debian/changelog; Debian's own parser must read the same version there,
# or the packages and the programs would disagree about what they are.
#   cmake -DSOURCE_DIR=... -DPROJECT_VERSION=... -P VersionMatchesChangelog.cmake
execute_process(
  COMMAND dpkg-parsechangelog -l ${SOURCE_DIR}/debian/changelog -S Version
  OUTPUT_VARIABLE debian_version OUTPUT_STRIP_TRAILING_WHITESPACE
  RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "dpkg-parsechangelog failed on debian/changelog: ${status}")
endif()
# A Debian revision (-N) may follow the upstream version; an epoch may not
# appear, as nothing in the programs could report it.
string(REGEX REPLACE "-[^-]*$" "" upstream_version "${debian_version}")
if(NOT upstream_version STREQUAL PROJECT_VERSION)
  message(FATAL_ERROR "debian/changelog says ${debian_version} (upstream ${upstream_version}), "
                      "the build says ${PROJECT_VERSION}")
endif()
message(STATUS "version ${PROJECT_VERSION}, Debian version ${debian_version}")
