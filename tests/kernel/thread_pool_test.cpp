#include <traiklofox/events.h>
#include <traiklofox/thread_pool.h>

#include <gtest/gtest.h>
#include <limits.h>

#include <mutex>
#include <random>
#include <vector>

#include "kernel/worker.h"

namespace {

using namespace traiklofox::test;

constexpr DWORD kAtOnce = 1;  // an idle time-out under a second

/// What one job does, and how often it has begun and ended.
struct Job {
    std::function<void()> body;
    std::atomic<int> begun = 0;
    std::atomic<int> ended = 0;
};
void work(void* untyped) {
    auto& job = *static_cast<Job*>(untyped);
    ++job.begun;
    job.body();
    ++job.ended;
}

std::atomic<int> created = 0;
std::atomic<int> refusals = 0;  // of the next creations
bool create(DWORD (*routine)(void*), void* argument) {
    if (refusals > 0 && refusals-- > 0) return false;
    ++created;
    return ThreadPool::DefaultCreator(routine, argument);
}
std::atomic<int> exited = 0;
void countedExit(unsigned int code) {
    EXPECT_EQ(code, 0u);
    ++exited;
}
std::vector<void*> discarded;
void keepDiscarded(void* job) {
    discarded.push_back(job);
}

class ThreadPoolTest : public testing::Test {
  protected:
    ThreadPoolTest() {
        created = 0;
        refusals = 0;
        exited = 0;
        discarded.clear();
    }
    ~ThreadPoolTest() override {
        SetEvent(release.get());
        pool.reset();
        EXPECT_TRUE(withinSeconds(kBoundSeconds, [] { return exited == created; }));  // they outlive the pool
    }

    ThreadPool& makePool(DWORD least, DWORD most, DWORD idleTimeout = INFINITE) {
        return pool.emplace(least, most, work, create, countedExit, keepDiscarded, idleTimeout);
    }
    /// A job that blocks until `release` is set.
    void block() { WaitForSingleObject(release.get(), kBound); }

