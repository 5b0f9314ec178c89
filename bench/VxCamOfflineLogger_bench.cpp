// What a line costs a camera thread, side by side with spdlog, measured in one run on one machine:
//
//   AddLog            a pre-formatted 128-byte line into the thread's bucket, 1 and 2 threads
//   MemcpyLowerBound  the same line copied into a 3 MiB per-thread buffer: the floor for AddLog
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
// Ratios of the medians are printed at the end. Flushes needed by the capture benchmarks run
// while the clock is stopped: the host runs them on a thread of its own, and they are measured
// on their own by Flush.
//
//   VxCamOfflineLogger_bench [--sysroot DIR] [google-benchmark flags]
//
// Without --sysroot the files go to a temporary sysroot, removed at the end. The library reads its
// properties while it loads, so the program runs itself again with VXCAM_SYSROOT set. On a device
// the library takes its paths and properties as they stand: the files go to /data/vendor/camera,
// and vendor.camera.vcf.LogOfflineEnable must be 1 before the program starts.
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
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

using VxCam::VxCamOfflineLogger;
using vxcambench::g_context;
using vxcambench::kCaptureLines;
using vxcambench::kLineLength;
using vxcambench::Message;

constexpr unsigned kBucketSize = 3145728;
constexpr unsigned kLinesPerBucket = kBucketSize / kLineLength;
constexpr unsigned kFlushBatch = 6;  // the text log's batch: a normal flush writes at 6 requests
constexpr int64_t kFlushRounds = 8;  // batches of full buckets per run of Flush

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

void BM_MemcpyLowerBound(benchmark::State& state) {
    std::vector<char> buffer(kBucketSize, 0);  // touched before the clock starts
    char* bucket = buffer.data();
    const char* line = g_context.line;
    size_t length = kLineLength;
    benchmark::DoNotOptimize(length);  // copied as the logger copies: a length known at run time
    size_t position = 0;
    for (auto _ : state) {
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

BENCHMARK(BM_AddLog)->Iterations(kCaptureLines)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_MemcpyLowerBound)->Iterations(kCaptureLines)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_LogSystem)->UseRealTime();
BENCHMARK(BM_FilteredMessage)->UseRealTime();
BENCHMARK(BM_Flush)->Iterations(kFlushRounds)->UseRealTime();
BENCHMARK(BM_Fwrite)->Iterations(kFlushRounds)->UseRealTime();

// ---- Ratios ---------------------------------------------------------------------------------

