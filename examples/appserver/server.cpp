// server.cpp: the application server's main process.

#include "deploy_watcher.h"
#include "helper_supervisor.h"
#include "lazy_writer.h"
#include "legacy_settings.h"
#include "request_service.h"
#include "roles.h"
#include "server_load.h"
#include "server_log.h"
#include "setting_commands.h"
#include "setting_watcher.h"

#include <traiklofox/registry.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>

namespace appserver {
namespace {

constexpr DWORD kNoticeMs = 30000;

class Server {
  public:
    explicit Server(const std::filesystem::path& logFile) : log_(logFile) { log_.add("server starts"); }

    void watch(const Words& arguments) {
        watcher_.reset();
        watcher_ = std::make_unique<SettingWatcher>(arguments[0], arguments[1]);
    }

    void awaitChange() {
        if (!watcher_) throw std::runtime_error("nothing is being watched");
        std::printf("noticed %u\n", static_cast<unsigned>(watcher_->awaitChange(kNoticeMs)));
    }

    void startLazyWriter(const Words& arguments) {
        lazyWriter_.reset();
        lazyWriter_.emplace(static_cast<DWORD>(std::stoul(arguments[0])));
        log_.add("lazy writer starts");
    }

    void stopLazyWriter() {
        lazyWriter_.reset();
        log_.add("lazy writer has stopped");
    }

    void startHelper() {
        helper_.reset();
        helper_.emplace();
        log_.add("helper starts");
        tellHelper();
    }

    void awaitHelper() {
        if (!helper_) throw std::runtime_error("no helper is wanted");
        std::printf("code %u\n", static_cast<unsigned>(helper_->awaitRestart(kNoticeMs)));
        log_.add("helper has crashed and is replaced");
        tellHelper();
    }

    void stopHelper() {
        if (!helper_) throw std::runtime_error("no helper is wanted");
        std::printf("code %u\n", static_cast<unsigned>(helper_->finish()));
        helper_.reset();
        log_.add("helper has stopped");
    }

    /// The date first, as it was understood.
    void logSince(const Words& arguments) {
        const CDateTime date = typedDate(arguments[0]);
        std::printf("since %s\n", date.Format(VAR_DATEVALUEONLY).c_str());
        for (const std::string& line : log_.since(date)) std::puts(line.c_str());
    }

    void serve(const Words& arguments) {
        const auto [workers, reports] = RequestService(arguments[0]).serve(std::stoul(arguments[1]));
        std::printf("workers %u\nreports %u\n", workers, reports);
        log_.add("has served " + arguments[1] + " requests");
    }

    void watchDeploy(const Words& arguments) {
        deploy_.reset();
        deploy_.emplace(arguments[0]);
    }

    void awaitDeploy() {
        if (!deploy_) throw std::runtime_error("no deploy directory is being watched");
        const DeployWatcher::Change change = deploy_->awaitChange(kNoticeMs);
        std::printf("%s %s %u\n", nameOf(change.action), change.name.c_str(),
                    static_cast<unsigned>(change.size));
    }

    void stopDeploy() { deploy_.reset(); }

    void publishLoad(const Words& arguments) {
        if (!load_) load_.emplace(arguments[0]);
        load_->publish(static_cast<DWORD>(std::stoul(arguments[1])));
    }

    void hideLoad() { load_.reset(); }

  private:
    static const char* nameOf(DWORD action) {
        switch (action) {
            case FILE_ACTION_ADDED: return "added";
            case FILE_ACTION_REMOVED: return "removed";
            case FILE_ACTION_MODIFIED: return "modified";
            default: return "changed";
        }
    }
    void tellHelper() const { std::printf("helper %u\n", static_cast<unsigned>(helper_->helper())); }

    ServerLog log_;
    std::unique_ptr<SettingWatcher> watcher_;
    std::optional<LazyWriter> lazyWriter_;
    std::optional<HelperSupervisor> helper_;
    std::optional<DeployWatcher> deploy_;
    std::optional<ServerLoad> load_;
};

}  // namespace

int runServer() {
    InitRegistry(REG_INIT_BACKUP, /*create=*/true);
    std::printf("registry %s\n", GetRegistryPath().c_str());

    const std::filesystem::path registryFile = GetRegistryPath().c_str();
    Server server(registryFile.parent_path().parent_path() / "server.log");
    Conversation conversation;
    addSettingCommands(conversation);
    addLegacyCommands(conversation);
    conversation.add("watch KEY NAME", [&](const Words& arguments) { server.watch(arguments); });
    conversation.add("await-change", [&](const Words&) { server.awaitChange(); });
    conversation.add("start-lazy-writer MILLISECONDS",
                     [&](const Words& arguments) { server.startLazyWriter(arguments); });
    conversation.add("stop-lazy-writer", [&](const Words&) { server.stopLazyWriter(); });
    conversation.add("start-helper", [&](const Words&) { server.startHelper(); });
    conversation.add("await-helper", [&](const Words&) { server.awaitHelper(); });
    conversation.add("stop-helper", [&](const Words&) { server.stopHelper(); });
    conversation.add("watch-deploy DIRECTORY",
                     [&](const Words& arguments) { server.watchDeploy(arguments); });
    conversation.add("await-deploy", [&](const Words&) { server.awaitDeploy(); });
    conversation.add("stop-deploy", [&](const Words&) { server.stopDeploy(); });
    conversation.add("publish-load INSTANCE PERCENT",
                     [&](const Words& arguments) { server.publishLoad(arguments); });
    conversation.add("hide-load", [&](const Words&) { server.hideLoad(); });
    conversation.add("serve KEY COUNT", [&](const Words& arguments) { server.serve(arguments); });
    conversation.add("log-since DATE", [&](const Words& arguments) { server.logSince(arguments); });
    conversation.hold();
    return 0;
}

}  // namespace appserver
