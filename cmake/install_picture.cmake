# The installation of libshmnmpicture, in the same folders and components as the library (install.cmake). It has its own files for
# CMake and pkg-config, because on Debian it has its own packages.
if(TARGET shmnmpicture AND WIN32)
    shmnm_import_library(shmnmpicture ${PROJECT_SOURCE_DIR}/tools/picture_library/include/shmnmpicture.h shmnmpicture_ SHMNMPICTURE_API)
endif()

# shmnm_install_picture(LIBDIR RUNTIME DEVELOPMENT [EXCLUDE_FROM_ALL]): the install rules of one layout. RUNTIME and DEVELOPMENT are
# the names of its components.
function(shmnm_install_picture libdir runtime development)
    if(NOT TARGET shmnmpicture)
        return()
    endif()
    install(
        TARGETS shmnmpicture
        EXPORT picture-${development}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${runtime} ${ARGN}
        LIBRARY DESTINATION ${libdir} COMPONENT ${runtime} NAMELINK_COMPONENT ${development} ${ARGN}
        ARCHIVE DESTINATION ${libdir} COMPONENT ${development} ${ARGN}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
    install(
        FILES ${PROJECT_SOURCE_DIR}/tools/picture_library/include/shmnmpicture.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        COMPONENT ${development} ${ARGN})
    if(WIN32)
        install(
            FILES ${PROJECT_BINARY_DIR}/lib/shmnmpicture.def ${PROJECT_BINARY_DIR}/lib/shmnmpicture.lib
            DESTINATION ${libdir}
            COMPONENT ${development} ${ARGN})
        shmnm_separate_symbols(shmnmpicture ${runtime} ${ARGN})
    endif()

    set(config_folder ${libdir}/cmake/shmnmpicture)
    set(made ${PROJECT_BINARY_DIR}/package/${development}/picture)
    configure_package_config_file(
        ${PROJECT_SOURCE_DIR}/cmake/shmnmpicture-config.cmake.in ${made}/shmnmpicture-config.cmake
        INSTALL_DESTINATION ${config_folder}
        PATH_VARS libdir
        NO_CHECK_REQUIRED_COMPONENTS_MACRO)
    configure_file(${PROJECT_BINARY_DIR}/package/shmnm-config-version.cmake ${made}/shmnmpicture-config-version.cmake COPYONLY)
    install(
        FILES ${made}/shmnmpicture-config.cmake ${made}/shmnmpicture-config-version.cmake
        DESTINATION ${config_folder}
        COMPONENT ${development} ${ARGN})
    install(
        EXPORT picture-${development}
        FILE shmnmpicture-targets.cmake
        NAMESPACE shmnm::
        DESTINATION ${config_folder}
        COMPONENT ${development} ${ARGN})

    shmnm_prefix_from_pc(prefix_from_pc ${libdir})
    configure_file(${PROJECT_SOURCE_DIR}/cmake/shmnmpicture.pc.in ${made}/shmnmpicture.pc @ONLY)
    install(
        FILES ${made}/shmnmpicture.pc
        DESTINATION ${libdir}/pkgconfig
        COMPONENT ${development} ${ARGN})
endfunction()

shmnm_install_picture(${CMAKE_INSTALL_LIBDIR} runtime development)
