# What `cmake --install` puts in place: the libraries, shared and static, their headers, difctl, the manual pages, and how
# pkg-config and CMake find them. Everything is found relative to where it lies, so that any prefix works, one given at
# installation included; pkg-config's files of a build for /usr are for that alone. The components are runtime, host, tools,
# nbdkit and, where none is named, dev.
include(CMakePackageConfigHelpers)

install(TARGETS dif EXPORT difTargets LIBRARY COMPONENT runtime NAMELINK_COMPONENT dev)
install(TARGETS dif_host EXPORT difTargets LIBRARY COMPONENT host)
foreach(library dif dif_host)
  add_library(${library}_static STATIC $<TARGET_OBJECTS:${library}_code>)
  set_target_properties(${library}_static PROPERTIES OUTPUT_NAME ${library})
  install(TARGETS ${library}_static)
endforeach()
install(DIRECTORY include/dif DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(DIRECTORY platform/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/dif/platform FILES_MATCHING PATTERN "*.h")
install(FILES host/dif_host.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

file(RELATIVE_PATH dif_libdir_from_bindir ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set_target_properties(difctl PROPERTIES INSTALL_RPATH "$ORIGIN/${dif_libdir_from_bindir}")
install(TARGETS difctl RUNTIME COMPONENT tools)
install(FILES completions/difctl.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME difctl
  COMPONENT tools)

if(TARGET nbdkit-dif-filter)
  install(TARGETS nbdkit-dif-filter LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/nbdkit/filters COMPONENT nbdkit)
endif()

# dif_compressed(SOURCE NAME COMMAND): builds NAME.gz of what the shell command makes of the file SOURCE.
function(dif_compressed source name command)
  add_custom_command(OUTPUT ${name}.gz COMMAND sh -c "${command} <'${source}' | gzip -9n >'${name}.gz'"
    DEPENDS ${source} VERBATIM)
  add_custom_target(compress_${name} ALL DEPENDS ${PROJECT_BINARY_DIR}/${name}.gz)
endfunction()

# dif_manual_page(SECTION NAME COMPONENT)
function(dif_manual_page section name component)
  dif_compressed(${PROJECT_SOURCE_DIR}/docs/${name}.${section}.scd ${name}.${section} ${SCDOC})
  install(FILES ${PROJECT_BINARY_DIR}/${name}.${section}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section}
    COMPONENT ${component})
endfunction()

find_program(SCDOC scdoc)
if(SCDOC)
  dif_manual_page(1 difctl tools)
  dif_manual_page(3 libdif dev)
  if(TARGET nbdkit-dif-filter)
    dif_manual_page(1 nbdkit-dif-filter nbdkit)
  endif()
else()
  message(STATUS "scdoc is not there: no manual pages")
endif()

# A path that pkg-config knows as the system's, and leaves out of its answers, must be absolute.
set(dif_pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(dif_pkgconfig_prefix ${CMAKE_INSTALL_PREFIX})
if(NOT dif_pkgconfig_prefix STREQUAL "/usr")
  file(RELATIVE_PATH dif_pkgconfig_prefix ${CMAKE_INSTALL_PREFIX}/${dif_pkgconfig_dir} ${CMAKE_INSTALL_PREFIX})
  set(dif_pkgconfig_prefix "\${pcfiledir}/${dif_pkgconfig_prefix}")
endif()
foreach(library dif dif_host)
  configure_file(cmake/${library}.pc.in ${library}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${library}.pc DESTINATION ${dif_pkgconfig_dir})
endforeach()

set(dif_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/dif)
configure_package_config_file(cmake/difConfig.cmake.in difConfig.cmake INSTALL_DESTINATION ${dif_cmake_dir})
write_basic_package_version_file(difConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/difConfig.cmake ${PROJECT_BINARY_DIR}/difConfigVersion.cmake
  DESTINATION ${dif_cmake_dir})
install(EXPORT difTargets NAMESPACE dif:: DESTINATION ${dif_cmake_dir})
