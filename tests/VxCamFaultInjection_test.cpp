// The offline logger against the faults a device meets: a disk that fills during a flush, a
// session folder or a log file that cannot be made, a file system that cannot be asked, and
// threads that end holding a bucket while the host flushes everything. Each case checks what the
// library reports and that it keeps the lines it promises to keep.
#include <errno.h>
#include <sched.h>
#include <string.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "TestLogger.h"
#include "TestSupport.h"

using namespace VxCam;
namespace fs = std::filesystem;
using vxcamtest::kT1;
using vxcamtest::OnNewThread;
using vxcamtest::TestLogger;

namespace {

constexpr uint32_t kBucket = 4096;
constexpr size_t kLineLength = 64;  // 64 lines fill a bucket

// "t<thread> s<seq> ....\n", kLineLength bytes.
std::string Numbered(int thread, int seq) {
    std::string line = "t" + std::to_string(thread) + " s" + std::to_string(seq) + " ";
    line.resize(kLineLength - 1, '.');
    return line + "\n";
}

void LogNumbered(VxCamOfflineLogger& logger, int thread, int first, int count) {
    for (int seq = first; seq < first + count; ++seq) {
        const std::string line = Numbered(thread, seq);
        logger.AddLog(line.data(), static_cast<unsigned>(line.size()));
    }
}

// The sequence numbers of thread `thread` in `text`, in file order; -1 for a line that is not one
// of the numbered lines whole.
std::vector<int> Seqs(const std::string& text, int thread) {
    std::vector<int> seqs;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        int t = -1, seq = -1;
        const bool whole = line.size() == kLineLength - 1 &&
                           sscanf(line.c_str(), "t%d s%d", &t, &seq) == 2 && t == thread &&
                           Numbered(t, seq) == line + "\n";
        seqs.push_back(whole ? seq : -1);
    }
    return seqs;
}

std::vector<int> Range(int first, int count) {
    std::vector<int> seqs(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) seqs[static_cast<size_t>(i)] = first + i;
    return seqs;
}

// The messages of `log` that match `pattern` whole.
size_t Count(const vxcamtest::LogCapture& log, const std::string& pattern) {
    const std::regex whole(pattern);
    const auto messages = log.Messages();
    return static_cast<size_t>(std::count_if(messages.begin(), messages.end(),
                                             [&](auto& m) { return std::regex_match(m, whole); }));
}

const std::string kOpenFailed =
        "FlushLogToFile\\(\\):\\d+ Offlinelog failed to open file and write\n";

// Every file under `folder` whose name holds "__Tid<tid>_", concatenated in name order.
std::string ThreadText(const std::string& folder, pid_t tid) {
    std::map<std::string, std::string> files;
    if (!fs::exists(folder)) return std::string();
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        const std::string path = entry.path().string();
        if (entry.is_regular_file() &&
            path.find("__Tid" + std::to_string(tid) + "_") != std::string::npos) {
            files[path] = vxcamtest::ReadFile(path);
        }
    }
    std::string text;
    for (const auto& [path, content] : files) text += content;
    return text;
}

class FaultInjection : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("VXCAM_SYSROOT", m_root.Path().c_str(), 1);
        m_root.MakeCameraRoot();
        VxCamOfflineLogger::GetInstance(OfflineLog);  // the logger set exists
    }
    std::string Camera() const { return m_root / "data/vendor/camera"; }
    std::string Folder() const { return Camera() + "/VxCam_OfflineLog_" + kT1; }

    vxcamtest::TempDir m_root;
};

// ---- A full disk --------------------------------------------------------------------------------

// What a child saw, as "key value" lines in a file outside its private mounts.
class ChildReport {
  public:
    explicit ChildReport(const std::string& path) : m_out(path) {}
    void Note(const std::string& key, long value) { m_out << key << ' ' << value << std::endl; }

  private:
    std::ofstream m_out;
};

