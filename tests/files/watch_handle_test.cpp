// Handles of watched directories, and completion ports.

#include <traiklofox/clocks.h>
#include <traiklofox/threads.h>

#include <array>
#include <atomic>

#include "files/directory_handle.h"
#include "files/watch_fixture.h"

namespace traiklofox::test {
namespace {

OwnedHandle event(BOOL manualReset = FALSE) {
    return OwnedHandle(CreateEvent(nullptr, manualReset, FALSE, nullptr));
}

TEST(WatchHandle, TwoOnAPathShareAPassAndAreBothSignalled) {
    const TempDir directory;
    Handle* first = FindFirstChangeNotification(directory.path().c_str(), FALSE, FILE_NOTIFY_CHANGE_SIZE);
    Handle* other = FindFirstChangeNotification("/nowhere/at/all", FALSE, 0);
    const OwnedHandle second = watching(directory.path(), FILE_NOTIFY_CHANGE_LAST_WRITE);
    writeText(directory / "file", "");
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_TIMEOUT);
    {
        const CountCalls opened(Call::Opendir, {.path = directory.path()});
        pass();
        EXPECT_EQ(opened.calls(), 1);
    }
    EXPECT_EQ(takeChanges(second), (Changes{{FILE_ACTION_ADDED, "file"}}));
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_OBJECT_0) << "until notice is taken";
    EXPECT_EQ(WaitForSingleObject(other, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(FindNextChangeNotification(first));
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_TIMEOUT);

    // Only the second asks for this; the first hears of it.
    touch(directory / "file");
    pass();
    EXPECT_EQ(static_cast<ChangeNotificationHandle*>(first)->State(), 1);
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_OBJECT_0);
    EXPECT_EQ(takeChanges(second), (Changes{{FILE_ACTION_MODIFIED, "file"}}));
    // And the other way round: what it hears is nothing to deliver.
    writeText(directory / "file", "1");
    touch(directory / "file");
    EXPECT_TRUE(FindNextChangeNotification(first));
    pass();
    EXPECT_EQ(takeChanges(second), (Changes{{FILE_ACTION_MODIFIED, "file"}}));
    EXPECT_EQ(FindCloseChangeNotification(first), 0);
    EXPECT_EQ(FindCloseChangeNotification(other), 0);
}

TEST(WatchHandle, IsSetUpAnewBeforeItIsWatched) {
    const TempDir directory;
    std::filesystem::create_directory(directory / "below");
    const OwnedHandle handle(new ChangeNotificationHandle("/nowhere", FALSE, FILE_NOTIFY_CHANGE_SIZE));
    ChangeNotificationHandle& watched = directoryOf(handle);
    watched.SetPath(directory.path().c_str());
    watched.SetWatchSubtree(TRUE);
    watched.SetFilter(FILE_NOTIFY_CHANGE_LAST_WRITE);
    watched.SetNotifyData(new NotifyRecords);
    EXPECT_EQ(watched.GetFilter(), DWORD{FILE_NOTIFY_CHANGE_LAST_WRITE});
    EXPECT_TRUE(FindNextChangeNotification(handle.get()));
    writeText(directory / "below/file", "");
    pass();
    EXPECT_EQ(WaitForSingleObject(handle.get(), 0), WAIT_OBJECT_0);
    EXPECT_FALSE(watched.GetNotifyData()->empty());
    EXPECT_EQ(watched.GetChangeString(), (directory / "below").c_str());
    watched.SetChanged(TRUE);
    watched.SetChangeString("");
    watched.Clear();
    EXPECT_TRUE(watched.GetChangeString().empty() && !watched.GetChanged() && !watched.GetPending());
}

