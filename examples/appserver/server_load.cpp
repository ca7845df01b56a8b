// server_load.cpp: the load stands in a named mapping; an instance's processes are known by their directory.

#include "server_load.h"

#include "owned_handle.h"

#include <traiklofox/file_mapping.h>
#include <traiklofox/process.h>
#include <traiklofox/process_list.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace appserver {
namespace {

constexpr DWORD kRegionBytes = 136;

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/// A reader maps the region itself: beginning it anew is the server's.
void readLoad(const Words& arguments) {
    const std::string name = "KZLoadValue" + arguments[0];
    const OwnedHandle mapping(CreateFileMapping(INVALID_HANDLE_VALUE, /*security=*/nullptr, PAGE_READWRITE,
                                                /*sizeHigh=*/0, kRegionBytes, name.c_str()));
    if (!mapping) fail("cannot open the load's mapping");
    const void* view = MapViewOfFile(mapping.get(), FILE_MAP_READ, 0, 0, 0);
    const DWORD load = KzGetServerLoad(static_cast<const DWORD*>(view));
    UnmapViewOfFile(view);
    if (load == LOAD_NO_SERVER)
        std::puts("no server");
    else
        std::printf("load %u\n", static_cast<unsigned>(load));
}

/// All processes of the machine.
std::vector<DWORD> allProcesses() {
    std::vector<DWORD> processes(256);
    for (;;) {
        const auto room = static_cast<DWORD>(processes.size() * sizeof(DWORD));
        DWORD bytes = 0;
        if (!EnumProcesses(processes.data(), room, &bytes)) fail("cannot list the processes");
        // What is no process counts against the room as well, so only ample room shows all.
        if (bytes < room / 2) {
            processes.resize(bytes / sizeof(DWORD));
            return processes;
        }
        processes.resize(2 * processes.size());
    }
}

void listProcesses(const Words& arguments) {
    for (const DWORD id : allProcesses()) {
        if (GetProcessInstanceName(id) != "/" + arguments[0]) continue;
        const OwnedHandle process(OpenProcess(/*access=*/0, /*inherit=*/FALSE, id));
        char program[MAX_PATH];
        if (GetModuleFileNameEx(process.get(), /*module=*/nullptr, program, sizeof program) == 0) continue;
        std::printf("%u %s\n", static_cast<unsigned>(id), program);
    }
}

}  // namespace

ServerLoad::ServerLoad(const std::string& instance) {
    const char* suffix = instance.c_str();
    if (!InitLoadBalancingRegion(/*mapping=*/nullptr, &region_, &suffix)) fail("cannot publish the load");
}

void ServerLoad::publish(DWORD percent) {
    if (!KzSetServerLoad(percent, region_)) throw std::runtime_error("a load is 0 to 100 per cent");
}

void addLoadCommands(Conversation& conversation) {
    conversation.add("read-load INSTANCE", readLoad);
    conversation.add("list-processes INSTANCE", listProcesses);
}

}  // namespace appserver
