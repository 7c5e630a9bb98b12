# CMake toolchain for the camera: 32-bit ARM with hard float, Debian 11, GCC 10. Programs run under user-mode emulation.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/armhf-root --path
    OUTPUT_VARIABLE armhf_root OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT armhf_root OR NOT EXISTS ${armhf_root})
    message(FATAL_ERROR "The Debian 11 root for 32-bit ARM is missing: run scripts/bootstrap --armhf")
endif()
# What was found and built in the last one is of no use with another one.
if(DEFINED CACHE{CAMGATE_ARMHF_ROOT} AND NOT CAMGATE_ARMHF_ROOT STREQUAL armhf_root)
    message(FATAL_ERROR "The root for 32-bit ARM has changed since the last configuration: run cmake --fresh "
        "--preset armhf")
endif()
set(CAMGATE_ARMHF_ROOT ${armhf_root} CACHE INTERNAL "The folder that scripts/armhf-root made")
# The folder's name follows from these files.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
    ${CMAKE_CURRENT_LIST_DIR}/armhf-root ${CMAKE_CURRENT_LIST_DIR}/armhf-packages.lock)

set(CMAKE_SYSROOT ${armhf_root}/root)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${armhf_root}/bin/gcc)
set(CMAKE_CXX_COMPILER ${armhf_root}/bin/g++)
foreach(tool AR NM OBJCOPY OBJDUMP RANLIB READELF STRIP)
    string(TOLOWER ${tool} program)
    set(CMAKE_${tool} ${armhf_root}/bin/${program})
endforeach()
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${CMAKE_SYSROOT})

set(CMAKE_FIND_ROOT_PATH ${CMAKE_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
