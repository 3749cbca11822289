# Debian packages for the operations machine (`cpack -G DEB` in a build
# configured with -DCMAKE_INSTALL_PREFIX=/usr):
#   libdtkit0     the shared library
#   libdtkit-dev  headers, static library, CMake package, pkg-config, dtkit(3)
#   dtkit-tools   the programs, their pages, the dissector, the service units
# Dependencies come from dpkg-shlibdeps: the tools speak the protocols
# themselves and do not link libdtkit, so they depend on what they do link
# (the C++ runtime, and the HTTP library where the exporter is built).

set(DTKIT_DEB_RELEASE 1)
set(DTKIT_DEB_VERSION "${PROJECT_VERSION}-${DTKIT_DEB_RELEASE}")
set(_pkg ${CMAKE_CURRENT_SOURCE_DIR}/packaging)
set(_gen ${CMAKE_CURRENT_BINARY_DIR}/packaging)

set(DTKIT_UNITS dtconfigd.service)
if(TARGET dtkit_exporter)
  list(APPEND DTKIT_UNITS dtkit_exporter.service)
endif()

# The service files belong in the system's own folders, which an install
# into some prefix (/opt/dtkit, a staging tree) must never touch: they are a
# component of their own that only a component install (the packages) puts
# in place, packaged with the tools.
set(_unit_dir /lib/systemd/system)
set(_default_dir /etc/default)
set(_conf_dir /etc/dtkit)
set(_svc EXCLUDE_FROM_ALL COMPONENT service)
install(FILES ${_pkg}/dtconfigd.service DESTINATION ${_unit_dir} ${_svc})
install(FILES ${_pkg}/dtconfigd.default DESTINATION ${_default_dir} RENAME dtconfigd ${_svc})
install(FILES ${_pkg}/dtconfigd.conf DESTINATION ${_conf_dir} ${_svc})
set(_conffiles "${_default_dir}/dtconfigd\n${_conf_dir}/dtconfigd.conf\n")
if(TARGET dtkit_exporter)
  install(FILES ${_pkg}/dtkit_exporter.service DESTINATION ${_unit_dir} ${_svc})
  install(FILES ${_pkg}/dtkit_exporter.default DESTINATION ${_default_dir} RENAME dtkit_exporter ${_svc})
  string(APPEND _conffiles "${_default_dir}/dtkit_exporter\n")
endif()

# Every package carries the copyright file and the changelog Debian expects.
string(REPLACE ";" " " _units_text "${DTKIT_UNITS}")
set(DTKIT_UNITS "${_units_text}")
configure_file(${_pkg}/changelog.in ${_gen}/changelog @ONLY)
foreach(script postinst prerm postrm)
  # CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION gives them mode 0755.
  configure_file(${_pkg}/${script}.in ${_gen}/tools/${script} @ONLY)
endforeach()
file(WRITE ${_gen}/tools/conffiles "${_conffiles}")
find_program(DTKIT_GZIP gzip)
if(DTKIT_GZIP)
  # -n keeps the time stamp out, so the packages build the same twice.
  add_custom_command(OUTPUT ${_gen}/changelog.Debian.gz
    COMMAND ${DTKIT_GZIP} -9nc ${_gen}/changelog > ${_gen}/changelog.Debian.gz
    DEPENDS ${_gen}/changelog)
  add_custom_target(dtkit_deb_changelog ALL DEPENDS ${_gen}/changelog.Debian.gz)
endif()
set(_deb_names lib libdtkit0 dev libdtkit-dev tools dtkit-tools)
foreach(comp lib dev tools)
  list(FIND _deb_names ${comp} i)
  math(EXPR i "${i} + 1")
  list(GET _deb_names ${i} name)
  install(FILES ${_pkg}/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${comp})
  if(DTKIT_GZIP)
    install(FILES ${_gen}/changelog.Debian.gz DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${comp})
  endif()
endforeach()

set(CPACK_PACKAGE_NAME dtkit)
set(CPACK_PACKAGE_VENDOR "dtkit developers")
set(CPACK_PACKAGE_CONTACT "dtkit developers <dtkit@example.org>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL lib dev tools service)
# One package per group; the service files go with the tools.
set(CPACK_COMPONENT_LIB_GROUP lib)
set(CPACK_COMPONENT_DEV_GROUP dev)
set(CPACK_COMPONENT_TOOLS_GROUP tools)
set(CPACK_COMPONENT_SERVICE_GROUP tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${DTKIT_DEB_RELEASE})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://dtkit.example.org/")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY "=")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_LIB_PACKAGE_NAME libdtkit0)
set(CPACK_DEBIAN_LIB_PACKAGE_SECTION libs)
# CPack formats the extended description itself: a space before each line, a
# lone dot for each empty one.
set(CPACK_DEBIAN_LIB_DESCRIPTION "diagnostics library for embedded Linux service processes
dtkit gives a service process accounted memory, a fault registry saved to a
fault file, ring-buffer logs, text tables, timers, a configuration query
and a data-collection agent that streams the host's diagnostics to a
remote collector.

This package holds the shared library.")
# The loader's cache is refreshed by dpkg's trigger, not by a script.
file(WRITE ${_gen}/lib/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_EXTRA ${_gen}/lib/triggers)

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libdtkit-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libdtkit0 (= ${DTKIT_DEB_VERSION})")
set(CPACK_DEBIAN_DEV_DESCRIPTION "diagnostics library for embedded Linux service processes (development)
dtkit gives a service process accounted memory, a fault registry, logs,
tables, timers, a configuration query and a data-collection agent.

This package holds the headers, the static library, the CMake package, the
pkg-config module and the dtkit(3) manual page.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME dtkit-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "servers and decoders for devices that run dtkit
The programs an operations machine needs for devices that use the dtkit
diagnostics library: dtcollect fetches their diagnostics, dtfcm decodes
their fault files, dtconfigd answers their configuration queries, and
dtkit_exporter (where built) serves their collections to Prometheus.
Service units for the two servers, their manual pages and a Wireshark
dissector for the protocols come with them.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA
  ${_gen}/tools/postinst ${_gen}/tools/prerm ${_gen}/tools/postrm ${_gen}/tools/conffiles)

include(CPack)
