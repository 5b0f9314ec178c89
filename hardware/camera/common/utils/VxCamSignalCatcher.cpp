// The signal catcher: on a fault, the faulting thread's report into the text log and a crash dump
// file, a flush of every bucket and the crash backup, then the action installed before it.
#include <dlfcn.h>
#include <inttypes.h>
#include <setjmp.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>

#include <VxCamPortPath.h>
#include <utils/CallStack.h>
#include <utils/String8.h>

#include "VxCamOfflineLoggerInternal.h"

namespace VxCam {

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

void RegisterSignalHandlersOnce() {
    if (!s_signalHandlersRegistered.exchange(true)) RegisterSignalHandlers();
}

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

}  // namespace VxCam
