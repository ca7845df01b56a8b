// Handles of watched directories, and completion ports.

#include <traiklofox/clocks.h>
#include <traiklofox/threads.h>

#include <array>
#include <atomic>
#include <future>

#include "files/directory_handle.h"
#include "files/watch_fixture.h"

namespace traiklofox::test {
namespace {

OwnedHandle event(BOOL manualReset = FALSE) {
    return OwnedHandle(CreateEvent(nullptr, manualReset, FALSE, nullptr));
}

class WatchHandle : public testing::Test {
  protected:
    static BOOL read(Handle* handle, void* buffer, size_t size, _OVERLAPPED* overlapped = nullptr,
                     LPOVERLAPPED_COMPLETION_ROUTINE routine = nullptr) {
        return ReadDirectoryChanges(handle, buffer, static_cast<DWORD>(size), FALSE, 0, nullptr, overlapped,
                                    routine);
    }
    OwnedHandle watched(DWORD filter = 0) const {
        return OwnedHandle(FindFirstChangeNotification(directory_.path().c_str(), FALSE, filter));
    }

    const TempDir directory_;
    const std::string file_ = directory_ / "file";
    const Changes fileAdded_{{FILE_ACTION_ADDED, "file"}}, fileModified_{{FILE_ACTION_MODIFIED, "file"}};
};
using CompletionPort = WatchHandle;

TEST_F(WatchHandle, TwoOnAPathShareAPassAndAreBothSignalled) {
    const OwnedHandle first = watched(FILE_NOTIFY_CHANGE_SIZE);
    const OwnedHandle second = watching(directory_.path(), FILE_NOTIFY_CHANGE_LAST_WRITE);
    const OwnedHandle other(FindFirstChangeNotification("/nowhere/at/all", FALSE, 0));
    writeText(file_, "");
    EXPECT_EQ(stateOf(first), WAIT_TIMEOUT);
    const CountCalls opened(Call::Opendir, {.path = directory_.path()});
    EXPECT_EQ(passAndTake(second), fileAdded_);
    EXPECT_EQ(opened.calls(), 1);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(stateOf(first), WAIT_OBJECT_0) << "until notice is taken";
    EXPECT_EQ(stateOf(other), WAIT_TIMEOUT);
    EXPECT_TRUE(FindNextChangeNotification(first.get()));
    EXPECT_EQ(stateOf(first), WAIT_TIMEOUT);

    // Only the second asks for this; the first hears of it.
    touch(file_);
    EXPECT_EQ(passAndTake(second), fileModified_);
    EXPECT_EQ(directoryOf(first).State(), 1);
    EXPECT_EQ(stateOf(first), WAIT_OBJECT_0);
    // And the other way round: what it hears is nothing to deliver.
    writeText(file_, "1");
    touch(file_);
    EXPECT_TRUE(FindNextChangeNotification(first.get()));
    EXPECT_EQ(passAndTake(second), fileModified_);
}

TEST_F(WatchHandle, IsSetUpAnewBeforeItIsWatched) {
    const OwnedHandle handle(new ChangeNotificationHandle("/nowhere", FALSE, FILE_NOTIFY_CHANGE_SIZE));
    ChangeNotificationHandle& set = directoryOf(handle);
    set.SetPath(directory_.path().c_str());
    set.SetWatchSubtree(TRUE);
    set.SetFilter(FILE_NOTIFY_CHANGE_LAST_WRITE);
    set.SetNotifyData(new NotifyRecords);
    EXPECT_EQ(set.GetFilter(), DWORD{FILE_NOTIFY_CHANGE_LAST_WRITE});
    EXPECT_TRUE(FindNextChangeNotification(handle.get()));
    writeText(directory_ / "below/file", "");
    pass();
    EXPECT_EQ(stateOf(handle), WAIT_OBJECT_0);
    EXPECT_FALSE(set.GetNotifyData()->empty());
    EXPECT_EQ(set.GetChangeString(), (directory_ / "below").c_str());
    set.SetChanged(TRUE);
    set.SetChangeString("");
    set.Clear();
    EXPECT_TRUE(set.GetChangeString().empty() && !set.GetChanged() && !set.GetPending());
}

TEST_F(WatchHandle, AnAuxiliaryEventStandsForIt) {
    const OwnedHandle aux = event(/*manualReset=*/TRUE), handle = unwatched(directory_.path());
    std::array<char, 200> buffer{};
    _OVERLAPPED overlapped{}, stranger{};
    overlapped.hEvent = aux.get();
    overlapped.Pointer = reinterpret_cast<void*>(77);
    DWORD bytes = 1;
    ASSERT_TRUE(ReadDirectoryChanges(handle.get(), buffer.data(), buffer.size(), FALSE, 0, &bytes,
                                     &overlapped, nullptr));
    EXPECT_EQ(bytes, 0U);
    EXPECT_EQ(directoryOf(handle).GetAuxEvent(), aux.get());
    EXPECT_EQ(directoryOf(handle).GetKey(), 77U);
    EXPECT_EQ(errorOf(GetOverlappedResult(handle.get(), &overlapped, &bytes, FALSE)), EINPROGRESS);
    EXPECT_EQ(overlapped.Internal, STATUS_PENDING);
    writeText(file_, "");
    pass();
    EXPECT_EQ(stateOf(aux), WAIT_OBJECT_0);
    for (int i = 0; i < 2; ++i) {  // the second time, once more the same
        ASSERT_TRUE(GetOverlappedResult(handle.get(), &overlapped, &bytes, TRUE));
        EXPECT_EQ(changesIn(buffer.data(), bytes), fileAdded_);
    }
    EXPECT_TRUE(overlapped.Internal == 0 && overlapped.InternalHigh == bytes);
    EXPECT_EQ(stateOf(aux), WAIT_TIMEOUT);
    EXPECT_EQ(errorOf(GetOverlappedResult(handle.get(), &stranger, &bytes, TRUE)), EINVAL);
}

/// Another thread delivers at the worst moment of the next request: while the event is being reset.
class DeliversAtReset : public Handle {
  public:
    explicit DeliversAtReset(ChangeNotificationHandle& handle) : Handle(1), handle_(handle) {}
    BOOL Reset() override {
        if (isDelivering_.exchange(true)) return 1;
        delivery_ =
            std::async(std::launch::async, [this] { return handle_.GetChangeData(&bytes_, nullptr); });
        (void)delivery_.wait_for(std::chrono::milliseconds(50));
        return 1;
    }
    DWORD delivered() { return delivery_.get() ? bytes_ : 0; }