// Every value noted under each key, in order.
std::map<std::string, std::vector<long>> ReadReport(const std::string& path) {
    std::map<std::string, std::vector<long>> values;
    std::istringstream lines(vxcamtest::ReadFile(path));
    std::string key;
    long value = 0;
    while (lines >> key >> value) values[key].push_back(value);
    return values;
}

constexpr int kCannotMount = 77;

// The logger starts on the disk, since it wants 3000 MB free to start; then a 16 KiB tmpfs takes
// the place of the camera folder, in a mount namespace of the child's own, and four threads hand
// over 25600 bytes. What does not fit is lost and reported, bucket by bucket, naming the file; the
// logger goes on, and once the disk has room again nothing more is lost.
TEST_F(FaultInjection, FullDiskDuringAFlush) {
    if (geteuid() != 0) GTEST_SKIP() << "a tmpfs in a private mount namespace needs root";
    const std::string reportPath = m_root / "report";
    const vxcamtest::ChildEnd child = vxcamtest::RunInChild(m_root, [&] {
        const std::string camera = Camera();
        TestLogger logger(OfflineLog, {4, 4, 1, kBucket});  // every handed-over bucket is written
        ChildReport report(reportPath);
        report.Note("start", logger.GetSettingLink());
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", camera.c_str(), "tmpfs", 0, "size=16k") != 0) {
            report.Note("errno", errno);
            _exit(kCannotMount);
        }
        logger.m_freeMB = -1.0;  // the tmpfs answers from now on
        vxcamtest::LogCapture log;
        for (const std::string round : {"full", "room"}) {
            std::vector<pid_t> tids;
            for (int t = 0; t < 4; ++t) {
                // A bucket and a half of lines, then the thread ends: two buckets handed over.
                tids.push_back(OnNewThread([&] { LogNumbered(logger, t, 0, 100); }));
            }
            report.Note(round + "-flush", logger.FlushLogToFile(0, 0));
            report.Note(round + "-enabled", logger.IsEnableOfflinelogger());
            report.Note(round + "-pooled", logger.m_freeBucketIds.size() == logger.m_memPool.size());
            for (int t = 0; t < 4; ++t) {
                const std::vector<int> seqs = Seqs(ThreadText(camera, tids[t]), t);
                report.Note(round + "-first-part", seqs == Range(0, static_cast<int>(seqs.size())));
                report.Note(round + "-landed", static_cast<long>(seqs.size()));
                report.Note(round + "-reported",
                            static_cast<long>(Count(log,
                                                    "FlushLogToFile\\(\\):\\d+ Offlinelog "
                                                    "failed to write \\d+ bytes to .*__Tid" +
                                                            std::to_string(tids[t]) +
                                                            "_Session1_Segment1\\.txt: No "
                                                            "space left on device\n")));
            }
            report.Note(round + "-messages", static_cast<long>(log.Messages().size()));
            log.Clear();
            mount(nullptr, camera.c_str(), nullptr, MS_REMOUNT, "size=1m");
        }
        _exit(0);
    });
    auto report = ReadReport(reportPath);
    if (child.exitCode == kCannotMount) {
        GTEST_SKIP() << "no tmpfs in a private mount namespace: " << strerror(report["errno"][0]);
    }
    ASSERT_EQ(child.exitCode, 0) << "signal " << child.signal;
    EXPECT_EQ(report["start"], std::vector<long>{1});
    for (const std::string round : {"full", "room"}) {
        SCOPED_TRACE(round);
        EXPECT_EQ(report[round + "-flush"], std::vector<long>{0});
        EXPECT_EQ(report[round + "-enabled"], std::vector<long>{1});
        EXPECT_EQ(report[round + "-pooled"], std::vector<long>{1})
                << "a failed write keeps no bucket";
        EXPECT_EQ(report[round + "-first-part"], std::vector<long>(4, 1));
        const std::vector<long>& landed = report[round + "-landed"];
        const std::vector<long>& reported = report[round + "-reported"];
        ASSERT_EQ(landed.size(), 4u);
        ASSERT_EQ(reported.size(), 4u);
        long total = 0, errors = 0;
        for (size_t t = 0; t < 4; ++t) {
            total += landed[t];
            errors += reported[t];
            EXPECT_EQ(reported[t] > 0, landed[t] < 100) << "thread " << t;
        }
        EXPECT_EQ(report[round + "-messages"], std::vector<long>{errors}) << "nothing else is said";
        if (round == "full") {
            EXPECT_LE(total, 16384 / static_cast<long>(kLineLength)) << "more than the disk holds";
            EXPECT_GT(errors, 0) << "the disk did not fill";
        } else {
            EXPECT_EQ(total, 400);
        }
    }
}

