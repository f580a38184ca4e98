# What is installed and where. `cmake --install` makes one relocatable tree of components: `runtime` (the libraries),
# `development` (headers, import libraries, find_package and pkg-config files), `tool` (shmnmctl and the documents), `web`
# (shmnmweb), `bridge` (shmnmbridge) and, for Windows, `symbols` (what debuggers need). The Debian packages contain the same files in Debian's folders, as
# components that only cpack installs (packages.cmake).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(SHMNM_COMPANIONS kzmutil kzmxml kzmlog)
if(NOT WIN32)
    list(APPEND SHMNM_COMPANIONS kzmkernel)
endif()
set_target_properties(kzmshmnm PROPERTIES EXPORT_NAME shmnm)

if(NOT WIN32)
    # Debian's folder for libraries of one machine type, whatever this build's prefix is.
    set(SHMNM_MULTIARCH_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE})
endif()
# In the build folder the programs are beside the libraries. Once installed, they find them relative to their own folders, wherever
# the tree is moved.
function(shmnm_run_path program folder)
    if(NOT TARGET ${program} OR WIN32)
        return()
    endif()
    file(RELATIVE_PATH libraries /prefix/${folder} /prefix/${CMAKE_INSTALL_LIBDIR})
    file(RELATIVE_PATH multiarch /prefix/${folder} /prefix/${SHMNM_MULTIARCH_LIBDIR})
    set(run_path "$ORIGIN/${libraries}" "$ORIGIN/${multiarch}")
    list(REMOVE_DUPLICATES run_path)
    set_target_properties(${program} PROPERTIES BUILD_WITH_INSTALL_RPATH OFF BUILD_RPATH_USE_ORIGIN ON
                                                BUILD_RPATH "${CMAKE_INSTALL_RPATH}" INSTALL_RPATH "${run_path}")
endfunction()
shmnm_run_path(shmnmctl ${CMAKE_INSTALL_BINDIR})
shmnm_run_path(shmnmweb ${CMAKE_INSTALL_BINDIR})
shmnm_run_path(shmnmbridge ${CMAKE_INSTALL_BINDIR})
shmnm_run_path(shmnm-keeper ${CMAKE_INSTALL_LIBEXECDIR})

if(TARGET shmnmctl AND NOT WIN32 AND NOT SHMNM_SANITIZE)
    set(Python3_ROOT_DIR /usr)
    set(Python3_FIND_STRATEGY LOCATION)
    find_package(Python3 REQUIRED COMPONENTS Interpreter)
    set(manual ${PROJECT_BINARY_DIR}/man/man1/shmnmctl.1)
    file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/man/man1)
    add_custom_command(
        OUTPUT ${manual}
        COMMAND ${CMAKE_COMMAND} -E env SOURCE_DATE_EPOCH=${SHMNM_SOURCE_DATE} ${Python3_EXECUTABLE} -B
                ${PROJECT_SOURCE_DIR}/tools/shmnmctl/make_manual.py $<TARGET_FILE:shmnmctl> ${manual}
        DEPENDS shmnmctl ${PROJECT_SOURCE_DIR}/tools/shmnmctl/make_manual.py)
    add_custom_target(manual_of_shmnmctl ALL DEPENDS ${manual})
endif()

