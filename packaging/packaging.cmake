# Where a box expects the files, and a Debian package of the same files:
#
#   DESTDIR=root cmake --install build/mipsel --strip
#   cpack -G DEB --config build/mipsel/CPackConfig.cmake -B build/mipsel/package
include(GNUInstallDirs)

set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)  # the programs are enough, without tests and gwrelay

# The init script is where a restarting gwad looks for it, and what it starts is what gets installed.
cmake_path(GET GWAD_INIT_SCRIPT PARENT_PATH init_folder)
cmake_path(GET GWAD_INIT_SCRIPT FILENAME init_name)
configure_file(${CMAKE_CURRENT_LIST_DIR}/gwadsh.in ${CMAKE_BINARY_DIR}/packaging/gwadsh @ONLY)
configure_file(${CMAKE_CURRENT_LIST_DIR}/gwad.8.in ${CMAKE_BINARY_DIR}/packaging/gwad.8 @ONLY)
configure_file(${CMAKE_CURRENT_LIST_DIR}/gwad-run.in ${CMAKE_BINARY_DIR}/packaging/gwad-run @ONLY)
configure_file(${CMAKE_CURRENT_LIST_DIR}/gwad-doctor.in ${CMAKE_BINARY_DIR}/packaging/gwad-doctor @ONLY)
configure_file(${CMAKE_CURRENT_LIST_DIR}/gwad-doctor.8.in ${CMAKE_BINARY_DIR}/packaging/gwad-doctor.8 @ONLY)
install(TARGETS gwad RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
if(TARGET gwad-announce)
    install(TARGETS gwad-announce RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
endif()
add_custom_target(installed_programs DEPENDS gwad $<TARGET_NAME_IF_EXISTS:gwad-announce>)
if(GWAD_SUPERVISED)
    install(PROGRAMS ${CMAKE_CURRENT_LIST_DIR}/gwad-restart DESTINATION ${init_folder} RENAME ${init_name})
    install(PROGRAMS ${CMAKE_BINARY_DIR}/packaging/gwad-run DESTINATION ${CMAKE_INSTALL_SBINDIR})
else()
    install(PROGRAMS ${CMAKE_BINARY_DIR}/packaging/gwadsh DESTINATION ${init_folder} RENAME ${init_name})
endif()
install(FILES ${CMAKE_CURRENT_LIST_DIR}/gwad.default DESTINATION /etc/default RENAME gwad)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/gwad.logrotate DESTINATION /etc/logrotate.d RENAME gwad)
install(PROGRAMS ${CMAKE_BINARY_DIR}/packaging/gwad-doctor DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(FILES ${CMAKE_BINARY_DIR}/packaging/gwad.8 ${CMAKE_BINARY_DIR}/packaging/gwad-doctor.8
        DESTINATION ${CMAKE_INSTALL_FULL_MANDIR}/man8)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "the gwad developers <gwad@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "remote access to the services of a box through a relay")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.34)")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
if(CMAKE_CROSSCOMPILING)
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${CMAKE_SYSTEM_PROCESSOR})
endif()
# An update keeps what was changed on the box.
file(WRITE ${CMAKE_BINARY_DIR}/packaging/conffiles "/etc/default/gwad\n/etc/logrotate.d/gwad\n${GWAD_INIT_SCRIPT}\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/packaging/conffiles)
include(CPack)

# The package is of a build that is meant to be shipped, so not of one with sanitizers.
find_program(DPKG dpkg)
if(BUILD_TESTING AND DPKG AND NOT CMAKE_CXX_FLAGS MATCHES sanitize)
    set(package_architecture ${CPACK_DEBIAN_PACKAGE_ARCHITECTURE})
    if(NOT package_architecture)
        execute_process(COMMAND ${DPKG} --print-architecture
                        OUTPUT_VARIABLE package_architecture OUTPUT_STRIP_TRAILING_WHITESPACE)
    endif()
    add_test(NAME Package.InstallsIntoAScratchRoot
             COMMAND tests/packaging/package_test.sh ${CMAKE_BINARY_DIR} ${package_architecture}
             WORKING_DIRECTORY ${CMAKE_SOURCE_DIR})
endif()
# With real programs, so where gwrelay is, and with busybox, which a box has.
find_program(BUSYBOX busybox)
if(BUILD_TESTING AND BUSYBOX AND TARGET gwrelay AND NOT CMAKE_CXX_FLAGS MATCHES sanitize)
    foreach(test doctor trees supervisor)
        add_test(NAME Packaging.${test}
                 COMMAND ${CMAKE_SOURCE_DIR}/tests/packaging/${test}_test.sh ${CMAKE_BINARY_DIR})
        set_tests_properties(Packaging.${test} PROPERTIES TIMEOUT 300 SKIP_RETURN_CODE 77)
    endforeach()
endif()
