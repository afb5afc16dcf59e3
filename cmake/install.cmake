# Install rules, the CMake package (find_package(RXMemory)) and rxmemory.pc.
# An installed tree is relocatable: executables and libraries find each other
# through $ORIGIN-relative RUNPATHs, rxbroker finds its modules and the data
# folder relative to its own location, and the package files compute the
# prefix from where they are.
include(CMakePackageConfigHelpers)

# What module authors and clients include: values, errors, logging, the module
# base, brokers and proxies, the messaging layer under them, and the client
# session with the headers it includes (the connection and its codec).
set(RX_PUBLIC_HEADERS_rx
  rxvalue.h rxerror.h rxlog.h rttime.h rxfunctor.h rxmodule.h rxbroker.h rxbrokermanager.h
  rxproxy.h rxmemoryproxy.h rxcallcontext.h rxlivefeed.h)
set(RX_PUBLIC_HEADERS_mz
  anyvalue.h typeconv.h future.h signal.h object.h session.h os.h datapath.h)
set(RX_PUBLIC_HEADERS_net
  clientsession.h connection.h endpoint.h wirecodec.h msgpackreader.h msgpackwriter.h)
set(rx_include_dest ${CMAKE_INSTALL_INCLUDEDIR}/rxmemory)
foreach(dir rx mz net)
  list(TRANSFORM RX_PUBLIC_HEADERS_${dir} PREPEND ${PROJECT_SOURCE_DIR}/platform/${dir}/ OUTPUT_VARIABLE files)
  install(FILES ${files} DESTINATION ${rx_include_dest}/${dir})
endforeach()
install(FILES ${RX_GENERATED_INCLUDE_DIR}/rx/rxversion.h DESTINATION ${rx_include_dest}/rx)

install(TARGETS rxplatform EXPORT RXMemoryTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${rx_include_dest})
install(TARGETS rxbroker rxmemory_cli EXPORT RXMemoryTargets RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS rxmemory LIBRARY DESTINATION ${RX_INSTALL_MODULEDIR})
# Where bash-completion looks for a command's completion when first used.
install(FILES ${PROJECT_SOURCE_DIR}/apps/rxmemory/completion/rxmemory.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME rxmemory)

# The data folder: the memory looks for tavro/rxmemory_map_signal_event.txt
# there (after --data-path and RX_DATA_PATH); an example sits beside it.
install(FILES ${PROJECT_SOURCE_DIR}/packaging/rxmemory_map_signal_event.txt.example
        DESTINATION ${RX_INSTALL_DATADIR}/tavro)
# The live view's page, script and style, served by rxbroker at /live.
install(FILES ${RX_WEB_LIVE_FILES} DESTINATION ${RX_INSTALL_DATADIR}/web/live)

# The service unit names the installed broker, so it is written at install
# time, when the prefix is known (cmake --install --prefix, or CPack's /usr).
install(CODE "
  set(RX_BINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
  set(rx_unit \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/lib/systemd/system/rxbroker.service\")
  message(STATUS \"Installing: \${rx_unit}\")
  configure_file(\"${PROJECT_SOURCE_DIR}/packaging/rxbroker.service.in\" \"\${rx_unit}\" @ONLY)
")

set(rx_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/RXMemory)
install(EXPORT RXMemoryTargets NAMESPACE RX:: DESTINATION ${rx_cmake_dir})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/RXMemoryConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/RXMemoryConfig.cmake
                              INSTALL_DESTINATION ${rx_cmake_dir}
                              PATH_VARS RX_INSTALL_MODULEDIR)
# Within one minor version the interface stays compatible (0.x: minor steps may break it).
write_basic_package_version_file(${PROJECT_BINARY_DIR}/RXMemoryConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/RXMemoryConfig.cmake ${PROJECT_BINARY_DIR}/RXMemoryConfigVersion.cmake
        DESTINATION ${rx_cmake_dir})

file(RELATIVE_PATH RX_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" RX_PC_TO_PREFIX "${RX_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/rxmemory.pc.in ${PROJECT_BINARY_DIR}/rxmemory.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/rxmemory.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
