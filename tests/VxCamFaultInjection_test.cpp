// The offline logger against the faults a device meets: a disk that fills during a flush, a
// session folder or a log file that cannot be made, a file system that cannot be asked. Each case
// checks what the library reports and that it keeps the lines it promises to keep.
#include <errno.h>
#include <string.h>
#include <sys/mount.h>
#include <unistd.h>

#include "TestLogger.h"

using namespace VxCam;
using namespace vxcamtest;
namespace fs = std::filesystem;

namespace {

const OfflineLoggerConfigInfo kConfig = {4, 4, 1, 4096};  // 64 numbered lines a bucket
const std::string kOpenFailed =
        "FlushLogToFile\\(\\):\\d+ Offlinelog failed to open file and write\n";

class FaultInjection : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("VXCAM_SYSROOT", m_root.Path().c_str(), 1);
        fs::create_directories(Camera());
        VxCamOfflineLogger::GetInstance(OfflineLog);  // the logger set exists
    }
    std::string Camera() const { return m_root / "data/vendor/camera"; }
    std::string Folder() const { return Camera() + "/VxCam_OfflineLog_" + kT1; }

    TempDir m_root;
};

constexpr int kCannotMount = 77;

// The logger starts on the disk (it wants 3000 MB free), then a 16 KiB tmpfs takes the camera
// folder's place in a mount namespace of the child's own, and four threads hand over 25600 bytes.
// What does not fit is lost and reported, bucket by bucket, naming the file; the logger goes on,
// and once the disk has room again nothing more is lost.
TEST_F(FaultInjection, FullDiskDuringAFlush) {
    if (geteuid() != 0) GTEST_SKIP() << "a tmpfs in a private mount namespace needs root";
    const ChildEnd child = CheckInChild(m_root, [&] {
        const std::string camera = Camera();
        TestLogger logger(OfflineLog, kConfig);  // every handed-over bucket is written
        ASSERT_EQ(logger.GetSettingLink(), 1);
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", camera.c_str(), "tmpfs", 0, "size=16k") != 0) {
            printf("cannot mount: %s\n", strerror(errno));
            _exit(kCannotMount);
        }
        logger.m_freeMB = -1.0;  // the tmpfs answers from now on
        LogCapture log;
        for (const bool full : {true, false}) {
            SCOPED_TRACE(full ? "full" : "room");
            std::vector<pid_t> tids;
            for (int t = 0; t < 4; ++t)  // a bucket and a half each: two buckets handed over
                tids.push_back(OnNewThread([&] { LogNumbered(logger, t, 0, 100); }));
            EXPECT_EQ(logger.FlushLogToFile(0, 0), 0);
            EXPECT_EQ(logger.IsEnableOfflinelogger(), 1);
            EXPECT_EQ(logger.m_freeBucketIds.size(), logger.m_memPool.size())
                    << "a failed write keeps no bucket";
            size_t landed = 0, errors = 0;
            for (int t = 0; t < 4; ++t) {
                const std::vector<int> seqs = Seqs(ThreadText(camera, tids[t]), t);
                EXPECT_EQ(seqs, Range(0, static_cast<int>(seqs.size()))) << "thread " << t;
                const size_t reported =
                        Count(log,
                              "FlushLogToFile\\(\\):\\d+ Offlinelog failed to write \\d+ bytes to "
                              ".*__Tid" +
                                      std::to_string(tids[t]) +
                                      "_Session1_Segment1\\.txt: No space left on device\n");
                EXPECT_EQ(reported > 0, seqs.size() < 100) << "thread " << t;
                landed += seqs.size();
                errors += reported;
            }
            EXPECT_EQ(log.Messages().size(), errors) << "nothing else is said";
            EXPECT_EQ(errors > 0, full);
            EXPECT_TRUE(full ? landed <= 16384 / 64 : landed == 400) << landed << " lines landed";
            log.Clear();
            mount(nullptr, camera.c_str(), nullptr, MS_REMOUNT, "size=1m");
        }
    });
    if (child.exitCode == kCannotMount) GTEST_SKIP() << "no tmpfs in a private mount namespace";
    EXPECT_EQ(child.exitCode, 0) << "signal " << child.signal;
}

