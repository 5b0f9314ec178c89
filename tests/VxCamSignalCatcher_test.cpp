// The signal catcher, in forked children that start the loggers, install a known handler in the
// crash reporter's place, log and take a signal. It runs after the test's handler has replaced the
// sanitizers', so ASan checks it too; TSan leaves it out, as it flushes from a signal handler.
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

void RaiseHere(int sig) {
    syscall(SYS_tgkill, getpid(), gettid(), sig);
}

// libc's own definition of a function replaced below, kept in a constant-initialised atomic: a
// function-local static is guarded by a pthread mutex, which would call the replacement again.
template <typename Function>
Function Next(std::atomic<Function>& cache, const char* name) {
    if (cache.load() == nullptr) cache = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
    return cache.load();
}
}  // namespace

// The disk the catcher weighs the backup against.
extern "C" int statvfs(const char* path, struct statvfs* out) {
    static std::atomic<int (*)(const char*, struct statvfs*)> real{nullptr};
    if (g_freeMB.load() < 0) return Next(real, "statvfs")(path, out);
    *out = {};
    out->f_bsize = 1048576;
    out->f_bavail = static_cast<fsblkcnt_t>(g_freeMB.load());
    return 0;
}

// A fault inside the crash flush, with the pool lock held; or a disk that no longer answers.
extern "C" FILE* fopen(const char* path, const char* mode) {
    static std::atomic<FILE* (*)(const char*, const char*)> real{nullptr};
    if (path != nullptr && strstr(path, "__Tid") != nullptr) {
        if (const int sig = g_faultOnLogOpen.exchange(0)) RaiseHere(sig);
        while (g_deadDisk.load()) pause();
    }
    return Next(real, "fopen")(path, mode);
}

// A camera close takes its flush turn, then the capture lock's writers' mutex, and no other mutex
// but the pool lock before them. The watched thread takes a signal just after it took, or just
// before it lets go of, the mutex with the chosen ordinal.
namespace {
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
}  // namespace

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) {
    static std::atomic<int (*)(pthread_mutex_t*)> real{nullptr};
    const int result = Next(real, "pthread_mutex_lock")(mutex);
    if (WatchingThisThread(mutex) && g_windowMutex.load() == nullptr &&
        ++g_mutexesTaken == g_lockOrdinal.load()) {
        g_windowMutex = mutex;
        if (g_lockWindow.load() == kAfterTaking) {
            g_lockWindow = kNoWindow;
            RaiseHere(SIGABRT);
        }
    }
    return result;
}

