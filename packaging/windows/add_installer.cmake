# Run by cpack after the zips: makes the installer of the trees that they were made from.
set(installer ${CPACK_PACKAGE_DIRECTORY}/${CPACK_PACKAGE_FILE_NAME}.msi)
execute_process(
    COMMAND ${CMAKE_COMMAND} -E env SOURCE_DATE_EPOCH=${CPACK_SHMNM_TIME} ${CPACK_SHMNM_PYTHON} -B ${CMAKE_CURRENT_LIST_DIR}/make_msi.py
            ${CPACK_TEMPORARY_DIRECTORY} ${CPACK_PACKAGE_VERSION} ${installer} COMMAND_ERROR_IS_FATAL ANY)
message("CPack: - package: ${installer} generated.")
