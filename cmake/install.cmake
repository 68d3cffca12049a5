# `cmake --install`: the library with its SONAME, the public header, a CMake
# package (find_package(krfilter) gives krfilter::krfilter), a pkg-config file
# and the krfilter tool with its DICOM decoder.
include(CMakePackageConfigHelpers)

install(TARGETS krfilter EXPORT krfilterTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/krfilter/krfilter.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/krfilter)
if(TARGET krfilter_cli)
  # The installed tool finds the library installed beside it, wherever the prefix is.
  set_target_properties(krfilter_cli PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS krfilter_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(TARGETS krfilter_dicom_decoder RUNTIME DESTINATION ${KRFILTER_DECODER_DIR})
endif()

set(KRFILTER_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/krfilter)
install(EXPORT krfilterTargets NAMESPACE krfilter:: DESTINATION ${KRFILTER_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/krfilterConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/krfilterConfig.cmake INSTALL_DESTINATION ${KRFILTER_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/krfilterConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/krfilterConfig.cmake ${PROJECT_BINARY_DIR}/krfilterConfigVersion.cmake
        DESTINATION ${KRFILTER_CMAKE_DIR})

# pkg-config paths relative to the file's own folder, so that the tree may be
# installed under another prefix (cmake --install --prefix) or moved.
file(RELATIVE_PATH KRFILTER_PC_TO_PREFIX /root/${CMAKE_INSTALL_LIBDIR}/pkgconfig /root)
configure_file(${PROJECT_SOURCE_DIR}/cmake/krfilter.pc.in ${PROJECT_BINARY_DIR}/krfilter.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/krfilter.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
