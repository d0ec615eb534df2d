# What `cmake --install` puts where, each file in the component of the Debian package that it belongs to.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(CMSVERIFY_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/cmsverify")

# install_library TARGET KIND: a file of targets for each kind, which defines cmsverify::KIND.
function(install_library TARGET KIND)
    install(TARGETS ${TARGET} EXPORT cmsverify-${KIND}
        LIBRARY COMPONENT runtime NAMELINK_COMPONENT development
        ARCHIVE COMPONENT development
        INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
    install(EXPORT cmsverify-${KIND} FILE cmsverify-${KIND}-targets.cmake NAMESPACE cmsverify::
        DESTINATION "${CMSVERIFY_CMAKE_DIR}" COMPONENT development)
endfunction()

if(BUILD_SHARED_LIBS)
    install_library(cmsverify shared)
    install_library(cmsverify_static static)
else()
    install_library(cmsverify static)
endif()
install(FILES cmsverify/include/pelnic_cms_verify.h TYPE INCLUDE COMPONENT development)
if(CMSVERIFY_WITNESS)
    install(FILES cmsverify/include/pelnic_cms_witness.h TYPE INCLUDE COMPONENT development)
endif()

configure_package_config_file(cmake/cmsverify-config.cmake.in cmsverify-config.cmake
    INSTALL_DESTINATION "${CMSVERIFY_CMAKE_DIR}" NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(cmsverify-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/cmsverify-config.cmake" "${PROJECT_BINARY_DIR}/cmsverify-config-version.cmake"
    DESTINATION "${CMSVERIFY_CMAKE_DIR}" COMPONENT development)

# Whoever links with the shared library needs nothing more. Without one there is no way to link but statically.
set(PC_REQUIRES)
set(PC_CRYPTO "libcrypto >= 3.0, ")
set(PC_LIBS)
if(CMSVERIFY_CRYPTO STREQUAL mbedtls) # 2.28 has no pkg-config file
    set(PC_CRYPTO)
    set(PC_LIBS " -lmbedcrypto")
endif()
if(CMSVERIFY_DEFAULT_CALLBACKS AND BUILD_SHARED_LIBS)
    set(PC_REQUIRES "Requires.private: ${PC_CRYPTO}libsafec")
    set(PC_LIBS)
elseif(CMSVERIFY_DEFAULT_CALLBACKS)
    set(PC_REQUIRES "Requires: ${PC_CRYPTO}libsafec")
else()
    set(PC_LIBS)
endif()
string(REGEX REPLACE "[^/]+" ".." PC_PREFIX "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
configure_file(cmake/cmsverify.pc.in cmsverify.pc @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/cmsverify.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
    COMPONENT development)

foreach(PROGRAM IN ITEMS pkgcheck pkgtool)
    if(TARGET ${PROGRAM})
        install(TARGETS ${PROGRAM} COMPONENT ${PROGRAM})
        install(FILES packaging/man/${PROGRAM}.1 DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT ${PROGRAM})
        install(FILES packaging/completions/${PROGRAM} DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions"
            COMPONENT ${PROGRAM})
    endif()
endforeach()
if(TARGET pkgcheck)
    install(FILES packaging/man/pkgcheck-package.5 DESTINATION "${CMAKE_INSTALL_MANDIR}/man5" COMPONENT pkgcheck)
endif()
if(TARGET pkgtool)
    install(FILES packaging/completions/_pkgtool DESTINATION "${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions"
        COMPONENT pkgtool)
    install(FILES packaging/pkgtool.schema.json DESTINATION "${CMAKE_INSTALL_DATADIR}/cmsverify" COMPONENT pkgtool)
endif()

# The examples with what they use of the tests.
set(CMSVERIFY_EXAMPLES_DIR "${CMAKE_INSTALL_DATADIR}/doc/cmsverify/examples")
install(DIRECTORY examples/ DESTINATION "${CMSVERIFY_EXAMPLES_DIR}" COMPONENT development)
install(FILES tests/data/rsa_vectors.inc tests/data/sha2_vectors.inc
    DESTINATION "${CMSVERIFY_EXAMPLES_DIR}/conformance" COMPONENT development)
install(FILES packaging/man/cmsverify.3 DESTINATION "${CMAKE_INSTALL_MANDIR}/man3" COMPONENT development)
