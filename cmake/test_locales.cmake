# The locales that the tests, fuzzers and benchmarks of dates read, whatever the machine has.
set(test_locales_directory ${PROJECT_BINARY_DIR}/locales)
add_custom_command(OUTPUT ${test_locales_directory}/missing
  COMMAND ${PROJECT_SOURCE_DIR}/scripts/make-locales ${test_locales_directory}
  DEPENDS ${PROJECT_SOURCE_DIR}/scripts/make-locales
  COMMENT "Building locales for the tests"
  VERBATIM)
add_custom_target(test_locales DEPENDS ${test_locales_directory}/missing)

# Tells the target where they are, and has them built for it.
function(traiklofox_use_test_locales target)
  add_dependencies(${target} test_locales)
  target_compile_definitions(${target} PRIVATE TRAIKLOFOX_TEST_LOCALES="${test_locales_directory}")
endfunction()
