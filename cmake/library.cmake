# The sources are compiled once; the shared library and the static one (for tests that need what is hidden) are
# made from the same objects.
file(GLOB_RECURSE traiklofox_sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/*.cpp)

add_library(traiklofox_objects OBJECT ${traiklofox_sources})
target_link_libraries(traiklofox_objects PRIVATE traiklofox_flags)
target_include_directories(traiklofox_objects PUBLIC ${PROJECT_SOURCE_DIR}/include PRIVATE ${PROJECT_SOURCE_DIR}/src)
# Large files and inodes never make a call fail; no public declaration changes with this macro.
target_compile_definitions(traiklofox_objects PRIVATE
  _FILE_OFFSET_BITS=64
  TRAIKLOFOX_LOCK_FILE="${TRAIKLOFOX_LOCK_FILE}"
  TRAIKLOFOX_TEMPLATE_FILE="${TRAIKLOFOX_TEMPLATE_FILE}"
  TRAIKLOFOX_DEFAULT_HOME="${TRAIKLOFOX_DEFAULT_HOME}")
if(TRAIKLOFOX_CHECK_LOCK_ORDER)
  target_compile_definitions(traiklofox_objects PRIVATE TRAIKLOFOX_CHECK_LOCK_ORDER)
endif()
# True because of -Bsymbolic below: the exported functions are inlined and called directly, too.
target_compile_options(traiklofox_objects PRIVATE -fno-semantic-interposition)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(traiklofox_objects PRIVATE -Wglobal-constructors -Wexit-time-destructors)
endif()

# Many small functions, which inlined read a date in two thirds of the time, and render one in five sixths.
if(NOT TRAIKLOFOX_COVERAGE)
  set_source_files_properties(${PROJECT_SOURCE_DIR}/src/locale/date_parser.cpp
    ${PROJECT_SOURCE_DIR}/src/locale/date_renderer.cpp PROPERTIES COMPILE_OPTIONS -O3)
endif()

add_library(traiklofox SHARED $<TARGET_OBJECTS:traiklofox_objects>)
add_library(traiklofox::traiklofox ALIAS traiklofox)
target_include_directories(traiklofox INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
set_target_properties(traiklofox PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
# An application's own class of one of our names replaces nothing inside the library. The exported variables are the
# exception, because an application that is no position-independent executable has the copies that count.
file(GLOB public_headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/traiklofox/*.h)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${public_headers})
set(exported_variables "")
foreach(header ${public_headers})
  file(STRINGS ${header} lines REGEX "^extern TRAIKLOFOX_API .*;")
  foreach(line ${lines})
    string(REGEX REPLACE "^.*[ *]([A-Za-z_0-9]+)(\\[[0-9]+\\])?;.*$" "\\1" name "${line}")
    string(APPEND exported_variables "  ${name};\n")
  endforeach()
endforeach()
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/exported_variables.list CONTENT "{\n${exported_variables}};\n")
target_link_options(traiklofox PRIVATE -Wl,-Bsymbolic
  -Wl,--dynamic-list=${PROJECT_BINARY_DIR}/exported_variables.list)
if(TRAIKLOFOX_COVERAGE)
  target_link_options(traiklofox PRIVATE --coverage -Wl,--exclude-libs,libgcov.a)  # it exports a name
endif()
if(NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")  # a sanitizer's functions come with the program
  target_link_options(traiklofox PRIVATE -Wl,-z,defs)
endif()

add_library(traiklofox_static STATIC $<TARGET_OBJECTS:traiklofox_objects>)
target_include_directories(traiklofox_static INTERFACE ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src)
target_compile_definitions(traiklofox_static INTERFACE _FILE_OFFSET_BITS=64)
if(TRAIKLOFOX_CHECK_LOCK_ORDER)  # inline functions of the library's own headers have it in them
  target_compile_definitions(traiklofox_static INTERFACE TRAIKLOFOX_CHECK_LOCK_ORDER)
endif()