# The list of exported functions is read from the header, the only place that has it.
set(SHMNM_HEADER ${PROJECT_SOURCE_DIR}/src/windows/server/library/shmnm/include/shmnm.h)
if(WIN32)
    # The import library for Microsoft's linker and lld-link. The MinGW linker writes its own, libkzmshmnm.dll.a.
    find_program(SHMNM_LLVM_DLLTOOL NAMES llvm-dlltool llvm-dlltool-14)
    if(NOT SHMNM_LLVM_DLLTOOL)
        message(FATAL_ERROR "llvm-dlltool is not installed: scripts/install-dependencies installs what the project needs")
    endif()
    # shmnm_import_library(NAME HEADER PREFIX MARK): lib/NAME.def and lib/NAME.lib from the functions that the header declares with
    # this mark.
    function(shmnm_import_library name header prefix mark)
        set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${header})
        file(STRINGS ${header} functions REGEX "^${mark} [^(]*${prefix}[a-z_]+\\(")
        list(TRANSFORM functions REPLACE "^${mark} [^(]*[ *](${prefix}[a-z_]+)\\(.*" "    \\1")
        list(SORT functions)
        list(JOIN functions "\n" functions)
        file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/lib/${name}.def CONTENT "LIBRARY ${name}.dll\nEXPORTS\n@functions@\n" @ONLY)
        add_custom_command(
            OUTPUT ${PROJECT_BINARY_DIR}/lib/${name}.lib
            COMMAND ${SHMNM_LLVM_DLLTOOL} --machine i386:x86-64 --input-def lib/${name}.def --output-lib lib/${name}.lib
            DEPENDS ${PROJECT_BINARY_DIR}/lib/${name}.def
            WORKING_DIRECTORY ${PROJECT_BINARY_DIR})
        add_custom_target(msvc_import_library_of_${name} ALL DEPENDS ${PROJECT_BINARY_DIR}/lib/${name}.lib)
    endfunction()
    shmnm_import_library(kzmshmnm ${SHMNM_HEADER} shmnm_ SHMNM_API)

    # shmnm_separate_symbols(TARGET COMPONENT [EXCLUDE_FROM_ALL]): strips the installed file. Its symbols, which only debuggers need,
    # are in a file beside it, in the component `symbols`. Without --preserve-dates objcopy writes the time into both.
    function(shmnm_separate_symbols target component)
        get_target_property(type ${target} TYPE)
        if(type STREQUAL EXECUTABLE)
            set(symbols ${PROJECT_BINARY_DIR}/symbols/${target}.exe.debug)
        else()
            set(symbols ${PROJECT_BINARY_DIR}/symbols/${target}.dll.debug)
        endif()
        add_custom_command(
            OUTPUT ${symbols}
            COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/symbols
            COMMAND ${CMAKE_OBJCOPY} --preserve-dates --only-keep-debug $<TARGET_FILE:${target}> ${symbols}
            DEPENDS ${target})
        add_custom_target(symbols_of_${target} ALL DEPENDS ${symbols})
        install(
            CODE "execute_process(COMMAND ${CMAKE_OBJCOPY} --preserve-dates --strip-debug --strip-unneeded --add-gnu-debuglink=${symbols}
    \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/$<TARGET_FILE_NAME:${target}>\" COMMAND_ERROR_IS_FATAL ANY)"
            COMPONENT ${component} ${ARGN})
        install(
            FILES ${symbols}
            DESTINATION ${CMAKE_INSTALL_BINDIR}
            COMPONENT symbols ${ARGN})
    endfunction()
endif()

# The way from a folder pkgconfig to the prefix.
function(shmnm_prefix_from_pc out libdir)
    file(RELATIVE_PATH way /prefix/${libdir}/pkgconfig /prefix)
    string(REGEX REPLACE "/$" "" way ${way})
    set(${out} ${way} PARENT_SCOPE)
endfunction()

write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/shmnm-config-version.cmake COMPATIBILITY SameMajorVersion)

