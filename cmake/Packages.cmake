# The Debian packages that cpack makes of the components of Install.cmake. packaging/make-packages.sh is the way to call
# it, since a package's library directory is not the one of `cmake --install`. There are packages of a build with shared
# library and default callbacks only.

set(CMSVERIFY_MAINTAINER "cmsverify maintainers <cmsverify@example.com>" CACHE STRING
    "Who answers for the Debian packages")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "${CMSVERIFY_MAINTAINER}")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(LIBRARY "libcmsverify1 (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")

# debian_package COMPONENT NAME SECTION DEPENDS SYNOPSIS TEXT
macro(debian_package COMPONENT NAME SECTION DEPENDS SYNOPSIS TEXT)
    string(TOUPPER ${COMPONENT} UPPER)
    list(APPEND CPACK_COMPONENTS_ALL ${COMPONENT})
    set(CPACK_DEBIAN_${UPPER}_PACKAGE_NAME ${NAME})
    set(CPACK_DEBIAN_${UPPER}_PACKAGE_SECTION ${SECTION})
    set(CPACK_DEBIAN_${UPPER}_PACKAGE_DEPENDS "${DEPENDS}")
    set(CPACK_DEBIAN_${UPPER}_DESCRIPTION "${SYNOPSIS}\n${TEXT}")
endmacro()

# What dpkg-shlibdeps finds out about programs of this machine has to be said of those of another.
if(CMAKE_CROSSCOMPILING)
    set(PKGCHECK_LINKS ", libc6 (>= 2.34), libsafec3")
else()
    set(PKGCHECK_LINKS)
    set(CPACK_DEBIAN_PKGCHECK_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_PKGTOOL_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}")
endif()

# Lines of at most 80 columns, as they come out.
if(PKGCHECK_ROOT_CERT)
    set(PKGCHECK_TRUSTS "This build trusts the root certificate that its maker compiled in.")
else()
    string(JOIN "\n" PKGCHECK_TRUSTS
        "This build trusts a placeholder root certificate, whose private key nobody has,"
        "so that it accepts no signed package: build it with PKGCHECK_ROOT_CERT for a"
        "root of your own.")
endif()
string(JOIN "\n" LIBRARY_TEXT
    "cmsverify verifies detached CMS signatures over firmware, with the timestamp of"
    "each signer, chains of certificates and revocation lists. It decodes everything"
    "itself and reaches memory, files and cryptography through callbacks alone; the"
    "default ones are on libc and a crypto library.")
string(JOIN "\n" DEVELOPMENT_TEXT
    "${LIBRARY_TEXT}"
    "."
    "This package has the header, the static library, a manual page and examples.")
string(JOIN "\n" PKGCHECK_TEXT
    "pkgcheck judges a firmware package: its signature, the timestamp, the chains of"
    "certificates and the revocation lists that it carries. The exit status is the"
    "verdict."
    "."
    "${PKGCHECK_TRUSTS}")
string(JOIN "\n" PKGTOOL_TEXT
    "pkgtool signs, stamps and packs firmware for pkgcheck, makes a PKI for a start,"
    "shows what is in a package, says why one is refused, and finds what should not"
    "be shipped although it is accepted.")

if(CMSVERIFY_CRYPTO STREQUAL mbedtls)
    set(CRYPTO_PACKAGE "libmbedcrypto7 (>= 2.28.0)")
    set(CRYPTO_DEVELOPMENT libmbedtls-dev)
else()
    set(CRYPTO_PACKAGE "libssl3 (>= 3.0.0)")
    set(CRYPTO_DEVELOPMENT libssl-dev)
endif()

set(CPACK_COMPONENTS_ALL)
debian_package(runtime libcmsverify1 libs "libc6 (>= 2.28), libsafec3 (>= 3.7.1), ${CRYPTO_PACKAGE}"
    "verification of detached CMS signatures with timestamps" "${LIBRARY_TEXT}")
debian_package(development libcmsverify-dev libdevel "${LIBRARY}, ${CRYPTO_DEVELOPMENT}, libsafec-dev"
    "verification of detached CMS signatures (development files)" "${DEVELOPMENT_TEXT}")
debian_package(pkgcheck pkgcheck utils "${LIBRARY}${PKGCHECK_LINKS}"
    "checker of signed firmware packages" "${PKGCHECK_TEXT}")
if(CMSVERIFY_BUILD_PKGTOOL)
    debian_package(pkgtool pkgtool utils "" "maker and examiner of signed firmware packages" "${PKGTOOL_TEXT}")
endif()
set(CPACK_DEBIAN_RUNTIME_PACKAGE_MULTIARCH same)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_MULTIARCH same)

# By hand, because cpack would call ldconfig in scripts of the package, where Debian has a trigger.
file(WRITE "${PROJECT_BINARY_DIR}/debian/shlibs"
    "libcmsverify ${PROJECT_VERSION_MAJOR} libcmsverify1 (>= ${PROJECT_VERSION})\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    "${PROJECT_BINARY_DIR}/debian/shlibs;${PROJECT_SOURCE_DIR}/packaging/debian/triggers")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_PRE_BUILD_SCRIPTS "${PROJECT_SOURCE_DIR}/packaging/finish-packages.cmake")
set(CPACK_CMSVERIFY_SOURCE_DIR "${PROJECT_SOURCE_DIR}")
set(CPACK_VERBATIM_VARIABLES ON)
include(CPack)