// A file holds the session folder's name. Naming goes on, so each bucket's open fails and is
// reported, and the registration keeps its bucket; the folder is not made again within the
// session, so its lines are lost even once the way is clear. The next session writes as usual.
TEST_F(FaultInjection, SessionFolderThatCannotBeMade) {
    TestLogger logger(OfflineLog, kConfig);
    m_root.Write("data/vendor/camera/VxCam_OfflineLog_" + std::string(kT1), "in the way");
    LogCapture log;
    logger.NotifyCameraOpen();
    OnNewThread([&] { LogNumbered(logger, 0, 0, 10); });
    EXPECT_EQ(logger.FlushLogToFile(0, 0), 0);
    EXPECT_EQ(log.Messages().size(), 2u);
    EXPECT_EQ(Count(log, "GetPrefixFilename\\(\\):\\d+ Failed to create Offlinelogger folder\n"),
              1u);
    EXPECT_EQ(Count(log, kOpenFailed), 1u);
    EXPECT_EQ(logger.IsEnableOfflinelogger(), 1);
    ASSERT_EQ(logger.m_perLogInfoPool.size(), 1u);  // kept with its bucket and its request
    EXPECT_TRUE(logger.m_perLogInfoPool[0].flushRequested == 1 &&
                logger.m_freeBucketIds.size() + 1 == logger.m_memPool.size());

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

// A folder where a thread's log file goes, while `m_obstruct` is set: each of its four buckets
// fails to open, is reported and kept with its request. Other threads' files are written
// meanwhile; the close, once the way is clear, writes the four buckets, each line once.
TEST_F(FaultInjection, LogFileThatCannotBeOpened) {
    struct ObstructedLogger : TestLogger {
        ObstructedLogger() : TestLogger(OfflineLog, kConfig) {}
        std::string GenerateLogFileNameByOfflineLoggerType(
                std::vector<PerLogThreadInfo>::iterator* it) override {
            const std::string name = TestLogger::GenerateLogFileNameByOfflineLoggerType(it);
            if (m_obstruct) fs::create_directories(m_obstacle = (*it)->path);
            return name;
        }
        bool m_obstruct = true;
        std::string m_obstacle;
    } logger;
    LogCapture log;
    logger.NotifyCameraOpen();
    const pid_t blocked = OnNewThread([&] { LogNumbered(logger, 0, 0, 250); });
    EXPECT_EQ(logger.FlushLogToFile(0, 0), 0);
    EXPECT_EQ(log.Messages().size(), 4u);
    EXPECT_EQ(Count(log, kOpenFailed), 4u);
    EXPECT_TRUE(logger.m_flushRequestCount == 4 && logger.m_flushRequestIds.empty());
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

// statvfs fails: -1.0, and the logger is off for good; no later flush writes a line it holds.
TEST_F(FaultInjection, FileSystemThatCannotBeAsked) {
    TestLogger logger(OfflineLog, kConfig);
    logger.m_freeMB = -1.0;
    OnNewThread([&] { logger.AddLog("held\n", 5); });
    setenv("VXCAM_SYSROOT", (m_root / "missing").c_str(), 1);
    LogCapture log;
    EXPECT_EQ(logger.GetSettingLink(), 0);
    std::string messages;
    for (const std::string& message : log.Messages())
        messages += message.substr(0, message.find(':')) + message.substr(message.find(' '));
    EXPECT_EQ(messages,
              "GetAvailableSpace() Offlinelog failed to get file system information!\n"
              "GetSettingLink() VxCamOfflineLogger query system space failed!\n"
              "GetSettingLink() VxCamOfflineLogger get override setting failed\n");
    EXPECT_EQ(logger.GetAvailableSpace((m_root / "missing").c_str()), -1.0);
    EXPECT_EQ(logger.IsEnableOfflinelogger(), 0);
    EXPECT_EQ(logger.AddLog("more\n", 5), 2);
    setenv("VXCAM_SYSROOT", m_root.Path().c_str(), 1);
    EXPECT_EQ(logger.FlushLogToFile(1, 0), 2);
    EXPECT_FALSE(fs::exists(Folder()));
}

}  // namespace
