// vxcamctl session: runs camera sessions against the library the way a camera host does, through
// the C entry table found with dlopen/dlsym, then reads the session files back and accounts for
// every line it logged.
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Commands.h"
#include "VxCamOfflineLogger.h"

struct __android_log_message;  // only passed through

namespace vxcamctl {

namespace {

using VxCam::OfflineLoggerType;
using Clock = std::chrono::steady_clock;

constexpr OfflineLoggerType kTextLog = VxCam::OfflineLog;
constexpr char kMarker[] = "vxs ";

struct Options {
    unsigned threads = 4;
    unsigned long lines = 10000;
    unsigned length = 128;
    unsigned sessions = 2;
    unsigned logSystemEvery = 8;  // every n-th line through the debug frame; 0: none
    bool closeWhileLogging = false;
    bool androidLog = false;
    bool quiet = false;
    std::string library = "libvxcamcommonutils.so";
};

void PrintSessionUsage(FILE* out) {
    fprintf(out,
            "usage: vxcamctl session [--threads N] [--lines M] [--length L] [--sessions K]\n"
            "                        [--logsystem-every N] [--close-while-logging]\n"
            "                        [--android-log] [--library PATH] [--quiet] [--sysroot DIR]\n"
            "\n"
            "Runs K camera sessions as a camera host does: loads the library with dlopen, takes\n"
            "the offline-log entry table from ChiOfflineLogEntry, starts the text logger, links a\n"
            "flush trigger served by a flush thread of its own, opens the camera, lets N threads\n"
            "log M lines of L bytes each, and closes the camera. When the sysroot's properties\n"
            "turn offline logging on (vendor.camera.vcf.LogOfflineEnable=1), every N-th line goes\n"
            "through Log::LogSystem instead (default 8; 0 for none).\n"
            "\n"
            "Then it reads the new session folders back and reports, per session and thread, the\n"
            "lines logged, landed, dropped while a camera close was under way (accepted) and "
            "lost.\n"
            "Exit status 1 on any loss, duplicate or line out of order.\n"
            "\n"
            "  --close-while-logging  also close and reopen the camera half way through each\n"
            "                         session, while the threads log\n"
            "  --android-log          keep the Android log (stderr); by default it is silenced\n"
            "  --library PATH         the library to load (default: libvxcamcommonutils.so)\n");
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

// ---- The host's side of the library --------------------------------------------------------

using LogSystemFn = void (*)(unsigned int, const char*, unsigned int, const char*, ...);

struct Library {
    VxCam::OfflineLogEntryTable table = {};
    LogSystemFn logSystem = nullptr;
    bool offlineEnabled = false;  // the debug frame hands its lines to the offline logger
};

void NullLogger(const struct __android_log_message*) {}

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
        using SetLogger = void (*)(void (*)(const struct __android_log_message*));
        auto setLogger =
                reinterpret_cast<SetLogger>(dlsym(RTLD_DEFAULT, "__android_log_set_logger"));
        if (setLogger != nullptr) setLogger(NullLogger);
    }
    return true;
}

// The flush thread: the library calls the trigger with its pool lock held, so the trigger only
// wakes this thread, which runs the flush through the table.
class FlushThread {
  public:
    explicit FlushThread(const VxCam::OfflineLogEntryTable& table) : m_table(table) {
        s_current = this;
        m_thread = std::thread([this] { Run(); });
    }
    ~FlushThread() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        m_wake.notify_one();
        m_thread.join();
        s_current = nullptr;
    }
    static void Trigger(OfflineLoggerType type) {
        FlushThread* self = s_current;
        if (self == nullptr || type != kTextLog) return;
        {
            std::lock_guard<std::mutex> lock(self->m_mutex);
            ++self->m_pending;
        }
        self->m_wake.notify_one();
    }
    unsigned long Flushes() const { return m_flushes.load(); }

  private:
    void Run() {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            m_wake.wait(lock, [this] { return m_stop || m_pending > 0; });
            if (m_pending == 0 && m_stop) return;
            m_pending = 0;
            lock.unlock();
            m_table.flushLog(kTextLog, 0);
            ++m_flushes;
            lock.lock();
        }
    }

    static FlushThread* s_current;
    const VxCam::OfflineLogEntryTable& m_table;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    unsigned long m_pending = 0;
    bool m_stop = false;
    std::atomic<unsigned long> m_flushes{0};
    std::thread m_thread;
};
FlushThread* FlushThread::s_current = nullptr;

// ---- Logging and accounting ----------------------------------------------------------------

struct ThreadRecord {
    unsigned long logged = 0;
    std::vector<unsigned long> mayDrop;  // sequence numbers logged while a close was under way
};

struct Run {
    std::vector<std::vector<ThreadRecord>> records;  // [session][thread]
    std::atomic<unsigned long> progress{0};
    std::atomic<uint32_t> closeEpoch{0};  // odd while a camera close runs
    double loggingSeconds = 0;
};

