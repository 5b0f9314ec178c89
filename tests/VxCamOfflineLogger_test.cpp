// The offline logger: capture boundaries, flushing and file naming, sessions, the pool, retention,
// the status report, crash backup, the entry table. Loggers under test are derived instances with
// small buckets; every test logs from fresh threads, since the capture keeps its state per thread
// and per type.
#include "VxCamOfflineLogger.h"

#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <list>
#include <memory>
#include <set>

#include "TestLogger.h"

using namespace VxCam;
using namespace vxcamtest;
namespace fs = std::filesystem;

// A thread that arms the gate stops at its next gettid() until the gate opens: in a first line,
// that is after it has let itself in and before it asks the pool for a bucket.
namespace {
struct Gate {
    std::atomic<bool> reached{false};
    std::atomic<bool> open{false};
};
thread_local Gate* t_gettidGate = nullptr;
}  // namespace

extern "C" pid_t gettid() noexcept {
    if (Gate* gate = t_gettidGate) {
        t_gettidGate = nullptr;
        gate->reached = true;
        while (!gate->open.load()) std::this_thread::yield();
    }
    return static_cast<pid_t>(syscall(SYS_gettid));
}

namespace {

class OfflineLoggerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("VXCAM_SYSROOT", m_root.Path().c_str(), 1);
        fs::create_directories(Camera());
        VxCamOfflineLogger::GetInstance(OfflineLog);  // the logger set exists
    }
    // The process's default logger outlives the test: a camera close writes what the test left in
    // it under the test's own root and ends its session there, so that the next test's lines
    // begin a session under that test's root.
    void TearDown() override {
        setenv("VXCAM_SYSROOT", m_root.Path().c_str(), 1);
        VxCamOfflineLogger::GetInstance(OfflineLog)->NotifyCameraClose();
    }
    std::string Camera() const { return m_root / "data/vendor/camera"; }
    std::string Folder() const { return Camera() + "/VxCam_OfflineLog_" + kT1; }

    // Every file of the session folder (or another), by name.
    std::map<std::string, std::string> Files(const std::string& folder = "") const {
        std::map<std::string, std::string> files;
        for (const auto& [path, text] : FilesUnder(folder.empty() ? Folder() : folder))
            files[fs::path(path).filename()] = text;
        return files;
    }

    TempDir m_root;
};

const OfflineLoggerConfigInfo kSmall = {4, 4, 1, 64};
const OfflineLoggerConfigInfo kCore = {0, 2, 1, 64};

TEST_F(OfflineLoggerTest, FilesAreNamedByTypeThreadSessionAndSegment) {
    for (OfflineLoggerType type : {OfflineLog, BinaryLog}) {
        SCOPED_TRACE(type);
        TestLogger logger(type, kSmall);
        // 160 bytes: three buckets of one file.
        const pid_t tid = OnNewThread([&] { LogNumbered(logger, 0, 0, 10, 16); });
        ASSERT_EQ(logger.FlushLogToFile(1, 0), 0);
        const std::regex name(
                std::string("VxCam_") + (type == OfflineLog ? "OfflineLog" : "BinaryLog") +
                "_\\d{4}-\\d\\d-\\d\\d--\\d\\d-\\d\\d-\\d\\d-\\d{6}__Tid" + std::to_string(tid) +
                "_Session1_Segment1\\." + (type == OfflineLog ? "txt" : "bin"));
        const auto files = Files();
        ASSERT_EQ(files.size(), 1u);
        EXPECT_TRUE(std::regex_match(files.begin()->first, name)) << files.begin()->first;
        EXPECT_EQ(Seqs(files.begin()->second, 0, 16), Range(0, 10));
        fs::remove_all(Folder());
    }
}

TEST_F(OfflineLoggerTest, TextFileNamesAreRecordedAndTheListIsBounded) {
    TestLogger logger(OfflineLog, kSmall);
    logger.GetSettingLink();  // list bound 200
    for (int i = 0; i < 202; ++i) {
        OnNewThread([&] { logger.AddLog("x\n", 2); });  // exit hands the bucket over
        logger.FlushLogToFile(0, 0);
    }
    EXPECT_EQ(logger.m_fileNameList.size(), 201u);
    EXPECT_EQ(logger.m_fileNameSet.size(), 202u);
    EXPECT_EQ(logger.m_fileNameList.front().rfind("VxCam_OfflineLog_", 0), 0u);
    EXPECT_NE(logger.m_fileNameList.front().find("__Tid"), std::string::npos);
}

TEST_F(OfflineLoggerTest, CaptureBoundaries) {
    TestLogger logger(OfflineLog, kSmall);
    OnNewThread([&] {
        logger.AddLog((std::string(63, 'a') + "\n").c_str(), 64);  // exactly one bucket
        EXPECT_TRUE(logger.FlushCalls().empty());
        logger.AddLog("b\n", 2);  // one byte more than the bucket holds
        EXPECT_EQ(logger.FlushCalls(), (std::vector<std::pair<int, int>>{{0, 0}}));
        EXPECT_EQ(logger.m_perLogInfoPool.at(1).fileSize, 66u);  // the same file goes on
        logger.AddLog("c\n\0garbage", 500);  // a stated length beyond the terminator: the line
        logger.AddLog(std::string(200, 'h').c_str(), 200);  // longer than a bucket: its worth
    });
    logger.FlushLogToFile(1, 0);
    const auto files = Files();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files.begin()->second, std::string(63, 'a') + "\nb\nc\n" + std::string(64, 'h'));
}

