# `make package`: a Debian package of the install tree with prefix /usr,
# rxmemory_VERSION_ARCH.deb, its dependencies on Debian's runtime libraries
# found by dpkg-shlibdeps.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME rxmemory)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "RXMemory developers")
set(CPACK_PACKAGE_CONTACT "RXMemory developers <rxmemory@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "memory and event hub of a robot: broker, client and SDK")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "rxbroker hosts the memory module, where the robot's modules store and read named\n\
values and raise and follow events; rxmemory works it from a shell. Includes the\n\
framework library with its headers, CMake package and pkg-config file for module\n\
authors and clients, the Python package rxmemory, and the systemd unit rxbroker.service.")
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# The service unit is written with the prefix seen at install time, which must
# then be /usr, not CPack's staging folder: stage through DESTDIR.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Building modules and clients against the package needs Boost's headers.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "libboost${RX_BOOST_MAJOR_MINOR}-dev, pkg-config, cmake")
# Reload systemd's view of the unit; enabling it is the administrator's call.
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/postinst ${CMAKE_CURRENT_LIST_DIR}/prerm
    ${CMAKE_CURRENT_LIST_DIR}/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# The Python package (in Python's dist-packages) needs the interpreter it was built for.
if(RX_PYTHON_BUILT)
  set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "python3 (>= ${RX_PYTHON_MINOR}), python3 (<< ${RX_PYTHON_MINOR}.99)")
endif()
include(CPack)
