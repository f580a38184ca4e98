# How every target of the project is compiled. `shmnm_options` holds the warnings, the sanitizers and the hardening;
# `shmnm_library()` makes one of the shared libraries, which have fixed file names.
if(MSVC)
    message(FATAL_ERROR "the library needs g++ or clang; programs built with Microsoft's compiler link to lib/kzmshmnm.lib")
endif()
add_library(shmnm_options INTERFACE)
target_compile_features(shmnm_options INTERFACE cxx_std_20)
target_compile_definitions(shmnm_options INTERFACE $<$<BOOL:${WIN32}>:WIN32_LEAN_AND_MEAN NOMINMAX _WIN32_WINNT=0x0A00>)

target_compile_options(
    shmnm_options
    INTERFACE -Wall
              -Wextra
              -Wpedantic
              -Wconversion
              -Wsign-conversion
              -Wshadow
              -Wundef
              -Wformat=2
              -Wcast-align
              -Wcast-qual
              $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
              $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
              $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
              -Werror
              -fstack-protector-strong)

if(WIN32)
    enable_language(RC)
endif()
if(WIN32)
    # The C++ run time is linked into each file, so that it needs only the system's own libraries.
    # No time of the build is in a file; its build id, from which debuggers know the file of its symbols, comes from its contents.
    target_link_options(shmnm_options INTERFACE -static -fstack-protector-strong -Wl,--high-entropy-va -Wl,--dynamicbase -Wl,--nxcompat
                                                -Wl,--no-insert-timestamp -Wl,--build-id
                                                $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-Wl,--tsaware>)
    add_library(stack_guard STATIC ${PROJECT_SOURCE_DIR}/src/windows/server/library/run_time/stack_guard.cpp)
    target_compile_options(stack_guard PRIVATE -Wall -Wextra -Werror)
    target_link_libraries(shmnm_options INTERFACE stack_guard)
