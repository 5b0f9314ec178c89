// The offline logger as a state machine, driven the way a camera host drives it: through the table
// of ChiOfflineLogEntry, by two threads at once. Each thread reads its own part of the input as a
// sequence of operations (lines, flushes forced or not, camera open and close, disable, clean-up,
// retention, core-dump paths and modes, triggers, threads that log and exit). When both are done,
// the loggers' tables are checked and every logger is brought back to the state it started the
// run in, and the files are deleted, so each input runs from the same state.
//
// Input: the first byte splits the rest between the two threads. Each thread's part is read as
// operations (an operation byte and its arguments, taken by FuzzedDataProvider), at most
// kMaxOperations of them and kMaxLoggedBytes of log text.
//
// Files go under $VXCAM_SYSROOT (a temporary sysroot is made when it is unset). The logger's
// start-up wants 3000 MB free there; with less, GetSettingLink fails and the loggers run without
// their start-up, which the fuzzer accepts.
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "FuzzSupport.h"
#include "VxCamOfflineLogger.h"

namespace {

using VxCam::OfflineLoggerType;
using VxCam::VxCamOfflineLogger;

constexpr size_t kMaxOperations = 256;
constexpr size_t kMaxLoggedBytes = 8u << 20;  // per thread: enough to fill two buckets
constexpr size_t kMaxLineLength = 4095;

VxCam::OfflineLogEntryTable g_table;
std::string g_cameraDirectory;
std::vector<std::string> g_coredumpPaths;

// The host's triggers only note the request, as they must: the logger calls them with its pool
// lock held. A later operation serves it, as the host's flush thread would.
std::atomic<uint32_t> g_flushRequested{0};
std::atomic<uint32_t> g_cleanupRequested{0};
void FlushTrigger(OfflineLoggerType type) {
    g_flushRequested.fetch_or(1u << (type & 3));
}
void CleanupTrigger(OfflineLoggerType type) {
    g_cleanupRequested.fetch_or(1u << (type & 3));
}

// ---- The loggers' insides, for the checks and the reset between inputs --------------------------
class LoggerState : private VxCamOfflineLogger {
  public:
    static void Check(OfflineLoggerType type);
    static void Reset(OfflineLoggerType type);

