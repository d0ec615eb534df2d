# The checker's root certificate: checked and turned into a translation unit of its own when CMake configures.

set(PKGCHECK_PLACEHOLDER_ROOT "${cmsverify_SOURCE_DIR}/tool/placeholder_root.der" CACHE INTERNAL "")

# add_pkgcheck(NAME ROOT [CORE]): adds a checker named NAME that trusts the certificate in the file ROOT (DER or PEM).
# CORE says which rules it has, the strict ones (pkgcheck_strict_core) or not (pkgcheck_core); PKGCHECK_STRICT otherwise.
function(add_pkgcheck NAME ROOT)
    set(CORE ${ARGN})
    if(NOT CORE)
        set(CORE pkgcheck_default_core)
    endif()
    pkgcheck_root_source(SOURCE "${CMAKE_CURRENT_BINARY_DIR}/${NAME}_root" "${ROOT}")
    add_executable(${NAME} "${cmsverify_SOURCE_DIR}/tool/main.cpp" "${SOURCE}")
    cmsverify_compiler_options(${NAME})
    target_link_libraries(${NAME} PRIVATE ${CORE})
endfunction()

# Writes STEM.cpp, which defines szCert_F as the certificate in ROOT, and puts its path into OUT.
function(pkgcheck_root_source OUT STEM ROOT)
    if(NOT EXISTS "${ROOT}" OR IS_DIRECTORY "${ROOT}")
        message(FATAL_ERROR "Root certificate '${ROOT}': no such file.")
    endif()
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${ROOT}")

    # The placeholder was checked when it was made, so that a default build does without the openssl command.
    if(ROOT STREQUAL PKGCHECK_PLACEHOLDER_ROOT)
        set(DER "${ROOT}")
    else()
        set(DER "${STEM}.der")
        pkgcheck_convert_root("${ROOT}" "${DER}" "${STEM}.pem")
    endif()

    file(READ "${DER}" BYTES HEX)
    string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1, " BYTES "${BYTES}")
    string(REGEX REPLACE "((0x.., ){16})" "\\1\n    " BYTES "${BYTES}")
    string(REGEX REPLACE " +(\n|$)" "\\1" BYTES "${BYTES}")
    file(CONFIGURE OUTPUT "${STEM}.cpp" @ONLY CONTENT [[
#include "root_cert.h"

const PNV_BYTE szCert_F[] = {
    @BYTES@
};
const PNV_UINT32 szCert_F_size = sizeof szCert_F;
]])
    set(${OUT} "${STEM}.cpp" PARENT_SCOPE)
endfunction()

# Converts the certificate in ROOT to the files DER and PEM, and stops unless the library can use it as an anchor.
function(pkgcheck_convert_root ROOT DER PEM)
    find_program(PKGCHECK_OPENSSL openssl REQUIRED DOC "The openssl command, which reads the root certificate")

    # An empty password keeps a PKCS #12 file from asking for one.
    foreach(FORM IN ITEMS DER PEM)
        execute_process(
            COMMAND "${PKGCHECK_OPENSSL}" x509 -in "${ROOT}" -passin pass: -outform ${FORM} -out "${${FORM}}"
            RESULT_VARIABLE FAILED OUTPUT_QUIET ERROR_QUIET)
        if(FAILED)
            message(FATAL_ERROR "Root certificate '${ROOT}': not a certificate in DER or PEM.")
        endif()
    endforeach()

    execute_process(
        COMMAND "${PKGCHECK_OPENSSL}" x509 -in "${PEM}" -noout -ext basicConstraints,keyUsage
        OUTPUT_VARIABLE EXTENSIONS ERROR_QUIET)
    if(NOT EXTENSIONS MATCHES "CA:TRUE")
        message(FATAL_ERROR "Root certificate '${ROOT}': not a CA (basic constraints).")
    elseif(NOT EXTENSIONS MATCHES "Certificate Sign")
        message(FATAL_ERROR "Root certificate '${ROOT}': key usage without keyCertSign.")
    elseif(NOT EXTENSIONS MATCHES "CRL Sign")
        message(FATAL_ERROR "Root certificate '${ROOT}': key usage without cRLSign.")
    endif()

    # With itself as the only anchor it verifies only if its own key signed it. This comes last, since openssl asks
    # of a self-signed certificate that it may sign certificates.
    execute_process(
        COMMAND "${PKGCHECK_OPENSSL}" verify -no-CApath -no-CAstore -CAfile "${PEM}"
                -check_ss_sig -no_check_time -ignore_critical "${PEM}"
        RESULT_VARIABLE FAILED OUTPUT_QUIET ERROR_QUIET)
    if(FAILED)
        message(FATAL_ERROR "Root certificate '${ROOT}': not self-signed.")
    endif()
endfunction()
