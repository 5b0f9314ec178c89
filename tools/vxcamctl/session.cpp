// vxcamctl session: runs camera sessions against the library the way a camera host does, through
// the C entry table found with dlopen/dlsym, then reads the session files back and accounts for
// every line it logged.
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <malloc.h>
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <VxCamLogSink.h>
#include <android/log.h>

#include "Commands.h"
#include "VxCamOfflineLogger.h"

namespace vxcamctl {

namespace {

using VxCam::OfflineLoggerType;
using Clock = std::chrono::steady_clock;

constexpr OfflineLoggerType kTextLog = VxCam::OfflineLog;
constexpr char kMarker[] = "vxs ";
constexpr unsigned long kMaxLines = 1000000000ul;  // per thread (per slot in a soak)
// Below this much logging time a bench's figures are start-up and scheduling noise: thread starts,
// first page faults of the buckets, a preemption or two.
constexpr double kBenchMinSeconds = 1.0;

constexpr unsigned kSoakSessionSeconds = 2;
constexpr size_t kFlushBatch = 6;  // the text log's: a normal flush writes at 6 requests
constexpr unsigned kWarmUpSessions = 3;
constexpr double kGrowthToleranceMiB = 8.0;

#ifdef VXCAMCTL_DEFAULT_LIBRARY
constexpr char kDefaultLibrary[] = VXCAMCTL_DEFAULT_LIBRARY;
#else
constexpr char kDefaultLibrary[] = "libvxcamcommonutils.so";
#endif

constexpr int kExitInterrupted = 128 + SIGINT;  // as a shell reports a run ended by Ctrl-C

struct Options {
    unsigned threads = 4;
    unsigned long lines = 10000;
    unsigned length = 128;
    unsigned sessions = 2;
    unsigned logSystemEvery = 8;  // every n-th line through the debug frame; 0: none
    unsigned duration = 0;        // seconds of soak; 0: K sessions instead
    bool closeWhileLogging = false;
    bool bench = false;
    bool androidLog = false;
    bool noMembarrier = false;
    bool quiet = false;    // the summary only
    bool verbose = false;  // the details even when nothing was lost
    bool keep = false;     // the session folders stay
    std::string library = kDefaultLibrary;
};

void PrintSessionUsage(FILE* out) {
    const Options defaults;
    fprintf(out,
            "usage: vxcamctl session [OPTIONS]\n"
            "       vxcamctl session --duration S [OPTIONS]   (a soak)\n"
            "\n"
            "Runs K camera sessions as a camera host does: loads the library with dlopen, takes\n"
            "the offline-log entry table from ChiOfflineLogEntry, starts the text logger, links a\n"
            "flush trigger served by a flush thread of its own, opens the camera, lets N threads\n"
            "log M lines of L bytes each, and closes the camera. When the sysroot's properties\n"
            "turn offline logging on (vendor.camera.vcf.LogOfflineEnable=1), every n-th line goes\n"
            "through Log::LogSystem instead.\n"
            "\n"
            "Then it reads the session folders the run made back and accounts for every line:\n"
            "logged, landed, dropped while a camera close was under way (accepted) or lost. Every\n"
            "line dropped during a close must be one the library reported as skipped. The summary\n"
            "comes first: the rate, the files, the resident memory when idle and at its peak\n"
            "against the buckets in flight (held by a thread or queued for the flush) at the\n"
            "busiest moment and the pool's size, the library's errors and warnings, the totals\n"
            "and the result. The files and a row per session and thread follow with -v, or when\n"
            "a line was lost. The session folders the run made are removed after the check;\n"
            "--keep keeps them, and so does a failed check, for a look.\n"
            "\n"
            "Exit status: 0 when every line is accounted for; 1 on a lost, duplicated or\n"
            "reordered line (or, in a soak, on memory growth); 2 on a bad option or when the\n"
            "library cannot be loaded; 130 when interrupted (Ctrl-C), which leaves the run's\n"
            "folders. On a terminal, stderr shows a progress bar with the rate and the time left.\n"
            "\n"
            "  --threads N            logging threads, 1 to 1024 (default %u)\n"
            "  --lines M              lines per thread and session (default %lu)\n"
            "  --length L             bytes per line, 32 to 1000 (default %u)\n"
            "  --sessions K           camera sessions, 1 to 1000 (default %u)\n"
            "  --logsystem-every N    every N-th line through Log::LogSystem when offline\n"
            "                         logging is on; 0: none (default %u)\n"
            "  --close-while-logging  also close and reopen the camera half way through each\n"
            "                         session, while the threads log\n"
            "  --bench                time the run: numbered lines are made without printf, and\n"
            "                         the figures are the capture's cost per line (CPU and wall\n"
            "                         time, median thread), lines per second per thread and over\n"
            "                         all threads, the flush's throughput, the memory, and each\n"
            "                         call's latency (the debug frame's or addLog's, timed with a\n"
            "                         clock reading before and after it, which the cost per line\n"
            "                         includes): p50, p99, p99.9, p99.99 and max over all calls\n"
            "                         of all threads, and the calls over 1 ms. Percentiles come\n"
            "                         from log-spaced buckets, at most 3.2 %% high; the max and\n"
            "                         the count are exact. A run whose threads log for less than\n"
            "                         %.0f s is too short to judge, and says so. The files are\n"
            "                         still checked\n"
            "  --duration S           soak for S seconds instead of K sessions (see below)\n"
            "  --keep                 keep the session folders the run made\n"
            "  -v, --verbose          the details even when nothing was lost: the files and a\n"
            "                         row per session and thread; in a soak, a line per session\n"
            "                         and the memory curve\n"
            "  --quiet                the summary only: no progress bar, no soak line a minute,\n"
            "                         no details even when a line was lost\n"
            "  --android-log          keep the Android log (stderr); by default it is silenced,\n"
            "                         and its errors and warnings are listed in the summary\n"
            "  --no-membarrier        run as on a kernel without membarrier: the library's\n"
            "                         capture then pays for its own barrier on every line\n"
            "  --library PATH         the library to load (default %s)\n"
            "  --sysroot DIR          the device tree the library's paths are taken under\n"
            "  -h, --help             this text\n"
            "\n"
            "Every option takes its value as --option VALUE or --option=VALUE.\n"
            "\n"
            "The soak (--duration S) runs camera sessions of %u s for S seconds, in which each of\n"
            "the N threads is replaced by a new one after its M lines (so that registrations,\n"
            "buckets and the guards of ending threads are recycled), with the host's retention\n"
            "linked. A slot's next batch waits while the flush is more than a few batches\n"
            "behind, as a camera logs slower than its disk writes (the library holds no thread\n"
            "back). After each close the session's lines are checked and its files deleted;\n"
            "--bench and --keep do not apply. Resident memory (VmRSS) is sampled every second;\n"
            "a line a minute gives the sessions so far, the lines checked and the memory's low,\n"
            "median and high over that minute. The run fails on a lost line, or on growth: the\n"
            "median of the last third of the samples may not pass the median of the warm-up by\n"
            "more than %.0f MiB. The warm-up is the first %u sessions, or the first fifth of the\n"
            "run if longer: the pool and the allocator's arenas reach their working size.\n"
            "Medians, since a sample may catch a few 3 MiB buckets more in flight; %.0f MiB holds\n"
            "the retention records of the 2600 MB written between two retention passes (about\n"
            "3 MiB), while a leak of 3 KiB a second fails an hour's run.\n",
            defaults.threads, defaults.lines, defaults.length, defaults.sessions,
            defaults.logSystemEvery, kBenchMinSeconds, kDefaultLibrary, kSoakSessionSeconds,
            kGrowthToleranceMiB, kWarmUpSessions, kGrowthToleranceMiB);
}

bool ParseNumber(const char* text, unsigned long max, unsigned long* value) {
    if (text == nullptr || *text == '\0') return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long long parsed = strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0' || parsed > max || text[0] == '-') return false;
    *value = static_cast<unsigned long>(parsed);
    return true;
}

// --no-membarrier: a seccomp filter that answers membarrier with ENOSYS, as a kernel before 4.14
// would. Installed before the library's first line, when it decides how its lock works.
bool DenyMembarrier() {
    struct sock_filter filter[] = {
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_membarrier, 0, 1),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (ENOSYS & SECCOMP_RET_DATA)),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    struct sock_fprog program = {static_cast<unsigned short>(sizeof(filter) / sizeof(filter[0])),
                                 filter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// ---- The host's side of the library --------------------------------------------------------

using LogSystemFn = void (*)(unsigned int, const char*, unsigned int, const char*, ...);

struct Library {
    VxCam::OfflineLogEntryTable table = {};
    LogSystemFn logSystem = nullptr;
    bool offlineEnabled = false;  // the debug frame hands its lines to the offline logger
    bool countsSkips = false;     // the Android log goes to SilencedLog
};

// Lines the library said it skipped because a camera close was under way: each is one line
// dropped, and every line dropped during a close must be one of them.
std::atomic<unsigned long> s_skipReports{0};

// The library's errors and warnings while its log is silenced: the library's own account of
// what went wrong (a folder it could not make, a file it could not open), which the user needs
// beside the lines that went missing. Each distinct text once, with its count, in the order first
// seen; a library stuck in a loop of new texts fills only the first few.
class LibraryComplaints {
  public:
    struct Entry {
        char level;  // 'W', 'E' or 'F', as logcat shows them
        std::string text;
        unsigned long count;
    };
    // Never destroyed: the library may still log from its own teardown, after this program's
    // statics are gone.
    static LibraryComplaints& Get() {
        static LibraryComplaints* complaints = new LibraryComplaints;
        return *complaints;
    }
    void Add(int priority, const char* message) {
        size_t length = strlen(message);
        while (length > 0 && (message[length - 1] == '\n' || message[length - 1] == '\r')) {
            --length;
        }
        const char level = priority >= ANDROID_LOG_FATAL   ? 'F'
                           : priority >= ANDROID_LOG_ERROR ? 'E'
                                                           : 'W';
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_total;
        for (Entry& entry : m_entries) {
            if (entry.level == level &&
                entry.text.compare(0, std::string::npos, message, length) == 0) {
                ++entry.count;
                return;
            }
        }
        if (m_entries.size() < kDistinct)
            m_entries.push_back({level, std::string(message, length), 1});
    }
    std::vector<Entry> Entries() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_entries;
    }
    unsigned long Total() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_total;
    }

