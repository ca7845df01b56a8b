#pragma once

// server_load.h: how busy the server is, published for other processes, and which processes an instance has.

#include "conversation.h"

#include <traiklofox/load_region.h>

#include <string>

namespace appserver {

/// The server's side: its load is there for others for as long as the object lives.
class ServerLoad {
  public:
    explicit ServerLoad(const std::string& instance);
    ServerLoad(const ServerLoad&) = delete;
    ServerLoad& operator=(const ServerLoad&) = delete;
    ~ServerLoad() { DetachLoadBalancingRegion(region_); }

    void publish(DWORD percent);

  private:
    DWORD* region_ = nullptr;
};

/// Adds "read-load INSTANCE" and "list-processes INSTANCE", for any process.
void addLoadCommands(Conversation& conversation);

}  // namespace appserver
