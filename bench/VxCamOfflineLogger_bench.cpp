// What a line costs a camera thread, side by side with spdlog, measured in one run on one machine:
//
//   AddLog            a pre-formatted 128-byte line into the thread's bucket, per thread count
//   MemcpyLowerBound  strlen and memcpy of the same line into a warm 3 MiB per-thread buffer: the
//                     floor for AddLog, which must find the length of a C string too
//   AddLogLatency     every call of the entry table's addLog timed, while a host thread serves the
//                     flush trigger, so that the flush writes all the time: p50, p99, p99.9,
//                     p99.99 and max per thread count, the calls over 1 ms, and how often the
//                     logging threads lost their CPU (a slow call on a machine without a spare
//                     core is most often one that was preempted)
//   Sustained         N threads log through the entry table, the flush trigger served, from their
//                     start until the camera close that writes everything out has returned,
//                     against WriteBound: the same threads write() the same bytes in 3 MiB blocks
//   SpdlogSync        the same line through spdlog's synchronous file logger, pattern "%v"
//   SpdlogAsync       the same line through spdlog's asynchronous logger
//   LogSystem         a message through Log::LogSystem with offline logging on and the Android log
//                     sent to a null sink, against SpdlogDefaultPattern: the same message formatted
//                     by spdlog with its default pattern into a file
//   FilteredMessage   a message the call-site gate turns away
//   Flush             FlushLogToFile writing full buckets, against Fwrite of 3 MiB blocks filled
//                     the same way
//
// The spdlog benchmarks are in spdlog_baseline_bench.cpp, which the host build links in; the
// device's cc_benchmark has no spdlog and reports the rest, without the ratios to spdlog.
//
// The figures and the goals, as ratios of the medians, are printed at the end. Flushes needed by
// AddLog and LogSystem run while the clock is stopped: the host runs them on a thread of its own,
// and they are measured on their own by Flush, Sustained and AddLogLatency.
//
//   VxCamOfflineLogger_bench [--sysroot DIR] [--threads N,N,...] [google-benchmark flags]
//
// --threads lists the thread counts of AddLog, MemcpyLowerBound, AddLogLatency, Sustained and
// WriteBound (default 1,2); the scaling goal needs 1 among them. Without --sysroot the files go to
// a temporary sysroot, removed at the end. The library reads its properties while it loads, so the
// program runs itself again with VXCAM_SYSROOT set. On a device the library takes its paths and
// properties as they stand: the files go to /data/vendor/camera, and
// vendor.camera.vcf.LogOfflineEnable must be 1 before the program starts.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <VxCamLogSink.h>
#include <android/log.h>
#include <benchmark/benchmark.h>

#include "OfflineLoggerBench.h"
#include "VxCamDebug.h"
#include "VxCamOfflineLogger.h"
#include "VxCamPortPath.h"

namespace vxcambench {
Context g_context;
}  // namespace vxcambench

namespace {

using VxCam::OfflineLoggerType;
using VxCam::VxCamOfflineLogger;
using vxcambench::g_context;
using vxcambench::kCaptureLines;
using vxcambench::kLineLength;
using vxcambench::Message;

constexpr unsigned kBucketSize = 3145728;
constexpr unsigned kLinesPerBucket = kBucketSize / kLineLength;
constexpr unsigned kFlushBatch = 6;  // the text log's batch: a normal flush writes at 6 requests
constexpr int64_t kFlushRounds = 8;  // batches of full buckets per run of Flush
// Lines per thread in one run of Sustained and WriteBound: 128 MB a thread, far more than the
// pool holds, so the flush has to keep up.
constexpr int64_t kSustainedLines = 1000000;
// Calls timed in one run of AddLogLatency, over all threads, and at least this many per thread:
// enough for a p99.99 of a few hundred samples above it.
constexpr int64_t kLatencyLines = 2000000;
constexpr int64_t kLatencyLinesPerThread = 1000000;

// The host's way in, as a camera host without the C++ interface has it.
VxCam::OfflineLogEntryTable g_table = {};

void NullSink(const struct VxCamLogMessage*) {}

void RemoveFilesIn(const std::string& folder) {
    DIR* dir = opendir(folder.c_str());
    if (dir == nullptr) return;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        const std::string path = folder + "/" + entry->d_name;
        struct stat info = {};
        if (stat(path.c_str(), &info) != 0) continue;
        if (S_ISDIR(info.st_mode)) {
            RemoveFilesIn(path);
        } else {
            unlink(path.c_str());
        }
    }
    closedir(dir);
}

std::set<std::string> Entries(const std::string& folder) {
    std::set<std::string> names;
    DIR* dir = opendir(folder.c_str());
    if (dir == nullptr) return names;
    while (dirent* entry = readdir(dir)) {
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
            names.insert(entry->d_name);
        }
    }
    closedir(dir);
    return names;
}

void RemoveTree(const std::string& path) {
    struct stat info = {};
    if (lstat(path.c_str(), &info) != 0) return;
    if (!S_ISDIR(info.st_mode)) {
        unlink(path.c_str());
        return;
    }
    for (const std::string& name : Entries(path)) RemoveTree(path + "/" + name);
    rmdir(path.c_str());
}

// What the camera folder held at the start, left alone: on a device it is the HAL's own folder.
std::set<std::string> g_foundEntries;

// Removes what the runs wrote, so that a long run needs no more disk than one batch.
void RemoveWrittenFiles() {
    for (const std::string& name : Entries(g_context.camera)) {
        if (g_foundEntries.count(name) == 0) RemoveFilesIn(g_context.camera + "/" + name);
    }
}

