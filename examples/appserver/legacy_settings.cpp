#include "legacy_settings.h"

#include <traiklofox/process.h>
#include <traiklofox/profiles.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <system_error>

namespace appserver {
namespace {

void get(const Words& arguments) {
    const char* file = arguments[0].c_str();
    // What others have changed within this clock tick is to be seen, too.
    WritePrivateProfileString(nullptr, nullptr, nullptr, file);
    const UINT number =
        GetPrivateProfileInt(arguments[1].c_str(), arguments[2].c_str(), /*defaultValue=*/0, file);
    std::printf("pid %u reads %u\n", static_cast<unsigned>(GetCurrentProcessId()), number);
}

void set(const Words& arguments) {
    if (!WritePrivateProfileString(arguments[1].c_str(), arguments[2].c_str(), arguments[3].c_str(),
                                   arguments[0].c_str()))
        throw std::system_error(errno, std::generic_category(), "cannot change " + arguments[0]);
}

}  // namespace

void addLegacyCommands(Conversation& conversation) {
    conversation.add("ini-get FILE SECTION KEY", get);
    conversation.add("ini-set FILE SECTION KEY VALUE", set);
}

}  // namespace appserver
