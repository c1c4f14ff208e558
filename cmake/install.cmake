# cmake --install build --prefix P: the receiver library with a versioned soname and its header,
# the zfnisdbt program, the libraries the receiver loads by name (device access, simulator,
# plotting bridge) beside it, the built-in programme, a pkg-config file, a CMake package, the man
# page and the licence. Nothing of the build's paths goes into what is installed: the program finds
# the library through $ORIGIN, and the library finds the libraries it loads in its own directory.
include(CMakePackageConfigHelpers)

file(RELATIVE_PATH zfn_bin_to_lib "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
set_target_properties(ZFNISDBT PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
                                          INSTALL_RPATH "$ORIGIN")
target_include_directories(ZFNISDBT INTERFACE $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/include>
                                              $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
set_target_properties(zfnisdbt PROPERTIES INSTALL_RPATH "$ORIGIN/${zfn_bin_to_lib}")

install(TARGETS ZFNISDBT EXPORT ZFNISDBTTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS zfnisdbt RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS zfn_device_library BDA_simu zfn_probe_bridge LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${CMAKE_SOURCE_DIR}/include/zfnisdbt.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${CMAKE_SOURCE_DIR}/simulator/fixtures/programme.ts DESTINATION ${CMAKE_INSTALL_LIBDIR}/zfnisdbt)
install(FILES ${CMAKE_SOURCE_DIR}/doc/zfnisdbt.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_SOURCE_DIR}/LICENSE ${CMAKE_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})

# pkg-config: the prefix is found from the file's own place, so any --prefix works.
set(zfn_pc_dir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
file(RELATIVE_PATH zfn_pc_to_prefix "/prefix/${zfn_pc_dir}" "/prefix")
string(REGEX REPLACE "/$" "" zfn_pc_to_prefix "${zfn_pc_to_prefix}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/zfnisdbt.pc.in ${CMAKE_BINARY_DIR}/zfnisdbt.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/zfnisdbt.pc DESTINATION ${zfn_pc_dir})

# find_package(ZFNISDBT): the imported target ZFNISDBT::ZFNISDBT.
set(zfn_cmake_dir "${CMAKE_INSTALL_LIBDIR}/cmake/ZFNISDBT")
install(EXPORT ZFNISDBTTargets NAMESPACE ZFNISDBT:: DESTINATION ${zfn_cmake_dir})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/ZFNISDBTConfig.cmake.in
                              ${CMAKE_BINARY_DIR}/ZFNISDBTConfig.cmake INSTALL_DESTINATION ${zfn_cmake_dir})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/ZFNISDBTConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/ZFNISDBTConfig.cmake ${CMAKE_BINARY_DIR}/ZFNISDBTConfigVersion.cmake
        DESTINATION ${zfn_cmake_dir})
