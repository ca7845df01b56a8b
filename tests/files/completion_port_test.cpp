#include <atomic>
#include <thread>

#include "files/watch_fixture.h"

namespace traiklofox::test {
namespace {

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
        errno = 0;
        EXPECT_EQ(CreateIoCompletionPort(file, existing, 0, 0), nullptr);
        EXPECT_EQ(errno, EINVAL);
    }
    for (Handle* wrong : {static_cast<Handle*>(nullptr), INVALID_HANDLE_VALUE, event.get()}) {
        _OVERLAPPED* overlapped = reinterpret_cast<_OVERLAPPED*>(4);
        errno = 0;
        EXPECT_FALSE(GetQueuedCompletionStatus(wrong, nullptr, nullptr, &overlapped, INFINITE));
        EXPECT_EQ(overlapped, nullptr);
        EXPECT_FALSE(PostQueuedCompletionStatus(wrong, 0, 0, nullptr));
        EXPECT_EQ(errno, EINVAL);
    }
}

}  // namespace
}  // namespace traiklofox::test