// The threads of one run meet here while the clock is stopped; the last one in does the work. The
// others spin rather than sleep: a thread woken from a sleep tends to be put on its waker's CPU,
// and the two would then share one core for a while after the clock has started again.
class Rendezvous {
  public:
    template <typename Work>
    void Meet(const benchmark::State& state, Work work) {
        const uint64_t generation = m_generation.load(std::memory_order_acquire);
        if (m_arrived.fetch_add(1, std::memory_order_acq_rel) + 1 < state.threads()) {
            while (m_generation.load(std::memory_order_acquire) == generation) {
                std::this_thread::yield();
            }
            return;
        }
        work();
        m_arrived.store(0, std::memory_order_relaxed);
        m_generation.fetch_add(1, std::memory_order_release);
    }

  private:
    std::atomic<int> m_arrived{0};
    std::atomic<uint64_t> m_generation{0};
};
Rendezvous g_rendezvous;

// ---- Capture --------------------------------------------------------------------------------

void BM_AddLog(benchmark::State& state) {
    VxCamOfflineLogger* logger = g_context.logger;
    const char* line = g_context.line;
    // The threads together queue one flush batch per round.
    const int64_t round = int64_t{kLinesPerBucket} * kFlushBatch / state.threads();
    // Two rounds before the clock starts, so that every run finds the pool as a camera that has
    // been logging for a while does, whatever ran before it.
    for (int warmUp = 0; warmUp < 2; ++warmUp) {
        for (int64_t i = 0; i < round; ++i) logger->AddLog(line, kLineLength);
        g_rendezvous.Meet(state, [&] { logger->FlushLogToFile(0, 0); });
    }
    int64_t left = round;
    for (auto _ : state) {
        logger->AddLog(line, kLineLength);
        if (--left == 0) {
            left = round;
            state.PauseTiming();
            g_rendezvous.Meet(state, [&] { logger->FlushLogToFile(0, 0); });
            state.ResumeTiming();
        }
    }
    g_rendezvous.Meet(state, [&] {
        logger->FlushLogToFile(0, 0);
        RemoveWrittenFiles();
    });
    state.SetItemsProcessed(state.iterations());
}

