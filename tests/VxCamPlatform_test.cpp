// Dynamic libraries, memory, threads, scheduling and process resources: the result codes and log
// lines hosts rely on, checked against what the system then reports.
#include "VxCamCommonUtils.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <regex>
#include <string>

#include "TestSupport.h"
#include "VxCamDebug.h"

namespace {

using VxCam::OsUtils;

constexpr char kErrorUtils[] = "[ERROR   ][UTILS  ] ", kInfoUtils[] = "[INFO    ][UTILS  ] ",
               kVerboseUtils[] = "[VERBOSE ][UTILS  ] ", kInfoCore[] = "[INFO    ][CORE   ] ";

// The utils and core groups' info and verbose lines, whatever the default masks.
struct LinesShown : vxcamtest::LogCapture {
    LinesShown() : saved(VxCam::g_logInfo) {
        VxCam::g_logInfo.infoMask |= VXCAM_GROUP_BIT_UTILS | VXCAM_GROUP_BIT_CORE;
        VxCam::g_logInfo.verboseMask |= VXCAM_GROUP_BIT_UTILS;
    }
    ~LinesShown() { VxCam::g_logInfo = saved; }
    // Whether a line of `frame`'s level, at that level's priority, and group holds `text`.
    bool Has(const std::string& frame, const std::string& text) const {
        const int priority = frame[1] == 'E'   ? ANDROID_LOG_ERROR
                             : frame[1] == 'I' ? ANDROID_LOG_INFO
                                               : ANDROID_LOG_VERBOSE;
        for (const vxcamtest::LogLine& line : Lines()) {
            if (line.priority == priority && line.message.rfind(frame, 0) == 0 &&
                line.message.find(text) != std::string::npos) {
                return true;
            }
        }
        return false;
    }
    VxCam::DebugLogInfo saved;
};

// The signal that ended `action` in a child process, 0 if it returned.
int SignalInChild(const std::function<void()>& action) {
    const pid_t child = fork();
    if (child == 0) {
        signal(SIGSEGV, SIG_DFL);  // the fault itself, not a sanitizer's report of it
        action();
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

TEST(Platform, PrebuiltLibraryFromTheVendorFolder) {
    LinesShown log;
    void* handle = nullptr;
    auto answer = reinterpret_cast<int (*)()>(
            OsUtils::LoadPreBuiltLibrary("libvxcamfixture", "VxCamFixtureAnswer", &handle));
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(answer(), 42);
    EXPECT_EQ(OsUtils::LibUnmap(handle), 0);

    // Every failure logs the loader's line, null names included. A symbol that is not found
    // still hands over the open library; a library that is not found hands over nothing.
    const std::string lib64 = std::string(getenv("VXCAM_SYSROOT")) + "/vendor/lib64/";
    const struct {
        const char* library;
        const char* symbol;
        bool opened;
        std::string call, detail;
    } failures[] = {
            {"libvxcamfixture", "Absent", true, " LibGetAddr() Error: dlsym(Absent): ", ""},
            {"libvxcamfixture", nullptr, true, " LibGetAddr() Error: dlsym((null)): ", ""},
            {"libabsent", "VxCamFixtureAnswer", false,
             " LibMap() dlopen: ", ", on '" + lib64 + "libabsent.so'"},
            {nullptr, "VxCamFixtureAnswer", false,
             " LibMap() dlopen: ", ", on '" + lib64 + "(null).so'"},
    };
    for (const auto& f : failures) {
        SCOPED_TRACE(f.call + f.detail);
        log.Clear();
        handle = &handle;
        EXPECT_EQ(OsUtils::LoadPreBuiltLibrary(f.library, f.symbol, &handle), nullptr);
        EXPECT_TRUE(log.Has(kErrorUtils, f.call));
        EXPECT_TRUE(log.Has(kErrorUtils, f.detail));
        EXPECT_EQ(handle != nullptr, f.opened);
        if (handle == nullptr) continue;
        EXPECT_NE(OsUtils::LibGetAddr(handle, "VxCamFixtureAnswer"), nullptr);
        EXPECT_EQ(OsUtils::LibUnmap(handle), 0);
    }
    // No path is the main program, as for dlopen.
    void* program = OsUtils::LibMap(nullptr);
    EXPECT_NE(OsUtils::LibGetAddr(program, "ChiOfflineLogEntry"), nullptr);
    EXPECT_EQ(OsUtils::LibUnmap(program), 0);
    log.Clear();
    EXPECT_EQ(OsUtils::LibGetAddr(nullptr, "VxCamFixtureAnswer"), nullptr);
    EXPECT_EQ(OsUtils::LibUnmap(nullptr), 3);
    EXPECT_TRUE(log.Lines().empty());
}

TEST(Platform, AlignedAllocation) {
    // posix_memalign itself refuses 0 and 4: these succeed only because they are raised to 8.
    const std::pair<size_t, size_t> cases[] = {{0, 8}, {4, 8}, {64, 64}, {48, 0}, {3, 0}};
    for (const auto& [alignment, expected] : cases) {
        void* memory = OsUtils::MallocAligned(100, alignment);
        EXPECT_EQ(memory != nullptr, expected != 0) << alignment;
        if (memory != nullptr) {
            EXPECT_EQ(reinterpret_cast<uintptr_t>(memory) % expected, 0u) << alignment;
        }
        OsUtils::FreeAligned(memory);
    }
}

TEST(Platform, ProtectionReallyApplies) {
    const size_t page = static_cast<size_t>(OsUtils::PageSize());
    ASSERT_EQ(page, static_cast<size_t>(sysconf(_SC_PAGESIZE)));
    auto* memory = static_cast<char*>(
            mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(memory, MAP_FAILED);
    EXPECT_EQ(OsUtils::MemoryProtect(memory, page + 1, {1, 1}), 3);
    EXPECT_EQ(OsUtils::MemoryProtect(memory + 1, page, {1, 1}), 3);
    volatile char* first = memory;
    const auto write = [&] { first[0] = 1; };
    const auto read = [&] { (void)first[0]; };
    EXPECT_EQ(OsUtils::MemoryProtect(memory, page, {1, 0}), 0);
    EXPECT_EQ(SignalInChild(write), SIGSEGV);
    EXPECT_EQ(SignalInChild(read), 0);
    EXPECT_EQ(OsUtils::MemoryProtect(memory, page, {2, 0}), 0);  // only exactly 1 grants
    EXPECT_EQ(SignalInChild(read), SIGSEGV);
    EXPECT_EQ(OsUtils::MemoryProtect(memory, page, {1, 1}), 0);
    EXPECT_EQ(SignalInChild(write), 0);

    ASSERT_EQ(munmap(memory + page, page), 0);
    EXPECT_EQ(OsUtils::MemoryProtect(memory + page, page, {1, 1}), 1);
    munmap(memory, page);
}

TEST(Platform, MapAndUnmapAFile) {
    LinesShown log;
    vxcamtest::TempDir folder;
    const size_t page = static_cast<size_t>(OsUtils::PageSize());
    const std::string path = folder.Write("buffer", std::string(page, '.'));
    const int fd = open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(OsUtils::MemMap(-1, page, 0), nullptr);
    EXPECT_EQ(OsUtils::MemMap(fd, 0, 0), nullptr);
    EXPECT_EQ(OsUtils::MemUnmap(nullptr, page), -1);
    EXPECT_TRUE(log.Lines().empty());
    auto* mapped = static_cast<char*>(OsUtils::MemMap(fd, page, 0));
    ASSERT_NE(mapped, nullptr);
    memcpy(mapped, "frame", 5);  // shared: the file sees it
    EXPECT_EQ(OsUtils::MemUnmap(mapped, page), 0);
    EXPECT_EQ(vxcamtest::ReadFile(path).substr(0, 6), "frame.");

    EXPECT_EQ(OsUtils::MemMap(fd, page, 1), nullptr);  // offsets must be whole pages
    EXPECT_TRUE(
            log.Has(kInfoUtils, "MemMap() mmap() failed! errno=22, bufferFD=" + std::to_string(fd) +
                                        ", bufferLength=" + std::to_string(page) + " offset=1"));
    EXPECT_EQ(OsUtils::MemUnmap(mapped + 1, page), -1);
    EXPECT_TRUE(log.Has(kInfoUtils, "MemUnmap() munmap() failed! errno 22"));
    close(fd);
}

void* Echo(void* argument) {
    return argument;
}

TEST(Platform, ThreadsAndPriorities) {
    LinesShown log;
    pthread_t thread;
    ASSERT_EQ(OsUtils::ThreadCreate(Echo, nullptr, &thread), 0);
    EXPECT_EQ(OsUtils::ThreadWait(thread), 0);
    EXPECT_EQ(OsUtils::ThreadWait(pthread_self()), EDEADLK);  // the call's own error number
    EXPECT_EQ(OsUtils::ThreadSetName(pthread_self(), "a-name-over-15-chars"), 1);  // not ERANGE
    pthread_t self = pthread_self();
    EXPECT_EQ(OsUtils::ThreadSetPolicyPriority(&self, SCHED_OTHER, 5), 1);
    EXPECT_TRUE(log.Has(kInfoUtils, "ThreadSetPolicyPriority() Failed to set thread priority 22"));
    EXPECT_EQ(OsUtils::SetPriority(-1, 0, 0), 1);
    EXPECT_TRUE(log.Has(kInfoUtils, "SetPriority() Failed to set  priority -1"));
}

std::string BoundCpus() {
    cpu_set_t cpus;
    sched_getaffinity(0, sizeof(cpus), &cpus);
    std::string list;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &cpus)) list += std::to_string(cpu) + " ";
    }
    return list;
}

TEST(Platform, AffinityOfTheCallingThread) {
    LinesShown log;
    cpu_set_t saved;
    ASSERT_EQ(sched_getaffinity(0, sizeof(saved), &saved), 0);
    if (!CPU_ISSET(0, &saved) || !CPU_ISSET(1, &saved)) GTEST_SKIP() << "needs CPUs 0 and 1";
    EXPECT_EQ(OsUtils::SetThreadAffinity(1, 1), 0);
    EXPECT_EQ(BoundCpus(), "1 ");
    EXPECT_EQ(OsUtils::SetThreadAffinity(1, 0), -1);  // an empty set, for the system to refuse
    EXPECT_EQ(OsUtils::ResetThreadAffinity(), 0);
    EXPECT_EQ(BoundCpus().substr(0, 4), "0 1 ");

    const int cores[] = {1, 2000, -1};
    OsUtils::BindCores(cores, 3);
    EXPECT_EQ(BoundCpus(), "1 ");
    EXPECT_TRUE(log.Has(kVerboseUtils, "BindCores() Bind cpu core number {1, 2000, -1}"));
    sched_setaffinity(0, sizeof(saved), &saved);
}

TEST(Platform, FileLimitOnlyRises) {
    LinesShown log;
    rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    if (saved.rlim_max < 2048 || saved.rlim_max >= UINT32_MAX) GTEST_SKIP() << "hard limit";
    const rlimit lowered = {1024, saved.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
    const auto soft = [] {
        rlimit now;
        getrlimit(RLIMIT_NOFILE, &now);
        return now.rlim_cur;
    };
    EXPECT_EQ(OsUtils::SetFDLimit(512), 0);
    EXPECT_EQ(soft(), 1024u);
    EXPECT_EQ(OsUtils::SetFDLimit(2048), 0);
    EXPECT_EQ(soft(), 2048u);
    EXPECT_TRUE(log.Has(kInfoCore, "SetFDLimit() Current limit (RLIMIT_NOFILE):1024"));
    EXPECT_TRUE(log.Has(kInfoCore, "SetFDLimit() New limit (RLIMIT_NOFILE):2048"));
    EXPECT_EQ(OsUtils::SetFDLimit(static_cast<unsigned>(saved.rlim_max) + 1), 1);
    EXPECT_TRUE(log.Has(kInfoCore, "SetFDLimit() setrlimit(RLIMIT_NOFILE) failed; errno:22"));
    setrlimit(RLIMIT_NOFILE, &saved);
}

TEST(Platform, SystemQueriesFencesAndTheMetadataFolder) {
    LinesShown log;
    EXPECT_FALSE(OsUtils::Is32bitMode());
    EXPECT_TRUE(log.Has(kVerboseUtils, "Is32bitMode() sysname Linux, nodename "));
    // Total RAM in bytes, as the system reports it in pages, and the line's figures multiply to it.
    const unsigned long total = OsUtils::GetTotalRam();
    EXPECT_EQ(total, static_cast<unsigned long>(sysconf(_SC_PHYS_PAGES) * sysconf(_SC_PAGESIZE)));
    std::smatch figures;
    const std::regex ramLine(R"(\[INFO    \]\[UTILS  \] \S+ GetTotalRam\(\) totalram = (\d+), )"
                             R"(freeram = \d+ mem_unit = (\d+) )");
    const std::vector<vxcamtest::LogLine> lines = log.Lines();
    ASSERT_EQ(lines.size(), 2u);
    ASSERT_TRUE(std::regex_match(lines[1].message, figures, ramLine)) << lines[1].message;
    EXPECT_EQ(lines[1].priority, ANDROID_LOG_INFO);
    EXPECT_EQ(std::stoul(figures[1]) * std::stoul(figures[2]), total);

    int fence[2];
    ASSERT_EQ(pipe(fence), 0);
    EXPECT_EQ(OsUtils::NativeFenceWait(fence[0], 0), 1);  // not yet signalled
    ASSERT_EQ(write(fence[1], "s", 1), 1);
    EXPECT_EQ(OsUtils::NativeFenceWait(fence[0], 0), 0);

    vxcamtest::TempDir sysroot;
    sysroot.MakeCameraRoot();
    const std::string saved = getenv("VXCAM_SYSROOT");
    setenv("VXCAM_SYSROOT", sysroot.Path().c_str(), 1);
    OsUtils::SetMetadataDumpDirectoryPath();
    OsUtils::SetMetadataDumpDirectoryPath();
    setenv("VXCAM_SYSROOT", saved.c_str(), 1);
    const std::string folder = sysroot / "data/vendor/camera/metadata";
    EXPECT_TRUE(log.Has(kInfoUtils,
                        "SetMetadataDumpDirectoryPath() Camera Metadata Dump: Create "
                        "root Dir: " +
                                folder + " return = 0"));
    EXPECT_TRUE(log.Has(kInfoUtils, "SetMetadataDumpDirectoryPath() Camera Metadata Dump: Dir:" +
                                            folder + " already exists"));
}

volatile sig_atomic_t s_debuggerSignals = 0;

TEST(Platform, SelfSignals) {
    EXPECT_EQ(SignalInChild([] { OsUtils::RaiseSignalAbort(); }), SIGABRT);
    // On a device debuggerd's handler does the dump; here a stand-in counts the request.
    struct sigaction counting = {}, previous = {};
    s_debuggerSignals = 0;  // counted afresh when the test is run again in the same process
    counting.sa_handler = [](int) { s_debuggerSignals = s_debuggerSignals + 1; };
    ASSERT_EQ(sigaction(35, &counting, &previous), 0);
    EXPECT_EQ(OsUtils::DumpCallStacksForAllThreads(), 0);
    EXPECT_EQ(s_debuggerSignals, 1);
    sigaction(35, &previous, nullptr);
}

}  // namespace