  private:
    static constexpr size_t kDistinct = 24;
    mutable std::mutex m_mutex;
    std::vector<Entry> m_entries;
    unsigned long m_total = 0;  // counted in an entry or not
};

// Keeps the Android log off the terminal: counts the skip reports and keeps the errors and
// warnings. Info lines, the debug frame's numbered lines among them, go nowhere.
void SilencedLog(const struct VxCamLogMessage* message) {
    if (message->priority < ANDROID_LOG_WARN || message->message == nullptr) return;
    if (strstr(message->message, "log is skipped due to camera is closing") != nullptr) {
        s_skipReports.fetch_add(1, std::memory_order_relaxed);
    } else if (strstr(message->message, kMarker) == nullptr) {
        LibraryComplaints::Get().Add(message->priority, message->message);
    }
}

bool LoadLibrary(const Options& options, Library* library) {
    void* handle = dlopen(options.library.c_str(), RTLD_NOW);
    if (handle == nullptr) {
        fprintf(stderr, "vxcamctl session: cannot load %s: %s\n", options.library.c_str(),
                dlerror());
        return false;
    }
    auto entry = reinterpret_cast<void (*)(VxCam::OfflineLogEntryTable*)>(
            dlsym(handle, "ChiOfflineLogEntry"));
    if (entry == nullptr) {
        fprintf(stderr, "vxcamctl session: %s has no ChiOfflineLogEntry\n", options.library.c_str());
        return false;
    }
    entry(&library->table);
    if (library->table.size != sizeof(VxCam::OfflineLogEntryTable)) {
        fprintf(stderr, "vxcamctl session: the entry table has size %u, expected %zu\n",
                library->table.size, sizeof(VxCam::OfflineLogEntryTable));
        return false;
    }
    // Found by their exported names, as a host without the headers would.
    library->logSystem =
            reinterpret_cast<LogSystemFn>(dlsym(handle, "_ZN5VxCam3Log9LogSystemEjPKcjS2_z"));
    // The process's own g_logInfo: when the program itself refers to the global (this one does),
    // the library uses the program's copy, and the library's handle would find the stale original.
    const auto* logInfo =
            static_cast<const VxCam::DebugLogInfo*>(dlsym(RTLD_DEFAULT, "_ZN5VxCam9g_logInfoE"));
    library->offlineEnabled = library->logSystem != nullptr && logInfo != nullptr &&
                              logInfo->systemLogEnable == 1 && logInfo->offlineLogEnable == 1 &&
                              (logInfo->infoMask & 1u) != 0;
    if (!options.androidLog) {
        using SetLogger = void (*)(void (*)(const struct VxCamLogMessage*));
        auto setLogger = reinterpret_cast<SetLogger>(dlsym(RTLD_DEFAULT, "VxCamLogSetSink"));
        if (setLogger != nullptr) {
            setLogger(SilencedLog);
            library->countsSkips = true;
        }
    }
    return true;
}

// What the text logger's pool holds, which no host can ask: this tool is built with the library and
// looks inside, under the library's pool lock.
class PoolPeek : private VxCam::VxCamOfflineLogger {
  public:
    struct Figures {
        size_t buckets = 0;
        size_t inFlight = 0;  // held by a thread or queued for the flush
    };
    // For the flush trigger, which the library calls with the pool lock held.
    static Figures ReadLocked() {
        Figures figures;
        VxCam::VxCamOfflineLogger* logger = GetInstance(kTextLog);
        if (logger == nullptr) return figures;
        const std::vector<unsigned char*>& pool = logger->*(&PoolPeek::m_memPool);
        const std::deque<int>& free = logger->*(&PoolPeek::m_freeBucketIds);
        figures.buckets = pool.size();
        figures.inFlight = pool.size() - std::min(pool.size(), free.size());
        return figures;
    }
    static Figures Read() {
        std::lock_guard<std::mutex> lock(*m_pOfflineLoggerLock);
        return ReadLocked();
    }
};

// The busiest the pool has been, as seen at each request for a flush and after each flush.
struct PoolWatch {
    std::atomic<size_t> peakInFlight{0};
    std::atomic<size_t> buckets{0};
    void Note(const PoolPeek::Figures& figures) {
        size_t peak = peakInFlight.load();
        while (figures.inFlight > peak &&
               !peakInFlight.compare_exchange_weak(peak, figures.inFlight)) {
        }
        buckets.store(std::max(buckets.load(), figures.buckets));
    }
};

// A thread that sleeps on m_wake until it has work or is told to stop. Derived classes start
// m_thread in their constructor and call StopAndJoin from their destructor, while their own
// members still live.
class WakeableThread {
  protected:
    // Raises the stop flag, wakes the thread and joins it; false if it was not running.
    bool StopAndJoin() {
        if (!m_thread.joinable()) return false;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        m_wake.notify_one();
        m_thread.join();
        return true;
    }

    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stop = false;
    std::thread m_thread;
};

// The flush thread: the library calls the trigger with its pool lock held, so the trigger only
// wakes this thread, which runs the flush through the table.
class FlushThread : public WakeableThread {
  public:
    FlushThread(const VxCam::OfflineLogEntryTable& table, PoolWatch* watch)
        : m_table(table), m_watch(watch) {
        s_current = this;
        m_thread = std::thread([this] { Run(); });
    }
    ~FlushThread() { Stop(); }
    // Lets the thread finish the flushes asked for, and joins it.
    void Stop() {
        if (StopAndJoin()) s_current = nullptr;
    }
    // The host's retention, asked for by the library (with its pool lock held) once the logs
    // written pass its threshold: run on the flush thread too.
    static void Cleanup(OfflineLoggerType type) {
        FlushThread* self = s_current;
        if (self == nullptr || type != kTextLog) return;
        {
            std::lock_guard<std::mutex> lock(self->m_mutex);
            self->m_cleanup = true;
        }
        self->m_wake.notify_one();
    }
    static void Trigger(OfflineLoggerType type) {
        FlushThread* self = s_current;
        if (self == nullptr || type != kTextLog) return;
        // The thread that queued a bucket takes a fresh one as soon as this returns.
        PoolPeek::Figures figures = PoolPeek::ReadLocked();
        ++figures.inFlight;
        self->m_watch->Note(figures);
        {
            std::lock_guard<std::mutex> lock(self->m_mutex);
            ++self->m_pending;
        }
        self->m_wake.notify_one();
    }
    // Retention deletes the files of sessions before the previous one, and a soak session spans
    // two of the library's (it closes half way): held from before the session's last close until
    // its files have been read back, so that a pass asked for earlier cannot take them first.
    void HoldCleanups() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cleanupHeld = true;
        m_idle.wait(lock, [this] { return !m_cleaning; });
    }
    void ReleaseCleanups() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_cleanupHeld = false;
        }
        m_wake.notify_one();
    }
    unsigned long Flushes() const { return m_flushes.load(); }
    unsigned long Cleanups() const { return m_cleanups.load(); }
    double FlushSeconds() const { return m_flushSeconds; }  // once stopped

  private:
    void Run() {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            m_wake.wait(lock, [this] {
                return m_stop || m_pending > 0 || (m_cleanup && !m_cleanupHeld);
            });
            const bool cleanup = m_cleanup && !m_cleanupHeld;
            if (m_pending == 0 && !cleanup && m_stop) return;
            const bool flush = m_pending > 0;
            m_pending = 0;
            if (cleanup) m_cleanup = false;
            m_cleaning = cleanup;
            lock.unlock();
            if (flush) {
                const auto start = Clock::now();
                m_table.flushLog(kTextLog, 0);
                m_flushSeconds += std::chrono::duration<double>(Clock::now() - start).count();
                m_watch->Note(PoolPeek::Read());
                ++m_flushes;
            }
            if (cleanup) {
                m_table.cleanupOlderLogFile(kTextLog);
                ++m_cleanups;
            }
            lock.lock();
            if (m_cleaning) {
                m_cleaning = false;
                m_idle.notify_all();
            }
        }
    }

    static FlushThread* s_current;
    const VxCam::OfflineLogEntryTable& m_table;
    PoolWatch* m_watch;
    double m_flushSeconds = 0;
    unsigned long m_pending = 0;
    bool m_cleanup = false;
    bool m_cleanupHeld = false;
    bool m_cleaning = false;
    std::condition_variable m_idle;  // a retention pass has ended
    std::atomic<unsigned long> m_flushes{0};
    std::atomic<unsigned long> m_cleanups{0};
};
FlushThread* FlushThread::s_current = nullptr;