TEST(WatchHandle, EveryWaitSeesTheSignal) {
    const TempDir one, two;
    const OwnedHandle first(FindFirstChangeNotification(one.path().c_str(), FALSE, 0));
    const OwnedHandle second(FindFirstChangeNotification(two.path().c_str(), FALSE, 0));
    const OwnedHandle other = event();
    Handle* alike[] = {first.get(), second.get()};
    Handle* mixed[] = {other.get(), first.get(), second.get()};
    const auto results = [&] {
        return std::array{WaitForMultipleObjects(2, alike, FALSE, 0),
                          WaitForMultipleObjects(3, mixed, FALSE, 0), WaitForSingleObject(second.get(), 1)};
    };
    EXPECT_EQ(results(), (std::array{WAIT_TIMEOUT, WAIT_TIMEOUT, WAIT_TIMEOUT}));
    writeText(two / "file", "");
    pass();
    for (int i = 0; i < 2; ++i) EXPECT_EQ(results(), (std::array<DWORD, 3>{1, 2, 0}));
    EXPECT_TRUE(FindNextChangeNotification(second.get()));
    EXPECT_EQ(results(), (std::array{WAIT_TIMEOUT, WAIT_TIMEOUT, WAIT_TIMEOUT}));

    // Threads that sleep already are woken.
    std::array<DWORD, 3> woken{};
    {
        std::jthread a([&] { woken[0] = WaitForMultipleObjects(2, alike, FALSE, INFINITE); });
        std::jthread b([&] { woken[1] = WaitForMultipleObjects(3, mixed, FALSE, INFINITE); });
        std::jthread c([&] { woken[2] = WaitForSingleObject(second.get(), INFINITE); });
        writeText(two / "another", "");
        pass();
    }
    EXPECT_EQ(woken, (std::array<DWORD, 3>{1, 2, 0}));
}

TEST(WatchHandle, AnAuxiliaryEventStandsForIt) {
    const TempDir directory;
    const OwnedHandle aux = event(/*manualReset=*/TRUE);
    const OwnedHandle handle(new ChangeNotificationHandle(directory.path().c_str(), FALSE, 0));
    std::array<char, 200> buffer{};
    _OVERLAPPED overlapped{};
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
    writeText(directory / "file", "");
    pass();
    EXPECT_EQ(WaitForSingleObject(aux.get(), 0), WAIT_OBJECT_0);
    for (int i = 0; i < 2; ++i) {  // the second time, once more the same
        ASSERT_TRUE(GetOverlappedResult(handle.get(), &overlapped, &bytes, TRUE));
        EXPECT_EQ(changesIn(buffer.data(), bytes), (Changes{{FILE_ACTION_ADDED, "file"}}));
    }
    EXPECT_EQ(overlapped.Internal, 0U);
    EXPECT_EQ(overlapped.InternalHigh, bytes);
    EXPECT_EQ(WaitForSingleObject(aux.get(), 0), WAIT_TIMEOUT);
    _OVERLAPPED stranger{};
    EXPECT_EQ(errorOf(GetOverlappedResult(handle.get(), &stranger, &bytes, TRUE)), EINVAL);
}

TEST(WatchHandle, WhatDoesNotFitIsDeliveredLaterAndNothingIsOverrun) {
    const TempDir directory;
    Changes expected;
    for (int i = 10; i < 30; ++i) {
        writeText(directory / std::to_string(i), "");
        expected.push_back({FILE_ACTION_ADDED, std::to_string(i)});
    }
    for (const DWORD size : {0U, 51U, 52U, 103U, 104U, 1039U, 1040U}) {  // 52 bytes a record
        const OwnedHandle handle(new ChangeNotificationHandle(directory.path().c_str(), FALSE, 0));
        std::vector<char> room(size + 32, '#');
        Changes all;
        DWORD bytes = 1;
        bool hasScanned = false;
        do {
            ASSERT_TRUE(ReadDirectoryChanges(handle.get(), room.data() + 16, size, FALSE, 0, nullptr, nullptr,
                                             nullptr));
            if (!hasScanned) pass();
            hasScanned = true;
            ASSERT_EQ(WaitForSingleObject(handle.get(), 0), WAIT_OBJECT_0)
                << "those left over signal at once";
            ASSERT_TRUE(GetOverlappedResult(handle.get(), nullptr, &bytes, FALSE));
            EXPECT_EQ(bytes, std::min<DWORD>(size / 52, 20 - static_cast<DWORD>(all.size())) * 52);
            const Changes some = changesIn(room.data() + 16, bytes);
            all.insert(all.end(), some.begin(), some.end());
        } while (bytes > 0 && all.size() < 20);
        EXPECT_EQ(std::string(room.data(), 16), std::string(16, '#'));
        EXPECT_EQ(std::string(room.data() + 16 + size, 16), std::string(16, '#'));
        if (size < 52) {  // then they are delivered into a larger one
            ASSERT_TRUE(ask(handle, 0));
            all = takeChanges(handle);
        }
        std::ranges::sort(all, {}, &Change::name);
        EXPECT_EQ(all, expected) << size;
    }
}

