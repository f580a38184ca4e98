# What `cpack` makes from a build: on Linux Debian packages, for Windows a zip, another zip of the symbols, and an
# installer.
set(SHMNM_MAINTAINER "shmnm developers <maintainers@shmnm.example.org>" CACHE STRING "The packages' maintainer")

set(CPACK_PACKAGE_NAME shmnm)
set(CPACK_PACKAGE_VENDOR shmnm)
set(CPACK_PACKAGE_CONTACT ${SHMNM_MAINTAINER})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_THREADS 0)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
                                                WORLD_EXECUTE)

set(packaging ${PROJECT_SOURCE_DIR}/packaging/debian)

if(WIN32)
    set(CPACK_GENERATOR ZIP)
    set(CPACK_PACKAGE_FILE_NAME shmnm-${PROJECT_VERSION}-windows-x64)
    # The symbols are in an archive of their own, which is unpacked over the installation.
    set(CPACK_COMPONENTS_ALL runtime development tool web bridge symbols)
    set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
    set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY ON)
    set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
    set(CPACK_COMPONENT_SYMBOLS_GROUP symbols)
    foreach(component RUNTIME DEVELOPMENT TOOL WEB BRIDGE)
        set(CPACK_COMPONENT_${component}_GROUP installation)
    endforeach()
    set(CPACK_ARCHIVE_INSTALLATION_FILE_NAME ${CPACK_PACKAGE_FILE_NAME})
    set(CPACK_ARCHIVE_SYMBOLS_FILE_NAME ${CPACK_PACKAGE_FILE_NAME}-symbols)

    # The installer is made beside the zip, of the same files.
    foreach(tool wixl msibuild msiinfo)
        find_program(SHMNM_${tool} ${tool})
        if(NOT SHMNM_${tool})
            message(FATAL_ERROR "${tool} is not installed: scripts/install-dependencies installs what the project needs")
        endif()
    endforeach()
    set(Python3_ROOT_DIR /usr)
    set(Python3_FIND_STRATEGY LOCATION)
    find_package(Python3 REQUIRED COMPONENTS Interpreter)
    set(CPACK_SHMNM_PYTHON ${Python3_EXECUTABLE})
    set(CPACK_SHMNM_TIME ${SHMNM_SOURCE_DATE})
    set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/windows/add_installer.cmake)