// ---- Folders and files that cannot be made -------------------------------------------------------

// The session folder's name is taken by a file. Naming goes on, so each bucket's open fails and is
// reported, and the registration keeps its bucket; the folder is not made again within the
// session, so its lines are lost even once the way is clear. The next session writes as usual.
TEST_F(FaultInjection, SessionFolderThatCannotBeMade) {
    TestLogger logger(OfflineLog, {4, 4, 1, kBucket});
    m_root.Write("data/vendor/camera/VxCam_OfflineLog_" + std::string(kT1), "in the way");
    vxcamtest::LogCapture log;
    logger.NotifyCameraOpen();
    OnNewThread([&] { LogNumbered(logger, 0, 0, 10); });
    EXPECT_EQ(logger.FlushLogToFile(0, 0), 0);
    EXPECT_EQ(log.Messages().size(), 2u);
    EXPECT_EQ(Count(log, "GetPrefixFilename\\(\\):\\d+ Failed to create Offlinelogger folder\n"),
              1u);
    EXPECT_EQ(Count(log, kOpenFailed), 1u);
    EXPECT_EQ(logger.IsEnableOfflinelogger(), 1);
    ASSERT_EQ(logger.m_perLogInfoPool.size(), 1u);
    EXPECT_EQ(logger.m_perLogInfoPool[0].flushRequested, 1u);
    EXPECT_EQ(std::count(logger.m_freeBucketIds.begin(), logger.m_freeBucketIds.end(),
                         static_cast<int>(logger.m_perLogInfoPool[0].bucketId)),
              0);

    fs::remove(Folder());
    log.Clear();
    logger.NotifyCameraClose();
    EXPECT_EQ(Count(log, kOpenFailed), 1u);
    EXPECT_FALSE(fs::exists(Folder()));

    logger.NotifyCameraOpen();
    const pid_t tid = OnNewThread([&] { LogNumbered(logger, 1, 0, 10); });
    logger.NotifyCameraClose();
    EXPECT_EQ(Seqs(ThreadText(Folder(), tid), 1), Range(0, 10));
}

// Plants a folder where the flush is about to open a log file, while `m_obstruct` is set.
class ObstructedLogger : public TestLogger {
  public:
    ObstructedLogger() : TestLogger(OfflineLog, {4, 4, 1, kBucket}) {}
    std::string GenerateLogFileNameByOfflineLoggerType(
            std::vector<PerLogThreadInfo>::iterator* it) override {
        const std::string name = TestLogger::GenerateLogFileNameByOfflineLoggerType(it);
        if (m_obstruct) {
            fs::create_directories((*it)->path);
            m_obstacle = (*it)->path;
        }
        return name;
    }

    bool m_obstruct = true;
    std::string m_obstacle;
};