# shmnm_install(LIBDIR RUNTIME DEVELOPMENT TOOL WEB BRIDGE [EXCLUDE_FROM_ALL]): the install rules of one layout. RUNTIME,
# DEVELOPMENT, TOOL, WEB and BRIDGE are the names of its components.
function(shmnm_install libdir runtime development tool web bridge)
    install(
        TARGETS kzmshmnm ${SHMNM_COMPANIONS}
        EXPORT ${development}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${runtime} ${ARGN}
        LIBRARY DESTINATION ${libdir} COMPONENT ${runtime} NAMELINK_COMPONENT ${development} ${ARGN}
        ARCHIVE DESTINATION ${libdir} COMPONENT ${development} ${ARGN}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

    # An installation that replaces a companion needs the companion's header and, on Linux, the header of kzmkernel.
    foreach(library shmnm ${SHMNM_COMPANIONS})
        if(library STREQUAL kzmkernel)
            set(header ${PROJECT_SOURCE_DIR}/src/linux/server/library/kzmkernel/include/kzmkernel.h)
        else()
            set(header ${PROJECT_SOURCE_DIR}/src/windows/server/library/${library}/include/${library}.h)
        endif()
        install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT ${development} ${ARGN})
    endforeach()
    install(
        FILES ${PROJECT_SOURCE_DIR}/src/windows/server/library/shmnm/include/shmnm.hpp
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        COMPONENT ${development} ${ARGN})

    set(config_folder ${libdir}/cmake/shmnm)
    configure_package_config_file(
        ${PROJECT_SOURCE_DIR}/cmake/shmnm-config.cmake.in ${PROJECT_BINARY_DIR}/package/${development}/shmnm-config.cmake
        INSTALL_DESTINATION ${config_folder}
        PATH_VARS libdir
        NO_CHECK_REQUIRED_COMPONENTS_MACRO)
    install(
        FILES ${PROJECT_BINARY_DIR}/package/${development}/shmnm-config.cmake
              ${PROJECT_BINARY_DIR}/package/shmnm-config-version.cmake
        DESTINATION ${config_folder}
        COMPONENT ${development} ${ARGN})
    install(
        EXPORT ${development}
        FILE shmnm-targets.cmake
        NAMESPACE shmnm::
        DESTINATION ${config_folder}
        COMPONENT ${development} ${ARGN})

    shmnm_prefix_from_pc(prefix_from_pc ${libdir})
    configure_file(${PROJECT_SOURCE_DIR}/cmake/shmnm.pc.in ${PROJECT_BINARY_DIR}/package/${development}/shmnm.pc @ONLY)
    install(
        FILES ${PROJECT_BINARY_DIR}/package/${development}/shmnm.pc
        DESTINATION ${libdir}/pkgconfig
        COMPONENT ${development} ${ARGN})
    if(TARGET shmnmctl)
        install(TARGETS shmnmctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${tool} ${ARGN})
    endif()
    if(TARGET shmnm-keeper)
        install(TARGETS shmnm-keeper RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR} COMPONENT ${tool} ${ARGN})
    endif()
    if(TARGET shmnmweb)
        install(TARGETS shmnmweb RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${web} ${ARGN})
    endif()
    if(TARGET shmnmbridge)
        install(TARGETS shmnmbridge RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${bridge} ${ARGN})
    endif()
    file(GLOB documents CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/*.md ${PROJECT_SOURCE_DIR}/docs/*.json)
    install(
        FILES ${documents}
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs
        COMPONENT ${tool} ${ARGN})
    install(
        FILES ${PROJECT_SOURCE_DIR}/CHANGELOG.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR}
        COMPONENT ${tool} ${ARGN})
    install(
        FILES ${PROJECT_SOURCE_DIR}/examples/cluster.xml ${PROJECT_SOURCE_DIR}/examples/tutorial.c
              ${PROJECT_SOURCE_DIR}/examples/alive.c ${PROJECT_SOURCE_DIR}/examples/alive.cpp
              ${PROJECT_SOURCE_DIR}/examples/alive_codes.cpp ${PROJECT_SOURCE_DIR}/examples/hb_table.cpp
              ${PROJECT_SOURCE_DIR}/examples/tutorial.cpp ${PROJECT_SOURCE_DIR}/examples/picture.c
              ${PROJECT_SOURCE_DIR}/examples/shmnm.service ${PROJECT_SOURCE_DIR}/examples/shmnm-keeper.service
              ${PROJECT_SOURCE_DIR}/examples/shmnmweb.service ${PROJECT_SOURCE_DIR}/examples/shmnmweb.socket
              ${PROJECT_SOURCE_DIR}/examples/shmnmbridge.service ${PROJECT_SOURCE_DIR}/examples/bridge.xml
              ${PROJECT_SOURCE_DIR}/examples/states.json
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
        COMPONENT ${tool} ${ARGN})
    install(
        DIRECTORY ${PROJECT_SOURCE_DIR}/examples/prometheus ${PROJECT_SOURCE_DIR}/examples/grafana
                  ${PROJECT_SOURCE_DIR}/examples/haproxy ${PROJECT_SOURCE_DIR}/examples/python
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
        COMPONENT ${tool} ${ARGN})

    if(WIN32)
        install(
            FILES ${PROJECT_BINARY_DIR}/lib/kzmshmnm.def
            DESTINATION ${libdir}
            COMPONENT ${development} ${ARGN})
    else()
        # Manual pages are in the folders man1, man3, ... below these two folders. The build generates the second.
        foreach(pages ${PROJECT_SOURCE_DIR}/docs/man ${PROJECT_BINARY_DIR}/man)
            install(
                DIRECTORY ${pages}/
                DESTINATION ${CMAKE_INSTALL_MANDIR}
                COMPONENT ${development} ${ARGN}
                OPTIONAL
                FILES_MATCHING
                REGEX "/man3/[^/]+\\.3(\\.gz)?$")
            install(
                DIRECTORY ${pages}/
                DESTINATION ${CMAKE_INSTALL_MANDIR}
                COMPONENT ${tool} ${ARGN}
                OPTIONAL
                FILES_MATCHING
                REGEX "/man[15678]/[^/]+\\.[15678](\\.gz)?$"
                PATTERN shmnmweb.8 EXCLUDE
                PATTERN shmnmbridge.8 EXCLUDE)
        endforeach()
        install(
            FILES ${PROJECT_SOURCE_DIR}/docs/man/man8/shmnmweb.8
            DESTINATION ${CMAKE_INSTALL_MANDIR}/man8
            COMPONENT ${web} ${ARGN})
        install(
            FILES ${PROJECT_SOURCE_DIR}/docs/man/man8/shmnmbridge.8
            DESTINATION ${CMAKE_INSTALL_MANDIR}/man8
            COMPONENT ${bridge} ${ARGN})
        install(
            FILES ${PROJECT_SOURCE_DIR}/tools/shmnmctl/completion/shmnmctl.bash
            DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
            RENAME shmnmctl
            COMPONENT ${tool} ${ARGN})
        install(
            FILES ${PROJECT_SOURCE_DIR}/tools/shmnmctl/completion/_shmnmctl
            DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions
            COMPONENT ${tool} ${ARGN})
        install(
            FILES ${PROJECT_SOURCE_DIR}/tools/shmnmctl/completion/shmnmctl.fish
            DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d
            COMPONENT ${tool} ${ARGN})
    endif()
    if(WIN32)
        install(
            FILES ${PROJECT_SOURCE_DIR}/tools/shmnmctl/completion/shmnmctl.ps1
            DESTINATION ${CMAKE_INSTALL_DATADIR}/shmnm
            COMPONENT ${tool} ${ARGN})
        install(
            DIRECTORY ${PROJECT_SOURCE_DIR}/tools/shmnmctl/powershell/Shmnm
            DESTINATION ${CMAKE_INSTALL_DATADIR}/shmnm
            COMPONENT ${tool} ${ARGN})
        install(
            FILES ${PROJECT_BINARY_DIR}/lib/kzmshmnm.lib
            DESTINATION ${libdir}
            COMPONENT ${development} ${ARGN})
        foreach(target kzmshmnm ${SHMNM_COMPANIONS} shmnmctl shmnmweb shmnmbridge)
            if(TARGET ${target})
                set(component ${runtime})
                if(target STREQUAL shmnmctl)
                    set(component ${tool})
                elseif(target STREQUAL shmnmweb)
                    set(component ${web})
                elseif(target STREQUAL shmnmbridge)
                    set(component ${bridge})
                endif()
                shmnm_separate_symbols(${target} ${component} ${ARGN})
            endif()
        endforeach()
    endif()
endfunction()

shmnm_install(${CMAKE_INSTALL_LIBDIR} runtime development tool web bridge)