// What a logger given a C string cannot do without: find the line's length, then copy the line
// into a warm buffer of a bucket's size. The floor for AddLog.
void BM_MemcpyLowerBound(benchmark::State& state) {
    std::vector<char> buffer(kBucketSize, 0);  // touched before the clock starts
    char* bucket = buffer.data();
    const char* line = g_context.line;
    size_t position = 0;
    for (auto _ : state) {
        // The clobber below keeps the compiler from taking the length once for the whole loop.
        const size_t length = strlen(line);
        if (position + length > kBucketSize) position = 0;
        memcpy(bucket + position, line, length);
        position += length;
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}

// ---- The debug frame ------------------------------------------------------------------------

void BM_LogSystem(benchmark::State& state) {
    VxCamOfflineLogger* logger = g_context.logger;
    Message message;
    benchmark::DoNotOptimize(message);
    int64_t left = 8192;
    for (auto _ : state) {
        VXCAM_LOGI(CORE, "request %u stream %d format %s %ux%u", message.request, message.stream,
                   message.format, message.width, message.height);
        if (--left == 0) {
            left = 8192;
            state.PauseTiming();
            logger->FlushLogToFile(0, 0);
            state.ResumeTiming();
        }
    }
    logger->FlushLogToFile(0, 0);
    RemoveWrittenFiles();
    state.SetItemsProcessed(state.iterations());
}

void BM_FilteredMessage(benchmark::State& state) {
    Message message;
    benchmark::DoNotOptimize(message);
    for (auto _ : state) {
        // Verbose is off by default; the gate reads the masks afresh each time.
        VXCAM_LOGV(CORE, "request %u stream %d format %s %ux%u", message.request, message.stream,
                   message.format, message.width, message.height);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}

// ---- Flush ----------------------------------------------------------------------------------

// Lets the file system finish what earlier runs left (their files are deleted, but the journal and
// the writeback of what they wrote may still be under way), so that each run starts level.
void SettleFileSystem() {
    const int fd = open(g_context.camera.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    syncfs(fd);
    close(fd);
}

void BM_Flush(benchmark::State& state) {
    VxCamOfflineLogger* logger = g_context.logger;
    const char* line = g_context.line;
    // A close writes out what earlier benchmarks left and starts this thread at a bucket's start;
    // one line then makes every later bucket fill to the byte before it is queued.
    logger->NotifyCameraClose();
    logger->AddLog(line, kLineLength);
    SettleFileSystem();
    for (auto _ : state) {
        state.PauseTiming();
        for (unsigned i = 0; i < kLinesPerBucket * kFlushBatch; ++i) {
            logger->AddLog(line, kLineLength);
        }
        state.ResumeTiming();
        logger->FlushLogToFile(0, 0);
    }
    RemoveWrittenFiles();
    state.SetBytesProcessed(state.iterations() * int64_t{kBucketSize} * kFlushBatch);
}

// The same bytes from the same kind of memory: a batch of 3 MiB blocks, refilled line by line
// while the clock is stopped as the threads refill buckets, each written with one fwrite.
void BM_Fwrite(benchmark::State& state) {
    std::vector<std::vector<char>> blocks(kFlushBatch, std::vector<char>(kBucketSize));
    const std::string path = g_context.camera + "/fwrite.txt";  // beside the logger's folders
    FILE* file = fopen(path.c_str(), "a+");
    if (file == nullptr) {
        state.SkipWithError("cannot open a file in the camera folder");
        return;
    }
    SettleFileSystem();
    for (auto _ : state) {
        state.PauseTiming();
        for (std::vector<char>& block : blocks) {
            for (size_t offset = 0; offset < block.size(); offset += kLineLength) {
                memcpy(block.data() + offset, g_context.line, kLineLength);
            }
        }
        state.ResumeTiming();
        for (const std::vector<char>& block : blocks) fwrite(block.data(), 1, block.size(), file);
    }
    fclose(file);
    unlink(path.c_str());
    state.SetBytesProcessed(state.iterations() * int64_t{kBucketSize} * kFlushBatch);
}

// ---- A camera session with the flush trigger served -------------------------------------------

// The host's flush thread: the library calls the trigger with its pool lock held, so the trigger
// only wakes this thread, which then runs the flush through the entry table.
class FlushServer {
  public:
    FlushServer() {
        m_thread = std::thread([this] { Run(); });
        s_current.store(this, std::memory_order_release);
    }
    // Only once the camera is closed and the logging threads have ended: the library calls the
    // trigger while a camera is open, and a thread's exit hands its bucket over.
    ~FlushServer() {
        s_current.store(nullptr, std::memory_order_release);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        m_wake.notify_one();
        m_thread.join();
    }
    static void Trigger(OfflineLoggerType type) {
        FlushServer* self = s_current.load(std::memory_order_acquire);
        if (self == nullptr || type != VxCam::OfflineLog) return;
        {
            std::lock_guard<std::mutex> lock(self->m_mutex);
            ++self->m_pending;
        }
        self->m_wake.notify_one();
    }

  private:
    void Run() {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            m_wake.wait(lock, [this] { return m_stop || m_pending > 0; });
            if (m_pending == 0) return;  // stopped
            m_pending = 0;
            lock.unlock();
            g_table.flushLog(VxCam::OfflineLog, 0);
            lock.lock();
        }
    }

    static std::atomic<FlushServer*> s_current;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    unsigned long m_pending = 0;
    bool m_stop = false;
    std::thread m_thread;
};
std::atomic<FlushServer*> FlushServer::s_current{nullptr};

// Before a session: a close writes out what earlier runs left and starts a new session, and the
// file system finishes what they wrote, so that each run starts level.
void StartLevel() {
    g_table.noticeCameraClose(VxCam::OfflineLog);
    RemoveWrittenFiles();
    SettleFileSystem();
}

// Sums the sizes of the files the runs wrote into the camera folder's new folders.
long long WrittenBytes(const std::string& folder, bool top = true) {
    long long bytes = 0;
    for (const std::string& name : Entries(folder)) {
        if (top && g_foundEntries.count(name) != 0) continue;
        const std::string path = folder + "/" + name;
        struct stat info = {};
        if (lstat(path.c_str(), &info) != 0) continue;
        if (S_ISDIR(info.st_mode)) {
            bytes += WrittenBytes(path, false);
        } else if (!top) {
            bytes += info.st_size;
        }
    }
    return bytes;
}

using SteadyClock = std::chrono::steady_clock;

// Starts `count` threads, lets each do `ready(t)`, releases them together once all are ready to
// run `work(t)`, and joins them; returns the moment of the release. The threads spin until then,
// for the reason Rendezvous gives.
template <typename Ready, typename Work>
SteadyClock::time_point RunThreads(int count, Ready ready, Work work) {
    std::atomic<int> waiting{count};
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    threads.reserve(static_cast<size_t>(count));
    for (int t = 0; t < count; ++t) {
        threads.emplace_back([&, t] {
            ready(t);
            waiting.fetch_sub(1, std::memory_order_acq_rel);
            while (!go.load(std::memory_order_acquire)) std::this_thread::yield();
            work(t);
        });
    }
    while (waiting.load(std::memory_order_acquire) != 0) std::this_thread::yield();
    const SteadyClock::time_point start = SteadyClock::now();
    go.store(true, std::memory_order_release);
    for (std::thread& thread : threads) thread.join();
    return start;
}

double SecondsSince(SteadyClock::time_point start) {
    return std::chrono::duration<double>(SteadyClock::now() - start).count();
}

uint64_t MonotonicNs() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

// ---- Latency --------------------------------------------------------------------------------

void BM_AddLogLatency(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    const int64_t lines = std::max(kLatencyLines / threads, kLatencyLinesPerThread);
    const char* line = g_context.line;
    // A sample a call, in ns; filled (so every page is in) before the clock starts.
    std::vector<std::vector<uint32_t>> samples(static_cast<size_t>(threads),
                                               std::vector<uint32_t>(static_cast<size_t>(lines)));
    std::atomic<long> waited{0};     // the logging threads' voluntary context switches
    std::atomic<long> preempted{0};  // and involuntary ones
    for (auto _ : state) {
        StartLevel();
        FlushServer flusher;
        g_table.noticeCameraOpen(VxCam::OfflineLog);
        const SteadyClock::time_point start = RunThreads(
                threads,
                [&](int) {
                    // A thread that has registered and passed a bucket on, as on a camera that
                    // has been logging for a while.
                    for (unsigned i = 0; i < kLinesPerBucket; ++i) {
                        g_table.addLog(VxCam::OfflineLog, line);
                    }
                },
                [&](int t) {
                    uint32_t* sample = samples[static_cast<size_t>(t)].data();
                    rusage usageBefore = {};
                    getrusage(RUSAGE_THREAD, &usageBefore);
                    for (int64_t i = 0; i < lines; ++i) {
                        const uint64_t before = MonotonicNs();
                        g_table.addLog(VxCam::OfflineLog, line);
                        const uint64_t took = MonotonicNs() - before;
                        sample[i] = took > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(took);
                    }
                    rusage usageAfter = {};
                    getrusage(RUSAGE_THREAD, &usageAfter);
                    // A slow call either waited (for a lock, a page) or lost its CPU.
                    waited += usageAfter.ru_nvcsw - usageBefore.ru_nvcsw;
                    preempted += usageAfter.ru_nivcsw - usageBefore.ru_nivcsw;
                });
        state.SetIterationTime(SecondsSince(start));
        g_table.noticeCameraClose(VxCam::OfflineLog);  // writes everything out
    }
    RemoveWrittenFiles();

    std::vector<uint32_t> all;
    all.reserve(static_cast<size_t>(threads * lines));
    for (const std::vector<uint32_t>& thread : samples) {
        all.insert(all.end(), thread.begin(), thread.end());
    }
    std::sort(all.begin(), all.end());
    // Nearest rank: the smallest sample with at least the fraction p of all at or below it.
    const auto percentileUs = [&](double p) {
        const size_t rank = static_cast<size_t>(p * static_cast<double>(all.size()) + 0.999999);
        return all[std::min(all.size(), std::max<size_t>(rank, 1)) - 1] / 1e3;
    };
    state.counters["p50_us"] = percentileUs(0.5);
    state.counters["p99_us"] = percentileUs(0.99);
    state.counters["p99.9_us"] = percentileUs(0.999);
    state.counters["p99.99_us"] = percentileUs(0.9999);
    state.counters["max_us"] = all.back() / 1e3;
    state.counters["waited"] = static_cast<double>(waited.load());
    state.counters["preempted"] = static_cast<double>(preempted.load());
    state.counters["over_1ms"] = static_cast<double>(
            all.end() - std::upper_bound(all.begin(), all.end(), uint32_t{1000000}));
    state.SetItemsProcessed(state.iterations() * threads * lines);
}

// ---- Sustained throughput -------------------------------------------------------------------

void BM_Sustained(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    const char* line = g_context.line;
    const long long expected = static_cast<long long>(threads) * kSustainedLines * kLineLength;
    for (auto _ : state) {
        StartLevel();
        const long long before = WrittenBytes(g_context.camera);
        FlushServer flusher;
        g_table.noticeCameraOpen(VxCam::OfflineLog);
        const SteadyClock::time_point start = RunThreads(
                threads, [](int) {},
                [&](int) {
                    for (int64_t i = 0; i < kSustainedLines; ++i) {
                        g_table.addLog(VxCam::OfflineLog, line);
                    }
                });
        g_table.noticeCameraClose(VxCam::OfflineLog);  // writes everything out
        state.SetIterationTime(SecondsSince(start));
        // Lines that never reached a file would flatter the figure.
        if (WrittenBytes(g_context.camera) - before < expected) {
            state.SkipWithError("the files hold fewer bytes than were logged");
            break;
        }
        RemoveWrittenFiles();
    }
    RemoveWrittenFiles();
    state.SetBytesProcessed(state.iterations() * expected);
}

// The same threads write() the same bytes, each into a file of its own beside the logger's
// folders, from a batch of 3 MiB blocks filled line by line before the clock starts, as buckets
// are. The files are open before the clock starts and closed before it stops.
void BM_WriteBound(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    const int64_t bytesPerThread = kSustainedLines * kLineLength;
    std::vector<std::vector<std::vector<char>>> blocks(static_cast<size_t>(threads));
    for (std::vector<std::vector<char>>& batch : blocks) {
        batch.assign(kFlushBatch, std::vector<char>(kBucketSize));
        for (std::vector<char>& block : batch) {
            for (size_t offset = 0; offset < block.size(); offset += kLineLength) {
                memcpy(block.data() + offset, g_context.line, kLineLength);
            }
        }
    }
    std::vector<std::string> paths;
    for (int t = 0; t < threads; ++t) {
        paths.push_back(g_context.camera + "/write_bound_" + std::to_string(t) + ".txt");
    }
    std::atomic<bool> failed{false};
    for (auto _ : state) {
        StartLevel();
        std::vector<int> files(static_cast<size_t>(threads), -1);
        const SteadyClock::time_point start = RunThreads(
                threads,
                [&](int t) {
                    files[static_cast<size_t>(t)] =
                            open(paths[static_cast<size_t>(t)].c_str(),
                                 O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
                },
                [&](int t) {
                    const int fd = files[static_cast<size_t>(t)];
                    const std::vector<std::vector<char>>& batch = blocks[static_cast<size_t>(t)];
                    int64_t left = bytesPerThread;
                    for (size_t b = 0; fd >= 0 && left > 0; ++b) {
                        const char* data = batch[b % batch.size()].data();
                        size_t size = static_cast<size_t>(std::min<int64_t>(left, kBucketSize));
                        left -= static_cast<int64_t>(size);
                        while (size > 0) {
                            const ssize_t written = write(fd, data, size);
                            if (written <= 0) {
                                failed = true;
                                break;
                            }
                            data += written;
                            size -= static_cast<size_t>(written);
                        }
                    }
                    if (fd < 0 || close(fd) != 0) failed = true;
                });
        state.SetIterationTime(SecondsSince(start));
        for (const std::string& path : paths) unlink(path.c_str());
        if (failed) {
            state.SkipWithError("cannot write a file in the camera folder");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * threads * bytesPerThread);
}

double Largest(const std::vector<double>& values) {
    return values.empty() ? 0.0 : *std::max_element(values.begin(), values.end());
}

// The runs without threads of their own; those that take the --threads counts are registered by
// RegisterThreadedBenchmarks.
BENCHMARK(BM_LogSystem)->UseRealTime();
BENCHMARK(BM_FilteredMessage)->UseRealTime();
BENCHMARK(BM_Flush)->Iterations(kFlushRounds)->UseRealTime();
BENCHMARK(BM_Fwrite)->Iterations(kFlushRounds)->UseRealTime();

void RegisterThreadedBenchmarks(const std::vector<int>& counts) {
    benchmark::internal::Benchmark* addLog = benchmark::RegisterBenchmark("BM_AddLog", BM_AddLog);
    benchmark::internal::Benchmark* copy =
            benchmark::RegisterBenchmark("BM_MemcpyLowerBound", BM_MemcpyLowerBound);
    for (benchmark::internal::Benchmark* capture : {addLog, copy}) {
        capture->Iterations(kCaptureLines)->UseRealTime();
        for (int count : counts) capture->Threads(count);
    }
    // Threads of their own, started and joined inside each run; the argument is their count.
    // Latency also reports the worst of its repetitions beside the median.
    benchmark::internal::Benchmark* latency =
            benchmark::RegisterBenchmark("BM_AddLogLatency", BM_AddLogLatency)
                    ->ComputeStatistics("max", Largest);
    benchmark::internal::Benchmark* sustained =
            benchmark::RegisterBenchmark("BM_Sustained", BM_Sustained);
    benchmark::internal::Benchmark* write =
            benchmark::RegisterBenchmark("BM_WriteBound", BM_WriteBound);
    for (benchmark::internal::Benchmark* run : {latency, sustained, write}) {
        // CPU time: the whole process's, the flush thread's included.
        run->ArgName("threads")->Iterations(1)->UseManualTime()->MeasureProcessCPUTime();
        for (int count : counts) run->Arg(count);
    }
}

// ---- Ratios ---------------------------------------------------------------------------------

std::string ThreadCount(int threads) {
    return std::to_string(threads) + (threads == 1 ? " thread" : " threads");
}

std::string ThreadsLabel(const char* what, int threads) {
    return std::string(what) + ", " + ThreadCount(threads);
}

// The console report, then the figures and each goal as a ratio of medians (of the single run
// without repetitions).
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    explicit RatioReporter(std::vector<int> threads) : m_threads(std::move(threads)) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            const bool aggregate = run.run_type == Run::RT_Aggregate;
            const bool median = aggregate && run.aggregate_name == "median";
            const bool largest = aggregate && run.aggregate_name == "max";
            if (aggregate && !median && !largest) continue;
            std::string key = run.run_name.function_name;
            if (!run.run_name.args.empty()) key += "/" + run.run_name.args;
            if (!run.run_name.threads.empty()) key += "/" + run.run_name.threads;
            Figure& figure = m_figures[key];
            // The worst of the repetitions, from each run or from their "max" statistic.
            if (!median) {
                for (const auto& [name, counter] : run.counters) {
                    auto worst = figure.worst.emplace(name, counter.value).first;
                    worst->second = std::max(worst->second, counter.value);
                }
            }
            if (largest || (figure.fromMedian && !median)) continue;
            figure.fromMedian = median;
            figure.nsPerItem = run.GetAdjustedRealTime();  // the unit is ns throughout
            figure.cpuNsPerItem = run.GetAdjustedCPUTime();
            figure.counters.clear();
            for (const auto& [name, counter] : run.counters) figure.counters[name] = counter.value;
            figure.itemsPerSecond = figure.Counter("items_per_second");
            figure.bytesPerSecond = figure.Counter("bytes_per_second");
            ++figure.repetitions;
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        FILE* out = stdout;
        fprintf(out, "\nFigures (%s):\n",
                AnyMedian() ? "medians of the repetitions; a latency's max and calls over 1 ms "
                              "from the worst of them"
                            : "single runs; add repetitions");
        const Figure* addLog1 = Find("BM_AddLog/threads:1");
        const Figure* copy1 = Find("BM_MemcpyLowerBound/threads:1");
        const Figure* sync = Find("BM_SpdlogSync");
        const Figure* async = Find("BM_SpdlogAsync");
        const Figure* frame = Find("BM_LogSystem");
        const Figure* spdFrame = Find("BM_SpdlogDefaultPattern");
        const Figure* gate = Find("BM_FilteredMessage");
        const Figure* flush = Find("BM_Flush");
        const Figure* fwrite = Find("BM_Fwrite");
        for (const char* name : {"BM_AddLog", "BM_MemcpyLowerBound"}) {
            for (int threads : m_threads) {
                const Figure* figure = Find(name, threads);
                if (figure == nullptr) continue;
                const char* what = strcmp(name, "BM_AddLog") == 0 ? "AddLog" : "strlen + memcpy";
                fprintf(out, "  %-29s%8.2f ns/line  %14.0f lines/s\n",
                        ThreadsLabel(what, threads).c_str(), figure->nsPerItem,
                        figure->itemsPerSecond);
            }
        }
        if (sync != nullptr) {
            fprintf(out, "  spdlog synchronous, \"%%v\"    %8.2f ns/line  %14.0f lines/s\n",
                    sync->nsPerItem, sync->itemsPerSecond);
        }
        if (async != nullptr) {
            fprintf(out, "  spdlog asynchronous, \"%%v\"   %8.2f ns/line  %14.0f lines/s\n",
                    async->nsPerItem, async->itemsPerSecond);
        }
        if (frame != nullptr) {
            fprintf(out, "  Log::LogSystem, offline on   %8.2f ns/message\n", frame->nsPerItem);
        }
        if (spdFrame != nullptr) {
            fprintf(out, "  spdlog default pattern       %8.2f ns/message\n", spdFrame->nsPerItem);
        }
        if (gate != nullptr) {
            fprintf(out, "  filtered message             %8.2f ns/message\n", gate->nsPerItem);
        }
        if (flush != nullptr) {
            fprintf(out, "  FlushLogToFile, full buckets %8.0f MB/s\n", flush->bytesPerSecond / 1e6);
        }
        if (fwrite != nullptr) {
            fprintf(out, "  fwrite of 3 MiB blocks       %8.0f MB/s\n",
                    fwrite->bytesPerSecond / 1e6);
        }
        for (int threads : m_threads) {
            const Figure* sustained = Find("BM_Sustained", threads);
            const Figure* bound = Find("BM_WriteBound", threads);
            if (sustained != nullptr) {
                fprintf(out, "  %-29s%8.0f MB/s (logged until the close has written it)\n",
                        ThreadsLabel("sustained", threads).c_str(), sustained->bytesPerSecond / 1e6);
            }
            if (bound != nullptr) {
                fprintf(out, "  %-29s%8.0f MB/s\n", ThreadsLabel("write() bound", threads).c_str(),
                        bound->bytesPerSecond / 1e6);
            }
        }
        bool latencyHead = false;
        for (int threads : m_threads) {
            const Figure* latency = Find("BM_AddLogLatency", threads);
            if (latency == nullptr) continue;
            if (!latencyHead) {
                fprintf(out, "  %-29s%8s %8s %8s %8s %14s %17s %12s\n",
                        "AddLog latency, flush writing", "p50", "p99", "p99.9", "p99.99", "max us",
                        "calls over 1 ms", "preempted");
                latencyHead = true;
            }
            // Involuntary context switches of the logging threads in the worst run: a call over
            // 1 ms with as many of them lost its CPU, which a machine with a spare core avoids.
            fprintf(out, "    %-27s%8.2f %8.2f %8.2f %8.2f %14.2f %17.0f %12.0f\n",
                    ThreadCount(threads).c_str(), latency->Counter("p50_us"),
                    latency->Counter("p99_us"), latency->Counter("p99.9_us"),
                    latency->Counter("p99.99_us"), latency->Worst("max_us"),
                    latency->Worst("over_1ms"), latency->Worst("preempted"));
        }

        fprintf(out, "\nGoals:\n");
        if (addLog1 != nullptr && copy1 != nullptr) {
            Ratio(out, "AddLog / (strlen + memcpy), 1 thread",
                  addLog1->nsPerItem / copy1->nsPerItem, "at most", 2.0);
        }
        if (addLog1 != nullptr && sync != nullptr) {
            Ratio(out, "spdlog synchronous / AddLog, 1 thread",
                  sync->nsPerItem / addLog1->nsPerItem, "at least", 5.0);
        }
        if (addLog1 != nullptr && async != nullptr) {
            Value(out, "spdlog asynchronous / AddLog, 1 thread",
                  async->nsPerItem / addLog1->nsPerItem);
        }
        const long cpus = sysconf(_SC_NPROCESSORS_ONLN);
        for (int threads : m_threads) {
            const Figure* addLog = Find("BM_AddLog", threads);
            if (threads == 1 || addLog == nullptr) continue;
            if (addLog1 == nullptr) {
                fprintf(out, "  AddLog scaling: needs 1 in --threads\n");
                break;
            }
            const std::string name = "AddLog lines/s, " + std::to_string(threads) + " threads / (" +
                                     std::to_string(threads) + " x 1 thread)";
            const double scaling = addLog->itemsPerSecond / (threads * addLog1->itemsPerSecond);
            if (threads <= cpus) {
                Ratio(out, name.c_str(), scaling, "at least", 0.8);
            } else {
                fprintf(out, "  %-52s %8.2f  (no verdict: %d threads on %ld online CPUs)\n",
                        name.c_str(), scaling, threads, cpus);
            }
            // Near 1 when the threads do not slow each other down; the wall-clock ratio above
            // also depends on how much of the other cores the machine had to give.
            const std::string cpu =
                    "AddLog CPU time per line, " + std::to_string(threads) + " threads / 1 thread";
            Value(out, cpu.c_str(), addLog->cpuNsPerItem / addLog1->cpuNsPerItem);
        }
        if (frame != nullptr && spdFrame != nullptr) {
            Ratio(out, "Log::LogSystem / spdlog default pattern",
                  frame->nsPerItem / spdFrame->nsPerItem, "at most", 0.7);
        }
        if (gate != nullptr) {
            Ratio(out, "filtered message, ns", gate->nsPerItem, "under", 2.0);
        }
        if (flush != nullptr && fwrite != nullptr) {
            Ratio(out, "FlushLogToFile / fwrite throughput",
                  flush->bytesPerSecond / fwrite->bytesPerSecond, "at least", 0.8);
        }
        for (int threads : m_threads) {
            const Figure* sustained = Find("BM_Sustained", threads);
            const Figure* bound = Find("BM_WriteBound", threads);
            if (sustained == nullptr || bound == nullptr) continue;
            Ratio(out, ThreadsLabel("offline logger sustained / write() bound", threads).c_str(),
                  sustained->bytesPerSecond / bound->bytesPerSecond, "at least", 0.8);
        }
        bool latencies = false;
        for (int threads : m_threads) {
            const Figure* latency = Find("BM_AddLogLatency", threads);
            if (latency == nullptr) continue;
            latencies = true;
            Ratio(out, ThreadsLabel("AddLog p99.99 latency (us)", threads).c_str(),
                  latency->Counter("p99.99_us"), "at most", 20.0);
            Ratio(out, ThreadsLabel("AddLog max latency (us)", threads).c_str(),
                  latency->Worst("max_us"), "at most", 1000.0);
        }
        if (latencies) {
            // A logging thread that loses its CPU to the flush thread, or to anything else, waits
            // a time slice whatever the library does.
            fprintf(out,
                    "  (the latency goals hold on a quiet machine with spare cores: a core for "
                    "each "
                    "logging thread and one for the flush thread; this one has %ld online)\n",
                    cpus);
        }
    }

  private:
    struct Figure {
        double nsPerItem = 0;
        double cpuNsPerItem = 0;  // summed over the threads
        double itemsPerSecond = 0;
        double bytesPerSecond = 0;
        std::map<std::string, double> counters;  // of the median, or of the single run
        std::map<std::string, double> worst;     // the largest of the repetitions
        bool fromMedian = false;
        int repetitions = 0;

        double Counter(const char* name) const {
            auto found = counters.find(name);
            return found != counters.end() ? found->second : 0.0;
        }
        double Worst(const char* name) const {
            auto found = worst.find(name);
            return found != worst.end() ? found->second : 0.0;
        }
    };

    const Figure* Find(const std::string& name) const {
        auto found = m_figures.find(name);
        return found != m_figures.end() ? &found->second : nullptr;
    }
    const Figure* Find(const char* name, int threads) const {
        return Find(std::string(name) + "/threads:" + std::to_string(threads));
    }
    bool AnyMedian() const {
        for (const auto& entry : m_figures) {
            if (entry.second.fromMedian) return true;
        }
        return false;
    }
    static void Ratio(FILE* out, const char* name, double value, const char* relation,
                      double bound) {
        const bool met = strcmp(relation, "at most") == 0 ? value <= bound
                         : strcmp(relation, "under") == 0 ? value < bound
                                                          : value >= bound;
        fprintf(out, "  %-52s %8.2f  (goal: %s %.1f)  %s\n", name, value, relation, bound,
                met ? "met" : "NOT MET");
    }
    static void Value(FILE* out, const char* name, double value) {
        fprintf(out, "  %-52s %8.2f\n", name, value);
    }

    std::vector<int> m_threads;
    std::map<std::string, Figure> m_figures;
};

// ---- Set-up ---------------------------------------------------------------------------------

constexpr char kOwnedSysroot[] = "VXCAM_BENCH_OWNED_SYSROOT";

bool StartsWith(const char* text, const char* prefix) {
    return strncmp(text, prefix, strlen(prefix)) == 0;
}

bool WriteWholeFile(const char* path, const char* text) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    const ssize_t length = static_cast<ssize_t>(strlen(text));
    const bool written = write(fd, text, static_cast<size_t>(length)) == length;
    return close(fd) == 0 && written;
}

// The library reads its properties while it loads, before main(), so the sysroot has to be in the
// environment by then. Run from .preinit_array, ahead of every library's initialiser, this makes a
// temporary sysroot with offline logging on (unless --sysroot names one) and runs the program
// again with VXCAM_SYSROOT set. Nothing is initialised yet: system calls and static buffers only.
void ExportBenchSysroot(int argc, char** argv, char** envp) {
    for (char** entry = envp; entry != nullptr && *entry != nullptr; ++entry) {
        if (StartsWith(*entry, kOwnedSysroot)) return;  // the second run
    }
    static char sysroot[PATH_MAX] = "VXCAM_SYSROOT=";
    char* const path = sysroot + strlen(sysroot);
    const size_t room = sizeof(sysroot) - strlen(sysroot);
    const char* chosen = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--sysroot") == 0 && i + 1 < argc) chosen = argv[i + 1];
        if (StartsWith(argv[i], "--sysroot=")) chosen = argv[i] + strlen("--sysroot=");
    }
    static char owned[] = "VXCAM_BENCH_OWNED_SYSROOT=0";
    if (chosen != nullptr) {
        if (realpath(chosen, path) == nullptr) snprintf(path, room, "%s", chosen);
    } else {
        const char* tmp = "/tmp";
        for (char** entry = envp; entry != nullptr && *entry != nullptr; ++entry) {
            if (StartsWith(*entry, "TMPDIR=") && (*entry)[7] != '\0') tmp = *entry + 7;
        }
        snprintf(path, room, "%s/vxcambench.XXXXXX", tmp);
        if (mkdtemp(path) == nullptr) return;  // main() finds no sysroot and says so
        char sub[PATH_MAX];
        for (const char* folder : {"/vendor", "/data", "/data/vendor", "/data/vendor/camera"}) {
            snprintf(sub, sizeof(sub), "%s%s", path, folder);
            mkdir(sub, 0755);
        }
        snprintf(sub, sizeof(sub), "%s/vendor/build.prop", path);
        if (!WriteWholeFile(sub, "vendor.camera.vcf.LogOfflineEnable=1\n")) return;
        owned[sizeof(owned) - 2] = '1';
    }
    static char quiet[] = "ANDROID_LOG_TAGS=*:w";  // no settings listing ahead of the figures
    static char* environment[4096];
    size_t count = 0;
    bool tagsGiven = false;
    for (char** entry = envp; entry != nullptr && *entry != nullptr; ++entry) {
        if (StartsWith(*entry, "VXCAM_SYSROOT=")) continue;
        tagsGiven = tagsGiven || StartsWith(*entry, "ANDROID_LOG_TAGS=");
        if (count + 4 >= sizeof(environment) / sizeof(environment[0])) return;
        environment[count++] = *entry;
    }
    environment[count++] = sysroot;
    environment[count++] = owned;
    if (!tagsGiven) environment[count++] = quiet;
    environment[count] = nullptr;
    execve("/proc/self/exe", argv, environment);
}

