// completion_port.cpp: ports, and the calls that deliver through them.
//
// A port has two events, both set whenever a packet is posted or a member signalled. `wake` is for the threads that
// wait in the port: it is consumed by one, which looks what there is and, when it leaves something, sets the event
// again for the next. The synchronisation event is for waits on handles of several kinds, which take nothing: it
// stays set until such a wait finds nothing there.

#include <traiklofox/change_notification.h>
#include <traiklofox/completion_ports.h>
#include <traiklofox/wait.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <new>
#include <optional>

#include "files/notification_state.h"
#include "foundation/mutex.h"
#include "foundation/sys.h"
#include "kernel/handle_arguments.h"
#include "kernel/mixed_wait.h"

using traiklofox::foundation::LockGuard;
using traiklofox::foundation::LockRank;
using traiklofox::kernel::handleAs;

namespace traiklofox::files {

namespace {

using Member = HandleRef<ChangeNotificationHandle>;

struct Packet {
    DWORD bytes;
    ULONG_PTR key;
    _OVERLAPPED* overlapped;
};

HandleRef<Event> newEvent(BOOL manualReset) {
    return HandleRef<Event>::adopt(
        new Event(/*initialData=*/-1, manualReset, /*initialState=*/FALSE, nullptr));
}

/// The time that a wait has left.
class Remaining {
  public:
    explicit Remaining(DWORD milliseconds) : whole_(milliseconds), begin_(sys::monotonic()) {}
    DWORD milliseconds() const {
        if (whole_ == INFINITE || whole_ == 0) return whole_;
        const timespec now = sys::monotonic();
        const long long passed =
            (now.tv_sec - begin_.tv_sec) * 1000LL + (now.tv_nsec - begin_.tv_nsec) / 1'000'000;
        return passed >= static_cast<long long>(whole_) ? 0 : static_cast<DWORD>(whole_ - passed);
    }

  private:
    const DWORD whole_;
    const timespec begin_;
};

}  // namespace

class CompletionQueue {
  public:
    static CompletionQueue* of(Handle* handle) {
        auto* port = handleAs<IoCompletionPort>(handle, HANDLE_KIND_IO_COMPLETION_PORT);
        return port != nullptr ? port->queue.get() : nullptr;
    }

    ~CompletionQueue() {
        for (const Member& member : members_) stopListening(*member);
    }

    void insert(ChangeNotificationHandle& handle) {
        {
            NotificationState& state = NotificationState::of(handle);
            const LockGuard guard(state);
            state.portEvents.reserve(state.portEvents.size() + 2);
            const LockGuard membersGuard(lock_);
            members_.emplace_back(&handle);
            state.portEvents.emplace_back(wake_.get());
            state.portEvents.emplace_back(synch_.get());
        }
        notify();
    }

    bool erase(const ChangeNotificationHandle* handle) {
        Member erased;
        {
            const LockGuard guard(lock_);
            const auto place = std::ranges::find(members_, handle, &Member::get);
            if (place == members_.end()) return false;
            erased = std::move(*place);
            members_.erase(place);
        }
        stopListening(*erased);
        return true;
    }

    bool contains(const ChangeNotificationHandle* handle) {
        const LockGuard guard(lock_);
        return std::ranges::find(members_, handle, &Member::get) != members_.end();
    }

    ChangeNotificationHandle* at(DWORD index) {
        const LockGuard guard(lock_);
        return index < members_.size() ? members_[index].get() : nullptr;
    }

    void post(const Packet& packet) {
        {
            const LockGuard guard(lock_);
            packets_.push_back(packet);
        }
        notify();
    }

    DWORD waitForMember(DWORD milliseconds, BOOL alertable);
    bool deliver(Packet& delivered, DWORD milliseconds);
    Event* synch(int& signaled);

  private:
    std::optional<Packet> takePacket();
    Member takeMember();
    bool deliverMember(ChangeNotificationHandle& member, Packet& delivered);
    DWORD takeSignal();
    void dropClosedMembers();

