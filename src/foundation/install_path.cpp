#include "foundation/install_path.h"

#include <cstdlib>

namespace traiklofox::foundation {

namespace {

CKZString installPathFromEnvironment() {
    const char* home = std::getenv("TWHOME");
    CKZString path = home != nullptr ? home : TRAIKLOFOX_DEFAULT_HOME;
    if (path.empty() || path.back() != '/') path += '/';
    return path;
}

}  // namespace

const CKZString& installPath() {
    static const auto& path = *new CKZString(installPathFromEnvironment());
    return path;
}

}  // namespace traiklofox::foundation
