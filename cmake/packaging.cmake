# Debian packages (cpack -G DEB in a build configured with CMAKE_INSTALL_PREFIX=/usr), one per
# install component:
#   libveltrix          the library
#   libveltrix-openssl  the crypto plug-in, in the library's default plug-in search path
#   libveltrix-dev      headers, CMake package and pkg-config file
#   veltrix             the command-line program, its manual page and the tunnel's service unit
# The demonstration programs (component Demo) are not packaged.
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
set(CPACK_DEBIAN_PROGRAM_DESCRIPTION
    "encrypted tunnels, cat over the channel, key files and digests\n\
The command-line program of libveltrix: wraps an unmodified TCP service in the encrypted\n\
channel (veltrix tunnel, with a systemd unit per configuration), pipes data over it (veltrix\n\
cat), generates and uses RSA key files, prints and checks file digests, measures the library.")

# A cross build packages for its target, not for the build machine.
if(CMAKE_CROSSCOMPILING)
    execute_process(COMMAND dpkg-architecture -t ${CMAKE_LIBRARY_ARCHITECTURE} -qDEB_HOST_ARCH
        OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE
        ERROR_QUIET COMMAND_ERROR_IS_FATAL ANY)
endif()
include(CPack)
