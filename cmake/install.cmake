# What `make install` and the package put where: the library, its headers, the CMake package and the pkg-config file
# below the prefix; the registry template and the lock file at the absolute places that the library looks in.
include(CMakePackageConfigHelpers)

set(package_directory ${CMAKE_INSTALL_LIBDIR}/cmake/traiklofox)

install(TARGETS traiklofox EXPORT traiklofox LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/traiklofox DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(EXPORT traiklofox NAMESPACE traiklofox:: FILE traiklofoxTargets.cmake DESTINATION ${package_directory})
configure_package_config_file(cmake/traiklofoxConfig.cmake.in traiklofoxConfig.cmake
  INSTALL_DESTINATION ${package_directory})
write_basic_package_version_file(traiklofoxConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/traiklofoxConfig.cmake ${PROJECT_BINARY_DIR}/traiklofoxConfigVersion.cmake
  DESTINATION ${package_directory})
# Found from where the file itself stands, as the CMake package is.
set(pkgconfig_directory ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH pc_prefix ${pkgconfig_directory} ${CMAKE_INSTALL_PREFIX})
file(RELATIVE_PATH pc_libdir ${pkgconfig_directory} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH pc_includedir ${pkgconfig_directory} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
configure_file(cmake/traiklofox.pc.in traiklofox.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/traiklofox.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} RENAME copyright)

# The template is the operator's, who changes its owner, mode and text: it is installed only where it is missing. Of the
# lock file the inode is the key of the semaphore that all processes share: a new one would split them in two. So it is
# made only where it is missing, and on the machine that the package is installed on.
get_filename_component(template_directory ${TRAIKLOFOX_TEMPLATE_FILE} DIRECTORY)
get_filename_component(template_name ${TRAIKLOFOX_TEMPLATE_FILE} NAME)
set(template_source ${PROJECT_SOURCE_DIR}/examples/registry/tw.registry.template)
if(TRAIKLOFOX_PACKAGE)
  install(FILES ${template_source} DESTINATION ${template_directory} RENAME ${template_name})
else()
  install(CODE "
    if(EXISTS \"\$ENV{DESTDIR}${TRAIKLOFOX_TEMPLATE_FILE}\")
      message(STATUS \"Up-to-date: \$ENV{DESTDIR}${TRAIKLOFOX_TEMPLATE_FILE}\")
    else()
      file(INSTALL \"${template_source}\" DESTINATION \"${template_directory}\" RENAME \"${template_name}\")
    endif()
    set(lock_file \"\$ENV{DESTDIR}${TRAIKLOFOX_LOCK_FILE}\")
    if(EXISTS \"\${lock_file}\")
      message(STATUS \"Up-to-date: \${lock_file}\")
    else()
      message(STATUS \"Installing: \${lock_file}\")
      file(WRITE \"\${lock_file}\" \"\")
      file(CHMOD \"\${lock_file}\" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    endif()")
endif()

if(TRAIKLOFOX_PACKAGE)
  include(cmake/package.cmake)
endif()