void LogLines(const Options& options, const Library& library, unsigned session, unsigned thread,
              Run* run) {
    ThreadRecord& record = run->records[session][thread];
    std::string line;
    line.reserve(options.length + 1);
    for (unsigned long seq = 0; seq < options.lines; ++seq) {
        char head[64];
        snprintf(head, sizeof(head), "%s%u %u %lu ", kMarker, session + 1, thread, seq);
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
    library.table.noticeCameraClose(kTextLog);
    run->closeEpoch.fetch_add(1);
}

void ShowProgress(const Options& options, const Run& run, const std::atomic<bool>& done) {
    if (options.quiet || !isatty(STDERR_FILENO)) return;
    const unsigned long total =
            static_cast<unsigned long>(options.threads) * options.lines * options.sessions;
    const auto start = Clock::now();
    bool shown = false;
    while (!done.load()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (Clock::now() - start < std::chrono::seconds(1)) continue;
        const unsigned long now = run.progress.load();
        const unsigned percent = total == 0 ? 100 : static_cast<unsigned>(now * 100 / total);
        char bar[41];
        memset(bar, ' ', 40);
        memset(bar, '#', percent * 40 / 100);
        bar[40] = '\0';
        fprintf(stderr, "\r[%s] %3u%% %lu/%lu lines", bar, percent, now, total);
        shown = true;
    }
    if (shown) fprintf(stderr, "\r%*s\r", 72, "");
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
    std::map<std::pair<unsigned, unsigned>, std::vector<unsigned long>> seqs;  // (session, thread)
    unsigned long foreign = 0;                                                 // not ours
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
                    sscanf(marker + strlen(kMarker), "%u %u %lu", &session, &thread, &seq) != 3) {
                    ++landed->foreign;
                    continue;
                }
                const auto key = std::make_pair(session, thread);
                auto previous = last.find(key);
                if (previous != last.end() && static_cast<long>(seq) <= previous->second) {
                    ++landed->outOfOrder;
                }
                last[key] = static_cast<long>(seq);
                landed->seqs[key].push_back(seq);
            }
            free(line);
            fclose(in);
            landed->bytes += size;
            landed->files.emplace_back(folder + "/" + name, size);
        }
    }
}

long PeakResidentKiB() {
    FILE* status = fopen("/proc/self/status", "r");
    if (status == nullptr) return -1;
    char line[256];
    long kib = -1;
    while (fgets(line, sizeof(line), status) != nullptr) {
        if (sscanf(line, "VmHWM: %ld kB", &kib) == 1) break;
    }
    fclose(status);
    return kib;
}

std::string CameraRoot() {
    const char* sysroot = getenv("VXCAM_SYSROOT");
    std::string root = sysroot != nullptr ? sysroot : "";
    while (!root.empty() && root.back() == '/') root.pop_back();
    return root + "/data/vendor/camera";
}

}  // namespace

