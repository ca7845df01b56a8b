#include "kernel/standard_streams.h"

#include "kernel/handle_arguments.h"

namespace traiklofox::kernel {

std::optional<StandardStreams> StandardStreams::from(const _STARTUPINFO* startup) {
    std::array<Handle*, kCount> given{};
    if (startup != nullptr) given = {startup->hStdInput, startup->hStdOutput, startup->hStdError};

    StandardStreams streams;
    for (size_t i = 0; i < kCount; ++i) {
        if (isNone(given[i])) {
            if (!streams.null_) streams.null_.reset(sys::open("/dev/null", O_RDWR));
            if (!streams.null_) return std::nullopt;
            streams.sources_[i] = streams.null_.get();
            continue;
        }
        const auto* file = handleAs<File>(given[i], HANDLE_KIND_FILE);
        if (file == nullptr || file->GetFd() < 0) {
            errno = EBADF;
            return std::nullopt;
        }
        streams.sources_[i] = file->GetFd();
        streams.fromRecord_[i] = true;
    }
    return streams;
}

bool StandardStreams::place() const {
    std::array<int, kCount> sources = sources_;
    // One that stands in another's place moves away first: input and output may have to change places.
    for (int i = 0; i < kCount; ++i) {
        int& source = sources[static_cast<size_t>(i)];
        if (source >= kCount || source == i) continue;
        source = sys::duplicateAboveStandard(source);
        if (source < 0) return false;
    }
    for (int i = 0; i < kCount; ++i) {
        const int source = sources[static_cast<size_t>(i)];
        const int result = source == i ? ::fcntl(i, F_SETFD, 0) : sys::dup2(source, i);
        if (result < 0) return false;
    }
    return true;
}

void StandardStreams::giveTo(uid_t user, gid_t group) const {
    for (int i = 0; i < kCount; ++i) {
        // Where it fails the descriptor is no worse: only opening the file by its name needs the ownership.
        // Never "/dev/null", which belongs to the whole machine.
        if (fromRecord_[static_cast<size_t>(i)]) (void)sys::fchown(i, user, group);
    }
}

}  // namespace traiklofox::kernel
