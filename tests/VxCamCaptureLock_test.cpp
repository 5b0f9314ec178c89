// The capture lock and the bucket memory on their own, compiled in: the library hides both.
#include <gtest/gtest.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "VxCamBucketMemory.h"
#include "VxCamCaptureLock.h"

namespace VxCam {
namespace {

// One lock in the process, as in the library: each thread's lock state points into it.
OfflineLoggerThreadLock s_lock;

TEST(CaptureLock, SharedAndExclusiveHoldsNeverMeet) {
    std::atomic<int> readers{0}, writers{0}, clashes{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 3000; ++i) {
                if (t < 2 && i % 10 == 0) {  // two writers among the lines
                    ExclusiveHold hold(s_lock);
                    if (writers++ != 0 || readers.load() != 0) ++clashes;
                    sched_yield();
                    if (readers.load() != 0) ++clashes;
                    --writers;
                } else {
                    SharedHold line(s_lock);
                    SharedHold nested(s_lock);  // holds nest
                    ++readers;
                    sched_yield();
                    if (writers.load() != 0) ++clashes;
                    --readers;
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(clashes.load(), 0);
}

TEST(CaptureLock, AHolderTakesItAgainWithoutWaitingForItself) {
    SharedHold line(s_lock);
    {
        ExclusiveHold close(s_lock);
        EXPECT_TRUE(s_lock.HeldExclusivelyByThisThread());
        SharedHold nested(s_lock);
    }
    EXPECT_FALSE(s_lock.HeldExclusivelyByThisThread());
}

TEST(CaptureLock, TheCrashReportGivesUpOnlyWhereTakingItWouldWaitForItself) {
    bool taken = false;
    ASSERT_TRUE(s_lock.LockForReport(&taken));
    EXPECT_TRUE(taken && s_lock.HeldExclusivelyByThisThread());
    EXPECT_TRUE(s_lock.LockForReport(&taken) && !taken);  // held already: no Unlock owed for it
    s_lock.Unlock();

    s_lock.LockShared();  // the fault came inside a line
    std::atomic<bool> closed{false};
    std::thread close([&] {
        ExclusiveHold hold(s_lock);
        closed = true;
    });
    // Until the closing thread has the writers' mutex the report takes the lock itself; from then
    // on that thread waits for this one's line, and the report must not wait for it in turn.
    while (!closed && s_lock.LockForReport(&taken)) {
        if (taken) s_lock.Unlock();
    }
    EXPECT_FALSE(taken || s_lock.HeldExclusivelyByThisThread() || closed.load());
    s_lock.UnlockShared();
    close.join();
}

TEST(BucketPages, AWrittenBucketsPagesMoveWholeToTheFirstFreeBucketOfItsSize) {
    constexpr size_t size = 3 * 65536 + 100;  // pages of 4 to 64 KiB
    const std::vector<unsigned char*> pool = {BucketPages::Map(size), BucketPages::Map(2 * size),
                                              BucketPages::Map(size)};
    ASSERT_TRUE(std::find(pool.begin(), pool.end(), nullptr) == pool.end());
    const auto holds = [](const unsigned char* bucket, unsigned char value) {
        return std::all_of(bucket, bucket + size, [value](unsigned char c) { return c == value; });
    };
    std::fill(pool[0], pool[0] + size, 0x5a);
    EXPECT_EQ(BucketPages::KeepBudget(pool, {1, 2}, 4), 2u);
    BucketPages::PassOn(pool, {1, 2}, pool[0], 4);
    EXPECT_TRUE(holds(pool[0], 0));              // empty whether its pages moved or went back
    EXPECT_FALSE(BucketPages::IsWarm(pool[1]));  // of another size
    // Kernels before 5.7 cannot move them: the pages go back and the heir stays cold.
    EXPECT_TRUE(holds(pool[2], BucketPages::IsWarm(pool[2]) ? 0x5a : 0));
    EXPECT_TRUE(BucketPages::GiveBack(pool[2]));
    EXPECT_TRUE(holds(pool[2], 0) && !BucketPages::IsWarm(pool[2]));
    for (unsigned char* bucket : pool) BucketPages::Unmap(bucket);
}

}  // namespace
}  // namespace VxCam
