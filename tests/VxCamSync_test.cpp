// Atomics, the semaphore and the traced waits.
//
// This program defines the clock, semaphore and trace calls the library makes, so that a test can
// fix the wall clock, see the deadline a timed wait asks for and read the trace sections. Outside
// a test's fake they pass through to the system's own.
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
    bool clock = false;
    timespec now = {};
    bool timedWait = false;
    int timedWaitResult = 0;
    timespec deadline = {};
    bool failInit = false;
    uint64_t traceTags = 0;
    std::vector<std::string> trace;
};
Fakes s_fakes;

template <typename Function>
Function Next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* now) noexcept {
    if (s_fakes.clock && clock == CLOCK_REALTIME) {
        *now = s_fakes.now;
        return 0;
    }
    static auto next = Next<int (*)(clockid_t, timespec*)>("clock_gettime");
    return next(clock, now);
}

int sem_timedwait(sem_t* semaphore, const timespec* deadline) {
    if (s_fakes.timedWait) {
        s_fakes.deadline = *deadline;
        return s_fakes.timedWaitResult;
    }
    static auto next = Next<int (*)(sem_t*, const timespec*)>("sem_timedwait");
    return next(semaphore, deadline);
}

int sem_init(sem_t* semaphore, int shared, unsigned int value) noexcept {
    if (s_fakes.failInit) return -1;
    static auto next = Next<int (*)(sem_t*, int, unsigned int)>("sem_init");
    return next(semaphore, shared, value);
}

uint64_t atrace_get_enabled_tags(void) {
    return s_fakes.traceTags;
}
void atrace_begin_body(const char* name) {
    s_fakes.trace.push_back(std::string("B ") + name);
}
void atrace_end_body(void) {
    s_fakes.trace.push_back("E");
}

}  // extern "C"

namespace {

using VxCam::OsUtils;
using VxCam::Semaphore;

class Sync : public ::testing::Test {
  protected:
    void SetUp() override { m_savedTrace = VxCam::g_traceInfo; }
    void TearDown() override {
        s_fakes = Fakes();
        VxCam::g_traceInfo = m_savedTrace;
    }

