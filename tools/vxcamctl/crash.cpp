// vxcamctl crash: a camera process that dies of a real fault on one of its logging threads, and
// what it leaves behind: the crash dump with the faulting thread's frames, the session logs the
// catcher flushed (with the last line logged before the fault), and the crash backup folder.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Commands.h"
#include "VxCamOfflineLogger.h"

namespace vxcamctl {

namespace {

constexpr int kDebuggerSignal = 35;
constexpr VxCam::OfflineLoggerType kTextLog = VxCam::OfflineLog;
constexpr char kLastLine[] = "vxcrash last line before the fault\n";

#if defined(__x86_64__) || defined(__i386__)
constexpr bool kDivisionTraps = true;
#else
constexpr bool kDivisionTraps = false;  // Arm gives a quotient of 0 and goes on
#endif

struct Fault {
    const char* name;
    int signal;
    const char* how;
};

const Fault kFaults[] = {
        {"SEGV", SIGSEGV, "a store to a page mapped without access"},
        {"ABRT", SIGABRT, "abort()"},
        {"BUS", SIGBUS, "a read past the end of a mapped empty file"},
        {"FPE", SIGFPE,
         kDivisionTraps ? "an integer division by zero"
                        : "an integer division by zero, which this processor does not trap, then "
                          "the signal sent with tgkill"},
        {"ILL", SIGILL, "an undefined instruction"},
        {"TRAP", SIGTRAP, "a breakpoint instruction"},
        {"SYS", SIGSYS, "a system call refused by a seccomp filter"},
        {"35", kDebuggerSignal, "the platform's request for a stack dump"},
};

// glibc's <signal.h> leaves out SIGSYS's only code.
constexpr int kSysSeccomp = 1;

// si_code values by name, so that a summary tells a processor's fault from a signal some thread
// sent (codes of 0 and below: raise, abort, tgkill, sigqueue).
struct SignalCode {
    int signal;  // 0: any signal
    int code;
    const char* name;
};

#define VXCAM_CODE(sig, code) \
    { sig, code, #code }
const SignalCode kSignalCodes[] = {
        VXCAM_CODE(0, SI_USER),
        VXCAM_CODE(0, SI_QUEUE),
        VXCAM_CODE(0, SI_TKILL),
        VXCAM_CODE(0, SI_KERNEL),
        VXCAM_CODE(SIGSEGV, SEGV_MAPERR),
        VXCAM_CODE(SIGSEGV, SEGV_ACCERR),
        VXCAM_CODE(SIGBUS, BUS_ADRALN),
        VXCAM_CODE(SIGBUS, BUS_ADRERR),
        VXCAM_CODE(SIGBUS, BUS_OBJERR),
        VXCAM_CODE(SIGFPE, FPE_INTDIV),
        VXCAM_CODE(SIGFPE, FPE_INTOVF),
        VXCAM_CODE(SIGFPE, FPE_FLTDIV),
        VXCAM_CODE(SIGILL, ILL_ILLOPC),
        VXCAM_CODE(SIGILL, ILL_ILLOPN),
        VXCAM_CODE(SIGILL, ILL_ILLADR),
        VXCAM_CODE(SIGILL, ILL_ILLTRP),
        VXCAM_CODE(SIGTRAP, TRAP_BRKPT),
        VXCAM_CODE(SIGTRAP, TRAP_TRACE),
        {SIGSYS, kSysSeccomp, "SYS_SECCOMP"},
};
#undef VXCAM_CODE

std::string SignalCodeText(int sig, int code) {
    for (const SignalCode& known : kSignalCodes) {
        if ((known.signal == 0 || known.signal == sig) && known.code == code) {
            return Format("%d (%s)", code, known.name);
        }
    }
    return std::to_string(code);
}

struct Options {
    const Fault* fault = &kFaults[0];
    unsigned threads = 4;
    unsigned lines = 1000;
};

void PrintCrashUsage(FILE* out) {
    fprintf(out,
            "usage: vxcamctl crash [--signal NAME] [--threads N] [--lines M] [--sysroot DIR]\n"
            "\n"
            "Starts a child process that opens a camera session through the offline-log entry\n"
            "table, logs M lines from each of N threads, then takes a real fault on one of them.\n"
            "The child dies of it (or, for signal 35, goes on). Then shows what is left: the\n"
            "crash dump with the faulting thread's frames, the flushed session logs and whether\n"
            "the last line before the fault reached them, and the crash backup folder.\n"
            "Exit status 1 when something expected is missing.\n"
            "\n"
            "The summary gives the signal's code (si_code) from the crash header the catcher\n"
            "logged: a code of 0 or below means the signal was sent, not taken as a fault (as\n"
            "abort() and signal 35 are; aarch64 does not trap an integer division by zero, so\n"
            "FPE is sent there). A fault before the session's first flush makes the library\n"
            "write the dump to \"_Session1_Crash_Dump.log\" in the process's working directory,\n"
            "which is the camera folder here; a second such crash appends to that file.\n"
            "\n"
            "  --signal NAME  SEGV (default), ABRT, BUS, FPE, ILL, TRAP, SYS or 35; a SIG prefix\n"
            "                 and the number are accepted too\n"
            "  --threads N    logging threads, 1 to 64 (default 4)\n"
            "  --lines M      lines per thread (default 1000)\n");
}

const Fault* FindFault(const char* text) {
    if (strncasecmp(text, "SIG", 3) == 0) text += 3;
    for (const Fault& fault : kFaults) {
        if (strcasecmp(text, fault.name) == 0 || std::to_string(fault.signal) == text) {
            return &fault;
        }
    }
    if (strcasecmp(text, "DEBUGGER") == 0) return &kFaults[7];
    return nullptr;
}

std::set<std::string> Entries(const std::string& folder) {
    std::set<std::string> names;
    if (DIR* dir = opendir(folder.c_str())) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.') names.insert(entry->d_name);
        }
        closedir(dir);
    }
    return names;
}

// An unreadable file is said on stderr, and read as empty: what it should hold is then missing.
std::string ReadText(const std::string& path) {
    std::vector<uint8_t> data;
    ReadWholeFile("crash", path.c_str(), &data);
    return std::string(data.begin(), data.end());
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

// ---- The child: a camera process ---------------------------------------------------------------

// Lets every system call through except getppid, which raises SIGSYS on the calling thread.
bool RefuseGetppid() {
#if defined(__x86_64__)
    constexpr uint32_t kArch = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
    constexpr uint32_t kArch = AUDIT_ARCH_AARCH64;
#else
    return false;
#endif
    sock_filter program[] = {
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kArch, 0, 3),
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_getppid, 0, 1),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog filter = {static_cast<unsigned short>(sizeof(program) / sizeof(program[0])), program};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

// Each case is the fault itself where this processor has one. Returns only when no fault was
// taken, with the reason, and the caller then sends the signal instead. The undefined-behaviour
// checker would stop the division before the processor does.
__attribute__((no_sanitize("undefined"))) const char* TakeFault(int sig) {
    switch (sig) {
        case SIGSEGV: {
            void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            if (page != MAP_FAILED) *static_cast<volatile int*>(page) = 1;
            return "the store to a page without access did not fault";
        }
        case SIGABRT:
            abort();
        case SIGBUS: {
            const int fd = memfd_create("vxcrash", 0);
            void* page = fd >= 0 ? mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0) : MAP_FAILED;
            if (page != MAP_FAILED) (void)*static_cast<volatile const int*>(page);
            return "the read past the end of a mapped empty file did not fault";
        }
        case SIGFPE: {
            // The empty asm statements hide both operands and keep the quotient, so the compiler
            // can neither fold 1 / 0 nor turn it into a comparison, nor drop it as unused.
            int dividend = 1;
            int divisor = 0;
            asm volatile("" : "+r"(dividend), "+r"(divisor));
            int quotient = dividend / divisor;
            asm volatile("" : : "r"(quotient));
            return kDivisionTraps ? "the integer division by zero did not trap"
                                  : "this processor does not trap an integer division by zero";
        }
        case SIGILL:
#if defined(__x86_64__) || defined(__i386__)
            asm volatile("ud2");
#elif defined(__aarch64__)
            asm volatile(".inst 0x00000000");
#endif
            return "the undefined instruction did not trap";
        case SIGTRAP:
#if defined(__x86_64__) || defined(__i386__)
            asm volatile("int3");
#elif defined(__aarch64__)
            asm volatile("brk #0");
#endif
            return "the breakpoint instruction did not trap";
        case SIGSYS:
            if (!RefuseGetppid()) return "the seccomp filter could not be installed";
            syscall(SYS_getppid);
            return "the seccomp filter let the system call through";
        default:
            return nullptr;  // signal 35 is sent: that is how the platform asks for a stack dump
    }
}

std::string LineText(unsigned thread, unsigned line) {
    char text[128];
    snprintf(text, sizeof(text), "vxcrash T%u L%06u %s\n", thread, line,
             "camera thread work item, logged before the fault............");
    return text;
}

[[noreturn]] void RunChild(const Options& options, const std::string& camera, int tidPipe) {
    rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    // A fault before the session's first flush writes its dump under a relative name.
    if (chdir(camera.c_str()) != 0) _exit(3);

    VxCam::OfflineLogEntryTable table = {};
    ChiOfflineLogEntry(&table);
    // As a camera host starts them: the core-dump types get their pools, and with them the
    // signal catcher.
    for (uint32_t type = 0; type < 4; ++type) {
        table.getSetting(static_cast<VxCam::OfflineLoggerType>(type));
    }
    table.noticeCameraOpen(kTextLog);

    std::vector<std::thread> workers;
    for (unsigned t = 1; t < options.threads; ++t) {
        workers.emplace_back([&table, &options, t] {
            for (unsigned i = 0; i < options.lines; ++i) {
                table.addLog(kTextLog, LineText(t, i).c_str());
            }
        });
    }
    for (std::thread& worker : workers) worker.join();
    // The session's first flush names its folder, as a running camera's flush thread would.
    table.flushLog(kTextLog, 0);

    std::thread faulting([&] {
        for (unsigned i = 0; i < options.lines; ++i) table.addLog(kTextLog, LineText(0, i).c_str());
        table.addLog(kTextLog, kLastLine);
        const pid_t tid = gettid();
        if (write(tidPipe, &tid, sizeof(tid)) != static_cast<ssize_t>(sizeof(tid))) _exit(3);
        // Why no fault was taken goes to the parent, which says so beside the signal's code.
        if (const char* reason = TakeFault(options.fault->signal)) {
            if (write(tidPipe, reason, strlen(reason)) < 0) _exit(3);
        }
        syscall(SYS_tgkill, getpid(), gettid(), options.fault->signal);
    });
    faulting.join();
    // Only signal 35 comes back here.
    _exit(VxCam::VxCamOfflineLogger::GetInstance(kTextLog)->GetSignal35TombstoneTriggered() == 1
                  ? 0
                  : 4);
}

// ---- The parent: what a HAL engineer looks at --------------------------------------------------

struct Findings {
    bool ok = true;
    void Expect(bool condition, const char* what) {
        if (!condition) {
            printf("  MISSING: %s\n", what);
            ok = false;
        }
    }
};

std::string SignalName(int sig) {
    for (const Fault& fault : kFaults) {
        if (fault.signal == sig && sig != kDebuggerSignal) return std::string("SIG") + fault.name;
    }
    return "signal " + std::to_string(sig);
}

// The part of a crash dump this child wrote: a dump under a relative name may hold an earlier
// crash's lines before it.
void ShowDump(const std::string& path, size_t offset, Findings* findings) {
    const std::string text = ReadText(path);
    const std::vector<std::string> lines =
            SplitLines(offset < text.size() ? text.substr(offset) : "");
    size_t frames = 0;
    for (const std::string& line : lines)
        frames += line.find(" F DEBUG   : #") != std::string::npos;
    if (offset > 0) {
        printf("  appended to the dump of an earlier crash (%zu bytes before): only the new lines "
               "are shown\n",
               offset);
    }
    printf("  %zu frame lines\n", frames);
    for (size_t i = 0; i < lines.size() && i < 12; ++i) printf("  %s\n", lines[i].c_str());
    if (lines.size() > 12) printf("  ... %zu more\n", lines.size() - 12);
    findings->Expect(frames > 0, "frames of the faulting thread in the crash dump");
}

// The crash dumps in `folder` named as the library names one when the session has no prefix yet,
// "_Session<n>_Crash_Dump.log", with their sizes.
std::map<std::string, size_t> RelativeDumps(const std::string& folder) {
    static const char kSuffix[] = "_Crash_Dump.log";
    std::map<std::string, size_t> dumps;
    for (const std::string& name : Entries(folder)) {
        if (name.rfind("_Session", 0) != 0 || name.size() < sizeof(kSuffix) ||
            name.compare(name.size() - (sizeof(kSuffix) - 1), std::string::npos, kSuffix) != 0) {
            continue;
        }
        struct stat info = {};
        if (stat((folder + "/" + name).c_str(), &info) == 0 && S_ISREG(info.st_mode)) {
            dumps[name] = static_cast<size_t>(info.st_size);
        }
    }
    return dumps;
}

// Counts the tool's lines in a folder's text logs; notes the file holding the last line and the
// signal and code of the catcher's crash header.
struct FolderLogs {
    size_t files = 0;
    size_t bytes = 0;
    size_t lines = 0;
    std::string lastLineFile;
    bool header = false;
    int headerSignal = 0;
    int headerCode = 0;
};

FolderLogs ReadFolder(const std::string& folder, pid_t faultingTid) {
    static const char kHeader[] = " F DEBUG   : signal ";
    FolderLogs logs;
    const std::string tidPart = "__Tid" + std::to_string(faultingTid) + "_";
    for (const std::string& name : Entries(folder)) {
        if (name.size() < 4 || name.compare(name.size() - 4, 4, ".txt") != 0) continue;
        const std::string text = ReadText(folder + "/" + name);
        ++logs.files;
        logs.bytes += text.size();
        for (const std::string& line : SplitLines(text)) {
            logs.lines += line.compare(0, 9, "vxcrash T") == 0;
            if (line + "\n" == kLastLine && name.find(tidPart) != std::string::npos) {
                logs.lastLineFile = name;
            }
            const size_t header = line.find(kHeader);
            if (!logs.header && header != std::string::npos) {
                logs.header = sscanf(line.c_str() + header + sizeof(kHeader) - 1, "%d, code %d",
                                     &logs.headerSignal, &logs.headerCode) == 2;
            }
        }
    }
    return logs;
}

// How the signal came: its code as the catcher saw it, and whether a fault raised it.
void ShowSignalCode(const Options& options, const FolderLogs& logs, const std::string& noFault) {
    const int sig = options.fault->signal;
    if (!logs.header) {
        printf("signal code: unknown, no crash header in the session's log%s\n",
               sig == kDebuggerSignal ? " (signal 35 flushes nothing)" : "");
    } else {
        printf("signal code: %s, from the crash header\n",
               SignalCodeText(logs.headerSignal, logs.headerCode).c_str());
    }
    if (!noFault.empty()) {
        printf("  no fault was taken: %s; the child sent the signal with tgkill instead\n",
               noFault.c_str());
    } else if (logs.header && logs.headerCode <= 0 && sig != SIGABRT && sig != kDebuggerSignal) {
        printf("  a code of 0 or below: the signal was sent, not raised by a fault\n");
    }
}

}  // namespace

