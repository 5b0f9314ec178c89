// The system crash reporter's part on a host. On a device, debuggerd's handlers are in place for
// the fatal signals and for signal 35 before any library of the camera process registers its own,
// and a library that catches a crash chains to them. This stand-in plays that part at process
// start: a fatal signal is reported on the log, then the process ends by that same signal, so a
// parent sees its child die as it would on a device; signal 35 logs the calling thread's stack and
// the process goes on.
//
// Only signals whose action is still the default get the stand-in: a sanitizer or a debugger that
// is already there keeps its own.

#include <android/log.h>
#include <utils/CallStack.h>

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int kDebuggerSignal = 35;
constexpr int kFatalSignals[] = {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSYS, SIGTRAP};

const char* SignalName(int sig) {
    switch (sig) {
        case SIGSEGV:
            return "SIGSEGV";
        case SIGABRT:
            return "SIGABRT";
        case SIGBUS:
            return "SIGBUS";
        case SIGFPE:
            return "SIGFPE";
        case SIGILL:
            return "SIGILL";
        case SIGSYS:
            return "SIGSYS";
        case SIGTRAP:
            return "SIGTRAP";
        default:
            return "?";
    }
}

void ReportFatalSignal(int sig, siginfo_t* info, void*) {
    const int savedErrno = errno;
    char threadName[17] = "";
    prctl(PR_GET_NAME, threadName, 0, 0, 0);
    __android_log_print(ANDROID_LOG_FATAL, "libc",
                        "Fatal signal %d (%s), code %d, fault addr %p in tid %d (%s), pid %d (%s)",
                        sig, SignalName(sig), info != nullptr ? info->si_code : 0,
                        info != nullptr ? info->si_addr : nullptr, gettid(), threadName, getpid(),
                        program_invocation_short_name);
    // Default action, then the signal again on this thread. It stays blocked until this handler
    // returns, so a fault re-executed on return and a signal sent by raise() or abort() both end
    // the process the same way.
    struct sigaction fallback = {};
    fallback.sa_handler = SIG_DFL;
    sigemptyset(&fallback.sa_mask);
    sigaction(sig, &fallback, nullptr);
    syscall(SYS_tgkill, getpid(), gettid(), sig);
    errno = savedErrno;
}

void ReportStackRequest(int, siginfo_t*, void*) {
    const int savedErrno = errno;
    __android_log_print(ANDROID_LOG_INFO, "DEBUG", "stack dump requested for pid %d tid %d",
                        getpid(), gettid());
    android::CallStack stack;
    stack.update(2, BACKTRACE_CURRENT_THREAD);
    stack.log("DEBUG", ANDROID_LOG_INFO, "    ");
    errno = savedErrno;
}

void InstallIfDefault(int sig, void (*handler)(int, siginfo_t*, void*)) {
    struct sigaction current = {};
    if (sigaction(sig, nullptr, &current) != 0) return;
    if ((current.sa_flags & SA_SIGINFO) != 0 || current.sa_handler != SIG_DFL) return;
    struct sigaction action = {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(sig, &action, nullptr);
}

__attribute__((constructor)) void InstallCrashReporterStandIn() {
    for (int sig : kFatalSignals) InstallIfDefault(sig, ReportFatalSignal);
    InstallIfDefault(kDebuggerSignal, ReportStackRequest);
}

}  // namespace