TEST_F(OfflineLoggerTest, SegmentEndsOnTheFirstLineThatFitsAfter50MiB) {
    constexpr uint32_t kBucket = 1 << 20;
    TestLogger logger(OfflineLog, {2, 2, 1, kBucket});
    const std::string half(kBucket / 2 - 1, 's');
    OnNewThread([&] {
        // 100 half-bucket lines make exactly 50 MiB; the 101st starts a bucket (not a segment);
        // the 102nd fits that bucket and is the first of segment 2.
        for (int i = 0; i < 102; ++i) {
            const std::string line = half + static_cast<char>('0' + i % 10);
            logger.AddLog(line.data(), line.size());
            logger.FlushLogToFile(0, 0);
        }
    });
    const auto calls = logger.FlushCalls();
    ASSERT_GE(calls.size(), 51u);
    EXPECT_EQ(std::count_if(calls.begin(), calls.end(), [](auto c) { return c.second == 1; }), 1);
    EXPECT_EQ(calls[50].second, 1);  // line 102 hands over segment 1's last bucket

    logger.FlushLogToFile(1, 0);
    std::map<std::string, size_t> sizes;
    for (const auto& [name, text] : Files()) {
        sizes[name.substr(name.find("_Segment"))] = text.size();
        EXPECT_EQ(text.back(), name.find("Segment1") != std::string::npos ? '0' : '1') << name;
    }
    EXPECT_EQ(sizes, (std::map<std::string, size_t>{{"_Segment1.txt", 101u * kBucket / 2},
                                                    {"_Segment2.txt", kBucket / 2}}));
}

// A thread's exit hands its bucket to the flush for the text and binary logs only; a flush that
// is not forced writes once its batch of requests has gathered.
TEST_F(OfflineLoggerTest, ThreadExitHandsOverAndTheFlushWaitsForItsBatch) {
    for (OfflineLoggerType type : {OfflineLog, BinaryLog, CoredumpTxt, CoredumpBin}) {
        TestLogger logger(type, kSmall);
        OnNewThread([&] { logger.AddLog("last words\n", 11); });
        EXPECT_EQ(logger.FlushCalls().size(), type <= BinaryLog ? 1u : 0u) << type;
    }
    TestLogger logger(OfflineLog, {4, 4, 3, 64});
    ASSERT_EQ(logger.FlushLogToFile(0, 0), 2);  // no pool yet
    for (const char* line : {"a\n", "b\n", "c\n"}) {
        EXPECT_TRUE(Files().empty());
        EXPECT_EQ(logger.m_triggerOperation, 0u);
        OnNewThread([&] { logger.AddLog(line, 2); });
        EXPECT_EQ(logger.FlushLogToFile(0, 0), 0);
    }
    EXPECT_EQ(logger.m_triggerOperation, 3u);
    EXPECT_EQ(Files().size(), 3u);
}

// Stops a thread inside its first line, in the bucket request under the capture lock, until let go.
class StalledLogger : public TestLogger {
  public:
    using TestLogger::TestLogger;
    int RequestNewLogQueue(unsigned char*& buffer, unsigned int threadId, int segmentCnt) override {
        m_inside.set_value();
        m_letGo.wait();
        return TestLogger::RequestNewLogQueue(buffer, threadId, segmentCnt);
    }

    std::promise<void> m_inside;
    std::shared_future<void> m_letGo;
};

// A flush of everything with no bucket to write answers at once: it does not wait for the threads
// that are inside a line, as holding them off would.
TEST_F(OfflineLoggerTest, FlushOfAnEmptyPoolAnswersAtOnce) {
    TestLogger empty(CoredumpBin, kCore);
    StalledLogger stalled(OfflineLog, kSmall);
    std::promise<void> letGo;
    stalled.m_letGo = letGo.get_future().share();
    std::thread inside([&] { stalled.AddLog("x\n", 2); });
    stalled.m_inside.get_future().wait();
    auto flushed = std::async(std::launch::async, [&] { return empty.FlushLogToFile(1, 0); });
    const bool atOnce = flushed.wait_for(std::chrono::seconds(2)) == std::future_status::ready;
    letGo.set_value();
    inside.join();
    EXPECT_TRUE(atOnce) << "waited for a thread inside a line";
    EXPECT_EQ(flushed.get(), 2);
}

// One thread logs in two sessions: after the close it registers afresh. A second camera at once
// switches the logger off for good.
TEST_F(OfflineLoggerTest, CameraSessions) {
    TestLogger logger(OfflineLog, kSmall);
    LiveThread worker;
    pid_t tid = 0;
    for (const char* line : {"one\n", "two\n"}) {
        logger.NotifyCameraOpen();
        worker.Run([&] {
            tid = gettid();
            logger.AddLog(line, 4);
        });
        logger.NotifyCameraClose();
    }
    EXPECT_EQ(logger.Session(), 3u);
    std::map<std::string, std::string> files;
    for (const auto& [path, text] : FilesUnder(Camera()))
        files[path.substr(path.find("__Tid"))] = text;
    const std::string prefix = "__Tid" + std::to_string(tid);
    EXPECT_EQ(files,
              (std::map<std::string, std::string>{{prefix + "_Session1_Segment1.txt", "one\n"},
                                                  {prefix + "_Session2_Segment1.txt", "two\n"}}));

    LogCapture log;
    logger.NotifyCameraOpen();
    logger.NotifyCameraOpen();
    logger.NotifyCameraClose();
    EXPECT_EQ(logger.Session(), 3u);
    EXPECT_EQ(logger.AddLog("x\n", 2), 2);
    EXPECT_EQ(Count(log,
                    "NotifyCameraOpen\\(\\):\\d+ VxCamOfflineLogger not support concurrent "
                    "camera usecase and will be disable!\n"),
              1u);
}

TEST_F(OfflineLoggerTest, CoreDumpTypesKeepTheirBucketsAcrossAClose) {
    TestLogger logger(CoredumpBin, kCore);
    OnNewThread([&] { logger.AddLog("core\n", 5); });
    logger.NotifyCameraOpen();
    logger.NotifyCameraClose();
    EXPECT_EQ(logger.Session(), 2u);
    EXPECT_EQ(logger.m_memPool.size(), 2u);
    ASSERT_EQ(logger.m_perLogInfoPool.size(), 1u);
    EXPECT_EQ(logger.m_perLogInfoPool[0].logSize, 5u);
}

