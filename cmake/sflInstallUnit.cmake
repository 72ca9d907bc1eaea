# Installs the systemd unit with the service program's installed path in
# place of the one the unit in dist/ names. Runs at install time, when the
# prefix is known; SFL_UNIT_SOURCE and SFL_UNIT_BINDIR are set beforehand.
file(READ "${SFL_UNIT_SOURCE}" _unit)
set(_monitor "${CMAKE_INSTALL_PREFIX}/${SFL_UNIT_BINDIR}/sfl-monitor")
string(FIND "${_unit}" "ExecStart=/usr/local/bin/sfl-monitor " _at)
if(_at LESS 0)
  message(FATAL_ERROR "${SFL_UNIT_SOURCE}: no ExecStart line naming /usr/local/bin/sfl-monitor")
endif()
string(REPLACE "ExecStart=/usr/local/bin/sfl-monitor " "ExecStart=${_monitor} " _unit "${_unit}")
set(_dest "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/lib/systemd/system")
file(MAKE_DIRECTORY "${_dest}")
file(WRITE "${_dest}/sfl-monitor.service" "${_unit}")
message(STATUS "Installing: ${_dest}/sfl-monitor.service")
