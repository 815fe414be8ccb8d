# `cmake --install build --prefix P`: the header, libvarnel.so.0, a CMake package (varnel::varnel)
# and varnel.pc; sim/ and tools/ install their programs and the usbsim next to their targets.
include(CMakePackageConfigHelpers)

# The usbsim is a libusb-1.0.so.0: it gets a folder of its own so that it never shadows the real
# libusb. The tool finds it relative to its own place, so the tree can move as a whole.
set(VARNEL_INSTALL_USBSIMDIR ${CMAKE_INSTALL_LIBDIR}/varnel/usbsim)
file(RELATIVE_PATH VARNEL_USBSIM_FROM_BINDIR /root/${CMAKE_INSTALL_BINDIR}
     /root/${VARNEL_INSTALL_USBSIMDIR})
file(RELATIVE_PATH VARNEL_LIBDIR_FROM_BINDIR /root/${CMAKE_INSTALL_BINDIR} /root/${CMAKE_INSTALL_LIBDIR})
# udev reads <prefix>/lib/udev/rules.d for prefix /usr; elsewhere the file is there to be copied.
set(VARNEL_INSTALL_UDEVDIR lib/udev/rules.d)
file(RELATIVE_PATH VARNEL_UDEV_RULES_FROM_BINDIR /root/${CMAKE_INSTALL_BINDIR}
     /root/${VARNEL_INSTALL_UDEVDIR}/60-varnel.rules)

install(TARGETS varnel EXPORT varnelTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/varnel.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/packaging/udev/60-varnel.rules DESTINATION ${VARNEL_INSTALL_UDEVDIR})
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/varnel)

set(VARNEL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/varnel)
install(EXPORT varnelTargets NAMESPACE varnel:: DESTINATION ${VARNEL_CMAKEDIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/varnelConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/varnelConfig.cmake INSTALL_DESTINATION ${VARNEL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/varnelConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/varnelConfig.cmake ${PROJECT_BINARY_DIR}/varnelConfigVersion.cmake
        DESTINATION ${VARNEL_CMAKEDIR})

# The .pc file finds its prefix from its own folder, so an install with --prefix needs no
# reconfiguration.
file(RELATIVE_PATH VARNEL_PC_PREFIX_FROM_PCDIR /root/${CMAKE_INSTALL_LIBDIR}/pkgconfig /root)
string(REGEX REPLACE "/$" "" VARNEL_PC_PREFIX_FROM_PCDIR "${VARNEL_PC_PREFIX_FROM_PCDIR}")
configure_file(${PROJECT_SOURCE_DIR}/packaging/varnel.pc.in ${PROJECT_BINARY_DIR}/varnel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/varnel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
