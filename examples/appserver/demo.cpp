// demo.cpp: two processes. One makes the temporary folder, waits for the other, within bounds, and removes
// the folder; the other moves into namespaces of its own and tells the story. So nothing that the story
// mounts, and no way in which it ends, reaches the removal.

#include "demo.h"

#include "account.h"
#include "installation.h"
#include "isolation.h"
#include "story.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace appserver {
namespace {

namespace fs = std::filesystem;

constexpr int kWholeStoryMs = 10 * 60 * 1000;

class TemporaryFolder {
  public:
    TemporaryFolder() : path_((fs::temp_directory_path() / "appserver-demo.XXXXXX").string()) {
        if (mkdtemp(path_.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), "cannot make " + path_);
        }
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() {
        std::error_code error;
        fs::remove_all(path_, error);
        if (error)
            std::fprintf(stderr, "appserver demo: cannot remove %s: %s\n", path_.c_str(),
                         error.message().c_str());
    }

    fs::path path() const { return path_; }

  private:
    std::string path_;
};

fs::path templateFrom(const Words& arguments) {
    if (arguments.size() == 2 && arguments[0] == "--template") return fs::absolute(arguments[1]);
#ifdef EXAMPLE_REGISTRY_TEMPLATE
    if (arguments.empty()) return EXAMPLE_REGISTRY_TEMPLATE;
#endif
    throw std::invalid_argument("usage: appserver demo [--template FILE]");
}

void isolate(const fs::path& scratch) {
    fs::create_directory(scratch);
    const std::string obstacle = isolateFromMachine(scratch);
    if (obstacle.empty()) {
        say("It runs in IPC and mount namespaces of its own: the machine's own registry is out of reach.");
    } else {
        say("It shares the machine's registry semaphore, for want of private namespaces (%s).",
            obstacle.c_str());
    }
}

int tellOnMachineOfItsOwn(const fs::path& folder, const fs::path& templateFile) {
    try {
        std::puts("An application server of several processes, which share one registry.\n");
        isolate(folder / "scratch");
        const Installation installation(folder / "home", templateFile);
        setenv("TWHOME", installation.home().c_str(), /*overwrite=*/1);
        tellStory(installation);
        return 0;
    } catch (const CheckFailed& failed) {
        std::printf("\ndemo: FAILED: expected %s\n", failed.what());
    } catch (const std::exception& error) {
        std::printf("\ndemo: FAILED: %s\n", error.what());
    }
    return 1;
}

/// Waits until nobody has the other end of the pipe open any more. Returns false after the bound.
bool closedWithin(int pipeEnd, int boundMs) {
    pollfd polled{pipeEnd, POLLIN, 0};
    int ready = -1;
    do {
        ready = poll(&polled, 1, boundMs);
    } while (ready == -1 && errno == EINTR);
    return ready == 1;
}

int superviseStory(pid_t story, int pipeEnd) {
    signal(SIGINT, SIG_IGN);  // it reaches the story too, which then ends; the folder is still to be removed
    if (!closedWithin(pipeEnd, kWholeStoryMs)) {
        std::printf("\ndemo: FAILED: not at its end after %d minutes\n", kWholeStoryMs / 60000);
        kill(story, SIGKILL);
    }
    int status = 0;
    while (waitpid(story, &status, /*options=*/0) == -1 && errno == EINTR) {
    }
    if (WIFSIGNALED(status)) std::printf("\ndemo: FAILED: ended by signal %d\n", WTERMSIG(status));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

int tellInOtherProcess(const fs::path& folder, const fs::path& templateFile) {
    int alive[2];  // the story's process holds the writing end; those that it starts do not
    if (pipe2(alive, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe2");
    const pid_t supervisor = getpid();
    const pid_t story = fork();
    if (story == -1) throw std::system_error(errno, std::generic_category(), "fork");
    if (story == 0) {
        close(alive[0]);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != supervisor) _exit(1);
        signal(SIGPIPE, SIG_IGN);
        std::exit(tellOnMachineOfItsOwn(folder, templateFile));
    }
    close(alive[1]);
    const int status = superviseStory(story, alive[0]);
    close(alive[0]);
    return status;
}

}  // namespace

int runDemo(const Words& arguments) {
    const fs::path templateFile = templateFrom(arguments);
    int status = 1;
    {
        const TemporaryFolder folder;
        status = tellInOtherProcess(folder.path(), templateFile);
    }
    if (status == 0) std::puts("\ndemo: all checks passed");
    return status;
}

}  // namespace appserver
