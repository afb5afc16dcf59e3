# The version has one home, project() in the top CMakeLists.txt; this adds the
# git revision of the source tree as it was at configure time ("unknown" when
# the tree is not a git checkout or git is missing) and writes rx/rxversion.h.
set(RX_GIT_REVISION "unknown")
find_package(Git QUIET)
if(GIT_FOUND)
  execute_process(COMMAND ${GIT_EXECUTABLE} rev-parse --short=12 HEAD
                  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
                  OUTPUT_VARIABLE rx_revision OUTPUT_STRIP_TRAILING_WHITESPACE
                  RESULT_VARIABLE rx_revision_status ERROR_QUIET)
  if(rx_revision_status EQUAL 0 AND rx_revision)
    set(RX_GIT_REVISION "${rx_revision}")
  endif()
endif()
set(RX_GENERATED_INCLUDE_DIR ${PROJECT_BINARY_DIR}/generated/include)
configure_file(${CMAKE_CURRENT_LIST_DIR}/rxversion.h.in ${RX_GENERATED_INCLUDE_DIR}/rx/rxversion.h @ONLY)