elseif(UNIX)
    # A unique symbol would keep a library loaded for ever.
    target_compile_options(shmnm_options INTERFACE $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)
    target_link_options(shmnm_options INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
    if(SHMNM_SANITIZE)
        target_compile_options(shmnm_options INTERFACE -fsanitize=${SHMNM_SANITIZE} -fno-sanitize-recover=all
                                                       -fno-omit-frame-pointer)
        target_link_options(shmnm_options INTERFACE -fsanitize=${SHMNM_SANITIZE})
        # The thread sanitizer must start before the C++ run time, so it is linked into the program.
        if(CMAKE_CXX_COMPILER_ID MATCHES Clang AND NOT SHMNM_SANITIZE STREQUAL "thread")
            # Shared libraries leave the sanitizer's own symbols to the program.
            target_link_options(shmnm_options INTERFACE -shared-libsan)
            execute_process(
                COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libclang_rt.asan-x86_64.so
                OUTPUT_VARIABLE sanitizer_runtime
                OUTPUT_STRIP_TRAILING_WHITESPACE)
            get_filename_component(sanitizer_folder ${sanitizer_runtime} DIRECTORY)
            list(APPEND CMAKE_INSTALL_RPATH ${sanitizer_folder})
        endif()
    else()
        target_compile_definitions(shmnm_options
                                   INTERFACE $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
        target_link_options(shmnm_options INTERFACE $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY>:-Wl,-z,defs>)
    endif()
endif()

# For static libraries that are linked to a fuzzer: instruments them. Other programs run with them as before.
add_library(shmnm_fuzzed INTERFACE)
if(CMAKE_CXX_COMPILER_ID MATCHES Clang AND SHMNM_SANITIZE MATCHES address)
    target_compile_options(shmnm_fuzzed INTERFACE -fsanitize=fuzzer-no-link)
endif()

# For what scripts/branches measures. The counters are in the profile's file itself, so a killed process leaves them too. Processes
# share them, and a branch's count may be the difference of two of them, so no increment may be lost.
add_library(shmnm_counted INTERFACE)
if(SHMNM_BRANCHES)
    target_compile_options(shmnm_counted INTERFACE -fprofile-instr-generate -fcoverage-mapping -fprofile-update=atomic
                                                   "SHELL:-mllvm -runtime-counter-relocation")
    target_link_options(shmnm_counted INTERFACE -fprofile-instr-generate)
endif()

# shmnm_name_profiles(FOLDER): each program and library below this folder keeps its counters in a file of its own. By the run time's
# own names programs that are made of the same objects in another order would share one, and the counters would be mixed up. The
# file is named by a number, because it is mapped while tests look for libraries among the mapped files.
function(shmnm_name_profiles folder)
    get_property(targets DIRECTORY ${folder} PROPERTY BUILDSYSTEM_TARGETS)
    foreach(target IN LISTS targets)
        get_target_property(type ${target} TYPE)
        if(type MATCHES "EXECUTABLE|SHARED_LIBRARY|MODULE_LIBRARY")
            string(MD5 number ${target})
            set(source ${PROJECT_BINARY_DIR}/profile_names/${target}.cpp)
            file(GENERATE OUTPUT ${source} CONTENT "extern \"C\" const char __llvm_profile_filename[];
const char __llvm_profile_filename[] = \"${PROJECT_BINARY_DIR}/profiles/%c${number}-%m.profraw\";
")
            target_sources(${target} PRIVATE ${source})
        endif()
    endforeach()
    get_property(subfolders DIRECTORY ${folder} PROPERTY SUBDIRECTORIES)
    foreach(subfolder IN LISTS subfolders)
        shmnm_name_profiles(${subfolder})
    endforeach()
endfunction()

# shmnm_version(NAME): the file of this target states its version, which Windows shows in the file's properties.
function(shmnm_version name)
    if(NOT WIN32)
        return()
    endif()
    get_target_property(type ${name} TYPE)
    if(type STREQUAL EXECUTABLE)
        set(file ${name}.exe)
        set(file_type 0x1)
    else()
        set(file ${name}.dll)
        set(file_type 0x2)
    endif()
    # A separate object library, because the resource compiler does not understand the compilers' options.
    configure_file(${PROJECT_SOURCE_DIR}/cmake/version.rc.in ${CMAKE_CURRENT_BINARY_DIR}/${name}.rc @ONLY)
    add_library(${name}_version OBJECT ${CMAKE_CURRENT_BINARY_DIR}/${name}.rc)
    target_sources(${name} PRIVATE $<TARGET_OBJECTS:${name}_version>)
endfunction()

# shmnm_library(NAME SOURCE...): the shared library libNAME.so or NAME.dll, with its headers in include/ of its folder.
function(shmnm_library name)
    add_library(${name} SHARED ${ARGN})
    target_link_libraries(${name} PRIVATE shmnm_options)
    # All sources are compiled as one, so that calls between subjects cost nothing.
    set_target_properties(${name} PROPERTIES UNITY_BUILD ${SHMNM_JOINED} UNITY_BUILD_BATCH_SIZE 0)
    target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include> PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src)
    string(TOUPPER ${name} upper)
    target_compile_definitions(${name} PRIVATE ${upper}_BUILD)
    if(UNIX AND NOT SHMNM_SANITIZE)
        # The C++ run time is linked into each library: loading the shared run time would take a C program several times as
        # long as loading the library. The unwinder stays shared, because a cancelled thread unwinds the frames of all
        # libraries.
        target_sources(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src/linux/server/library/run_time/unload.cpp)
        target_link_options(${name} PRIVATE -static-libstdc++ -Wl,--exclude-libs,ALL -Wl,--gc-sections)
    endif()
    if(WIN32)
        set_target_properties(${name} PROPERTIES PREFIX "")
    endif()
    shmnm_version(${name})
endfunction()
