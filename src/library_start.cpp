// library_start.cpp: the library's one constructor function. It starts the floors from the bottom up; nothing
// is torn down at exit, because threads of the library or the application may still run then.

#include "kernel/startup.h"
#include "registry/startup.h"

namespace {

__attribute__((constructor)) void startLibrary() {
    traiklofox::kernel::startKernel();
    traiklofox::registry::startRegistryFloor();
}

}  // namespace