// ---- Logging and accounting ----------------------------------------------------------------

// Call latencies in log-spaced buckets, 32 to each doubling, so that a percentile read from a
// bucket's upper edge is at most 3.2 % above the truth; up to about a second, with the exact
// maximum and the calls over 1 ms beside them. A few KiB a thread, however many lines it logs.
class LatencyHistogram {
  public:
    void Add(uint64_t ns) {
        ++m_counts[Bucket(std::min(ns, kCapNs))];
        ++m_calls;
        m_maxNs = std::max(m_maxNs, ns);
        if (ns > 1000000) ++m_overOneMs;
    }
    void Merge(const LatencyHistogram& other) {
        for (size_t i = 0; i < kBuckets; ++i) m_counts[i] += other.m_counts[i];
        m_calls += other.m_calls;
        m_maxNs = std::max(m_maxNs, other.m_maxNs);
        m_overOneMs += other.m_overOneMs;
    }
    // Nearest rank: the upper edge of the bucket that holds the call with at least the fraction p
    // of all at or below it, and never above the maximum.
    uint64_t PercentileNs(double p) const {
        const uint64_t rank = std::max<uint64_t>(
                1, static_cast<uint64_t>(p * static_cast<double>(m_calls) + 0.999999));
        uint64_t seen = 0;
        for (size_t i = 0; i < kBuckets; ++i) {
            seen += m_counts[i];
            if (seen >= rank) return std::min(Low(i + 1) - 1, m_maxNs);
        }
        return m_maxNs;
    }
    uint64_t Calls() const { return m_calls; }
    uint64_t MaxNs() const { return m_maxNs; }
    uint64_t OverOneMs() const { return m_overOneMs; }

  private:
    static constexpr int kSubBits = 5;
    static constexpr uint64_t kCapNs = (uint64_t{1} << 30) - 1;  // slower calls share the last
    static constexpr size_t kBuckets = size_t{30 - kSubBits + 1} << kSubBits;

    // Below 32 ns a bucket a nanosecond; above, the top 6 bits of the value.
    static size_t Bucket(uint64_t ns) {
        if (ns < (uint64_t{1} << kSubBits)) return static_cast<size_t>(ns);
        const int shift = 63 - __builtin_clzll(ns) - kSubBits;
        return (static_cast<size_t>(shift + 1) << kSubBits) +
               static_cast<size_t>((ns >> shift) & ((1u << kSubBits) - 1));
    }
    static uint64_t Low(size_t bucket) {
        if (bucket < (size_t{1} << kSubBits)) return bucket;
        const int shift = static_cast<int>(bucket >> kSubBits) - 1;
        return (uint64_t{1} << kSubBits | (bucket & ((1u << kSubBits) - 1))) << shift;
    }

    std::array<uint64_t, kBuckets> m_counts = {};
    uint64_t m_calls = 0;
    uint64_t m_maxNs = 0;
    uint64_t m_overOneMs = 0;
};

uint64_t MonotonicNs() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

struct ThreadRecord {
    unsigned long logged = 0;
    std::vector<unsigned long> mayDrop;  // sequence numbers logged while a close was under way
    double seconds = 0;                  // spent logging
    double cpuSeconds = 0;               // of which on a CPU
};

