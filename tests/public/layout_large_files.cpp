#define _FILE_OFFSET_BITS 64
#include "public/layout.inc"

std::vector<traiklofox::test::LayoutEntry> traiklofox::test::layoutWithLargeFiles() {
    return layoutHere();
}