__attribute__((section(".preinit_array"),
               used)) void (*s_exportBenchSysroot)(int, char**, char**) = ExportBenchSysroot;

// Reads a --threads list, "1,2,4": counts from 1 to 1024, kept in ascending order, once each.
bool ParseThreadCounts(const char* text, std::vector<int>* counts) {
    std::set<int> found;
    while (true) {
        char* end = nullptr;
        errno = 0;
        const long count = strtol(text, &end, 10);
        if (end == text || errno != 0 || count < 1 || count > 1024 || (*end != ',' && *end != 0))
            return false;
        found.insert(static_cast<int>(count));
        if (*end == '\0') break;
        text = end + 1;
    }
    counts->assign(found.begin(), found.end());
    return true;
}

// Takes this program's own options out of the arguments, ahead of Google Benchmark's: --sysroot,
// which was applied before main(), and --threads. False, said on stderr, for a bad list.
bool TakeOwnOptions(int* argc, char** argv, std::vector<int>* threads) {
    int out = 1;
    for (int i = 1; i < *argc; ++i) {
        const char* list = nullptr;
        if (strcmp(argv[i], "--sysroot") == 0 && i + 1 < *argc) {
            ++i;
        } else if (StartsWith(argv[i], "--sysroot=")) {
        } else if (strcmp(argv[i], "--threads") == 0 && i + 1 < *argc) {
            list = argv[++i];
        } else if (StartsWith(argv[i], "--threads=")) {
            list = argv[i] + strlen("--threads=");
        } else {
            argv[out++] = argv[i];
        }
        if (list != nullptr && !ParseThreadCounts(list, threads)) {
            fprintf(stderr, "--threads takes thread counts from 1 to 1024, such as 1,2,4: '%s'\n",
                    list);
            return false;
        }
    }
    *argc = out;
    argv[out] = nullptr;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<int> threads = {1, 2};
    const bool optionsTaken = TakeOwnOptions(&argc, argv, &threads);
    const char* sysrootVariable = getenv("VXCAM_SYSROOT");
    const char* ownedVariable = getenv(kOwnedSysroot);
    if (sysrootVariable == nullptr || ownedVariable == nullptr) {
        fprintf(stderr, "could not prepare a sysroot (see --sysroot)\n");
        return 1;
    }
    const std::string sysroot = sysrootVariable;
    const bool owned = strcmp(ownedVariable, "1") == 0;
    if (!optionsTaken) {
        if (owned) RemoveTree(sysroot);
        return 1;
    }
    g_context.camera = VxCamPort::ResolveDevicePath("/data/vendor/camera");
    g_foundEntries = Entries(g_context.camera);
    g_context.scratch = g_context.camera + "/bench";
    mkdir(g_context.scratch.c_str(), 0755);

    if (VxCam::g_logInfo.offlineLogEnable != 1) {
        fprintf(stderr,
                "offline logging is off under %s: set vendor.camera.vcf.LogOfflineEnable=1 in its "
                "vendor/build.prop\n",
                sysroot.c_str());
        return 1;
    }
    // What a host does once it is up: the masks are loaded, so the call-site gate decides alone.
    VxCam::g_logInfoUpdated = 1;
    VxCamLogSetSink(NullSink);
    g_context.logger = VxCamOfflineLogger::GetInstance(VxCam::OfflineLog);
    if (g_context.logger == nullptr || g_context.logger->GetSettingLink() != 1) {
        fprintf(stderr, "the offline logger did not start under %s (3000 MB free needed)\n",
                sysroot.c_str());
        return 1;
    }
    ChiOfflineLogEntry(&g_table);
    g_table.linkFlushTrigger(VxCam::OfflineLog, FlushServer::Trigger);
    // A line as Log::LogSystem writes it: time, pid, tid, level, tag, frame and text.
    static const char kText[] =
            "11-21 10:00:00:123456789  4242  4243 I VxCam: [INFO    ][CORE   ] CameraNode:812 "
            "ProcessRequest() request 4711 stream 2";
    static_assert(sizeof(kText) - 1 < kLineLength, "the text fits the line");
    memset(g_context.line, ' ', kLineLength);
    memcpy(g_context.line, kText, sizeof(kText) - 1);
    g_context.line[kLineLength - 1] = '\n';

    // Unless told otherwise: repetitions, reported as their statistics, and taken in a shuffled
    // order, so that Flush and Fwrite meet the file system in the same moods.
    std::vector<char*> arguments(argv, argv + argc);
    const auto given = [&](const char* flag) {
        for (int i = 1; i < argc; ++i) {
            if (strncmp(argv[i], flag, strlen(flag)) == 0) return true;
        }
        return false;
    };
    static char repetitions[] = "--benchmark_repetitions=5";
    static char interleaving[] = "--benchmark_enable_random_interleaving=true";
    static char aggregates[] = "--benchmark_display_aggregates_only=true";
    if (!given("--benchmark_repetitions")) arguments.push_back(repetitions);
    if (!given("--benchmark_enable_random_interleaving")) arguments.push_back(interleaving);
    if (!given("--benchmark_display_aggregates_only") &&
        !given("--benchmark_report_aggregates_only")) {
        arguments.push_back(aggregates);
    }
    argc = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    argv = arguments.data();

    RegisterThreadedBenchmarks(threads);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    printf("sysroot: %s%s\n", sysroot.c_str(), owned ? " (temporary)" : "");
    RatioReporter reporter(threads);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    g_context.logger->NotifyCameraClose();
    for (const std::string& name : Entries(g_context.camera)) {
        if (g_foundEntries.count(name) == 0) RemoveTree(g_context.camera + "/" + name);
    }
    if (owned) RemoveTree(sysroot);
    return 0;
}