double ThreadCpuSeconds() {
    timespec now = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

struct Run {
    std::vector<std::vector<ThreadRecord>> records;  // [session][thread]
    unsigned firstSession = 1;                       // the number lines of records[0] carry
    std::atomic<unsigned long> progress{0};
    std::atomic<uint32_t> closeEpoch{0};  // odd while a camera close runs
    double loggingSeconds = 0;
    double captureSeconds = 0;  // from the threads' start to their end, summed over sessions
    double closeSeconds = 0;    // in camera closes, which write out what the threads hold
    PoolWatch pool;
    std::mutex latencyLock;
    LatencyHistogram latency;  // --bench: every call of every thread, merged as each ends
};

// Counts a fixed-width decimal up by one, in place.
void CountUp(char* digits, size_t width) {
    for (size_t i = width; i-- > 0;) {
        if (digits[i] != '9') {
            ++digits[i];
            return;
        }
        digits[i] = '0';
    }
}

// --bench: the same numbered lines, made without printf, and only what a host would do per line
// between the clock readings. Shared counters are touched once every 4096 lines, and the
// histogram of the calls' latencies once, at the end.
void LogLinesForBench(const Options& options, const Library& library, unsigned session,
                      unsigned thread, Run* run) {
    ThreadRecord& record = run->records[session][thread];
    constexpr size_t kDigits = 10;
    char head[64];
    const int headLength =
            snprintf(head, sizeof(head), "%s%u %u ", kMarker, run->firstSession + session, thread);
    std::string line(head, static_cast<size_t>(headLength));
    const size_t number = line.size();
    line.append(kDigits, '0');
    line += ' ';
    if (line.size() + 1 < options.length) line.resize(options.length - 1, '.');
    line += '\n';
    char* digits = &line[number];
    const int frameLength = static_cast<int>(line.size() - 1);  // the frame ends the line itself
    unsigned long unreported = 0;
    std::vector<unsigned long> mayDrop;
    LatencyHistogram latency;
    const auto start = Clock::now();
    const double cpuStart = ThreadCpuSeconds();
    for (unsigned long seq = 0; seq < options.lines; ++seq) {
        const bool viaFrame = library.offlineEnabled && options.logSystemEvery != 0 &&
                              seq % options.logSystemEvery == 0;
        const uint32_t before = run->closeEpoch.load(std::memory_order_relaxed);
        const uint64_t callStart = MonotonicNs();
        if (viaFrame) {
            library.logSystem(1, "I", 4, "%.*s", frameLength, line.c_str());
        } else {
            library.table.addLog(kTextLog, line.c_str());
        }
        latency.Add(MonotonicNs() - callStart);
        if (before % 2 != 0 || run->closeEpoch.load(std::memory_order_relaxed) != before) {
            mayDrop.push_back(seq);
        }
        CountUp(digits, kDigits);
        if (++unreported == 4096) {
            run->progress.fetch_add(unreported, std::memory_order_relaxed);
            unreported = 0;
        }
    }
    record.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    record.cpuSeconds = ThreadCpuSeconds() - cpuStart;
    run->progress.fetch_add(unreported, std::memory_order_relaxed);
    record.logged = options.lines;
    record.mayDrop = std::move(mayDrop);
    std::lock_guard<std::mutex> lock(run->latencyLock);
    run->latency.Merge(latency);
}

// Logs the next `options.lines` lines of `thread` in `session`, numbered on from its last.
void LogLines(const Options& options, const Library& library, unsigned session, unsigned thread,
              Run* run) {
    if (options.bench) {
        LogLinesForBench(options, library, session, thread, run);
        return;
    }
    ThreadRecord& record = run->records[session][thread];
    std::string line;
    line.reserve(options.length + 1);
    const unsigned long first = record.logged;
    for (unsigned long seq = first; seq < first + options.lines; ++seq) {
        char head[64];
        snprintf(head, sizeof(head), "%s%u %u %lu ", kMarker, run->firstSession + session, thread,
                 seq);
        line.assign(head);
        const bool viaFrame = library.offlineEnabled && options.logSystemEvery != 0 &&
                              seq % options.logSystemEvery == 0;
        const uint32_t before = run->closeEpoch.load();
        if (viaFrame) {
            // The frame adds its own time stamp and line end.
            if (line.size() < options.length) line.resize(options.length, '.');
            library.logSystem(1, "I", 4, "%s", line.c_str());
        } else {
            if (line.size() + 1 < options.length) line.resize(options.length - 1, '.');
            line += '\n';
            library.table.addLog(kTextLog, line.c_str());
        }
        if (before % 2 != 0 || run->closeEpoch.load() != before) record.mayDrop.push_back(seq);
        record.logged = seq + 1;
        run->progress.fetch_add(1, std::memory_order_relaxed);
    }
}

void CloseCamera(const Library& library, Run* run) {
    run->closeEpoch.fetch_add(1);
    const auto start = Clock::now();
    library.table.noticeCameraClose(kTextLog);
    run->closeSeconds += std::chrono::duration<double>(Clock::now() - start).count();
    run->closeEpoch.fetch_add(1);
}

// ---- Progress and Ctrl-C ------------------------------------------------------------------

// Ctrl-C ends the run at once with the shell's status for it. While the progress bar is drawn,
// its thread does that itself, so that no redraw lands after the line is cleared; otherwise the
// handler does. s_interrupted is raised before s_progressDrawing is read, and the thread lowers
// s_progressDrawing before its last look at s_interrupted: one of the two always sees the other.
std::atomic<bool> s_interrupted{false};
std::atomic<bool> s_progressDrawing{false};
std::atomic<bool> s_exiting{false};
char s_interruptNote[512];  // written from the handler: made before the run
size_t s_interruptNoteLength = 0;

[[noreturn]] void ExitInterrupted() {
    if (s_exiting.exchange(true)) {
        for (;;) pause();  // the other one is on its way out
    }
    ssize_t ignored = write(STDERR_FILENO, s_interruptNote, s_interruptNoteLength);
    (void)ignored;
    _exit(kExitInterrupted);
}

void OnInterrupt(int) {
    s_interrupted.store(true);
    if (!s_progressDrawing.load()) ExitInterrupted();
}

void CatchInterrupt(const std::string& camera) {
    snprintf(s_interruptNote, sizeof(s_interruptNote),
             "vxcamctl session: interrupted; the session folders of this run stay in %s\n",
             camera.c_str());
    s_interruptNoteLength = strlen(s_interruptNote);
    struct sigaction action = {};
    action.sa_handler = OnInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
}

// 950, 12.3k, 4.56M: the progress line has little room.
std::string Compact(double value) {
    static const char kUnits[] = " kMGT";
    size_t unit = 0;
    while (value >= 999.5 && unit + 1 < sizeof(kUnits) - 1) {
        value /= 1000;
        ++unit;
    }
    if (unit == 0) return Format("%.0f", value);
    return Format(value < 9.995   ? "%.2f%c"
                  : value < 99.95 ? "%.1f%c"
                                  : "%.0f%c",
                  value, kUnits[unit]);
}

// 0:42, 12:03, 1:02:03.
std::string TimeText(double seconds) {
    const unsigned long whole = static_cast<unsigned long>(seconds + 0.5);
    if (whole >= 3600) {
        return Format("%lu:%02lu:%02lu", whole / 3600, whole / 60 % 60, whole % 60);
    }
    return Format("%lu:%02lu", whole / 60, whole % 60);
}

// One line that never reaches the terminal's last column (some terminals wrap there): the
// figures, in words where there is room, and a bar in what is left, up to 40 columns.
std::string ProgressLine(size_t columns, unsigned long done, unsigned long total, double seconds) {
    const size_t width = columns > 1 ? columns - 1 : 0;
    const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
    const unsigned long percent = total == 0 ? 100 : std::min(done, total) * 100 / total;
    const std::string count =
            Compact(static_cast<double>(done)) + "/" + Compact(static_cast<double>(total));
    // Always there, so that the bar keeps its length from one redraw to the next.
    const std::string left =
            rate > 0 ? TimeText(static_cast<double>(total - std::min(done, total)) / rate) : "?";
    std::string figures = Format("%3lu%% %s lines, %s lines/s, %s left", percent, count.c_str(),
                                 Compact(rate).c_str(), left.c_str());
    constexpr size_t kBarFrame = 3;  // "[", "] "
    constexpr size_t kShortestBar = 5;
    if (figures.size() + kBarFrame + kShortestBar > width) {
        figures = Format("%3lu%% %s %s/s %s left", percent, count.c_str(), Compact(rate).c_str(),
                         left.c_str());
    }
    std::string line;
    if (figures.size() + kBarFrame + kShortestBar <= width) {
        const size_t bar = std::min<size_t>(40, width - figures.size() - kBarFrame);
        const size_t filled = bar * percent / 100;
        line = "[" + std::string(filled, '#') + std::string(bar - filled, ' ') + "] ";
    }
    line += figures;
    if (line.size() > width) line.resize(width);
    return line;
}

size_t TerminalColumns() {
    winsize size = {};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
    return 80;
}

// A bar on stderr when it is a terminal, from the first second on, written over in place four
// times a second; the width is read at each redraw, so that a resized window is followed.
void ShowProgress(const Options& options, const Run& run, const std::atomic<bool>& done) {
    if (options.quiet || !isatty(STDERR_FILENO)) return;
    const unsigned long total =
            static_cast<unsigned long>(options.threads) * options.lines * options.sessions;
    s_progressDrawing.store(true);
    const auto start = Clock::now();
    bool shown = false;
    for (unsigned tick = 1; !done.load(); ++tick) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        if (s_interrupted.load()) {
            if (shown) fputs("\r\033[K", stderr);
            ExitInterrupted();
        }
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        if (seconds < 1.0 || tick % 5 != 0) continue;
        const std::string line =
                ProgressLine(TerminalColumns(), run.progress.load(), total, seconds);
        fprintf(stderr, "\r%s\033[K", line.c_str());
        shown = true;
    }
    if (shown) fputs("\r\033[K", stderr);
    s_progressDrawing.store(false);
    if (s_interrupted.load()) ExitInterrupted();
}

// ---- Reading the files back ----------------------------------------------------------------

