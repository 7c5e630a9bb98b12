# Where a camera vendor's own libraries are, for a build with them in place of Debian's POCO and of the stand-ins.
# docs/camera.md tells how to use the two variables.
set(CAMGATE_POCO_ROOT "" CACHE PATH
    "Folder with include/Poco and lib/libPoco*.so of the camera's POCO; empty for the one that CMake finds")
set(CAMGATE_PLATFORM_LIBRARIES camera_platform CACHE STRING
    "Files of the camera's libraries that have what platform/include declares; camera_platform is the stand-in")

# Where libraries lie that no Debian package has.
set(CAMGATE_VENDOR_FOLDERS)

foreach(library IN LISTS CAMGATE_PLATFORM_LIBRARIES)
    if(library STREQUAL "camera_platform")
        continue()
    endif()
    if(NOT IS_ABSOLUTE "${library}" OR NOT EXISTS "${library}")
        message(FATAL_ERROR "CAMGATE_PLATFORM_LIBRARIES names \"${library}\", which is no file. Give the libraries "
            "with their whole paths, separated by semicolons, for example "
            "\"-DCAMGATE_PLATFORM_LIBRARIES=/opt/camera/lib/liblog.so;/opt/camera/lib/libservice.so\".")
    endif()
    # The libraries that this one needs lie beside it, as a rule.
    get_filename_component(folder "${library}" DIRECTORY)
    add_link_options("LINKER:-rpath-link,${folder}")
    list(APPEND CAMGATE_VENDOR_FOLDERS ${folder})
endforeach()

if(NOT CAMGATE_POCO_ROOT)
    return()
endif()

# A vendor's POCO need not come with the package files of CMake, and must not be mixed with that of the system.
unset(VENDOR_POCO_INCLUDE CACHE) # the root may be another one than last time
find_path(VENDOR_POCO_INCLUDE Poco/Foundation.h PATHS ${CAMGATE_POCO_ROOT}/include
    NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
if(NOT VENDOR_POCO_INCLUDE)
    message(FATAL_ERROR "CAMGATE_POCO_ROOT is ${CAMGATE_POCO_ROOT}, and there is no include/Poco/Foundation.h in it.")
endif()
# Each after those that it needs. Crypto and XML are needed by NetSSL and Util.
set(vendor_poco_before)
list(APPEND CAMGATE_VENDOR_FOLDERS ${CAMGATE_POCO_ROOT}/lib ${CAMGATE_POCO_ROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE})
foreach(name Foundation JSON XML Util Net Crypto NetSSL)
    unset(VENDOR_POCO_${name} CACHE)
    find_library(VENDOR_POCO_${name} Poco${name} PATHS ${CAMGATE_POCO_ROOT}/lib
        PATH_SUFFIXES ${CMAKE_LIBRARY_ARCHITECTURE} NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
    if(NOT VENDOR_POCO_${name})
        message(FATAL_ERROR "CAMGATE_POCO_ROOT is ${CAMGATE_POCO_ROOT}, and there is no lib/libPoco${name}.so in it.")
    endif()
    add_library(Poco::${name} SHARED IMPORTED)
    set_target_properties(Poco::${name} PROPERTIES
        IMPORTED_LOCATION ${VENDOR_POCO_${name}}
        INTERFACE_INCLUDE_DIRECTORIES ${VENDOR_POCO_INCLUDE}
        INTERFACE_LINK_LIBRARIES "${vendor_poco_before}")
    list(APPEND vendor_poco_before Poco::${name})
endforeach()
set(Poco_INCLUDE_DIRS ${VENDOR_POCO_INCLUDE})
