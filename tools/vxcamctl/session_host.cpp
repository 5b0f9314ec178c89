// vxcamctl session's camera host: loads the library with dlopen, takes the C entry table as a host
// without the headers would, serves the flush trigger on a thread of its own, and logs the
// numbered lines from many threads across camera opens and closes.
#include <dlfcn.h>
#include <errno.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <VxCamLogSink.h>
#include <android/log.h>

#include "Session.h"

namespace vxcamctl::session {

namespace {

std::atomic<unsigned long> s_skipReports{0};

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

uint64_t MonotonicNs() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

double ThreadCpuSeconds() {
    timespec now = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

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

}  // namespace

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

unsigned long SkipReports() {
    return s_skipReports.load();
}

LibraryComplaints& LibraryComplaints::Get() {
    static LibraryComplaints* complaints = new LibraryComplaints;
    return *complaints;
}

void LibraryComplaints::Add(int priority, const char* message) {
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
        if (entry.level == level && entry.text.compare(0, std::string::npos, message, length) == 0) {
            ++entry.count;
            return;
        }
    }
    if (m_entries.size() < kDistinct) m_entries.push_back({level, std::string(message, length), 1});
}

std::vector<LibraryComplaints::Entry> LibraryComplaints::Entries() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_entries;
}

unsigned long LibraryComplaints::Total() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_total;
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

PoolPeek::Figures PoolPeek::ReadLocked() {
    Figures figures;
    VxCam::VxCamOfflineLogger* logger = GetInstance(kTextLog);
    if (logger == nullptr) return figures;
    const std::vector<unsigned char*>& pool = logger->*(&PoolPeek::m_memPool);
    const std::deque<int>& free = logger->*(&PoolPeek::m_freeBucketIds);
    figures.buckets = pool.size();
    figures.inFlight = pool.size() - std::min(pool.size(), free.size());
    return figures;
}

PoolPeek::Figures PoolPeek::Read() {
    std::lock_guard<std::mutex> lock(*m_pOfflineLoggerLock);
    return ReadLocked();
}

void PoolWatch::Note(const PoolPeek::Figures& figures) {
    size_t peak = peakInFlight.load();
    while (figures.inFlight > peak && !peakInFlight.compare_exchange_weak(peak, figures.inFlight)) {
    }
    buckets.store(std::max(buckets.load(), figures.buckets));
}

bool WakeableThread::StopAndJoin() {
    if (!m_thread.joinable()) return false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_one();
    m_thread.join();
    return true;
}

FlushThread* FlushThread::s_current = nullptr;

FlushThread::FlushThread(const VxCam::OfflineLogEntryTable& table, PoolWatch* watch)
    : m_table(table), m_watch(watch) {
    s_current = this;
    m_thread = std::thread([this] { Run(); });
}

void FlushThread::Stop() {
    if (StopAndJoin()) s_current = nullptr;
}

void FlushThread::Cleanup(OfflineLoggerType type) {
    FlushThread* self = s_current;
    if (self == nullptr || type != kTextLog) return;
    {
        std::lock_guard<std::mutex> lock(self->m_mutex);
        self->m_cleanup = true;
    }
    self->m_wake.notify_one();
}

void FlushThread::Trigger(OfflineLoggerType type) {
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

void FlushThread::HoldCleanups() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cleanupHeld = true;
    m_idle.wait(lock, [this] { return !m_cleaning; });
}

void FlushThread::ReleaseCleanups() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_cleanupHeld = false;
    }
    m_wake.notify_one();
}

void FlushThread::Run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_wake.wait(lock,
                    [this] { return m_stop || m_pending > 0 || (m_cleanup && !m_cleanupHeld); });
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

void LatencyHistogram::Add(uint64_t ns) {
    ++m_counts[Bucket(std::min(ns, kCapNs))];
    ++m_calls;
    m_maxNs = std::max(m_maxNs, ns);
    if (ns > 1000000) ++m_overOneMs;
}

void LatencyHistogram::Merge(const LatencyHistogram& other) {
    for (size_t i = 0; i < kBuckets; ++i) m_counts[i] += other.m_counts[i];
    m_calls += other.m_calls;
    m_maxNs = std::max(m_maxNs, other.m_maxNs);
    m_overOneMs += other.m_overOneMs;
}

uint64_t LatencyHistogram::PercentileNs(double p) const {
    const uint64_t rank = std::max<uint64_t>(
            1, static_cast<uint64_t>(p * static_cast<double>(m_calls) + 0.999999));
    uint64_t seen = 0;
    for (size_t i = 0; i < kBuckets; ++i) {
        seen += m_counts[i];
        if (seen >= rank) return std::min(Low(i + 1) - 1, m_maxNs);
    }
    return m_maxNs;
}

// Below 32 ns a bucket a nanosecond; above, the top 6 bits of the value.
size_t LatencyHistogram::Bucket(uint64_t ns) {
    if (ns < (uint64_t{1} << kSubBits)) return static_cast<size_t>(ns);
    const int shift = 63 - __builtin_clzll(ns) - kSubBits;
    return (static_cast<size_t>(shift + 1) << kSubBits) +
           static_cast<size_t>((ns >> shift) & ((1u << kSubBits) - 1));
}

uint64_t LatencyHistogram::Low(size_t bucket) {
    if (bucket < (size_t{1} << kSubBits)) return bucket;
    const int shift = static_cast<int>(bucket >> kSubBits) - 1;
    return (uint64_t{1} << kSubBits | (bucket & ((1u << kSubBits) - 1))) << shift;
}

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

}  // namespace vxcamctl::session
