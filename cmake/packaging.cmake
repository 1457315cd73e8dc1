# Debian packages (cpack -G DEB in a build configured with CMAKE_INSTALL_PREFIX=/usr), one per
# install component:
#   libveltrix          the library
#   libveltrix-openssl  the crypto plug-in, in the library's default plug-in search path
#   libveltrix-dev      headers, CMake package and pkg-config file
#   veltrix             the command-line program, its manual page, the tunnel's service unit, an
#                       example configuration (a conffile) and its maintainer scripts
# Each carries /usr/share/doc/PACKAGE/copyright and changelog.Debian.gz. The demonstration
# programs (component Demo) are not packaged.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME veltrix)
set(CPACK_PACKAGE_VENDOR "libveltrix developers")
set(CPACK_PACKAGE_CONTACT "libveltrix developers <veltrix@localhost>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL Runtime Plugin Development Program)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://localhost/veltrix")
# Dependencies on other packages come from the binaries' needs (dpkg-shlibdeps); those between
# our own packages are stated, at exactly this version.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/lib)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(vx_exact "(= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libveltrix)
# Each description's first line is the package's summary.
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "crypto primitives and an encrypted transport for devices\n\
Digests, keyed digests, block ciphers, random numbers, RSA keys and key files, and an\n\
encrypted, authenticated client/server transport over TCP with a pre-shared-key handshake, all\n\
crypto delegated to a plug-in loaded at run time.")
# ldconfig runs when the library is installed or removed.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)

set(CPACK_DEBIAN_PLUGIN_PACKAGE_NAME libveltrix-openssl)
set(CPACK_DEBIAN_PLUGIN_PACKAGE_DEPENDS "libveltrix ${vx_exact}")
set(CPACK_DEBIAN_PLUGIN_DESCRIPTION
    "libveltrix crypto plug-in backed by OpenSSL 3\n\
The plug-in that gives libveltrix its algorithms, installed in the library's default plug-in\n\
search path.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libveltrix-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libveltrix ${vx_exact}")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_RECOMMENDS "libveltrix-openssl ${vx_exact}")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
    "libveltrix development files\n\
Headers, the CMake package (find_package(veltrix)) and the pkg-config file (libveltrix).")

set(CPACK_DEBIAN_PROGRAM_PACKAGE_NAME veltrix)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SECTION net)
# procps: the service unit reloads a tunnel with /bin/kill.
set(CPACK_DEBIAN_PROGRAM_PACKAGE_DEPENDS
    "libveltrix ${vx_exact}, libveltrix-openssl ${vx_exact}, procps")
# /etc/veltrix/example.conf is a conffile: an administrator's changes to it survive upgrades.
# The maintainer scripts reload systemd's units, restart the running tunnels after an upgrade and
# stop them on removal. Each file must bear its name in the control area, hence the copies.
set(vx_program_control)
foreach(vx_control IN ITEMS conffiles postinst prerm postrm)
    configure_file(${PROJECT_SOURCE_DIR}/packaging/veltrix.${vx_control}
        ${CMAKE_BINARY_DIR}/packaging/veltrix/${vx_control} COPYONLY)
    list(APPEND vx_program_control ${CMAKE_BINARY_DIR}/packaging/veltrix/${vx_control})
endforeach()
set(CPACK_DEBIAN_PROGRAM_PACKAGE_CONTROL_EXTRA ${vx_program_control})
set(CPACK_DEBIAN_PROGRAM_DESCRIPTION
    "encrypted tunnels, cat over the channel, key files and digests\n\
The command-line program of libveltrix: wraps an unmodified TCP service in the encrypted\n\
channel (veltrix tunnel, with a systemd unit per configuration), pipes data over it (veltrix\n\
cat), reads captures of its connections with the secret (veltrix decode), generates and uses\n\
RSA key files, prints and checks file digests, measures the library.")

# Each package's copyright (machine-readable) and Debian changelog. These files only belong in the
# packages: a plain `cmake --install` leaves them out (EXCLUDE_FROM_ALL), and cpack, which installs
# each component by name, takes them. cpack refuses to package a version that the changelog's
# latest entry is not.
set(CPACK_VX_CHANGELOG ${PROJECT_SOURCE_DIR}/packaging/changelog)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/changelog-version.cmake)
find_program(VX_GZIP gzip REQUIRED)
add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz
    COMMAND ${VX_GZIP} -9n -c ${CPACK_VX_CHANGELOG}
        > ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz
    DEPENDS ${CPACK_VX_CHANGELOG} VERBATIM)
add_custom_target(veltrix_package_changelog ALL
    DEPENDS ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz)
foreach(vx_component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${vx_component} vx_upper)
    install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright
            ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${vx_upper}_PACKAGE_NAME}
        PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
        COMPONENT ${vx_component} EXCLUDE_FROM_ALL)
endforeach()

# A cross build packages for its target, not for the build machine.
if(CMAKE_CROSSCOMPILING)
    execute_process(COMMAND dpkg-architecture -t ${CMAKE_LIBRARY_ARCHITECTURE} -qDEB_HOST_ARCH
        OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE
        ERROR_QUIET COMMAND_ERROR_IS_FATAL ANY)
endif()
include(CPack)
