# Read by cpack for each generator.

# The time in the packages is that of the commit, or that of the changelog in a folder that is no checkout.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
    execute_process(COMMAND git -c safe.directory=* -C ${CPACK_CAMGATE_SOURCE} log -1 --format=%ct
        OUTPUT_VARIABLE seconds OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    if(NOT seconds MATCHES "^[0-9]+$")
        execute_process(COMMAND dpkg-parsechangelog -l ${CPACK_CAMGATE_SOURCE}/packaging/changelog -S Timestamp
            OUTPUT_VARIABLE seconds OUTPUT_STRIP_TRAILING_WHITESPACE)
    endif()
    if(NOT seconds MATCHES "^[0-9]+$")
        message(FATAL_ERROR "The time of the packages is not known: set SOURCE_DATE_EPOCH to seconds since 1970.")
    endif()
    set(ENV{SOURCE_DATE_EPOCH} ${seconds})
endif()

function(depends_of component)
    set(folders ${CPACK_CAMGATE_LIBRARY_FOLDERS})
    list(TRANSFORM folders PREPEND -l)
    set(binaries)
    foreach(binary IN LISTS ARGN)
        list(APPEND binaries ${CPACK_CAMGATE_BUILD}/${binary})
    endforeach()
    execute_process(COMMAND ${CPACK_CAMGATE_SOURCE}/packaging/dependencies "${CPACK_CAMGATE_ARMHF_ROOT}"
            ${folders} ${binaries}
        OUTPUT_VARIABLE depends OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE result)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "The packages that ${binaries} depend on are not known (above).")
    endif()
    string(TOUPPER ${component} upper)
    set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${depends}" PARENT_SCOPE)
endfunction()
depends_of(service bin/protocol_process)
depends_of(simulator lib/libcamera_platform.so lib/libcamera_devices.so bin/ringbuf_cat)