// A folder in place of a thread's log file: each of its four buckets fails to open, is reported
// and kept with its request. Other threads' files are written meanwhile; the camera close, once
// the way is clear, writes the four buckets, so no line is lost, and none is written twice.
TEST_F(FaultInjection, LogFileThatCannotBeOpened) {
    ObstructedLogger logger;
    vxcamtest::LogCapture log;
    logger.NotifyCameraOpen();
    const pid_t blocked = OnNewThread([&] { LogNumbered(logger, 0, 0, 250); });
    EXPECT_EQ(logger.FlushLogToFile(0, 0), 0);
    EXPECT_EQ(log.Messages().size(), 4u);
    EXPECT_EQ(Count(log, kOpenFailed), 4u);
    EXPECT_EQ(logger.m_flushRequestCount, 4u);
    EXPECT_TRUE(logger.m_flushRequestIds.empty());
    EXPECT_EQ(logger.IsEnableOfflinelogger(), 1);

    fs::remove(logger.m_obstacle);
    logger.m_obstruct = false;
    const pid_t other = OnNewThread([&] { LogNumbered(logger, 1, 0, 10); });
    EXPECT_EQ(logger.FlushLogToFile(0, 0), 0);
    EXPECT_EQ(Seqs(ThreadText(Folder(), other), 1), Range(0, 10));
    EXPECT_EQ(ThreadText(Folder(), blocked), "") << "written before the flush of everything";

    logger.NotifyCameraClose();
    EXPECT_EQ(Seqs(ThreadText(Folder(), blocked), 0), Range(0, 250));
    EXPECT_EQ(Count(log, kOpenFailed), 4u);
}

// ---- A file system that cannot be asked ----------------------------------------------------------

// statvfs fails: -1.0 and the logger is off for good. A line a thread holds is not written by any
// later flush.
TEST_F(FaultInjection, FileSystemThatCannotBeAsked) {
    TestLogger logger(OfflineLog, {4, 4, 1, kBucket});
    logger.m_freeMB = -1.0;
    OnNewThread([&] { logger.AddLog("held\n", 5); });
    setenv("VXCAM_SYSROOT", (m_root / "missing").c_str(), 1);
    vxcamtest::LogCapture log;
    EXPECT_EQ(logger.GetSettingLink(), 0);
    const std::vector<std::string> messages = log.Messages();
    const char* const kExpected[] = {
            "GetAvailableSpace\\(\\):\\d+ Offlinelog failed to get file system information!\n",
            "GetSettingLink\\(\\):\\d+ VxCamOfflineLogger query system space failed!\n",
            "GetSettingLink\\(\\):\\d+ VxCamOfflineLogger get override setting failed\n",
    };
    ASSERT_EQ(messages.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_TRUE(std::regex_match(messages[i], std::regex(kExpected[i]))) << messages[i];
    }
    EXPECT_EQ(logger.GetAvailableSpace((m_root / "missing").c_str()), -1.0);
    EXPECT_EQ(logger.IsEnableOfflinelogger(), 0);
    EXPECT_EQ(logger.AddLog("more\n", 5), 2);
    setenv("VXCAM_SYSROOT", m_root.Path().c_str(), 1);
    EXPECT_EQ(logger.FlushLogToFile(1, 0), 2);
    EXPECT_FALSE(fs::exists(Folder()));
}

// ---- Threads that end holding a bucket ----------------------------------------------------------

