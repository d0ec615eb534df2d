# Run by cpack when the files of each component are in place: what Debian wants beside them, compressed.

# compress FILE...: without a name and a time inside, so that the same files make the same package.
function(compress)
    execute_process(COMMAND gzip -9 -n -f ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

foreach(COMPONENT IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${COMPONENT} UPPER)
    set(NAME "${CPACK_DEBIAN_${UPPER}_PACKAGE_NAME}")
    set(ROOT "${CPACK_TEMPORARY_DIRECTORY}/${COMPONENT}/usr")
    set(DOC "${ROOT}/share/doc/${NAME}")
    file(COPY "${CPACK_CMSVERIFY_SOURCE_DIR}/packaging/debian/copyright" DESTINATION "${DOC}")
    configure_file("${CPACK_CMSVERIFY_SOURCE_DIR}/packaging/debian/changelog" "${DOC}/changelog.Debian" COPYONLY)
    configure_file("${CPACK_CMSVERIFY_SOURCE_DIR}/CHANGELOG.md" "${DOC}/changelog" COPYONLY)
    # Nobody has asked for the package in Debian, so no report of a bug is closed.
    file(WRITE "${ROOT}/share/lintian/overrides/${NAME}" "${NAME}: initial-upload-closes-no-bugs\n")
    file(GLOB PAGES "${ROOT}/share/man/man?/*.?")
    compress("${DOC}/changelog.Debian" "${DOC}/changelog" ${PAGES})
endforeach()
