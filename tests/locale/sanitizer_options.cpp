// The C library loses the text of LOCPATH, split at its colons, whenever `newlocale` does not find a locale.

#if defined(__SANITIZE_ADDRESS__)

#include <sanitizer/lsan_interface.h>

extern "C" const char* __lsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier)
    return "leak:argz_add_sep\n";
}

#endif
