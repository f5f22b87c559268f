# What `cmake --install` puts in place for hosts: the header, the library and
# its runtime (minitf unless a real libtensorflow was chosen), a pkg-config
# file and a CMake package (find_package(VideoAnalytics)).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Installed libraries find each other in their own folder, wherever the
# prefix is moved to.
set(VA_INSTALLED_LIBS videoanalytics)
if(NOT VA_TENSORFLOW_ROOT)
  list(APPEND VA_INSTALLED_LIBS minitf minitf_proto)
  install(FILES ${PROJECT_SOURCE_DIR}/minitf/include/tensorflow/c/c_api.h
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tensorflow/c)
endif()
set_target_properties(${VA_INSTALLED_LIBS} PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS ${VA_INSTALLED_LIBS}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/videoanalytics.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

file(RELATIVE_PATH VA_PC_TO_PREFIX "/root/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/root")
string(REGEX REPLACE "/$" "" VA_PC_TO_PREFIX "${VA_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/videoanalytics.pc.in
               ${CMAKE_CURRENT_BINARY_DIR}/videoanalytics.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/videoanalytics.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set(VA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/VideoAnalytics)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/VideoAnalyticsConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/VideoAnalyticsConfig.cmake
  INSTALL_DESTINATION ${VA_CMAKE_DIR}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/VideoAnalyticsConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/VideoAnalyticsConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/VideoAnalyticsConfigVersion.cmake
        DESTINATION ${VA_CMAKE_DIR})