extern "C" int pthread_mutex_unlock(pthread_mutex_t* mutex) {
    static std::atomic<int (*)(pthread_mutex_t*)> real{nullptr};
    if (WatchingThisThread(mutex) && mutex == g_windowMutex.load()) {
        g_lockWindow = kNoWindow;
        RaiseHere(SIGABRT);
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
// handler then runs on top of what the catcher still holds there: between the signal context and
// a marker in this frame.
void PreviousWithInfo(int sig, siginfo_t* info, void* context) {
    volatile char marker = 0;
    NoteWithInfo(sig, info,
                 reinterpret_cast<uintptr_t>(context) - reinterpret_cast<uintptr_t>(&marker));
}

void PreviousPlain(int sig) {
    NoteCall("sig " + std::to_string(sig) + " plain");
    if (sig != kDebuggerSignal) _exit(kChainedExit);
}

// In a child: a previous handler takes the crash reporter's place for `signals`, the loggers start
// (one with a pool registers the catcher over it) and the camera opens.
VxCamOfflineLogger* StartCamera(bool withInfo, std::initializer_list<int> signals) {
    struct sigaction previous = {};
    if (withInfo) {
        previous.sa_sigaction = PreviousWithInfo;
        previous.sa_flags = SA_SIGINFO;
    } else {
        previous.sa_handler = PreviousPlain;
    }
    for (int sig : signals) sigaction(sig, &previous, nullptr);
    g_freeMB = 100000;
    VxCamOfflineLogger* text = VxCamOfflineLogger::GetInstance(OfflineLog);
    if (text->GetSettingLink() != 1 ||
        VxCamOfflineLogger::GetInstance(CoredumpTxt)->GetSettingLink() != 1)
        _exit(kChildFailed);
    text->NotifyCameraOpen();
    return text;
}

// Runs `body` in a forked child on a fresh sysroot `root`, noting its calls to the previous
// handlers in the file "record" there.
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

const struct CrashCase {
    int sig;
    bool withInfo;    // the previous handler takes SA_SIGINFO
    long freeMB;      // free space when the signal arrives (a backup needs 3000)
    bool flushFirst;  // the session has a prefix before the signal
    bool expectBackup;
} kCases[] = {
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

// One thread logs and ends before the fault, another logs and takes the signal. Only signal 35
// comes back: the catcher has flushed nothing, and the child's own flush then writes what the
// catcher added to the log.
[[noreturn]] void RunChild(const CrashCase& c) {
    VxCamOfflineLogger* text = StartCamera(c.withInfo, {c.sig});
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

        // Before the first flush the session has no prefix: the dump takes a relative name. Its
        // first line is the call that raised the signal, not the catcher's frames or trampoline.
        const std::string session = Find(camera, "VxCam_OfflineLog_");
        const std::string prefix = session.empty() ? "" : Find(session, "VxCam_OfflineLog_");
        const std::string dump = ReadFile(c.flushFirst ? prefix.substr(0, prefix.find("__")) +
                                                                 "__Session1_Crash_Dump.log"
                                                       : root / "_Session1_Crash_Dump.log");
        const std::string firstFrame = dump.substr(0, dump.find('\n'));
        EXPECT_TRUE(firstFrame.find(" F DEBUG   : #0") != std::string::npos &&
                    firstFrame.find("(syscall+") != std::string::npos &&
                    dump.find("(VxCam::SignalCatcher(") == std::string::npos &&
                    dump.find("ReportCrash(") == std::string::npos &&
                    dump.find("*** ***") == std::string::npos)
                << dump;

        // The header follows the thread's last line; the stack goes into the log on a crash only.
        const std::string logs = TextUnder(session, ".txt");
        for (int i = 0; i < 150; ++i)
            EXPECT_NE(logs.find(Numbered(i / 100, i % 100, 40)), std::string::npos) << i;
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

// Whatever lock the faulting thread holds or is taking, the report neither waits for itself nor
// for ever: it says in the dump when it cannot write the buckets, gives up after 5 s when another
// thread or the disk keeps it waiting, and always reaches the previous handler; nor does it loop
// into itself when the host registered it again, or report a fault inside the report.
enum TriggerAction { kTriggerNothing, kTriggerCrashes, kTriggerNeverReturns };
std::atomic<int> g_triggerAction{kTriggerNothing};
std::atomic<bool> g_triggerEntered{false};

void Trigger(OfflineLoggerType) {
    g_triggerEntered = true;
    if (g_triggerAction == kTriggerCrashes) RaiseHere(SIGABRT);
    while (g_triggerAction == kTriggerNeverReturns) pause();
}

// A close whose flush faults first thing, with the flush turn held and nothing else.
struct CrashingFlushLogger : TestLogger {
    CrashingFlushLogger() : TestLogger(OfflineLog, {1, 1, 6, 4096}) {}
    int FlushLogToFile(int flushAll, int backup) override {
        if (flushAll == 1) RaiseHere(SIGABRT);
        return TestLogger::FlushLogToFile(flushAll, backup);
    }
};

// A camera close that takes SIGABRT in a window of the mutex with the given ordinal: 1, its flush
// turn; 2, the writers' mutex of the exclusive hold.
void CloseInWindow(VxCamOfflineLogger* text, int ordinal, LockWindow window) {
    g_lockWindowTid = gettid();
    g_lockOrdinal = ordinal;
    g_lockWindow = window;
    text->NotifyCameraClose();
}

constexpr const char kHeldHere[] =
        "offline log not flushed: the crash came while this thread held the logger's lock";
constexpr const char kStopped[] = "crash report stopped after 5 s";
constexpr char kLastLine[] = "the last line before the crash\n";

TEST(SignalCatcher, NoLockWindowKeepsTheCrashFromThePreviousHandler) {
    const struct {
        const char* name;
        int chained;       // the signal the previous handler gets
        bool flushed;      // the line logged before the crash is on disk
        const char* note;  // what the dump says about the buckets, or nullptr
        std::function<void(VxCamOfflineLogger*)> crash;
    } kCases[] = {
            {"registered twice", SIGSEGV, true, nullptr,
             [](auto) {
                 RegisterSignalHandlers();
                 RaiseHere(SIGSEGV);
             }},
            {"an abort inside the crash flush, as it opens a log file", SIGABRT, false, nullptr,
             [](auto) {
                 g_faultOnLogOpen = SIGABRT;
                 RaiseHere(SIGSEGV);
             }},
            {"close: its flush turn taken, not yet noted as held", SIGABRT, false, kHeldHere,
             [](auto text) { CloseInWindow(text, 1, kAfterTaking); }},
            {"close: the turn being given back, all written", SIGABRT, true, kHeldHere,
             [](auto text) { CloseInWindow(text, 1, kBeforeReleasing); }},
            {"close: the writers' mutex taken, readers not drained", SIGABRT, false, kHeldHere,
             [](auto text) { CloseInWindow(text, 2, kAfterTaking); }},
            {"close: the hold being given back, nothing written", SIGABRT, false, kHeldHere,
             [](auto text) { CloseInWindow(text, 2, kBeforeReleasing); }},
            {"close: its flush begins, holding only the turn", SIGABRT, true, nullptr,
             [](auto) { (new CrashingFlushLogger)->NotifyCameraClose(); }},
            {"close: opening a log file, the buckets taken", SIGABRT, true, nullptr,
             [](auto text) {
                 g_faultOnLogOpen = SIGABRT;
                 text->NotifyCameraClose();
             }},
            {"inside a line, reading a binary record that is unreadable", SIGSEGV, true, nullptr,
             [](auto) {
                 VxCamOfflineLogger* binary = VxCamOfflineLogger::GetInstance(BinaryLog);
                 binary->AddLog("x", 1);
                 binary->AddLog(static_cast<const char*>(mmap(nullptr, 4096, PROT_NONE,
                                                              MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)),
                                64);
             }},
            {"inside the flush trigger, the pool lock held", SIGABRT, false, kHeldHere,
             [](auto text) {
                 g_triggerAction = kTriggerCrashes;
                 text->RequestFlushLogQueue(0, 0);
             }},
            {"another thread's flush trigger never returns", SIGABRT, false, kStopped,
             [](auto text) {
                 g_triggerAction = kTriggerNeverReturns;
                 std::thread([text] { text->RequestFlushLogQueue(0, 0); }).detach();
                 while (!g_triggerEntered) usleep(1000);
                 RaiseHere(SIGABRT);
             }},
            {"a dead disk", SIGABRT, false, kStopped,
             [](auto) {
                 g_deadDisk = true;
                 RaiseHere(SIGABRT);
             }},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.name);
        TempDir root;
        const ChildEnd child = InChild(root, [&] {
            VxCamOfflineLogger* text = StartCamera(false, {SIGABRT, SIGSEGV});
            text->SetFlushTriggerLink(Trigger);
            text->AddLog(kLastLine, sizeof(kLastLine) - 1);
            text->FlushLogToFile(0, 0);  // names the session, so the dump lands beside its files
            c.crash(text);
        });
        EXPECT_EQ(child.exitCode, kChainedExit) << "signal " << child.signal;
        EXPECT_EQ(ReadFile(root / "record"), "sig " + std::to_string(c.chained) + " plain");
        // A crash after a close has begun writes into the next session's folder too; the dump of
        // a session without a prefix yet goes to the working folder.
        const std::string logs = TextUnder(root / "data/vendor/camera", ".txt");
        EXPECT_EQ(logs.find(kLastLine) != std::string::npos, c.flushed) << logs;
        // The stack starts at the faulting call, wherever the fault was.
        const std::string dumps = TextUnder(root.Path(), "_Crash_Dump.log");
        EXPECT_TRUE(strstr(c.name, "inside a line") != nullptr ||
                    dumps.find("(syscall+") != dumps.npos)
                << dumps;
        EXPECT_EQ(dumps.find(c.note ? c.note : "offline log not flushed") != std::string::npos,
                  c.note != nullptr)
                << dumps;
        EXPECT_TRUE(c.note != nullptr || dumps.find("stopped") == std::string::npos) << dumps;
    }
}

}  // namespace
