// The offline logger: capture, flushing and file names, sessions, the pool, retention, the status
// report, the entry table. Tests log from fresh threads: the capture keeps its state per thread.
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
    std::atomic<bool> reached{false}, open{false};
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
    // The process's default logger outlives the test: a close writes what the test left in it
    // under the test's own root, so that the next test's lines begin a session under its own.
    void TearDown() override {
        setenv("VXCAM_SYSROOT", m_root.Path().c_str(), 1);
        VxCamOfflineLogger::GetInstance(OfflineLog)->NotifyCameraClose();
    }
    std::string Camera() const { return m_root / "data/vendor/camera"; }
    std::string Folder() const { return Camera() + "/VxCam_OfflineLog_" + kT1; }

    // Every file below the camera folder as "<name from __Tid on>: <text>", in path order.
    std::string Listing() const {
        std::string listing;
        for (const auto& [path, text] : FilesUnder(Camera(), "__Tid"))
            listing += path.substr(path.find("__Tid")) + ": " + text;
        return listing;
    }

    TempDir m_root;
};

const OfflineLoggerConfigInfo kSmall = {4, 4, 1, 64};
const OfflineLoggerConfigInfo kCore = {0, 2, 1, 64};

TEST_F(OfflineLoggerTest, FilesAreNamedByTypeThreadSessionAndSegment) {
    for (const std::string kind : {"OfflineLog", "BinaryLog"}) {
        TestLogger logger(kind == "OfflineLog" ? OfflineLog : BinaryLog, kSmall);
        const pid_t tid = OnNewThread([&] { LogNumbered(logger, 0, 0, 10, 16); });  // 3 buckets
        ASSERT_EQ(logger.FlushLogToFile(1, 0), 0);
        const auto files = FilesUnder(Folder());
        ASSERT_EQ(files.size(), 1u);
        EXPECT_TRUE(std::regex_match(
                files.begin()->first,
                std::regex(".*/VxCam_" + kind +
                           "_\\d{4}-\\d\\d-\\d\\d--\\d\\d-\\d\\d-\\d\\d-\\d{6}__Tid" +
                           std::to_string(tid) + "_Session1_Segment1\\." +
                           (kind == "OfflineLog" ? "txt" : "bin"))))
                << files.begin()->first;
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
}

// A line that fills its bucket exactly stays; one byte more asks for a flush and the file goes on.
// A stated length beyond the terminator copies the line; a line longer than a bucket, its worth.
TEST_F(OfflineLoggerTest, CaptureBoundaries) {
    TestLogger logger(OfflineLog, kSmall);
    OnNewThread([&] {
        logger.AddLog((std::string(63, 'a') + "\n").c_str(), 64);
        EXPECT_EQ(logger.m_flushRequestCount, 0u);
        logger.AddLog("b\n", 2);
        EXPECT_EQ(logger.m_flushRequestCount, 1u);
        EXPECT_EQ(logger.m_perLogInfoPool.at(1).fileSize, 66u);
        logger.AddLog("c\n\0garbage", 500);
        logger.AddLog(std::string(200, 'h').c_str(), 200);
    });
    logger.FlushLogToFile(1, 0);
    EXPECT_EQ(TextUnder(Folder()), std::string(63, 'a') + "\nb\nc\n" + std::string(64, 'h'));
}

// 100 half-bucket lines make exactly 50 MiB; the 101st starts a bucket (not a segment); the 102nd
// fits that bucket and is the first of segment 2.
TEST_F(OfflineLoggerTest, SegmentEndsOnTheFirstLineThatFitsAfter50MiB) {
    constexpr uint32_t kBucket = 1 << 20;
    TestLogger logger(OfflineLog, {2, 2, 1, kBucket});
    OnNewThread([&] {
        for (int i = 0; i < 102; ++i) {
            const std::string line = std::string(kBucket / 2 - 1, 's') + char('0' + i % 10);
            logger.AddLog(line.data(), line.size());
            logger.FlushLogToFile(0, 0);
        }
    });
    logger.FlushLogToFile(1, 0);
    std::map<std::string, std::string> ends;
    for (const auto& [path, text] : FilesUnder(Folder()))
        ends[path.substr(path.find("_Segment"))] = std::to_string(text.size()) + text.back();
    EXPECT_EQ(ends, (std::map<std::string, std::string>{
                            {"_Segment1.txt", std::to_string(101 * kBucket / 2) + "0"},
                            {"_Segment2.txt", std::to_string(kBucket / 2) + "1"}}));
}

// A close that finds no pool while a thread inside its first line is about to make it waits for
// the line and writes it; a flush of everything on an empty pool answers at once, waiting for no
// thread inside a line.
TEST_F(OfflineLoggerTest, CloseWritesAFirstLineThatMakesThePool) {
    TestLogger logger(OfflineLog, kSmall), empty(CoredumpBin, kCore);
    LogCapture log;
    logger.NotifyCameraOpen();
    Gate gate;
    std::thread first([&] {
        t_gettidGate = &gate;
        logger.AddLog("first\n", 6);
    });
    while (!gate.reached.load()) std::this_thread::yield();
    auto flushed = std::async(std::launch::async, [&] { return empty.FlushLogToFile(1, 0); });
    EXPECT_EQ(flushed.wait_for(std::chrono::seconds(10)), std::future_status::ready)
            << "the flush of an empty pool waited for a thread inside a line";
    std::thread close([&] { logger.NotifyCameraClose(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the close waits for the line
    gate.open = true;
    first.join();
    close.join();
    EXPECT_EQ(flushed.get(), 2);
    EXPECT_TRUE(std::regex_match(Listing(), std::regex("__Tid\\d+_Session1_Segment1.txt: first\n")))
            << Listing();
    EXPECT_EQ(logger.Session(), 2u);
    EXPECT_FALSE(log.Has("skipped"));
}

// One thread logs in two sessions, registering afresh after the close. A second camera at once
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
    const std::string prefix = "__Tid" + std::to_string(tid);
    EXPECT_EQ(Listing(),
              prefix + "_Session1_Segment1.txt: one\n" + prefix + "_Session2_Segment1.txt: two\n");

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

// A core-dump registration lasts as long as its thread writes into it: an ending thread hands its
// bucket over, a thread's first line after a close hands over the old session's bucket, and a
// flush of everything releases what no thread will write into again. Steps, one character each:
//   l  the live thread logs the next line        t  a new thread logs the next line and ends
//   e  the live thread ends, another takes over  c  a camera session ends (open, close)
//   F  the host flushes everything               f  the host flushes as usual
// Every line lands once and in order, and the pool never needs more than two buckets.
TEST_F(OfflineLoggerTest, CoreDumpRegistrationsLastAsLongAsTheirThreads) {
    const struct {
        OfflineLoggerType type;
        const char* steps;
        int repeat;
    } kRows[] = {{CoredumpTxt, "tF", 100},
                 {CoredumpTxt, "lFe", 50},
                 {CoredumpTxt, "lFce", 20},
                 {CoredumpBin, "lcF", 10},
                 {CoredumpBin, "lcf", 10}};
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.steps);
        TestLogger logger(row.type, {0, 2, 1, 4096});
        const std::string path = m_root / ("core-" + std::to_string(&row - kRows));
        logger.SetCoredumpPath(path.c_str());
        int n = 0;
        const auto logNext = [&] { LogNumbered(logger, 0, n++, 1, 16); };
        const auto endSession = [&] {
            logger.NotifyCameraOpen();
            logger.NotifyCameraClose();
        };
        auto live = std::make_unique<LiveThread>();
        for (int i = 0; i < row.repeat; ++i) {
            for (const char* step = row.steps; *step != '\0'; ++step) {
                if (*step == 'l') live->Run(logNext);
                if (*step == 't') OnNewThread(logNext);
                if (*step == 'e') live = std::make_unique<LiveThread>();
                if (*step == 'c') endSession();
                if (*step == 'F' || *step == 'f') logger.FlushLogToFile(*step == 'F', 0);
            }
        }
        // The live thread's bucket, written and so empty, ends with its session all the same.
        live->Run(logNext);
        logger.FlushLogToFile(1, 0);
        endSession();
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
    EXPECT_EQ(TextUnder(Folder()).size(), 5 * line.size());
}

// Threads that come and go, each ending with a part-filled bucket, log while the camera closes and
// reopens under them, the host flushes everything and a host thread flushes as usual. Every line
// whose AddLog did not overlap a close lands once, in order, in its thread's file; every line
// that did not land is one the library reported as skipped.
TEST_F(OfflineLoggerTest, ClosesAndFlushesWhileThreadsComeAndGo) {
    TestLogger logger(OfflineLog, {4, 4, 2, 16384});  // no thread runs out while the flush lags
    constexpr int kSlots = 8;
    std::atomic<uint32_t> closeEpoch{0};  // odd while a close runs
    std::atomic<bool> stop{false};
    std::vector<std::set<int>> mayDrop(kSlots);
    std::vector<int> logged(kSlots);
    std::vector<std::thread> slots;
    LogCapture quiet;
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

    std::vector<std::vector<int>> landed(kSlots);
    for (const auto& [path, text] : FilesUnder(Camera())) {
        const int slot = text.empty() ? -1 : atoi(text.c_str() + 1);
        ASSERT_TRUE(slot >= 0 && slot < kSlots) << path;
        const std::vector<int> seqs = Seqs(text, slot, 32);
        const auto unordered =
                std::adjacent_find(seqs.begin(), seqs.end(), std::greater_equal<int>());
        EXPECT_TRUE(unordered == seqs.end() && seqs.front() >= 0)
                << "a torn line, another thread's or one out of order in " << path;
        landed[slot].insert(landed[slot].end(), seqs.begin(), seqs.end());
    }
    size_t missing = 0, lost = 0;
    for (int s = 0; s < kSlots; ++s) {
        std::sort(landed[s].begin(), landed[s].end());
        EXPECT_EQ(std::adjacent_find(landed[s].begin(), landed[s].end()), landed[s].end())
                << "a line landed twice";
        for (int seq = 0; seq < logged[s]; ++seq) {
            if (std::binary_search(landed[s].begin(), landed[s].end(), seq)) continue;
            ++missing;
            lost += mayDrop[s].count(seq) == 0 ? 1 : 0;
        }
    }
    EXPECT_EQ(lost, 0u) << "lines lost outside a close";
    EXPECT_EQ(Count(quiet,
                    "AddLog\\(\\):\\d+ VxCamOfflineLogger: Please note log is skipped due to "
                    "camera is closing\n"),
              missing);
}

// Starting wants 3000 MB free; the text logs get their pool on first use.
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
}

std::atomic<int> g_triggeredType{-1};
void NoteTrigger(OfflineLoggerType type) {
    g_triggeredType = type;
}

// Each entry of the host's table shows an effect that only its own operation has, so two entries
// swapped fail their rows. Each row runs in a child on the process's own loggers, from the
// child's folder, with a line of the text log held by the main thread; its type has high bits
// set, which only bits 2 to 7 make invalid.
TEST_F(OfflineLoggerTest, EachEntryOfTheTableReachesItsOwnOperation) {
    EXPECT_EQ(VxCamOfflineLogger::GetInstance(static_cast<OfflineLoggerType>(4)), nullptr);
    std::set<VxCamOfflineLogger*> instances;
    for (uint32_t t = 0; t < 4; ++t)
        instances.insert(VxCamOfflineLogger::GetInstance(OfflineLoggerType(t)));
    EXPECT_EQ(instances.size(), 4u);

    OfflineLogEntryTable t;
    ChiOfflineLogEntry(nullptr);  // refused, not written through
    ChiOfflineLogEntry(&t);
    for (uint32_t bits : {0x4u, 0x80u}) {  // invalid: reaches no logger, every entry answers 0
        const auto bad = static_cast<OfflineLoggerType>(bits);
        for (int answer :
             {t.addLog(bad, "x\n"), t.flushLog(bad, 1), t.isEnable(bad),
              t.linkFlushTrigger(bad, NoteTrigger), t.getSetting(bad),
              t.setCleanupTrigger(bad, NoteTrigger), t.cleanupOlderLogFile(bad),
              t.setCoredumpPath(bad, "x"), t.enableCoredump(bad), t.disableCoredump(bad),
              t.isCoredumpEnabled(bad), t.setMultiPathMode(bad, 1), t.cleanupMemPool(bad)})
            EXPECT_EQ(answer, 0) << std::hex << bits;
    }

    VxCamOfflineLogger* l = nullptr;  // the row's logger
    OfflineLoggerType ty{};           // its type, high bits set
    uint32_t session = 0;             // its session when the row begins
    const char kHeld[] = "a line the main thread holds\n";
    const auto landed = [](const char* text) {
        return TextUnder("data/vendor/camera").find(text) != std::string::npos;
    };
    const auto flushedAll = [&](const char* text) { return l->FlushLogToFile(1, 0), landed(text); };
    const auto exitingThreadLogs = [&] { OnNewThread([&] { l->AddLog("x\n", 2); }); };
    const auto on = [&] { return l->IsEnableOfflinelogger() == 1; };
    const auto ended = [&] { return Inside::Session(*l) - session; };  // sessions since the start
    const struct {
        const char* entry;
        OfflineLoggerType type;
        std::function<bool()> effect;  // the call through the table, and what only it does
    } kRows[] = {
            {"addLog", OfflineLog,
             [&] { return t.addLog(ty, "new\n") == 0 && flushedAll("new\n"); }},
            {"flushLog", OfflineLog,
             [&] { return t.flushLog(ty, 1) == 0 && landed(kHeld) && ended() == 0; }},
            {"noticeCameraOpen", OfflineLog,  // a second camera switches the logger off
             [&] { return t.noticeCameraOpen(ty), on() && (l->NotifyCameraOpen(), !on()); }},
            {"noticeCameraClose", OfflineLog,
             [&] { return t.noticeCameraClose(ty), landed(kHeld) && ended() == 1; }},
            {"disable", OfflineLog, [&] { return t.disable(ty), l->AddLog("x\n", 2) == 2; }},
            {"isEnable", OfflineLog,
             [&] { return t.isEnable(ty) == 1 && (l->DisableOfflinelogger(), t.isEnable(ty) == 0); }},
            {"linkFlushTrigger", BinaryLog,  // it runs on a flush request while a camera is open
             [&] {
                 const bool linked = t.linkFlushTrigger(ty, nullptr) == 0 &&
                                     t.linkFlushTrigger(ty, NoteTrigger) == 1;
                 l->NotifyCameraOpen();
                 exitingThreadLogs();
                 return linked && g_triggeredType == BinaryLog;
             }},
            {"getSetting", OfflineLog,
             [&] {
                 LogCapture log;
                 setenv("VXCAM_SYSROOT", "missing", 1);
                 return t.getSetting(ty) == 0 &&
                        log.Has("VxCamOfflineLogger query system space failed!");
             }},
            {"setCleanupTrigger", OfflineLog,  // the flush calls it, over 2600 MB
             [&] {
                 const bool set = t.setCleanupTrigger(ty, NoteTrigger) == 1;
                 Inside::TotalFlushMB(*l) = 3000.0f;
                 for (int i = 0; i < 6; ++i) exitingThreadLogs();
                 const bool notYet = g_triggeredType == -1;
                 l->FlushLogToFile(0, 0);
                 return set && notYet && g_triggeredType == OfflineLog;
             }},
            {"cleanupOlderLogFile", OfflineLog,  // the first session is then before the previous
             [&] {
                 l->NotifyCameraClose();
                 l->NotifyCameraClose();
                 return landed(kHeld) && t.cleanupOlderLogFile(ty) == 0 && !landed(kHeld);
             }},
            {"setCoredumpPath", CoredumpTxt,
             [&] {
                 const bool set = t.setCoredumpPath(ty, "core.txt") == 0;
                 exitingThreadLogs();
                 return set && (l->FlushLogToFile(1, 0), ReadFile("core.txt") == "x\n");
             }},
            {"enableCoredump", CoredumpBin,
             [&] { return t.enableCoredump(ty) == 0 && l->IsCoredumpEnabled() == 1; }},
            {"disableCoredump", CoredumpBin,
             [&] {
                 return l->EnableCoredump(), t.disableCoredump(ty) == 0 && !l->IsCoredumpEnabled();
             }},
            {"isCoredumpEnabled", CoredumpBin,
             [&] {
                 return !t.isCoredumpEnabled(ty) && (l->EnableCoredump(), t.isCoredumpEnabled(ty));
             }},
            {"setMultiPathMode", CoredumpTxt,
             [&] { return t.setMultiPathMode(ty, 1) == 0 && Inside::MultiPathMode(*l) == 1; }},
            {"cleanupMemPool", OfflineLog,  // the held line is dropped, not written
             [&] { return t.cleanupMemPool(ty) == 0 && ended() == 1 && on() && !flushedAll(kHeld); }},
    };
    for (const auto& row : kRows) {
        TempDir root;
        const ChildEnd child = CheckInChild(root, [&] {
            l = VxCamOfflineLogger::GetInstance(row.type);
            ty = static_cast<OfflineLoggerType>(0xFFFFFF00u | row.type);
            session = Inside::Session(*l);
            VxCamOfflineLogger::GetInstance(OfflineLog)->AddLog(kHeld, sizeof(kHeld) - 1);
            EXPECT_TRUE(row.effect());
        });
        EXPECT_EQ(child.exitCode, 0) << row.entry << ", signal " << child.signal;
    }
}

// The debug frame hands a time-stamped copy of each passed message to the default logger, with
// the ids of the process and thread that log it, also in the child of a fork whose parent had
// logged before. A long message is cut to the line buffer, 1023 characters with no line end.
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
            // The main thread's line, in whichever bucket; the other thread's, in its own file.
            const bool tid = ids[3] == "child"
                                     ? ids[2] == ids[1]
                                     : path.find("__Tid" + ids[2].str() + "_") != path.npos;
            seen.insert(ids[3].str() +
                        (ids[1] == std::to_string(child.pid) && tid ? "" : " bad ids") +
                        (ids[3] == "L" ? " " + std::to_string(one.size()) : ""));
        }
    }
    EXPECT_EQ(seen, (std::set<std::string>{"child", "L 1023"})) << "L: cut, with no line end";
}