std::set<std::string> SessionFolders(const std::string& camera) {
    std::set<std::string> folders;
    DIR* dir = opendir(camera.c_str());
    if (dir == nullptr) return folders;
    while (dirent* entry = readdir(dir)) {
        if (strncmp(entry->d_name, "VxCam_OfflineLog_", 17) == 0) folders.insert(entry->d_name);
    }
    closedir(dir);
    return folders;
}

struct Landed {
    // Per (session, thread), whether each sequence number landed: a bit a line, so that a soak's
    // check costs little memory of its own.
    std::map<std::pair<unsigned, unsigned>, std::vector<bool>> seqs;
    unsigned long duplicates = 0;
    unsigned long foreign = 0;  // not ours
    unsigned long outOfOrder = 0;
    unsigned long long bytes = 0;
    std::vector<std::pair<std::string, unsigned long long>> files;
};

void ReadBack(const std::string& camera, const std::set<std::string>& folders, Landed* landed) {
    for (const std::string& folder : folders) {
        const std::string path = camera + "/" + folder;
        DIR* dir = opendir(path.c_str());
        if (dir == nullptr) continue;
        std::vector<std::string> names;
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.') names.push_back(entry->d_name);
        }
        closedir(dir);
        std::sort(names.begin(), names.end());
        for (const std::string& name : names) {
            const std::string file = path + "/" + name;
            FILE* in = fopen(file.c_str(), "r");
            if (in == nullptr) continue;
            unsigned long long size = 0;
            std::map<std::pair<unsigned, unsigned>, long> last;
            char* line = nullptr;
            size_t capacity = 0;
            ssize_t length;
            while ((length = getline(&line, &capacity, in)) > 0) {
                size += static_cast<unsigned long long>(length);
                const char* marker = strstr(line, kMarker);
                unsigned session = 0, thread = 0;
                unsigned long seq = 0;
                if (marker == nullptr ||
                    sscanf(marker + strlen(kMarker), "%u %u %lu", &session, &thread, &seq) != 3 ||
                    seq > kMaxLines) {
                    ++landed->foreign;
                    continue;
                }
                const auto key = std::make_pair(session, thread);
                auto previous = last.find(key);
                if (previous != last.end() && static_cast<long>(seq) <= previous->second) {
                    ++landed->outOfOrder;
                }
                last[key] = static_cast<long>(seq);
                std::vector<bool>& bits = landed->seqs[key];
                if (seq >= bits.size()) bits.resize(seq + 1);
                if (bits[seq]) ++landed->duplicates;
                bits[seq] = true;
            }
            free(line);
            fclose(in);
            landed->bytes += size;
            landed->files.emplace_back(folder + "/" + name, size);
        }
    }
}

// A figure of /proc/self/status in KiB ("VmRSS", "VmHWM"), or -1.
long StatusKiB(const char* field) {
    FILE* status = fopen("/proc/self/status", "r");
    if (status == nullptr) return -1;
    char line[256];
    const size_t fieldLength = strlen(field);
    long kib = -1;
    while (fgets(line, sizeof(line), status) != nullptr) {
        if (strncmp(line, field, fieldLength) == 0 && line[fieldLength] == ':') {
            kib = strtol(line + fieldLength + 1, nullptr, 10);
            break;
        }
    }
    fclose(status);
    return kib;
}

constexpr double kBucketMiB = 3.0;  // the text logger's bucket
constexpr double kMemorySlackMiB = 16.0;

// Resident memory follows use: above an idle host, no more than the buckets in flight at the
// busiest moment, and some slack for the threads' stacks and heaps.
void PrintMemory(long idleKiB, long peakKiB, const PoolWatch& pool) {
    const size_t inFlight = pool.peakInFlight.load();
    const size_t buckets = pool.buckets.load();
    printf("memory: idle %ld KiB, peak %ld KiB; buckets in flight at most %zu (%.0f MiB), pool of "
           "%zu buckets (%.0f MiB)\n",
           idleKiB, peakKiB, inFlight, static_cast<double>(inFlight) * kBucketMiB, buckets,
           static_cast<double>(buckets) * kBucketMiB);
    if (idleKiB < 0 || peakKiB < 0 || buckets == 0) return;
    const double grewMiB = static_cast<double>(peakKiB - idleKiB) / 1024.0;
    const double boundMiB = static_cast<double>(inFlight) * kBucketMiB + kMemorySlackMiB;
    printf("memory follows use: peak - idle = %.1f MiB, in flight + %.0f MiB = %.1f MiB: %s\n",
           grewMiB, kMemorySlackMiB, boundMiB, grewMiB <= boundMiB ? "within" : "ABOVE");
}

// --bench: what a line cost the threads, and how fast the flushes wrote.
void PrintBench(const Options& options, const Library& library, const Run& run,
                unsigned long long bytes, double flushSeconds) {
    std::vector<double> perLine;
    std::vector<double> cpuPerLine;
    for (const std::vector<ThreadRecord>& session : run.records) {
        for (const ThreadRecord& record : session) {
            if (record.logged == 0) continue;
            perLine.push_back(record.seconds * 1e9 / static_cast<double>(record.logged));
            cpuPerLine.push_back(record.cpuSeconds * 1e9 / static_cast<double>(record.logged));
        }
    }
    if (perLine.empty()) return;
    std::sort(perLine.begin(), perLine.end());
    std::sort(cpuPerLine.begin(), cpuPerLine.end());
    const unsigned long total =
            static_cast<unsigned long>(options.threads) * options.lines * options.sessions;
    const unsigned long viaFrame =
            library.offlineEnabled && options.logSystemEvery != 0
                    ? options.threads * options.sessions *
                              ((options.lines + options.logSystemEvery - 1) / options.logSystemEvery)
                    : 0;
    printf("\nbench: %lu lines of %u bytes, %lu of them through Log::LogSystem, %u threads\n",
           total, options.length, viaFrame, options.threads);
    if (run.captureSeconds < kBenchMinSeconds) {
        printf("bench: too short to judge: the threads logged for %.3f s, under the %.0f s the "
               "figures need; no conclusion from these (log more lines)\n",
               run.captureSeconds, kBenchMinSeconds);
    }
    // Medians over the threads of all sessions. With more threads than CPUs a thread's wall time
    // also holds its waits for a CPU; its CPU time is what a line costs.
    const double wallPerLine = perLine[perLine.size() / 2];
    printf("capture per line, median of %zu threads: %.1f ns of CPU time, %.1f ns of wall time\n",
           perLine.size(), cpuPerLine[cpuPerLine.size() / 2], wallPerLine);
    printf("capture rate: %.0f lines/s per thread (wall time, median thread), %.0f lines/s over "
           "all threads (from their start to their end)\n",
           wallPerLine > 0 ? 1e9 / wallPerLine : 0.0,
           run.captureSeconds > 0 ? static_cast<double>(total) / run.captureSeconds : 0.0);
    const double writing = flushSeconds + run.closeSeconds;
    printf("flush: %.0f MB/s (%llu bytes in %.3f s of flushes and camera closes)\n",
           writing > 0 ? static_cast<double>(bytes) / writing / 1e6 : 0.0, bytes, writing);
    const LatencyHistogram& latency = run.latency;
    const auto us = [](uint64_t ns) { return static_cast<double>(ns) / 1e3; };
    printf("latency per call, all threads: p50 %.3f us, p99 %.3f us, p99.9 %.3f us, p99.99 %.3f "
           "us, max %.3f us; %llu of %llu calls over 1 ms\n",
           us(latency.PercentileNs(0.5)), us(latency.PercentileNs(0.99)),
           us(latency.PercentileNs(0.999)), us(latency.PercentileNs(0.9999)), us(latency.MaxNs()),
           static_cast<unsigned long long>(latency.OverOneMs()),
           static_cast<unsigned long long>(latency.Calls()));
}

struct Tally {
    unsigned long logged = 0;
    unsigned long landed = 0;
    unsigned long accepted = 0;  // dropped while a close was under way
    unsigned long lost = 0;
    unsigned long duplicates = 0;
};