  private:
    // The registration table never moves: capturing threads write into it without the pool lock.
    static const void* s_registrations[4];
};

const void* LoggerState::s_registrations[4] = {};

template <typename Ids>
bool AllBelow(const Ids& ids, size_t bound) {
    for (int id : ids) {
        if (id < 0 || static_cast<size_t>(id) >= bound) return false;
    }
    return true;
}

template <typename Ids>
bool NoneTwice(const Ids& ids) {
    std::vector<int> sorted(ids.begin(), ids.end());
    std::sort(sorted.begin(), sorted.end());
    return std::adjacent_find(sorted.begin(), sorted.end()) == sorted.end();
}

void LoggerState::Check(OfflineLoggerType type) {
    VxCamOfflineLogger* logger = GetInstance(type);
    FUZZ_CHECK(logger != nullptr);
    FUZZ_CHECK(!m_pThreadGuard->load());  // no camera close is under way
    std::lock_guard<std::mutex> lock(*m_pOfflineLoggerLock);
    const auto& registrations = logger->*(&LoggerState::m_perLogInfoPool);
    if (s_registrations[type] == nullptr) s_registrations[type] = registrations.data();
    FUZZ_CHECK(registrations.data() == s_registrations[type]);
    FUZZ_CHECK((logger->*(&LoggerState::m_registrationCount)).load() ==
               static_cast<int32_t>(registrations.size()));
    // Every index in the free lists and the flush queue names a bucket or a registration.
    FUZZ_CHECK(AllBelow(logger->*(&LoggerState::m_freeBucketIds),
                        (logger->*(&LoggerState::m_memPool)).size()));
    FUZZ_CHECK(AllBelow(logger->*(&LoggerState::m_freeRegisterIds), registrations.size()));
    FUZZ_CHECK(AllBelow(logger->*(&LoggerState::m_flushRequestIds), registrations.size()));
    // Free once at most: a bucket or registration free twice would go to two threads at once.
    FUZZ_CHECK(NoneTwice(logger->*(&LoggerState::m_freeBucketIds)));
    FUZZ_CHECK(NoneTwice(logger->*(&LoggerState::m_freeRegisterIds)));
    FUZZ_CHECK((logger->*(&LoggerState::m_state)).load() <= 2);
    if (type == VxCam::CoredumpTxt || type == VxCam::CoredumpBin) {
        // Every thread that logged has ended, and a core-dump registration lasts no longer than its
        // thread: each is free, or handed over and waiting for the flush.
        std::vector<bool> free(registrations.size());
        for (int id : logger->*(&LoggerState::m_freeRegisterIds))
            free[static_cast<size_t>(id)] = true;
        for (size_t id = 0; id < registrations.size(); ++id) {
            const VxCam::PerLogThreadInfo& info = registrations[id];
            if (!free[id] && info.flushRequested == 0) {
                // Rare and timing-bound so far: what the registration says is the lead.
                fprintf(stderr,
                        "type %u registration %zu of %zu: thread %u, bucket %u of %zu, session %u "
                        "of %u, %u bytes, segment %d, flush state %u\n",
                        static_cast<unsigned>(type), id, registrations.size(), info.threadId,
                        info.bucketId, (logger->*(&LoggerState::m_memPool)).size(), info.sessionCnt,
                        (logger->*(&LoggerState::m_sessionCount)).load(), info.logSize,
                        info.segmentCnt, (logger->*(&LoggerState::m_sessionFlushState)).load());
            }
            FUZZ_CHECK(free[id] || info.flushRequested != 0);
        }
    }
    // Retention's names: the list settles one above its bound, and the set holds all of them.
    const auto& names = logger->*(&LoggerState::m_fileNameList);
    const auto& nameSet = logger->*(&LoggerState::m_fileNameSet);
    FUZZ_CHECK(names.size() <= size_t{logger->*(&LoggerState::m_maxFileNameListSize)} + 1);
    for (const std::string& name : names) FUZZ_CHECK(nameSet.count(name) == 1);
    FUZZ_CHECK((logger->*(&LoggerState::m_fwriteTimeHistory)).size() <= 10);
    if (type != VxCam::OfflineLog) {
        // Thread bookkeeping and retention records belong to the text log alone.
        FUZZ_CHECK(names.empty());
        FUZZ_CHECK((logger->*(&LoggerState::m_threadRegisterMap)).empty());
        FUZZ_CHECK((logger->*(&LoggerState::m_flushedThreadList)).empty());
        FUZZ_CHECK((logger->*(&LoggerState::m_finishedThreadList)).empty());
    }
}

// Back to the state after start-up: no buckets, no registrations, session 1, active, no camera
// open, no links, no paths, no records. No thread but this one is left.
void LoggerState::Reset(OfflineLoggerType type) {
    VxCamOfflineLogger* logger = GetInstance(type);
    logger->CleanupMemoryPool();
    std::lock_guard<std::mutex> lock(*m_pOfflineLoggerLock);
    (logger->*(&LoggerState::m_state)).store(0);
    (logger->*(&LoggerState::m_sessionCount)).store(1);
    (logger->*(&LoggerState::m_sessionFlushState)).store(0);
    (logger->*(&LoggerState::m_flushTriggerLink)).store(nullptr);
    logger->*(&LoggerState::m_cleanupTriggerLink) = nullptr;
    for (uint32_t& count : logger->*(&LoggerState::m_cameraOpenCount)) count = 0;
    (logger->*(&LoggerState::m_recycleList)).clear();
    (logger->*(&LoggerState::m_finishedThreadList)).clear();
    (logger->*(&LoggerState::m_flushedThreadList)).clear();
    (logger->*(&LoggerState::m_threadRegisterMap)).clear();
    (logger->*(&LoggerState::m_fileNameList)).clear();
    (logger->*(&LoggerState::m_fileNameSet)).clear();
    (logger->*(&LoggerState::m_fwriteTimeHistory)).clear();
    (logger->*(&LoggerState::m_sessionPrefix)).clear();
    (logger->*(&LoggerState::m_sessionPrefixName)).clear();
    (logger->*(&LoggerState::m_sessionFolderName)).clear();
    (logger->*(&LoggerState::m_coredumpPath)).clear();
    (logger->*(&LoggerState::m_multiPathCoredumpPath)).clear();
    logger->*(&LoggerState::m_prefixReady) = 0;
    logger->*(&LoggerState::m_coredumpEnabled) = 0;
    logger->*(&LoggerState::m_multiPathMode) = 0;
    logger->*(&LoggerState::m_flushRequestCount) = 0;
    logger->*(&LoggerState::m_totalFlushSizeMB) = 0.0f;
    logger->*(&LoggerState::m_fwriteSampleCount) = 0;
    logger->*(&LoggerState::m_fwriteTimeAvgMs) = 0.0f;
    logger->*(&LoggerState::m_totalFlushTimeMs) = 0.0f;
    logger->*(&LoggerState::m_totalFlushCount) = 0;
    logger->*(&LoggerState::m_removeSuccessCount) = 0;
    logger->*(&LoggerState::m_removeFailCount) = 0;
    logger->*(&LoggerState::m_requestMemoryCount) = 0;
    logger->*(&LoggerState::m_triggerOperation) = 0;
    logger->*(&LoggerState::m_cleanupTriggerCount) = 0;
}

// ---- Start-up -----------------------------------------------------------------------------------
constexpr int kCatcherSignals[] = {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSYS, SIGTRAP, 35};

// Start-up registers the library's crash catcher once per process. The sanitizers' and
// libFuzzer's handlers are put back over it, so a crash is reported with its input as usual; the
// catcher has tests of its own.
int StartLogger(OfflineLoggerType type) {
    constexpr size_t kCount = sizeof(kCatcherSignals) / sizeof(kCatcherSignals[0]);
    struct sigaction saved[kCount];
    for (size_t i = 0; i < kCount; ++i) sigaction(kCatcherSignals[i], nullptr, &saved[i]);
    const int result = g_table.getSetting(type);
    for (size_t i = 0; i < kCount; ++i) sigaction(kCatcherSignals[i], &saved[i], nullptr);
    return result;
}

void RemoveFiles() {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(g_cameraDirectory, error)) {
        std::filesystem::remove_all(entry.path(), error);
    }
}