  private:
    ChangeNotificationHandle& handle_;
    std::atomic<bool> isDelivering_ = false;
    DWORD bytes_ = 0;
    std::future<BOOL> delivery_;
};

TEST_F(WatchHandle, ARequestIsMadeInOneStep) {
    const OwnedHandle handle = unwatched(directory_.path());
    const OwnedHandle event(new DeliversAtReset(directoryOf(handle)));
    std::array<char, 200> buffer{};
    _OVERLAPPED overlapped{};
    overlapped.hEvent = event.get();
    ASSERT_TRUE(ask(handle));
    writeText(file_, "");
    pass();
    ASSERT_TRUE(read(handle.get(), buffer.data(), buffer.size(), &overlapped));
    const DWORD bytes = static_cast<DeliversAtReset&>(*event).delivered();
    EXPECT_EQ(changesIn(buffer.data(), bytes), fileAdded_);
    EXPECT_TRUE(overlapped.Internal == 0 && overlapped.InternalHigh == bytes) << "it is the new request's";
}

TEST_F(WatchHandle, WhatDoesNotFitIsDeliveredLaterAndNothingIsOverrun) {
    Changes expected;
    for (int i = 10; i < 30; ++i) {
        writeText(directory_ / std::to_string(i), "");
        expected.push_back({FILE_ACTION_ADDED, std::to_string(i)});
    }
    for (const DWORD size : {0U, 51U, 52U, 103U, 104U, 1039U, 1040U}) {  // 52 bytes a record
        const OwnedHandle handle = unwatched(directory_.path());
        std::vector<char> room(size + 32, '#');
        Changes all;
        DWORD bytes = 1;
        do {
            ASSERT_TRUE(read(handle.get(), room.data() + 16, size));
            if (all.empty()) pass();
            ASSERT_EQ(stateOf(handle), WAIT_OBJECT_0) << "those left over signal at once";
            ASSERT_TRUE(GetOverlappedResult(handle.get(), nullptr, &bytes, FALSE));
            EXPECT_EQ(bytes, std::min<DWORD>(size / 52, 20 - static_cast<DWORD>(all.size())) * 52);
            std::ranges::copy(changesIn(room.data() + 16, bytes), std::back_inserter(all));
        } while (bytes > 0 && all.size() < 20);
        const std::string margin(16, '#');
        EXPECT_EQ(std::string(room.data(), 16) + std::string(room.data() + 16 + size, 16), margin + margin);
        if (size < 52) {  // then they are delivered into a larger one
            ASSERT_TRUE(ask(handle, 0));
            all = takeChanges(handle);
        }
        std::ranges::sort(all, {}, &Change::name);
        EXPECT_EQ(all, expected) << size;
    }
}

TEST_F(WatchHandle, WhatChangesBetweenTwoReadsIsFound) {
    const OwnedHandle handle = watching(directory_.path()), other = watching(directory_.path());
    writeText(file_, "");
    pass();
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    ASSERT_TRUE(directoryOf(handle).GetChangeData(&bytes, &key));
    EXPECT_EQ(changesIn(directoryOf(handle).GetBuffer(), bytes), fileAdded_);
    writeText(directory_ / "b", "");
    pass();  // for the other one
    EXPECT_EQ(stateOf(handle), WAIT_TIMEOUT);
    ASSERT_TRUE(ask(handle));
    EXPECT_EQ(takeChanges(handle), (Changes{{FILE_ACTION_ADDED, "b"}}));
    EXPECT_EQ(takeChanges(other).size(), 2U);
}

TEST_F(WatchHandle, CountsItsReferences) {
    Handle* handle = watched().release();
    EXPECT_EQ(handle->What(), 11U);
    EXPECT_EQ(handle->GetRefCount(), 2) << "the caller's and the scanner's";
    EXPECT_EQ(FindCloseChangeNotification(handle, /*keep=*/1), 0);
    EXPECT_EQ(handle->GetRefCount(), 1);
    EXPECT_TRUE(FindNextChangeNotification(handle));
    EXPECT_EQ(handle->GetRefCount(), 2);

    Handle* duplicate = nullptr;
    ASSERT_TRUE(DuplicateHandle(nullptr, handle, nullptr, &duplicate, 0, FALSE, 0));
    EXPECT_TRUE(CloseHandle(handle));
    EXPECT_EQ(duplicate->GetRefCount(), 2) << "still watched";
    duplicate->IncRefCount();
    EXPECT_TRUE(CloseHandle(duplicate));
    EXPECT_EQ(duplicate->GetRefCount(), 1) << "the last owner's close takes it from the scanner";
    const CountCalls opened(Call::Opendir, {.path = directory_.path()});
    pass();
    EXPECT_EQ(opened.calls(), 0);
    EXPECT_EQ(FindCloseChangeNotification(duplicate), 0) << "unknown";
    duplicate->DecRefCount();

    const OwnedHandle opening(traiklofox::files::openChangeNotification(directory_.path().c_str()));
    EXPECT_EQ(opening->GetRefCount(), 1);
    for (Handle* unknown : {static_cast<Handle*>(nullptr), INVALID_HANDLE_VALUE, reinterpret_cast<Handle*>(4),
                            opening.get(), handle})
        EXPECT_EQ(FindCloseChangeNotification(unknown), 0);
    EXPECT_EQ(opening->GetRefCount(), 1);
}

Handle* toClose[2];

TEST_F(WatchHandle, ACallbackMayCloseIt) {
    for (Handle*& handle : toClose) handle = watched().release();
    writeText(file_, "");
    static int calls;
    calls = 0;
    pass(1, [](ULONGLONG) { return ++calls, FindCloseChangeNotification(toClose[0]) == 0; });
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(WaitForSingleObject(toClose[1], 0), WAIT_OBJECT_0);
    pass(1, [](ULONGLONG) { return FindCloseChangeNotification(toClose[1]) == 0; });
    pass(1, [](ULONGLONG) { return ++calls != 0; });
    EXPECT_EQ(calls, 1) << "nothing is left to be scanned";
}

DWORD routineBytes;
_OVERLAPPED* routineOverlapped;

TEST_F(WatchHandle, ACompletionRoutineRunsInAnAlertableWait) {
    const OwnedHandle handle = unwatched(directory_.path());
    std::array<char, 200> buffer{};
    _OVERLAPPED overlapped{};
    const auto routine = [](DWORD error, DWORD bytes, _OVERLAPPED* given) {
        EXPECT_EQ(error, 0U);
        routineBytes = bytes;
        routineOverlapped = given;
    };
    ASSERT_TRUE(read(handle.get(), buffer.data(), buffer.size(), &overlapped, routine));
    writeText(file_, "");
    std::thread([] { pass(2); }).join();
    EXPECT_EQ(SleepEx(20'000, /*alertable=*/TRUE), WAIT_IO_COMPLETION);
    EXPECT_EQ(routineOverlapped, &overlapped);
    EXPECT_EQ(changesIn(buffer.data(), routineBytes), fileAdded_);

    // It is kept for what the handle asks for, though another has what it asks for.
    routineOverlapped = nullptr;
    const OwnedHandle other = watching(directory_.path());
    ASSERT_TRUE(read(handle.get(), buffer.data(), buffer.size(), &overlapped, routine));
    pass();
    touch(file_);
    pass();
    (void)SleepEx(1, /*alertable=*/TRUE);
    EXPECT_EQ(routineOverlapped, nullptr);
    writeText(directory_ / "file2", "");
    pass();

    // What has been delivered in another way meanwhile is not delivered in the next request's name.
    DWORD bytes = 0;
    EXPECT_TRUE(GetOverlappedResult(handle.get(), &overlapped, &bytes, FALSE));
    EXPECT_EQ(changesIn(buffer.data(), bytes), (Changes{{FILE_ACTION_ADDED, "file2"}}));
    ASSERT_TRUE(read(handle.get(), buffer.data(), buffer.size(), &overlapped, routine));
    (void)SleepEx(1, /*alertable=*/TRUE);
    EXPECT_EQ(routineOverlapped, nullptr);

    OwnedHandle closed = unwatched(directory_.path());  // closed before it runs, it does not run
    ASSERT_TRUE(read(closed.get(), buffer.data(), buffer.size(), &overlapped, routine));
    pass();
    closed.reset();
    (void)SleepEx(1, /*alertable=*/TRUE);
    EXPECT_EQ(routineOverlapped, nullptr);

    const OwnedHandle left = unwatched(directory_.path());  // by a thread that ends before it runs
    std::thread([&] {
        ASSERT_TRUE(read(left.get(), buffer.data(), buffer.size(), &overlapped, routine));
        writeText(directory_ / "file3", "");
        pass();
    }).join();
    (void)FindCloseChangeNotification(left.get(), /*keep=*/1);
    EXPECT_EQ(left->GetRefCount(), 1);
}

OwnedHandle newPort() {
    return OwnedHandle(CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0));
}
IoCompletionPort& portOf(const OwnedHandle& handle) {
    return static_cast<IoCompletionPort&>(*handle);
}

/// What `GetQueuedCompletionStatus` says.
struct Completion {
    BOOL result = FALSE;
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    _OVERLAPPED* overlapped = nullptr;
    bool operator==(const Completion&) const = default;
};
Completion next(const OwnedHandle& port, DWORD milliseconds = 0) {
    Completion got;
    got.result = GetQueuedCompletionStatus(port.get(), &got.bytes, &got.key, &got.overlapped, milliseconds);
    return got;
}

TEST_F(CompletionPort, ServesPacketsInOrderAndThenItsMembers) {
    const OwnedHandle port = newPort(), handle = unwatched(directory_.path());
    EXPECT_EQ(port->What(), 12U);
    for (const ULONG_PTR key : {42u, 43u})  // once more, another key
        ASSERT_EQ(CreateIoCompletionPort(handle.get(), port.get(), key, 0), port.get());
    EXPECT_EQ(handle->GetRefCount(), 2);
    EXPECT_EQ(next(port), Completion());
    EXPECT_EQ(errno, ETIMEDOUT);

    char buffer[100];
    _OVERLAPPED overlapped{}, posted{};
    ASSERT_TRUE(read(handle.get(), buffer, sizeof buffer, &overlapped));
    writeText(file_, "");
    pass();
    ASSERT_TRUE(PostQueuedCompletionStatus(port.get(), 1, 2, &posted));
    ASSERT_TRUE(PostQueuedCompletionStatus(port.get(), 3, 4, nullptr));
    EXPECT_EQ(next(port), (Completion{TRUE, 1, 2, &posted}));
    EXPECT_EQ(next(port), (Completion{TRUE, 3, 4, nullptr}));
    EXPECT_EQ(next(port), (Completion{TRUE, 52, 43, &overlapped}));
    EXPECT_EQ(changesIn(buffer, 52), fileAdded_);
    EXPECT_EQ(next(port).result, FALSE);

    // What does not fit comes with the next call, at once.
    for (const char* name : {"a", "b"}) writeText(directory_ / name, "");
    ASSERT_TRUE(read(handle.get(), buffer, sizeof buffer, &overlapped));
    pass();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(next(port), (Completion{TRUE, 52, 43, &overlapped}));
        ASSERT_TRUE(read(handle.get(), buffer, sizeof buffer, &overlapped));
    }
    EXPECT_EQ(next(port).result, FALSE);

    // A thread that waits already is woken by either.
    DWORD bytes = 0;
    std::jthread waiter([&] {
        for (int i = 0; i < 2; ++i) bytes += next(port, INFINITE).bytes;
        PostQueuedCompletionStatus(port.get(), 9, 9, nullptr);
    });
    PostQueuedCompletionStatus(port.get(), 5, 6, nullptr);
    writeText(directory_ / "c", "");
    pass();
    waiter.join();
    EXPECT_EQ(bytes, 5U + 52U);
    EXPECT_EQ(next(port), (Completion{TRUE, 9, 9, nullptr}));

    // What another handle asks for, a member only hears of, and has nothing to deliver.
    const OwnedHandle other = watching(directory_.path(), FILE_NOTIFY_CHANGE_LAST_WRITE);
    ASSERT_TRUE(read(handle.get(), buffer, sizeof buffer, &overlapped));
    pass();
    takeChanges(other);
    touch(file_);
    pass();
    EXPECT_EQ(directoryOf(handle).State(), 1);
    EXPECT_EQ(next(port), Completion());
    EXPECT_EQ(takeChanges(other), fileModified_);
    writeText(directory_ / "d", "");
    pass();
    EXPECT_EQ(next(port), (Completion{TRUE, 52, 43, &overlapped}));
}

TEST_F(CompletionPort, AWaitForItFindsTheFirstSignalledMember) {
    const OwnedHandle port = newPort();
    EXPECT_EQ(stateOf(port), WAIT_FAILED) << "no members";
    std::vector<OwnedHandle> members;
    while (members.size() < 64) {
        portOf(port).Insert(&directoryOf(members.emplace_back(unwatched())));
        EXPECT_EQ(members.back()->GetRefCount(), 2);
    }
    EXPECT_EQ(portOf(port).GetHandle(63), members[63].get());
    EXPECT_EQ(portOf(port).GetHandle(64), nullptr);
    for (const DWORD milliseconds : {0u, 5u})
        EXPECT_EQ(WaitForSingleObject(port.get(), milliseconds), WAIT_TIMEOUT);
    members[40]->Signal();
    members[7]->Signal();
    EXPECT_EQ(WaitForSingleObject(port.get(), INFINITE), 7U);
    EXPECT_EQ(stateOf(port), 40U);
    EXPECT_EQ(stateOf(port), WAIT_TIMEOUT) << "used up";
    {
        std::jthread signaller([&] { members[63]->Signal(); });
        EXPECT_EQ(WaitForSingleObject(port.get(), 20'000), 63U);
    }
    const OwnedHandle another = unwatched();
    portOf(port).Insert(&directoryOf(another));
    another->Signal();
    EXPECT_EQ(stateOf(port), WAIT_FAILED) << "65 members";
    EXPECT_TRUE(next(port).result) << "which a completion does not mind";
    EXPECT_TRUE(portOf(port).Erase(&directoryOf(another)));
    EXPECT_FALSE(portOf(port).Erase(&directoryOf(another)));
    EXPECT_EQ(another->GetRefCount(), 1);
    EXPECT_EQ(stateOf(port), WAIT_TIMEOUT);

    // A packet counts as a signal, and stays.
    PostQueuedCompletionStatus(port.get(), 1, 1, nullptr);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(stateOf(port), WAIT_OBJECT_0);
    EXPECT_TRUE(next(port).result);
}

TEST_F(CompletionPort, LetsMembersGoThatAreClosedAndThatOutliveIt) {
    OwnedHandle port = newPort(), kept = unwatched();
    Handle* closed = unwatched().release();
    for (Handle* member : {kept.get(), closed}) CreateIoCompletionPort(member, port.get(), 0, 0);
    closed->IncRefCount();  // to look at it afterwards
    CloseHandle(closed);
    EXPECT_EQ(closed->GetRefCount(), 2);
    EXPECT_FALSE(next(port).result);
    EXPECT_EQ(closed->GetRefCount(), 1);
    EXPECT_EQ(portOf(port).GetHandle(1), nullptr);
    closed->DecRefCount();
    port.reset();
    EXPECT_EQ(kept->GetRefCount(), 1);
    kept->Signal();

    // A new port for a member, whose only reference is then the member's and the caller's.
    const OwnedHandle made(CreateIoCompletionPort(kept.get(), nullptr, 5, 0));
    EXPECT_EQ(portOf(made).GetHandle(0), kept.get());
    EXPECT_EQ(next(made), (Completion{TRUE, 0, 5, nullptr})) << "signalled before it became a member";
}

TEST_F(WatchHandle, AndPortAreSeenByEveryWait) {
    const OwnedHandle handle = watched(), port = newPort(), member = unwatched(), unset = event();
    portOf(port).Insert(&directoryOf(member));
    const struct {
        const OwnedHandle& handle;
        OwnedHandle alike;
        std::function<void()> signal, reset;
    } kinds[] = {{handle, unwatched(), [this] { writeText(file_, ""), pass(); },
                  [&] { EXPECT_TRUE(FindNextChangeNotification(handle.get())); }},
                 {port, newPort(), [&] { PostQueuedCompletionStatus(port.get(), 0, 0, nullptr); },
                  [&] { EXPECT_TRUE(next(port).result); }},
                 {port, newPort(), [&] { member->Signal(); }, [&] { EXPECT_TRUE(next(port).result); }}};
    for (const auto& kind : kinds) {
        Handle* alike[] = {kind.alike.get(), kind.handle.get()};
        Handle* mixed[] = {unset.get(), kind.alike.get(), kind.handle.get()};
        const auto results = [&](DWORD milliseconds) {
            std::array<DWORD, 2> got{};
            std::jthread a([&] { got[0] = WaitForMultipleObjects(2, alike, FALSE, milliseconds); });
            std::jthread b([&] { got[1] = WaitForMultipleObjects(3, mixed, FALSE, milliseconds); });
            if (milliseconds == INFINITE) kind.signal();  // threads that sleep already are woken
            a.join(), b.join();
            return got;
        };
        const std::array none{WAIT_TIMEOUT, WAIT_TIMEOUT};
        const std::array<DWORD, 2> signalled{1, 2};
        EXPECT_EQ(results(0), none);
        EXPECT_EQ(stateOf(kind.handle), WAIT_TIMEOUT);
        EXPECT_EQ(results(INFINITE), signalled);
        for (int i = 0; i < 2; ++i) EXPECT_EQ(results(1), signalled);
        kind.reset();
        EXPECT_EQ(results(1), none);
    }
    std::jthread sleeper([&] { EXPECT_EQ(WaitForSingleObject(handle.get(), INFINITE), WAIT_OBJECT_0); });
    writeText(directory_ / "another", "");
    pass();
}

TEST_F(CompletionPort, EachPacketIsServedToOneThread) {
    constexpr ULONG_PTR kThreads = 4, kEach = 5000;
    const OwnedHandle port = newPort();
    std::atomic<ULONG_PTR> sum = 0, served = 0;
    const auto serve = [&] {
        for (Completion got = next(port, INFINITE); got.key != 0; got = next(port, INFINITE)) {
            sum += got.key;
            ++served;
        }
    };
    const auto post = [&] {
        for (ULONG_PTR key = 1; key <= kEach; ++key) PostQueuedCompletionStatus(port.get(), 0, key, nullptr);
    };
    {
        std::vector<std::jthread> threads;
        while (threads.size() < kThreads) threads.emplace_back(serve);
        std::thread first(post), second(post);
        first.join(), second.join();
        for (size_t i = 0; i < kThreads; ++i) PostQueuedCompletionStatus(port.get(), 0, 0, nullptr);
    }
    EXPECT_EQ(served, 2 * kEach);
    EXPECT_EQ(sum, kEach * (kEach + 1));
}

TEST_F(WatchHandle, AndPortRefuseWhatIsNone) {
    const OwnedHandle port = newPort(), other = event(), member = unwatched();
    Handle* const none = nullptr;
    const std::pair<Handle*, Handle*> kRefused[] = {{other.get(), none},
                                                    {other.get(), port.get()},
                                                    {member.get(), other.get()},
                                                    {INVALID_HANDLE_VALUE, port.get()},
                                                    {none, port.get()}};
    for (const auto& [file, existing] : kRefused)
        EXPECT_EQ(errorOf(CreateIoCompletionPort(file, existing, 0, 0) != nullptr), EINVAL);
    for (Handle* wrong : {none, INVALID_HANDLE_VALUE, other.get()}) {
        _OVERLAPPED* overlapped = reinterpret_cast<_OVERLAPPED*>(4);
        EXPECT_FALSE(GetQueuedCompletionStatus(wrong, nullptr, nullptr, &overlapped, INFINITE));
        EXPECT_EQ(overlapped, nullptr);
        for (const auto& call : std::initializer_list<std::function<BOOL()>>{
                 [&] { return PostQueuedCompletionStatus(wrong, 0, 0, nullptr); },
                 [&] { return GetOverlappedResult(wrong, nullptr, nullptr, TRUE); },
                 [&] { return FindNextChangeNotification(wrong); },
                 [&] { return read(wrong, nullptr, 0); }}) {
            errno = 0;
            EXPECT_EQ(errorOf(call()), EINVAL);
        }
    }
    EXPECT_EQ(FindFirstChangeNotification(nullptr, FALSE, 0), INVALID_HANDLE_VALUE);
    const OwnedHandle unread(new ChangeNotificationHandle(nullptr, FALSE, 0));
    DWORD bytes = 0;
    EXPECT_FALSE(directoryOf(unread).GetChangeData(&bytes, nullptr) ||
                 GetOverlappedResult(unread.get(), nullptr, nullptr, TRUE));
}

}  // namespace
}  // namespace traiklofox::test
