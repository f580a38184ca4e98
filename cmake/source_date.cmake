# The date of everything that is packaged, in seconds since 1970: that of the changelog's last entry. What a build writes must not
# depend on the day on which it is made.
set(SHMNM_CHANGELOG ${PROJECT_SOURCE_DIR}/packaging/debian/changelog)
execute_process(
    COMMAND dpkg-parsechangelog --file ${SHMNM_CHANGELOG} --show-field Timestamp
    OUTPUT_VARIABLE SHMNM_SOURCE_DATE
    OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${SHMNM_CHANGELOG})