// ---- One thread's operations ---------------------------------------------------------------------
// The type is 32 bits wide; only bits 2 to 7 make it invalid, so a valid type may carry any of
// the others, and every per-type array must be indexed by its two low bits alone.
OfflineLoggerType ValidType(FuzzedDataProvider& input) {
    const uint32_t high = input.ConsumeBool() ? input.ConsumeIntegral<uint32_t>() & ~0xFFu : 0;
    return static_cast<OfflineLoggerType>(high | (input.ConsumeIntegral<uint8_t>() & 3));
}

// Entries from the core-dump path on take any value, valid or not.
OfflineLoggerType AnyType(FuzzedDataProvider& input) {
    return input.ConsumeBool() ? ValidType(input)
                               : static_cast<OfflineLoggerType>(input.ConsumeIntegral<uint32_t>());
}

void LogLines(OfflineLoggerType type, size_t count, size_t length, size_t* budget) {
    std::string line(length, 'x');
    line.back() = '\n';
    for (size_t i = 0; i < count && *budget >= length; ++i, *budget -= length) {
        const int result = g_table.addLog(type, line.c_str());
        FUZZ_CHECK(result == 0 || result == 2);  // 1 only before any logger exists
    }
}

void RunOperations(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    size_t budget = kMaxLoggedBytes;
    for (size_t done = 0; done < kMaxOperations && input.remaining_bytes() > 0; ++done) {
        switch (input.ConsumeIntegralInRange<uint8_t>(0, 23)) {
            case 0:
            case 1:
            case 2: {
                const OfflineLoggerType type = ValidType(input);
                std::string line = input.ConsumeRandomLengthString(120);
                line += '\n';
                if (budget < line.size()) break;
                budget -= line.size();
                const int result = g_table.addLog(type, line.c_str());
                FUZZ_CHECK(result == 0 || result == 2);
                break;
            }
            case 3: {  // a burst that fills buckets
                const OfflineLoggerType type = ValidType(input);
                const size_t count = input.ConsumeIntegralInRange<size_t>(1, 255);
                const size_t length = input.ConsumeIntegralInRange<size_t>(1, kMaxLineLength);
                LogLines(type, count, length, &budget);
                break;
            }
            case 4:
            case 5: {
                const int result =
                        g_table.flushLog(ValidType(input), input.ConsumeIntegralInRange<int>(0, 2));
                FUZZ_CHECK(result == 0 || result == 2);
                break;
            }
            case 6:
                g_table.noticeCameraOpen(ValidType(input));
                break;
            case 7:
                g_table.noticeCameraClose(ValidType(input));
                break;
            case 8:
                g_table.disable(ValidType(input));
                break;
            case 9: {
                const int enabled = g_table.isEnable(ValidType(input));
                FUZZ_CHECK(enabled == 0 || enabled == 1);
                break;
            }
            case 10: {
                const bool link = input.ConsumeBool();
                FUZZ_CHECK(
                        g_table.linkFlushTrigger(ValidType(input), link ? FlushTrigger : nullptr) ==
                        (link ? 1 : 0));
                break;
            }
            case 11: {
                const int started = StartLogger(ValidType(input));
                FUZZ_CHECK(started == 0 || started == 1);
                break;
            }
            case 12: {
                const bool link = input.ConsumeBool();
                FUZZ_CHECK(g_table.setCleanupTrigger(ValidType(input),
                                                     link ? CleanupTrigger : nullptr) ==
                           (link ? 1 : 0));
                break;
            }
            case 13:
                g_table.cleanupOlderLogFile(AnyType(input));
                break;
            case 14: {
                const OfflineLoggerType type = AnyType(input);
                const size_t path = input.ConsumeIntegralInRange<size_t>(0, g_coredumpPaths.size());
                const char* text =
                        path < g_coredumpPaths.size() ? g_coredumpPaths[path].c_str() : nullptr;
                g_table.setCoredumpPath(type, text);
                break;
            }
            case 15:
                g_table.enableCoredump(AnyType(input));
                break;
            case 16:
                g_table.disableCoredump(AnyType(input));
                break;
            case 17: {
                const int enabled = g_table.isCoredumpEnabled(AnyType(input));
                FUZZ_CHECK(enabled == 0 || enabled == 1);
                break;
            }
            case 18: {
                const OfflineLoggerType type = AnyType(input);
                g_table.setMultiPathMode(type, input.ConsumeIntegralInRange<int>(0, 2));
                break;
            }
            case 19:
                g_table.cleanupMemPool(AnyType(input));
                break;
            case 20: {  // the host's flush thread answers the trigger
                const uint32_t pending = g_flushRequested.exchange(0);
                for (uint32_t type = 0; type < 4; ++type) {
                    if ((pending & (1u << type)) == 0) continue;
                    const int result = g_table.flushLog(static_cast<OfflineLoggerType>(type), 0);
                    FUZZ_CHECK(result == 0 || result == 2);
                }
                break;
            }
            case 21:
                if ((g_cleanupRequested.exchange(0) & 1u) != 0) {
                    g_table.cleanupOlderLogFile(VxCam::OfflineLog);
                }
                break;
            default: {  // a thread that logs a few lines and exits, handing its bucket over
                const OfflineLoggerType type = ValidType(input);
                const size_t count = input.ConsumeIntegralInRange<size_t>(1, 4);
                const size_t length = input.ConsumeIntegralInRange<size_t>(1, kMaxLineLength);
                std::thread([&] { LogLines(type, count, length, &budget); }).join();
                break;
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    vxcamfuzz::FormatEveryLineQuietly();
    // Never the host's own /data/vendor/camera: without a sysroot, one of our own.
    const char* sysroot = getenv("VXCAM_SYSROOT");
    std::string root = sysroot != nullptr ? sysroot : "";
    if (root.empty()) {
        char pattern[] = "/tmp/vxcam-fuzz-XXXXXX";
        FUZZ_CHECK(mkdtemp(pattern) != nullptr);
        root = pattern;
        setenv("VXCAM_SYSROOT", root.c_str(), 1);
        static const std::string made = root;
        atexit([] {
            std::error_code error;
            std::filesystem::remove_all(made, error);
        });
    }
    g_cameraDirectory = root + "/data/vendor/camera";
    std::error_code error;
    std::filesystem::create_directories(g_cameraDirectory, error);
    FUZZ_CHECK(!error);
    g_coredumpPaths = {g_cameraDirectory + "/core_text.txt", g_cameraDirectory + "/core_bin.bin",
                       g_cameraDirectory + "/missing/core.txt", ""};

    ChiOfflineLogEntry(&g_table);
    FUZZ_CHECK(g_table.size == sizeof(g_table));
    for (uint32_t type = 0; type < 4; ++type) {
        if (StartLogger(static_cast<OfflineLoggerType>(type)) != 1) {
            fprintf(stderr,
                    "offline_log_entry_fuzzer: logger %u did not start (less than 3000 MB "
                    "free under %s?)\n",
                    type, g_cameraDirectory.c_str());
        }
    }
    for (uint32_t type = 0; type < 4; ++type) {
        LoggerState::Check(static_cast<OfflineLoggerType>(type));
    }
    RemoveFiles();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const size_t split = (size - 1) * data[0] / 255;
    std::thread first(RunOperations, data + 1, split);
    std::thread second(RunOperations, data + 1 + split, size - 1 - split);
    first.join();
    second.join();

    for (uint32_t type = 0; type < 4; ++type) {
        LoggerState::Check(static_cast<OfflineLoggerType>(type));
        LoggerState::Reset(static_cast<OfflineLoggerType>(type));
    }
    g_flushRequested.store(0);
    g_cleanupRequested.store(0);
    RemoveFiles();
    return 0;
}
