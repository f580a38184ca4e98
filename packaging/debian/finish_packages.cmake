# What cpack leaves to do: its scripts that run ldconfig go, because the library's trigger runs it once for all packages, packages
# of symbols refer to the documents of their programs, and every time, mode and order in a package is fixed, so that a second build
# makes the same bytes.
foreach(package ${CPACK_PACKAGE_FILES})
    set(folder ${CPACK_TEMPORARY_DIRECTORY}/repacked)
    file(REMOVE_RECURSE ${folder})
    execute_process(COMMAND dpkg-deb --raw-extract ${package} ${folder} COMMAND_ERROR_IS_FATAL ANY)
    foreach(script postinst postrm)
        if(EXISTS ${folder}/DEBIAN/${script})
            file(READ ${folder}/DEBIAN/${script} text)
            if(text MATCHES ldconfig)
                file(REMOVE ${folder}/DEBIAN/${script})
            endif()
        endif()
    endforeach()
    set(compression 6)
    if(package MATCHES "/([^/_]+)-dbgsym_[^/]*$")
        set(compression 1) # a fifth of the time, and a sixth more bytes
        # cpack gives the files of symbols the modes that the umask leaves.
        execute_process(COMMAND find ${folder}/usr/lib/debug -type f -exec chmod 0644 {} + COMMAND_ERROR_IS_FATAL ANY)
        file(MAKE_DIRECTORY ${folder}/usr/share/doc)
        file(CREATE_LINK ${CMAKE_MATCH_1} ${folder}/usr/share/doc/${CMAKE_MATCH_1}-dbgsym SYMBOLIC)
    endif()
    file(STRINGS ${folder}/DEBIAN/md5sums sums)
    # cpack names the files of symbols by their paths in the build folder.
    list(TRANSFORM sums REPLACE "  /.*/usr/lib/debug/" "  usr/lib/debug/")
    list(SORT sums)
    list(JOIN sums "\n" sums)
    file(WRITE ${folder}/DEBIAN/md5sums "${sums}\n")
    file(CHMOD ${folder}/DEBIAN/md5sums FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    execute_process(COMMAND find ${folder} -type d -exec chmod 0755 {} + COMMAND_ERROR_IS_FATAL ANY)
    execute_process(COMMAND find ${folder} -exec touch --no-dereference --date=@${CPACK_SOURCE_DATE_EPOCH} {} + COMMAND_ERROR_IS_FATAL ANY)
    execute_process(
        COMMAND ${CMAKE_COMMAND} -E env SOURCE_DATE_EPOCH=${CPACK_SOURCE_DATE_EPOCH} dpkg-deb --root-owner-group --threads-max=1 -z${compression} --build
                ${folder} ${package}
        OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
endforeach()