    bool hasSomethingLocked() const TRAIKLOFOX_REQUIRES(lock_) {
        return !packets_.empty() || std::ranges::any_of(members_, [](const Member& member) {
            return NotificationState::of(*member).isSignaled();
        });
    }
    /// For the next one who waits.
    void passOn() {
        const LockGuard guard(lock_);
        if (hasSomethingLocked()) wake_->Set();
    }
    void notify() {
        wake_->Set();
        synch_->Set();
    }
    void stopListening(ChangeNotificationHandle& member) {
        HandleRef<Event> wake, synch;  // let go without the lock
        NotificationState& state = NotificationState::of(member);
        const LockGuard guard(state);
        takeEvent(state.portEvents, wake_.get(), wake);
        takeEvent(state.portEvents, synch_.get(), synch);
    }
    static void takeEvent(std::vector<HandleRef<Event>>& events, const Event* event,
                          HandleRef<Event>& taken) {
        const auto place = std::ranges::find(events, event, &HandleRef<Event>::get);
        if (place == events.end()) return;
        taken = std::move(*place);
        events.erase(place);
    }

    foundation::Mutex<LockRank::CompletionPort> lock_;
    std::vector<Member> members_ TRAIKLOFOX_GUARDED_BY(lock_);
    std::deque<Packet> packets_ TRAIKLOFOX_GUARDED_BY(lock_);
    const HandleRef<Event> wake_ = newEvent(/*manualReset=*/FALSE);
    const HandleRef<Event> synch_ = newEvent(/*manualReset=*/TRUE);
};

/// Members that nobody but this port has any more.
void CompletionQueue::dropClosedMembers() {
    std::vector<Member> closed;
    {
        const LockGuard guard(lock_);
        const auto isOpen = [](const Member& member) { return !NotificationState::of(*member).isClosed(); };
        const auto firstClosed = std::stable_partition(members_.begin(), members_.end(), isOpen);
        closed.assign(std::make_move_iterator(firstClosed), std::make_move_iterator(members_.end()));
        members_.erase(firstClosed, members_.end());
    }
    for (const Member& member : closed) stopListening(*member);
}

/// The index of the first signalled member, whose signal is used up; or WAIT_FAILED, or WAIT_TIMEOUT for none.
DWORD CompletionQueue::takeSignal() {
    const LockGuard guard(lock_);
    if (!packets_.empty()) return WAIT_OBJECT_0;
    if (members_.empty() || members_.size() > MAXIMUM_WAIT_OBJECTS) return WAIT_FAILED;
    for (size_t i = 0; i < members_.size(); ++i)
        if (NotificationState::of(*members_[i]).state.exchange(0) != 0) return static_cast<DWORD>(i);
    return WAIT_TIMEOUT;
}

DWORD CompletionQueue::waitForMember(DWORD milliseconds, BOOL alertable) {
    const Remaining remaining(milliseconds);
    dropClosedMembers();
    for (;;) {
        const DWORD found = takeSignal();
        if (found != WAIT_TIMEOUT) {
            passOn();
            return found;
        }
        const DWORD result = wake_->WaitForHandle(remaining.milliseconds(), alertable);
        if (result != WAIT_OBJECT_0) return result;
    }
}

std::optional<Packet> CompletionQueue::takePacket() {
    const LockGuard guard(lock_);
    if (packets_.empty()) return std::nullopt;
    const Packet packet = packets_.front();
    packets_.pop_front();
    return packet;
}

/// The first member with a change that no other thread is delivering.
Member CompletionQueue::takeMember() {
    const LockGuard guard(lock_);
    for (const Member& member : members_)
        if (NotificationState::of(*member).claim()) return Member(member.get());
    return {};
}

/// False when the member has heard only of others' changes, or for want of memory (errno ENOMEM).
bool CompletionQueue::deliverMember(ChangeNotificationHandle& member, Packet& delivered) {
    NotificationState& state = NotificationState::of(member);
    {
        const LockGuard guard(state);
        if (state.isHearsay) return false;
        delivered = {.bytes = 0, .key = state.key, .overlapped = state.overlapped};
        if (state.records == nullptr) return true;
    }
    if (member.GetChangeData(&delivered.bytes, &delivered.key)) return true;
    member.SetPending(1);
    return false;
}

bool CompletionQueue::deliver(Packet& delivered, DWORD milliseconds) {
    const Remaining remaining(milliseconds);
    dropClosedMembers();
    for (;;) {
        if (const auto packet = takePacket()) {
            delivered = *packet;
            passOn();
            return true;
        }
        if (const Member member = takeMember()) {
            errno = 0;
            const bool isDelivered = deliverMember(*member, delivered);
            passOn();
            if (isDelivered) return true;
            if (errno == ENOMEM) return false;
            continue;
        }
        if (wake_->WaitForHandle(remaining.milliseconds(), /*alertable=*/FALSE) == WAIT_OBJECT_0) continue;
        errno = ETIMEDOUT;
        return false;
    }
}

Event* CompletionQueue::synch(int& signaled) {
    dropClosedMembers();
    synch_->Reset();
    {
        const LockGuard guard(lock_);
        signaled = hasSomethingLocked();
    }
    if (signaled) synch_->Set();
    return synch_.get();
}

}  // namespace traiklofox::files

