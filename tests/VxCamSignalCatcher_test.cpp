// The signal catcher, exercised in forked children: each child starts the loggers, installs a
// known handler in the place of the system crash reporter, logs and takes a signal. The parent
// reads what is left on disk.
//
// The catcher runs in the children only, after the test's own handler has replaced whatever the
// sanitizers installed, so the AddressSanitizer build checks it too. The ThreadSanitizer build
// leaves this suite out: the catcher flushes from a signal handler by design.
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <initializer_list>

#include "TestLogger.h"

namespace fs = std::filesystem;
using namespace VxCam;
using namespace vxcamtest;

namespace {
std::atomic<long> g_freeMB{-1};        // what statvfs reports in megabytes; -1: the real answer
int g_recordFd = -1;                   // where the stand-in crash reporter notes its call
std::atomic<int> g_faultOnLogOpen{0};  // a signal to raise when the flush opens a log file
std::atomic<bool> g_deadDisk{false};   // opening a log file never returns
}  // namespace

// The disk the catcher weighs the backup against.
extern "C" int statvfs(const char* path, struct statvfs* out) {
    using Statvfs = int (*)(const char*, struct statvfs*);
    static Statvfs real = reinterpret_cast<Statvfs>(dlsym(RTLD_NEXT, "statvfs"));
    const long freeMB = g_freeMB.load();
    if (freeMB < 0) return real(path, out);
    *out = {};
    out->f_bsize = 1048576;
    out->f_bavail = static_cast<fsblkcnt_t>(freeMB);
    return 0;
}

// A fault inside the crash flush, with the pool lock held; or a disk that no longer answers.
extern "C" FILE* fopen(const char* path, const char* mode) {
    using Fopen = FILE* (*)(const char*, const char*);
    static Fopen real = reinterpret_cast<Fopen>(dlsym(RTLD_NEXT, "fopen"));
    if (path != nullptr && strstr(path, "__Tid") != nullptr) {
        if (const int sig = g_faultOnLogOpen.exchange(0))
            syscall(SYS_tgkill, getpid(), gettid(), sig);
        while (g_deadDisk.load()) pause();
    }
    return real(path, mode);
}

namespace {
// Where a child's main thread takes a signal in a camera close: just after it took, or just before
// it lets go of, the first mutex other than the pool lock that it takes (the logger's flush turn)
// or the second (the capture lock's writers' mutex, for the exclusive hold).
enum LockWindow { kNoWindow, kAfterTaking, kBeforeReleasing };
std::atomic<int> g_lockWindow{kNoWindow};
std::atomic<int> g_lockOrdinal{0};
std::atomic<int> g_mutexesTaken{0};
std::atomic<pid_t> g_lockWindowTid{0};
std::atomic<pthread_mutex_t*> g_windowMutex{nullptr};

bool WatchingThisThread(pthread_mutex_t* mutex) {
    return g_lockWindow.load() != kNoWindow && g_lockWindowTid.load() == gettid() &&
           mutex != VxCamOfflineLogger::m_pOfflineLoggerLock->native_handle();
}

// libc's own definition of a function replaced below, kept in a constant-initialised atomic rather
// than a function-local static: libc++abi guards such a static with a pthread mutex, which would
// call the replacement again before the static is set.
template <typename Function>
Function Next(std::atomic<Function>& cache, const char* name) {
    if (cache.load() == nullptr) cache = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
    return cache.load();
}
}  // namespace

// A camera close takes its flush turn, then the writers' mutex; no other mutex but the pool lock
// comes before them.
extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) {
    static std::atomic<int (*)(pthread_mutex_t*)> real{nullptr};
    const int result = Next(real, "pthread_mutex_lock")(mutex);
    if (WatchingThisThread(mutex) && g_windowMutex.load() == nullptr &&
        ++g_mutexesTaken == g_lockOrdinal.load()) {
        g_windowMutex = mutex;
        if (g_lockWindow.load() == kAfterTaking) {
            g_lockWindow = kNoWindow;
            syscall(SYS_tgkill, getpid(), gettid(), SIGABRT);
        }
    }
    return result;
}