// One 1 MiB record per session in `sessions`, each with a real file.
std::list<RecycleItemInfo> Records(const TempDir& root, std::vector<uint32_t> sessions) {
    std::list<RecycleItemInfo> records;
    for (uint32_t session : sessions) {
        const std::string name = std::to_string(session) + "-" + std::to_string(records.size());
        records.push_back({session, 1, 1048576, root.Write(name, "x")});
    }
    return records;
}

std::vector<bool> Exist(const std::list<RecycleItemInfo>& records) {
    std::vector<bool> exist;
    for (const RecycleItemInfo& record : records) exist.push_back(fs::exists(record.fileName));
    return exist;
}

// Retention removes the sessions before the previous one, oldest first; then, over 2600 MB or
// before session 3, 30 % of the finished threads' files of the current one (three tries on the
// first, which goes once while its size is taken off three times); it forgets that share anyway.
TEST_F(OfflineLoggerTest, RetentionDeletesOldSessionsThenPartOfTheCurrentOne) {
    for (uint32_t current : {5u, 2u}) {
        TestLogger logger(OfflineLog, kSmall);
        logger.m_sessionCount = current;
        logger.m_recycleList = Records(m_root, current == 5 ? std::vector<uint32_t>{1, 1, 2, 3, 4, 5}
                                                            : std::vector<uint32_t>{1});
        logger.m_finishedThreadList = Records(m_root, std::vector<uint32_t>(10, current));
        logger.m_totalFlushSizeMB = current == 5 ? 16.0f : 100.0f;
        fs::remove(logger.m_recycleList.front().fileName);  // a removal that fails still counts
        const auto recycled = logger.m_recycleList;
        const auto finished = logger.m_finishedThreadList;
        logger.RemoveOlderLogFiles();
        std::vector<bool> kept(10, true);
        kept[0] = current == 5;
        EXPECT_EQ(Exist(finished), kept);
        EXPECT_EQ(logger.m_finishedThreadList.size(), 7u);
        EXPECT_EQ(logger.m_finishedThreadList.front().fileName,
                  std::next(finished.begin(), 3)->fileName);
        if (current == 2) {
            EXPECT_EQ(logger.m_recycleList.size(), 1u);
            EXPECT_FLOAT_EQ(logger.m_totalFlushSizeMB, 97.0f);
            continue;
        }
        EXPECT_EQ(Exist(recycled), std::vector<bool>({false, false, false, false, true, true}));
        EXPECT_EQ(logger.m_recycleList.size(), 2u);
        EXPECT_FLOAT_EQ(logger.m_totalFlushSizeMB, 12.0f);
    }
}

