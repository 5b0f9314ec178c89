// What the files of vxcamctl session share. session.cpp reads the command line and runs the
// sessions; session_host.cpp is the camera host (the library's entry table, the flush thread, the
// logging threads, the closes); session_check.cpp reads the session files back and accounts for
// every line; session_memory.cpp watches resident memory; session_soak.cpp is --duration.
#ifndef VXCAMCTL_SESSION_H
#define VXCAMCTL_SESSION_H

#include <stddef.h>
#include <stdint.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "VxCamOfflineLogger.h"

namespace vxcamctl::session {

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

// ---- The host's side of the library (session_host.cpp) -------------------------------------

using LogSystemFn = void (*)(unsigned int, const char*, unsigned int, const char*, ...);

struct Library {
    VxCam::OfflineLogEntryTable table = {};
    LogSystemFn logSystem = nullptr;
    bool offlineEnabled = false;  // the debug frame hands its lines to the offline logger
    bool countsSkips = false;     // the Android log goes to SilencedLog
};

// --no-membarrier: a seccomp filter that answers membarrier with ENOSYS, as a kernel before 4.14
// would. Installed before the library's first line, when it decides how its lock works.
bool DenyMembarrier();

// Loads options.library and takes its entry table; says why on stderr and returns false when it
// cannot. Unless --android-log, the library's log goes to a sink that counts the skip reports and
// keeps the errors and warnings.
bool LoadLibrary(const Options& options, Library* library);

// Lines the library said it skipped because a camera close was under way: each is one line
// dropped, and every line dropped during a close must be one of them.
unsigned long SkipReports();

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
    static LibraryComplaints& Get();
    void Add(int priority, const char* message);
    std::vector<Entry> Entries() const;
    unsigned long Total() const;

  private:
    static constexpr size_t kDistinct = 24;
    mutable std::mutex m_mutex;
    std::vector<Entry> m_entries;
    unsigned long m_total = 0;  // counted in an entry or not
};

// What the text logger's pool holds, which no host can ask: this tool is built with the library and
// looks inside, under the library's pool lock.
class PoolPeek : private VxCam::VxCamOfflineLogger {
  public:
    struct Figures {
        size_t buckets = 0;
        size_t inFlight = 0;  // held by a thread or queued for the flush
    };
    // For the flush trigger, which the library calls with the pool lock held.
    static Figures ReadLocked();
    static Figures Read();
};

// The busiest the pool has been, as seen at each request for a flush and after each flush.
struct PoolWatch {
    std::atomic<size_t> peakInFlight{0};
    std::atomic<size_t> buckets{0};
    void Note(const PoolPeek::Figures& figures);
};

// A thread that sleeps on m_wake until it has work or is told to stop. Derived classes start
// m_thread in their constructor and call StopAndJoin from their destructor, while their own
// members still live.
class WakeableThread {
  protected:
    // Raises the stop flag, wakes the thread and joins it; false if it was not running.
    bool StopAndJoin();

    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stop = false;
    std::thread m_thread;
};

// The flush thread: the library calls the trigger with its pool lock held, so the trigger only
// wakes this thread, which runs the flush through the table.
class FlushThread : public WakeableThread {
  public:
    FlushThread(const VxCam::OfflineLogEntryTable& table, PoolWatch* watch);
    ~FlushThread() { Stop(); }
    // Lets the thread finish the flushes asked for, and joins it.
    void Stop();
    // The host's retention, asked for by the library (with its pool lock held) once the logs
    // written pass its threshold: run on the flush thread too.
    static void Cleanup(OfflineLoggerType type);
    static void Trigger(OfflineLoggerType type);
    // Retention deletes the files of sessions before the previous one, and a soak session spans
    // two of the library's (it closes half way): held from before the session's last close until
    // its files have been read back, so that a pass asked for earlier cannot take them first.
    void HoldCleanups();
    void ReleaseCleanups();
    unsigned long Flushes() const { return m_flushes.load(); }
    unsigned long Cleanups() const { return m_cleanups.load(); }
    double FlushSeconds() const { return m_flushSeconds; }  // once stopped