  private:
    uint64_t m_savedTrace = 0;
};

TEST_F(Sync, ConditionalDecrementsNeverGoBelowZero) {
    struct Case {
        int value;
        int expected;
    };
    for (const Case& c : {Case{0, 0}, Case{-5, -5}, Case{3, 2}, Case{1, 0}}) {
        volatile int value = c.value;
        EXPECT_EQ(VxCam::VxCamAtomicDec(&value), c.expected) << c.value;
        EXPECT_EQ(value, c.expected) << c.value;
    }
    struct CaseU {
        unsigned value;
        unsigned amount;
        unsigned expected;
    };
    for (const CaseU& c : {CaseU{5, 7, 5}, CaseU{5, 5, 0}, CaseU{5, 4, 1}, CaseU{0, 0, 0}}) {
        volatile unsigned value = c.value;
        EXPECT_EQ(VxCam::VxCamAtomicDecU32(&value, c.amount), c.expected) << c.value << c.amount;
        EXPECT_EQ(value, c.expected);
    }
    volatile unsigned zero = 0;
    EXPECT_EQ(VxCam::VxCamAtomicDecU(&zero), 0u);  // no wrap to UINT_MAX
}

TEST_F(Sync, ArithmeticReturnsTheNewValueAndWrapsByWidth) {
    volatile int value = 4;
    EXPECT_EQ(VxCam::VxCamAtomicCompareExchange(&value, 4, 9), 1);
    EXPECT_EQ(value, 9);
    EXPECT_EQ(VxCam::VxCamAtomicCompareExchange(&value, 5, 1), 0);
    EXPECT_EQ(value, 9);
    EXPECT_EQ(VxCam::VxCamAtomicSub(&value, 10), -1);
    volatile unsigned char byte = 250;
    EXPECT_EQ(VxCam::VxCamAtomicAddU8(&byte, 10), 4);  // 8-bit operand, 8-bit wrap
    volatile signed char small = -128;
    EXPECT_EQ(VxCam::VxCamAtomicSub8(&small, 1), 127);
    volatile unsigned long wide = 0xFFFFFFFFul;
    EXPECT_EQ(VxCam::VxCamAtomicAddU64(&wide, 1), 0x100000000ul);
    VxCam::VxCamAtomicStore64(reinterpret_cast<volatile long*>(&wide), -1);
    EXPECT_EQ(VxCam::VxCamAtomicLoadU64(&wide), ~0ul);
    int target = 0;
    void* volatile pointer = nullptr;
    VxCam::VxCamAtomicStoreP(&pointer, &target);
    EXPECT_EQ(VxCam::VxCamAtomicLoadP(&pointer), &target);

    // Increments from several threads are not lost.
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

TEST_F(Sync, SignalWaitAndTimedWait) {
    Semaphore* semaphore = Semaphore::Create();
    ASSERT_NE(semaphore, nullptr);
    semaphore->Signal();
    semaphore->Signal();
    semaphore->Wait();
    EXPECT_EQ(semaphore->TimedWait(0), 0);   // the second post
    EXPECT_EQ(semaphore->TimedWait(20), 1);  // expiry: -1 from the system, not ETIMEDOUT
    semaphore->Destroy();
}

TEST_F(Sync, TimedWaitDeadlineCarriesIntoSeconds) {
    Semaphore* semaphore = Semaphore::Create();
    ASSERT_NE(semaphore, nullptr);
    s_fakes.clock = true;
    s_fakes.timedWait = true;
    struct Case {
        timespec now;
        unsigned milliseconds;
        timespec deadline;
    };
    const Case cases[] = {
            {{10, 600000000}, 1500, {12, 100000000}},
            {{10, 999999999}, 1, {11, 999999}},
            {{10, 0}, 999, {10, 999000000}},
            {{10, 400000000}, 600, {11, 0}},
            {{10, 0}, 4294967295u, {4294977, 295000000}},
    };
    for (const Case& c : cases) {
        s_fakes.now = c.now;
        s_fakes.timedWaitResult = -1;
        EXPECT_EQ(semaphore->TimedWait(c.milliseconds), 1);
        EXPECT_EQ(s_fakes.deadline.tv_sec, c.deadline.tv_sec) << c.milliseconds;
        EXPECT_EQ(s_fakes.deadline.tv_nsec, c.deadline.tv_nsec) << c.milliseconds;
    }
    s_fakes.timedWaitResult = ETIMEDOUT;  // a wait call that returned the error number itself
    EXPECT_EQ(semaphore->TimedWait(1), 6);
    semaphore->Destroy();
}

TEST_F(Sync, FailedInitialisation) {
    s_fakes.failInit = true;
    EXPECT_EQ(Semaphore::Create(), nullptr);
    s_fakes.failInit = false;
    Semaphore* semaphore = Semaphore::Create();
    ASSERT_NE(semaphore, nullptr);
    s_fakes.failInit = true;
    EXPECT_EQ(semaphore->Initialize(), 1);
    semaphore->Wait();  // invalid: returns at once instead of blocking
    s_fakes.failInit = false;
    EXPECT_EQ(semaphore->Initialize(), 0);
    semaphore->Signal();
    EXPECT_EQ(semaphore->TimedWait(0), 0);
    semaphore->Destroy();
}

TEST_F(Sync, TraceSectionsNeedTheScopeBitAndTheCameraTag) {
    Semaphore* semaphore = Semaphore::Create();
    ASSERT_NE(semaphore, nullptr);
    const std::string label = std::to_string(reinterpret_cast<uintptr_t>(semaphore));
    struct Case {
        uint64_t mask;
        uint64_t tags;
        bool traced;
    };
    for (const Case& c :
         {Case{4, 0x400, true}, Case{0xFB, 0xFFFF, false}, Case{0xFFFF, 0xFBFF, false}}) {
        VxCam::g_traceInfo = c.mask;
        s_fakes.traceTags = c.tags;
        s_fakes.trace.clear();
        semaphore->Signal();
        semaphore->Wait();
        OsUtils::SleepMicroseconds(1);
        const std::vector<std::string> expected = {"B OsUtilsSemaphoreSignal : " + label, "E",
                                                   "B OsUtilsSemaphoreWait : " + label,   "E",
                                                   "B OsUtilsSleepMicroseconds",          "E"};
        EXPECT_EQ(s_fakes.trace, c.traced ? expected : std::vector<std::string>())
                << c.mask << " " << c.tags;
    }
    semaphore->Destroy();
}

}  // namespace
