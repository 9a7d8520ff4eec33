# Debian packages, one per install component:
#   libkelo0     the shared library
#   libkelo-dev  headers, the CMake package and kelo.pc
#   kelo-server  the programs, their man pages, the systemd unit and /etc/default/kelo-server
# Made by cpack --config <build>/CPackConfig.cmake. Configure with -DCMAKE_INSTALL_PREFIX=/usr so
# that the library goes into Debian's multiarch directory (/usr/lib/<triplet>).

set(KELO_PACKAGE_MAINTAINER
    "libKelo maintainers <maintainers@kelo.invalid>"
    CACHE STRING "Maintainer field of the Debian packages")
set(KELO_PACKAGE_HOMEPAGE "${PROJECT_HOMEPAGE_URL}"
    CACHE STRING "Homepage field of the Debian packages (empty: none)")
set(KELO_PACKAGE_RELEASE 1 CACHE STRING "Debian revision of the packages")

# The programs install themselves (apps/) into the kelo-server component.
set(kelo_programs "")
foreach(program IN ITEMS kelo-server kelo-record kelo-replay)
    if(TARGET ${program})
        list(APPEND kelo_programs ${program})
    endif()
endforeach()

# Man pages from each program's --help and --version, so that they cannot drift from it. They
# run the programs just built: not when cross-compiling, nor with sanitizers (which may end a
# program that exits normally with a report and another status).
set(kelo_man_name_kelo-server "render the sound scenes that client applications send")
set(kelo_man_name_kelo-record "record what client applications send to sound servers")
set(kelo_man_name_kelo-replay "play a recorded session to sound servers")
find_program(KELO_HELP2MAN help2man)
find_program(KELO_GZIP gzip)
if(kelo_programs AND KELO_HELP2MAN AND KELO_GZIP AND NOT KELO_SANITIZE
   AND NOT CMAKE_CROSSCOMPILING)
    set(kelo_man_pages "")
    foreach(program IN LISTS kelo_programs)
        set(page ${CMAKE_BINARY_DIR}/man/${program}.1)
        add_custom_command(OUTPUT ${page}.gz
            COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
            COMMAND ${KELO_HELP2MAN} --no-info --section=1 "--name=${kelo_man_name_${program}}"
                    --output=${page} $<TARGET_FILE:${program}>
            COMMAND ${KELO_GZIP} -9nf ${page}
            DEPENDS ${program}
            COMMENT "Man page of ${program} (help2man)"
            VERBATIM)
        list(APPEND kelo_man_pages ${page}.gz)
    endforeach()
    add_custom_target(kelo_man_pages ALL DEPENDS ${kelo_man_pages})
    install(FILES ${kelo_man_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT kelo-server)
elseif(kelo_programs AND NOT KELO_HELP2MAN)
    message(STATUS "help2man not found: no man pages (Debian: apt-get install help2man)")
endif()

# The service belongs to the package (its unit names /usr/bin/kelo-server): a plain
# cmake --install leaves it out, cpack puts it in.
if(TARGET kelo-server)
    install(FILES ${CMAKE_CURRENT_LIST_DIR}/kelo-server.service
            DESTINATION lib/systemd/system COMPONENT kelo-server EXCLUDE_FROM_ALL)
    install(FILES ${CMAKE_CURRENT_LIST_DIR}/kelo-server.default
            DESTINATION /etc/default RENAME kelo-server COMPONENT kelo-server EXCLUDE_FROM_ALL)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kelo)
set(CPACK_PACKAGE_VENDOR "libKelo")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# Each package's description starts with its own synopsis line; a common summary would be put
# in front of it.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL libkelo0 libkelo-dev)
if(TARGET kelo-server)
    list(APPEND CPACK_COMPONENTS_ALL kelo-server)
endif()

set(kelo_deb_version "${PROJECT_VERSION}-${KELO_PACKAGE_RELEASE}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${KELO_PACKAGE_RELEASE})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${KELO_PACKAGE_MAINTAINER}")
if(KELO_PACKAGE_HOMEPAGE)
    set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "${KELO_PACKAGE_HOMEPAGE}")
endif()
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Depends from the ELF files. dpkg-shlibdeps must find libkelo.so.0 for the programs: it is in
# the build tree; what it cannot tell from there (the exact libkelo0) is added below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_LIBKELO0_PACKAGE_NAME libkelo0)
set(CPACK_DEBIAN_LIBKELO0_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBKELO0_DESCRIPTION "spatial sound library and sound server - shared library
libKelo describes the sound scene of an interactive 3D application (sounds,
positioned emitters, one listener) and passes every change to output backends:
OpenAL rendering, a log, HTML status pages, or sound servers on the network.
.
This package contains the shared library.")

# The installed headers include only the C++ standard library and each other.
set(CPACK_DEBIAN_LIBKELO-DEV_PACKAGE_NAME libkelo-dev)
set(CPACK_DEBIAN_LIBKELO-DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_LIBKELO-DEV_PACKAGE_DEPENDS "libkelo0 (= ${kelo_deb_version})")
set(CPACK_DEBIAN_LIBKELO-DEV_PACKAGE_SUGGESTS "cmake, pkgconf | pkg-config")
set(CPACK_DEBIAN_LIBKELO-DEV_DESCRIPTION "spatial sound library and sound server - development files
libKelo describes the sound scene of an interactive 3D application (sounds,
positioned emitters, one listener) and passes every change to output backends:
OpenAL rendering, a log, HTML status pages, or sound servers on the network.
.
This package contains the headers, the CMake package (find_package(Kelo)) and
the pkg-config file (kelo).")

# OpenAL Soft reaches the sound card through ALSA, which it loads at run time: a service has
# no desktop sound server to go through, so ALSA is a dependency, not a recommendation.
set(CPACK_DEBIAN_KELO-SERVER_PACKAGE_NAME kelo-server)
set(CPACK_DEBIAN_KELO-SERVER_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_KELO-SERVER_PACKAGE_DEPENDS "libkelo0 (= ${kelo_deb_version}), libasound2")
set(CPACK_DEBIAN_KELO-SERVER_PACKAGE_CONTROL_EXTRA
    "${CMAKE_CURRENT_LIST_DIR}/debian/conffiles;${CMAKE_CURRENT_LIST_DIR}/debian/postinst;${CMAKE_CURRENT_LIST_DIR}/debian/prerm;${CMAKE_CURRENT_LIST_DIR}/debian/postrm")
set(CPACK_DEBIAN_KELO-SERVER_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
set(kelo_recording "")
if(TARGET kelo-record AND TARGET kelo-replay)
    set(kelo_recording "\nkelo-record and kelo-replay record what applications send and play it
back later, to servers or to a new room.")
endif()
set(CPACK_DEBIAN_KELO-SERVER_DESCRIPTION "spatial sound server for libKelo applications
kelo-server holds a set of sounds and renders, through OpenAL, the sound scenes
that libKelo applications send it over the network; it announces itself on a
multicast group so that applications find it.${kelo_recording}
.
The package includes a systemd service (kelo-server.service) that reads its
options, sounds included, from /etc/default/kelo-server; it is not started
until enabled.")

if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    message(STATUS "Debian packages: configure with -DCMAKE_INSTALL_PREFIX=/usr for the "
                   "multiarch library directory")
endif()
