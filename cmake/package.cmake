# The Debian package, made by `make package`. Its dependencies are named here, because on a 64-bit machine the
# libraries that a 32-bit build finds belong to other packages than those that a 32-bit one would install.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
else()
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
endif()
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME traiklofox)
set(CPACK_PACKAGE_CONTACT "The traiklofox authors <traiklofox@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.36), libgcc-s1 (>= 12), libstdc++6 (>= 12)")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_STRIP_FILES ON)

# The lock file is made on the machine, if it is missing, and belongs to no package: an upgrade must not replace it.
get_filename_component(TRAIKLOFOX_LOCK_DIRECTORY ${TRAIKLOFOX_LOCK_FILE} DIRECTORY)
configure_file(cmake/postinst.in package/postinst @ONLY FILE_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
file(WRITE ${PROJECT_BINARY_DIR}/package/triggers "activate-noawait ldconfig\n")
# The template, which an upgrade leaves as the operator has made it.
file(WRITE ${PROJECT_BINARY_DIR}/package/conffiles "${TRAIKLOFOX_TEMPLATE_FILE}\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/package/postinst ${PROJECT_BINARY_DIR}/package/triggers
  ${PROJECT_BINARY_DIR}/package/conffiles)
include(CPack)
