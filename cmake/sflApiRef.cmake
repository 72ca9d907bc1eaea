# The API reference: section 3 manual pages written from
# lib/kqbase/sfl/sfl_api_ref.txt by cmake/sfl_apiref.py, installed with the
# headers, and two tests: every function of the API table has its entry
# (and every reason named is one the code defines), and the pages are
# clean roff.
find_program(SFL_PYTHON3 NAMES python3 HINTS /usr/bin REQUIRED)
set(_sfl_ref ${PROJECT_SOURCE_DIR}/lib/kqbase/sfl/sfl_api_ref.txt)
set(_sfl_ref_gen ${PROJECT_SOURCE_DIR}/cmake/sfl_apiref.py)
set(_sfl_man3_dir ${PROJECT_BINARY_DIR}/man3)
set(_sfl_man3_pages)
foreach(_page sfl_c sfl_refs sfl_files sfl_locks sfl_items sfl_internal sfl_streams sfl_blocked
              sfl_maintenance sfl_interest)
  list(APPEND _sfl_man3_pages ${_sfl_man3_dir}/${_page}.3)
endforeach()
add_custom_command(OUTPUT ${_sfl_man3_pages}
  COMMAND ${SFL_PYTHON3} ${_sfl_ref_gen} ${PROJECT_SOURCE_DIR} ${_sfl_man3_dir} ${PROJECT_VERSION}
  DEPENDS ${_sfl_ref} ${_sfl_ref_gen} ${PROJECT_SOURCE_DIR}/lib/kqbase/sfl/sfl_c_api.h
  COMMENT "Writing the section 3 manual pages" VERBATIM)
add_custom_target(sfl_man3 ALL DEPENDS ${_sfl_man3_pages})
# The family pages and, per function, a one-line page that includes its
# family's (so "man sfl_OpenItem" works).
install(DIRECTORY ${_sfl_man3_dir}/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 FILES_MATCHING PATTERN "*.3")

if(SFL_BUILD_TESTS)
  add_test(NAME apiref_complete
           COMMAND ${SFL_PYTHON3} ${_sfl_ref_gen} --check ${PROJECT_SOURCE_DIR})
  add_test(NAME apiref_pages_valid
           COMMAND sh ${PROJECT_SOURCE_DIR}/cmake/sfl_man3_check.sh ${_sfl_man3_dir}
                   ${_sfl_man3_pages})
endif()
