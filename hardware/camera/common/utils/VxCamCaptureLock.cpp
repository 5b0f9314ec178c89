// The capture lock's rare side: the exclusive holds, the shared hold's slow path, the membarrier
// handshake and the flush turns. Its protocol is in VxCamCaptureLock.h.
#include "VxCamCaptureLock.h"

#include <linux/membarrier.h>
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace VxCam {

__thread CaptureThread t_capture = {};

namespace {

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

// Each logger type's flush turn (TurnHold).
pthread_mutex_t s_flushTurns[4] = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER,
                                   PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER};

}  // namespace

// ---- The exclusive side -------------------------------------------------------------------------

void OfflineLoggerThreadLock::Lock() {
    ThreadLockState& self = t_capture.lock;
    SetPhase(self, kExclusiveAcquiring);
    pthread_mutex_lock(&m_writerMutex);
    DrainReaders(self);
}

bool OfflineLoggerThreadLock::LockForReport(bool* taken) {
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

bool OfflineLoggerThreadLock::ShowsSharedHold() const {
    const ThreadLockState& self = t_capture.lock;
    return self.depth != 0 || self.waiting != 0 || self.counted != 0 ||
           (self.slot != nullptr && self.slot->inside.load() != 0);
}

void OfflineLoggerThreadLock::Unlock() {
    ThreadLockState& self = t_capture.lock;
    SetPhase(self, kExclusiveReleasing);
    --self.depth;
    m_writer.store(0, std::memory_order_release);
    pthread_mutex_unlock(&m_writerMutex);
    SetPhase(self, kExclusiveNone);
}

// Only a signal handler on the same thread reads the phase: keeping the compiler's order is
// enough.
void OfflineLoggerThreadLock::SetPhase(ThreadLockState& self, ExclusivePhase phase) {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    self.exclusive = phase;
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

// With the writers' mutex held: shuts out new shared holds and waits for those under way.
// A crash report ignores this thread's own slot, whatever state the signal left it in, and
// takes the shared counter down to this thread's part of it at most.
void OfflineLoggerThreadLock::DrainReaders(ThreadLockState& self, bool forReport) {
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

// ---- The shared side's slow path ----------------------------------------------------------------

// Gives the thread back its slot when it exits; later holds on the way out are counted.
struct OfflineLoggerThreadLock::SlotLease {
    ~SlotLease() {
        ThreadLockState& self = t_capture.lock;
        if (self.slot == nullptr || self.depth != 0) return;
        self.slot->owned.store(0, std::memory_order_release);
        self.slot = nullptr;
    }
};

void OfflineLoggerThreadLock::ClaimSlot(ThreadLockState& self) {
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

void OfflineLoggerThreadLock::LockSharedSlow(ThreadLockState& self) {
    SetWaiting(self, 1);
    LockSharedWaiting(self);
    SetWaiting(self, 0);
}

void OfflineLoggerThreadLock::SetWaiting(ThreadLockState& self, uint8_t waiting) {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    self.waiting = waiting;
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

void OfflineLoggerThreadLock::LockSharedWaiting(ThreadLockState& self) {
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

// ---- The flush turn -----------------------------------------------------------------------------

TurnHold::TurnHold(uint32_t type, std::chrono::milliseconds patience)
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

TurnHold::~TurnHold() {
    if (!m_owner) return;
    CaptureThread& self = t_capture;
    Enter(self, kExclusiveReleasing);
    pthread_mutex_unlock(&s_flushTurns[m_type]);
    Enter(self, kExclusiveNone);
}

void TurnHold::Enter(CaptureThread& self, ExclusivePhase phase) const {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    self.turnPhase = phase;
    self.turnType = m_type;
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

}  // namespace VxCam
