#include <traiklofox/thread_pool.h>

#include <optional>

#include "kernel/worker.h"

namespace {

using namespace traiklofox::test;

constexpr DWORD kAtOnce = 1;  // an idle time-out under a second

/// What one job does, and how often it has begun and ended.
struct Job {
    std::function<void()> body = [] {};
    std::atomic<int> begun = 0;
    std::atomic<int> ended = 0;
};
void work(void* untyped) {
    auto& job = *static_cast<Job*>(untyped);
    ++job.begun;
    job.body();
    ++job.ended;
}

std::atomic<int> created, exited, refusals;  // of the next creations
bool create(DWORD (*routine)(void*), void* argument) {
    if (refusals > 0 && refusals-- > 0) return false;
    ++created;
    return ThreadPool::DefaultCreator(routine, argument);
}
void countedExit(unsigned int code) {
    EXPECT_EQ(code, 0u);
    ++exited;
}
std::vector<void*> discarded;

TEST(ThreadData, IsAValueForEachThread) {
    ThreadPool::ThreadData data;
    EXPECT_TRUE(data.SetData(&data));
    std::thread([&] { EXPECT_EQ(data.GetData(), nullptr); }).join();
    EXPECT_EQ(pthread_getspecific(data.GetKey()), &data);
}

class ThreadPoolTest : public testing::Test {
  protected:
    ~ThreadPoolTest() override { endPool(); }

    void makePool(DWORD least, DWORD most, DWORD idleTimeout = INFINITE) {
        created = exited = 0;
        pool.emplace(
            least, most, work, create, countedExit, [](void* job) { discarded.push_back(job); }, idleTimeout);
    }
    void endPool() {
        SetEvent(release.get());
        pool.reset();
        EXPECT_TRUE(becomes(exited, created));  // they outlive the pool
    }
    void letBlock(size_t from, size_t to) {
        ResetEvent(release.get());
        for (size_t i = from; i < to; ++i) jobs[i].body = [this] { waitFor(release); };
    }
    void produce(size_t from, size_t to) {
        for (size_t i = from; i < to; ++i) pool->Produce(&jobs[i]);
    }

    OwnedHandle release = makeEvent(Kind::Manual);  // of the jobs that block
    std::array<Job, 6> jobs;                        // outlive the pool
    std::optional<ThreadPool> pool;
};

TEST_F(ThreadPoolTest, StartsAWorkerForEachJobUpToItsMaximumAndKeepsItsMinimum) {
    for (const DWORD least : {0u, 1u, 3u}) {
        for (const DWORD idleTimeout : {kAtOnce, DWORD{1000}}) {
            makePool(least, 4, idleTimeout);
            for (Job& job : jobs) job.begun = job.ended = 0;
            for (int burst = 1; burst <= 2; ++burst) {
                letBlock(0, 6);
                produce(0, 5);
                EXPECT_TRUE(soon([&] { return created - exited == 4; }));
                for (size_t i = 0; i < 4; ++i) EXPECT_TRUE(becomes(jobs[i].begun, burst));
                EXPECT_EQ(jobs[4].begun, burst - 1);
                SetEvent(release.get());
                EXPECT_TRUE(becomes(jobs[4].ended, burst)) << "the one that waited";
                const int gone = burst * (4 - static_cast<int>(least));
                EXPECT_TRUE(becomes(exited, gone)) << "minimum " << least << ", burst " << burst;
                EXPECT_EQ(created, gone + static_cast<int>(least));
            }
            endPool();
        }
    }
}

// One worker is idle and will wake for the first job: the second must not count on it, too.
TEST_F(ThreadPoolTest, NoJobWaitsForAWorkerThatAnotherJobWillWakeOrThatCannotBeStarted) {
    for (int round = 1; round <= 20; ++round) {
        makePool(1, 2);
        refusals = 1;
        produce(0, 1);
        EXPECT_EQ(created, 0);
        produce(0, 1);
        ASSERT_TRUE(becomes(jobs[0].ended, 2 * round));
        EXPECT_EQ(created, 1);
        letBlock(1, 3);
        produce(1, 3);
        EXPECT_TRUE(becomes(jobs[1].begun, round) && becomes(jobs[2].begun, round));
        endPool();
    }
}

TEST_F(ThreadPoolTest, WorkerThatLeavesMakesRoomForAnother) {
    makePool(0, 1);
    const auto leaveNow = makeEvent(Kind::Manual);
    letBlock(2, 3);
    jobs[0].body = [&] {
        waitFor(leaveNow);
        EXPECT_EQ(pool->ExitPool(), 1);
        EXPECT_EQ(pool->ExitPool(), 0) << "it has left";
        waitFor(release);
    };
    produce(0, 2);  // the second waits already when the first job's worker leaves
    EXPECT_EQ(jobs[1].begun, 0);
    SetEvent(leaveNow.get());
    EXPECT_TRUE(becomes(jobs[1].ended, 1));
    EXPECT_EQ(pool->ExitPool(), 0) << "no worker of the pool";
    produce(2, 3);
    EXPECT_TRUE(becomes(jobs[2].begun, 1));
    EXPECT_EQ(created, 2);
    EXPECT_EQ(jobs[0].ended, 0);
    endPool();  // waits for the one that left, too
    EXPECT_EQ(jobs[0].ended, 1);
}

TEST_F(ThreadPoolTest, ShutdownWaitsForTheJobsUnderWayAndReturnsToEveryCaller) {
    makePool(1, 2);
    pool->Shutdown();  // nobody to wait for
    letBlock(0, 6);
    produce(0, 6);
    EXPECT_TRUE(becomes(jobs[1].begun, 1));
    Workers callers(2, [&](int) {
        pool->Shutdown();
        EXPECT_EQ(jobs[0].ended + jobs[1].ended, 2);
    });
    EXPECT_TRUE(callers.fallAsleep());
    SetEvent(release.get());
    callers.clear();
    pool.reset();
    EXPECT_EQ(discarded, (std::vector<void*>{&jobs[2], &jobs[3], &jobs[4], &jobs[5]}))
        << "a worker runs no job that it has yet to take";
}

std::atomic<int> ran = 0;
std::atomic<ThreadPool*> stressed = nullptr;
void runOne(void* number) {
    const auto which = reinterpret_cast<ULONG_PTR>(number);
    if (which % 1000 == 0) {
        EXPECT_EQ(stressed.load()->ExitPool(), 1);
    }
    if (which % 2500 == 1) ExitThread(0);
    ++ran;
}

// The idle time-out passes at once, so that workers come and go all the time.
TEST(ThreadPoolStress, RunsEveryJobOnceWhileWorkersLeaveEndAndComeBack) {
    constexpr int kProducers = 4;
    const int jobs = rounds(100'000);
    const int expected = jobs - (jobs + 2498) / 2500;  // without those that end their thread
    for (const DWORD least : {0u, 2u}) {
        ran = 0;
        ThreadPool pool{least, 6, runOne, nullptr, nullptr, nullptr, kAtOnce};
        stressed = &pool;
        Workers(kProducers, [&](int number) {
            for (int i = number; i < jobs; i += kProducers)
                pool.Produce(reinterpret_cast<void*>(static_cast<ULONG_PTR>(i)));
        }).clear();
        EXPECT_TRUE(becomes(ran, expected)) << ran << " of " << expected;
        pool.Shutdown();
        EXPECT_EQ(ran, expected);
    }
}

}  // namespace