int RunSession(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const char* argument = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        unsigned long number = 0;
        auto numeric = [&](unsigned long max, unsigned long min) {
            if (!ParseNumber(value, max, &number) || number < min) {
                fprintf(stderr, "vxcamctl session: %s needs a number from %lu to %lu\n", argument,
                        min, max);
                return false;
            }
            ++i;
            return true;
        };
        if (strcmp(argument, "--help") == 0 || strcmp(argument, "-h") == 0) {
            PrintSessionUsage(stdout);
            return kExitOk;
        } else if (strcmp(argument, "--threads") == 0) {
            if (!numeric(1024, 1)) return kExitUsage;
            options.threads = static_cast<unsigned>(number);
        } else if (strcmp(argument, "--lines") == 0) {
            if (!numeric(1000000000ul, 0)) return kExitUsage;
            options.lines = number;
        } else if (strcmp(argument, "--length") == 0) {
            if (!numeric(1000, 32)) return kExitUsage;
            options.length = static_cast<unsigned>(number);
        } else if (strcmp(argument, "--sessions") == 0) {
            if (!numeric(1000, 1)) return kExitUsage;
            options.sessions = static_cast<unsigned>(number);
        } else if (strcmp(argument, "--logsystem-every") == 0) {
            if (!numeric(1000000, 0)) return kExitUsage;
            options.logSystemEvery = static_cast<unsigned>(number);
        } else if (strcmp(argument, "--close-while-logging") == 0) {
            options.closeWhileLogging = true;
        } else if (strcmp(argument, "--android-log") == 0) {
            options.androidLog = true;
        } else if (strcmp(argument, "--quiet") == 0) {
            options.quiet = true;
        } else if (strcmp(argument, "--library") == 0 && value != nullptr) {
            options.library = value;
            ++i;
        } else if (strcmp(argument, "--sysroot") == 0 && value != nullptr) {
            ++i;  // applied before main
        } else if (strncmp(argument, "--sysroot=", 10) == 0) {
        } else {
            fprintf(stderr, "vxcamctl session: unknown argument '%s'\n\n", argument);
            PrintSessionUsage(stderr);
            return kExitUsage;
        }
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

    const int started = library.table.getSetting(kTextLog);
    if (started != 1) {
        printf("note: GetSettingLink returned %d (under 3000 MB free in %s?); logging goes on\n",
               started, camera.c_str());
    }
    Run run;
    run.records.assign(options.sessions, std::vector<ThreadRecord>(options.threads));
    std::atomic<bool> done{false};
    std::thread progress([&] { ShowProgress(options, run, done); });
    unsigned long flushes = 0;
    {
        FlushThread flusher(library.table);
        library.table.linkFlushTrigger(kTextLog, FlushThread::Trigger);
        const auto start = Clock::now();
        for (unsigned session = 0; session < options.sessions; ++session) {
            library.table.noticeCameraOpen(kTextLog);
            // Taken before the threads start: they may be far along before this thread runs again.
            const unsigned long half = run.progress.load() + options.threads * options.lines / 2;
            std::vector<std::thread> threads;
            for (unsigned t = 0; t < options.threads; ++t) {
                threads.emplace_back(LogLines, std::cref(options), std::cref(library), session, t,
                                     &run);
            }
            if (options.closeWhileLogging) {
                while (run.progress.load() < half) std::this_thread::yield();
                CloseCamera(library, &run);
                library.table.noticeCameraOpen(kTextLog);
            }
            for (std::thread& thread : threads) thread.join();
            CloseCamera(library, &run);
        }
        run.loggingSeconds = std::chrono::duration<double>(Clock::now() - start).count();
        flushes = flusher.Flushes();
    }
    done = true;
    progress.join();

    std::set<std::string> folders;
    for (const std::string& folder : SessionFolders(camera)) {
        if (before.count(folder) == 0) folders.insert(folder);
    }
    Landed landed;
    ReadBack(camera, folders, &landed);

    const unsigned long total =
            static_cast<unsigned long>(options.threads) * options.lines * options.sessions;
    printf("sessions %u, threads %u, lines %lu each, %u bytes per line%s\n", options.sessions,
           options.threads, options.lines, options.length,
           library.offlineEnabled && options.logSystemEvery != 0
                   ? ""
                   : " (no debug-frame lines: offline logging is off)");
    printf("logged %lu lines in %.3f s: %.0f lines/s\n", total, run.loggingSeconds,
           run.loggingSeconds > 0 ? static_cast<double>(total) / run.loggingSeconds : 0.0);
    printf("flushes run by the trigger thread: %lu\n", flushes);
    printf("written %llu bytes in %zu files, %zu session folders under %s\n", landed.bytes,
           landed.files.size(), folders.size(), camera.c_str());
    for (const auto& [name, size] : landed.files) printf("  %s  %llu\n", name.c_str(), size);
    printf("peak resident memory: %ld KiB\n", PeakResidentKiB());

    unsigned long lostTotal = 0, duplicates = 0, acceptedTotal = 0, landedTotal = 0;
    printf("\n%-8s %-7s %10s %10s %16s %8s\n", "session", "thread", "logged", "landed",
           "dropped(close)", "lost");
    for (unsigned s = 0; s < options.sessions; ++s) {
        for (unsigned t = 0; t < options.threads; ++t) {
            const ThreadRecord& record = run.records[s][t];
            std::vector<unsigned long> seqs = landed.seqs[{s + 1, t}];
            std::sort(seqs.begin(), seqs.end());
            const size_t unique =
                    static_cast<size_t>(std::unique(seqs.begin(), seqs.end()) - seqs.begin());
            duplicates += seqs.size() - unique;
            seqs.resize(unique);
            unsigned long accepted = 0, lost = 0;
            for (unsigned long seq = 0; seq < record.logged; ++seq) {
                if (std::binary_search(seqs.begin(), seqs.end(), seq)) continue;
                if (std::binary_search(record.mayDrop.begin(), record.mayDrop.end(), seq)) {
                    ++accepted;
                } else {
                    ++lost;
                }
            }
            printf("%-8u %-7u %10lu %10zu %16lu %8lu\n", s + 1, t, record.logged, unique, accepted,
                   lost);
            lostTotal += lost;
            acceptedTotal += accepted;
            landedTotal += unique;
        }
    }
    printf("\ntotal: logged %lu, landed %lu, dropped during a close %lu (accepted), lost %lu, "
           "duplicated %lu, out of order %lu, foreign lines %lu\n",
           total, landedTotal, acceptedTotal, lostTotal, duplicates, landed.outOfOrder,
           landed.foreign);
    const bool clean = lostTotal == 0 && duplicates == 0 && landed.outOfOrder == 0;
    printf("%s\n", clean ? "result: no loss" : "result: LINES LOST OR DAMAGED");
    return clean ? kExitOk : kExitFindings;
}

}  // namespace vxcamctl
