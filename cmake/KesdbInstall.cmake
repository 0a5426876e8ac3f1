# Install rules and the files by which applications find the installed library.
#
# Layout (relative to the prefix; GNUInstallDirs decides lib vs. lib64 or a multiarch dir):
#   lib/libkesdbm.so.1.0.0, .so.1, .so         the library     (Runtime; .so: Development)
#   lib/libkesosw.so.1.0.0, .so.1, .so         its wrapper     (Runtime; .so: Development)
#   lib/kesdbm/libkesdrv_file.so               medium drivers  (Runtime)
#   lib/kesdbm/libkesdrv_mmap.so
#   lib/kesdbm/libkeshook_sample.so            sample hooks    (Runtime)
#   include/kesdbm/*.h                         public headers  (Development)
#   lib/cmake/kesdbm/                          find_package(kesdbm)  (Development)
#   lib/pkgconfig/kesdbm.pc                    pkg-config      (Development)
#   bin/kesdb, share/man/man1/kesdb.1          the tool        (Tools)
#   share/bash-completion/completions/kesdb    its completion  (Tools)
#   share/doc/kesdbm/                          guide, API reference when built (Documentation)
include(CMakePackageConfigHelpers)

set(KESDB_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kesdbm CACHE STRING
  "Directory of the CMake package files, relative to the prefix")
mark_as_advanced(KESDB_CMAKE_DIR KESDB_INSTALL_MODULEDIR)

install(TARGETS kesdbm kesosw EXPORT kesdbmTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# Drivers and hook samples shipped for devices. The fault-injection driver is for tests only.
set(KESDB_SHIPPED_MODULES kesdrv_file kesdrv_mmap keshook_sample)
foreach(module ${KESDB_SHIPPED_MODULES})
  if(TARGET ${module})
    install(TARGETS ${module} EXPORT kesdbmTargets
      LIBRARY DESTINATION ${KESDB_INSTALL_MODULEDIR} COMPONENT Runtime)
  endif()
endforeach()

install(DIRECTORY ${CMAKE_SOURCE_DIR}/include/kesdbm
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development
  FILES_MATCHING PATTERN "*.h")

if(TARGET kesdb)
  install(TARGETS kesdb RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Tools)
  install(FILES ${CMAKE_SOURCE_DIR}/tools/kesdb.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT Tools)
  install(FILES ${CMAKE_SOURCE_DIR}/tools/kesdb.bash-completion
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME kesdb COMPONENT Tools)
endif()

install(FILES ${CMAKE_SOURCE_DIR}/docs/guide.md ${CMAKE_SOURCE_DIR}/examples/guide/guide_example.c
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT Documentation)
# The API reference, when it was built (cmake --build BUILD --target docs).
install(DIRECTORY ${CMAKE_BINARY_DIR}/docs/html
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT Documentation OPTIONAL)

# find_package(kesdbm): imported targets kesdbm::kesdbm (the library), kesdbm::kesosw and the
# modules kesdbm::kesdrv_file, kesdbm::kesdrv_mmap, kesdbm::keshook_sample; KESDBM_MODULE_DIR
# names their directory.
install(EXPORT kesdbmTargets NAMESPACE kesdbm:: FILE kesdbmTargets.cmake
  DESTINATION ${KESDB_CMAKE_DIR} COMPONENT Development)
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/kesdbmConfig.cmake.in
  ${CMAKE_BINARY_DIR}/package/kesdbmConfig.cmake
  INSTALL_DESTINATION ${KESDB_CMAKE_DIR}
  PATH_VARS KESDB_INSTALL_MODULEDIR CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/package/kesdbmConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/package/kesdbmConfig.cmake
  ${CMAKE_BINARY_DIR}/package/kesdbmConfigVersion.cmake
  DESTINATION ${KESDB_CMAKE_DIR} COMPONENT Development)

# kesdbm.pc. Its prefix is the one the files are installed under: the configured prefix, or the
# one given to `cmake --install --prefix` (a staging directory); DESTDIR is not part of it, as
# image builders expect.
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(KESDB_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(KESDB_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
if(IS_ABSOLUTE "${KESDB_INSTALL_MODULEDIR}")
  set(KESDB_PC_MODULEDIR "${KESDB_INSTALL_MODULEDIR}")
else()
  set(KESDB_PC_MODULEDIR "\${prefix}/${KESDB_INSTALL_MODULEDIR}")
endif()
set(KESDB_PC_PREFIX "@KESDB_PC_PREFIX@")
configure_file(${CMAKE_SOURCE_DIR}/cmake/kesdbm.pc.in ${CMAKE_BINARY_DIR}/package/kesdbm.pc.in @ONLY)
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(KESDB_PC_DIR "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
else()
  set(KESDB_PC_DIR "\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig")
endif()
install(CODE "
  file(READ \"${CMAKE_BINARY_DIR}/package/kesdbm.pc.in\" _kesdb_pc)
  string(REPLACE \"@KESDB_PC_PREFIX@\" \"\${CMAKE_INSTALL_PREFIX}\" _kesdb_pc \"\${_kesdb_pc}\")
  set(_kesdb_pc_file \"\$ENV{DESTDIR}${KESDB_PC_DIR}/kesdbm.pc\")
  message(STATUS \"Installing: \${_kesdb_pc_file}\")
  file(WRITE \"\${_kesdb_pc_file}\" \"\${_kesdb_pc}\")
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${_kesdb_pc_file}\")
" COMPONENT Development)