struct ThreadTally {
    unsigned session;
    unsigned thread;
    unsigned long logged;
    unsigned long landed;
    unsigned long accepted;
    unsigned long lost;
};

// Per session and thread of `run`: the lines logged, landed, dropped while a close was under way
// (accepted) and lost; a row each in `rows` when given.
Tally Account(const Run& run, Landed* landed, std::vector<ThreadTally>* rows) {
    Tally tally;
    for (unsigned s = 0; s < run.records.size(); ++s) {
        for (unsigned t = 0; t < run.records[s].size(); ++t) {
            const ThreadRecord& record = run.records[s][t];
            const std::vector<bool>& seqs = landed->seqs[{run.firstSession + s, t}];
            unsigned long unique = 0, accepted = 0, lost = 0;
            for (unsigned long seq = 0; seq < record.logged; ++seq) {
                if (seq < seqs.size() && seqs[seq]) {
                    ++unique;
                    continue;
                }
                if (std::binary_search(record.mayDrop.begin(), record.mayDrop.end(), seq)) {
                    ++accepted;
                } else {
                    ++lost;
                }
            }
            if (rows != nullptr) {
                rows->push_back({run.firstSession + s, t, record.logged, unique, accepted, lost});
            }
            tally.logged += record.logged;
            tally.landed += unique;
            tally.accepted += accepted;
            tally.lost += lost;
        }
    }
    tally.duplicates = landed->duplicates;
    return tally;
}

void PrintThreadTallies(const std::vector<ThreadTally>& rows) {
    printf("\n%-8s %-7s %10s %10s %16s %8s\n", "session", "thread", "logged", "landed",
           "dropped(close)", "lost");
    for (const ThreadTally& row : rows) {
        printf("%-8u %-7u %10lu %10lu %16lu %8lu\n", row.session, row.thread, row.logged,
               row.landed, row.accepted, row.lost);
    }
}

// What the library said went wrong while its log was silenced, and, when lines are missing, what
// this process meets where the library makes its folders: the library does not say why a folder
// or a file could not be made.
void PrintComplaints(const Library& library, const std::string& camera, const Tally& tally) {
    if (library.countsSkips) {
        const LibraryComplaints& complaints = LibraryComplaints::Get();
        const std::vector<LibraryComplaints::Entry> entries = complaints.Entries();
        if (!entries.empty()) {
            printf("\nthe library's errors and warnings (%lu lines):\n", complaints.Total());
            unsigned long listed = 0;
            for (const LibraryComplaints::Entry& entry : entries) {
                printf("%8lu x %c %s\n", entry.count, entry.level, entry.text.c_str());
                listed += entry.count;
            }
            if (listed < complaints.Total()) {
                printf("%8lu x   of other texts\n", complaints.Total() - listed);
            }
        }
    }
    if (tally.lost != 0) {
        std::string probe = camera + "/.vxcamctl-probe-XXXXXX";
        if (mkdtemp(&probe[0]) == nullptr) {
            printf("this process cannot make a folder in %s either: %s\n", camera.c_str(),
                   strerror(errno));
        } else {
            rmdir(probe.c_str());
        }
    }
}

// True when no line was lost, duplicated or put out of order, and every line dropped during a
// close was one the library reported as skipped.
bool Clean(const Library& library, const Tally& tally, const Landed& landed,
           unsigned long skipReports) {
    return tally.lost == 0 && tally.duplicates == 0 && landed.outOfOrder == 0 &&
           (!library.countsSkips || skipReports == tally.accepted);
}

// The totals and the verdict, which end the summary: scripts keep the last three lines of a run.
bool PrintTotals(const Library& library, const Tally& tally, const Landed& landed,
                 unsigned long skipReports) {
    printf("\ntotal: logged %lu, landed %lu, dropped during a close %lu (accepted), lost %lu, "
           "duplicated %lu, out of order %lu, foreign lines %lu\n",
           tally.logged, tally.landed, tally.accepted, tally.lost, tally.duplicates,
           landed.outOfOrder, landed.foreign);
    if (library.countsSkips) {
        printf("lines the library reported as skipped during a close: %lu\n", skipReports);
    }
    const bool clean = Clean(library, tally, landed, skipReports);
    printf("%s\n", clean ? "result: no loss" : "result: LINES LOST OR DAMAGED");
    return clean;
}

// The session folders this run made, once checked: the files in them, then the folders. Only
// files go (a sub-folder, which the library never makes, stops its folder's removal), and
// nothing else under the camera root is touched.
void RemoveFolders(const std::string& camera, const std::set<std::string>& folders) {
    for (const std::string& folder : folders) {
        const std::string path = camera + "/" + folder;
        if (DIR* dir = opendir(path.c_str())) {
            while (dirent* entry = readdir(dir)) {
                if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
                    unlinkat(dirfd(dir), entry->d_name, 0);
                }
            }
            closedir(dir);
        }
        if (rmdir(path.c_str()) != 0) {
            printf("note: cannot remove %s: %s\n", path.c_str(), strerror(errno));
        }
    }
}

// ---- Soak ----------------------------------------------------------------------------------

// Resident memory (VmRSS, KiB) once a second, from construction until Stop.
class MemorySampler : public WakeableThread {
  public:
    explicit MemorySampler(size_t expected) {
        m_kib.reserve(expected);  // grows no more while it runs
        m_thread = std::thread([this] { Run(); });
    }
    ~MemorySampler() { Stop(); }
    void Stop() { StopAndJoin(); }
    size_t Count() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_kib.size();
    }
    std::vector<long> Since(size_t first) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return {m_kib.begin() + static_cast<long>(std::min(first, m_kib.size())), m_kib.end()};
    }
    const std::vector<long>& Samples() const { return m_kib; }  // once stopped

  private:
    void Run() {
        std::unique_lock<std::mutex> lock(m_mutex);
        auto next = Clock::now();
        do {
            m_kib.push_back(StatusKiB("VmRSS"));
            next += std::chrono::seconds(1);
        } while (!m_wake.wait_until(lock, next, [this] { return m_stop; }));
    }

    std::vector<long> m_kib;
};

double MedianMiB(std::vector<long> kib) {
    std::nth_element(kib.begin(), kib.begin() + static_cast<long>(kib.size() / 2), kib.end());
    return static_cast<double>(kib[kib.size() / 2]) / 1024.0;
}

// The curve, ten samples to a row.
void PrintMemoryCurve(const std::vector<long>& kib) {
    printf("\nresident memory (VmRSS, MiB), one sample a second:\n");
    for (size_t i = 0; i < kib.size(); ++i) {
        if (i % 10 == 0) printf("%s%6zu s ", i == 0 ? "" : "\n", i);
        printf(" %6.1f", static_cast<double>(kib[i]) / 1024.0);
    }
    printf("\n");
}

// The verdict on growth after the warm-up. Medians, since a single sample may catch a few
// buckets more in flight while the flush thread runs late.
bool JudgeMemory(const std::vector<long>& kib, size_t warmUp) {
    const size_t lastThird = kib.size() - kib.size() / 3;
    if (warmUp == 0 || warmUp > lastThird || kib.size() < 3) {
        printf("memory: the run is too short to look past its warm-up of %zu s\n", warmUp);
        return true;
    }
    const double warm = MedianMiB({kib.begin(), kib.begin() + static_cast<long>(warmUp)});
    const double late = MedianMiB({kib.begin() + static_cast<long>(lastThird), kib.end()});
    const bool within = late - warm <= kGrowthToleranceMiB;
    printf("memory: median %.1f MiB in the warm-up (the first %zu s), %.1f MiB in the last third: "
           "grew %.1f MiB, at most %.0f MiB allowed: %s\n",
           warm, warmUp, late, late - warm, kGrowthToleranceMiB, within ? "within" : "GROWING");
    return within;
}

// A soak's line a minute: so that an hour's run shows it is alive, and how memory goes.
void PrintSoakMinute(unsigned minute, unsigned sessions, unsigned long lines,
                     std::vector<long> kib) {
    if (kib.empty()) return;
    std::sort(kib.begin(), kib.end());
    const auto mib = [](long value) { return static_cast<double>(value) / 1024.0; };
    printf("%4u min: %u sessions, %lu lines checked; VmRSS over the minute low %.1f, median "
           "%.1f, high %.1f MiB\n",
           minute, sessions, lines, mib(kib.front()), mib(kib[kib.size() / 2]), mib(kib.back()));
    fflush(stdout);
}

