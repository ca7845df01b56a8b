// helper.cpp: the process that the server keeps for work that may crash. Here it only waits to be let go: for the
// end of its standard input, which comes when the server closes the other end, or ends itself.

#include "roles.h"

#include <cstdio>

namespace appserver {

int runHelper() {
    while (std::getchar() != EOF) continue;
    return 0;
}

}  // namespace appserver
