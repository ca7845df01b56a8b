// main.cpp: a small application server, an example of what the library is for. One program, several processes:
//
//     appserver demo [--template FILE]    starts the others on a fresh installation and gives an account of them
//     appserver server                    the server
//     appserver helper                    a process that the server starts for itself
//     appserver connector NAME            a web server's connector to it
//     appserver admin [COMMAND ...]       an administrator, who works with kzreg
//
// Server, connector and administration use the registry of the installation that the environment variable TWHOME
// names.

#include "demo.h"
#include "roles.h"

#include <cstdio>
#include <exception>

namespace {

int run(const appserver::Words& words) {
    if (!words.empty()) {
        const std::string& role = words.front();
        const appserver::Words rest(words.begin() + 1, words.end());
        if (role == "demo") return appserver::runDemo(rest);
        if (role == "server" && rest.empty()) return appserver::runServer();
        if (role == "connector" && rest.size() == 1) return appserver::runConnector(rest.front());
        if (role == "helper" && rest.empty()) return appserver::runHelper();
        if (role == "admin") return appserver::runAdmin(rest);
    }
    std::fputs(
        "usage: appserver demo [--template FILE] | server | helper | connector NAME | admin [COMMAND ...]\n",
        stderr);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(appserver::Words(argv + 1, argv + argc));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "appserver: %s\n", error.what());
        return 1;
    }
}