// The host flushes everything in the middle of a session (flushLog(type, 1) of the entry table).
// A thread that logs on goes on in its bucket from the start, and its exit hands the bucket over
// once: no bucket or registration is free twice, so no two threads ever share one.
TEST_F(FaultInjection, ThreadEndsAfterAFlushOfEverything) {
    TestLogger logger(OfflineLog, {4, 4, 1, kBucket});
    logger.NotifyCameraOpen();
    std::promise<void> logged, flushed;
    pid_t tid = 0;
    std::thread first([&] {
        tid = gettid();
        LogNumbered(logger, 0, 0, 3);
        logged.set_value();
        flushed.get_future().wait();
        LogNumbered(logger, 0, 3, 3);
    });
    logged.get_future().wait();
    EXPECT_EQ(logger.FlushLogToFile(1, 0), 0);
    flushed.set_value();
    first.join();
    EXPECT_EQ(logger.FlushLogToFile(0, 0), 0);
    for (const std::deque<int>* ids : {&logger.m_freeBucketIds, &logger.m_freeRegisterIds}) {
        EXPECT_EQ(std::set<int>(ids->begin(), ids->end()).size(), ids->size());
    }
    EXPECT_EQ(Seqs(ThreadText(Folder(), tid), 0), Range(0, 6));

    // Two threads alive at once get buckets of their own.
    std::promise<void> bothLogged;
    std::shared_future<void> go = bothLogged.get_future().share();
    std::atomic<int> ready{0};
    pid_t tids[2] = {};
    std::vector<std::thread> pair;
    for (int t = 1; t <= 2; ++t) {
        pair.emplace_back([&, t] {
            tids[t - 1] = gettid();
            LogNumbered(logger, t, 0, 20);
            ++ready;
            go.wait();
        });
    }
    while (ready.load() < 2) std::this_thread::yield();
    bothLogged.set_value();
    for (std::thread& thread : pair) thread.join();
    logger.NotifyCameraClose();
    for (int t = 1; t <= 2; ++t) {
        EXPECT_EQ(Seqs(ThreadText(Folder(), tids[t - 1]), t), Range(0, 20)) << "thread " << t;
    }

    // A core-dump thread that ends before its next line gives its registration back, though the
    // flush left it a fresh bucket in place of the one the thread held, and a camera close since
    // has started the flushes' count over.
    TestLogger coredump(CoredumpTxt, {0, 2, 1, kBucket});
    const std::string corePath = m_root / "core";
    coredump.SetCoredumpPath(corePath.c_str());
    std::promise<void> coreLogged, coreFlushed;
    std::thread core([&] {
        LogNumbered(coredump, 3, 0, 3);
        coreLogged.set_value();
        coreFlushed.get_future().wait();
    });
    coreLogged.get_future().wait();
    EXPECT_EQ(coredump.FlushLogToFile(1, 0), 0);
    coredump.NotifyCameraOpen();
    coredump.NotifyCameraClose();
    coreFlushed.set_value();
    core.join();
    EXPECT_EQ(coredump.m_freeRegisterIds.size(), coredump.m_perLogInfoPool.size());
    EXPECT_EQ(coredump.m_freeBucketIds.size(), coredump.m_memPool.size());
    EXPECT_EQ(Seqs(vxcamtest::ReadFile(corePath), 3), Range(0, 3));
}

// Eight slots of short-lived threads, each ending with a part-filled bucket, while the host
// flushes everything and flushes as usual, over and over: every line lands once, in order.
TEST_F(FaultInjection, ShortLivedThreadsWhileTheHostFlushesEverything) {
    TestLogger logger(OfflineLog, {4, 4, 2, kBucket});
    logger.NotifyCameraOpen();
    constexpr int kSlots = 8;
    constexpr int kThreadsPerSlot = 12;
    constexpr int kLines = 150;
    std::vector<std::vector<pid_t>> tids(kSlots);
    std::atomic<int> running{kSlots};
    std::vector<std::thread> slots;
    for (int slot = 0; slot < kSlots; ++slot) {
        slots.emplace_back([&, slot] {
            for (int n = 0; n < kThreadsPerSlot; ++n) {
                tids[slot].push_back(
                        OnNewThread([&] { LogNumbered(logger, slot, n * kLines, kLines); }));
            }
            --running;
        });
    }
    while (running.load() > 0) {
        logger.FlushLogToFile(1, 0);
        logger.FlushLogToFile(0, 0);
    }
    for (std::thread& slot : slots) slot.join();
    logger.NotifyCameraClose();
    for (int slot = 0; slot < kSlots; ++slot) {
        std::vector<int> seqs;
        for (pid_t tid : tids[slot]) {
            const std::vector<int> own = Seqs(ThreadText(Folder(), tid), slot);
            EXPECT_TRUE(std::is_sorted(own.begin(), own.end())) << "slot " << slot;
            seqs.insert(seqs.end(), own.begin(), own.end());
        }
        std::sort(seqs.begin(), seqs.end());
        EXPECT_EQ(seqs, Range(0, kThreadsPerSlot * kLines)) << "slot " << slot;
    }
}

}  // namespace
