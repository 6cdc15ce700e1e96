# Where a box expects the files, and Debian packages of them: gwad, and gwrelay where it is built.
#
#   DESTDIR=root cmake --install build/mipsel --strip
#   DESTDIR=root cmake --install build/release --strip --component gwrelay
#   scripts/package
include(GNUInstallDirs)

set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)  # the programs are enough, without tests and gwrelay
set(made ${CMAKE_BINARY_DIR}/packaging)

set(GWAD_PACKAGE_CONTACT "the gwad developers <gwad@localhost>" CACHE STRING "who answers for the Debian packages")
set(CPACK_PACKAGE_CONTACT ${GWAD_PACKAGE_CONTACT})
set(CPACK_DEBIAN_PACKAGE_RELEASE 1 CACHE STRING "counts the Debian packages of one version")

# The date of the latest release, as a changelog of Debian has it.
file(STRINGS ${CMAKE_SOURCE_DIR}/CHANGELOG.md released REGEX "^## .*[0-9]+-[0-9]+-[0-9]+" LIMIT_COUNT 1)
string(REGEX MATCH "[0-9]+-[0-9]+-[0-9]+" released "${released}")
execute_process(COMMAND env LC_ALL=C date -u -R -d ${released}
                OUTPUT_VARIABLE changelog_date OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)

if(CMAKE_EXE_LINKER_FLAGS MATCHES "(^| )-static(-pie)?( |$)")
    set(static TRUE)
endif()

find_program(GZIP gzip)
# gzipped FILE VARIABLE: the file that is to be installed for FILE, which is one of `made`.
function(gzipped file variable)
    if(GZIP)
        execute_process(COMMAND ${GZIP} -9nc ${file} OUTPUT_FILE ${file}.gz COMMAND_ERROR_IS_FATAL ANY)
        set(file ${file}.gz)
    endif()
    set(${variable} ${file} PARENT_SCOPE)
endfunction()

function(install_page source name section component)
    configure_file(${source} ${made}/${name}.${section} @ONLY)
    gzipped(${made}/${name}.${section} page)
    install(FILES ${page} DESTINATION ${CMAKE_INSTALL_FULL_MANDIR}/man${section} COMPONENT ${component} ${ARGN})
endfunction()

# install_settings FILE PATH COMPONENT: as PATH, unless somebody has settings there already.
function(install_settings file path component)
    cmake_path(GET path PARENT_PATH folder)
    cmake_path(GET path FILENAME name)
    install(CODE "
        if(EXISTS \"\$ENV{DESTDIR}${path}\")
            message(STATUS \"Kept: \$ENV{DESTDIR}${path}\")
        else()
            file(INSTALL DESTINATION \"${folder}\" TYPE FILE RENAME \"${name}\" FILES \"${file}\")
        endif()" COMPONENT ${component} ${ARGN})
endfunction()

# debian_package(PACKAGE SERVICE CONFFILES [SET_UP line] [REGISTER line] [FORGET line...]): what makes a
# Debian package of the component PACKAGE: its documents, of which a plain install has no use, and what
# dpkg runs, with these lines in it. An update keeps the conffiles.
function(debian_package package service conffiles)
    cmake_parse_arguments(PARSE_ARGV 3 dpkg "" "SET_UP;REGISTER" "FORGET")
    list(JOIN dpkg_FORGET "\n        " dpkg_FORGET)
    set(folder ${made}/${package})
    configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/changelog.in ${folder}/changelog.Debian @ONLY)
    configure_file(${CMAKE_SOURCE_DIR}/CHANGELOG.md ${folder}/changelog COPYONLY)
    gzipped(${folder}/changelog.Debian debian_changes)
    gzipped(${folder}/changelog changes)
    install(FILES ${CMAKE_CURRENT_LIST_DIR}/debian/copyright ${debian_changes} ${changes}
            DESTINATION ${CMAKE_INSTALL_FULL_DATADIR}/doc/${package} COMPONENT ${package} EXCLUDE_FROM_ALL)
    configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/${package}.lintian-overrides ${folder}/lintian-overrides COPYONLY)
    if(static)
        file(APPEND ${folder}/lintian-overrides "# So that it needs no other package.\nstatically-linked-binary *\n")
    endif()
    install(FILES ${folder}/lintian-overrides RENAME ${package}
            DESTINATION ${CMAKE_INSTALL_FULL_DATADIR}/lintian/overrides COMPONENT ${package} EXCLUDE_FROM_ALL)
    foreach(script postinst prerm postrm)
        configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/${script}.in ${folder}/${script} @ONLY)
        list(APPEND control ${folder}/${script})
    endforeach()
    list(JOIN conffiles "\n" lines)
    file(WRITE ${folder}/conffiles "${lines}\n")
    string(TOUPPER ${package} key)
    set(CPACK_DEBIAN_${key}_PACKAGE_NAME ${package} PARENT_SCOPE)
    set(CPACK_DEBIAN_${key}_PACKAGE_CONTROL_EXTRA ${control} ${folder}/conffiles PARENT_SCOPE)
endfunction()

# --- gwad ---

# The init script is where a restarting gwad looks for it, and what it starts is what gets installed. The
# unit has its name, so that systemd takes one for the other.
cmake_path(GET GWAD_INIT_SCRIPT PARENT_PATH init_folder)
cmake_path(GET GWAD_INIT_SCRIPT FILENAME init_name)
foreach(part interface start) # what the scripts share
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/${part}.sh)
    file(READ ${CMAKE_CURRENT_LIST_DIR}/${part}.sh functions)
    string(STRIP "${functions}" functions)
    set(${part}_functions "${functions}")
