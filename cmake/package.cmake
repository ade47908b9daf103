# Debian packages, one a component: libdif1, libdif-dev, dif-tools and nbdkit-dif-filter. They take a build for the prefix /usr.
find_program(SCDOC scdoc REQUIRED)

# dif_compressed(SOURCE NAME COMMAND): builds NAME.gz of what the shell command makes of the file SOURCE.
function(dif_compressed source name command)
  add_custom_command(OUTPUT ${name}.gz COMMAND sh -c "${command} <'${source}' | gzip -9n >'${name}.gz'"
    DEPENDS ${source} VERBATIM)
  set(dif_compressed_files ${dif_compressed_files} ${name}.gz PARENT_SCOPE)
endfunction()

dif_compressed(${PROJECT_SOURCE_DIR}/docs/difctl.1.scd difctl.1 ${SCDOC})
dif_compressed(${PROJECT_SOURCE_DIR}/docs/libdif.3.scd libdif.3 ${SCDOC})
dif_compressed(${PROJECT_SOURCE_DIR}/docs/nbdkit-dif-filter.1.scd nbdkit-dif-filter.1 ${SCDOC})
dif_compressed(${PROJECT_SOURCE_DIR}/CHANGELOG.md changelog cat)
set(dif_deb_version ${PROJECT_VERSION}-1)
set(dif_maintainer "libdif authors <maintainers@libdif.invalid>")
string(TIMESTAMP dif_deb_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(cmake/changelog.Debian.in changelog.Debian @ONLY)
dif_compressed(${PROJECT_BINARY_DIR}/changelog.Debian changelog.Debian cat)
add_custom_target(package_docs ALL DEPENDS ${dif_compressed_files})

install(FILES ${PROJECT_BINARY_DIR}/difctl.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
install(FILES ${PROJECT_BINARY_DIR}/nbdkit-dif-filter.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT nbdkit)
install(FILES ${PROJECT_BINARY_DIR}/libdif.3.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man3)

# dif_package(COMPONENT NAME SECTION DEPENDS SUMMARY DESCRIPTION)
macro(dif_package component name section depends summary description)
  install(FILES docs/copyright ${PROJECT_BINARY_DIR}/changelog.gz ${PROJECT_BINARY_DIR}/changelog.Debian.gz
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component})
  string(TOUPPER ${component} key)
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  set(CPACK_DEBIAN_${key}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${key}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${key}_PACKAGE_DEPENDS "${depends}")
  set(CPACK_DEBIAN_${key}_DESCRIPTION "${summary}\n${description}")
endmacro()

dif_package(runtime libdif1 libs ""
  "data integrity fields for block storage - libraries"
  "Writes an 8-byte integrity field behind every block of a storage stack,\n\
rewrites and checks it on the way, and tells which block is wrong and how.\n\
libdif works on contiguous buffers and scatter-gather lists; libdif_host\n\
supplies what libdif expects of the process that loads it.")
dif_package(dev libdif-dev libdevel "libdif1 (= ${dif_deb_version})"
  "data integrity fields for block storage - development files"
  "Headers, linker names, pkg-config and CMake files of libdif and libdif_host,\n\
and the manual page libdif(3).")
dif_package(tools dif-tools utils "libdif1 (= ${dif_deb_version})"
  "data integrity fields for block storage - command-line tool"
  "difctl writes, verifies, shows and rewrites the integrity fields of disk\n\
images.")
if(NOT TARGET nbdkit-dif-filter)
  message(FATAL_ERROR "The package nbdkit-dif-filter takes nbdkit-plugin-dev")
endif()
# A filter works with the version of nbdkit that it was built for alone.
dif_package(nbdkit nbdkit-dif-filter admin "nbdkit (>= ${NBDKIT_VERSION}), nbdkit (<< ${NBDKIT_VERSION}.~)"
  "data integrity fields for block storage - nbdkit filter"
  "Serves an image of blocks with integrity fields as a disk: every write gets its\n\
fields, every read is checked, and a block that fails is an I/O error.")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME dif)
set(CPACK_PACKAGE_CONTACT ${dif_maintainer})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has a first line of its own
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SOURCE dif)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
file(CONFIGURE OUTPUT triggers CONTENT "activate-noawait ldconfig\n")
# The trigger does what cpack's own scripts would; naming scripts that are not there keeps them out.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  ${PROJECT_BINARY_DIR}/triggers ${PROJECT_BINARY_DIR}/postinst ${PROJECT_BINARY_DIR}/postrm)
include(CPack)
