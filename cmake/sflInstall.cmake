# Install rules: `cmake --install <build> --prefix P` (or `make install
# PREFIX=P`) lays down the public headers, the shared and static library,
# the tool and the service program, a pkg-config file, a CMake package
# exporting sfl::sfl, the systemd unit and the manual pages.
include(CMakePackageConfigHelpers)

set(SFL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/sfl)

# The public headers (SFL_PUBLIC_HEADERS, lib/kqbase/CMakeLists.txt).
install(FILES ${SFL_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/sfl)

install(TARGETS sfl EXPORT sflTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/sfl)
# The static library, installed as libsfl.a; a static user links the C++
# runtime too (see Libs.private in sfl.pc).
install(FILES $<TARGET_FILE:sfl_static> DESTINATION ${CMAKE_INSTALL_LIBDIR} RENAME libsfl.a)

# The tool loads the shared library from the installed library directory.
file(RELATIVE_PATH _sfl_bin_to_lib /p/${CMAKE_INSTALL_BINDIR} /p/${CMAKE_INSTALL_LIBDIR})
set_target_properties(sfl_cli PROPERTIES INSTALL_RPATH "$ORIGIN/${_sfl_bin_to_lib}")
install(TARGETS sfl_cli sfl-monitor RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# pkg-config: the prefix is found from the .pc file's own place, so the
# installed tree works under whatever prefix it was installed to.
file(RELATIVE_PATH _sfl_pc_to_prefix /p/${CMAKE_INSTALL_LIBDIR}/pkgconfig /p)
string(REGEX REPLACE "/$" "" _sfl_pc_to_prefix "${_sfl_pc_to_prefix}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/sfl.pc.in ${PROJECT_BINARY_DIR}/sfl.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/sfl.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The CMake package.
install(EXPORT sflTargets NAMESPACE sfl:: DESTINATION ${SFL_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/sflConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/sflConfig.cmake INSTALL_DESTINATION ${SFL_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/sflConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/sflConfig.cmake ${PROJECT_BINARY_DIR}/sflConfigVersion.cmake
        DESTINATION ${SFL_CMAKE_DIR})

# The systemd unit, naming the service program where this install put it
# (the prefix is known only when installing).
install(CODE "set(SFL_UNIT_SOURCE [[${PROJECT_SOURCE_DIR}/dist/sfl-monitor.service]])
set(SFL_UNIT_BINDIR [[${CMAKE_INSTALL_BINDIR}]])")
install(SCRIPT ${PROJECT_SOURCE_DIR}/cmake/sflInstallUnit.cmake)

# Manual pages, made from the programs' own --help at build time: sfl writes
# sfl(1) and a page per command (sfl-put(1), ...) from its command tables.
set(_sfl_man1 ${PROJECT_BINARY_DIR}/man1/sfl.1)
set(_sfl_man8 ${PROJECT_BINARY_DIR}/man/sfl-monitor.8)
add_custom_command(OUTPUT ${_sfl_man1}
  COMMAND $<TARGET_FILE:sfl_cli> --man-pages ${PROJECT_BINARY_DIR}/man1
  DEPENDS sfl_cli VERBATIM)
add_custom_command(OUTPUT ${_sfl_man8}
  COMMAND ${CMAKE_COMMAND} -DPROGRAM=$<TARGET_FILE:sfl-monitor> -DNAME=sfl-monitor -DSECTION=8
          "-DSUMMARY=the sfl interest service" -DVERSION=${PROJECT_VERSION}
          -DOUT=${_sfl_man8} -P ${PROJECT_SOURCE_DIR}/cmake/sflManPage.cmake
  DEPENDS sfl-monitor ${PROJECT_SOURCE_DIR}/cmake/sflManPage.cmake VERBATIM)
add_custom_target(sfl_man ALL DEPENDS ${_sfl_man1} ${_sfl_man8})
install(DIRECTORY ${PROJECT_BINARY_DIR}/man1/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
        FILES_MATCHING PATTERN "*.1")
install(FILES ${_sfl_man8} DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
