# Makes a target `packaged_NAME` for each header-only library from the distribution's packages. A cross build must not search
# the whole system include folder. So links to these libraries are put into a folder of the build, and only that folder is
# searched.
set(SHMNM_PACKAGED_HEADERS ${PROJECT_BINARY_DIR}/packaged-include)
find_path(SHMNM_SYSTEM_HEADERS boost/version.hpp PATHS /usr/include NO_CMAKE_FIND_ROOT_PATH)

function(shmnm_packaged_header name folder)
    if(EXISTS ${SHMNM_SYSTEM_HEADERS}/${folder})
        file(MAKE_DIRECTORY ${SHMNM_PACKAGED_HEADERS})
        file(CREATE_LINK ${SHMNM_SYSTEM_HEADERS}/${folder} ${SHMNM_PACKAGED_HEADERS}/${folder} SYMBOLIC)
        add_library(packaged_${name} INTERFACE)
        target_include_directories(packaged_${name} SYSTEM INTERFACE ${SHMNM_PACKAGED_HEADERS})
        target_compile_definitions(packaged_${name} INTERFACE ${ARGN})
    else()
        message(FATAL_ERROR "${folder} is not installed: scripts/install-dependencies installs what the project needs")
    endif()
endfunction()

shmnm_packaged_header(boost boost)
shmnm_packaged_header(fmt_headers fmt)
shmnm_packaged_header(cli11 CLI)
shmnm_packaged_header(json nlohmann)
