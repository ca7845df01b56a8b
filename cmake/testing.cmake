# How every test is run.
set(TRAIKLOFOX_TEST_TIMEOUT 300 CACHE STRING "Seconds that one test may take")

# gcc 12's thread sanitizer cannot place its shadow memory where the kernel randomizes more than 30 bits.
set(traiklofox_test_launcher)
if(CMAKE_CXX_FLAGS MATCHES "-fsanitize=thread")
  set(traiklofox_test_launcher setarch --addr-no-randomize)
endif()

# Sanitizers' reports end a test at once; the exit status 66 is theirs, so that a role's own status differs.
string(CONCAT traiklofox_test_environment "ASAN_OPTIONS=exitcode=66;UBSAN_OPTIONS=print_stacktrace=1;"
  "TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:exitcode=66")
