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
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "TestSupport.h"
#include "VxCamDebug.h"

namespace {

using VxCam::OsUtils;
using VxCam::VxCamProtectionType;
using vxcamtest::LogCapture;

// The utils group's info and verbose lines are off by default; these tests read them.
class Platform : public ::testing::Test {
  protected:
    void SetUp() override {
        m_saved = VxCam::g_logInfo;
        VxCam::g_logInfo.infoMask |= VXCAM_GROUP_BIT_UTILS | VXCAM_GROUP_BIT_CORE;
        VxCam::g_logInfo.verboseMask |= VXCAM_GROUP_BIT_UTILS;
    }
    void TearDown() override { VxCam::g_logInfo = m_saved; }

    static bool Logged(const LogCapture& capture, const std::string& text) {
        for (const std::string& message : capture.Messages()) {
            if (message.find(text) != std::string::npos) return true;
        }
        return false;
    }

  private:
    VxCam::DebugLogInfo m_saved{};
};

// The signal that ended `action` in a child process, 0 if it returned.
int SignalInChild(const std::function<void()>& action) {
    const pid_t child = fork();
    if (child == 0) {
        signal(SIGSEGV, SIG_DFL);  // not the sanitizer's report: the fault itself
        action();
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

TEST_F(Platform, PrebuiltLibraryFromTheVendorFolder) {
    LogCapture capture;
    void* handle = nullptr;
    auto answer = reinterpret_cast<int (*)()>(
            OsUtils::LoadPreBuiltLibrary("libvxcamfixture", "VxCamFixtureAnswer", &handle));
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(answer(), 42);
    EXPECT_EQ(OsUtils::LibUnmap(handle), 0);

    // A missing symbol still hands over the open library.
    handle = nullptr;
    EXPECT_EQ(OsUtils::LoadPreBuiltLibrary("libvxcamfixture", "Absent", &handle), nullptr);
    ASSERT_NE(handle, nullptr);
    EXPECT_NE(OsUtils::LibGetAddr(handle, "VxCamFixtureAnswer"), nullptr);
    EXPECT_EQ(OsUtils::LibUnmap(handle), 0);
    EXPECT_TRUE(Logged(capture, "[ERROR   ][UTILS  ] VxCamCommonUtils.cpp:"));
    EXPECT_TRUE(Logged(capture, " LibGetAddr() Error: dlsym(Absent): "));

    handle = &handle;
    EXPECT_EQ(OsUtils::LoadPreBuiltLibrary("libabsent", "VxCamFixtureAnswer", &handle), nullptr);
    EXPECT_EQ(handle, nullptr);
    const std::string path = std::string(getenv("VXCAM_SYSROOT")) + "/vendor/lib64/libabsent.so";
    EXPECT_TRUE(Logged(capture, " LibMap() dlopen: ")) << capture.Messages().back();
    EXPECT_TRUE(Logged(capture, ", on '" + path + "'"));

    capture.Clear();
    EXPECT_EQ(OsUtils::LibGetAddr(nullptr, "VxCamFixtureAnswer"), nullptr);
    EXPECT_EQ(OsUtils::LibUnmap(nullptr), 3);
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(Platform, AlignedAllocation) {
    struct Case {
        size_t alignment;
        size_t expected;  // 0: refused
    };
    // posix_memalign itself refuses 0 and 4: these pass only because they are raised to 8.
    const Case cases[] = {{0, 8}, {4, 8}, {8, 8}, {64, 64}, {4096, 4096}, {48, 0}, {3, 0}};
    for (const Case& c : cases) {
        void* memory = OsUtils::MallocAligned(100, c.alignment);
        if (c.expected == 0) {
            EXPECT_EQ(memory, nullptr) << c.alignment;
            continue;
        }
        ASSERT_NE(memory, nullptr) << c.alignment;
        EXPECT_EQ(reinterpret_cast<uintptr_t>(memory) % c.expected, 0u) << c.alignment;
        OsUtils::FreeAligned(memory);
    }
}

TEST_F(Platform, ProtectionReallyApplies) {
    const size_t page = static_cast<size_t>(OsUtils::PageSize());
    ASSERT_EQ(page, static_cast<size_t>(sysconf(_SC_PAGESIZE)));
    auto* memory = static_cast<volatile char*>(
            mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(memory, MAP_FAILED);
    void* start = const_cast<char*>(memory);

    EXPECT_EQ(OsUtils::MemoryProtect(start, page + 1, {1, 1}), 3);
    EXPECT_EQ(OsUtils::MemoryProtect(const_cast<char*>(memory + 1), page, {1, 1}), 3);

    const auto write = [&] { memory[0] = 1; };
    const auto read = [&] { (void)memory[0]; };
    EXPECT_EQ(OsUtils::MemoryProtect(start, page, {1, 0}), 0);
    EXPECT_EQ(SignalInChild(write), SIGSEGV);
    EXPECT_EQ(SignalInChild(read), 0);
    EXPECT_EQ(OsUtils::MemoryProtect(start, page, {2, 0}), 0);  // only exactly 1 grants
    EXPECT_EQ(SignalInChild(read), SIGSEGV);
    EXPECT_EQ(OsUtils::MemoryProtect(start, page, {1, 1}), 0);
    EXPECT_EQ(SignalInChild(write), 0);

    ASSERT_EQ(munmap(const_cast<char*>(memory + page), page), 0);
    EXPECT_EQ(OsUtils::MemoryProtect(const_cast<char*>(memory + page), page, {1, 1}), 1);
    munmap(start, page);
}

TEST_F(Platform, MapAndUnmapAFile) {
    LogCapture capture;
    vxcamtest::TempDir folder;
    const size_t page = static_cast<size_t>(OsUtils::PageSize());
    const std::string path = folder.Write("buffer", std::string(page, '.'));
    const int fd = open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);

    EXPECT_EQ(OsUtils::MemMap(-1, page, 0), nullptr);
    EXPECT_EQ(OsUtils::MemMap(fd, 0, 0), nullptr);
    EXPECT_EQ(OsUtils::MemUnmap(nullptr, page), -1);
    EXPECT_TRUE(capture.Lines().empty());

    auto* mapped = static_cast<char*>(OsUtils::MemMap(fd, page, 0));
    ASSERT_NE(mapped, nullptr);
    memcpy(mapped, "frame", 5);  // shared: the file sees it
    EXPECT_EQ(OsUtils::MemUnmap(mapped, page), 0);
    EXPECT_EQ(vxcamtest::ReadFile(path).substr(0, 6), "frame.");

    EXPECT_EQ(OsUtils::MemMap(fd, page, 1), nullptr);  // offsets must be whole pages
    EXPECT_TRUE(Logged(capture, "[INFO    ][UTILS  ]"));
    EXPECT_TRUE(Logged(capture, "mmap() failed! errno=22, bufferFD=" + std::to_string(fd) +
                                        ", bufferLength=" + std::to_string(page) + " offset=1"));
    EXPECT_EQ(OsUtils::MemUnmap(mapped + 1, page), -1);
    EXPECT_TRUE(Logged(capture, "munmap() failed! errno 22"));
    close(fd);
}

// Runs until told to end, so that it can still be named.
void* WaitForEnd(void* pipeEnd) {
    char end;
    return read(*static_cast<int*>(pipeEnd), &end, 1) == 1 ? pipeEnd : nullptr;
}

TEST_F(Platform, ThreadWrappers) {
    LogCapture capture;
    int end[2];
    ASSERT_EQ(pipe(end), 0);
    pthread_t thread;
    ASSERT_EQ(OsUtils::ThreadCreate(WaitForEnd, &end[0], &thread), 0);
    EXPECT_EQ(OsUtils::ThreadSetName(thread, "vxcam-probe"), 0);
    EXPECT_EQ(OsUtils::ThreadSetName(thread, "a-name-over-15-chars"), 1);
    ASSERT_EQ(write(end[1], "e", 1), 1);
    EXPECT_EQ(OsUtils::ThreadWait(thread), 0);
    close(end[0]);
    close(end[1]);
    EXPECT_EQ(OsUtils::ThreadWait(pthread_self()), EDEADLK);  // the call's own error number

    pthread_attr_t attributes;
    ASSERT_EQ(OsUtils::ThreadInit(&attributes), 0);
    EXPECT_EQ(OsUtils::ThreadDetach(&attributes), 0);
    int state = 0;
    pthread_attr_getdetachstate(&attributes, &state);
    EXPECT_EQ(state, PTHREAD_CREATE_DETACHED);
    pthread_attr_destroy(&attributes);

    EXPECT_EQ(OsUtils::ThreadGetPriorityMax(SCHED_FIFO), sched_get_priority_max(SCHED_FIFO));
    EXPECT_EQ(OsUtils::ThreadGetPriorityMin(SCHED_FIFO), sched_get_priority_min(SCHED_FIFO));
    pthread_t self = pthread_self();
    EXPECT_EQ(OsUtils::ThreadSetPolicyPriority(&self, SCHED_OTHER, 5), 1);
    EXPECT_TRUE(Logged(capture, "Failed to set thread priority 22"));
    EXPECT_EQ(OsUtils::SetPriority(PRIO_PROCESS, 0, getpriority(PRIO_PROCESS, 0)), 0);
    EXPECT_EQ(OsUtils::SetPriority(-1, 0, 0), 1);
    EXPECT_TRUE(Logged(capture, "Failed to set  priority -1"));
}

TEST_F(Platform, AffinityOfTheCallingThread) {
    LogCapture capture;
    cpu_set_t saved;
    ASSERT_EQ(sched_getaffinity(0, sizeof(saved), &saved), 0);
    if (!CPU_ISSET(1, &saved)) GTEST_SKIP() << "CPU 1 is not available to this process";
    const auto bound = [] {
        cpu_set_t cpus;
        sched_getaffinity(0, sizeof(cpus), &cpus);
        std::string list;
        for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
            if (CPU_ISSET(cpu, &cpus)) list += std::to_string(cpu) + " ";
        }
        return list;
    };
    EXPECT_EQ(OsUtils::SetThreadAffinity(1, 1), 0);
    EXPECT_EQ(bound(), "1 ");
    EXPECT_EQ(OsUtils::SetThreadAffinity(1, 0), -1);  // an empty set is the system's to refuse
    EXPECT_EQ(bound(), "1 ");
    EXPECT_EQ(OsUtils::ResetThreadAffinity(), 0);
    EXPECT_EQ(bound().substr(0, 4), "0 1 ");

    const int cores[] = {1, 2000, -1};
    OsUtils::BindCores(cores, 3);
    EXPECT_EQ(bound(), "1 ");
    EXPECT_TRUE(Logged(capture, "[VERBOSE ][UTILS  ]"));
    EXPECT_TRUE(Logged(capture, "BindCores() Bind cpu core number {1, 2000, -1}"));
    OsUtils::BindCores(cores, 0);
    EXPECT_EQ(bound(), "1 ");
    sched_setaffinity(0, sizeof(saved), &saved);
}

TEST_F(Platform, FileLimitOnlyRises) {
    LogCapture capture;
    rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    if (saved.rlim_max < 2048 || saved.rlim_max >= UINT32_MAX) GTEST_SKIP() << "hard limit";
    rlimit lowered = {1024, saved.rlim_max};
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
    EXPECT_TRUE(Logged(capture, "[INFO    ][CORE   ]"));
    EXPECT_TRUE(Logged(capture, "SetFDLimit() Current limit (RLIMIT_NOFILE):1024"));
    EXPECT_TRUE(Logged(capture, "SetFDLimit() New limit (RLIMIT_NOFILE):2048"));
    EXPECT_EQ(OsUtils::SetFDLimit(static_cast<unsigned>(saved.rlim_max) + 1), 1);
    EXPECT_TRUE(Logged(capture, "setrlimit(RLIMIT_NOFILE) failed; errno:22"));
    EXPECT_EQ(soft(), 2048u);
    setrlimit(RLIMIT_NOFILE, &saved);
}

TEST_F(Platform, SystemQueriesAndFences) {
    LogCapture capture;
    EXPECT_FALSE(OsUtils::Is32bitMode());  // hosts and 64-bit devices alike
    EXPECT_TRUE(Logged(capture, "Is32bitMode() sysname Linux, nodename "));
    EXPECT_EQ(OsUtils::GetTotalRam(), static_cast<unsigned long>(sysconf(_SC_PHYS_PAGES)) *
                                              static_cast<unsigned long>(sysconf(_SC_PAGESIZE)));
    EXPECT_TRUE(Logged(capture, "GetTotalRam() totalram = "));

    int fence[2];
    ASSERT_EQ(pipe(fence), 0);
    EXPECT_EQ(OsUtils::NativeFenceWait(fence[0], 0), 1);  // not yet signalled
    ASSERT_EQ(write(fence[1], "s", 1), 1);
    EXPECT_EQ(OsUtils::NativeFenceWait(fence[0], 0), 0);
    EXPECT_EQ(OsUtils::NativeFenceWait(-1, 0), 1);
    close(fence[0]);
    close(fence[1]);
}

TEST_F(Platform, MetadataDumpFolderIsMadeOnce) {
    LogCapture capture;
    vxcamtest::TempDir sysroot;
    sysroot.Write("data/vendor/camera/.keep", "");
    const std::string saved = getenv("VXCAM_SYSROOT");
    setenv("VXCAM_SYSROOT", sysroot.Path().c_str(), 1);
    OsUtils::SetMetadataDumpDirectoryPath();
    OsUtils::SetMetadataDumpDirectoryPath();
    setenv("VXCAM_SYSROOT", saved.c_str(), 1);

    const std::string folder = sysroot / "data/vendor/camera/metadata";
    struct stat info;
    ASSERT_EQ(stat(folder.c_str(), &info), 0);
    EXPECT_TRUE(S_ISDIR(info.st_mode));
    const std::vector<std::string> messages = capture.Messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_NE(messages[0].find("Camera Metadata Dump: Create root Dir: " + folder + " return = 0"),
              std::string::npos);
    EXPECT_NE(messages[1].find("Camera Metadata Dump: Dir:" + folder + " already exists"),
              std::string::npos);
}

volatile sig_atomic_t s_debuggerSignals = 0;

TEST_F(Platform, SelfSignals) {
    EXPECT_EQ(SignalInChild([] { OsUtils::RaiseSignalAbort(); }), SIGABRT);

    // The debugger's handler does the dump; here a stand-in counts the request.
    struct sigaction counting = {}, previous = {};
    counting.sa_handler = [](int) { ++s_debuggerSignals; };
    ASSERT_EQ(sigaction(35, &counting, &previous), 0);
    EXPECT_EQ(OsUtils::DumpCallStacksForAllThreads(), 0);
    EXPECT_EQ(s_debuggerSignals, 1);
    sigaction(35, &previous, nullptr);
}

}  // namespace
