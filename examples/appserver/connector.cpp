// connector.cpp: a web server's connector process. The server has made the registry before any connector
// starts, so a connector only attaches to it.

#include "legacy_settings.h"
#include "registry_key.h"
#include "roles.h"
#include "server_load.h"
#include "setting_commands.h"

#include <cstdio>

namespace appserver {

int runConnector(const std::string& name) {
    InitRegistry(/*flags=*/0, /*create=*/false);
    {
        const RegistryKey settings = RegistryKey::open("connectors/" + name);
        std::printf("%s hands %s to %s:%u\n", name.c_str(), settings.read("Paths").c_str(),
                    settings.read("ServerAddress").c_str(),
                    static_cast<unsigned>(settings.readNumber("ServerPort")));
    }
    Conversation conversation;
    addSettingCommands(conversation);
    addLegacyCommands(conversation);
    addLoadCommands(conversation);
    conversation.hold();
    return 0;
}

}  // namespace appserver