// --duration: camera sessions with threads that come and go, each session checked after its
// close and its files deleted, until the time is up.
int RunSoak(const Options& options, const Library& library, const std::string& camera) {
    printf("soak: %u s of camera sessions of %u s, %u thread slots, %lu lines per thread%s\n",
           options.duration, kSoakSessionSeconds, options.threads, options.lines,
           options.closeWhileLogging ? ", a close half way through each session" : "");
    fflush(stdout);
    // A fixed threshold: the tool's own large vectors (the lines dropped in a close, the landed
    // bits) then go back to the system when freed, rather than settle in the allocator's arenas
    // as free memory that would blur the curve.
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    MemorySampler memory(options.duration + 2 * kSoakSessionSeconds + 2);
    PoolWatch pool;
    FlushThread flusher(library.table, &pool);
    library.table.linkFlushTrigger(kTextLog, FlushThread::Trigger);
    library.table.setCleanupTrigger(kTextLog, FlushThread::Cleanup);
    Tally total;
    Landed damage;  // out of order and foreign lines of every session
    std::atomic<unsigned long> threads{0};
    unsigned sessions = 0;
    size_t warmUp = options.duration / 5;  // in samples; raised at the end of the warm-up sessions
    size_t warmPool = 0;
    const std::set<std::string> before = SessionFolders(camera);
    const auto start = Clock::now();
    const auto end = start + std::chrono::seconds(options.duration);
    unsigned minutes = 0;
    size_t minuteFirstSample = 0;
    while (Clock::now() < end) {
        Run run;
        run.firstSession = ++sessions;
        run.records.assign(1, std::vector<ThreadRecord>(options.threads));
        library.table.noticeCameraOpen(kTextLog);
        const auto sessionEnd =
                std::min(end, Clock::now() + std::chrono::seconds(kSoakSessionSeconds));
        std::vector<std::thread> slots;
        const size_t behindLimit = options.threads + 4 * kFlushBatch;
        for (unsigned t = 0; t < options.threads; ++t) {
            slots.emplace_back([&, t] {
                // Each batch on a thread of its own, which ends holding a part-filled bucket.
                do {
                    // A camera logs far less than its disk takes; these threads log as fast as
                    // they can, and each batch leaves a file of its own to create. The library
                    // holds no thread back for the disk, so the host does: the next batch waits
                    // while the flush is more than a few batches behind, and the soak runs as a
                    // camera whose disk keeps up.
                    while (PoolPeek::Read().inFlight > behindLimit && Clock::now() < sessionEnd) {
                        std::this_thread::sleep_for(std::chrono::milliseconds(1));
                    }
                    std::thread(LogLines, std::cref(options), std::cref(library), 0u, t, &run).join();
                    threads.fetch_add(1, std::memory_order_relaxed);
                } while (Clock::now() < sessionEnd);
            });
        }
        if (options.closeWhileLogging) {
            std::this_thread::sleep_until(sessionEnd -
                                          std::chrono::milliseconds(kSoakSessionSeconds * 500));
            CloseCamera(library, &run);
            library.table.noticeCameraOpen(kTextLog);
        }
        for (std::thread& slot : slots) slot.join();
        flusher.HoldCleanups();
        CloseCamera(library, &run);
        const bool warming = sessions <= kWarmUpSessions || memory.Count() <= warmUp;
        if (warming) warmPool = PoolPeek::Read().buckets;
        if (sessions == kWarmUpSessions) warmUp = std::max(warmUp, memory.Count());

        // The session's files, wherever they are: a flush that finds nothing to write may make
        // the next session's folder before that session opens.
        std::set<std::string> folders;
        for (const std::string& folder : SessionFolders(camera)) {
            if (before.count(folder) == 0) folders.insert(folder);
        }
        Landed landed;
        ReadBack(camera, folders, &landed);
        for (const auto& file : landed.files) unlink((camera + "/" + file.first).c_str());
        flusher.ReleaseCleanups();
        const Tally tally = Account(run, &landed, nullptr);
        const bool damaged = tally.lost != 0 || tally.duplicates != 0 || landed.outOfOrder != 0;
        if ((damaged && !options.quiet) || options.verbose) {
            printf("session %u: logged %lu, landed %lu, lost %lu, duplicated %lu, out of order "
                   "%lu\n",
                   sessions, tally.logged, tally.landed, tally.lost, tally.duplicates,
                   landed.outOfOrder);
        }
        total.logged += tally.logged;
        total.landed += tally.landed;
        total.accepted += tally.accepted;
        total.lost += tally.lost;
        total.duplicates += tally.duplicates;
        damage.outOfOrder += landed.outOfOrder;
        damage.foreign += landed.foreign;
        if (!options.quiet && Clock::now() >= start + std::chrono::minutes(minutes + 1)) {
            std::vector<long> minute = memory.Since(minuteFirstSample);
            minuteFirstSample += minute.size();
            PrintSoakMinute(++minutes, sessions, total.logged, std::move(minute));
        }
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    memory.Stop();
    if (sessions < kWarmUpSessions) warmUp = memory.Samples().size();  // all of it
    flusher.Stop();
    // Emptied as they were checked; kept until now, since the library may still write into the
    // newest one.
    for (const std::string& folder : SessionFolders(camera)) {
        if (before.count(folder) == 0) rmdir((camera + "/" + folder).c_str());
    }

    printf("%u sessions in %.1f s, %lu threads of %lu lines, %.0f lines/s; flushes run by the "
           "trigger thread: %lu, retention passes: %lu\n",
           sessions, seconds, threads.load(), options.lines,
           seconds > 0 ? static_cast<double>(total.logged) / seconds : 0.0, flusher.Flushes(),
           flusher.Cleanups());
    const bool memoryFlat = JudgeMemory(memory.Samples(), warmUp);
    // Buckets nobody writes cost address space only, which resident memory does not show.
    printf("pool: %zu buckets after the warm-up, %zu at the end (it grows when more are in flight "
           "than ever before, and never shrinks)\n",
           warmPool, PoolPeek::Read().buckets);
    PrintComplaints(library, camera, total);
    const bool clean = PrintTotals(library, total, damage, s_skipReports.load());
    if (!options.quiet && (options.verbose || !clean || !memoryFlat)) {
        PrintMemoryCurve(memory.Samples());
    }
    return clean && memoryFlat ? kExitOk : kExitFindings;
}

// ---- Options ------------------------------------------------------------------------------

enum OptionId : int {
    kOptThreads = 256,
    kOptLines,
    kOptLength,
    kOptSessions,
    kOptLogSystemEvery,
    kOptDuration,
    kOptCloseWhileLogging,
    kOptBench,
    kOptAndroidLog,
    kOptNoMembarrier,
    kOptQuiet,
    kOptKeep,
    kOptLibrary,
    kOptSysroot,
};

const struct option kLongOptions[] = {
        {"threads", required_argument, nullptr, kOptThreads},
        {"lines", required_argument, nullptr, kOptLines},
        {"length", required_argument, nullptr, kOptLength},
        {"sessions", required_argument, nullptr, kOptSessions},
        {"logsystem-every", required_argument, nullptr, kOptLogSystemEvery},
        {"duration", required_argument, nullptr, kOptDuration},
        {"close-while-logging", no_argument, nullptr, kOptCloseWhileLogging},
        {"bench", no_argument, nullptr, kOptBench},
        {"android-log", no_argument, nullptr, kOptAndroidLog},
        {"no-membarrier", no_argument, nullptr, kOptNoMembarrier},
        {"quiet", no_argument, nullptr, kOptQuiet},
        {"keep", no_argument, nullptr, kOptKeep},
        {"library", required_argument, nullptr, kOptLibrary},
        {"sysroot", required_argument, nullptr, kOptSysroot},
        {"verbose", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
};

// Reads one option into `options`; false, having said why, on a bad value.
bool ReadOption(int id, const char* value, Options* options, bool* help) {
    // A number within [min, max] into `field`: the reason names the option and the range.
    const auto number = [&](unsigned long min, unsigned long max, auto* field) {
        unsigned long parsed = 0;
        if (ParseNumber(value, max, &parsed) && parsed >= min) {
            *field = static_cast<std::remove_pointer_t<decltype(field)>>(parsed);
            return true;
        }
        const option* named = kLongOptions;
        while (named->val != id) ++named;
        UsageError("session", "--%s needs a number from %lu to %lu, not '%s'", named->name, min,
                   max, value);
        return false;
    };
    switch (id) {
        case kOptThreads:
            return number(1, 1024, &options->threads);
        case kOptLines:
            return number(0, kMaxLines, &options->lines);
        case kOptLength:
            return number(32, 1000, &options->length);
        case kOptSessions:
            return number(1, 1000, &options->sessions);
        case kOptLogSystemEvery:
            return number(0, 1000000, &options->logSystemEvery);
        case kOptDuration:
            return number(1, 7 * 24 * 3600, &options->duration);
        case kOptLibrary:
            if (*value == '\0') {  // dlopen would hand back this program itself
                UsageError("session", "--library needs a value");
                return false;
            }
            options->library = value;
            return true;
        case kOptSysroot:
            return CheckSysroot("session", value);
    }
    const std::pair<int, bool*> switches[] = {
            {'h', help},
            {'v', &options->verbose},
            {kOptCloseWhileLogging, &options->closeWhileLogging},
            {kOptBench, &options->bench},
            {kOptAndroidLog, &options->androidLog},
            {kOptNoMembarrier, &options->noMembarrier},
            {kOptQuiet, &options->quiet},
            {kOptKeep, &options->keep},
    };
    for (const auto& [switchId, field] : switches) *field = *field || switchId == id;
    return true;
}

// Fills `options` from the command line; false, with the reason on stderr, on a bad argument.
// `help` is set for --help.
bool ReadOptions(int argc, char** argv, Options* options, bool* help) {
    std::vector<const char*> operands;
    const bool parsed = ParseOptions(
            "session", argc, argv, "hv", kLongOptions,
            [&](int id, const char* value) { return ReadOption(id, value, options, help); },
            &operands);
    if (!parsed) return false;
    if (!operands.empty()) {
        UsageError("session", "unexpected argument '%s'", operands[0]);
        return false;
    }
    const char* clash = options->duration == 0 ? nullptr
                        : options->bench       ? "--bench"
                        : options->keep        ? "--keep"
                                               : nullptr;
    if (clash != nullptr) {
        UsageError("session", "%s does not go with --duration", clash);
        return false;
    }
    return true;
}

}  // namespace

int RunSession(int argc, char** argv) {
    Options options;
    bool help = false;
    if (!ReadOptions(argc, argv, &options, &help)) {
        fprintf(stderr, "(vxcamctl session --help lists the options)\n");
        return kExitUsage;
    }
    if (help) {
        PrintSessionUsage(stdout);
        return kExitOk;
    }
    if (options.noMembarrier && !DenyMembarrier()) {
        fprintf(stderr, "vxcamctl session: cannot deny membarrier to this process: %s\n",
                strerror(errno));
        return kExitUsage;
    }
    Library library;
    if (!LoadLibrary(options, &library)) return kExitUsage;
    const std::string camera = CameraRoot();
    struct stat info = {};
    if (stat(camera.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        fprintf(stderr, "vxcamctl session: %s is not a folder (see --sysroot)\n", camera.c_str());
        return kExitUsage;
    }
    const std::set<std::string> before = SessionFolders(camera);
    CatchInterrupt(camera);

    const int started = library.table.getSetting(kTextLog);
    if (started != 1) {
        printf("note: GetSettingLink returned %d (under 3000 MB free in %s?); logging goes on\n",
               started, camera.c_str());
    }
    if (options.duration != 0) return RunSoak(options, library, camera);
    Run run;
    run.records.assign(options.sessions, std::vector<ThreadRecord>(options.threads));
    std::atomic<bool> done{false};
    std::thread progress([&] { ShowProgress(options, run, done); });
    unsigned long flushes = 0;
    double flushSeconds = 0;
    long idleKiB = -1;
    long peakKiB = -1;
    {
        FlushThread flusher(library.table, &run.pool);
        library.table.linkFlushTrigger(kTextLog, FlushThread::Trigger);
        const auto start = Clock::now();
        for (unsigned session = 0; session < options.sessions; ++session) {
            library.table.noticeCameraOpen(kTextLog);
            // An idle host: the library loaded, the logger started, the camera open, no line yet.
            if (session == 0) idleKiB = StatusKiB("VmRSS");
            const unsigned long sessionStart = run.progress.load();
            const auto captureStart = Clock::now();
            std::vector<std::thread> threads;
            for (unsigned t = 0; t < options.threads; ++t) {
                threads.emplace_back(LogLines, std::cref(options), std::cref(library), session, t,
                                     &run);
            }
            if (options.closeWhileLogging) {
                // Counted from the session's start: the threads may be well under way by now.
                const unsigned long half = sessionStart + options.threads * options.lines / 2;
                while (run.progress.load() < half) std::this_thread::yield();
                CloseCamera(library, &run);
                library.table.noticeCameraOpen(kTextLog);
            }
            for (std::thread& thread : threads) thread.join();
            run.captureSeconds += std::chrono::duration<double>(Clock::now() - captureStart).count();
            CloseCamera(library, &run);
        }
        run.loggingSeconds = std::chrono::duration<double>(Clock::now() - start).count();
        peakKiB = StatusKiB("VmHWM");
        run.pool.Note(PoolPeek::Read());
        flusher.Stop();
        flushes = flusher.Flushes();
        flushSeconds = flusher.FlushSeconds();
    }
    done = true;
    progress.join();

    std::set<std::string> folders;
    for (const std::string& folder : SessionFolders(camera)) {
        if (before.count(folder) == 0) folders.insert(folder);
    }
    Landed landed;
    ReadBack(camera, folders, &landed);
    std::vector<ThreadTally> rows;
    const Tally tally = Account(run, &landed, &rows);
    const unsigned long skipReports = s_skipReports.load();
    const bool clean = Clean(library, tally, landed, skipReports);
    const bool remove = !options.keep && clean;
    if (remove) RemoveFolders(camera, folders);

    // The summary.
    const unsigned long total =
            static_cast<unsigned long>(options.threads) * options.lines * options.sessions;
    printf("sessions %u, threads %u, lines %lu each, %u bytes per line%s\n", options.sessions,
           options.threads, options.lines, options.length,
           library.offlineEnabled && options.logSystemEvery != 0
                   ? ""
                   : " (no debug-frame lines: offline logging is off)");
    printf("logged %lu lines in %.3f s: %.0f lines/s over all threads, camera closes included\n",
           total, run.loggingSeconds,
           run.loggingSeconds > 0 ? static_cast<double>(total) / run.loggingSeconds : 0.0);
    printf("flushes run by the trigger thread: %lu\n", flushes);
    printf("written %llu bytes in %zu files, %zu session folders under %s%s\n", landed.bytes,
           landed.files.size(), folders.size(), camera.c_str(),
           folders.empty() ? ""
           : remove        ? ": removed (--keep keeps them)"
           : options.keep  ? ": kept"
                           : ": kept for a look, as the check failed");
    PrintMemory(idleKiB, peakKiB, run.pool);
    if (options.bench) PrintBench(options, library, run, landed.bytes, flushSeconds);
    PrintComplaints(library, camera, tally);
    PrintTotals(library, tally, landed, skipReports);

    // The details.
    if (!options.quiet && (options.verbose || !clean)) {
        printf("\nfiles:%s\n", landed.files.empty() ? " none" : "");
        for (const auto& [name, size] : landed.files) printf("  %s  %llu\n", name.c_str(), size);
        PrintThreadTallies(rows);
    }
    return clean ? kExitOk : kExitFindings;
}

}  // namespace vxcamctl
