// vxcamctl session: runs camera sessions against the library the way a camera host does, through
// the C entry table found with dlopen/dlsym, then reads the session files back and accounts for
// every line it logged. This file holds the command line, the progress bar and the run's story;
// Session.h names the parts it draws on.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "Commands.h"
#include "Session.h"

namespace vxcamctl {

namespace session {

namespace {

constexpr int kExitInterrupted = 128 + SIGINT;  // as a shell reports a run ended by Ctrl-C

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

}  // namespace session

int RunSession(int argc, char** argv) {
    using namespace session;
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
    const unsigned long skipReports = SkipReports();
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
