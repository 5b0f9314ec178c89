// Libraries, memory, threads and process resources: the results and lines hosts rely on.
#include "VxCamCommonUtils.h"

#include <sched.h>
#include <signal.h>
#include <sys/resource.h>

#include "TestSupport.h"
#include "VxCamDebug.h"

namespace {

using VxCam::OsUtils;

constexpr char kErrorUtils[] = "[ERROR   ][UTILS  ] ", kInfoUtils[] = "[INFO    ][UTILS  ] ",
               kVerboseUtils[] = "[VERBOSE ][UTILS  ] ", kInfoCore[] = "[INFO    ][CORE   ] ";

// The utils and core groups' info and verbose lines, whatever the default masks.
struct LinesShown : vxcamtest::LogCapture {
    VxCam::DebugLogInfo saved = VxCam::g_logInfo;
    LinesShown() {
        VxCam::g_logInfo.infoMask |= VXCAM_GROUP_BIT_UTILS | VXCAM_GROUP_BIT_CORE;
        VxCam::g_logInfo.verboseMask |= VXCAM_GROUP_BIT_UTILS;
    }
    ~LinesShown() { VxCam::g_logInfo = saved; }
    // Whether a line of `frame`'s level and group holds `text`.
    bool Has(const std::string& frame, const std::string& text) const {
        for (const std::string& line : Messages()) {
            if (line.rfind(frame, 0) == 0 && line.find(text) != std::string::npos) return true;
        }
        return false;
    }
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

    // A symbol that is not found still hands over the open library; a library that is not found
    // hands over nothing. Both log the loader's line.
    EXPECT_EQ(OsUtils::LoadPreBuiltLibrary("libvxcamfixture", "Absent", &handle), nullptr);
    EXPECT_TRUE(log.Has(kErrorUtils, " LibGetAddr() Error: dlsym(Absent): "));
    EXPECT_EQ(OsUtils::LibUnmap(handle), 0);
    EXPECT_EQ(OsUtils::LoadPreBuiltLibrary("libabsent", "VxCamFixtureAnswer", &handle), nullptr);
    EXPECT_EQ(handle, nullptr);
    EXPECT_TRUE(log.Has(kErrorUtils, std::string(" LibMap() dlopen: ")));
    EXPECT_TRUE(log.Has(kErrorUtils, ", on '" + std::string(getenv("VXCAM_SYSROOT")) +
                                             "/vendor/lib64/libabsent.so'"));
    // Null is the main program to dlopen; a null symbol name fails as a missing symbol would.
    void* program = OsUtils::LibMap(nullptr);
    EXPECT_NE(program, nullptr);
    EXPECT_EQ(OsUtils::LibGetAddr(program, nullptr), nullptr);
    EXPECT_TRUE(log.Has(kErrorUtils, " LibGetAddr() Error: dlsym((null)): N/A"));
    EXPECT_EQ(OsUtils::LibUnmap(program), 0);
    log.Clear();
    EXPECT_EQ(OsUtils::LibGetAddr(nullptr, "VxCamFixtureAnswer"), nullptr);
    EXPECT_EQ(OsUtils::LibUnmap(nullptr), 3);
    EXPECT_TRUE(log.Lines().empty());
}

TEST(Platform, AlignedMemoryAndProtectionThatReallyApplies) {
    // posix_memalign itself refuses 4: it succeeds only because it is raised to 8.
    for (const auto& [alignment, expected] : {std::pair<size_t, size_t>{4, 8}, {64, 64}, {48, 0}}) {
        void* memory = OsUtils::MallocAligned(100, alignment);
        const auto address = reinterpret_cast<uintptr_t>(memory);
        EXPECT_TRUE(expected == 0 ? address == 0 : address != 0 && address % expected == 0)
                << alignment;
        OsUtils::FreeAligned(memory);
    }
    const size_t page = static_cast<size_t>(OsUtils::PageSize());
    ASSERT_EQ(page, static_cast<size_t>(sysconf(_SC_PAGESIZE)));
    auto* memory = static_cast<char*>(
            mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(memory, MAP_FAILED);
    EXPECT_EQ(OsUtils::MemoryProtect(memory + 1, page, {1, 1}), 3);  // not page-aligned
    volatile char* first = memory;
    const auto write = [&] { first[0] = 1; };
    const auto read = [&] { (void)first[0]; };
    EXPECT_EQ(OsUtils::MemoryProtect(memory, page, {1, 0}), 0);
    EXPECT_EQ(SignalInChild(write), SIGSEGV);
    EXPECT_EQ(SignalInChild(read), 0);
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

volatile sig_atomic_t s_debuggerSignals = 0;

TEST(Platform, ThreadsPrioritiesAndSelfSignals) {
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
    rlimit now = {1024, saved.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &now), 0);
    EXPECT_EQ(OsUtils::SetFDLimit(512), 0);
    EXPECT_EQ((getrlimit(RLIMIT_NOFILE, &now), now.rlim_cur), 1024u);
    EXPECT_EQ(OsUtils::SetFDLimit(2048), 0);
    EXPECT_EQ((getrlimit(RLIMIT_NOFILE, &now), now.rlim_cur), 2048u);
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
    // Total RAM in bytes, as the system reports it in pages.
    EXPECT_EQ(OsUtils::GetTotalRam(),
              static_cast<unsigned long>(sysconf(_SC_PHYS_PAGES) * sysconf(_SC_PAGESIZE)));
    EXPECT_TRUE(log.Has(kInfoUtils, "GetTotalRam() totalram = "));

    int fence[2];
    ASSERT_EQ(pipe(fence), 0);
    EXPECT_EQ(OsUtils::NativeFenceWait(fence[0], 0), 1);  // not yet signalled
    ASSERT_EQ(write(fence[1], "s", 1), 1);
    EXPECT_EQ(OsUtils::NativeFenceWait(fence[0], 0), 0);

    const std::string folder =
                              getenv("VXCAM_SYSROOT") + std::string("/data/vendor/camera/metadata"),
                      line = "SetMetadataDumpDirectoryPath() Camera Metadata Dump: ";
    std::filesystem::remove_all(folder);  // left by an earlier run
    OsUtils::SetMetadataDumpDirectoryPath();
    OsUtils::SetMetadataDumpDirectoryPath();
    EXPECT_TRUE(log.Has(kInfoUtils, line + "Create root Dir: " + folder + " return = 0"));
    EXPECT_TRUE(log.Has(kInfoUtils, line + "Dir:" + folder + " already exists"));
}

}  // namespace
