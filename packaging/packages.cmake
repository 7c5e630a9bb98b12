# The two Debian packages: camgate, for the camera, and camgate-simulator, for who works without one.
# scripts/package builds them; docs/camera.md tells what the first one needs.

# Below the root folder: the packages have files in etc and lib, too.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# compressed(COMPONENT FILE): a file of the package, which becomes FILE.gz.
function(compressed component file)
    install(CODE "execute_process(COMMAND gzip -9nf \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${file}\"
        RESULT_VARIABLE result)
        if(NOT result EQUAL 0)
            message(FATAL_ERROR \"gzip failed\")
        endif()" COMPONENT ${component})
endfunction()

# documentation(COMPONENT PACKAGE FILE...): the files in the package's folder of documents, with those that every
# Debian package has there.
function(documentation component package)
    set(folder usr/share/doc/${package})
    install(FILES packaging/copyright ${ARGN} DESTINATION ${folder} COMPONENT ${component})
    install(FILES packaging/changelog DESTINATION ${folder} COMPONENT ${component})
    compressed(${component} ${folder}/changelog)
endfunction()

# manual(COMPONENT SECTION NAME): a manual page of packaging/man.
function(manual component section name)
    install(FILES packaging/man/${name}.${section} DESTINATION usr/share/man/man${section} COMPONENT ${component})
    compressed(${component} usr/share/man/man${section}/${name}.${section})
endfunction()

install(TARGETS protocol_process DESTINATION usr/sbin COMPONENT service)
# On the camera the platform library is where the system looks by itself.
install(CODE "file(RPATH_REMOVE FILE \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/usr/sbin/protocol_process\")"
    COMPONENT service)
install(PROGRAMS packaging/camgate.init DESTINATION etc/init.d RENAME camgate COMPONENT service)
install(FILES packaging/camgate.service DESTINATION lib/systemd/system COMPONENT service)
documentation(service camgate docs/camera.md docs/messages.md)
manual(service 8 protocol_process)

# The simulated camera looks for the binaries in folders beside its own.
set(tree usr/lib/camgate)
install(TARGETS camera_platform LIBRARY DESTINATION usr/lib/${CMAKE_LIBRARY_ARCHITECTURE} COMPONENT simulator)
install(TARGETS camera_devices LIBRARY DESTINATION ${tree}/lib COMPONENT simulator)
install(TARGETS ringbuf_cat RUNTIME DESTINATION usr/bin COMPONENT simulator)
install(DIRECTORY simulator DESTINATION ${tree} COMPONENT simulator
    PATTERN __pycache__ EXCLUDE PATTERN README.md EXCLUDE PATTERN camsim EXCLUDE)
install(DIRECTORY contracts DESTINATION ${tree} COMPONENT simulator)
# link(TARGET NAME): a symbolic link in the package.
function(link target name)
    set(path "\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${name}")
    get_filename_component(folder ${path} DIRECTORY)
    install(CODE "file(MAKE_DIRECTORY \"${folder}\")
        file(CREATE_LINK ${target} \"${path}\" SYMBOLIC)" COMPONENT simulator)
endfunction()
link(../../../sbin/protocol_process ${tree}/bin/protocol_process)
link(../../../bin/ringbuf_cat ${tree}/bin/ringbuf_cat)
link(../../../../lib/systemd/system/camgate.service ${tree}/packaging/camgate.service)
link(../../camgate/simulator usr/lib/python3/dist-packages/simulator)
link(../lib/camgate/contracts/camgate_messages.h usr/include/camgate_messages.h)
if(EXISTS ${CMAKE_SOURCE_DIR}/simulator/camsim)
    install(PROGRAMS simulator/camsim DESTINATION ${tree}/simulator COMPONENT simulator)
    link(../lib/camgate/simulator/camsim usr/bin/camsim)
endif()
manual(simulator 1 ringbuf_cat)
# camsim's manual page is made from what reads its command line.
set(page usr/share/man/man1/camsim.1)
install(CODE "set(path \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${page}\")
    get_filename_component(folder \"\${path}\" DIRECTORY)
    file(MAKE_DIRECTORY \"\${folder}\")
    execute_process(COMMAND /usr/bin/python3 -B ${CMAKE_SOURCE_DIR}/scripts/manual_page.py ${PROJECT_VERSION}
        OUTPUT_FILE \"\${path}\" RESULT_VARIABLE result)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR \"camsim's manual page cannot be made; scripts/bootstrap --demo installs what it takes\")
    endif()" COMPONENT simulator)
compressed(simulator ${page})
# Completion, where the shells look for it.
link(../../../lib/camgate/simulator/cli/completions/camsim.bash usr/share/bash-completion/completions/camsim)
link(../../../lib/camgate/simulator/cli/completions/_camsim usr/share/zsh/vendor-completions/_camsim)
link(../../../lib/camgate/simulator/cli/completions/camsim.fish usr/share/fish/vendor_completions.d/camsim.fish)
# Scenarios, where they lie in the checkout, too; guides and examples, in its folders: they refer to each other.
install(DIRECTORY tests/scenarios DESTINATION usr/share/camgate-simulator COMPONENT simulator)
link(../../../share/camgate-simulator/scenarios ${tree}/tests/scenarios)
documentation(simulator camgate-simulator)
set(documents usr/share/doc/camgate-simulator)
install(DIRECTORY docs examples DESTINATION ${documents} COMPONENT simulator
    PATTERN __pycache__ EXCLUDE PATTERN trace.png EXCLUDE)
link(../../../lib/camgate/contracts ${documents}/contracts)
install(FILES simulator/README.md DESTINATION ${documents}/simulator COMPONENT simulator)
install(FILES SECURITY.md DESTINATION ${documents} COMPONENT simulator)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "camgate maintainers <maintainers@camgate.invalid>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS ${CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS})
# What is only known when packing.
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/when_packing.cmake)
set(CPACK_CAMGATE_SOURCE ${CMAKE_SOURCE_DIR})
set(CPACK_CAMGATE_BUILD ${CMAKE_BINARY_DIR})
set(CPACK_CAMGATE_ARMHF_ROOT ${CAMGATE_ARMHF_ROOT})
set(CPACK_CAMGATE_LIBRARY_FOLDERS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY} ${CAMGATE_VENDOR_FOLDERS})
set(CPACK_COMPONENTS_ALL service simulator)
set(CPACK_DEB_COMPONENT_INSTALL ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf) # what CPack would ask for is this machine's
endif()

set(CPACK_DEBIAN_SERVICE_PACKAGE_NAME camgate)
set(CPACK_DEBIAN_SERVICE_PACKAGE_SECTION net)
set(CPACK_DEBIAN_SERVICE_DESCRIPTION "keeps a smart camera's face lists up to date
The service between a smart camera's analysis process and a remote management
platform: it downloads face pictures, has them imported, and reports back.
.
It needs the camera's platform library, libcamera_platform.so, which comes
with the camera's firmware; camgate-simulator has a stand-in.")
# A firmware need not have its libraries in packages: nothing that it has could satisfy a dependency.
set(CPACK_DEBIAN_SERVICE_PACKAGE_RECOMMENDS camgate-platform)
set(CPACK_DEBIAN_SERVICE_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/preinst ${CMAKE_CURRENT_LIST_DIR}/postinst
    ${CMAKE_CURRENT_LIST_DIR}/prerm ${CMAKE_CURRENT_LIST_DIR}/postrm
    ${CMAKE_CURRENT_LIST_DIR}/conffiles)

set(CPACK_DEBIAN_SIMULATOR_PACKAGE_NAME camgate-simulator)
set(CPACK_DEBIAN_SIMULATOR_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_SIMULATOR_DESCRIPTION "simulated camera around camgate, for integrators
Plays the processes around the camgate service on a machine that is no camera:
stand-ins for the camera's platform library and device nodes, a Python package
with the camera's other processes and the remote platform, a reader of the
metadata ring buffer, and every interface as a file: OpenAPI, JSON schemas, a C
header and a Wireshark dissector.")
set(CPACK_DEBIAN_SIMULATOR_PACKAGE_PROVIDES camgate-platform)
# Of use without them, too: the stand-ins.
set(CPACK_DEBIAN_SIMULATOR_PACKAGE_RECOMMENDS
    "camgate, python3 (>= 3.11), python3-rich, python3-jsonschema, python3-yaml, python3-argcomplete, bubblewrap, \
openssl")
set(CPACK_DEBIAN_SIMULATOR_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/simulator/prerm ${CMAKE_CURRENT_LIST_DIR}/simulator/triggers)
include(CPack)