// The console report, then each goal as a ratio of medians (of the single run without
// repetitions).
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.run_type == Run::RT_Aggregate && !median) continue;
            std::string key = run.run_name.function_name;
            if (!run.run_name.threads.empty()) key += "/" + run.run_name.threads;
            Figure& figure = m_figures[key];
            if (figure.fromMedian && !median) continue;
            figure.fromMedian = median;
            figure.nsPerItem = run.GetAdjustedRealTime();  // the unit is ns throughout
            figure.cpuNsPerItem = run.GetAdjustedCPUTime();
            auto rate = run.counters.find("items_per_second");
            figure.itemsPerSecond = rate != run.counters.end() ? rate->second.value : 0.0;
            auto bytes = run.counters.find("bytes_per_second");
            figure.bytesPerSecond = bytes != run.counters.end() ? bytes->second.value : 0.0;
            ++figure.repetitions;
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        FILE* out = stdout;
        fprintf(out, "\nFigures (%s):\n",
                AnyMedian() ? "medians of the repetitions" : "single runs; add repetitions");
        const Figure* addLog1 = Find("BM_AddLog/threads:1");
        const Figure* addLog2 = Find("BM_AddLog/threads:2");
        const Figure* copy = Find("BM_MemcpyLowerBound/threads:1");
        const Figure* sync = Find("BM_SpdlogSync");
        const Figure* async = Find("BM_SpdlogAsync");
        const Figure* frame = Find("BM_LogSystem");
        const Figure* spdFrame = Find("BM_SpdlogDefaultPattern");
        const Figure* gate = Find("BM_FilteredMessage");
        const Figure* flush = Find("BM_Flush");
        const Figure* fwrite = Find("BM_Fwrite");
        if (addLog1 != nullptr) {
            fprintf(out, "  AddLog, 1 thread             %8.2f ns/line  %14.0f lines/s\n",
                    addLog1->nsPerItem, addLog1->itemsPerSecond);
        }
        if (addLog2 != nullptr) {
            fprintf(out, "  AddLog, 2 threads            %8.2f ns/line  %14.0f lines/s\n",
                    addLog2->nsPerItem, addLog2->itemsPerSecond);
        }
        if (copy != nullptr) {
            fprintf(out, "  memcpy lower bound, 1 thread %8.2f ns/line  %14.0f lines/s\n",
                    copy->nsPerItem, copy->itemsPerSecond);
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

        fprintf(out, "\nGoals:\n");
        if (addLog1 != nullptr && copy != nullptr) {
            Ratio(out, "AddLog / memcpy lower bound, 1 thread",
                  addLog1->nsPerItem / copy->nsPerItem, "at most", 2.0);
        }
        if (addLog1 != nullptr && sync != nullptr) {
            Ratio(out, "spdlog synchronous / AddLog, 1 thread",
                  sync->nsPerItem / addLog1->nsPerItem, "at least", 5.0);
        }
        if (addLog1 != nullptr && async != nullptr) {
            fprintf(out, "  %-46s %8.2f\n", "spdlog asynchronous / AddLog, 1 thread",
                    async->nsPerItem / addLog1->nsPerItem);
        }
        if (addLog1 != nullptr && addLog2 != nullptr) {
            Ratio(out, "AddLog lines/s, 2 threads / 1 thread",
                  addLog2->itemsPerSecond / addLog1->itemsPerSecond, "at least", 1.8);
            // Near 1 when the threads do not slow each other down; the wall-clock ratio above
            // also depends on how much of the second core the machine had to give.
            fprintf(out, "  %-46s %8.2f\n", "AddLog CPU time per line, 2 threads / 1 thread",
                    addLog2->cpuNsPerItem / addLog1->cpuNsPerItem);
        }
        if (frame != nullptr && spdFrame != nullptr) {
            Ratio(out, "Log::LogSystem / spdlog default pattern",
                  frame->nsPerItem / spdFrame->nsPerItem, "at most", 1.0);
        }
        if (gate != nullptr) {
            Ratio(out, "filtered message, ns", gate->nsPerItem, "under", 2.0);
        }
        if (flush != nullptr && fwrite != nullptr) {
            Ratio(out, "FlushLogToFile / fwrite throughput",
                  flush->bytesPerSecond / fwrite->bytesPerSecond, "at least", 0.8);
        }
    }

  private:
    struct Figure {
        double nsPerItem = 0;
        double cpuNsPerItem = 0;  // summed over the threads
        double itemsPerSecond = 0;
        double bytesPerSecond = 0;
        bool fromMedian = false;
        int repetitions = 0;
    };

    const Figure* Find(const std::string& name) const {
        auto found = m_figures.find(name);
        return found != m_figures.end() ? &found->second : nullptr;
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
        fprintf(out, "  %-46s %8.2f  (goal: %s %.1f)  %s\n", name, value, relation, bound,
                met ? "met" : "NOT MET");
    }

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

// Takes --sysroot out of the arguments: it was applied before main().
void DropSysrootOption(int* argc, char** argv) {
    int out = 1;
    for (int i = 1; i < *argc; ++i) {
        if (strcmp(argv[i], "--sysroot") == 0 && i + 1 < *argc) {
            ++i;
        } else if (!StartsWith(argv[i], "--sysroot=")) {
            argv[out++] = argv[i];
        }
    }
    *argc = out;
    argv[out] = nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    DropSysrootOption(&argc, argv);
    const char* sysrootVariable = getenv("VXCAM_SYSROOT");
    const char* ownedVariable = getenv(kOwnedSysroot);
    if (sysrootVariable == nullptr || ownedVariable == nullptr) {
        fprintf(stderr, "could not prepare a sysroot (see --sysroot)\n");
        return 1;
    }
    const std::string sysroot = sysrootVariable;
    const bool owned = strcmp(ownedVariable, "1") == 0;
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

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    printf("sysroot: %s%s\n", sysroot.c_str(), owned ? " (temporary)" : "");
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    g_context.logger->NotifyCameraClose();
    for (const std::string& name : Entries(g_context.camera)) {
        if (g_foundEntries.count(name) == 0) RemoveTree(g_context.camera + "/" + name);
    }
    if (owned) RemoveTree(sysroot);
    return 0;
}