TEST(WatchHandle, WhatChangesBetweenTwoReadsIsFound) {
    const TempDir directory;
    const OwnedHandle handle = watching(directory.path()), other = watching(directory.path());
    writeText(directory / "a", "");
    pass();
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    ASSERT_TRUE(directoryOf(handle).GetChangeData(&bytes, &key));
    EXPECT_EQ(changesIn(directoryOf(handle).GetBuffer(), bytes), (Changes{{FILE_ACTION_ADDED, "a"}}));
    writeText(directory / "b", "");
    pass();  // for the other one
    EXPECT_EQ(WaitForSingleObject(handle.get(), 0), WAIT_TIMEOUT);
    ASSERT_TRUE(ask(handle));
    EXPECT_EQ(takeChanges(handle), (Changes{{FILE_ACTION_ADDED, "b"}}));
    EXPECT_EQ(takeChanges(other).size(), 2U);
}

TEST(WatchHandle, CountsItsReferences) {
    const TempDir directory;
    Handle* handle = FindFirstChangeNotification(directory.path().c_str(), FALSE, 0);
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
    const CountCalls opened(Call::Opendir, {.path = directory.path()});
    pass();
    EXPECT_EQ(opened.calls(), 0);
    EXPECT_EQ(FindCloseChangeNotification(duplicate), 0) << "unknown";
    duplicate->DecRefCount();

    const OwnedHandle opening(traiklofox::files::openChangeNotification(directory.path().c_str()));
    EXPECT_EQ(opening->GetRefCount(), 1);
    for (Handle* unknown : {static_cast<Handle*>(nullptr), INVALID_HANDLE_VALUE, reinterpret_cast<Handle*>(4),
                            opening.get(), handle})
        EXPECT_EQ(FindCloseChangeNotification(unknown), 0);
    EXPECT_EQ(opening->GetRefCount(), 1);
}

TEST(WatchHandle, RefusesWhatIsNone) {
    const OwnedHandle other = event();
    for (Handle* wrong : {static_cast<Handle*>(nullptr), INVALID_HANDLE_VALUE, other.get()}) {
        errno = 0;
        EXPECT_FALSE(FindNextChangeNotification(wrong));
        EXPECT_FALSE(ReadDirectoryChanges(wrong, nullptr, 0, FALSE, 0, nullptr, nullptr, nullptr));
        EXPECT_EQ(errorOf(GetOverlappedResult(wrong, nullptr, nullptr, TRUE)), EINVAL);
    }
    EXPECT_EQ(FindFirstChangeNotification(nullptr, FALSE, 0), INVALID_HANDLE_VALUE);
    ChangeNotificationHandle& unread = *new ChangeNotificationHandle(nullptr, FALSE, 0);
    DWORD bytes = 0;
    EXPECT_FALSE(unread.GetChangeData(&bytes, nullptr));
    EXPECT_FALSE(GetOverlappedResult(&unread, nullptr, nullptr, TRUE));
    CloseHandle(&unread);
}