// A core-dump registration lasts as long as a thread writes into it, whatever comes between: an
// ending thread hands its bucket over, a thread's first line after a camera close hands over the
// old session's bucket, and a flush of everything releases what no thread will write into again.
// Each row repeats its steps, one character each:
//   l  the live thread logs the next line        t  a new thread logs the next line and ends
//   e  the live thread ends, another takes over  c  a camera session ends (open, close)
//   F  the host flushes everything               f  the host flushes as usual
// Every line lands once and in order, and the pool never needs more than one bucket held and one
// handed over.
TEST_F(OfflineLoggerTest, CoreDumpRegistrationsLastAsLongAsTheirThreads) {
    const struct {
        OfflineLoggerType type;
        const char* steps;
        int repeat;
    } kRows[] = {
            {CoredumpTxt, "tF", 100},  // threads that end, each followed by a flush of everything
            {CoredumpTxt, "lFe", 50},  // a flush of everything while the thread lives, then its end
            {CoredumpTxt, "lFce", 20},  // the same, with a session ended before the thread ends
            {CoredumpBin, "lcF", 10},  // one thread over ten sessions, everything flushed after each
            {CoredumpBin, "lcf", 10},  // the same, flushed as usual
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.steps);
        TestLogger logger(row.type, {0, 2, 1, 4096});
        const std::string path = m_root / ("core-" + std::to_string(&row - kRows));
        logger.SetCoredumpPath(path.c_str());
        int n = 0;
        const auto logNext = [&] { LogNumbered(logger, 0, n++, 1, 16); };
        auto live = std::make_unique<LiveThread>();
        for (int i = 0; i < row.repeat; ++i) {
            for (const char* step = row.steps; *step != '\0'; ++step) {
                if (*step == 'l') live->Run(logNext);
                if (*step == 't') OnNewThread(logNext);
                if (*step == 'e') live = std::make_unique<LiveThread>();
                if (*step == 'c') logger.NotifyCameraOpen();
                if (*step == 'c') logger.NotifyCameraClose();
                if (*step == 'F' || *step == 'f') logger.FlushLogToFile(*step == 'F', 0);
            }
        }
        // The live thread's bucket, written and so empty, ends with its session all the same.
        live->Run(logNext);
        logger.FlushLogToFile(1, 0);
        logger.NotifyCameraOpen();
        logger.NotifyCameraClose();
        logger.FlushLogToFile(1, 0);
        EXPECT_EQ(logger.m_freeBucketIds.size(), logger.m_memPool.size());
        live.reset();
        EXPECT_EQ(Seqs(ReadFile(path), 0, 16), Range(0, n));
        EXPECT_LE(logger.m_memPool.size(), 2u);
        EXPECT_LE(logger.m_perLogInfoPool.size(), 2u);
    }
}

// A bucket costs memory once written, and only until its flush: afterwards it reads as zeros and
// the pool holds no more pages than the threads wrote; a close gives back what is left.
TEST_F(OfflineLoggerTest, BucketMemoryFollowsUse) {
    constexpr uint32_t kBucket = 1 << 20;
    TestLogger logger(OfflineLog, {8, 8, 1, kBucket});
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const auto residentPages = [&] {
        size_t pages = 0;
        std::vector<unsigned char> map(kBucket / page);
        for (unsigned char* bucket : logger.m_memPool) {
            if (mincore(bucket, kBucket, map.data()) != 0) return size_t{~0u};
            pages += static_cast<size_t>(
                    std::count_if(map.begin(), map.end(), [](unsigned char in) { return in & 1; }));
        }
        return pages;
    };
    logger.AllocateLogQueueMemPool(8, kBucket);
    EXPECT_EQ(residentPages(), 0u);

    const std::string line = std::string(kBucket / 4 - 1, 'm') + "\n";
    OnNewThread([&] {
        for (int i = 0; i < 5; ++i) logger.AddLog(line.data(), line.size());
    });
    const size_t written = (kBucket + line.size()) / page;  // a full bucket and one line
    EXPECT_EQ(residentPages(), written);
    logger.FlushLogToFile(0, 0);
    EXPECT_LE(residentPages(), written);
    logger.NotifyCameraOpen();
    logger.NotifyCameraClose();
    EXPECT_EQ(residentPages(), 0u);

    const std::vector<unsigned char> zeros(kBucket);
    for (unsigned char* bucket : logger.m_memPool)
        EXPECT_EQ(memcmp(bucket, zeros.data(), kBucket), 0);
    const auto files = Files();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files.begin()->second.size(), 5 * line.size());
}

