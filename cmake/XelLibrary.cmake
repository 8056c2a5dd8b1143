# How the three libraries, the tests, the benchmarks and the examples are compiled and linked.

# Warnings, sanitizers and the include root: shared by everything in the project.
add_library(xel_options INTERFACE)
target_compile_options(xel_options INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)
target_include_directories(xel_options INTERFACE
    ${PROJECT_SOURCE_DIR} $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>)
if(XEL_SANITIZE STREQUAL "address")
    set(XEL_SANITIZE_FLAGS -fsanitize=address,undefined -fno-sanitize-recover=all
                           -fno-omit-frame-pointer)
elseif(XEL_SANITIZE STREQUAL "thread")
    set(XEL_SANITIZE_FLAGS -fsanitize=thread)
elseif(XEL_SANITIZE)
    message(FATAL_ERROR "XEL_SANITIZE is empty, address or thread, not ${XEL_SANITIZE}")
endif()
if(XEL_SANITIZE)
    if(XEL_SANITIZE STREQUAL "address" AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND NOT XEL_FUZZ)
        # As a shared library, like that of g++: functions that tests put in front of the system's
        # must still find those of the sanitizer behind them. The fuzzing engine does not go with it.
        list(APPEND XEL_SANITIZE_FLAGS -shared-libsan)
        execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-runtime-dir
                        OUTPUT_VARIABLE runtime_dir OUTPUT_STRIP_TRAILING_WHITESPACE)
        target_link_options(xel_options INTERFACE -Wl,-rpath,${runtime_dir})
    endif()
    target_compile_options(xel_options INTERFACE ${XEL_SANITIZE_FLAGS})
    target_link_options(xel_options INTERFACE ${XEL_SANITIZE_FLAGS})
endif()

find_package(Threads REQUIRED)

# xel_add_library(<name>): a shared library that needs the C library only. It exports what
# cmake/exports/lib<name>.map lists, and is linked by the C driver so that no C++ runtime gets in.
# -fno-semantic-interposition binds calls inside the library; data and calls to other libraries
# stay ordinary dynamic symbols.
function(xel_add_library name)
    set(map ${PROJECT_SOURCE_DIR}/cmake/exports/lib${name}.map)
    add_library(${name} SHARED)
    target_link_libraries(${name} PRIVATE xel_options Threads::Threads)
    target_include_directories(${name} INTERFACE
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/xelsch>)
    target_compile_options(${name} PRIVATE
        -fno-exceptions -fno-rtti -fno-threadsafe-statics -fvisibility=hidden
        -fno-semantic-interposition -fno-plt -ftls-model=initial-exec)
    target_link_options(${name} PRIVATE
        -Wl,--version-script=${map} -Wl,--no-undefined-version -Wl,-z,relro -Wl,--as-needed)
    if(NOT XEL_SANITIZE)
        target_link_options(${name} PRIVATE -Wl,-z,defs)
    endif()
    if(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # The run-time choice of atomics would add a constructor of libgcc.
        target_compile_options(${name} PRIVATE -mno-outline-atomics)
    endif()
    set_target_properties(${name} PROPERTIES
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}
        LINKER_LANGUAGE C
        LINK_DEPENDS ${map})
    if(XEL_LTO)
        set_target_properties(${name} PROPERTIES INTERPROCEDURAL_OPTIMIZATION ON)
        if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
            target_link_options(${name} PRIVATE -fuse-ld=lld)
        endif()
    endif()
endfunction()

# Installs the libraries, the public headers and a CMake package for find_package(xelsch).
function(xel_install)
    install(TARGETS xelsch xelbase xeldeadloop EXPORT xelschTargets
            LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/
            DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/xelsch FILES_MATCHING PATTERN "*.h")
    install(EXPORT xelschTargets NAMESPACE xelsch:: FILE xelschConfig.cmake
            DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/xelsch)
endfunction()