endforeach()
configure_file(${CMAKE_CURRENT_LIST_DIR}/gwad-doctor.in ${made}/gwad-doctor @ONLY)
install(TARGETS gwad RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT gwad)
install(PROGRAMS ${made}/gwad-doctor DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT gwad)
install_settings(${CMAKE_CURRENT_LIST_DIR}/gwad.default /etc/default/gwad gwad)
install_settings(${CMAKE_CURRENT_LIST_DIR}/gwad.logrotate /etc/logrotate.d/gwad gwad)
install_page(${CMAKE_CURRENT_LIST_DIR}/gwad.8.in gwad 8 gwad)
install_page(${CMAKE_CURRENT_LIST_DIR}/gwad-doctor.8.in gwad-doctor 8 gwad)
if(TARGET gwad-announce)
    install(TARGETS gwad-announce RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT gwad)
    install_page(${CMAKE_CURRENT_LIST_DIR}/gwad-announce.1.in gwad-announce 1 gwad)
endif()
add_custom_target(installed_programs DEPENDS gwad $<TARGET_NAME_IF_EXISTS:gwad-announce>)

if(NOT init_name STREQUAL "gwad")
    set(unit_alias "Alias=gwad.service")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/gwadsh.in ${made}/gwadsh @ONLY)
configure_file(${CMAKE_CURRENT_LIST_DIR}/gwadsh.service.in ${made}/gwadsh.service @ONLY)
configure_file(${CMAKE_CURRENT_LIST_DIR}/gwad-run.in ${made}/gwad-run @ONLY)
if(GWAD_SUPERVISED)
    # The supervisor starts gwad, so there is neither an init script nor a unit, nor a package of a service.
    install(PROGRAMS ${CMAKE_CURRENT_LIST_DIR}/gwad-restart DESTINATION ${init_folder} RENAME ${init_name}
            COMPONENT gwad)
    install(PROGRAMS ${made}/gwad-run DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT gwad)
