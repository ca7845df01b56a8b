#define _LARGEFILE64_SOURCE
#include "public/layout.inc"

std::vector<traiklofox::test::LayoutEntry> traiklofox::test::layoutWithLargeFileSource() {
    return layoutHere();
}