using traiklofox::files::CompletionQueue;
using traiklofox::files::NotificationState;

IoCompletionPort::IoCompletionPort() : Handle(1), queue(std::make_unique<CompletionQueue>()) {}

IoCompletionPort::~IoCompletionPort() = default;

DWORD IoCompletionPort::What() const {
    return HANDLE_KIND_IO_COMPLETION_PORT;
}

void IoCompletionPort::Insert(ChangeNotificationHandle* handle) {
    if (!traiklofox::kernel::isNone(handle)) queue->insert(*handle);
}

BOOL IoCompletionPort::Erase(ChangeNotificationHandle* handle) {
    return queue->erase(handle);
}

ChangeNotificationHandle* IoCompletionPort::GetHandle(DWORD index) const {
    return queue->at(index);
}

DWORD IoCompletionPort::WaitForHandle(DWORD milliseconds, BOOL alertable) {
    return queue->waitForMember(milliseconds, alertable);
}

DWORD IoCompletionPort::WaitForMultipleHandles(DWORD count, Handle** handles, BOOL waitAll,
                                               DWORD milliseconds, BOOL alertable) {
    return traiklofox::kernel::waitMixed(count, handles, waitAll, milliseconds, alertable);
}

Event* IoCompletionPort::GetSynch(int& signaled) {
    return queue->synch(signaled);
}

Handle* CreateIoCompletionPort(Handle* file, Handle* existing, ULONG_PTR key, DWORD) {
    using traiklofox::files::HandleRef;
    auto* directory = handleAs<ChangeNotificationHandle>(file, HANDLE_KIND_CHANGE_NOTIFICATION);
    auto* port = handleAs<IoCompletionPort>(existing, HANDLE_KIND_IO_COMPLETION_PORT);
    const bool isFileMissing = traiklofox::kernel::isNone(file);
    const bool isPortMissing = traiklofox::kernel::isNone(existing);
    if ((directory == nullptr && !isFileMissing) || (port == nullptr && !isPortMissing) ||
        (isFileMissing && !isPortMissing)) {
        errno = EINVAL;
        return nullptr;
    }
    try {
        auto made = HandleRef<IoCompletionPort>::adopt(port == nullptr ? new IoCompletionPort : nullptr);
        if (port == nullptr) port = made.get();
        if (directory != nullptr) {
            directory->SetKey(key);
            if (!CompletionQueue::of(port)->contains(directory)) port->Insert(directory);
        }
        (void)made.release();  // the caller's now
        return port;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return nullptr;
    }
}

BOOL GetQueuedCompletionStatus(Handle* port, DWORD* bytes, ULONG_PTR* key, _OVERLAPPED** overlapped,
                               DWORD milliseconds) {
    if (overlapped != nullptr) *overlapped = nullptr;
    CompletionQueue* queue = CompletionQueue::of(port);
    if (queue == nullptr) {
        errno = EINVAL;
        return FALSE;
    }
    const int error = errno;
    traiklofox::files::Packet packet{};
    try {
        if (!queue->deliver(packet, milliseconds)) return FALSE;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return FALSE;
    }
    errno = error;
    if (bytes != nullptr) *bytes = packet.bytes;
    if (key != nullptr) *key = packet.key;
    if (overlapped != nullptr) *overlapped = packet.overlapped;
    return TRUE;
}

BOOL PostQueuedCompletionStatus(Handle* port, DWORD bytes, ULONG_PTR key, _OVERLAPPED* overlapped) {
    CompletionQueue* queue = CompletionQueue::of(port);
    if (queue == nullptr) {
        errno = EINVAL;
        return FALSE;
    }
    try {
        queue->post({bytes, key, overlapped});
        return TRUE;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return FALSE;
    }
}