else()
    set(CPACK_SOURCE_DATE_EPOCH ${SHMNM_SOURCE_DATE})
    set(packages libshmnm1 libshmnm-dev shmnmctl shmnmweb shmnmbridge)
    shmnm_install(${SHMNM_MULTIARCH_LIBDIR} ${packages} EXCLUDE_FROM_ALL)
    if(TARGET wheel)
        list(APPEND packages python3-shmnm)
        install(
            DIRECTORY ${SHMNM_WHEEL_FOLDER}/site/
            DESTINATION lib/python3/dist-packages
            COMPONENT python3-shmnm EXCLUDE_FROM_ALL)
    endif()
    shmnm_install_picture(${SHMNM_MULTIARCH_LIBDIR} libshmnmpicture1 libshmnmpicture-dev EXCLUDE_FROM_ALL)
    list(APPEND packages libshmnmpicture1 libshmnmpicture-dev)

    # Every package has its copyright file and its changelog, and a file that lists lintian's remarks that do not apply.
    file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/package)
    execute_process(
        COMMAND gzip -9nc ${packaging}/changelog
        OUTPUT_FILE ${PROJECT_BINARY_DIR}/package/changelog.Debian.gz COMMAND_ERROR_IS_FATAL ANY)
    foreach(package ${packages})
        install(
            FILES ${packaging}/copyright ${PROJECT_BINARY_DIR}/package/changelog.Debian.gz
            DESTINATION share/doc/${package}
            COMPONENT ${package} EXCLUDE_FROM_ALL)
        install(
            FILES ${packaging}/${package}.lintian-overrides
            DESTINATION share/lintian/overrides
            RENAME ${package}
            COMPONENT ${package} EXCLUDE_FROM_ALL)
        # Debian compresses manual pages, and links between them lead to compressed pages.
        install(
            CODE "file(GLOB_RECURSE pages \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_MANDIR}/*.[1-8]\")
foreach(page IN LISTS pages)
    if(IS_SYMLINK \${page})
        file(READ_SYMLINK \${page} target)
        file(REMOVE \${page})
        file(CREATE_LINK \${target}.gz \${page}.gz SYMBOLIC)
        list(REMOVE_ITEM pages \${page})
    endif()
endforeach()
if(pages)
    execute_process(COMMAND gzip -9nf \${pages} COMMAND_ERROR_IS_FATAL ANY)
endif()"
            COMPONENT ${package} EXCLUDE_FROM_ALL)
    endforeach()

    install(
        FILES ${packaging}/shmnm.tmpfiles
        DESTINATION lib/tmpfiles.d
        RENAME shmnm.conf
        COMPONENT libshmnm1 EXCLUDE_FROM_ALL)

    # The service: its units, its user, the folders that it needs, and the configuration.
    set(service ${PROJECT_SOURCE_DIR}/examples)
    install(
        FILES ${service}/shmnm.service ${service}/shmnm-keeper.service
        DESTINATION lib/systemd/system
        COMPONENT shmnmctl EXCLUDE_FROM_ALL)
    foreach(kind sysusers tmpfiles)
        install(
            FILES ${packaging}/shmnmctl/${kind}
            DESTINATION lib/${kind}.d
            RENAME shmnmctl.conf
            COMPONENT shmnmctl EXCLUDE_FROM_ALL)
    endforeach()
    # A separate package, so that installing the tool opens no socket.
    install(
        FILES ${service}/shmnmweb.service ${service}/shmnmweb.socket
        DESTINATION lib/systemd/system
        COMPONENT shmnmweb EXCLUDE_FROM_ALL)
    # A separate package, so that only machines that use it have it.
    install(
        FILES ${service}/shmnmbridge.service
        DESTINATION lib/systemd/system
        COMPONENT shmnmbridge EXCLUDE_FROM_ALL)
    install(
        FILES ${packaging}/shmnmweb/sysusers
        DESTINATION lib/sysusers.d
        RENAME shmnmweb.conf
        COMPONENT shmnmweb EXCLUDE_FROM_ALL)
    install(
        FILES ${service}/cluster.xml ${PROJECT_SOURCE_DIR}/packaging/environment
        DESTINATION /etc/shmnm
        COMPONENT shmnmctl EXCLUDE_FROM_ALL)
    # The tool looks for it here (tools/picture/installation.h).
    install(
        CODE "set(folder \$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/share/shmnm)
file(MAKE_DIRECTORY \${folder})
file(CREATE_LINK /etc/shmnm/environment \${folder}/environment SYMBOLIC)"
        COMPONENT shmnmctl EXCLUDE_FROM_ALL)

    # Builds what the packages contain, and no more.
    add_custom_target(packaged)
    foreach(target kzmshmnm ${SHMNM_COMPANIONS} shmnmpicture shmnmctl shmnm-keeper shmnmweb shmnmbridge manual_of_shmnmctl documentation wheel)
        if(TARGET ${target})
            add_dependencies(packaged ${target})
        endif()
    endforeach()

    set(CPACK_GENERATOR DEB)
    set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
    set(CPACK_COMPONENTS_ALL ${packages})
    set(CPACK_COMPONENTS_GROUPING IGNORE)
    set(CPACK_DEB_COMPONENT_INSTALL ON)
    # Strips the programs and libraries of each package; their symbols are in a package of their own.
    set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
    set(CPACK_POST_BUILD_SCRIPTS ${packaging}/finish_packages.cmake)
    set(CPACK_DEBIAN_COMPRESSION_TYPE none) # that script packs them again
    set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
    set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
    set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
    set(CPACK_DEBIAN_PACKAGE_SOURCE shmnm)
    set(same_version "libshmnm1 (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")

    set(what "One named region of shared memory holds the picture of a failover cluster for\n\
all processes of a machine: servers, heartbeat and network-partition resources,\nand the state of each resource on each server.")
    set(CPACK_DEBIAN_LIBSHMNM1_PACKAGE_NAME libshmnm1)
    set(CPACK_DEBIAN_LIBSHMNM1_PACKAGE_SECTION libs)
    set(CPACK_DEBIAN_LIBSHMNM1_PACKAGE_CONTROL_EXTRA ${packaging}/postinst ${packaging}/symbols ${packaging}/shlibs
        ${packaging}/triggers)
    set(CPACK_COMPONENT_LIBSHMNM1_DESCRIPTION
        "live picture of a failover cluster in shared memory\n${what}\n.\nThis package contains the library and its companions.")
    set(CPACK_DEBIAN_LIBSHMNM-DEV_PACKAGE_NAME libshmnm-dev)
    set(CPACK_DEBIAN_LIBSHMNM-DEV_PACKAGE_SECTION libdevel)
    set(CPACK_DEBIAN_LIBSHMNM-DEV_PACKAGE_DEPENDS "${same_version}")
    set(CPACK_DEBIAN_LIBSHMNM-DEV_PACKAGE_RECOMMENDS shmnmctl)
    set(CPACK_DEBIAN_LIBSHMNM-DEV_PACKAGE_SUGGESTS pkg-config)
    set(CPACK_COMPONENT_LIBSHMNM-DEV_DESCRIPTION
        "live picture of a failover cluster in shared memory (development)\n${what}\n.\n\
This package contains what is needed to build programs with the library:\nheaders, files for pkg-config and CMake, manual pages. The tutorial is in\nshmnmctl.")
    set(CPACK_DEBIAN_SHMNMCTL_PACKAGE_NAME shmnmctl)
    set(CPACK_DEBIAN_SHMNMCTL_PACKAGE_SECTION admin)
    set(CPACK_DEBIAN_SHMNMCTL_PACKAGE_DEPENDS "${same_version}, systemd | systemd-standalone-sysusers, systemd | systemd-standalone-tmpfiles")
    foreach(file conffiles postinst postrm prerm)
        list(APPEND CPACK_DEBIAN_SHMNMCTL_PACKAGE_CONTROL_EXTRA ${packaging}/shmnmctl/${file})
    endforeach()
    set(CPACK_COMPONENT_SHMNMCTL_DESCRIPTION
        "live picture of a failover cluster in shared memory (command)\n${what}\n.\n\
This package contains the command shmnmctl, which shows, changes, checks and\nserves the picture, the service that creates and keeps it, and the documents.")
    set(CPACK_DEBIAN_SHMNMWEB_PACKAGE_NAME shmnmweb)
    set(CPACK_DEBIAN_SHMNMWEB_PACKAGE_SECTION admin)
    # shmnmctl has the user, the environment and the documents.
    set(CPACK_DEBIAN_SHMNMWEB_PACKAGE_DEPENDS
        "${same_version}, shmnmctl (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}), systemd | systemd-standalone-sysusers")
    foreach(file postinst postrm prerm)
        list(APPEND CPACK_DEBIAN_SHMNMWEB_PACKAGE_CONTROL_EXTRA ${packaging}/shmnmweb/${file})
    endforeach()
    set(CPACK_COMPONENT_SHMNMWEB_DESCRIPTION
        "live picture of a failover cluster in shared memory (over HTTP)\n${what}\n.\n\
This package contains shmnmweb, which shows the picture to browsers, to\nPrometheus and to health checks, and can change nothing.")
    set(CPACK_DEBIAN_SHMNMBRIDGE_PACKAGE_NAME shmnmbridge)
    set(CPACK_DEBIAN_SHMNMBRIDGE_PACKAGE_SECTION admin)
    # shmnmctl has the user, the environment and the documents.
    set(CPACK_DEBIAN_SHMNMBRIDGE_PACKAGE_DEPENDS "${same_version}, shmnmctl (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
    set(CPACK_DEBIAN_SHMNMBRIDGE_PACKAGE_RECOMMENDS "ca-certificates")
    set(CPACK_DEBIAN_SHMNMBRIDGE_PACKAGE_SUGGESTS "etcd-server")
    foreach(file postinst postrm prerm)
        list(APPEND CPACK_DEBIAN_SHMNMBRIDGE_PACKAGE_CONTROL_EXTRA ${packaging}/shmnmbridge/${file})
    endforeach()
    set(CPACK_COMPONENT_SHMNMBRIDGE_DESCRIPTION
        "live picture of a failover cluster in shared memory (bridge)\n${what}\n.\n\
This package contains shmnmbridge, which lets the pictures of the cluster's\nmachines converge through etcd, and says which states are fresh.")
    set(CPACK_DEBIAN_PYTHON3-SHMNM_PACKAGE_NAME python3-shmnm)
    set(CPACK_DEBIAN_PYTHON3-SHMNM_PACKAGE_SECTION python)
    set(CPACK_DEBIAN_PYTHON3-SHMNM_PACKAGE_ARCHITECTURE all)
    set(CPACK_DEBIAN_PYTHON3-SHMNM_PACKAGE_SHLIBDEPS OFF)
    set(CPACK_DEBIAN_PYTHON3-SHMNM_PACKAGE_DEPENDS
        "python3 (>= 3.9), libshmnm1 (>= ${PROJECT_VERSION}), libshmnmpicture1 (>= ${PROJECT_VERSION})")
    foreach(file postinst prerm)
        list(APPEND CPACK_DEBIAN_PYTHON3-SHMNM_PACKAGE_CONTROL_EXTRA ${packaging}/python3-shmnm/${file})
    endforeach()
    set(CPACK_COMPONENT_PYTHON3-SHMNM_DESCRIPTION
        "live picture of a failover cluster in shared memory (Python)\n${what}\n.\n\
This package contains the Python package shmnm, which reads and changes the\npicture through the library.")
    set(CPACK_DEBIAN_LIBSHMNMPICTURE1_PACKAGE_NAME libshmnmpicture1)
    set(CPACK_DEBIAN_LIBSHMNMPICTURE1_PACKAGE_SECTION libs)
    set(CPACK_DEBIAN_LIBSHMNMPICTURE1_PACKAGE_DEPENDS "${same_version}")
    set(CPACK_DEBIAN_LIBSHMNMPICTURE1_PACKAGE_CONTROL_EXTRA
        ${packaging}/libshmnmpicture1/symbols ${packaging}/libshmnmpicture1/shlibs ${packaging}/triggers)
    set(CPACK_COMPONENT_LIBSHMNMPICTURE1_DESCRIPTION
        "live picture of a failover cluster in shared memory (reader)\n${what}\n.\n\
This package contains the library that reads the picture as shmnmctl does,\nfor language bindings and other tools.")
    set(CPACK_DEBIAN_LIBSHMNMPICTURE-DEV_PACKAGE_NAME libshmnmpicture-dev)
    set(CPACK_DEBIAN_LIBSHMNMPICTURE-DEV_PACKAGE_SECTION libdevel)
    set(CPACK_DEBIAN_LIBSHMNMPICTURE-DEV_PACKAGE_DEPENDS "libshmnmpicture1 (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
    set(CPACK_DEBIAN_LIBSHMNMPICTURE-DEV_PACKAGE_SUGGESTS "pkg-config, shmnmctl")
    set(CPACK_COMPONENT_LIBSHMNMPICTURE-DEV_DESCRIPTION
        "live picture of a failover cluster in shared memory (reader, development)\n${what}\n.\n\
This package contains what is needed to build programs that read the picture:\nthe header shmnmpicture.h, files for pkg-config and CMake.")
endif()

include(CPack)
