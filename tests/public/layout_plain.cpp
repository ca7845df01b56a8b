#include "public/layout.inc"

std::vector<traiklofox::test::LayoutEntry> traiklofox::test::plainLayout() {
    return layoutHere();
}
