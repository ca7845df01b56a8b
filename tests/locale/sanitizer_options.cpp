// The C library loses the text of LOCPATH, split at its colons, whenever `newlocale` does not find a locale.

#if defined(__SANITIZE_ADDRESS__)

#include <sanitizer/lsan_interface.h>

// Visible, so that the sanitizer's own library finds it.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
    return "leak:argz_add_sep\n";
}

#endif
