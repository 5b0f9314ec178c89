// The offline logger: memory pool, per-thread capture, flushing and file naming, camera sessions,
// retention, crash backup and the C entry table.
#include "VxCamOfflineLogger.h"

#include <dlfcn.h>
#include <errno.h>
#include <inttypes.h>
#include <linux/membarrier.h>
#include <math.h>
#include <pthread.h>
#include <sched.h>
#include <setjmp.h>
#include <signal.h>
#include <stdarg.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <new>
#include <optional>
#include <unordered_map>

#include <VxCamPortPath.h>
#include <log/log.h>
#include <utils/CallStack.h>
#include <utils/String8.h>

#include "VxCamLocalTime.h"
#include "VxCamStaticSetting.h"

// The logger's own diagnostics go straight to the Android log: they must not re-enter the capture.
#define OFFLINE_LOG(priority, fmt, ...) \
    __android_log_print(priority, "VxCam", "%s():%d " fmt "\n", __func__, __LINE__, ##__VA_ARGS__)
#define OFFLINE_LOGE(fmt, ...) OFFLINE_LOG(ANDROID_LOG_ERROR, fmt, ##__VA_ARGS__)
#define OFFLINE_LOGW(fmt, ...) OFFLINE_LOG(ANDROID_LOG_WARN, fmt, ##__VA_ARGS__)
// The steps of a flush speak under the name the host calls.
#define FLUSH_LOGE(fmt, ...)                                                               \
    __android_log_print(ANDROID_LOG_ERROR, "VxCam", "%s():%d " fmt "\n", "FlushLogToFile", \
                        __LINE__, ##__VA_ARGS__)

namespace VxCam {

namespace {

// ---- Thread lock internals ----------------------------------------------------------------------

// One per capturing thread, on a cache line of its own (two, for CPUs that fetch lines in pairs):
// a shared hold writes only here, so capturing threads never contend for a line.
struct alignas(128) ReaderSlot {
    std::atomic<uint32_t> inside{0};  // the owning thread holds the lock shared
    std::atomic<uint32_t> owned{0};   // claimed by a live thread
};

// Plenty for the threads of one camera process that log; threads beyond share one counter.
constexpr size_t kReaderSlots = 256;

// Where a thread stands with the exclusive hold. A crash report on the thread reads it: between
// asking and having, and between letting go and being done, the writers' mutex may be this
// thread's own, and waiting for it would wait for ever.
enum ExclusivePhase : uint8_t {
    kExclusiveNone = 0,
    kExclusiveAcquiring,
    kExclusiveHeld,
    kExclusiveReleasing,
};

struct ThreadLockState {
    ReaderSlot* slot;   // this thread's own slot; null before its first hold, when every slot was
                        // taken, and once its exit has begun
    uint32_t depth;     // shared holds, plus one while it holds the lock exclusively
    uint8_t claimed;    // a slot was sought; later holds without a slot use the shared counter
    uint8_t light;      // announce holds with a plain store (exclusive holders use membarrier)
    uint8_t counted;    // the outermost hold is in the shared counter, not in the slot
    uint8_t exclusive;  // an ExclusivePhase
    uint8_t waiting;    // in the shared hold's slow path: counted in depth, not yet holding
};
// This thread's capture state as one thread-local: the lock state, and where its exported
// per-type arrays live (found once, on its first line). The capture reaches everything it needs
// for a line from here with a single look-up of the thread-local block; compilers repeat the
// look-up for each array otherwise.
struct CaptureThread {
    ThreadLockState lock;
    // Non-zero from before this thread asks for the pool lock until after it has let go, so that
    // a crash report on this thread knows the lock cannot be had.
    uint32_t poolHolds;
    // Where this thread stands with a logger's flush turn (an ExclusivePhase), and whose.
    uint8_t turnPhase;
    uint8_t turnType;
    uint32_t* sessionCnt;
    unsigned char** logBuffer;
    int32_t* queuePoolId;
    uint32_t* logSize;
    uint32_t* logCurPos;
    uint32_t* flushDone;
};
thread_local CaptureThread t_capture = {};

// Whether an exclusive holder can make every CPU running one of this process's threads execute a
// full memory barrier (membarrier, Linux 4.14). Shared holders then need none of their own: the
// expensive half of the handshake moves to the rare side. Decided once per process.
bool HeavyBarrierAvailable() {
    static const bool available = [] {
        const long commands = syscall(__NR_membarrier, MEMBARRIER_CMD_QUERY, 0, 0);
        if (commands < 0 || (commands & MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0) return false;
        return syscall(__NR_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
    }();
    return available;
}

void HeavyBarrier() {
    if (syscall(__NR_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0) == 0) return;
    // The registration belongs to the address space; one that has lost it registers again.
    syscall(__NR_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0);
    syscall(__NR_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0);
}

// The crash report's wait: the count may still hold this thread's own hold, whichever side of
// its release the signal came.
void WaitAtMost(const std::atomic<uint32_t>& word, uint32_t own) {
    while (word.load(std::memory_order_seq_cst) > own) sched_yield();
}

// Sequentially consistent: the load is the exclusive side's half of the handshake.
void WaitUntilZero(const std::atomic<uint32_t>& word, uint32_t own) {
    for (unsigned round = 0; word.load(std::memory_order_seq_cst) != own; ++round) {
        if (round < 64) {
            sched_yield();
        } else {
            // A reader may be waiting for the pool lock, or preempted inside a line.
            const timespec pause = {0, 100000};
            nanosleep(&pause, nullptr);
        }
    }
}

}  // namespace

// Capture holds it shared for one line; camera close, disable and pool clean-up hold it
// exclusively while buckets are written out or released. Constant-initialised and never
// destroyed, so threads still logging while the process exits find it intact. There is one in the
// process: the per-thread state above belongs to it.
//
// A shared holder stores 1 into its own slot, then reads the writer flag; an exclusive holder
// raises the flag, then waits until every slot reads 0. Either the reader sees the flag and backs
// off, or the writer sees the reader's slot and waits: that needs a full barrier between each
// side's store and load, which the exclusive side issues for both (membarrier) when the system
// allows, and each side issues for itself (sequentially consistent operations) when it does not.
// Readers that find the flag raised back off and sleep on the writers' mutex, so a waiting
// exclusive holder is not starved by a stream of lines. Holds nest: a thread that holds the lock
// either way takes it shared again for free.
class OfflineLoggerThreadLock {
  public:
    constexpr OfflineLoggerThreadLock() = default;

    void LockShared() { LockShared(t_capture.lock); }
    void UnlockShared() { UnlockShared(t_capture.lock); }

    __attribute__((always_inline)) void LockShared(ThreadLockState& self) {
        if (self.depth++ != 0) return;
        ReaderSlot* slot = self.slot;
        if (slot != nullptr && self.light != 0) {
            slot->inside.store(1, std::memory_order_relaxed);
            // Keeps the compiler from swapping the store and the load; the CPU may still, and the
            // exclusive holder's barrier on every CPU covers that.
            std::atomic_signal_fence(std::memory_order_seq_cst);
            if (m_writer.load(std::memory_order_acquire) == 0) return;
            slot->inside.store(0, std::memory_order_release);
        }
        LockSharedSlow(self);
    }

    __attribute__((always_inline)) void UnlockShared(ThreadLockState& self) {
        if (--self.depth != 0) return;
        if (self.counted != 0) {
            self.counted = 0;
            m_countedReaders.fetch_sub(1, std::memory_order_release);
        } else {
            self.slot->inside.store(0, std::memory_order_release);
        }
    }

    void Lock() {
        ThreadLockState& self = t_capture.lock;
        SetPhase(self, kExclusiveAcquiring);
        pthread_mutex_lock(&m_writerMutex);
        DrainReaders(self);
    }

    // The crash report's way in. The exclusive hold is taken unless the thread has it already,
    // or taking it could wait for this very thread: while the thread is itself taking or giving
    // up the exclusive hold, or while it holds the lock shared and another thread has already
    // begun to take it exclusively (that thread waits for this one to leave). Returns false
    // then; `taken` tells whether an Unlock is owed.
    bool LockForReport(bool* taken) {
        ThreadLockState& self = t_capture.lock;
        *taken = false;
        if (self.exclusive == kExclusiveHeld) return true;
        if (self.exclusive != kExclusiveNone) return false;
        // The signal may have come at any step of a shared hold, its release or its slow path
        // (which takes the writers' mutex for a moment): whatever this thread shows in the lock,
        // an exclusive holder waits for.
        const bool visible = ShowsSharedHold();
        SetPhase(self, kExclusiveAcquiring);
        if (!visible) {
            pthread_mutex_lock(&m_writerMutex);  // waits for other threads only
        } else if (pthread_mutex_trylock(&m_writerMutex) != 0) {
            SetPhase(self, kExclusiveNone);
            return false;
        }
        DrainReaders(self, true);
        *taken = true;
        return true;
    }

    // Whether an exclusive holder would wait for the calling thread: a signal may have come at any
    // step of a shared hold, its release or its slow path.
    bool ShowsSharedHold() const {
        const ThreadLockState& self = t_capture.lock;
        return self.depth != 0 || self.waiting != 0 || self.counted != 0 ||
               (self.slot != nullptr && self.slot->inside.load() != 0);
    }

    // Whether the calling thread counts as holding the lock shared without holding it: a
    // capture on it now would copy into a bucket that an exclusive holder may be writing.
    bool WaitingForShared() const { return t_capture.lock.waiting != 0; }

    // Whether the calling thread holds the lock exclusively.
    bool HeldExclusivelyByThisThread() const { return t_capture.lock.exclusive == kExclusiveHeld; }

    void Unlock() {
        ThreadLockState& self = t_capture.lock;
        SetPhase(self, kExclusiveReleasing);
        --self.depth;
        m_writer.store(0, std::memory_order_release);
        pthread_mutex_unlock(&m_writerMutex);
        SetPhase(self, kExclusiveNone);
    }

  private:
    // Only a signal handler on the same thread reads the phase: keeping the compiler's order is
    // enough.
    static void SetPhase(ThreadLockState& self, ExclusivePhase phase) {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        self.exclusive = phase;
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }

    // With the writers' mutex held: shuts out new shared holds and waits for those under way.
    // A crash report ignores this thread's own slot, whatever state the signal left it in, and
    // takes the shared counter down to this thread's part of it at most.
    void DrainReaders(ThreadLockState& self, bool forReport = false) {
        m_writer.store(1, std::memory_order_seq_cst);
        if (HeavyBarrierAvailable()) HeavyBarrier();
        // A thread that already holds it shared is let through rather than left waiting on itself.
        const bool holding = self.depth != 0;
        for (ReaderSlot& slot : m_slots) {
            if (forReport && &slot == self.slot) continue;
            WaitUntilZero(slot.inside, holding && &slot == self.slot && self.counted == 0 ? 1 : 0);
        }
        if (forReport) {
            WaitAtMost(m_countedReaders, self.counted != 0 ? 1 : 0);
        } else {
            WaitUntilZero(m_countedReaders, holding && self.counted != 0 ? 1 : 0);
        }
        ++self.depth;
        SetPhase(self, kExclusiveHeld);
    }

    // Gives the thread back its slot when it exits; later holds on the way out are counted.
    struct SlotLease {
        ~SlotLease() {
            ThreadLockState& self = t_capture.lock;
            if (self.slot == nullptr || self.depth != 0) return;
            self.slot->owned.store(0, std::memory_order_release);
            self.slot = nullptr;
        }
    };

    void ClaimSlot(ThreadLockState& self) {
        self.claimed = 1;
        self.light = HeavyBarrierAvailable() ? 1 : 0;
        const uint32_t start = m_nextSlot.fetch_add(1, std::memory_order_relaxed);
        for (size_t i = 0; i < kReaderSlots; ++i) {
            ReaderSlot& slot = m_slots[(start + i) % kReaderSlots];
            uint32_t free = 0;
            if (slot.owned.load(std::memory_order_relaxed) == 0 &&
                slot.owned.compare_exchange_strong(free, 1, std::memory_order_acquire)) {
                self.slot = &slot;
                thread_local SlotLease lease;
                (void)lease;
                return;
            }
        }
    }

    void LockSharedSlow(ThreadLockState& self) {
        SetWaiting(self, 1);
        LockSharedWaiting(self);
        SetWaiting(self, 0);
    }

    static void SetWaiting(ThreadLockState& self, uint8_t waiting) {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        self.waiting = waiting;
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }

    void LockSharedWaiting(ThreadLockState& self) {
        if (self.claimed == 0) ClaimSlot(self);
        for (;;) {
            if (self.slot != nullptr) {
                if (self.light != 0) {
                    self.slot->inside.store(1, std::memory_order_relaxed);
                    std::atomic_signal_fence(std::memory_order_seq_cst);
                    if (m_writer.load(std::memory_order_acquire) == 0) return;
                } else {
                    self.slot->inside.store(1, std::memory_order_seq_cst);
                    if (m_writer.load(std::memory_order_seq_cst) == 0) return;
                }
                self.slot->inside.store(0, std::memory_order_release);
            } else {
                m_countedReaders.fetch_add(1, std::memory_order_seq_cst);
                if (m_writer.load(std::memory_order_seq_cst) == 0) {
                    self.counted = 1;
                    return;
                }
                m_countedReaders.fetch_sub(1, std::memory_order_release);
            }
            // An exclusive holder has the lock or is about to: sleep until it lets go.
            pthread_mutex_lock(&m_writerMutex);
            pthread_mutex_unlock(&m_writerMutex);
        }
    }

    ReaderSlot m_slots[kReaderSlots];
    alignas(128) std::atomic<uint32_t> m_countedReaders{0};
    // Read for every line and written only by exclusive holders: on a line of its own.
    alignas(128) std::atomic<uint32_t> m_writer{0};
    alignas(128) std::atomic<uint32_t> m_nextSlot{0};
    pthread_mutex_t m_writerMutex = PTHREAD_MUTEX_INITIALIZER;
};

namespace {

constexpr const char kDeviceRoot[] = "/data/vendor/camera";
constexpr uint32_t kSegmentLimit = 52428800;  // 50 MiB per file part
constexpr float kBytesToMB = 9.536743e-07f;
constexpr double kMinimumStartSpaceMB = 3000.0;
constexpr uint32_t kStateActive = 0;
constexpr uint32_t kStateClosing = 1;
constexpr uint32_t kStateDisabled = 2;
constexpr size_t kPathSize = 4096;
constexpr size_t kTimestampSize = 50;

constexpr OfflineLoggerConfigInfo kBuiltInConfig[4] = {
        {25, 25, 6, 3145728},   // OfflineLog
        {25, 25, 12, 3145728},  // BinaryLog
        {0, 60, 50, 3145728},   // CoredumpTxt
        {0, 2, 1, 3145728},     // CoredumpBin
};

// Capturing threads store into their own registration under the shared lock only, so the table
// must never move: it is reserved once for this many registrations, and a request beyond that
// fails like an allocation failure. Each live registration holds a 3 MiB bucket, so the bound is
// far above any real pool; the reservation is address space, untouched until used.
constexpr size_t kRegistrationCapacity = 4096;

const char* TypeName(uint32_t type) {
    static const char* const kNames[] = {"OfflineLog", "BinaryLog", "CoredumpTxt", "CoredumpBin"};
    return type < 4 ? kNames[type] : "UnKnow";
}

bool IsValidType(uint32_t type) {
    return (type & 0xFC) == 0;
}

// The type is 32 bits wide and only bits 2 to 7 make it invalid: every per-type array is indexed
// by the two low bits, never by the value itself.
constexpr uint32_t TypeIndex(uint32_t type) {
    return type & 3;
}

class SharedHold {
  public:
    __attribute__((always_inline)) SharedHold(OfflineLoggerThreadLock& lock, ThreadLockState& self)
        : m_lock(lock), m_self(self) {
        m_lock.LockShared(m_self);
    }
    explicit SharedHold(OfflineLoggerThreadLock& lock) : SharedHold(lock, t_capture.lock) {}
    __attribute__((always_inline)) ~SharedHold() { m_lock.UnlockShared(m_self); }

  private:
    OfflineLoggerThreadLock& m_lock;
    ThreadLockState& m_self;
};

class ExclusiveHold {
  public:
    explicit ExclusiveHold(OfflineLoggerThreadLock& lock) : m_lock(lock) { m_lock.Lock(); }
    ~ExclusiveHold() { m_lock.Unlock(); }

  private:
    OfflineLoggerThreadLock& m_lock;
};

// The pool lock as the library takes it: the thread notes the hold before it waits and forgets
// it only after letting go.
class PoolHold {
  public:
    explicit PoolHold(std::mutex& mutex) : m_mutex(mutex) {
        ++t_capture.poolHolds;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        m_mutex.lock();
    }
    ~PoolHold() {
        m_mutex.unlock();
        std::atomic_signal_fence(std::memory_order_seq_cst);
        --t_capture.poolHolds;
    }
    PoolHold(const PoolHold&) = delete;
    PoolHold& operator=(const PoolHold&) = delete;

  private:
    std::mutex& m_mutex;
};

// One flush of a logger writes files at a time: the files of a thread are appended to in the order
// its buckets were handed over, and the session's bookkeeping is kept in the order of the writes.
// The pool lock is held only to take the requests and to give the buckets back, so a capturing
// thread that needs a bucket never waits for the disk. Taken before the capture lock and the pool
// lock; camera close, disable, pool clean-up and retention take it too, so that no bucket is
// released, and no session's records move, under a flush that is writing.
pthread_mutex_t s_flushTurns[4] = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER,
                                   PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER};

// The flush turn as the library takes it. A thread that holds it already (a crash report on a
// thread that was flushing, a camera close that flushes) goes on under the hold it has.
class TurnHold {
  public:
    // With a `patience` (the crash report's way in), gives up after it rather than wait for a
    // holder that may be waiting for this very thread.
    explicit TurnHold(uint32_t type,
                      std::chrono::milliseconds patience = std::chrono::milliseconds::max())
        : m_type(static_cast<uint8_t>(type & 3)) {
        CaptureThread& self = t_capture;
        if (self.turnPhase == kExclusiveHeld && self.turnType == m_type) return;
        Enter(self, kExclusiveAcquiring);
        if (patience == std::chrono::milliseconds::max()) {
            pthread_mutex_lock(&s_flushTurns[m_type]);
            Enter(self, kExclusiveHeld);
            m_owner = true;
            return;
        }
        const auto until = std::chrono::steady_clock::now() + patience;
        while (pthread_mutex_trylock(&s_flushTurns[m_type]) != 0) {
            if (std::chrono::steady_clock::now() >= until) {
                Enter(self, kExclusiveNone);
                m_failed = true;
                return;
            }
            const timespec pause = {0, 1000000};
            nanosleep(&pause, nullptr);
        }
        Enter(self, kExclusiveHeld);
        m_owner = true;
    }
    ~TurnHold() {
        if (!m_owner) return;
        CaptureThread& self = t_capture;
        Enter(self, kExclusiveReleasing);
        pthread_mutex_unlock(&s_flushTurns[m_type]);
        Enter(self, kExclusiveNone);
    }
    bool Failed() const { return m_failed; }
    TurnHold(const TurnHold&) = delete;
    TurnHold& operator=(const TurnHold&) = delete;

  private:
    void Enter(CaptureThread& self, ExclusivePhase phase) const {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        self.turnPhase = phase;
        self.turnType = m_type;
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }

    uint8_t m_type;
    bool m_owner = false;
    bool m_failed = false;
};

std::mutex s_offlineLoggerMutex;
OfflineLoggerThreadLock s_threadLock;
std::atomic<bool> s_threadGuard{false};

// The text or binary logger whose camera close is flushing everything on this thread: the session
// ends with that flush, so no registration it finds is used again.
thread_local const VxCamOfflineLogger* t_sessionEndingLogger = nullptr;

// The session that the status report on this thread speaks of, when not the current one.
thread_local uint32_t t_reportedSession = 0;

// The flush whose files this thread is writing, if any: a crash report on the thread writes what
// that flush had taken and not yet written, since no registration names those buckets any more.
thread_local void* t_writingBatch = nullptr;

// The entry table's per-type instance cache, shared with the thread-exit guard.
std::atomic<VxCamOfflineLogger*> s_entryInstances[4];

VxCamOfflineLogger* CachedInstance(OfflineLoggerType type) {
    if (!IsValidType(type)) return VxCamOfflineLogger::GetInstance(type);
    std::atomic<VxCamOfflineLogger*>& entry = s_entryInstances[TypeIndex(type)];
    VxCamOfflineLogger* logger = entry.load(std::memory_order_acquire);
    if (logger == nullptr) {
        logger = VxCamOfflineLogger::GetInstance(type);
        entry.store(logger, std::memory_order_release);
    }
    return logger;
}

// "2026-11-15--12-05-52-123456": local time with microseconds; empty when the clock cannot be
// broken down.
std::string Timestamp() {
    timeval now = {};
    gettimeofday(&now, nullptr);
    tm local = {};
    if (LocalTime(&now.tv_sec, &local) == nullptr) return std::string();
    char text[kTimestampSize];
    snprintf(text, sizeof(text), "%2d-%02d-%02d--%02d-%02d-%02d-%06ld", local.tm_year + 1900,
             local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
             static_cast<long>(now.tv_usec));
    return text;
}

// ---- Bucket memory -------------------------------------------------------------------------------
// Each bucket is a private anonymous mapping of its own, so it costs address space only until a
// thread writes into it. After its flush a bucket is zeroed without touching its untouched pages:
// its written pages either move to the bucket next in line in the free list (zeroed first, then
// moved whole with mremap), or go back to the system (MADV_DONTNEED), and the bucket reads as zeros
// either way. Moving them is for the capture's sake: a page that comes fresh from the kernel costs a
// fault and a clear, more than the lines written into it, while a moved page is ready. Buckets
// holding moved pages are the first in line (the heir is the first bucket in line without any), so
// a thread takes a bucket without pages only when no bucket with pages is free: the pool's resident
// memory never exceeds what was in flight at its busiest. The caller bounds how many free buckets
// keep pages after a burst, and a reset of the pool (camera close) gives them all back.
class BucketPages {
  public:
    static unsigned char* Map(size_t size) {
        const size_t length = PageRound(size);
        void* pages =
                mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (pages == MAP_FAILED) return nullptr;
        unsigned char* bucket = static_cast<unsigned char*>(pages);
        try {
            std::lock_guard<std::mutex> lock(Mutex());
            Table()[bucket] = Mapping{length, false};
        } catch (const std::exception&) {
            munmap(pages, length);
            return nullptr;
        }
        return bucket;
    }

    // Also takes buckets that a derived logger's AllocateLogQueueMemPool got from malloc.
    static void Unmap(unsigned char* bucket) {
        size_t length = 0;
        {
            std::lock_guard<std::mutex> lock(Mutex());
            auto found = Table().find(bucket);
            if (found != Table().end()) {
                length = found->second.length;
                Table().erase(found);
            }
        }
        if (length != 0) {
            munmap(bucket, length);
        } else {
            free(bucket);
        }
    }

    // How many of the buckets a flush is about to write may keep their pages: as many as there are
    // free buckets without pages to pass them on to, up to `warmLimit` free buckets with pages.
    // With the pool lock held.
    static size_t KeepBudget(const std::vector<unsigned char*>& pool,
                             const std::deque<int>& freeIds, size_t warmLimit) {
        std::lock_guard<std::mutex> lock(Mutex());
        size_t warm = 0;
        size_t cold = 0;
        for (int id : freeIds) {
            if (id < 0 || static_cast<size_t>(id) >= pool.size()) continue;
            const Mapping* candidate = Find(pool[id]);
            if (candidate == nullptr) continue;
            if (candidate->warm) {
                if (++warm >= warmLimit) return 0;
            } else if (++cold >= warmLimit) {
                break;
            }
        }
        return std::min(warmLimit - warm, cold);
    }

    // Passes the pages of a written bucket, zeroed by the flush, to the free bucket first in line
    // without any; they go back to the system when there is none or enough free buckets have
    // pages. With the pool lock held, before the bucket is free again.
    static void PassOn(const std::vector<unsigned char*>& pool, const std::deque<int>& freeIds,
                       unsigned char* bucket, size_t warmLimit) {
        std::lock_guard<std::mutex> lock(Mutex());
        Mapping* mapping = Find(bucket);
        if (mapping == nullptr) return;
        Mapping* heir = nullptr;
        unsigned char* heirBucket = nullptr;
        size_t warm = 0;
        // Buckets with pages lead the line, so the first one without is the heir.
        for (int id : freeIds) {
            if (id < 0 || static_cast<size_t>(id) >= pool.size()) continue;
            Mapping* candidate = Find(pool[id]);
            if (candidate == nullptr) continue;
            if (candidate->warm) {
                if (++warm >= warmLimit) break;
            } else if (candidate->length == mapping->length) {
                heir = candidate;
                heirBucket = pool[id];
                break;
            }
        }
        mapping->warm = false;
        // The bucket stays mapped, empty; kernels before 5.7 refuse and the pages go back.
        if (heir != nullptr && warm < warmLimit &&
            mremap(bucket, mapping->length, mapping->length,
                   MREMAP_MAYMOVE | MREMAP_FIXED | MREMAP_DONTUNMAP, heirBucket) != MAP_FAILED) {
            heir->warm = true;
            return;
        }
        madvise(bucket, mapping->length, MADV_DONTNEED);
    }

    // Drops whatever the bucket holds; it reads as zeros afterwards. False for a bucket that is
    // not a mapping of this class (a derived logger's), which the caller zeroes itself.
    static bool GiveBack(unsigned char* bucket) {
        std::lock_guard<std::mutex> lock(Mutex());
        Mapping* mapping = Find(bucket);
        if (mapping == nullptr) return false;
        mapping->warm = false;
        madvise(bucket, mapping->length, MADV_DONTNEED);
        return true;
    }

    static bool IsWarm(const unsigned char* bucket) {
        std::lock_guard<std::mutex> lock(Mutex());
        const Mapping* mapping = Find(bucket);
        return mapping != nullptr && mapping->warm;
    }

  private:
    struct Mapping {
        size_t length;
        bool warm;  // free, holding pages moved in from a flushed bucket
    };

    static size_t PageRound(size_t size) {
        static const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        return (std::max<size_t>(size, 1) + page - 1) / page * page;
    }
    static std::mutex& Mutex() {
        static std::mutex* mutex = new std::mutex;  // never destroyed: threads may outlive exit
        return *mutex;
    }
    static std::unordered_map<const unsigned char*, Mapping>& Table() {
        static auto* table = new std::unordered_map<const unsigned char*, Mapping>;
        return *table;
    }
    static Mapping* Find(const unsigned char* bucket) {
        auto found = Table().find(bucket);
        return found != Table().end() ? &found->second : nullptr;
    }
};

void RegisterSignalHandlersOnce();

float MillisecondsSince(std::chrono::steady_clock::time_point start) {
    const auto elapsed = std::chrono::steady_clock::now() - start;
    return static_cast<float>(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count()) /
           1e6f;
}

}  // namespace

// ---- Process-wide state -------------------------------------------------------------------------

std::atomic<uint32_t> VxCamOfflineLogger::s_isInitValid{0};
std::mutex* VxCamOfflineLogger::m_pOfflineLoggerLock = &s_offlineLoggerMutex;
OfflineLoggerThreadLock* VxCamOfflineLogger::m_pThreadLock = &s_threadLock;
std::atomic<bool>* VxCamOfflineLogger::m_pThreadGuard = &s_threadGuard;

// Text and binary logs count segments from 1, the core-dump types from 0.
thread_local uint32_t VxCamOfflineLogger::s_threadLocalSegmentCnt[4] = {1, 1, 0, 0};
thread_local unsigned char* VxCamOfflineLogger::s_pThreadLocalLogBuffer[4] = {};
thread_local int32_t VxCamOfflineLogger::s_threadLocalQueuePoolId[4] = {};
thread_local uint32_t VxCamOfflineLogger::s_threadLocalSessionCnt[4] = {};
thread_local uint32_t VxCamOfflineLogger::s_threadLocalLogSize[4] = {};
thread_local uint32_t VxCamOfflineLogger::s_threadLocalLogCurPos[4] = {};
thread_local uint32_t VxCamOfflineLogger::s_threadLocalFlushDone[4] = {};
thread_local LifetimeThreadInfo VxCamOfflineLogger::s_threadLocalLifeTime[4] = {};

// The capture reads the thread-locals above for every line. Their exported names may be
// interposed, so each costs a run-time look-up of its own; these aliases of the same storage are
// bound within the library, so a line looks up the library's thread-local block once.
#define VXCAM_LOCAL_ALIAS(symbol) \
    __attribute__((alias(#symbol), tls_model("local-dynamic"), visibility("hidden")))
namespace {
extern __thread uint32_t t_segmentCnt[4] VXCAM_LOCAL_ALIAS(
        _ZN5VxCam18VxCamOfflineLogger23s_threadLocalSegmentCntE);
extern __thread unsigned char* t_logBuffer[4] VXCAM_LOCAL_ALIAS(
        _ZN5VxCam18VxCamOfflineLogger23s_pThreadLocalLogBufferE);
extern __thread int32_t t_queuePoolId[4] VXCAM_LOCAL_ALIAS(
        _ZN5VxCam18VxCamOfflineLogger24s_threadLocalQueuePoolIdE);
extern __thread uint32_t t_sessionCnt[4] VXCAM_LOCAL_ALIAS(
        _ZN5VxCam18VxCamOfflineLogger23s_threadLocalSessionCntE);
extern __thread uint32_t t_logSize[4] VXCAM_LOCAL_ALIAS(
        _ZN5VxCam18VxCamOfflineLogger20s_threadLocalLogSizeE);
extern __thread uint32_t t_logCurPos[4] VXCAM_LOCAL_ALIAS(
        _ZN5VxCam18VxCamOfflineLogger22s_threadLocalLogCurPosE);
extern __thread uint32_t t_flushDone[4] VXCAM_LOCAL_ALIAS(
        _ZN5VxCam18VxCamOfflineLogger22s_threadLocalFlushDoneE);
}  // namespace
#undef VXCAM_LOCAL_ALIAS

// ---- Instances ----------------------------------------------------------------------------------

VxCamOfflineLogger* VxCamOfflineLogger::GetInstance(OfflineLoggerType type) {
    static VxCamOfflineLogger* const* s_instances = []() -> VxCamOfflineLogger* const* {
        static VxCamOfflineLogger* table[4] = {};
        try {
            for (uint32_t t = 0; t < 4; ++t) {
                table[t] = new VxCamOfflineLogger(static_cast<OfflineLoggerType>(t),
                                                  &kBuiltInConfig[t]);
            }
        } catch (const std::bad_alloc&) {
            OFFLINE_LOGE("VxCamOfflineLogger allocate memory failed");
            return nullptr;
        }
        return table;
    }();
    // Stored once: every debug message passes here, from every thread.
    if (s_isInitValid.load(std::memory_order_relaxed) == 0) {
        s_isInitValid.store(1, std::memory_order_relaxed);
    }
    if (s_instances == nullptr || !IsValidType(type)) return nullptr;
    return s_instances[type & 3];
}

VxCamOfflineLogger::VxCamOfflineLogger(OfflineLoggerType type, const OfflineLoggerConfigInfo* config)
    : m_typeEnabled{},
      m_loggerTypeName(TypeName(type)),
      m_prefixReady(0),
      m_state(kStateActive),
      m_loggerType(type),
      m_sessionCount(1),
      m_sessionFlushState(0),
      m_flushRequestCount(0),
      m_totalFlushSizeMB(0.0f),
      m_logInfo{},
      m_maxFileNameListSize(0),
      m_minimumRequireForBackupLog(0),
      m_enableBackupLogWhileCrash(0),
      m_coredumpEnabled(0),
      m_multiPathMode(0),
      m_statusFd(-1),
      m_statusDumpFile(nullptr),
      m_fwriteSampleCount(0),
      m_fwriteTimeAvgMs(0.0f),
      m_totalFlushTimeMs(0.0f),
      m_totalFlushCount(0),
      m_removeSuccessCount(0),
      m_removeFailCount(0),
      m_requestMemoryCount(0),
      m_triggerOperation(0),
      m_cleanupTriggerCount(0),
      m_statusDumpEnabled(0),
      m_cameraOpenCount{},
      m_signal35TombstoneTriggered(0),
      m_maxFlushLogSizeThreshold(2600),
      m_pConfigInfo(config != nullptr ? config : &kBuiltInConfig[type & 3]),
      m_flushTriggerLink(nullptr),
      m_cleanupTriggerLink(nullptr),
      m_registrationCount(0) {
    m_fileNameSet.max_load_factor(1.0f);
    m_perLogInfoPool.reserve(
            std::max<size_t>(kRegistrationCapacity, 4u * m_pConfigInfo->initialBucketCount));
}

VxCamOfflineLogger::~VxCamOfflineLogger() {
    for (unsigned char* bucket : m_memPool) BucketPages::Unmap(bucket);
    m_memPool.clear();
    m_memPool.shrink_to_fit();
}

std::string VxCamOfflineLogger::DeviceRoot() const {
    return VxCamPort::ResolveDevicePath(kDeviceRoot);
}

int VxCamOfflineLogger::GetSettingLink() {
    VxCamStaticSetting* settings = VxCamStaticSetting::GetInstance();
    std::string root;
    try {
        root = DeviceRoot();
    } catch (const std::bad_alloc&) {
        OFFLINE_LOGE("VxCamOfflineLogger get override setting failed");
        return 0;
    }
    const double freeMB = GetAvailableSpace(root.c_str());
    if (freeMB >= 0.0 && freeMB < kMinimumStartSpaceMB) {
        char path[kPathSize];
        const int length = snprintf(path, sizeof(path), "%s/VxCam_%s_ErrorMsg.txt", root.c_str(),
                                    m_loggerTypeName.c_str());
        if (length > 0 && static_cast<size_t>(length) < sizeof(path)) {
            FILE* file = fopen(path, "a+");
            if (file != nullptr) {
                static const char kNoSpace[] =
                        "VxCamOfflineLogger detect file system has no space left";
                fwrite(kNoSpace, 1, sizeof(kNoSpace) - 1, file);
                fclose(file);
            }
        }
        OFFLINE_LOGE("VxCamOfflineLogger detect file system has no space left!");
        OFFLINE_LOGE("VxCamOfflineLogger get override setting failed");
        return 0;
    }
    if (freeMB < 0.0) {
        OFFLINE_LOGE("VxCamOfflineLogger query system space failed!");
        OFFLINE_LOGE("VxCamOfflineLogger get override setting failed");
        return 0;
    }
    if (settings == nullptr) {
        OFFLINE_LOGE("VxCamOfflineLogger get override setting failed");
        return 0;
    }

    // Built in: no setting changes these.
    m_maxFileNameListSize = 200;
    m_minimumRequireForBackupLog = 3000;
    m_enableBackupLogWhileCrash = 1;
    m_typeEnabled[OfflineLog] = 0;
    m_typeEnabled[BinaryLog] = 0;
    m_typeEnabled[CoredumpTxt] = 1;
    m_typeEnabled[CoredumpBin] = 1;
    m_statusDumpEnabled = 0;

    if (!IsValidType(m_loggerType) || m_typeEnabled[TypeIndex(m_loggerType)] != 1) return 1;

    int result;
    {
        PoolHold lock(*m_pOfflineLoggerLock);
        result = AllocateLogQueueMemPool(m_pConfigInfo->initialBucketCount,
                                         m_pConfigInfo->bucketSize);
    }
    if (result != 1) return result;
    m_state.store(kStateActive);
    RegisterSignalHandlersOnce();
    return 1;
}

void VxCamOfflineLogger::SetAllToDefaultValue() {
    PoolHold lock(*m_pOfflineLoggerLock);
    m_freeBucketIds.clear();
    for (size_t i = 0; i < m_memPool.size(); ++i) m_freeBucketIds.push_back(static_cast<int>(i));
    // Every bucket is free again: none keeps pages until a thread writes into it.
    for (unsigned char* bucket : m_memPool) BucketPages::GiveBack(bucket);
    m_flushedThreadList.clear();
    DropSession();
}

// With the pool lock held: the session's naming, registrations and requests go.
void VxCamOfflineLogger::DropSession() {
    m_prefixReady = 0;
    m_sessionPrefix.clear();
    m_freeRegisterIds.clear();
    m_flushRequestIds.clear();
    m_fileNameList.clear();
    m_fileNameSet.clear();
    m_fwriteTimeHistory.clear();
    m_perLogInfoPool.clear();  // keeps its reservation: registrations never move
    m_registrationCount.store(0, std::memory_order_relaxed);
}

DebugLogInfo VxCamOfflineLogger::GetLogInfoMask() {
    return m_logInfo;
}

void VxCamOfflineLogger::SetLogInfoMask(DebugLogInfo* info) {
    if (info == nullptr) return;
    m_logInfo.debugMask = info->debugMask;
    m_logInfo.errorMask = info->errorMask;
    m_logInfo.warningMask = info->warningMask;
    m_logInfo.level3Mask = info->level3Mask;
    m_logInfo.infoMask = info->infoMask;
    m_logInfo.verboseMask = info->verboseMask;
    m_logInfo.systemLogEnable = info->systemLogEnable;
    m_logInfo.offlineLogEnable = info->offlineLogEnable;
    m_logInfo.isUpdated = info->isUpdated;
}

// ---- Memory pool and registrations --------------------------------------------------------------

int VxCamOfflineLogger::AllocateLogQueueMemPool(unsigned int count, unsigned int size) {
    bool failed = false;
    for (unsigned int i = 0; i < count; ++i) {
        // Zero pages that cost nothing until a thread writes into them.
        unsigned char* bucket = BucketPages::Map(size);
        if (bucket == nullptr) {
            OFFLINE_LOGE("VxCamOfflineLogger allocate memory failed");
            failed = true;
            continue;
        }
        try {
            m_memPool.push_back(bucket);
            m_freeBucketIds.push_back(static_cast<int>(m_memPool.size() - 1));
        } catch (const std::bad_alloc&) {
            if (!m_memPool.empty() && m_memPool.back() == bucket) m_memPool.pop_back();
            BucketPages::Unmap(bucket);
            OFFLINE_LOGE("VxCamOfflineLogger allocate memory failed");
            failed = true;
        }
    }
    return failed ? 0 : 1;
}

int VxCamOfflineLogger::RequestNewLogQueue(unsigned char*& buffer, unsigned int threadId,
                                           int segmentCnt) {
    const uint32_t type = TypeIndex(m_loggerType);
    int registerId = -1;
    buffer = nullptr;
    PoolHold lock(*m_pOfflineLoggerLock);
    const uint32_t sessionCnt = t_sessionCnt[type];
    ++m_requestMemoryCount;
    try {
        // A pool that has to grow does not hand out a free registerId on the same request.
        bool mayReuseRegistration = true;
        if (m_freeBucketIds.empty()) {
            AllocateLogQueueMemPool(m_pConfigInfo->growBucketCount, m_pConfigInfo->bucketSize);
            mayReuseRegistration = false;
        }
        if (!m_freeBucketIds.empty()) {
            const int bucketId = m_freeBucketIds.front();
            const bool presetPath = m_multiPathMode == 1 && m_loggerType == CoredumpTxt;
            if (mayReuseRegistration && !m_freeRegisterIds.empty()) {
                registerId = m_freeRegisterIds.front();
                m_freeRegisterIds.pop_front();
                PerLogThreadInfo& info = m_perLogInfoPool[registerId];
                info.flushRequested = 0;
                info.fileNameReady = presetPath ? 1 : 0;
                info.threadId = threadId;
                info.bucketId = static_cast<uint32_t>(bucketId);
                info.sessionCnt = sessionCnt;
                info.segmentCnt = segmentCnt;
                info.logSize = 0;
                info.lastFlag = 0;
                info.fileSize = 0;
                if (presetPath) info.path = m_multiPathCoredumpPath;
            } else if (m_perLogInfoPool.size() < m_perLogInfoPool.capacity()) {
                m_perLogInfoPool.push_back(PerLogThreadInfo{
                        0, presetPath ? 1u : 0u, threadId, static_cast<uint32_t>(bucketId),
                        sessionCnt, segmentCnt, 0,
                        presetPath ? m_multiPathCoredumpPath : std::string(), 0, 0});
                registerId = static_cast<int>(m_perLogInfoPool.size() - 1);
                m_registrationCount.store(static_cast<int32_t>(m_perLogInfoPool.size()),
                                          std::memory_order_relaxed);
            }
            if (registerId >= 0) {
                m_freeBucketIds.pop_front();
                buffer = m_memPool[bucketId];
            }
        }
    } catch (const std::bad_alloc&) {
        registerId = -1;
        buffer = nullptr;
    }
    if (buffer == nullptr) {
        OFFLINE_LOGE("Offlinelog failed to request new container");
        registerId = -1;
    }
    LifetimeThreadInfo& lifetime = s_threadLocalLifeTime[type];
    lifetime.threadId = threadId;
    lifetime.registerId = registerId;
    lifetime.valid = 1;
    lifetime.type = static_cast<OfflineLoggerType>(type);
    lifetime.owner = this;
    return registerId;
}

void VxCamOfflineLogger::CleanupMemoryPool() {
    TurnHold turn(m_loggerType);
    ExclusiveHold threads(*m_pThreadLock);
    PoolHold lock(*m_pOfflineLoggerLock);
    m_freeBucketIds.clear();
    m_flushRequestIds.clear();
    m_freeRegisterIds.clear();
    m_perLogInfoPool.clear();
    m_registrationCount.store(0, std::memory_order_relaxed);
    for (unsigned char* bucket : m_memPool) BucketPages::Unmap(bucket);
    m_memPool.clear();
    m_memPool.shrink_to_fit();
    // Every thread's bucket pointer is stale now; the capture notices the new session.
    m_sessionCount.fetch_add(1);
}

// With the pool lock held. Gives a registration's bucket and id back to their free lists. The
// registration then names no thread (id 0): its old thread may still hold the id, and must not
// take the registration for its own again.
void VxCamOfflineLogger::ReleaseRegistration(int registerId) {
    PerLogThreadInfo& info = m_perLogInfoPool[registerId];
    m_freeRegisterIds.push_back(registerId);
    try {
        m_freeBucketIds.push_back(static_cast<int>(info.bucketId));
    } catch (const std::bad_alloc&) {
        m_freeRegisterIds.pop_back();  // free both or neither
        throw;
    }
    info.flushRequested = 0;
    info.fileNameReady = 0;
    info.threadId = 0;
    info.logSize = 0;
    info.lastFlag = 0;
}

// Gives up the registration the calling thread holds for `type`, before it registers afresh, takes
// a new path, or ends: queued for the flush when it holds text, so that the text goes to the file
// the registration names, or released at once when empty. The thread holds no bucket afterwards.
//
// Registrations can go behind their threads' backs: a camera close of the text and binary logs,
// and a pool clean-up, drop them all; a flush of everything releases those of ended sessions. The
// id a thread holds may then be another thread's. So a thread owns the registration its id names
// only while, under the pool lock, the registration names this thread and the session, and is
// neither queued nor released: a thread has one such registration of a type at most.
//
// No flush trigger is called. Only the core-dump types, whose registrations outlive a camera
// close, have anything to hand over here (a close of the text and binary logs has dropped their
// threads' registrations already), and for them a thread's end, a new session or a new path call
// for no flush: the host writes the text when it next flushes the type, a normal flush counting
// it towards its batch.
void VxCamOfflineLogger::HandOverRegistration(unsigned int type) {
    const bool holds = t_logBuffer[type] != nullptr;
    const int32_t registerId = t_queuePoolId[type];
    t_logBuffer[type] = nullptr;
    t_queuePoolId[type] = -1;
    if (!holds || registerId < 0) return;
    const uint32_t threadId = static_cast<uint32_t>(gettid());
    PoolHold lock(*m_pOfflineLoggerLock);
    if (static_cast<size_t>(registerId) >= m_perLogInfoPool.size()) return;
    PerLogThreadInfo& info = m_perLogInfoPool[registerId];
    // Not the bucket: a flush of everything that this thread has not noticed yet may have given
    // the registration a fresh one in place of the one the thread holds.
    if (info.flushRequested != 0 || info.threadId != threadId ||
        info.sessionCnt != t_sessionCnt[type] || info.bucketId >= m_memPool.size()) {
        return;
    }
    try {
        if (info.logSize != 0) {
            m_flushRequestIds.push_back(registerId);
            info.flushRequested = 1;
            ++m_flushRequestCount;
        } else {
            ReleaseRegistration(registerId);
            // Free buckets keep no pages of their own.
            BucketPages::GiveBack(m_memPool[info.bucketId]);
        }
    } catch (const std::bad_alloc&) {
        OFFLINE_LOGE("VxCamOfflineLogger allocate memory failed");
    }
}

LifetimeThreadInfo::~LifetimeThreadInfo() {
    if (valid != 1) return;
    const uint32_t index = TypeIndex(type);
    if (t_logBuffer[index] == nullptr) return;  // holds no bucket
    VxCamOfflineLogger* logger = owner != nullptr ? owner : CachedInstance(type);
    if (logger == nullptr) return;
    if (type == CoredumpTxt || type == CoredumpBin) {
        // Core-dump text is not flushed when its thread ends, but the bucket must not outlive the
        // thread: handed over without a flush request, it is written by the host's next flush of
        // the type, and an empty one is free at once.
        logger->HandOverRegistration(index);
        return;
    }
    if (logger->IsEnableOfflinelogger() == 0) return;  // buckets are gone
    SharedHold hold(*VxCamOfflineLogger::m_pThreadLock);
    // A camera close or a clean-up since the bucket was taken has already written or released
    // it, and the registerId may belong to another thread by now.
    if (t_sessionCnt[index] != logger->m_sessionCount.load(std::memory_order_relaxed)) return;
    logger->RequestFlushLogQueue(registerId, 0);
}

// ---- Capture ------------------------------------------------------------------------------------

int VxCamOfflineLogger::RegisterThread(unsigned int type) {
    // A core-dump registration outlives a camera close: the thread's old one goes first, with
    // what it holds, or it would be left behind. Those of the other types are gone by now.
    if (type == CoredumpTxt || type == CoredumpBin) HandOverRegistration(type);
    t_sessionCnt[type] = m_sessionCount.load(std::memory_order_relaxed);
    t_logSize[type] = 0;
    t_segmentCnt[type] = 1;
    t_logCurPos[type] = 0;
    // Flushes of everything before this registration wrote nothing of it.
    t_flushDone[type] = m_sessionFlushState.load(std::memory_order_relaxed);
    t_queuePoolId[type] = RequestNewLogQueue(t_logBuffer[type], static_cast<unsigned int>(gettid()),
                                             static_cast<int>(t_segmentCnt[type]));
    return t_queuePoolId[type];
}

void VxCamOfflineLogger::AppendToBucket(unsigned int type, const char* log, unsigned int length) {
    memcpy(t_logBuffer[type] + t_logCurPos[type], log, length);
    const uint32_t curPos = t_logCurPos[type] += length;
    const uint32_t logSize = t_logSize[type] += length;
    const int32_t registerId = t_queuePoolId[type];
    if (registerId >= 0 && registerId < m_registrationCount.load(std::memory_order_relaxed)) {
        // data(): the table's start never moves, while its end may grow under another thread.
        PerLogThreadInfo& info = m_perLogInfoPool.data()[registerId];
        info.logSize = curPos;
        info.fileSize = logSize;
    }
}

int VxCamOfflineLogger::AddLog(const char* log, unsigned int length) {
    if (m_state.load(std::memory_order_relaxed) == kStateDisabled) return 2;
    if (s_isInitValid.load(std::memory_order_relaxed) == 0) return 1;
    if (m_pThreadGuard->load(std::memory_order_acquire)) {
        OFFLINE_LOGE("VxCamOfflineLogger: Please note log is skipped due to camera is closing");
        return 0;
    }
    if (log == nullptr || length == 0) return 0;

    const unsigned int type = TypeIndex(m_loggerType);
    const uint32_t bucketSize = m_pConfigInfo->bucketSize;
    // Callers may state more than they hold: the debug frame passes the length its line would
    // have had before it was cut to its buffer. A text line ends at its terminator, and no line
    // is longer than a bucket; binary records are taken at their word.
    if (type == OfflineLog || type == CoredumpTxt) {
        const void* end = memchr(log, '\0', length);
        if (end != nullptr) length = static_cast<unsigned int>(static_cast<const char*>(end) - log);
    }
    if (length > bucketSize) length = bucketSize;
    if (length == 0) return 0;

    // GCC recomputes a thread-local's address, with a call into the dynamic linker, wherever it is
    // used rather than keep it; passed through an empty asm it is an ordinary value to keep.
    CaptureThread* capture = &t_capture;
    asm("" : "+r"(capture));
    CaptureThread& self = *capture;
    if (self.logCurPos == nullptr) {
        self.sessionCnt = t_sessionCnt;
        self.logBuffer = t_logBuffer;
        self.queuePoolId = t_queuePoolId;
        self.logSize = t_logSize;
        self.logCurPos = t_logCurPos;
        self.flushDone = t_flushDone;
    }
    SharedHold hold(*m_pThreadLock, self.lock);
    // The common line: registered in this session, no flush of everything since the last line,
    // room in the bucket and in the segment. Any other case takes the steps below in their order.
    const uint32_t curPos = self.logCurPos[type];
    unsigned char* const bucket = self.logBuffer[type];
    const int32_t registerId = self.queuePoolId[type];
    if (self.sessionCnt[type] == m_sessionCount.load(std::memory_order_relaxed) &&
        bucket != nullptr &&
        self.flushDone[type] == m_sessionFlushState.load(std::memory_order_relaxed) &&
        uint64_t{curPos} + length <= bucketSize && self.logSize[type] <= kSegmentLimit &&
        registerId >= 0 && registerId < m_registrationCount.load(std::memory_order_relaxed)) {
        memcpy(bucket + curPos, log, length);
        const uint32_t segmentSize = self.logSize[type] += length;
        self.logCurPos[type] = curPos + length;
        PerLogThreadInfo& info = m_perLogInfoPool.data()[registerId];
        info.logSize = curPos + length;
        info.fileSize = segmentSize;
        return 0;
    }
    if (t_sessionCnt[type] != m_sessionCount.load(std::memory_order_relaxed)) {
        // First line of this thread, or first since a camera close or clean-up.
        RegisterThread(type);
    } else if (t_logBuffer[type] == nullptr) {
        return 0;  // no bucket could be had in this session
    } else {
        const uint32_t flushState = m_sessionFlushState.load(std::memory_order_relaxed);
        if (t_flushDone[type] != flushState) {
            // A flush of every bucket has taken this one's text: start over, in the fresh bucket
            // it may have left in its place.
            t_flushDone[type] = flushState;
            t_logSize[type] = 0;
            t_logCurPos[type] = 0;
            TakeBackBucket(type);
        }
        // The bucket test comes first, so a segment ends only on a line that fits its bucket.
        if (t_logCurPos[type] + length > bucketSize) {
            RequestFlushLogQueue(t_queuePoolId[type], 0);
            t_queuePoolId[type] =
                    RequestNewLogQueue(t_logBuffer[type], static_cast<unsigned int>(gettid()),
                                       static_cast<int>(t_segmentCnt[type]));
            t_logCurPos[type] = 0;
        } else if (t_logSize[type] > kSegmentLimit) {
            ++t_segmentCnt[type];
            t_logSize[type] = 0;
            RequestFlushLogQueue(t_queuePoolId[type], 1);
            t_queuePoolId[type] =
                    RequestNewLogQueue(t_logBuffer[type], static_cast<unsigned int>(gettid()),
                                       static_cast<int>(t_segmentCnt[type]));
            t_logCurPos[type] = 0;
        } else if (t_queuePoolId[type] >= m_registrationCount.load(std::memory_order_relaxed)) {
            OFFLINE_LOGE(
                    "Exceed per thrad pool size, Local:%d, m_sessionCount:%d, pool size:%zu, "
                    "PoolId: %d",
                    t_sessionCnt[type], m_sessionCount.load(),
                    static_cast<size_t>(m_registrationCount.load()), t_queuePoolId[type]);
            RegisterThread(type);
        }
    }
    if (t_logBuffer[type] != nullptr) AppendToBucket(type, log, length);
    return 0;
}

int VxCamOfflineLogger::DPrintF(int fd, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int result = vdprintf(fd, format, arguments);
    va_end(arguments);
    return result;
}

// ---- Flushing and file naming -------------------------------------------------------------------

void VxCamOfflineLogger::RequestFlushLogQueue(int registerId, int lastFlag) {
    PoolHold lock(*m_pOfflineLoggerLock);
    if (registerId < 0 || static_cast<size_t>(registerId) >= m_perLogInfoPool.size()) {
        OFFLINE_LOGW("Invalid registerId %d, m_perLogInfoPool size %zu", registerId,
                     m_perLogInfoPool.size());
        return;
    }
    PerLogThreadInfo& info = m_perLogInfoPool[registerId];
    info.flushRequested = 1;
    if (lastFlag == 1) info.lastFlag = 1;
    ++m_flushRequestCount;
    try {
        m_flushRequestIds.push_back(registerId);
    } catch (const std::bad_alloc&) {
        OFFLINE_LOGE("VxCamOfflineLogger allocate memory failed");
        return;
    }
    // The host's trigger runs with the pool lock held: it must hand the flush to another thread.
    void (*trigger)(OfflineLoggerType) = m_flushTriggerLink.load(std::memory_order_acquire);
    if (trigger != nullptr && m_loggerType < 4 && m_cameraOpenCount[TypeIndex(m_loggerType)] != 0) {
        trigger(m_loggerType);
    }
}

std::string VxCamOfflineLogger::GetCurrentTime() {
    return Timestamp();
}

std::string VxCamOfflineLogger::GetPrefixFilename() {
    const std::string prefixTime = Timestamp();
    const std::string folderName = "VxCam_OfflineLog_" + GetCurrentTime();
    const std::string root = DeviceRoot();
    char prefix[kPathSize];
    char prefixName[kPathSize];
    char folder[kPathSize];
    snprintf(prefix, sizeof(prefix), "%s/%s/VxCam_%s_%s_", root.c_str(), folderName.c_str(),
             m_loggerTypeName.c_str(), prefixTime.c_str());
    snprintf(prefixName, sizeof(prefixName), "VxCam_%s_%s_", m_loggerTypeName.c_str(),
             prefixTime.c_str());
    snprintf(folder, sizeof(folder), "%s/%s/", root.c_str(), folderName.c_str());
    if (mkdir(folder, 0777) != 0) OFFLINE_LOGE("Failed to create Offlinelogger folder");
    m_sessionPrefix = prefix;
    m_sessionPrefixName = prefixName;
    m_prefixReady = 1;
    m_sessionFolderName = folderName;
    return m_sessionPrefix;
}

std::string VxCamOfflineLogger::GetCurrentSessionPrefixFilename() {
    try {
        return m_sessionPrefix + "_Session" + std::to_string(m_sessionCount.load());
    } catch (const std::bad_alloc&) {
        return std::string();
    }
}

std::string VxCamOfflineLogger::GenerateLogFileNameByOfflineLoggerType(
        std::vector<PerLogThreadInfo>::iterator* it) {
    PerLogThreadInfo& info = **it;
    if (m_loggerType == CoredumpTxt || m_loggerType == CoredumpBin) {
        info.path = m_coredumpPath;
        return m_coredumpPath;
    }
    // The prefix ends in '_' and so does not swallow this part's leading one: names carry
    // "__Tid", and readers of the files rely on that.
    std::string namePart = "_Tid" + std::to_string(info.threadId) + "_Session" +
                           std::to_string(info.sessionCnt) + "_Segment" +
                           std::to_string(info.segmentCnt);
    info.path = m_sessionPrefix + namePart;
    if (m_loggerType == OfflineLog) {
        info.path += ".txt";
    } else if (m_loggerType == BinaryLog) {
        info.path += ".bin";
    }
    return namePart;
}

void VxCamOfflineLogger::RecordTextFileName(const std::string& namePart) {
    std::string name = m_sessionPrefixName + namePart + ".txt";
    if (m_fileNameSet.count(name) != 0) return;
    // The list settles one above its bound; the set keeps every name of the session.
    if (m_fileNameList.size() > m_maxFileNameListSize) m_fileNameList.pop_back();
    m_fileNameSet.insert(name);
    m_fileNameList.push_front(std::move(name));
}

void VxCamOfflineLogger::KeepThreadBookkeeping(const PerLogThreadInfo& info) {
    auto known = m_threadRegisterMap.find(info.threadId);
    if (known == m_threadRegisterMap.end()) {
        m_threadRegisterMap.emplace(info.threadId, info.segmentCnt);
        m_flushedThreadList.push_back(info);
    } else if (known->second != info.segmentCnt) {
        known->second = info.segmentCnt;
        m_flushedThreadList.push_back(info);
    }
    if (info.lastFlag != 1) return;
    for (auto copy = m_flushedThreadList.begin(); copy != m_flushedThreadList.end(); ++copy) {
        if (copy->segmentCnt == info.segmentCnt && copy->threadId == info.threadId) {
            m_finishedThreadList.push_back(RecycleItemInfo{copy->sessionCnt, copy->segmentCnt,
                                                           copy->fileSize, copy->path});
            m_flushedThreadList.erase(copy);
            break;
        }
    }
}

struct __attribute__((visibility("hidden"))) VxCamOfflineLogger::FlushBatch {
    // One bucket of a flush: what the pool lock saw when the flush took it, and how its writing went.
    struct Job {
        int registerId;
        PerLogThreadInfo info;  // as taken, path included: a camera close drops the registration
        unsigned char* bucket;  // null when bucketId is outside the pool
        bool held;              // written while its thread holds the registration
        bool ended;             // held, but released once written: its session is over
        bool swapped;    // held: its thread went on in a fresh bucket while this one is written
        bool keepPages;  // zeroed in place, its pages then passed on
        bool opened = false;
        bool written = false;  // on disk; the bucket may be zeroed from here on
        int writeError = 0;
        float writeMs = 0.0f;
    };
    int flushAll;
    bool endsSession;          // a camera close's flush of everything: the session ends with it
    bool threadsHeld;          // the caller holds the capture lock exclusively (a crash report)
    bool holdThreads = false;  // threads stay held off while the files are written
    uint32_t session = 0;      // the session whose text this is
    uint32_t requests = 0;     // bucket requests counted when a flush of everything took its own
    std::vector<Job> jobs;
    std::vector<int> emptied;  // a camera close's free buckets that give their pages back
    std::chrono::steady_clock::time_point start;
};

int VxCamOfflineLogger::FlushLogToFile(int flushAll, int backup) {
    TurnHold turn(m_loggerType);
    FlushBatch batch;
    batch.flushAll = flushAll;
    batch.endsSession = flushAll == 1 && t_sessionEndingLogger == this;
    batch.threadsHeld = m_pThreadLock->HeldExclusivelyByThisThread();
    // A flush of everything takes the buckets that threads are still filling: none may copy a line
    // into one while it is taken. Threads are held off for that only; they go on in fresh buckets
    // while the old ones are written.
    std::optional<ExclusiveHold> threads;
    if (flushAll == 1 && !batch.threadsHeld) {
        if (!batch.endsSession) {
            // Nothing to write: said at once, not after holding off every thread inside a line.
            // Not so for a camera close, which holds them off in any case: a thread inside its
            // first line may be about to make the pool, and its line is written, not reset away.
            PoolHold lock(*m_pOfflineLoggerLock);
            if (m_memPool.empty()) return 2;
        }
        threads.emplace(*m_pThreadLock);
        // Raised once the threads inside a line have left, not before: a thread that waits
        // for its shared hold meanwhile goes on afterwards, in the next session, rather than
        // lose its line to a reader that is slow to leave.
        if (batch.endsSession) m_pThreadGuard->store(true);
    }
    try {
        batch.jobs.reserve(64);
        int result;
        {
            PoolHold lock(*m_pOfflineLoggerLock);
            result = CollectFlush(batch);
            if (result == 0 && batch.endsSession) ResetForNextSession(&batch);
        }
        if (result != 0) {
            if (batch.endsSession && threads) {
                // Nothing to write, and the session ends all the same before the threads are let
                // in: one that waited meanwhile must begin the next session, not leave a line in
                // this one for a later reset to drop unseen.
                SetAllToDefaultValue();
                EndSession();
            }
            return result;
        }
        if (batch.endsSession) EndSession();
        if (!batch.holdThreads) threads.reset();
        if (batch.threadsHeld && t_writingBatch != nullptr) {
            // A crash report on a thread that was writing: that flush's text is older than what
            // the threads hold now. The file being written when the crash came is written whole
            // again: some of its lines may land twice, none is lost.
            WriteFlush(*static_cast<FlushBatch*>(t_writingBatch));
        }
        void* const outer = t_writingBatch;
        t_writingBatch = &batch;
        WriteFlush(batch);
        t_writingBatch = outer;
        if (backup == 1) BackupRecentModifyLog();
        PoolHold lock(*m_pOfflineLoggerLock);
        FinishFlush(batch);
    } catch (const std::bad_alloc&) {
        OFFLINE_LOGE("VxCamOfflineLogger allocate memory failed");
    }
    if (m_statusDumpFile != nullptr) {
        if (fflush(m_statusDumpFile) != 0) OFFLINE_LOGE("fflush operation for debug dump failed");
        if (fclose(m_statusDumpFile) != 0) OFFLINE_LOGE("fclose operation for debug dump failed!");
        // Forgotten once closed, so that turning the status dump off never reaches a closed file.
        m_statusDumpFile = nullptr;
        m_statusFd = -1;
    }
    return 0;
}

// With the pool lock held (and, for a flush of everything, the capture lock). Takes the requests:
// decides which registrations are written, names their files and detaches their buckets. Returns
// the flush's result when it ends here.
int VxCamOfflineLogger::CollectFlush(FlushBatch& batch) {
    if (m_memPool.empty()) return 2;
    if (m_state.load() == kStateDisabled) return 2;
    if (s_isInitValid.load() == 0) return 1;
    const int flushAll = batch.flushAll;
    if (flushAll == 1) {
        // The state is left alone: a camera close has marked the logger closing already, and a
        // flush of everything outside one must not, or the close would skip its own flush and drop
        // what is logged until then.
        for (size_t i = 0; i < m_perLogInfoPool.size(); ++i) {
            m_flushRequestIds.push_back(static_cast<int>(i));
        }
    }
    if (m_prefixReady == 0) GetPrefixFilename();
    if (m_statusDumpEnabled == 1) {
        m_statusDumpFile = fopen((DeviceRoot() + "/Offlinelog_Dump.log").c_str(), "a+");
        if (m_statusDumpFile != nullptr) {
            m_statusFd = fileno(m_statusDumpFile);
            DPrintF(m_statusFd,
                    "+--------------------Offlinelogger Status-----------------------+\n");
        }
    }
    batch.start = std::chrono::steady_clock::now();
    if (flushAll == 0 && m_flushRequestCount < m_pConfigInfo->flushBatchSize) {
        m_triggerOperation = 0;
        return 0;
    }
    m_triggerOperation = static_cast<uint32_t>(m_flushRequestIds.size());
    const uint32_t session = m_sessionCount.load();
    batch.session = session;
    batch.requests = m_requestMemoryCount;
    // Buckets that threads go on filling are swapped for fresh ones, so that the threads need not
    // wait for the write; a crash report holds them off anyway.
    const bool swap = flushAll == 1 && !batch.threadsHeld && !batch.endsSession;
    const size_t warmLimit = 2 * size_t{m_pConfigInfo->flushBatchSize};
    // A camera close gives every page back.
    size_t keepBudget =
            batch.endsSession ? 0 : BucketPages::KeepBudget(m_memPool, m_freeBucketIds, warmLimit);
    for (; !m_flushRequestIds.empty(); m_flushRequestIds.pop_front()) {
        const int registerId = m_flushRequestIds.front();
        if (registerId < 0 || static_cast<size_t>(registerId) >= m_perLogInfoPool.size()) continue;
        PerLogThreadInfo& info = m_perLogInfoPool[registerId];
        // Not handed over: written because everything is, while its thread still holds it.
        const bool held = info.flushRequested == 0;
        // Held, but no thread will write into it again: its session has ended (core-dump
        // registrations outlive a camera close) or ends with this flush. Released once written,
        // or at once when empty; its thread, if it lives, registers afresh. A released
        // registration names no thread.
        const bool ended = held && flushAll == 1 && info.threadId != 0 &&
                           (batch.endsSession || info.sessionCnt != session);
        const bool write = info.flushRequested == 1 || (held && flushAll == 1 && info.logSize != 0);
        if (!write) {
            if (ended && !batch.endsSession) {
                ReleaseRegistration(registerId);
                if (info.bucketId < m_memPool.size())
                    BucketPages::GiveBack(m_memPool[info.bucketId]);
            }
            continue;
        }
        if (info.fileNameReady == 0) {
            auto it = m_perLogInfoPool.begin() + registerId;
            const std::string namePart = GenerateLogFileNameByOfflineLoggerType(&it);
            info.fileNameReady = 1;
            if (m_loggerType == OfflineLog) RecordTextFileName(namePart);
        }
        FlushBatch::Job job{registerId, info, nullptr, held, ended, false, false};
        if (info.bucketId < m_memPool.size()) {
            job.bucket = m_memPool[info.bucketId];
            if (keepBudget != 0) {
                job.keepPages = true;
                --keepBudget;
            }
        }
        if (held && !ended) {
            if (swap && !m_freeBucketIds.empty() && job.bucket != nullptr) {
                // A fresh bucket for the same file: the thread picks it up when it notices this
                // flush, and the old one is free again once written.
                info.bucketId = static_cast<uint32_t>(m_freeBucketIds.front());
                m_freeBucketIds.pop_front();
                job.swapped = true;
            } else {
                batch.holdThreads = true;  // written in place, under the threads' feet
            }
            info.logSize = 0;
        } else if (!held) {
            info.flushRequested = 2;  // being written: skipped if it comes up again
        }
        batch.jobs.push_back(std::move(job));
    }
    if (flushAll == 1 && !batch.endsSession) {
        // Counts the flushes of everything in the session, so that threads notice each one and
        // start their bucket over (a fresh one, when it was swapped).
        const uint32_t flushState = m_sessionFlushState.load() + 1;
        m_sessionFlushState.store(flushState != 0 ? flushState : 1);
    }
    return 0;
}

// Without the pool lock: only this flush touches the buckets it took.
void VxCamOfflineLogger::WriteFlush(FlushBatch& batch) {
    for (int id : batch.emptied) BucketPages::GiveBack(m_memPool[id]);
    const char* mode = m_loggerType == BinaryLog ? "ab+" : "a+";
    for (FlushBatch::Job& job : batch.jobs) {
        if (job.written) continue;
        FILE* file = fopen(job.info.path.c_str(), mode);
        if (file == nullptr) {
            // Kept with its bucket and request: a later flush of everything finds it.
            FLUSH_LOGE("Offlinelog failed to open file and write");
            continue;
        }
        job.opened = true;
        const uint32_t size = job.info.logSize;
        if (job.bucket != nullptr) {
            const auto writeStart = std::chrono::steady_clock::now();
            errno = 0;
            if (fwrite(job.bucket, 1, size, file) != size) {
                job.writeError = errno != 0 ? errno : EIO;
            }
            job.writeMs = MillisecondsSince(writeStart);
        }
        errno = 0;
        if (fclose(file) != 0 && job.writeError == 0) job.writeError = errno != 0 ? errno : EIO;
        job.written = true;
        if (job.bucket == nullptr) continue;
        // Zeroed here, out of every lock: in place when its pages go to the next bucket in line,
        // else by giving them back.
        if (job.keepPages || !BucketPages::GiveBack(job.bucket)) memset(job.bucket, 0, size);
    }
}

// With the pool lock held. The figures, the bookkeeping and the buckets, in the order written.
void VxCamOfflineLogger::FinishFlush(FlushBatch& batch) {
    const size_t warmLimit = 2 * size_t{m_pConfigInfo->flushBatchSize};
    for (FlushBatch::Job& job : batch.jobs) {
        const int registerId = job.registerId;
        const bool closed = batch.endsSession;  // the registration is gone with the session
        if (!job.opened) {
            // Kept with its registration and request, or, when its session has ended or its
            // thread went on in a fresh bucket, lost: the bucket is free again.
            if (!closed && !job.held) m_perLogInfoPool[registerId].flushRequested = 1;
            if ((closed || job.swapped) && job.bucket != nullptr) {
                if (!BucketPages::GiveBack(job.bucket)) memset(job.bucket, 0, job.info.logSize);
                m_freeBucketIds.push_back(static_cast<int>(job.info.bucketId));
            }
            continue;
        }
        if (job.bucket != nullptr) {
            MonitorFileSystemHealth(job.writeMs);
            if (job.keepPages)
                BucketPages::PassOn(m_memPool, m_freeBucketIds, job.bucket, warmLimit);
        } else {
            FLUSH_LOGE("Exceed memory pool size, session: %d, pool size: %zu, RegisterId: %d",
                       batch.session, m_memPool.size(), job.info.bucketId);
        }
        ++m_totalFlushCount;
        m_totalFlushSizeMB += static_cast<float>(job.info.logSize) * kBytesToMB;
        if (job.writeError != 0) {
            // A full disk: the text is lost and said to be. The bucket is recycled all the same,
            // since keeping it until there is room would let the pool grow without bound while the
            // disk stays full.
            FLUSH_LOGE("Offlinelog failed to write %u bytes to %s: %s", job.info.logSize,
                       job.info.path.c_str(), strerror(job.writeError));
        }
        if (m_loggerType == OfflineLog) KeepThreadBookkeeping(job.info);
        if (!job.held && m_flushRequestCount > 0) --m_flushRequestCount;
        if (closed || job.swapped) {
            if (job.info.bucketId < m_memPool.size()) {
                m_freeBucketIds.push_back(static_cast<int>(job.info.bucketId));
            }
            continue;
        }
        // Its thread goes on in it, from the start, when it notices this flush; the thread's exit
        // or a full bucket hands it over later.
        if (job.held && !job.ended) continue;
        ReleaseRegistration(registerId);
    }

    for (int id : batch.emptied) m_freeBucketIds.push_back(id);
    // A camera close's reset, which comes after its writes, leaves no write times behind.
    if (batch.endsSession) m_fwriteTimeHistory.clear();
    m_cleanupTriggerCount = 0;
    if (batch.flushAll == 0 && m_totalFlushSizeMB > static_cast<float>(m_maxFlushLogSizeThreshold) &&
        m_loggerType == OfflineLog && m_cleanupTriggerLink != nullptr) {
        m_cleanupTriggerLink(OfflineLog);
    }
    if (batch.flushAll == 1) {
        m_threadRegisterMap.clear();
        for (const PerLogThreadInfo& copy : m_flushedThreadList) {
            m_recycleList.push_back(
                    RecycleItemInfo{copy.sessionCnt, copy.segmentCnt, copy.fileSize, copy.path});
        }
        m_flushedThreadList.clear();
        m_recycleList.splice(m_recycleList.end(), m_finishedThreadList);
    }
    // The last flush's duration, not a sum: the report shows what one flush costs.
    m_totalFlushTimeMs = MillisecondsSince(batch.start);
    // Threads request buckets while a flush of everything writes; those requests count after it.
    const uint32_t requestsSince = batch.flushAll == 1 ? m_requestMemoryCount - batch.requests : 0;
    if (batch.flushAll == 1) m_requestMemoryCount = batch.requests;
    if (m_statusDumpEnabled == 1) {
        // A camera close reports the session it ended, which its threads have left by now.
        t_reportedSession = batch.session;
        DumpCurrentOfflineLogStatus();
        t_reportedSession = 0;
    }
    if (batch.flushAll == 1) {
        m_totalFlushTimeMs = 0.0f;
        m_totalFlushCount = 0;
        m_removeSuccessCount = 0;
        m_removeFailCount = 0;
        m_requestMemoryCount = requestsSince;
    }
}

// With the pool lock and the capture lock held, once a camera close's flush has taken the
// session's buckets: every other bucket is free and every registration dropped. Free buckets with
// pages give them back before they are free again, out of the capture lock; the taken ones are
// free once written.
void VxCamOfflineLogger::ResetForNextSession(FlushBatch* batch) {
    std::vector<bool> taken(m_memPool.size(), false);
    for (const FlushBatch::Job& job : batch->jobs) {
        if (job.info.bucketId < taken.size()) taken[job.info.bucketId] = true;
    }
    std::deque<int> free;
    for (size_t i = 0; i < m_memPool.size(); ++i) {
        if (taken[i]) continue;
        if (BucketPages::IsWarm(m_memPool[i])) {
            batch->emptied.push_back(static_cast<int>(i));
        } else {
            free.push_back(static_cast<int>(i));
        }
    }
    m_freeBucketIds.swap(free);
    // The written segments' records stay: the flush hands them on once it has written its own.
    DropSession();
}

// With the capture lock held exclusively: the camera close's last steps, which let the threads in
// again in a new session.
void VxCamOfflineLogger::EndSession() {
    {
        PoolHold lock(*m_pOfflineLoggerLock);
        if (IsValidType(m_loggerType) && m_cameraOpenCount[TypeIndex(m_loggerType)] != 0) {
            --m_cameraOpenCount[TypeIndex(m_loggerType)];
        }
    }
    m_sessionFlushState.store(0);
    // Not over a disable that came meanwhile: it waits for the close's turn, and stays.
    uint32_t closing = kStateClosing;
    m_state.compare_exchange_strong(closing, kStateActive);
    m_sessionCount.fetch_add(1);
    m_pThreadGuard->store(false);
    t_sessionEndingLogger = nullptr;  // the session has ended
}

// After a flush of everything: the thread's registration may hold a fresh bucket now.
void VxCamOfflineLogger::TakeBackBucket(unsigned int type) {
    const int32_t registerId = t_queuePoolId[type];
    PoolHold lock(*m_pOfflineLoggerLock);
    if (registerId < 0 || static_cast<size_t>(registerId) >= m_perLogInfoPool.size()) return;
    PerLogThreadInfo& info = m_perLogInfoPool[registerId];
    if (info.flushRequested != 0 || info.sessionCnt != t_sessionCnt[type] ||
        info.threadId != static_cast<uint32_t>(gettid()) || info.bucketId >= m_memPool.size()) {
        return;
    }
    t_logBuffer[type] = m_memPool[info.bucketId];
    info.logSize = 0;
}

void VxCamOfflineLogger::FlushLogBySeperateThread() {
    void (*trigger)(OfflineLoggerType) = m_flushTriggerLink.load(std::memory_order_acquire);
    if (trigger != nullptr) trigger(m_loggerType);
}

// ---- Camera sessions and enablement -------------------------------------------------------------

void VxCamOfflineLogger::NotifyCameraOpen() {
    if (m_state.load() == kStateDisabled) return;
    uint32_t openCount;
    {
        PoolHold lock(*m_pOfflineLoggerLock);
        if (!IsValidType(m_loggerType)) return;
        openCount = ++m_cameraOpenCount[TypeIndex(m_loggerType)];
    }
    if (openCount >= 2) {
        OFFLINE_LOGE(
                "VxCamOfflineLogger not support concurrent camera usecase and will be "
                "disable!");
        m_state.store(kStateDisabled);
    }
}

void VxCamOfflineLogger::NotifyCameraClose() {
    // The session's files are written before any flush of the next session's. The state is read
    // in the turn, so that a close that comes while another ends the session ends the next one
    // itself, with its flush, rather than reset it unwritten.
    TurnHold turn(m_loggerType);
    uint32_t state = m_state.load();
    if (state == kStateDisabled) return;
    const bool textOrBinary = m_loggerType == OfflineLog || m_loggerType == BinaryLog;
    bool flush = false;
    // Not over a disable that came meanwhile, which waits for this turn.
    if (state == kStateActive && m_state.compare_exchange_strong(state, kStateClosing)) {
        flush = textOrBinary;
    }
    // The flush takes the threads' buckets with the capture shut out, starts the next session and
    // lets the threads in again before it writes; lines that arrive while it holds them off are
    // dropped with a message, so that a close drops only what comes in those microseconds.
    t_sessionEndingLogger = this;
    if (flush) FlushLogToFile(1, 0);
    if (t_sessionEndingLogger == this) {
        // No flush ended the session (the core-dump types, whose buckets outlive a close, or a
        // flush that could not start): it ends here.
        ExclusiveHold threads(*m_pThreadLock);
        m_pThreadGuard->store(true);
        if (textOrBinary) SetAllToDefaultValue();
        EndSession();
    }
}

void VxCamOfflineLogger::DisableOfflinelogger() {
    if (m_state.exchange(kStateDisabled) == kStateDisabled) return;
    // A flush that is writing finishes first, and threads already past the state test finish
    // their line, before the buckets go.
    TurnHold turn(m_loggerType);
    ExclusiveHold threads(*m_pThreadLock);
    SetAllToDefaultValue();
    PoolHold lock(*m_pOfflineLoggerLock);
    for (unsigned char* bucket : m_memPool) BucketPages::Unmap(bucket);
    m_memPool.clear();
    m_memPool.shrink_to_fit();
    m_freeBucketIds.clear();
    // A new core-dump path takes a bucket without holding threads off, so a registration may have
    // come in since the reset: none outlives the buckets.
    m_freeRegisterIds.clear();
    m_flushRequestIds.clear();
    m_perLogInfoPool.clear();
    m_registrationCount.store(0, std::memory_order_relaxed);
}

int VxCamOfflineLogger::IsEnableOfflinelogger() {
    return m_state.load(std::memory_order_relaxed) == kStateDisabled ? 0 : 1;
}

int VxCamOfflineLogger::SetFlushTriggerLink(void (*trigger)(OfflineLoggerType)) {
    if (trigger == nullptr) return 0;
    m_flushTriggerLink.store(trigger, std::memory_order_release);
    return 1;
}

int VxCamOfflineLogger::SetCleanupTriggerLink(void (*trigger)(OfflineLoggerType)) {
    if (trigger == nullptr) return 0;
    m_cleanupTriggerLink = trigger;
    return 1;
}

void VxCamOfflineLogger::RequestBucketInPlace(unsigned int type) {
    // The old registration keeps its path: handed over first, its text lands in its own file.
    HandOverRegistration(type);
    t_queuePoolId[type] = RequestNewLogQueue(t_logBuffer[type], static_cast<unsigned int>(gettid()),
                                             static_cast<int>(t_segmentCnt[type]));
    t_logCurPos[type] = 0;
}

void VxCamOfflineLogger::SetMultiPathMode(int mode) {
    {
        // The bucket request presets core-dump paths by the mode, under the pool lock.
        PoolHold lock(*m_pOfflineLoggerLock);
        m_multiPathMode = static_cast<uint32_t>(mode);
    }
    if (mode == 0 && m_loggerType == CoredumpTxt) RequestBucketInPlace(CoredumpTxt);
}

// ---- Retention and disk space -------------------------------------------------------------------

double VxCamOfflineLogger::GetAvailableSpace(const char* path) {
    struct statvfs info = {};
    if (path == nullptr || statvfs(path, &info) != 0) {
        m_state.store(kStateDisabled);
        OFFLINE_LOGE("Offlinelog failed to get file system information!");
        return -1.0;
    }
    return static_cast<double>(info.f_bsize) * static_cast<double>(info.f_bavail) *
           (1.0 / 1048576.0);
}

int VxCamOfflineLogger::MonitorFileSystemHealth(float fwriteTimeMs) {
    m_fwriteTimeHistory.push_back(fwriteTimeMs);
    if (m_fwriteTimeHistory.size() > 10) m_fwriteTimeHistory.pop_front();
    if (m_fwriteSampleCount++ >= 10) {
        double sum = 0.0;
        for (float sample : m_fwriteTimeHistory) sum += sample;
        m_fwriteTimeAvgMs =
                static_cast<float>(sum / static_cast<double>(m_fwriteTimeHistory.size()));
        m_fwriteSampleCount = 0;
    }
    return 0;
}

void VxCamOfflineLogger::RemoveOlderLogFiles() {
    // The flush appends to both lists, adds to the size total and clears the counters under the
    // pool lock, so retention takes its records off the lists and their sizes off the total under
    // it too. The files themselves are removed without it: threads that need a bucket must not
    // wait for the file system on retention's behalf.
    // A camera close hands its session's records on only once its files are written.
    TurnHold turn(m_loggerType);
    const uint32_t session = m_sessionCount.load();
    const float limit = static_cast<float>(m_maxFlushLogSizeThreshold);
    std::list<RecycleItemInfo> older;
    std::string currentFile;
    uint32_t currentTries = 0;
    {
        PoolHold lock(*m_pOfflineLoggerLock);
        bool withinLimit;
        if (m_recycleList.empty()) {
            withinLimit = m_totalFlushSizeMB <= limit;
        } else if (session < 3) {
            withinLimit = false;
        } else {
            // Sessions before the previous one go, oldest first, whether or not their files do.
            withinLimit = true;
            auto record = m_recycleList.begin();
            for (; record != m_recycleList.end(); ++record) {
                if (record->sessionCnt > session - 2) {
                    withinLimit = m_totalFlushSizeMB <= limit;
                    break;
                }
                m_totalFlushSizeMB -= static_cast<float>(record->fileSize) * kBytesToMB;
            }
            older.splice(older.end(), m_recycleList, m_recycleList.begin(), record);
        }
        const uint32_t finishedToDrop =
                static_cast<uint32_t>(ceilf(static_cast<float>(m_finishedThreadList.size()) * 0.3f));
        if (!m_finishedThreadList.empty() && !withinLimit &&
            m_finishedThreadList.front().sessionCnt == session) {
            // Stays on the first record on purpose: its file goes once, its size every time.
            const RecycleItemInfo& first = m_finishedThreadList.front();
            currentFile = first.fileName;
            currentTries = finishedToDrop;
            for (uint32_t i = 0; i < finishedToDrop; ++i) {
                m_totalFlushSizeMB -= static_cast<float>(first.fileSize) * kBytesToMB;
            }
        }
        for (uint32_t i = 0; i < finishedToDrop && !m_finishedThreadList.empty(); ++i) {
            m_finishedThreadList.pop_front();
        }
    }
    uint32_t failed = 0;
    for (const RecycleItemInfo& record : older) {
        if (remove(record.fileName.c_str()) != 0) ++failed;
    }
    uint32_t removed = 0;
    for (uint32_t i = 0; i < currentTries; ++i) {
        if (remove(currentFile.c_str()) == 0) ++removed;
    }
    PoolHold lock(*m_pOfflineLoggerLock);
    // As the status report counts them: failures among older sessions' files, successes among
    // the current session's.
    m_removeFailCount += failed;
    m_removeSuccessCount += removed;
}

// ---- Crash backup and core-dump settings --------------------------------------------------------

int VxCamOfflineLogger::BackupRecentModifyLog() {
    const std::string root = DeviceRoot();
    const std::string folderName = "OfflineLog_CrashLog_" + GetCurrentTime();
    char crashFolder[kPathSize];
    char rootPath[kPathSize];
    snprintf(crashFolder, sizeof(crashFolder), "%s/%s/", root.c_str(), folderName.c_str());
    snprintf(rootPath, sizeof(rootPath), "%s/", root.c_str());
    if (mkdir(crashFolder, 0777) != 0) {
        OFFLINE_LOGE("Failed to copy Offlinelogger crash log to permanent folder!");
        return 1;
    }
    while (!m_fileNameList.empty()) {
        const std::string name = m_fileNameList.front();
        m_fileNameList.pop_front();
        m_fileNameSet.erase(name);
        const std::string source = std::string(rootPath) + m_sessionFolderName + "/" + name;
        const std::string destination = std::string(crashFolder) + name;
        std::ifstream in(source, std::ios::binary);
        std::ofstream out(destination, std::ios::binary);
        if (in && out) out << in.rdbuf();
    }
    return 0;
}

int VxCamOfflineLogger::GetEnableBackupLogWhileCrash() {
    return static_cast<int>(m_enableBackupLogWhileCrash);
}

int VxCamOfflineLogger::GetMinimumRequireForBackupLog() {
    return static_cast<int>(m_minimumRequireForBackupLog);
}

int VxCamOfflineLogger::GetSignal35TombstoneTriggered() {
    return static_cast<int>(m_signal35TombstoneTriggered);
}

void VxCamOfflineLogger::SetSignal35TombstoneTriggered() {
    m_signal35TombstoneTriggered = 1;
}

int VxCamOfflineLogger::SetCoredumpPath(const char* path) {
    if (path == nullptr) return 0;
    bool newRegistration = false;
    {
        // The flush names core-dump files, and the bucket request presets their paths, from these,
        // under the pool lock.
        PoolHold lock(*m_pOfflineLoggerLock);
        try {
            if (m_multiPathMode == 0) {
                m_coredumpPath = path;
            } else if (m_multiPathMode == 1) {
                m_multiPathCoredumpPath = path;
                newRegistration = m_loggerType == CoredumpTxt;
            }
        } catch (const std::bad_alloc&) {
            OFFLINE_LOGE("VxCamOfflineLogger allocate memory failed");
            return 0;
        }
    }
    // The thread's next core-dump text goes to a registration that carries the new path.
    if (newRegistration) RequestBucketInPlace(CoredumpTxt);
    return 0;
}

void VxCamOfflineLogger::EnableCoredump() {
    m_coredumpEnabled = 1;
}

void VxCamOfflineLogger::DisableCoredump() {
    m_coredumpEnabled = 0;
}

int VxCamOfflineLogger::IsCoredumpEnabled() {
    return static_cast<int>(m_coredumpEnabled);
}

void VxCamOfflineLogger::SetStatusDumpEnabled(int enable) {
    // Between flushes: a flush opens the dump file only while the switch is on and closes it
    // before it returns, so file and switch never disagree.
    TurnHold turn(m_loggerType);
    PoolHold lock(*m_pOfflineLoggerLock);
    m_statusDumpEnabled = enable == 1 ? 1 : 0;
}

// ---- Status report ------------------------------------------------------------------------------

int VxCamOfflineLogger::DumpCurrentOfflineLogStatus() {
    const int fd = m_statusFd;
    if (m_triggerOperation != 0) {
        DPrintF(fd, "  Session                          : %d   \n",
                t_reportedSession != 0 ? t_reportedSession : m_sessionCount.load());
        DPrintF(fd, "  Logger Type                      : %s   \n", m_loggerTypeName.c_str());
        DPrintF(fd, "  Memory Pool Bucket (Total)       : %zu  \n", m_memPool.size());
        DPrintF(fd, "  Memory Pool Bucket (Available)   : %zu  \n", m_freeBucketIds.size());
        DPrintF(fd, "  Trigger operation                : TRUE \n");
        DPrintF(fd, "  Fwrite time average (Last:%d)    : %fms \n", 10,
                static_cast<double>(m_fwriteTimeAvgMs));
        DPrintF(fd, "  Total Flush log size (MB)        : %f   \n",
                static_cast<double>(m_totalFlushSizeMB));
        DPrintF(fd, "  Maxium flush log size threadhold : %d   \n", m_maxFlushLogSizeThreshold);
        DPrintF(fd, "  Total Flush Count                : %d   \n", m_totalFlushCount);
        struct sysinfo memory = {};
        sysinfo(&memory);
        const unsigned long long unit = memory.mem_unit;
        const long long virtualTotal =
                static_cast<long long>((memory.totalram + memory.totalswap) * unit);
        const long long virtualUsed = static_cast<long long>(
                ((memory.totalram - memory.freeram) + (memory.totalswap - memory.freeswap)) * unit);
        const long long physicalTotal = static_cast<long long>(memory.totalram * unit);
        const size_t physicalUsed = static_cast<size_t>((memory.totalram - memory.freeram) * unit);
        const float virtualPercent =
                static_cast<float>(virtualUsed) / static_cast<float>(virtualTotal) * 100.0f;
        const float physicalPercent =
                static_cast<float>(physicalUsed) / static_cast<float>(physicalTotal) * 100.0f;
        DPrintF(fd, "  Virtual Memory  (Total)          : %lld        \n", virtualTotal);
        DPrintF(fd, "  Virtual Memory  (Used)           : %lld(%.2f%%)\n", virtualUsed,
                static_cast<double>(virtualPercent));
        DPrintF(fd, "  Physical Memory (Total)          : %lld        \n", physicalTotal);
        DPrintF(fd, "  Physical Memory (Used)           : %zu(%.2f%%) \n", physicalUsed,
                static_cast<double>(physicalPercent));
        DPrintF(fd, "  Free space (MB)                  : %f   \n",
                GetAvailableSpace(DeviceRoot().c_str()));
        DPrintF(fd, "  Total remove files success       : %d   \n", m_removeSuccessCount);
        DPrintF(fd, "  Total remove files failed        : %d   \n", m_removeFailCount);
        DPrintF(fd, "  Trigger clean up operation       : %d   \n", m_cleanupTriggerCount);
    } else {
        DPrintF(fd, "  Trigger operation                : FALSE  \n");
    }
    DPrintF(fd, "  Total Request Memory Count       : %d   \n", m_requestMemoryCount);
    DPrintF(fd, "  Total Flush time in this session : %fms \n",
            static_cast<double>(m_totalFlushTimeMs));
    return 0;
}

// ---- Signal catcher -----------------------------------------------------------------------------

char g_coreDumpBaseDirectory[256];

namespace {

constexpr int kDebuggerSignal = 35;  // the platform's request for a live stack dump
constexpr int kCurrentThread = -1;   // android::CallStack's "the calling thread"
// How long a crash report may take, flush and backup included, before the previous action runs
// all the same: a report stuck on a dead disk, or on a lock that another thread never gives back,
// must not keep the crash from the system crash reporter.
constexpr int kReportSeconds = 5;

struct CaughtSignal {
    int number;
    const char* name;  // as the registration messages name it
};

constexpr CaughtSignal kCaughtSignals[] = {
        {SIGSEGV, "SIGSEGV"}, {SIGABRT, "SIGABRT"},
        {SIGBUS, "SIGBUS"},   {SIGFPE, "SIGFPE"},
        {SIGILL, "SIGILL"},   {SIGSYS, "SIGSYS"},
        {SIGTRAP, "SIGTRAP"}, {kDebuggerSignal, "DEBUGGER_SIGNAL"},
};
constexpr size_t kCaughtSignalCount = sizeof(kCaughtSignals) / sizeof(kCaughtSignals[0]);

// The actions found at registration, in kCaughtSignals' order.
struct sigaction s_oldSignalActions[kCaughtSignalCount];
std::atomic<VxCamOfflineLogger*> s_crashLogger{nullptr};
std::atomic<bool> s_signalHandlersRegistered{false};

void RegisterSignalHandlersOnce() {
    if (!s_signalHandlersRegistered.exchange(true)) RegisterSignalHandlers();
}

bool IsCatcher(const struct sigaction& action) {
    return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == SignalCatcher;
}

struct sigaction* SavedAction(int sig) {
    for (size_t i = 0; i < kCaughtSignalCount; ++i) {
        if (kCaughtSignals[i].number == sig) return &s_oldSignalActions[i];
    }
    return nullptr;
}

// The text of one report, kept off the stack: on a device the catcher runs on the crash
// reporter's small alternate stack, which the previous handler then shares.
struct ReportScratch {
    char stamp[100];
    char header[1024];
    char frames[4096];
    char line[1024];
    char dumpPath[kPathSize];
    char* pieces[64];
};

// The report under way on this thread, if any.
struct ReportState {
    bool active;
    sigjmp_buf* stop;        // where an overrunning report is ended
    ReportScratch* scratch;  // its text, once mapped
    timer_t watchdog;
    bool watchdogArmed;
    sigset_t maskBefore;  // the mask the catcher was entered with
};
thread_local ReportState t_report = {};

#ifndef sigev_notify_thread_id
#define sigev_notify_thread_id _sigev_un._tid  // as the kernel's own header names it
#endif

// After kReportSeconds a timer sends the caught signal again, to this thread alone; the catcher
// recognises it by its value and jumps out of the report. The signal is blocked while its own
// handler runs, so it is let through for the report's length.
void ArmWatchdog(ReportState& report, int sig) {
    sigevent event = {};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = sig;
    event.sigev_value.sival_ptr = report.stop;
    event.sigev_notify_thread_id = gettid();
    if (timer_create(CLOCK_MONOTONIC, &event, &report.watchdog) != 0) return;
    itimerspec limit = {};
    limit.it_value.tv_sec = kReportSeconds;
    if (timer_settime(report.watchdog, 0, &limit, nullptr) != 0) {
        timer_delete(report.watchdog);
        return;
    }
    report.watchdogArmed = true;
    sigset_t caught;
    sigemptyset(&caught);
    sigaddset(&caught, sig);
    pthread_sigmask(SIG_UNBLOCK, &caught, &report.maskBefore);
}

// Deleting the timer also drops its signal if it is pending.
void DisarmWatchdog(ReportState& report) {
    if (!report.watchdogArmed) return;
    timer_delete(report.watchdog);
    pthread_sigmask(SIG_SETMASK, &report.maskBefore, nullptr);
    report.watchdogArmed = false;
}

// One line to the crash dump file, opened and closed for itself so that what reached the file
// survives a second fault.
void AppendToDump(const char* dumpPath, const char* line) {
    if (FILE* dump = fopen(dumpPath, "a+")) {
        fputs(line, dump);
        fclose(dump);
    }
}

// The pc the signal interrupted, where the platform's context record is known to this build.
uintptr_t InterruptedPc(const void* context) {
    const ucontext_t* state = static_cast<const ucontext_t*>(context);
    if (state == nullptr) return 0;
#if defined(__aarch64__)
    return static_cast<uintptr_t>(state->uc_mcontext.pc);
#elif defined(__x86_64__)
    return static_cast<uintptr_t>(state->uc_mcontext.gregs[REG_RIP]);
#else
    return 0;
#endif
}

// The first frame of the stack text that is not the catcher's own: the frame the signal
// interrupted, found by its pc as the stack prints it (relative to its object), or else the frame
// after the signal trampoline, found by its name. The count of the catcher's frames depends on
// the compiler and the unwinder, so it is not relied on; with neither found, every frame is kept.
size_t FirstInterruptedFrame(char* const* pieces, size_t count, const void* context) {
    const uintptr_t pc = InterruptedPc(context);
    Dl_info object = {};
    if (pc != 0 && dladdr(reinterpret_cast<void*>(pc), &object) != 0 &&
        object.dli_fbase != nullptr) {
        char text[40];
        snprintf(text, sizeof(text), "pc %0*" PRIxPTR " ", static_cast<int>(2 * sizeof(uintptr_t)),
                 pc - reinterpret_cast<uintptr_t>(object.dli_fbase));
        for (size_t i = 0; i < count; ++i) {
            if (strstr(pieces[i], text) != nullptr) return i;
        }
    }
    for (size_t i = 0; i < count; ++i) {
        if (strstr(pieces[i], "sigreturn") != nullptr ||
            strstr(pieces[i], "__restore_rt") != nullptr)
            return i + 1;
    }
    return 0;
}

// Says in the dump file and on the Android log why the buckets were not written.
void NoteUnflushed(const ReportScratch* scratch, const char* why) {
    OFFLINE_LOGE("Offlinelog crash flush skipped: %s", why);
    if (scratch == nullptr || scratch->dumpPath[0] == '\0') return;
    char line[256];
    snprintf(line, sizeof(line), "%s F DEBUG   : offline log not flushed: %s\n", scratch->stamp,
             why);
    AppendToDump(scratch->dumpPath, line);
}

// The report itself. Not inlined: its frame is gone before the previous handler is called.
__attribute__((noinline)) void ReportCrash(int sig, siginfo_t* info, void* context,
                                           ReportState& report) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm localStorage = {};
    const tm* local = localtime_r(&now.tv_sec, &localStorage);
    VxCamOfflineLogger* logger = s_crashLogger.load();
    if (logger == nullptr) {
        logger = VxCamOfflineLogger::GetInstance(OfflineLog);
        s_crashLogger.store(logger);
    }
    // What this thread holds decides what the report may touch: with the pool lock, or halfway
    // into or out of the exclusive hold, any call that takes them would wait for this very thread.
    const bool poolHeld = t_capture.poolHolds != 0;
    const uint8_t phase = t_capture.lock.exclusive;
    const uint8_t turnPhase = t_capture.turnPhase;
    const bool selfBlocked = poolHeld || phase == kExclusiveAcquiring ||
                             phase == kExclusiveReleasing || turnPhase == kExclusiveAcquiring ||
                             turnPhase == kExclusiveReleasing;
    // A thread still waiting for its shared hold counts as holding it: a line now would go in
    // unguarded.
    const bool mayLog = logger != nullptr && !selfBlocked && !s_threadLock.WaitingForShared();

    void* mapped = mmap(nullptr, sizeof(ReportScratch), PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ReportScratch* scratch = mapped != MAP_FAILED ? static_cast<ReportScratch*>(mapped) : nullptr;
    report.scratch = scratch;
    if (scratch != nullptr) {
        if (local != nullptr) {
            snprintf(scratch->stamp, sizeof(scratch->stamp),
                     "%02d-%02d %02d:%02d:%02d:%09ld  %4d  %4d", local->tm_mon + 1, local->tm_mday,
                     local->tm_hour, local->tm_min, local->tm_sec, now.tv_nsec, getpid(), gettid());
            snprintf(scratch->header, sizeof(scratch->header),
                     "%s F DEBUG   : *** *** *** *** *** *** *** *** *** *** *** *** *** *** *** "
                     "***\n"
                     "%s F DEBUG   : pid: %d, tid: %d\n"
                     "%s F DEBUG   : signal %d, code %d, fault addr %p\n"
                     "%s F DEBUG   : *** *** *** *** *** *** *** *** *** *** *** *** *** *** *** "
                     "***\n",
                     scratch->stamp, scratch->stamp, getpid(), gettid(), scratch->stamp,
                     info != nullptr ? info->si_signo : sig, info != nullptr ? info->si_code : 0,
                     info != nullptr ? info->si_addr : nullptr, scratch->stamp);
            if (mayLog) {
                logger->AddLog(scratch->header, static_cast<unsigned int>(strlen(scratch->header)));
            }
        }

        const std::string dumpPath =
                (logger != nullptr ? logger->GetCurrentSessionPrefixFilename()
                                   : VxCamPort::ResolveDevicePath(kDeviceRoot) + "/") +
                "_Crash_Dump.log";
        strlcpy(scratch->dumpPath, dumpPath.c_str(), sizeof(scratch->dumpPath));
        {
            android::CallStack stack;
            stack.update(1, kCurrentThread);
            strlcpy(scratch->frames, stack.toString(nullptr).c_str(), sizeof(scratch->frames));
        }
        size_t count = 0;
        char* cursor = nullptr;
        for (char* frame = strtok_r(scratch->frames, "#", &cursor);
             frame != nullptr && count < sizeof(scratch->pieces) / sizeof(scratch->pieces[0]);
             frame = strtok_r(nullptr, "#", &cursor)) {
            scratch->pieces[count++] = frame;
        }
        for (size_t i = FirstInterruptedFrame(scratch->pieces, count, context); i < count; ++i) {
            if (local != nullptr) {
                snprintf(scratch->line, sizeof(scratch->line), "%s F DEBUG   : #%s", scratch->stamp,
                         scratch->pieces[i]);
            } else {
                snprintf(scratch->line, sizeof(scratch->line), "F DEBUG   : #%s",
                         scratch->pieces[i]);
            }
            if (sig != kDebuggerSignal && mayLog) {
                logger->AddLog(scratch->line, static_cast<unsigned int>(strlen(scratch->line)));
            }
            AppendToDump(scratch->dumpPath, scratch->line);
        }
    }

    if (logger != nullptr) {
        if (sig == kDebuggerSignal) {
            logger->SetSignal35TombstoneTriggered();
        } else if (selfBlocked) {
            NoteUnflushed(scratch, "the crash came while this thread held the logger's lock");
        } else {
            const std::string root = VxCamPort::ResolveDevicePath(kDeviceRoot);
            const double freeMB = logger->GetAvailableSpace(root.c_str());
            const int minimumMB = logger->GetMinimumRequireForBackupLog();
            const int backupEnabled = logger->GetEnableBackupLogWhileCrash();
            const int backup = freeMB > static_cast<double>(minimumMB) && backupEnabled == 1;
            // The report's flush ends no session, whatever this thread was doing.
            t_sessionEndingLogger = nullptr;
            // A flush that another thread is writing ends first. One that is about to hold the
            // threads off waits for this thread too, if it crashed inside a line: then the turn
            // does not come.
            const bool insideLine = s_threadLock.ShowsSharedHold();
            TurnHold turn(OfflineLog, std::chrono::milliseconds(insideLine ? 1000 : 3000));
            // Nobody may copy into a bucket while it is written. A thread that crashed inside a
            // line holds the capture lock shared and can still take it exclusively, unless
            // another thread already waits to, and waits for this one.
            bool taken = false;
            if (turn.Failed()) {
                NoteUnflushed(scratch, "another thread's flush of the log did not end");
            } else if (s_threadLock.LockForReport(&taken)) {
                logger->FlushLogToFile(1, backup);
                if (taken) s_threadLock.Unlock();
            } else {
                NoteUnflushed(scratch, "another thread waits for this thread to leave the log");
            }
        }
    }
    report.scratch = nullptr;
    if (scratch != nullptr) munmap(scratch, sizeof(ReportScratch));
}

}  // namespace

void RegisterSignalHandlers() {
    // A host that registers again must not save the catcher as its own predecessor: a crash
    // would then call it for ever. The actions saved the first time are kept.
    struct sigaction found = {};
    if (sigaction(SIGSEGV, nullptr, &found) != 0) {
        OFFLINE_LOGE("Failed to get signal handler for SIGSEGV");
    }
    if (!IsCatcher(found)) s_oldSignalActions[0] = found;
    // The new action keeps the flags and mask the platform gave SIGSEGV.
    struct sigaction catcher = found;
    catcher.sa_sigaction = SignalCatcher;
    catcher.sa_flags |= SA_SIGINFO;
    for (size_t i = 0; i < kCaughtSignalCount; ++i) {
        struct sigaction previous = {};
        if (sigaction(kCaughtSignals[i].number, &catcher, &previous) != 0) {
            OFFLINE_LOGE("Failed to register signal handler for %s", kCaughtSignals[i].name);
        } else if (i != 0 && !IsCatcher(previous)) {
            s_oldSignalActions[i] = previous;
        }
    }
}

void InvokeDefaultHndlr(struct sigaction* oldAction, int sig, siginfo_t* info, void* context) {
    if (oldAction == nullptr) return;
    if ((oldAction->sa_flags & SA_SIGINFO) != 0) {
        oldAction->sa_sigaction(sig, info, context);
    } else {
        oldAction->sa_handler(sig);
    }
}

// Runs on the faulting thread with the process in an unknown state. Its own frame stays small:
// it is still there while the previous handler runs.
void SignalCatcher(int sig, siginfo_t* info, void* context) {
    ReportState& report = t_report;
    if (report.active) {
        // The watchdog: the report has run too long.
        if (report.stop != nullptr && info != nullptr && info->si_code == SI_TIMER &&
            info->si_value.sival_ptr == report.stop) {
            siglongjmp(*report.stop, 1);
        }
        // A second fault while this thread is already reporting one (a corrupt heap that aborts
        // inside the flush, say) goes straight on: reporting again could wait for ever on a lock
        // that the first report holds.
        if (struct sigaction* previous = SavedAction(sig))
            InvokeDefaultHndlr(previous, sig, info, context);
        return;
    }
    report.active = true;
    sigjmp_buf stop;
    if (sigsetjmp(stop, 1) == 0) {
        report.stop = &stop;
        // Signal 35 is no crash: the process goes on, and must not be left with a lock or the
        // allocator's state cut off halfway.
        if (sig != kDebuggerSignal) ArmWatchdog(report, sig);
        ReportCrash(sig, info, context, report);
    } else {
        OFFLINE_LOGE("Offlinelog crash report stopped after %d s", kReportSeconds);
        if (report.scratch != nullptr && report.scratch->dumpPath[0] != '\0') {
            char line[160];
            snprintf(line, sizeof(line), "%s F DEBUG   : crash report stopped after %d s\n",
                     report.scratch->stamp, kReportSeconds);
            AppendToDump(report.scratch->dumpPath, line);
        }
    }
    DisarmWatchdog(report);
    report.stop = nullptr;
    report.scratch = nullptr;
    report.active = false;

    struct sigaction* previous = SavedAction(sig);
    if (previous == nullptr) {
        OFFLINE_LOGE("Signal %d received, No action matching", sig);
        return;
    }
    InvokeDefaultHndlr(previous, sig, info, context);
}

// ---- Entry table --------------------------------------------------------------------------------
// Invalid types reach no logger: the functions return 0 or do nothing.

int OfflinelogAddLogInterface(OfflineLoggerType type, const char* text) {
    VxCamOfflineLogger* logger = CachedInstance(type);
    if (logger == nullptr || text == nullptr) return 0;
    return logger->AddLog(text, static_cast<unsigned int>(strlen(text)));
}

int OfflinelogFlushLogInterface(OfflineLoggerType type, int mode) {
    VxCamOfflineLogger* logger = CachedInstance(type);
    return logger != nullptr ? logger->FlushLogToFile(mode, 0) : 0;
}

void OfflinelogNoticeCameraOpenInterface(OfflineLoggerType type) {
    if (VxCamOfflineLogger* logger = CachedInstance(type)) logger->NotifyCameraOpen();
}

void OfflinelogNoticeCameraCloseInterface(OfflineLoggerType type) {
    if (VxCamOfflineLogger* logger = CachedInstance(type)) logger->NotifyCameraClose();
}

void OfflinelogDisableInterface(OfflineLoggerType type) {
    if (VxCamOfflineLogger* logger = CachedInstance(type)) logger->DisableOfflinelogger();
}

int OfflinelogIsEnableInterface(OfflineLoggerType type) {
    VxCamOfflineLogger* logger = CachedInstance(type);
    return logger != nullptr ? logger->IsEnableOfflinelogger() : 0;
}

int OfflinelogLinkFlushTriggerInterface(OfflineLoggerType type, void (*trigger)(OfflineLoggerType)) {
    VxCamOfflineLogger* logger = CachedInstance(type);
    return logger != nullptr ? logger->SetFlushTriggerLink(trigger) : 0;
}

int OfflinelogGetSettingInterface(OfflineLoggerType type) {
    VxCamOfflineLogger* logger = CachedInstance(type);
    return logger != nullptr ? logger->GetSettingLink() : 0;
}

int OfflinelogSetCleanupTriggerLink(OfflineLoggerType type, void (*trigger)(OfflineLoggerType)) {
    VxCamOfflineLogger* logger = CachedInstance(type);
    return logger != nullptr ? logger->SetCleanupTriggerLink(trigger) : 0;
}

int OfflinelogCleanupOlderLogFileInterface(OfflineLoggerType type) {
    if (VxCamOfflineLogger* logger = CachedInstance(type)) logger->RemoveOlderLogFiles();
    return 0;
}

int OfflinelogSetCoredumpPathInterface(OfflineLoggerType type, const char* path) {
    VxCamOfflineLogger* logger = CachedInstance(type);
    return logger != nullptr ? logger->SetCoredumpPath(path) : 0;
}

int OfflinelogEnableCoredumpInterface(OfflineLoggerType type) {
    if (VxCamOfflineLogger* logger = CachedInstance(type)) logger->EnableCoredump();
    return 0;
}

int OfflinelogDisableCoredumpInterface(OfflineLoggerType type) {
    if (VxCamOfflineLogger* logger = CachedInstance(type)) logger->DisableCoredump();
    return 0;
}

int OfflinelogIsCoredumpEnabledInterface(OfflineLoggerType type) {
    VxCamOfflineLogger* logger = CachedInstance(type);
    return logger != nullptr ? logger->IsCoredumpEnabled() : 0;
}

int OfflinelogSetMultiPathModeInterface(OfflineLoggerType type, int mode) {
    if (VxCamOfflineLogger* logger = CachedInstance(type)) logger->SetMultiPathMode(mode);
    return 0;
}

int OfflinelogCleanupMemPoolInterface(OfflineLoggerType type) {
    if (VxCamOfflineLogger* logger = CachedInstance(type)) logger->CleanupMemoryPool();
    return 0;
}

}  // namespace VxCam

extern "C" void ChiOfflineLogEntry(VxCam::OfflineLogEntryTable* table) {
    using namespace VxCam;
    if (table == nullptr) return;
    table->size = sizeof(OfflineLogEntryTable);
    table->padding = 0;
    table->addLog = OfflinelogAddLogInterface;
    table->flushLog = OfflinelogFlushLogInterface;
    table->noticeCameraOpen = OfflinelogNoticeCameraOpenInterface;
    table->noticeCameraClose = OfflinelogNoticeCameraCloseInterface;
    table->disable = OfflinelogDisableInterface;
    table->isEnable = OfflinelogIsEnableInterface;
    table->linkFlushTrigger = OfflinelogLinkFlushTriggerInterface;
    table->getSetting = OfflinelogGetSettingInterface;
    table->setCleanupTrigger = OfflinelogSetCleanupTriggerLink;
    table->cleanupOlderLogFile = OfflinelogCleanupOlderLogFileInterface;
    table->setCoredumpPath = OfflinelogSetCoredumpPathInterface;
    table->enableCoredump = OfflinelogEnableCoredumpInterface;
    table->disableCoredump = OfflinelogDisableCoredumpInterface;
    table->isCoredumpEnabled = OfflinelogIsCoredumpEnabledInterface;
    table->setMultiPathMode = OfflinelogSetMultiPathModeInterface;
    table->cleanupMemPool = OfflinelogCleanupMemPoolInterface;
}
