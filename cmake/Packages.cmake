# The Debian packages that cpack makes of the components of Install.cmake. packaging/make-packages.sh is the way to call
# it, since a package's library directory is not the one of `cmake --install`. There are packages of a build with shared
# library and default callbacks only.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "cmsverify maintainers <cmsverify@example.com>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Signed firmware packages")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(LIBRARY "libcmsverify1 (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")

# debian_package COMPONENT NAME SECTION DEPENDS DESCRIPTION
macro(debian_package COMPONENT NAME SECTION DEPENDS DESCRIPTION)
    string(TOUPPER ${COMPONENT} UPPER)
    list(APPEND CPACK_COMPONENTS_ALL ${COMPONENT})
    set(CPACK_DEBIAN_${UPPER}_PACKAGE_NAME ${NAME})
    set(CPACK_DEBIAN_${UPPER}_PACKAGE_SECTION ${SECTION})
    set(CPACK_DEBIAN_${UPPER}_PACKAGE_DEPENDS "${DEPENDS}")
    set(CPACK_COMPONENT_${UPPER}_DESCRIPTION "${DESCRIPTION}")
endmacro()

# What dpkg-shlibdeps finds out about programs of this machine has to be said of those of another.
if(CMAKE_CROSSCOMPILING)
    set(LIBRARY_LINKS "libc6 (>= 2.34), libsafec3, libssl3")
    set(PKGCHECK_LINKS ", libc6 (>= 2.34), libsafec3")
else()
    set(LIBRARY_LINKS)
    set(PKGCHECK_LINKS)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}")
endif()

set(CPACK_COMPONENTS_ALL)
debian_package(runtime libcmsverify1 libs "${LIBRARY_LINKS}" "Verifies detached CMS signatures with timestamps")
debian_package(development libcmsverify-dev libdevel "${LIBRARY}, libssl-dev, libsafec-dev"
    "Verifies detached CMS signatures with timestamps (development)")
debian_package(pkgcheck pkgcheck utils "${LIBRARY}${PKGCHECK_LINKS}" "Checks signed firmware packages")
if(PKGTOOL)
    debian_package(pkgtool pkgtool utils "${LIBRARY}" "Makes and examines signed firmware packages")
endif()
set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_MULTIARCH same)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_MULTIARCH same)

include(CPack)