extern "C" int pthread_mutex_unlock(pthread_mutex_t* mutex) {
    static std::atomic<int (*)(pthread_mutex_t*)> real{nullptr};
    if (WatchingThisThread(mutex) && mutex == g_windowMutex.load()) {
        g_lockWindow = kNoWindow;
        syscall(SYS_tgkill, getpid(), gettid(), SIGABRT);
    }
    return Next(real, "pthread_mutex_unlock")(mutex);
}

namespace {

constexpr int kDebuggerSignal = 35;
constexpr int kChainedExit = 42;  // the previous handler ran and ended the child
constexpr int kChildFailed = kChildReturned;

void NoteCall(const std::string& text) {
    if (write(g_recordFd, text.data(), text.size()) < 0) _exit(kChildFailed);
}

__attribute__((noinline)) void NoteWithInfo(int sig, const siginfo_t* info, uintptr_t live) {
    NoteCall("sig " + std::to_string(sig) + " signo " + std::to_string(info->si_signo) + " code " +
             std::to_string(info->si_code) + " live " + std::to_string(live));
    if (sig != kDebuggerSignal) _exit(kChainedExit);
}

// On a device the catcher runs on the crash reporter's small alternate stack, and the previous
// handler then runs on top of whatever the catcher still holds there: what lies between the
// signal context and a marker in this frame.
void PreviousWithInfo(int sig, siginfo_t* info, void* context) {
    volatile char marker = 0;
    NoteWithInfo(sig, info,
                 reinterpret_cast<uintptr_t>(context) - reinterpret_cast<uintptr_t>(&marker));
}

void PreviousPlain(int sig) {
    NoteCall("sig " + std::to_string(sig) + " plain");
    if (sig != kDebuggerSignal) _exit(kChainedExit);
}

struct sigaction Previous(bool withInfo) {
    struct sigaction previous = {};
    if (withInfo) {
        previous.sa_sigaction = PreviousWithInfo;
        previous.sa_flags = SA_SIGINFO;
    } else {
        previous.sa_handler = PreviousPlain;
    }
    return previous;
}

// In a child: `previous` takes the crash reporter's place for `signals`, the loggers start (one
// with a pool registers the catcher over it) and the camera opens.
VxCamOfflineLogger* StartCamera(const struct sigaction& previous,
                                std::initializer_list<int> signals) {
    for (int sig : signals) sigaction(sig, &previous, nullptr);
    g_freeMB = 100000;
    VxCamOfflineLogger* text = VxCamOfflineLogger::GetInstance(OfflineLog);
    if (text->GetSettingLink() != 1 ||
        VxCamOfflineLogger::GetInstance(CoredumpTxt)->GetSettingLink() != 1)
        _exit(kChildFailed);
    text->NotifyCameraOpen();
    return text;
}

void RaiseHere(int sig) {
    syscall(SYS_tgkill, getpid(), gettid(), sig);
}

// Runs `body` in a forked child on a fresh sysroot `root`, its calls to the previous handlers
// noted in the file "record" there.
ChildEnd InChild(const TempDir& root, const std::function<void()>& body) {
    return RunInChild(root, [&] {
        g_recordFd = open((root / "record").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        body();
    });
}

// The first entry of `folder` whose name starts with `prefix`, or "".
std::string Find(const std::string& folder, const std::string& prefix) {
    for (const auto& entry : fs::directory_iterator(folder)) {
        if (entry.path().filename().string().rfind(prefix, 0) == 0) return entry.path().string();
    }
    return std::string();
}

struct CrashCase {
    int sig;
    bool withInfo;    // the previous handler takes SA_SIGINFO
    long freeMB;      // free space when the signal arrives (the minimum for a backup is 3000)
    bool flushFirst;  // the session has a prefix before the signal
    bool expectBackup;
};

const CrashCase kCases[] = {
        {SIGSEGV, true, 3001, true, true},
        {SIGABRT, false, 3000, false, false},
        {SIGBUS, true, 2000, true, false},
        {SIGFPE, false, 100000, false, true},
        {SIGILL, true, 100000, true, true},
        {SIGSYS, false, 100000, false, true},
        {SIGTRAP, true, 100000, true, true},
        {kDebuggerSignal, false, 100000, true, false},
        {kDebuggerSignal, true, 100000, false, false},
};

// The child: one thread logs and ends before the fault, another logs and takes the signal. Only
// signal 35 comes back: the catcher has flushed nothing, and the child's own flush then writes
// what the catcher added to the log.
[[noreturn]] void RunChild(const CrashCase& c) {
    VxCamOfflineLogger* text = StartCamera(Previous(c.withInfo), {c.sig});
    OnNewThread([text] { LogNumbered(*text, 0, 0, 100, 40); });  // its bucket waits for the flush
    if (c.flushFirst) text->FlushLogToFile(0, 0);  // names the session; nothing is queued enough
    OnNewThread([&c, text] {
        LogNumbered(*text, 1, 0, 50, 40);
        g_freeMB = c.freeMB;
        RaiseHere(c.sig);
    });
    if (!TextUnder("data/vendor/camera", ".txt").empty()) _exit(kChildFailed);
    text->FlushLogToFile(1, 0);
    _exit(text->GetSignal35TombstoneTriggered() == 1 ? 0 : kChildFailed);
}

TEST(SignalCatcher, ReportsFlushesBacksUpAndChains) {
    for (const CrashCase& c : kCases) {
        SCOPED_TRACE("signal " + std::to_string(c.sig) + (c.withInfo ? " siginfo" : " plain"));
        TempDir root;
        const std::string camera = root / "data/vendor/camera";
        const ChildEnd child = InChild(root, [&] { RunChild(c); });
        const bool debugger = c.sig == kDebuggerSignal;
        // A fatal signal reaches the previous handler, which ends the child; signal 35 returns to
        // the child, which then finds the tombstone flag set.
        ASSERT_EQ(child.exitCode, debugger ? 0 : kChainedExit) << "signal " << child.signal;
        const std::string record = ReadFile(root / "record");
        const std::string call = "sig " + std::to_string(c.sig) +
                                 (c.withInfo ? " signo " + std::to_string(c.sig) + " code " +
                                                       std::to_string(SI_TKILL) + " live "
                                             : " plain");
        EXPECT_EQ(c.withInfo ? record.substr(0, call.size()) : record, call);
        // The catcher's live stack while it chains: 673 bytes on x86_64, 913 on aarch64 (qemu).
        EXPECT_TRUE(!c.withInfo || atol(record.c_str() + call.size()) < 2048) << record;

        // Before the first flush the session has no prefix: the dump takes a relative name.
        const std::string session = Find(camera, "VxCam_OfflineLog_");
        const std::string prefix = session.empty() ? "" : Find(session, "VxCam_OfflineLog_");
        const std::string dumpPath =
                c.flushFirst ? prefix.substr(0, prefix.find("__")) + "__Session1_Crash_Dump.log"
                             : root / "_Session1_Crash_Dump.log";
        const std::string dump = ReadFile(dumpPath);
        // The catcher's own frames and the signal trampoline are left out: the first line is the
        // call that raised the signal.
        const std::string firstFrame = dump.substr(0, dump.find('\n'));
        EXPECT_NE(firstFrame.find(" F DEBUG   : #0"), std::string::npos) << dumpPath << dump;
        EXPECT_NE(firstFrame.find("(syscall+"), std::string::npos) << dump;
        EXPECT_EQ(dump.find("(VxCam::SignalCatcher("), std::string::npos) << dump;
        EXPECT_EQ(dump.find("ReportCrash("), std::string::npos) << dump;
        EXPECT_EQ(dump.find("*** ***"), std::string::npos) << "the header stays out of the dump";

        const std::string logs = TextUnder(session, ".txt");
        for (int i = 0; i < 150; ++i) {
            EXPECT_NE(logs.find(Numbered(i / 100, i % 100, 40)), std::string::npos) << i;
        }
        // The header follows the last line the thread logged; the stack lines go into the log
        // on a crash only.
        const std::string signalLine = " F DEBUG   : signal " + std::to_string(c.sig) + ", code " +
                                       std::to_string(SI_TKILL) + ", fault addr ";
        EXPECT_LT(logs.find(Numbered(1, 49, 40)), logs.find(signalLine)) << logs;
        EXPECT_NE(logs.find(" F DEBUG   : pid: " + std::to_string(child.pid) + ", tid: "),
                  std::string::npos);
        EXPECT_EQ(logs.find(firstFrame) != std::string::npos, !debugger) << logs;

        const std::string backup = Find(camera, "OfflineLog_CrashLog_");
        EXPECT_EQ(!backup.empty(), c.expectBackup);
        EXPECT_EQ(TextUnder(backup, ".txt"), c.expectBackup ? logs : "");
    }
}

// A signal the catcher was not registered for is reported and not passed on.
TEST(SignalCatcher, UnknownSignalIsNotChained) {
    TempDir root;
    const ChildEnd child = CheckInChild(root, [] {
        LogCapture capture;
        StartCamera(Previous(false), {});
        siginfo_t info = {};
        info.si_signo = SIGUSR1;
        SignalCatcher(SIGUSR1, &info, nullptr);
        EXPECT_EQ(
                Count(capture, "SignalCatcher\\(\\):\\d+ Signal 10 received, No action matching\n"),
                1u);
    });
    EXPECT_EQ(child.exitCode, 0);
}

// ---- The crash report and the logger's locks ---------------------------------------------------
// Whatever lock the faulting thread holds or is taking, the report neither waits for itself nor
// for ever: it says in the dump when it cannot write the buckets, gives up after a few seconds
// when another thread or the disk keeps it waiting, and always reaches the previous handler; nor
// does it loop into itself when a host registered it again, or report a second fault that comes
// while it reports the first.

enum class Crash {
    kRegisteredTwice,     // the host registered the catcher again
    kNestedFault,         // an abort inside the crash flush, as it opens a log file
    kTakingTurn,          // camera close: its flush turn taken, not yet noted as held
    kReleasingTurn,       // camera close: the turn being given back, everything written
    kTakingExclusive,     // camera close: the writers' mutex taken, the readers not yet drained
    kReleasingExclusive,  // camera close: the hold being given back, the files not yet written
    kHoldingTurn,         // camera close: its flush begins, the turn held and nothing else
    kWritingFiles,        // camera close: opening a log file, the buckets taken
    kInsideALine,         // a line read from a bad pointer, the capture lock held shared
    kInFlushTrigger,      // the host's flush trigger, called with the pool lock held
    kPoolLockElsewhere,   // another thread's flush trigger never returns
    kDeadDisk,            // the crash flush cannot open a log file
};

constexpr const char kHeldHere[] =
        "offline log not flushed: the crash came while this thread held the logger's lock";
constexpr const char kStopped[] = "crash report stopped after 5 s";

const struct LockCase {
    Crash crash;
    const char* name;
    int chained;       // the signal the previous handler gets
    bool flushed;      // the line logged before the crash is on disk
    const char* note;  // what the dump says about the buckets, or nullptr
} kLockCases[] = {
        {Crash::kRegisteredTwice, "registered twice", SIGSEGV, true, nullptr},
        {Crash::kNestedFault, "a fault inside the report", SIGABRT, false, nullptr},
        {Crash::kTakingTurn, "taking the flush turn", SIGABRT, false, kHeldHere},
        {Crash::kReleasingTurn, "releasing the flush turn", SIGABRT, true, kHeldHere},
        {Crash::kTakingExclusive, "taking the exclusive hold", SIGABRT, false, kHeldHere},
        {Crash::kReleasingExclusive, "releasing the exclusive hold", SIGABRT, false, kHeldHere},
        {Crash::kHoldingTurn, "holding the flush turn", SIGABRT, true, nullptr},
        {Crash::kWritingFiles, "writing the close's files", SIGABRT, true, nullptr},
        {Crash::kInsideALine, "inside a line", SIGSEGV, true, nullptr},
        {Crash::kInFlushTrigger, "inside the flush trigger", SIGABRT, false, kHeldHere},
        {Crash::kPoolLockElsewhere, "pool lock held elsewhere", SIGABRT, false, kStopped},
        {Crash::kDeadDisk, "dead disk", SIGABRT, false, kStopped},
};

enum TriggerAction { kTriggerNothing, kTriggerCrashes, kTriggerNeverReturns };
std::atomic<int> g_triggerAction{kTriggerNothing};
std::atomic<bool> g_triggerEntered{false};

void Trigger(OfflineLoggerType) {
    g_triggerEntered = true;
    if (g_triggerAction == kTriggerCrashes) RaiseHere(SIGABRT);
    while (g_triggerAction == kTriggerNeverReturns) pause();
}

// A close whose flush faults first thing, with the flush turn held and nothing else.
class CrashingFlushLogger : public TestLogger {
  public:
    CrashingFlushLogger() : TestLogger(OfflineLog, {1, 1, 6, 4096}) {}
    int FlushLogToFile(int flushAll, int backup) override {
        if (flushAll == 1) RaiseHere(SIGABRT);
        return TestLogger::FlushLogToFile(flushAll, backup);
    }
};

constexpr char kLastLine[] = "the last line before the crash\n";

void CrashInChild(const LockCase& c) {
    VxCamOfflineLogger* text = StartCamera(Previous(false), {SIGABRT, SIGSEGV});
    text->SetFlushTriggerLink(Trigger);
    text->AddLog(kLastLine, sizeof(kLastLine) - 1);
    text->FlushLogToFile(0, 0);  // names the session, so the dump lands beside its files
    const pid_t self = gettid();
    switch (c.crash) {
        case Crash::kRegisteredTwice:
            RegisterSignalHandlers();
            RaiseHere(SIGSEGV);
            break;
        case Crash::kNestedFault:
            g_faultOnLogOpen = SIGABRT;
            RaiseHere(SIGSEGV);
            break;
        case Crash::kTakingTurn:
        case Crash::kReleasingTurn:
        case Crash::kTakingExclusive:
        case Crash::kReleasingExclusive: {
            const bool turn = c.crash == Crash::kTakingTurn || c.crash == Crash::kReleasingTurn;
            g_lockWindowTid = self;
            g_lockOrdinal = turn ? 1 : 2;
            g_lockWindow = c.crash == Crash::kTakingTurn || c.crash == Crash::kTakingExclusive
                                   ? kAfterTaking
                                   : kBeforeReleasing;
            text->NotifyCameraClose();
            break;
        }
        case Crash::kHoldingTurn:
            (new CrashingFlushLogger)->NotifyCameraClose();
            break;
        case Crash::kWritingFiles:
            g_faultOnLogOpen = SIGABRT;
            text->NotifyCameraClose();
            break;
        case Crash::kInsideALine: {
            // Binary records are copied as given; this one cannot be read.
            void* unreadable = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            VxCamOfflineLogger* binary = VxCamOfflineLogger::GetInstance(BinaryLog);
            binary->AddLog("x", 1);
            binary->AddLog(static_cast<const char*>(unreadable), 64);
            break;
        }
        case Crash::kInFlushTrigger:
            g_triggerAction = kTriggerCrashes;
            text->RequestFlushLogQueue(0, 0);
            break;
        case Crash::kPoolLockElsewhere:
            g_triggerAction = kTriggerNeverReturns;
            std::thread([text] { text->RequestFlushLogQueue(0, 0); }).detach();
            while (!g_triggerEntered) usleep(1000);
            RaiseHere(SIGABRT);
            break;
        case Crash::kDeadDisk:
            g_deadDisk = true;
            RaiseHere(SIGABRT);
            break;
    }
}

TEST(SignalCatcher, NoLockWindowKeepsTheCrashFromThePreviousHandler) {
    for (const LockCase& c : kLockCases) {
        SCOPED_TRACE(c.name);
        TempDir root;
        const ChildEnd child = InChild(root, [&] { CrashInChild(c); });
        EXPECT_EQ(child.exitCode, kChainedExit) << "signal " << child.signal;
        EXPECT_EQ(ReadFile(root / "record"), "sig " + std::to_string(c.chained) + " plain");
        // A crash after a close has begun writes into the next session's folder too; the dump of a
        // session without a prefix yet goes to the working folder.
        const std::string logs = TextUnder(root / "data/vendor/camera", ".txt");
        EXPECT_EQ(logs.find(kLastLine) != std::string::npos, c.flushed) << logs;
        const std::string dumps = TextUnder(root.Path(), "_Crash_Dump.log");
        // The stack starts at the faulting call, wherever the fault was.
        if (c.crash != Crash::kInsideALine) {
            EXPECT_NE(dumps.find("(syscall+"), std::string::npos) << dumps;
        }
        EXPECT_EQ(dumps.find(c.note ? c.note : "offline log not flushed") != std::string::npos,
                  c.note != nullptr)
                << dumps;
        EXPECT_TRUE(c.note != nullptr || dumps.find("stopped") == std::string::npos) << dumps;
    }
}

}  // namespace
