# Run by cpack once the files to package are staged (CPACK_PRE_BUILD_SCRIPTS): the latest entry of
# packaging/changelog must be the packages' version, so that a new version is not packaged
# without an entry of its own. Building and testing do not depend on it.
file(STRINGS "${CPACK_VX_CHANGELOG}" vx_top LIMIT_COUNT 1)
set(vx_version "${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")
if(NOT vx_top MATCHES "^[a-z0-9][a-z0-9.+-]* \\(([^)]+)\\) ")
    message(FATAL_ERROR "${CPACK_VX_CHANGELOG}: the first line does not start a Debian changelog "
        "entry: ${vx_top}")
elseif(NOT CMAKE_MATCH_1 STREQUAL vx_version)
    message(FATAL_ERROR "${CPACK_VX_CHANGELOG}: the latest entry is ${CMAKE_MATCH_1}, the packages "
        "are ${vx_version}: add an entry for ${vx_version}")
endif()