TEST_F(OfflineLoggerTest, StatusReportFollowsItsSwitch) {
    TestLogger logger(OfflineLog, kSmall);
    const std::string dumpPath = Camera() + "/Offlinelog_Dump.log";
    logger.SetStatusDumpEnabled(1);
    logger.NotifyCameraOpen();
    LiveThread thread;
    thread.Run([&] { logger.AddLog("a line\n", 7); });
    logger.NotifyCameraClose();  // its flush of everything takes the thread's bucket back too
    const std::string written = ReadFile(dumpPath);
    size_t at = 0;
    for (const char* line : {
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
         }) {
        at = written.find(line, at);
        ASSERT_NE(at, std::string::npos) << line << "\nin\n" << written;
    }
    EXPECT_NE(written.find("  Physical Memory (Used)           : "), std::string::npos);

    logger.FlushLogToFile(0, 0);  // nothing to write: the short form
    const std::string idle = ReadFile(dumpPath).substr(written.size());
    EXPECT_EQ(idle.substr(0, idle.find("  Total Flush time in this session : ")),
              "+--------------------Offlinelogger Status-----------------------+\n"
              "  Trigger operation                : FALSE  \n"
              "  Total Request Memory Count       : 0   \n");
    logger.SetStatusDumpEnabled(0);
    logger.FlushLogToFile(1, 0);
    EXPECT_EQ(ReadFile(dumpPath).size(), written.size() + idle.size());
}

// Each new path in multi-path mode hands the thread's registration over with the old path, so old
// text lands in the old file and new text in the new one, and the pool keeps one bucket held and
// one handed over. Back in single-path mode, text goes to the single path.
TEST_F(OfflineLoggerTest, CoreDumpPathBySingleAndMultiPathMode) {
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

// Host calls that share what a flush reads or writes (a path change, a mode change, retention of
// earlier sessions' files), from a thread of their own while threads log and the host flushes
// everything and closes the camera. Under ThreadSanitizer this finds a call that skips the lock.
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

// A disable resets the pool, then drops the buckets; a new core-dump path, which takes a bucket
// without holding threads off, may come in between. Its registration must go with the buckets.
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
    ASSERT_EQ(core.m_memPool.size(), 2u);  // the core-dump types get their pool at once
    OnNewThread([&] {                      // a thread that ends while the logger still exists
        core.SetMultiPathMode(1);
        core.DisableOfflinelogger();
    });
    EXPECT_TRUE(core.m_memPool.empty() && core.m_perLogInfoPool.empty() &&
                core.m_freeRegisterIds.empty());
}

}  // namespace