  private:
    void Run();

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

// Call latencies in log-spaced buckets, 32 to each doubling, so that a percentile read from a
// bucket's upper edge is at most 3.2 % above the truth; up to about a second, with the exact
// maximum and the calls over 1 ms beside them. A few KiB a thread, however many lines it logs.
class LatencyHistogram {
  public:
    void Add(uint64_t ns);
    void Merge(const LatencyHistogram& other);
    // Nearest rank: the upper edge of the bucket that holds the call with at least the fraction p
    // of all at or below it, and never above the maximum.
    uint64_t PercentileNs(double p) const;
    uint64_t Calls() const { return m_calls; }
    uint64_t MaxNs() const { return m_maxNs; }
    uint64_t OverOneMs() const { return m_overOneMs; }

  private:
    static constexpr int kSubBits = 5;
    static constexpr uint64_t kCapNs = (uint64_t{1} << 30) - 1;  // slower calls share the last
    static constexpr size_t kBuckets = size_t{30 - kSubBits + 1} << kSubBits;

    static size_t Bucket(uint64_t ns);
    static uint64_t Low(size_t bucket);

    std::array<uint64_t, kBuckets> m_counts = {};
    uint64_t m_calls = 0;
    uint64_t m_maxNs = 0;
    uint64_t m_overOneMs = 0;
};

struct ThreadRecord {
    unsigned long logged = 0;
    std::vector<unsigned long> mayDrop;  // sequence numbers logged while a close was under way
    double seconds = 0;                  // spent logging
    double cpuSeconds = 0;               // of which on a CPU
};

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

// Logs the next `options.lines` lines of `thread` in `session`, numbered on from its last.
void LogLines(const Options& options, const Library& library, unsigned session, unsigned thread,
              Run* run);

void CloseCamera(const Library& library, Run* run);

// --bench: what a line cost the threads, and how fast the flushes wrote.
void PrintBench(const Options& options, const Library& library, const Run& run,
                unsigned long long bytes, double flushSeconds);

// ---- Reading the files back (session_check.cpp) --------------------------------------------

std::set<std::string> SessionFolders(const std::string& camera);

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

void ReadBack(const std::string& camera, const std::set<std::string>& folders, Landed* landed);

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
Tally Account(const Run& run, Landed* landed, std::vector<ThreadTally>* rows);

void PrintThreadTallies(const std::vector<ThreadTally>& rows);

// What the library said went wrong while its log was silenced, and, when lines are missing, what
// this process meets where the library makes its folders: the library does not say why a folder
// or a file could not be made.
void PrintComplaints(const Library& library, const std::string& camera, const Tally& tally);

// True when no line was lost, duplicated or put out of order, and every line dropped during a
// close was one the library reported as skipped.
bool Clean(const Library& library, const Tally& tally, const Landed& landed,
           unsigned long skipReports);

// The totals and the verdict, which end the summary: scripts keep the last three lines of a run.
bool PrintTotals(const Library& library, const Tally& tally, const Landed& landed,
                 unsigned long skipReports);

// The session folders this run made, once checked: the files in them, then the folders. Only
// files go (a sub-folder, which the library never makes, stops its folder's removal), and
// nothing else under the camera root is touched.
void RemoveFolders(const std::string& camera, const std::set<std::string>& folders);

// ---- Memory (session_memory.cpp) -----------------------------------------------------------

// A figure of /proc/self/status in KiB ("VmRSS", "VmHWM"), or -1.
long StatusKiB(const char* field);

// Resident memory follows use: above an idle host, no more than the buckets in flight at the
// busiest moment, and some slack for the threads' stacks and heaps.
void PrintMemory(long idleKiB, long peakKiB, const PoolWatch& pool);

// Resident memory (VmRSS, KiB) once a second, from construction until Stop.
class MemorySampler : public WakeableThread {
  public:
    explicit MemorySampler(size_t expected);
    ~MemorySampler() { Stop(); }
    void Stop() { StopAndJoin(); }
    size_t Count();
    std::vector<long> Since(size_t first);
    const std::vector<long>& Samples() const { return m_kib; }  // once stopped

  private:
    void Run();

    std::vector<long> m_kib;
};

// The curve, ten samples to a row.
void PrintMemoryCurve(const std::vector<long>& kib);

// The verdict on growth after the warm-up. Medians, since a single sample may catch a few
// buckets more in flight while the flush thread runs late.
bool JudgeMemory(const std::vector<long>& kib, size_t warmUp);

// ---- Soak (session_soak.cpp) ---------------------------------------------------------------

// --duration: camera sessions with threads that come and go, each session checked after its
// close and its files deleted, until the time is up.
int RunSoak(const Options& options, const Library& library, const std::string& camera);

}  // namespace vxcamctl::session

#endif  // VXCAMCTL_SESSION_H
