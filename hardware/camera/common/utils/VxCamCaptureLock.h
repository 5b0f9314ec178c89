// The capture lock, internal to the offline logger: what keeps a bucket from being written out,
// released or swapped while a thread copies a line into it, and the other holds of the logger that
// a crash report on a faulting thread must be able to see through.
//
// Capture holds it shared for one line; camera close, disable and pool clean-up hold it
// exclusively while buckets are written out or released. Constant-initialised and never
// destroyed, so threads still logging while the process exits find it intact. There is one in the
// process (the logger's): the per-thread state below belongs to it.
//
// A shared holder stores 1 into its own slot, then reads the writer flag; an exclusive holder
// raises the flag, then waits until every slot reads 0. Either the reader sees the flag and backs
// off, or the writer sees the reader's slot and waits: that needs a full barrier between each
// side's store and load, which the exclusive side issues for both (membarrier) when the system
// allows, and each side issues for itself (sequentially consistent operations) when it does not.
// Readers that find the flag raised back off and sleep on the writers' mutex, so a waiting
// exclusive holder is not starved by a stream of lines. Holds nest: a thread that holds the lock
// either way takes it shared again for free.
//
// The logger takes its locks in one order: a logger's flush turn (TurnHold), the capture lock,
// then the pool lock (PoolHold). Every hold notes on its own thread, before it waits and until
// after it has let go, where the thread stands with it, so that a crash report on that thread
// knows which locks it cannot take without waiting for itself.
//
// Only the offline logger's own files use this: its capture, flushes, camera close, disable, pool
// clean-up and retention, and the crash report, which alone may use LockForReport and a TurnHold
// with patience. A line's shared hold is inlined into the capture: it is the cost of every line.
#ifndef VXCAM_CAPTURE_LOCK_H
#define VXCAM_CAPTURE_LOCK_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <chrono>
#include <mutex>

namespace VxCam {

#pragma GCC visibility push(hidden)

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
// Plain data, constant-initialised: the other files reach it without a thread-local wrapper call.
extern __thread CaptureThread t_capture;

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

    void Lock();

    // The crash report's way in. The exclusive hold is taken unless the thread has it already,
    // or taking it could wait for this very thread: while the thread is itself taking or giving
    // up the exclusive hold, or while it holds the lock shared and another thread has already
    // begun to take it exclusively (that thread waits for this one to leave). Returns false
    // then; `taken` tells whether an Unlock is owed.
    bool LockForReport(bool* taken);

    // Whether an exclusive holder would wait for the calling thread: a signal may have come at any
    // step of a shared hold, its release or its slow path.
    bool ShowsSharedHold() const;

    // Whether the calling thread counts as holding the lock shared without holding it: a
    // capture on it now would copy into a bucket that an exclusive holder may be writing.
    bool WaitingForShared() const { return t_capture.lock.waiting != 0; }

    // Whether the calling thread holds the lock exclusively.
    bool HeldExclusivelyByThisThread() const { return t_capture.lock.exclusive == kExclusiveHeld; }

    void Unlock();

  private:
    static void SetPhase(ThreadLockState& self, ExclusivePhase phase);
    void DrainReaders(ThreadLockState& self, bool forReport = false);
    struct SlotLease;
    void ClaimSlot(ThreadLockState& self);
    void LockSharedSlow(ThreadLockState& self);
    static void SetWaiting(ThreadLockState& self, uint8_t waiting);
    void LockSharedWaiting(ThreadLockState& self);

    ReaderSlot m_slots[kReaderSlots];
    alignas(128) std::atomic<uint32_t> m_countedReaders{0};
    // Read for every line and written only by exclusive holders: on a line of its own.
    alignas(128) std::atomic<uint32_t> m_writer{0};
    alignas(128) std::atomic<uint32_t> m_nextSlot{0};
    pthread_mutex_t m_writerMutex = PTHREAD_MUTEX_INITIALIZER;
};

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
//
// The flush turn as the library takes it. A thread that holds it already (a crash report on a
// thread that was flushing, a camera close that flushes) goes on under the hold it has.
class TurnHold {
  public:
    // With a `patience` (the crash report's way in), gives up after it rather than wait for a
    // holder that may be waiting for this very thread.
    explicit TurnHold(uint32_t type,
                      std::chrono::milliseconds patience = std::chrono::milliseconds::max());
    ~TurnHold();
    bool Failed() const { return m_failed; }
    TurnHold(const TurnHold&) = delete;
    TurnHold& operator=(const TurnHold&) = delete;

  private:
    void Enter(CaptureThread& self, ExclusivePhase phase) const;

    uint8_t m_type;
    bool m_owner = false;
    bool m_failed = false;
};

#pragma GCC visibility pop

}  // namespace VxCam

#endif  // VXCAM_CAPTURE_LOCK_H