    OwnedHandle release = makeEvent(Kind::Manual);
    std::array<Job, 6> jobs;  // outlive the pool
    std::optional<ThreadPool> pool;
};

bool becomes(const std::atomic<int>& number, int value) {
    return withinSeconds(kBoundSeconds, [&] { return number == value; });
}

TEST_F(ThreadPoolTest, StartsAWorkerForEachJobUpToItsMaximum) {
    makePool(0, 2);
    EXPECT_EQ(created, 0) << "none before the first job";
    for (Job& job : jobs) job.body = [this] { block(); };
    for (int i = 0; i < 3; ++i) pool->Produce(&jobs[static_cast<size_t>(i)]);
    EXPECT_EQ(created, 2);
    EXPECT_TRUE(becomes(jobs[0].begun, 1) && becomes(jobs[1].begun, 1));
    EXPECT_EQ(jobs[2].begun, 0);
    SetEvent(release.get());
    EXPECT_TRUE(becomes(jobs[2].ended, 1)) << "the one that waited";
    EXPECT_EQ(created, 2);
    pool.reset();
    EXPECT_TRUE(discarded.empty());
    EXPECT_TRUE(becomes(exited, 2));
}

// One worker is idle and will wake for the first job: the second must not count on it, too.
TEST_F(ThreadPoolTest, NoJobWaitsForAWorkerThatAnotherJobWillWake) {
    makePool(1, 2);
    jobs[0].body = [] {};
    jobs[1].body = jobs[2].body = [this] { block(); };
    for (int round = 0; round < 2; ++round) {
        pool->Produce(&jobs[0]);
        ASSERT_TRUE(becomes(jobs[0].ended, round + 1));
    }
    EXPECT_EQ(created, 1) << "the idle one took the second job";
    pool->Produce(&jobs[1]);
    pool->Produce(&jobs[2]);
    EXPECT_TRUE(becomes(jobs[1].begun, 1) && becomes(jobs[2].begun, 1));
}

TEST_F(ThreadPoolTest, ShrinksToItsMinimumAndGrowsAgain) {
    for (const DWORD least : {0u, 1u, 3u}) {
        for (const DWORD idleTimeout : {kAtOnce, DWORD{1000}}) {
            created = 0;
            exited = 0;
            ResetEvent(release.get());
            makePool(least, 4, idleTimeout);
            for (Job& job : jobs) {
                job.body = [this] { block(); };
                job.ended = 0;
            }
            for (int burst = 1; burst <= 2; ++burst) {
                ResetEvent(release.get());
                for (size_t i = 0; i < 4; ++i) pool->Produce(&jobs[i]);
                EXPECT_TRUE(withinSeconds(kBoundSeconds, [&] { return created - exited == 4; }));
                SetEvent(release.get());
                const int gone = burst * (4 - static_cast<int>(least));
                EXPECT_TRUE(becomes(exited, gone)) << "minimum " << least << ", burst " << burst;
                EXPECT_EQ(created, gone + static_cast<int>(least));
            }
            pool.reset();
            EXPECT_TRUE(becomes(exited, created));
        }
    }
}

TEST_F(ThreadPoolTest, WorkerThatLeavesMakesRoomForAnother) {
    makePool(0, 1);
    const auto left = makeEvent(Kind::Auto);
    const auto leaveNow = makeEvent(Kind::Manual);
    jobs[0].body = [&] {
        WaitForSingleObject(leaveNow.get(), kBound);
        EXPECT_EQ(pool->ExitPool(), 1);
        EXPECT_EQ(pool->ExitPool(), 0) << "it has left";
        SetEvent(left.get());
        block();
    };
    jobs[1].body = [] {};
    jobs[2].body = [this] { block(); };
    pool->Produce(&jobs[0]);
    pool->Produce(&jobs[1]);  // waits already when the first job's worker leaves
    EXPECT_EQ(jobs[1].begun, 0);
    SetEvent(leaveNow.get());
    EXPECT_EQ(WaitForSingleObject(left.get(), kBound), WAIT_OBJECT_0);
    EXPECT_TRUE(becomes(jobs[1].ended, 1));
    EXPECT_EQ(pool->ExitPool(), 0) << "no worker of the pool";
    pool->Produce(&jobs[2]);
    EXPECT_TRUE(becomes(jobs[2].begun, 1));
    EXPECT_EQ(created, 2);
    EXPECT_EQ(jobs[0].ended, 0);
    SetEvent(release.get());
    pool.reset();  // waits for the one that left, too
    EXPECT_EQ(jobs[0].ended, 1);
}

TEST_F(ThreadPoolTest, ShutdownWaitsForTheJobsUnderWayAndReturnsToEveryCaller) {
    makePool(1, 2);
    pool->Shutdown();  // nobody to wait for
    for (Job& job : jobs) job.body = [this] { block(); };
    for (Job& job : jobs) pool->Produce(&job);
    EXPECT_TRUE(becomes(jobs[1].begun, 1));
    std::atomic<int> returned = 0;
    {
        std::vector<std::unique_ptr<Worker>> callers;
        for (int i = 0; i < 2; ++i) {
            callers.push_back(std::make_unique<Worker>([&] {
                pool->Shutdown();
                EXPECT_EQ(jobs[0].ended + jobs[1].ended, 2);
                ++returned;
            }));
            EXPECT_TRUE(callers.back()->fallsAsleep());
        }
        EXPECT_EQ(returned, 0);
        SetEvent(release.get());
    }
    EXPECT_EQ(returned, 2);
    pool.reset();
    ASSERT_EQ(discarded.size(), jobs.size() - 2) << "a worker runs no job that it has yet to take";
    for (size_t i = 0; i < discarded.size(); ++i) EXPECT_EQ(discarded[i], &jobs[i + 2]) << "in their order";
}

TEST_F(ThreadPoolTest, JobWaitsWhenItsWorkerCannotBeStarted) {
    makePool(0, 2);
    for (Job& job : jobs) job.body = [] {};
    refusals = 1;
    pool->Produce(&jobs[0]);
    EXPECT_EQ(created, 0);
    pool->Produce(&jobs[1]);
    EXPECT_TRUE(becomes(jobs[0].ended, 1) && becomes(jobs[1].ended, 1));
}

TEST_F(ThreadPoolTest, JobMayEndItsThread) {
    makePool(1, 1);
    for (Job& job : jobs) job.body = [] { ExitThread(0); };
    for (Job& job : jobs) pool->Produce(&job);
    for (const Job& job : jobs) EXPECT_TRUE(becomes(job.begun, 1));
    pool->Shutdown();
    EXPECT_EQ(created, static_cast<int>(jobs.size()));
    created = 0;  // none of them came to the exit function
}

TEST_F(ThreadPoolTest, WithoutAThreadSpecificKeyNobodyLeaves) {
    std::vector<pthread_key_t> keys;
    for (pthread_key_t key; pthread_key_create(&key, nullptr) == 0;) keys.push_back(key);
    EXPECT_EQ(ThreadPool::ThreadData{}.GetKey(), ThreadPool::ThreadData::invalidKeyValue);
    makePool(0, 1);
    jobs[0].body = [this] { EXPECT_EQ(pool->ExitPool(), 0); };
    pool->Produce(&jobs[0]);
    EXPECT_TRUE(becomes(jobs[0].ended, 1));
    pool.reset();
    for (const pthread_key_t key : keys) pthread_key_delete(key);

    ThreadPool::ThreadData data;
    EXPECT_EQ(data.GetData(), nullptr);
    EXPECT_TRUE(data.SetData(&data));
    std::thread([&] { EXPECT_EQ(data.GetData(), nullptr); }).join();
    EXPECT_EQ(data.GetData(), &data);
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
    for (const DWORD least : {0u, 2u}) {
        ran = 0;
        int ending = 0;
        for (int i = 0; i < jobs; ++i) ending += i % 2500 == 1;
        {
            ThreadPool pool{least, 6, runOne, nullptr, nullptr, nullptr, kAtOnce};
            stressed = &pool;
            std::vector<std::unique_ptr<Worker>> producers;
            for (int number = 0; number < kProducers; ++number) {
                producers.push_back(std::make_unique<Worker>([&, number] {
                    for (int i = number; i < jobs; i += kProducers)
                        pool.Produce(reinterpret_cast<void*>(static_cast<ULONG_PTR>(i)));
                }));
            }
            producers.clear();
            EXPECT_TRUE(becomes(ran, jobs - ending)) << ran << " of " << jobs - ending;
        }
        EXPECT_EQ(ran, jobs - ending);
    }
}

}  // namespace
