// Atomics, the semaphore and the traced waits. This program defines the library's wall clock, timed
// semaphore wait and trace calls (unfaked, the first two are the system's) to see what it asks for.
#include "VxCamCommonUtils.h"

#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <time.h>

#include <string>
#include <thread>
#include <vector>

#include "VxCamDebug.h"

namespace {

struct Fakes {
    bool clock = false, timedWait = false;
    timespec now = {}, deadline = {};
    int timedWaitResult = 0;
    uint64_t traceTags = 0;
    std::vector<std::string> trace;
};
Fakes s_fakes;

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* now) noexcept {
    if (s_fakes.clock && clock == CLOCK_REALTIME) {
        *now = s_fakes.now;
        return 0;
    }
    static auto next =
            reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(RTLD_NEXT, "clock_gettime"));
    return next(clock, now);
}

int sem_timedwait(sem_t* semaphore, const timespec* deadline) {
    if (!s_fakes.timedWait) {
        static auto next = reinterpret_cast<int (*)(sem_t*, const timespec*)>(
                dlsym(RTLD_NEXT, "sem_timedwait"));
        return next(semaphore, deadline);
    }
    s_fakes.deadline = *deadline;
    return s_fakes.timedWaitResult;
}

uint64_t atrace_get_enabled_tags(void) {
    return s_fakes.traceTags;
}
void atrace_begin_body(const char* name) {
    s_fakes.trace.push_back(name);
}
void atrace_end_body(void) {
    s_fakes.trace.push_back("end");
}

}  // extern "C"

namespace {

using VxCam::OsUtils;
using VxCam::Semaphore;

TEST(Sync, AtomicsAndConditionalDecrementsThatNeverGoBelowZero) {
    for (const auto& [start, expected] : {std::pair{0, 0}, {-5, -5}, {3, 2}}) {
        volatile int value = start;
        EXPECT_EQ(VxCam::VxCamAtomicDec(&value), expected) << start;
        EXPECT_EQ(value, expected) << start;
    }
    for (const auto& [amount, expected] : {std::pair{7u, 5u}, {5u, 0u}}) {
        volatile unsigned value = 5;
        EXPECT_EQ(VxCam::VxCamAtomicDecU32(&value, amount), expected) << amount;
        EXPECT_EQ(value, expected) << amount;
    }
    volatile int value = 4;
    EXPECT_EQ(VxCam::VxCamAtomicCompareExchange(&value, 4, 9), 1);
    EXPECT_EQ(VxCam::VxCamAtomicCompareExchange(&value, 5, 1), 0);
    EXPECT_EQ(value, 9);
    volatile unsigned char byte = 250;
    EXPECT_EQ(VxCam::VxCamAtomicAddU8(&byte, 10), 4);
    volatile unsigned long wide = 0xFFFFFFFFul;
    EXPECT_EQ(VxCam::VxCamAtomicAddU64(&wide, 1), 0x100000000ul);

    volatile unsigned counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 100000; ++i) VxCam::VxCamAtomicIncU(&counter);
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(VxCam::VxCamAtomicLoadU(&counter), 400000u);
}

TEST(Sync, SemaphoreWaitsTheTimedWaitsDeadlineAndTraceSections) {
    Semaphore* semaphore = Semaphore::Create();
    ASSERT_NE(semaphore, nullptr);
    semaphore->Signal();
    semaphore->Signal();
    semaphore->Wait();
    EXPECT_EQ(semaphore->TimedWait(0), 0);   // the second post
    EXPECT_EQ(semaphore->TimedWait(20), 1);  // -1 from the system, not ETIMEDOUT: 1

    // The deadline carries nanoseconds into seconds.
    s_fakes.clock = s_fakes.timedWait = true;
    s_fakes.timedWaitResult = -1;
    // clang-format off
    const struct { timespec now; unsigned milliseconds; timespec deadline; } cases[] = {
        {{10, 600000000}, 1500, {12, 100000000}}, {{10, 999999999}, 1, {11, 999999}},
        {{10, 400000000}, 600, {11, 0}}, {{10, 0}, 4294967295u, {4294977, 295000000}}};
    // clang-format on
    for (const auto& c : cases) {
        s_fakes.now = c.now;
        EXPECT_EQ(semaphore->TimedWait(c.milliseconds), 1);
        EXPECT_EQ(std::pair(s_fakes.deadline.tv_sec, s_fakes.deadline.tv_nsec),
                  std::pair(c.deadline.tv_sec, c.deadline.tv_nsec))
                << c.milliseconds;
    }
    s_fakes.timedWaitResult = ETIMEDOUT;  // a wait call that returns the error number itself
    EXPECT_EQ(semaphore->TimedWait(1), 6);

    // Trace sections need the scope bit and the camera tag.
    s_fakes = Fakes();
    const std::string object = std::to_string(reinterpret_cast<uintptr_t>(semaphore));
    const std::vector<std::string> sections = {"OsUtilsSemaphoreSignal : " + object, "end",
                                               "OsUtilsSemaphoreWait : " + object,   "end",
                                               "OsUtilsSleepMicroseconds",           "end"};
    for (const auto& [mask, tags] : {std::pair{4, 0x400}, {0xFB, 0xFFFF}, {0xFFFF, 0xFBFF}}) {
        VxCam::g_traceInfo = mask;
        s_fakes.traceTags = tags;
        s_fakes.trace.clear();
        semaphore->Signal();
        semaphore->Wait();
        OsUtils::SleepMicroseconds(1);
        EXPECT_EQ(s_fakes.trace, mask == 4 ? sections : std::vector<std::string>()) << mask;
    }
    semaphore->Destroy();
    s_fakes = Fakes();
    VxCam::g_traceInfo = 0;
}

}  // namespace