// Slots of threads that come and go, each ending with a part-filled bucket, log while the camera
// closes and reopens under them, the host flushes everything and a host thread flushes as usual.
// Every line whose AddLog did not overlap a close lands once, in order, in its thread's file;
// every line that did not land is one the library reported as skipped.
TEST_F(OfflineLoggerTest, ClosesAndFlushesWhileThreadsComeAndGo) {
    // Small buckets, for many hand-overs; enough of them that no thread runs out while the flush
    // falls behind eight threads that do nothing but log.
    TestLogger logger(OfflineLog, {4, 4, 2, 16384});
    constexpr int kSlots = 8;
    std::atomic<uint32_t> closeEpoch{0};  // odd while a close runs
    std::atomic<bool> stop{false};
    std::vector<std::set<int>> mayDrop(kSlots);
    std::vector<int> logged(kSlots);
    std::vector<std::thread> slots;
    LogCapture quiet;  // one "skipped" message per line dropped during a close
    logger.NotifyCameraOpen();
    for (int s = 0; s < kSlots; ++s) {
        slots.emplace_back([&, s] {
            for (int n = 0; n < 200 && (n < 12 || !stop.load()); ++n) {
                OnNewThread([&] {
                    for (int i = 0; i < 300; ++i, ++logged[s]) {
                        const uint32_t before = closeEpoch.load();
                        LogNumbered(logger, s, logged[s], 1, 32);
                        if (before % 2 != 0 || closeEpoch.load() != before)
                            mayDrop[s].insert(logged[s]);
                    }
                });
            }
        });
    }
    std::thread flusher([&] {
        while (!stop.load()) logger.FlushLogToFile(0, 0);
    });
    for (int i = 0; i < 6; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        if (i % 2 != 0) {
            logger.FlushLogToFile(1, 0);  // drops nothing: the threads go on in fresh buckets
            continue;
        }
        closeEpoch.fetch_add(1);
        logger.NotifyCameraClose();
        closeEpoch.fetch_add(1);
        logger.NotifyCameraOpen();
    }
    stop = true;
    for (std::thread& slot : slots) slot.join();
    flusher.join();
    logger.NotifyCameraClose();

    // Each file holds one thread's lines, whole and in order.
    std::vector<std::vector<int>> landed(kSlots);
    for (const auto& [path, text] : FilesUnder(Camera())) {
        const int slot = text.empty() ? -1 : atoi(text.c_str() + 1);
        ASSERT_TRUE(slot >= 0 && slot < kSlots) << path;
        const std::vector<int> seqs = Seqs(text, slot, 32);
        EXPECT_EQ(std::adjacent_find(seqs.begin(), seqs.end(), std::greater_equal<int>()), seqs.end())
                << "a torn line, another thread's or one out of order in " << path;
        EXPECT_EQ(std::count(seqs.begin(), seqs.end(), -1), 0) << path;
        landed[slot].insert(landed[slot].end(), seqs.begin(), seqs.end());
    }
    size_t missing = 0;
    for (int s = 0; s < kSlots; ++s) {
        std::sort(landed[s].begin(), landed[s].end());
        EXPECT_EQ(std::adjacent_find(landed[s].begin(), landed[s].end()), landed[s].end())
                << "a line landed twice";
        size_t lost = 0;
        for (int seq = 0; seq < logged[s]; ++seq) {
            if (std::binary_search(landed[s].begin(), landed[s].end(), seq)) continue;
            ++missing;
            lost += mayDrop[s].count(seq) == 0 ? 1 : 0;
        }
        EXPECT_EQ(lost, 0u) << "slot " << s << " of " << logged[s] << " lines";
    }
    EXPECT_EQ(Count(quiet,
                    "AddLog\\(\\):\\d+ VxCamOfflineLogger: Please note log is skipped due to "
                    "camera is closing\n"),
              missing)
            << "every line that did not land was reported as skipped";
}