Handle* toClose[2];

TEST(WatchHandle, ACallbackMayCloseIt) {
    const TempDir directory;
    for (Handle*& handle : toClose) handle = FindFirstChangeNotification(directory.path().c_str(), FALSE, 0);
    writeText(directory / "file", "");
    static int calls;
    calls = 0;
    pass(1, [](ULONGLONG) {
        ++calls;
        EXPECT_EQ(FindCloseChangeNotification(toClose[0]), 0);
        return true;
    });
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(WaitForSingleObject(toClose[1], 0), WAIT_OBJECT_0);
    pass(1, [](ULONGLONG) { return FindCloseChangeNotification(toClose[1]) == 0; });
    pass(1, [](ULONGLONG) { return ++calls != 0; });
    EXPECT_EQ(calls, 1) << "nothing is left to be scanned";
}

DWORD routineBytes;
_OVERLAPPED* routineOverlapped;

TEST(WatchHandle, ACompletionRoutineRunsInAnAlertableWait) {
    const TempDir directory;
    const OwnedHandle handle(new ChangeNotificationHandle(directory.path().c_str(), FALSE, 0));
    std::array<char, 200> buffer{};
    _OVERLAPPED overlapped{};
    const auto routine = [](DWORD error, DWORD bytes, _OVERLAPPED* given) {
        EXPECT_EQ(error, 0U);
        routineBytes = bytes;
        routineOverlapped = given;
    };
    ASSERT_TRUE(ReadDirectoryChanges(handle.get(), buffer.data(), buffer.size(), FALSE, 0, nullptr,
                                     &overlapped, routine));
    writeText(directory / "file", "");
    std::thread([] { pass(2); }).join();
    EXPECT_EQ(SleepEx(20'000, /*alertable=*/TRUE), WAIT_IO_COMPLETION);
    EXPECT_EQ(routineOverlapped, &overlapped);
    EXPECT_EQ(changesIn(buffer.data(), routineBytes), (Changes{{FILE_ACTION_ADDED, "file"}}));

    // Closed before it runs, it does not run.
    Handle* closed = new ChangeNotificationHandle(directory.path().c_str(), FALSE, 0);
    routineOverlapped = nullptr;
    ASSERT_TRUE(
        ReadDirectoryChanges(closed, buffer.data(), buffer.size(), FALSE, 0, nullptr, &overlapped, routine));
    pass();
    CloseHandle(closed);
    (void)SleepEx(1, /*alertable=*/TRUE);
    EXPECT_EQ(routineOverlapped, nullptr);
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

TEST(CompletionPort, ServesPacketsInOrderAndThenItsMembers) {
    const TempDir directory;
    const OwnedHandle port = newPort(),
                      handle(new ChangeNotificationHandle(directory.path().c_str(), FALSE, 0));
    EXPECT_EQ(port->What(), 12U);
    ASSERT_EQ(CreateIoCompletionPort(handle.get(), port.get(), /*key=*/42, 0), port.get());
    ASSERT_EQ(CreateIoCompletionPort(handle.get(), port.get(), /*key=*/43, 0), port.get())
        << "once more, another key";
    EXPECT_EQ(handle->GetRefCount(), 2);
    EXPECT_EQ(next(port), Completion());
    EXPECT_EQ(errno, ETIMEDOUT);

    char buffer[100];
    _OVERLAPPED overlapped{}, posted{};
    const auto read = [&] {
        return ReadDirectoryChanges(handle.get(), buffer, sizeof buffer, FALSE, kAllFilters, nullptr,
                                    &overlapped, nullptr);
    };
    ASSERT_TRUE(read());
    writeText(directory / "first", "");
    pass();
    ASSERT_TRUE(PostQueuedCompletionStatus(port.get(), 1, 2, &posted));
    ASSERT_TRUE(PostQueuedCompletionStatus(port.get(), 3, 4, nullptr));
    EXPECT_EQ(next(port), (Completion{TRUE, 1, 2, &posted}));
    EXPECT_EQ(next(port), (Completion{TRUE, 3, 4, nullptr}));
    EXPECT_EQ(next(port), (Completion{TRUE, 56, 43, &overlapped}));
    EXPECT_EQ(changesIn(buffer, 56), (Changes{{FILE_ACTION_ADDED, "first"}}));
    EXPECT_EQ(next(port).result, FALSE);

    // What does not fit comes with the next call, at once.
    for (const char* name : {"a", "b"}) writeText(directory / name, "");
    ASSERT_TRUE(read());
    pass();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(next(port), (Completion{TRUE, 52, 43, &overlapped}));
        ASSERT_TRUE(read());
    }
    EXPECT_EQ(next(port).result, FALSE);

    // A thread that waits already is woken by either.
    Completion first, second;
    std::jthread waiter([&] {
        first = next(port, INFINITE);
        second = next(port, INFINITE);
        PostQueuedCompletionStatus(port.get(), 9, 9, nullptr);
    });
    PostQueuedCompletionStatus(port.get(), 5, 6, nullptr);
    writeText(directory / "c", "");
    pass();
    waiter.join();
    EXPECT_EQ(first.bytes + second.bytes, 5U + 52U);
    EXPECT_EQ(next(port), (Completion{TRUE, 9, 9, nullptr}));
}

TEST(CompletionPort, AWaitForItFindsTheFirstSignalledMember) {
    const OwnedHandle port = newPort();
    EXPECT_EQ(WaitForSingleObject(port.get(), 0), WAIT_FAILED) << "no members";
    std::vector<OwnedHandle> members;
    for (int i = 0; i < 64; ++i) {
        members.emplace_back(new ChangeNotificationHandle("/nowhere", FALSE, 0));
        portOf(port).Insert(&directoryOf(members.back()));
        EXPECT_EQ(members.back()->GetRefCount(), 2);
    }
    EXPECT_EQ(portOf(port).GetHandle(63), members[63].get());
    EXPECT_EQ(portOf(port).GetHandle(64), nullptr);
    EXPECT_EQ(WaitForSingleObject(port.get(), 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(port.get(), 5), WAIT_TIMEOUT);
    members[40]->Signal();
    members[7]->Signal();
    EXPECT_EQ(WaitForSingleObject(port.get(), INFINITE), 7U);
    EXPECT_EQ(WaitForSingleObject(port.get(), 0), 40U);
    EXPECT_EQ(WaitForSingleObject(port.get(), 0), WAIT_TIMEOUT) << "used up";
    {
        std::jthread signaller([&] { members[63]->Signal(); });
        EXPECT_EQ(WaitForSingleObject(port.get(), 20'000), 63U);
    }
    const OwnedHandle another(new ChangeNotificationHandle("/nowhere", FALSE, 0));
    portOf(port).Insert(&directoryOf(another));
    another->Signal();
    EXPECT_EQ(WaitForSingleObject(port.get(), 0), WAIT_FAILED) << "65 members";
    EXPECT_TRUE(next(port).result) << "which a completion does not mind";
    EXPECT_TRUE(portOf(port).Erase(&directoryOf(another)));
    EXPECT_FALSE(portOf(port).Erase(&directoryOf(another)));
    EXPECT_EQ(another->GetRefCount(), 1);
    EXPECT_EQ(WaitForSingleObject(port.get(), 0), WAIT_TIMEOUT);

    // A packet counts as a signal, and stays.
    PostQueuedCompletionStatus(port.get(), 1, 1, nullptr);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(WaitForSingleObject(port.get(), 0), WAIT_OBJECT_0);
    EXPECT_TRUE(next(port).result);
}

TEST(CompletionPort, LetsMembersGoThatAreClosedAndThatOutliveIt) {
    OwnedHandle port = newPort();
    OwnedHandle kept(new ChangeNotificationHandle("/nowhere", FALSE, 0));
    Handle* closed = new ChangeNotificationHandle("/nowhere", FALSE, 0);
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

TEST(CompletionPort, AWaitOnSeveralKindsSeesWhatItHas) {
    const OwnedHandle port = newPort(), other = newPort(), event(CreateEvent(nullptr, FALSE, FALSE, nullptr));
    Handle* mixed[] = {event.get(), port.get()};
    Handle* ports[] = {other.get(), port.get()};
    const auto results = [&](DWORD milliseconds) {
        return std::pair{WaitForMultipleObjects(2, mixed, FALSE, milliseconds),
                         WaitForMultipleObjects(2, ports, FALSE, milliseconds)};
    };
    const std::pair nothing{WAIT_TIMEOUT, WAIT_TIMEOUT};
    const std::pair<DWORD, DWORD> both{1, 1};
    EXPECT_EQ(results(0), nothing);
    PostQueuedCompletionStatus(port.get(), 0, 0, nullptr);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(results(0), both);
    EXPECT_TRUE(next(port).result);
    EXPECT_EQ(results(0), nothing);
    const OwnedHandle member(new ChangeNotificationHandle("/nowhere", FALSE, 0));
    portOf(port).Insert(&directoryOf(member));
    std::jthread signaller([&] { member->Signal(); });
    EXPECT_EQ(results(20'000), both);
    EXPECT_TRUE(next(port).result);
    EXPECT_EQ(results(0), nothing);
}

TEST(CompletionPort, EachPacketIsServedToOneThread) {
    constexpr int kThreads = 4, kEach = 5000;
    const OwnedHandle port = newPort();
    std::atomic<long> sum = 0;
    std::atomic<int> served = 0;
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&] {
                for (Completion got = next(port, INFINITE); got.key != 0; got = next(port, INFINITE)) {
                    sum += static_cast<long>(got.key);
                    ++served;
                }
            });
        }
        std::vector<std::jthread> posters;
        for (int i = 0; i < 2; ++i) {
            posters.emplace_back([&] {
                for (int n = 1; n <= kEach; ++n)
                    PostQueuedCompletionStatus(port.get(), 0, static_cast<ULONG_PTR>(n), nullptr);
            });
        }
        posters.clear();
        for (int i = 0; i < kThreads; ++i) PostQueuedCompletionStatus(port.get(), 0, 0, nullptr);
    }
    EXPECT_EQ(served, 2 * kEach);
    EXPECT_EQ(sum, static_cast<long>(kEach) * (kEach + 1));
}

TEST(CompletionPort, RefusesWhatIsNone) {
    const OwnedHandle port = newPort(), event(CreateEvent(nullptr, FALSE, FALSE, nullptr));
    const OwnedHandle member(new ChangeNotificationHandle("/nowhere", FALSE, 0));
    for (const auto& [file, existing] : {std::pair{event.get(), static_cast<Handle*>(nullptr)},
                                         {event.get(), port.get()},
                                         {member.get(), event.get()},
                                         {INVALID_HANDLE_VALUE, port.get()},
                                         {nullptr, port.get()}}) {
        EXPECT_EQ(errorOf(CreateIoCompletionPort(file, existing, 0, 0) != nullptr), EINVAL);
    }
    for (Handle* wrong : {static_cast<Handle*>(nullptr), INVALID_HANDLE_VALUE, event.get()}) {
        _OVERLAPPED* overlapped = reinterpret_cast<_OVERLAPPED*>(4);
        errno = 0;
        EXPECT_FALSE(GetQueuedCompletionStatus(wrong, nullptr, nullptr, &overlapped, INFINITE));
        EXPECT_EQ(overlapped, nullptr);
        EXPECT_EQ(errorOf(PostQueuedCompletionStatus(wrong, 0, 0, nullptr)), EINVAL);
    }
}

}  // namespace
}  // namespace traiklofox::test