int RunCrash(int argc, char** argv) {
    enum { kSignal = 256, kThreads, kLines, kSysroot };
    static const option kOptions[] = {
            {"signal", required_argument, nullptr, kSignal},
            {"threads", required_argument, nullptr, kThreads},
            {"lines", required_argument, nullptr, kLines},
            {"sysroot", required_argument, nullptr, kSysroot},  // applied before main
            {"help", no_argument, nullptr, 'h'},
            {nullptr, 0, nullptr, 0},
    };
    Options options;
    bool help = false;
    std::vector<const char*> operands;
    // A mistake in the fault to take is shown with the usage, which lists the signals.
    const auto wrong = [](const std::string& message) {
        UsageError("crash", "%s\n", message.c_str());
        PrintCrashUsage(stderr);
        return false;
    };
    const bool parsed = ParseOptions(
            "crash", argc, argv, "h", kOptions,
            [&](int id, const char* value) {
                unsigned long number = 0;
                char* end = nullptr;
                switch (id) {
                    case 'h':
                        help = true;
                        break;
                    case kSignal:
                        options.fault = FindFault(value);
                        if (options.fault == nullptr) {
                            return wrong(Format("unknown signal '%s'", value));
                        }
                        break;
                    case kThreads:
                        number = strtoul(value, &end, 10);
                        if (*value == '\0' || *end != '\0' || number < 1 || number > 64) {
                            UsageError("crash", "--threads takes 1 to 64, not '%s'", value);
                            return false;
                        }
                        options.threads = static_cast<unsigned>(number);
                        break;
                    case kLines:
                        number = strtoul(value, &end, 10);
                        if (*value == '\0' || *value == '-' || *end != '\0' || number > 10000000) {
                            UsageError("crash", "--lines takes 0 to 10000000, not '%s'", value);
                            return false;
                        }
                        options.lines = static_cast<unsigned>(number);
                        break;
                    case kSysroot:
                        return CheckSysroot("crash", value);
                }
                return true;
            },
            &operands);
    if (!parsed) return kExitUsage;
    if (help) {
        PrintCrashUsage(stdout);
        return kExitOk;
    }
    if (!operands.empty()) {
        wrong(Format("unexpected argument '%s'", operands[0]));
        return kExitUsage;
    }

    const std::string camera = CameraRoot();
    struct stat info = {};
    if (stat(camera.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        fprintf(stderr, "vxcamctl crash: %s is not a folder (see --sysroot)\n", camera.c_str());
        return kExitUsage;
    }
    const std::set<std::string> before = Entries(camera);
    const std::map<std::string, size_t> relativeDumpsBefore = RelativeDumps(camera);
    const bool debugger = options.fault->signal == kDebuggerSignal;

    int tidPipe[2];
    FILE* childLog = tmpfile();
    if (pipe(tidPipe) != 0 || childLog == nullptr) {
        fprintf(stderr, "vxcamctl crash: %s\n", strerror(errno));
        return kExitUsage;
    }
    fflush(stdout);
    fflush(stderr);
    const pid_t child = fork();
    if (child < 0) {
        fprintf(stderr, "vxcamctl crash: fork: %s\n", strerror(errno));
        return kExitUsage;
    }
    if (child == 0) {
        close(tidPipe[0]);
        dup2(fileno(childLog), STDERR_FILENO);
        RunChild(options, camera, tidPipe[1]);
    }
    close(tidPipe[1]);
    pid_t faultingTid = 0;
    if (read(tidPipe[0], &faultingTid, sizeof(faultingTid)) != sizeof(faultingTid)) faultingTid = 0;
    std::string noFault;  // why the child took no fault, if it says so
    char reason[256];
    ssize_t got;
    while ((got = read(tidPipe[0], reason, sizeof(reason))) > 0) {
        noFault.append(reason, static_cast<size_t>(got));
    }
    close(tidPipe[0]);
    int status = 0;
    waitpid(child, &status, 0);

    std::string session, backup;
    for (const std::string& name : Entries(camera)) {
        if (before.count(name) != 0) continue;
        if (name.rfind("VxCam_OfflineLog_", 0) == 0) session = camera + "/" + name;
        if (name.rfind("OfflineLog_CrashLog_", 0) == 0) backup = camera + "/" + name;
    }
    const FolderLogs logs = session.empty() ? FolderLogs() : ReadFolder(session, faultingTid);

    Findings findings;
    printf("child %d, %u threads x %u lines, fault: %s (%s) on tid %d\n", child, options.threads,
           options.lines, SignalName(options.fault->signal).c_str(), options.fault->how,
           faultingTid);
    if (WIFSIGNALED(status)) {
        printf("child ended by %s\n", SignalName(WTERMSIG(status)).c_str());
        findings.Expect(!debugger && WTERMSIG(status) == options.fault->signal,
                        "the child's death by its own signal");
    } else {
        printf("child exited with status %d\n", WEXITSTATUS(status));
        findings.Expect(debugger && WEXITSTATUS(status) == 0,
                        debugger ? "the tombstone flag after signal 35"
                                 : "the child's death by its own signal");
    }
    ShowSignalCode(options, logs, noFault);
    // The Android log of the child: what the crash reporter and the catcher said.
    rewind(childLog);
    char line[2048];
    while (fgets(line, sizeof(line), childLog) != nullptr) {
        if (strstr(line, " F libc") != nullptr || strstr(line, " E VxCam") != nullptr ||
            strstr(line, " DEBUG") != nullptr) {
            printf("log: %s", line);
        }
    }
    fclose(childLog);

    std::string dump;
    for (const std::string& name : session.empty() ? std::set<std::string>() : Entries(session)) {
        if (name.find("_Crash_Dump.log") != std::string::npos) dump = session + "/" + name;
    }
    if (!dump.empty()) {
        printf("crash dump: %s\n", dump.c_str());
        ShowDump(dump, 0, &findings);
    }
    // Before the session's first flush the library has no prefix for the dump's name, and the
    // relative name lands in the working directory; each such crash appends to the same file.
    for (const auto& [name, size] : RelativeDumps(camera)) {
        const auto old = relativeDumpsBefore.find(name);
        const size_t offset = old != relativeDumpsBefore.end() ? old->second : 0;
        if (!dump.empty() || (old != relativeDumpsBefore.end() && size <= offset)) continue;
        dump = camera + "/" + name;
        printf("crash dump: %s\n"
               "  outside the session folder, in the process's working directory (where this\n"
               "  child was started; on a device, the camera provider's): the fault came before\n"
               "  the session's first flush named its folder, so the library wrote to the "
               "relative\n"
               "  name \"%s\"\n",
               dump.c_str(), name.c_str());
        ShowDump(dump, offset, &findings);
    }
    if (dump.empty()) findings.Expect(false, "the crash dump file");

    const size_t logged = static_cast<size_t>(options.threads) * options.lines;
    if (session.empty()) {
        printf("session folder: none\n");
        findings.Expect(false, "the session folder");
    } else {
        printf("session folder: %s\n  %zu text files, %zu bytes, %zu of %zu lines\n",
               session.c_str(), logs.files, logs.bytes, logs.lines, logged);
        if (debugger) {
            printf("  signal 35 flushes nothing: the lines stay in memory, the process goes on\n");
            findings.Expect(logs.lines <= logged, "no more lines than were logged");
        } else {
            printf("  last line before the fault: %s\n",
                   logs.lastLineFile.empty() ? "NOT FOUND" : logs.lastLineFile.c_str());
            printf("  crash header in the log: %s\n", logs.header ? "yes" : "no");
            findings.Expect(logs.lines == logged, "every line logged before the fault");
            findings.Expect(!logs.lastLineFile.empty(), "the last line before the fault");
            findings.Expect(logs.header, "the crash header in the faulting thread's log");
            printf("  read them as one log: vxcamctl logcat %s\n", session.c_str());
        }
    }
    // The catcher backs up only above the logger's minimum of free space.
    struct statvfs disk = {};
    const double freeMB = statvfs(camera.c_str(), &disk) == 0
                                  ? static_cast<double>(disk.f_bsize) *
                                            static_cast<double>(disk.f_bavail) / 1048576.0
                                  : -1.0;
    findings.Expect(backup.empty() == (debugger || freeMB <= 3000.0),
                    "a crash backup folder exactly when over 3000 MB are free");
    if (backup.empty()) {
        printf("crash backup folder: none%s\n",
               debugger ? " (signal 35 backs up nothing)"
                        : " (taken only above 3000 MB free in the camera folder)");
    } else {
        const std::set<std::string> names = Entries(backup);
        printf("crash backup folder: %s\n  %zu files\n", backup.c_str(), names.size());
        for (const std::string& name : names) printf("  %s\n", name.c_str());
    }
    printf("%s\n", findings.ok ? "all expected artefacts are there" : "artefacts are missing");
    return findings.ok ? kExitOk : kExitFindings;
}

}  // namespace vxcamctl