TEST_F(OfflineLoggerTest, CloseWritesAFirstLineThatMakesThePool) {
    // The close finds no pool yet, while a thread that is inside its first line is about to make
    // it: the close must wait for the line and write it, not reset the pool under it.
    TestLogger logger(OfflineLog, kSmall);
    LogCapture log;
    logger.NotifyCameraOpen();
    Gate gate;
    std::thread first([&] {
        t_gettidGate = &gate;
        logger.AddLog("first\n", 6);
    });
    while (!gate.reached.load()) std::this_thread::yield();
    std::thread close([&] { logger.NotifyCameraClose(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the close waits for the line
    gate.open = true;
    first.join();
    close.join();
    const auto files = Files();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_NE(files.begin()->first.find("_Session1_Segment1.txt"), std::string::npos);
    EXPECT_EQ(files.begin()->second, "first\n");
    EXPECT_EQ(logger.Session(), 2u);
    EXPECT_FALSE(log.Has("skipped"));
}

TEST_F(OfflineLoggerTest, PoolGrowsByStepAndReusesIdsInOrder) {
    TestLogger logger(CoredumpBin, kCore);
    unsigned char* buffer = nullptr;
    EXPECT_EQ(logger.AllocateLogQueueMemPool(0, 64), 1);
    for (int id = 0; id < 3; ++id) {
        EXPECT_EQ(logger.RequestNewLogQueue(buffer, static_cast<unsigned>(id + 1), 0), id);
        EXPECT_EQ(buffer, logger.m_memPool[static_cast<size_t>(id)]);
        EXPECT_EQ(logger.m_memPool.size(), id < 2 ? 2u : 4u);
    }
    // Written registrations come back first in, first out.
    logger.SetCoredumpPath((m_root / "core.bin").c_str());
    logger.RequestFlushLogQueue(1, 0);
    logger.RequestFlushLogQueue(0, 0);
    logger.FlushLogToFile(0, 0);
    EXPECT_EQ(logger.RequestNewLogQueue(buffer, 4, 0), 1);
    EXPECT_EQ(buffer, logger.m_memPool[3]);  // bucket 3 was free before 1 and 0
    EXPECT_EQ(logger.RequestNewLogQueue(buffer, 5, 0), 0);

    logger.CleanupMemoryPool();
    EXPECT_EQ(logger.Session(), 2u);
    EXPECT_TRUE(logger.m_memPool.empty());
    EXPECT_EQ(logger.RequestNewLogQueue(buffer, 6, 0), 0);
    EXPECT_EQ(logger.m_memPool.size(), 2u);

    logger.AllocateLogQueueMemPool(3, 64);
    logger.SetAllToDefaultValue();
    EXPECT_EQ(std::vector<int>(logger.m_freeBucketIds.begin(), logger.m_freeBucketIds.end()),
              Range(0, 5));
    EXPECT_TRUE(logger.m_perLogInfoPool.empty());
}

// Starting wants 3000 MB free; the text logs get their pool on first use, the core-dump ones at
// once. (A file system that cannot be asked: FaultInjection.FileSystemThatCannotBeAsked.)
TEST_F(OfflineLoggerTest, StartNeedsSpace) {
    LogCapture quiet;
    TestLogger logger(OfflineLog, kSmall);
    logger.m_freeMB = 2999.9;
    EXPECT_EQ(logger.GetSettingLink(), 0);
    EXPECT_EQ(ReadFile(Camera() + "/VxCam_OfflineLog_ErrorMsg.txt"),
              "VxCamOfflineLogger detect file system has no space left");
    logger.m_freeMB = 3000.0;
    EXPECT_EQ(logger.GetSettingLink(), 1);
    EXPECT_TRUE(logger.m_memPool.empty());
    TestLogger core(CoredumpTxt, {2, 2, 1, 64});
    EXPECT_EQ(core.GetSettingLink(), 1);
    EXPECT_EQ(core.m_memPool.size(), 2u);
}

std::atomic<int> g_triggeredType{-1};
void NoteTrigger(OfflineLoggerType type) {
    g_triggeredType = type;
}

// Each entry of the host's table, called through the table, shows an effect that only its own
// operation has, so that two entries swapped fail their rows. Each row runs in a child of its
// own, on the process's own loggers, whose main thread holds a line of the text log; the child's
// folder is its working folder. The rows pass types with high bits set: only bits 2 to 7 make a
// type invalid, and the others reach the type of the two low ones.
TEST_F(OfflineLoggerTest, EachEntryOfTheTableReachesItsOwnOperation) {
    EXPECT_EQ(VxCamOfflineLogger::GetInstance(static_cast<OfflineLoggerType>(4)), nullptr);
    std::set<VxCamOfflineLogger*> instances;
    for (uint32_t t = 0; t < 4; ++t)
        instances.insert(VxCamOfflineLogger::GetInstance(OfflineLoggerType(t)));
    EXPECT_EQ(instances.size(), 4u);

    using Logger = VxCamOfflineLogger;
    uint32_t session = 0;  // the row's logger's, when the row begins
    const char kHeld[] = "a line the main thread holds\n";
    const auto landed = [](const char* text) {
        return TextUnder("data/vendor/camera").find(text) != std::string::npos;
    };
    const struct {
        const char* entry;
        OfflineLoggerType type;
        std::function<void(const OfflineLogEntryTable&, OfflineLoggerType, Logger&)> check;
    } kRows[] = {
            {"addLog", OfflineLog,
             [&](auto& t, auto type, Logger& l) {
                 EXPECT_EQ(t.addLog(type, "through the table\n"), 0);
                 l.FlushLogToFile(1, 0);
                 EXPECT_TRUE(landed("through the table\n"));
             }},
            {"flushLog", OfflineLog,
             [&](auto& t, auto type, Logger& l) {
                 EXPECT_EQ(t.flushLog(type, 1), 0);
                 EXPECT_TRUE(landed(kHeld));
                 EXPECT_EQ(Inside::Session(l), session) << "a flush ends no session";
             }},
            {"noticeCameraOpen", OfflineLog,
             [&](auto& t, auto type, Logger& l) {
                 t.noticeCameraOpen(type);
                 EXPECT_EQ(l.IsEnableOfflinelogger(), 1);
                 l.NotifyCameraOpen();
                 EXPECT_EQ(l.IsEnableOfflinelogger(), 0) << "a second camera switches it off";
             }},
            {"noticeCameraClose", OfflineLog,
             [&](auto& t, auto type, Logger& l) {
                 t.noticeCameraClose(type);
                 EXPECT_TRUE(landed(kHeld));
                 EXPECT_EQ(Inside::Session(l), session + 1);
             }},
            {"disable", OfflineLog,
             [&](auto& t, auto type, Logger& l) {
                 t.disable(type);
                 EXPECT_EQ(l.AddLog("x\n", 2), 2);
             }},
            {"isEnable", OfflineLog,
             [&](auto& t, auto type, Logger& l) {
                 EXPECT_EQ(t.isEnable(type), 1);
                 l.DisableOfflinelogger();
                 EXPECT_EQ(t.isEnable(type), 0);
             }},
            {"linkFlushTrigger", BinaryLog,
             [&](auto& t, auto type, Logger& l) {
                 EXPECT_EQ(t.linkFlushTrigger(type, nullptr), 0);
                 EXPECT_EQ(t.linkFlushTrigger(type, NoteTrigger), 1);
                 l.NotifyCameraOpen();                    // the trigger runs while a camera is open
                 OnNewThread([&] { l.AddLog("x", 1); });  // and the exit requests a flush
                 EXPECT_EQ(g_triggeredType.load(), static_cast<int>(BinaryLog));
             }},
            {"getSetting", OfflineLog,
             [&](auto& t, auto type, Logger&) {
                 LogCapture log;
                 setenv("VXCAM_SYSROOT", "missing", 1);
                 EXPECT_EQ(t.getSetting(type), 0);
                 EXPECT_TRUE(log.Has("VxCamOfflineLogger query system space failed!"));
             }},
            {"setCleanupTrigger", OfflineLog,
             [&](auto& t, auto type, Logger& l) {
                 EXPECT_EQ(t.setCleanupTrigger(type, NoteTrigger), 1);
                 Inside::TotalFlushMB(l) = 3000.0f;  // over the threshold of 2600 MB
                 for (int i = 0; i < 6; ++i) OnNewThread([&] { l.AddLog("x\n", 2); });
                 EXPECT_EQ(g_triggeredType.load(), -1) << "called by the flush only";
                 l.FlushLogToFile(0, 0);
                 EXPECT_EQ(g_triggeredType.load(), static_cast<int>(OfflineLog));
             }},
            {"cleanupOlderLogFile", OfflineLog,
             [&](auto& t, auto type, Logger& l) {
                 l.NotifyCameraClose();
                 l.NotifyCameraClose();  // the first session is now the one before the previous
                 ASSERT_TRUE(landed(kHeld));
                 EXPECT_EQ(t.cleanupOlderLogFile(type), 0);
                 EXPECT_FALSE(landed(kHeld));
             }},
            {"setCoredumpPath", CoredumpTxt,
             [&](auto& t, auto type, Logger& l) {
                 EXPECT_EQ(t.setCoredumpPath(type, "core.txt"), 0);
                 OnNewThread([&] { l.AddLog("core\n", 5); });
                 l.FlushLogToFile(1, 0);
                 EXPECT_EQ(ReadFile("core.txt"), "core\n");
             }},
            {"enableCoredump", CoredumpBin,
             [&](auto& t, auto type, Logger& l) {
                 EXPECT_EQ(t.enableCoredump(type), 0);
                 EXPECT_EQ(l.IsCoredumpEnabled(), 1);
             }},
            {"disableCoredump", CoredumpBin,
             [&](auto& t, auto type, Logger& l) {
                 l.EnableCoredump();
                 EXPECT_EQ(t.disableCoredump(type), 0);
                 EXPECT_EQ(l.IsCoredumpEnabled(), 0);
             }},
            {"isCoredumpEnabled", CoredumpBin,
             [&](auto& t, auto type, Logger& l) {
                 EXPECT_EQ(t.isCoredumpEnabled(type), 0);
                 l.EnableCoredump();
                 EXPECT_EQ(t.isCoredumpEnabled(type), 1);
             }},
            {"setMultiPathMode", CoredumpTxt,
             [&](auto& t, auto type, Logger& l) {
                 EXPECT_EQ(t.setMultiPathMode(type, 1), 0);
                 EXPECT_EQ(Inside::MultiPathMode(l), 1u);
             }},
            {"cleanupMemPool", OfflineLog,
             [&](auto& t, auto type, Logger& l) {
                 EXPECT_EQ(t.cleanupMemPool(type), 0);
                 EXPECT_EQ(Inside::Session(l), session + 1);
                 EXPECT_EQ(Inside::Buckets(l), 0u);
                 EXPECT_EQ(l.IsEnableOfflinelogger(), 1);
                 l.FlushLogToFile(1, 0);
                 EXPECT_FALSE(landed(kHeld)) << "dropped, not written";
             }},
    };
    ChiOfflineLogEntry(nullptr);  // refused, not written through
    OfflineLogEntryTable table;
    ChiOfflineLogEntry(&table);
    // Any of bits 2 to 7 makes a type invalid: it reaches no logger, and every entry answers 0.
    for (uint32_t bits : {0x4u, 0x80u, 0x1FCu}) {
        const auto bad = static_cast<OfflineLoggerType>(bits);
        const int answers[] = {table.addLog(bad, "x\n"),
                               table.flushLog(bad, 1),
                               table.isEnable(bad),
                               table.linkFlushTrigger(bad, NoteTrigger),
                               table.getSetting(bad),
                               table.setCleanupTrigger(bad, NoteTrigger),
                               table.cleanupOlderLogFile(bad),
                               table.setCoredumpPath(bad, "x"),
                               table.enableCoredump(bad),
                               table.disableCoredump(bad),
                               table.isCoredumpEnabled(bad),
                               table.setMultiPathMode(bad, 1),
                               table.cleanupMemPool(bad)};
        for (int answer : answers) EXPECT_EQ(answer, 0) << std::hex << bits;
    }
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.entry);
        TempDir root;
        const ChildEnd child = CheckInChild(root, [&] {
            Logger& logger = *Logger::GetInstance(row.type);
            session = Inside::Session(logger);
            Logger::GetInstance(OfflineLog)->AddLog(kHeld, sizeof(kHeld) - 1);
            row.check(table, static_cast<OfflineLoggerType>(0xFFFFFF00u | row.type), logger);
        });
        EXPECT_EQ(child.exitCode, 0) << "signal " << child.signal;
    }
}

// The debug frame hands a time-stamped copy of each passed message to the default logger, with
// the ids of the process and thread that log it: also in the child of a fork whose parent thread
// had logged before. A long message is cut to the line buffer, 1023 characters with no line end.
TEST_F(OfflineLoggerTest, DebugFrameLinesCarryTheIdsOfTheirProcessAndThread) {
    const DebugLogInfo saved = g_logInfo;
    g_logInfo.offlineLogEnable = 1;
    g_logInfo.infoMask = 0xFFFFFFFF;
    Log::LogSystem(1, "I", 4, "%s", "parent before the fork");
    TempDir root;
    const ChildEnd child = RunInChild(root, [] {
        Log::LogSystem(1, "I", 4, "%s", "child after the fork");
        OnNewThread([] { Log::LogSystem(1, "I", 4, "%s", std::string(2000, 'L').c_str()); });
        VxCamOfflineLogger::GetInstance(OfflineLog)->FlushLogToFile(1, 0);
    });
    g_logInfo = saved;
    EXPECT_EQ(child.exitCode, kChildReturned);

    // The parent's line, in the bucket the child inherited, keeps the parent's ids.
    const std::regex line(
            "\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d:\\d{9} +(\\d+) +(\\d+) I VxCam: (child|L).*");
    std::set<std::string> seen;
    for (const auto& [path, text] : FilesUnder(root.Path(), "__Tid")) {
        std::istringstream lines(text);
        std::smatch ids;
        for (std::string one; std::getline(lines, one);) {
            if (!std::regex_match(one, ids, line)) continue;
            seen.insert(ids[3]);
            EXPECT_EQ(ids[1].str(), std::to_string(child.pid));
            // The main thread's line, in whichever bucket; the other thread's, in its own file.
            EXPECT_TRUE(ids[3] == "child" ? ids[2] == ids[1]
                                          : path.find("__Tid" + ids[2].str() + "_") != path.npos)
                    << path << ": " << one.substr(0, 80);
            EXPECT_EQ(one.size(), ids[3] == "L" ? 1023u : one.size()) << "and no line end";
        }
    }
    EXPECT_EQ(seen, (std::set<std::string>{"child", "L"}));
}

// ---- Retention, crash backup, status report ----------------------------------------------------

// One 1 MiB record per session in `sessions`, each with a real file.
std::list<RecycleItemInfo> Records(const TempDir& root, std::vector<uint32_t> sessions) {
    std::list<RecycleItemInfo> records;
    for (uint32_t session : sessions) {
        const std::string name =
                "s" + std::to_string(session) + "-" + std::to_string(records.size());
        records.push_back({session, 1, 1048576, root.Write(name, "x")});
    }
    return records;
}

std::vector<bool> Exist(const std::list<RecycleItemInfo>& records) {
    std::vector<bool> exist;
    for (const RecycleItemInfo& record : records) exist.push_back(fs::exists(record.fileName));
    return exist;
}

TEST_F(OfflineLoggerTest, RetentionDeletesOldSessionsThenPartOfTheCurrentOne) {
    TestLogger logger(OfflineLog, kSmall);
    // Phase 1: sessions up to the current one minus 2 go, oldest first; the total is then within
    // the limit, so phase 2 removes nothing but still forgets its share of finished records.
    logger.m_sessionCount = 5;
    logger.m_recycleList = Records(m_root, {1, 1, 2, 3, 4, 5});
    logger.m_finishedThreadList = Records(m_root, std::vector<uint32_t>(10, 5));
    logger.m_totalFlushSizeMB = 16.0f;
    fs::remove(logger.m_recycleList.front().fileName);  // a removal that fails is counted
    const auto recycled = logger.m_recycleList;
    const auto finished = logger.m_finishedThreadList;
    logger.RemoveOlderLogFiles();
    EXPECT_EQ(Exist(recycled), std::vector<bool>({false, false, false, false, true, true}));
    EXPECT_EQ(logger.m_recycleList.size(), 2u);
    EXPECT_FLOAT_EQ(logger.m_totalFlushSizeMB, 12.0f);
    EXPECT_EQ(logger.m_removeFailCount, 1u);
    EXPECT_EQ(logger.m_removeSuccessCount, 0u);
    EXPECT_EQ(logger.m_finishedThreadList.size(), 7u);
    EXPECT_EQ(Exist(finished), std::vector<bool>(10, true));

    // Before session 3 phase 1 removes nothing and phase 2 runs: ten finished records give three
    // tries on the first file, which goes once while its size is taken off three times.
    TestLogger young(OfflineLog, kSmall);
    young.m_sessionCount = 2;
    young.m_recycleList = Records(m_root, {1});
    young.m_finishedThreadList = Records(m_root, std::vector<uint32_t>(10, 2));
    young.m_totalFlushSizeMB = 100.0f;
    const auto current = young.m_finishedThreadList;
    young.RemoveOlderLogFiles();
    EXPECT_EQ(Exist(young.m_recycleList), std::vector<bool>{true});
    EXPECT_EQ(Exist(current),
              std::vector<bool>({false, true, true, true, true, true, true, true, true, true}));
    EXPECT_EQ(young.m_removeSuccessCount, 1u);
    EXPECT_FLOAT_EQ(young.m_totalFlushSizeMB, 97.0f);
    EXPECT_EQ(young.m_finishedThreadList.size(), 7u);
    EXPECT_EQ(young.m_finishedThreadList.front().fileName, std::next(current.begin(), 3)->fileName);

    // With nothing recycled, phase 2 runs only over the size threshold.
    for (float total : {2600.0f, 2600.5f}) {
        TestLogger fresh(OfflineLog, kSmall);
        fresh.m_sessionCount = 1;
        fresh.m_finishedThreadList = Records(m_root, {1, 1});
        fresh.m_totalFlushSizeMB = total;
        const auto records = fresh.m_finishedThreadList;
        fresh.RemoveOlderLogFiles();
        EXPECT_EQ(Exist(records), std::vector<bool>({total <= 2600.0f, true})) << total;
        EXPECT_EQ(fresh.m_finishedThreadList.size(), 1u);
    }
}

TEST_F(OfflineLoggerTest, WriteTimeAverageCoversTheLastTenSamples) {
    TestLogger logger(OfflineLog, kSmall);
    for (int i = 1; i <= 10; ++i) logger.MonitorFileSystemHealth(static_cast<float>(i));
    EXPECT_EQ(logger.m_fwriteTimeAvgMs, 0.0f);
    logger.MonitorFileSystemHealth(11.0f);  // the eleventh sample: mean of 2..11
    EXPECT_FLOAT_EQ(logger.m_fwriteTimeAvgMs, 6.5f);
    for (int i = 12; i <= 21; ++i) logger.MonitorFileSystemHealth(static_cast<float>(i));
    EXPECT_FLOAT_EQ(logger.m_fwriteTimeAvgMs, 6.5f);
    logger.MonitorFileSystemHealth(22.0f);
    EXPECT_FLOAT_EQ(logger.m_fwriteTimeAvgMs, 17.5f);
}

TEST_F(OfflineLoggerTest, StatusReportFollowsItsSwitch) {
    TestLogger logger(OfflineLog, kSmall);
    const std::string dumpPath = Camera() + "/Offlinelog_Dump.log";
    logger.SetStatusDumpEnabled(1);
    logger.NotifyCameraOpen();
    LiveThread thread;
    thread.Run([&] { logger.AddLog("a line\n", 7); });
    // The close's flush of everything: the thread's bucket comes back with the others, and the
    // reset after it leaves no write times.
    logger.NotifyCameraClose();
    EXPECT_TRUE(logger.m_fwriteTimeHistory.empty());
    const std::string written = ReadFile(dumpPath);
    const char* const kTrueLines[] = {
            "+--------------------Offlinelogger Status-----------------------+\n",
            "  Session                          : 1   \n",
            "  Logger Type                      : OfflineLog   \n",
            "  Memory Pool Bucket (Total)       : 4  \n",
            "  Memory Pool Bucket (Available)   : 4  \n",
            "  Trigger operation                : TRUE \n",
            "  Fwrite time average (Last:10)    : 0.000000ms \n",
            "  Maxium flush log size threadhold : 2600   \n",
            "  Total Flush Count                : 1   \n",
            "  Free space (MB)                  : 100000.000000   \n",
            "  Total remove files success       : 0   \n",
            "  Trigger clean up operation       : 0   \n",
            "  Total Request Memory Count       : 1   \n",
            "  Total Flush time in this session : ",
    };
    size_t at = 0;
    for (const char* line : kTrueLines) {
        at = written.find(line, at);
        ASSERT_NE(at, std::string::npos) << line << "\nin\n" << written;
    }
    EXPECT_NE(written.find("  Physical Memory (Used)           : "), std::string::npos);

    // Nothing to write: the short form.
    logger.FlushLogToFile(0, 0);
    const std::string idle = ReadFile(dumpPath).substr(written.size());
    EXPECT_EQ(idle.substr(0, idle.find("  Total Flush time in this session : ")),
              "+--------------------Offlinelogger Status-----------------------+\n"
              "  Trigger operation                : FALSE  \n"
              "  Total Request Memory Count       : 0   \n");

    logger.SetStatusDumpEnabled(0);
    logger.FlushLogToFile(1, 0);
    EXPECT_EQ(ReadFile(dumpPath).size(), written.size() + idle.size());
}

TEST_F(OfflineLoggerTest, CrashBackupCopiesTheSessionsTextLogs) {
    TestLogger logger(OfflineLog, kSmall);
    logger.GetSettingLink();  // keeps up to 201 names
    {
        LiveThread first;  // alive, so the second thread gets another id
        first.Run([&] { logger.AddLog("first thread\n", 13); });
        OnNewThread([&] { logger.AddLog("second thread\n", 14); });
    }
    logger.FlushLogToFile(1, 0);
    ASSERT_EQ(logger.m_fileNameList.size(), 2u);
    const std::string crashFolder = Camera() + "/OfflineLog_CrashLog_" + kT1;

    // The folder cannot be made: nothing is taken off the list.
    fs::create_directory(crashFolder);
    EXPECT_EQ(logger.BackupRecentModifyLog(), 1);
    EXPECT_EQ(logger.m_fileNameList.size(), 2u);
    fs::remove(crashFolder);

    EXPECT_EQ(logger.BackupRecentModifyLog(), 0);
    EXPECT_TRUE(logger.m_fileNameList.empty());
    EXPECT_TRUE(logger.m_fileNameSet.empty());
    EXPECT_EQ(Files(crashFolder), Files());

    // An empty list still makes its folder.
    fs::remove_all(crashFolder);
    EXPECT_EQ(logger.BackupRecentModifyLog(), 0);
    EXPECT_TRUE(fs::is_directory(crashFolder));
}

TEST_F(OfflineLoggerTest, CoreDumpPathBySingleAndMultiPathMode) {
    TestLogger bin(CoredumpBin, kCore);
    EXPECT_EQ(bin.SetCoredumpPath(nullptr), 0);
    EXPECT_EQ(bin.SetCoredumpPath("/a"), 0);
    bin.SetMultiPathMode(1);
    EXPECT_EQ(bin.SetCoredumpPath("/b"), 0);
    EXPECT_EQ(bin.m_coredumpPath, "/a");
    EXPECT_EQ(bin.m_multiPathCoredumpPath, "/b");
    EXPECT_TRUE(bin.m_perLogInfoPool.empty()) << "only the text core dump takes a bucket";

    // Each new path hands the thread's registration over with the old path: old text lands in the
    // old file and new text in the new one, and however often the path changes the pool keeps one
    // bucket held and one handed over. Back in single-path mode, text goes to the single path.
    TestLogger text(CoredumpTxt, kCore);
    const auto core = [&](int i) { return m_root / ("core-" + std::to_string(i) + ".txt"); };
    text.SetCoredumpPath(core(10).c_str());
    text.SetMultiPathMode(1);
    OnNewThread([&] {
        for (int i = 0; i < 10; ++i) {
            text.SetCoredumpPath(core(i).c_str());
            LogNumbered(text, 0, i, 1, 16);
            text.FlushLogToFile(0, 0);
        }
        text.SetMultiPathMode(0);
        LogNumbered(text, 0, 10, 1, 16);
    });
    text.FlushLogToFile(1, 0);
    for (int i = 0; i <= 10; ++i) EXPECT_EQ(Seqs(ReadFile(core(i)), 0, 16), Range(i, 1)) << i;
    EXPECT_LE(text.m_memPool.size(), 2u);
}

// Host calls that share what a flush reads or writes, made from a thread of their own while threads
// log and the host flushes everything and closes the camera: a path change, a mode change,
// retention (which finds files of sessions before the previous one to remove). Under
// ThreadSanitizer this finds a call that skips the pool lock.
TEST_F(OfflineLoggerTest, HostCallsWhileTheHostFlushes) {
    const std::string paths[2] = {m_root / "core-a", m_root / "core-b"};
    for (OfflineLoggerType type : {CoredumpBin, CoredumpTxt, OfflineLog}) {
        SCOPED_TRACE(type);
        TestLogger logger(type, kCore);
        logger.SetCoredumpPath(paths[0].c_str());
        std::atomic<bool> done{false};
        std::thread host([&] {
            for (int i = 0; !done.load(); ++i) {
                if (type == OfflineLog) logger.RemoveOlderLogFiles();
                if (type == CoredumpTxt) logger.SetMultiPathMode(i % 2);
                if (type != OfflineLog) logger.SetCoredumpPath(paths[i % 2].c_str());
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            }
        });
        for (int i = 0; i < 200; ++i) {
            OnNewThread([&] { logger.AddLog("x\n", 2); });
            logger.FlushLogToFile(1, 0);
            logger.NotifyCameraOpen();
            logger.NotifyCameraClose();
        }
        done = true;
        host.join();
    }
}

// A disable resets the pool and then drops the buckets. A new core-dump path takes a bucket
// without holding threads off, so one may come in between; its registration must go with the
// buckets, or its thread would hold one that no pool has.
TEST_F(OfflineLoggerTest, DisableLeavesNoRegistrationWithoutItsBucket) {
    struct PathInBetween : TestLogger {
        using TestLogger::TestLogger;
        void SetAllToDefaultValue() override {
            VxCamOfflineLogger::SetAllToDefaultValue();
            SetCoredumpPath((m_path + "/core.txt").c_str());
        }
        std::string m_path;
    } core(CoredumpTxt, {2, 2, 1, 64});
    core.m_path = Camera();
    ASSERT_EQ(core.GetSettingLink(), 1);
    // On a thread of its own, which ends while the logger still exists.
    OnNewThread([&] {
        core.SetMultiPathMode(1);
        core.DisableOfflinelogger();
    });
    EXPECT_TRUE(core.m_memPool.empty());
    EXPECT_TRUE(core.m_perLogInfoPool.empty());
    EXPECT_TRUE(core.m_freeRegisterIds.empty());
}

}  // namespace