else()
    install(PROGRAMS ${made}/gwadsh DESTINATION ${init_folder} RENAME ${init_name} COMPONENT gwad)
    install(FILES ${made}/gwadsh.service DESTINATION /lib/systemd/system RENAME ${init_name}.service COMPONENT gwad)
    debian_package(gwad ${init_name} "/etc/default/gwad;/etc/logrotate.d/gwad;${GWAD_INIT_SCRIPT}"
        REGISTER "update-rc.d ${init_name} defaults >/dev/null"
        FORGET "update-rc.d ${init_name} remove >/dev/null"
            "rm -f /tmp/gwad.pid /tmp/gwad.stat /tmp/gwad.pipe /tmp/gwad.log /tmp/gwad.log.*"
            "rm -f /tmp/session.id /tmp/dlna.sock /tmp/mko_port_gwad.sock"
            "rmdir /tmp/gwadsh.* 2>/dev/null || true")
    set(packages gwad)
endif()

# --- gwrelay ---

if(TARGET gwrelay)
    set(relay_folder ${CMAKE_CURRENT_LIST_DIR}/gwrelay)
    install(TARGETS gwrelay RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT gwrelay EXCLUDE_FROM_ALL)
    install(FILES ${relay_folder}/gwrelay.service DESTINATION /lib/systemd/system
            COMPONENT gwrelay EXCLUDE_FROM_ALL)
    install_settings(${relay_folder}/gwrelay.toml /etc/gwrelay/gwrelay.toml gwrelay EXCLUDE_FROM_ALL)
    install_page(${relay_folder}/gwrelay.8.in gwrelay 8 gwrelay EXCLUDE_FROM_ALL)
    debian_package(gwrelay gwrelay /etc/gwrelay/gwrelay.toml
        SET_UP "adduser --quiet --system --group --no-create-home --home /nonexistent gwrelay"
        FORGET "rm -rf /var/log/gwrelay"
            "! command -v deluser >/dev/null || deluser --quiet --system gwrelay || true")
    set(CPACK_DEBIAN_GWRELAY_PACKAGE_DEPENDS adduser)
    list(APPEND packages gwrelay)
endif()

# --- Debian packages ---

if(NOT packages) # GWAD_SUPERVISED, without gwrelay
    return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL ${packages})
set(CPACK_COMPONENT_GWAD_DESCRIPTION "remote access to the services of a box through a relay
gwad keeps connections to a relay and passes the requests of remote users
from there to the services of this machine and back. No port of the machine
needs to be open to the outside.")
set(CPACK_COMPONENT_GWRELAY_DESCRIPTION "relay that makes the services of boxes reachable
Boxes that run gwad keep connections to gwrelay, and users reach the
services of the boxes through it, by a browser or any program that speaks
HTTP. A page shows the boxes and what they do.")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
if(CMAKE_CROSSCOMPILING)
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${CMAKE_SYSTEM_PROCESSOR})
endif()
# Debian's tools find out what the programs need, in Debian's own toolchains. A static program needs nothing.
find_program(SHLIBDEPS dpkg-shlibdeps)
if(SHLIBDEPS AND NOT static AND
   (NOT CMAKE_CROSSCOMPILING OR CMAKE_CXX_COMPILER MATCHES "-linux-gnu[a-z0-9]*-g\\+\\+$"))
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
    if(CMAKE_CROSSCOMPILING)
        list(TRANSFORM CMAKE_FIND_ROOT_PATH APPEND /lib OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS)
    endif()
endif()
include(CPack)

# The package is of a build that is meant to be shipped, so not of one with sanitizers.
find_program(DPKG dpkg)
if(BUILD_TESTING AND DPKG AND NOT GWAD_SUPERVISED AND NOT CMAKE_CXX_FLAGS MATCHES sanitize)
    set(package_architecture ${CPACK_DEBIAN_PACKAGE_ARCHITECTURE})
    if(NOT package_architecture)
        execute_process(COMMAND ${DPKG} --print-architecture
                        OUTPUT_VARIABLE package_architecture OUTPUT_STRIP_TRAILING_WHITESPACE)
    endif()
    add_test(NAME Package.InstallsIntoAScratchRoot
             COMMAND tests/packaging/package_test.sh ${CMAKE_BINARY_DIR} ${package_architecture}
             WORKING_DIRECTORY ${CMAKE_SOURCE_DIR})
    set_tests_properties(Package.InstallsIntoAScratchRoot PROPERTIES TIMEOUT 600)
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
