// The offline logger's flushes: which buckets a flush takes, the files they go to and their names,
// and the bookkeeping once they are written. A flush takes its requests under the pool lock, writes
// without it and gives the buckets back under it again.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "VxCamBucketMemory.h"
#include "VxCamLocalTime.h"
#include "VxCamOfflineLoggerInternal.h"

// The steps of a flush speak under the name the host calls.
#define FLUSH_LOGE(fmt, ...)                                                               \
    __android_log_print(ANDROID_LOG_ERROR, "VxCam", "%s():%d " fmt "\n", "FlushLogToFile", \
                        __LINE__, ##__VA_ARGS__)

namespace VxCam {

namespace {

constexpr size_t kTimestampSize = 50;

// The flush whose files this thread is writing, if any: a crash report on the thread writes what
// that flush had taken and not yet written, since no registration names those buckets any more.
thread_local void* t_writingBatch = nullptr;

// "2026-11-15--12-05-52-123456": local time with microseconds; empty when the clock cannot be
// broken down.
std::string Timestamp() {
    timeval now = {};
    gettimeofday(&now, nullptr);
    tm local = {};
    if (LocalTime(&now.tv_sec, &local) == nullptr) return std::string();
    char text[kTimestampSize];
    snprintf(text, sizeof(text), "%2d-%02d-%02d--%02d-%02d-%02d-%06ld", local.tm_year + 1900,
             local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
             static_cast<long>(now.tv_usec));
    return text;
}

float MillisecondsSince(std::chrono::steady_clock::time_point start) {
    const auto elapsed = std::chrono::steady_clock::now() - start;
    return static_cast<float>(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count()) /
           1e6f;
}

}  // namespace

// ---- Flushing and file naming -------------------------------------------------------------------

void VxCamOfflineLogger::RequestFlushLogQueue(int registerId, int lastFlag) {
    PoolHold lock(*m_pOfflineLoggerLock);
    if (registerId < 0 || static_cast<size_t>(registerId) >= m_perLogInfoPool.size()) {
        OFFLINE_LOGW("Invalid registerId %d, m_perLogInfoPool size %zu", registerId,
                     m_perLogInfoPool.size());
        return;
    }
    PerLogThreadInfo& info = m_perLogInfoPool[registerId];
    info.flushRequested = 1;
    if (lastFlag == 1) info.lastFlag = 1;
    ++m_flushRequestCount;
    try {
        m_flushRequestIds.push_back(registerId);
    } catch (const std::bad_alloc&) {
        OFFLINE_LOGE("VxCamOfflineLogger allocate memory failed");
        return;
    }
    // The host's trigger runs with the pool lock held: it must hand the flush to another thread.
    void (*trigger)(OfflineLoggerType) = m_flushTriggerLink.load(std::memory_order_acquire);
    if (trigger != nullptr && m_loggerType < 4 && m_cameraOpenCount[TypeIndex(m_loggerType)] != 0) {
        trigger(m_loggerType);
    }
}

std::string VxCamOfflineLogger::GetCurrentTime() {
    return Timestamp();
}

std::string VxCamOfflineLogger::GetPrefixFilename() {
    const std::string prefixTime = Timestamp();
    const std::string folderName = "VxCam_OfflineLog_" + GetCurrentTime();
    const std::string root = DeviceRoot();
    char prefix[kPathSize];
    char prefixName[kPathSize];
    char folder[kPathSize];
    snprintf(prefix, sizeof(prefix), "%s/%s/VxCam_%s_%s_", root.c_str(), folderName.c_str(),
             m_loggerTypeName.c_str(), prefixTime.c_str());
    snprintf(prefixName, sizeof(prefixName), "VxCam_%s_%s_", m_loggerTypeName.c_str(),
             prefixTime.c_str());
    snprintf(folder, sizeof(folder), "%s/%s/", root.c_str(), folderName.c_str());
    if (mkdir(folder, 0777) != 0) OFFLINE_LOGE("Failed to create Offlinelogger folder");
    m_sessionPrefix = prefix;
    m_sessionPrefixName = prefixName;
    m_prefixReady = 1;
    m_sessionFolderName = folderName;
    return m_sessionPrefix;
}

std::string VxCamOfflineLogger::GetCurrentSessionPrefixFilename() {
    try {
        return m_sessionPrefix + "_Session" + std::to_string(m_sessionCount.load());
    } catch (const std::bad_alloc&) {
        return std::string();
    }
}

std::string VxCamOfflineLogger::GenerateLogFileNameByOfflineLoggerType(
        std::vector<PerLogThreadInfo>::iterator* it) {
    PerLogThreadInfo& info = **it;
    if (m_loggerType == CoredumpTxt || m_loggerType == CoredumpBin) {
        info.path = m_coredumpPath;
        return m_coredumpPath;
    }
    // The prefix ends in '_' and so does not swallow this part's leading one: names carry
    // "__Tid", and readers of the files rely on that.
    std::string namePart = "_Tid" + std::to_string(info.threadId) + "_Session" +
                           std::to_string(info.sessionCnt) + "_Segment" +
                           std::to_string(info.segmentCnt);
    info.path = m_sessionPrefix + namePart;
    if (m_loggerType == OfflineLog) {
        info.path += ".txt";
    } else if (m_loggerType == BinaryLog) {
        info.path += ".bin";
    }
    return namePart;
}

void VxCamOfflineLogger::RecordTextFileName(const std::string& namePart) {
    std::string name = m_sessionPrefixName + namePart + ".txt";
    if (m_fileNameSet.count(name) != 0) return;
    // The list settles one above its bound; the set keeps every name of the session.
    if (m_fileNameList.size() > m_maxFileNameListSize) m_fileNameList.pop_back();
    m_fileNameSet.insert(name);
    m_fileNameList.push_front(std::move(name));
}

void VxCamOfflineLogger::KeepThreadBookkeeping(const PerLogThreadInfo& info) {
    auto known = m_threadRegisterMap.find(info.threadId);
    if (known == m_threadRegisterMap.end()) {
        m_threadRegisterMap.emplace(info.threadId, info.segmentCnt);
        m_flushedThreadList.push_back(info);
    } else if (known->second != info.segmentCnt) {
        known->second = info.segmentCnt;
        m_flushedThreadList.push_back(info);
    }
    if (info.lastFlag != 1) return;
    for (auto copy = m_flushedThreadList.begin(); copy != m_flushedThreadList.end(); ++copy) {
        if (copy->segmentCnt == info.segmentCnt && copy->threadId == info.threadId) {
            m_finishedThreadList.push_back(RecycleItemInfo{copy->sessionCnt, copy->segmentCnt,
                                                           copy->fileSize, copy->path});
            m_flushedThreadList.erase(copy);
            break;
        }
    }
}

struct __attribute__((visibility("hidden"))) VxCamOfflineLogger::FlushBatch {
    // One bucket of a flush: what the pool lock saw when the flush took it, and how its writing went.
    struct Job {
        int registerId;
        PerLogThreadInfo info;  // as taken, path included: a camera close drops the registration
        unsigned char* bucket;  // null when bucketId is outside the pool
        bool held;              // written while its thread holds the registration
        bool ended;             // held, but released once written: its session is over
        bool swapped;    // held: its thread went on in a fresh bucket while this one is written
        bool keepPages;  // zeroed in place, its pages then passed on
        bool opened = false;
        bool written = false;  // on disk; the bucket may be zeroed from here on
        int writeError = 0;
        float writeMs = 0.0f;
    };
    int flushAll;
    bool endsSession;          // a camera close's flush of everything: the session ends with it
    bool threadsHeld;          // the caller holds the capture lock exclusively (a crash report)
    bool holdThreads = false;  // threads stay held off while the files are written
    uint32_t session = 0;      // the session whose text this is
    uint32_t requests = 0;     // bucket requests counted when a flush of everything took its own
    std::vector<Job> jobs;
    std::vector<int> emptied;  // a camera close's free buckets that give their pages back
    std::chrono::steady_clock::time_point start;
};

int VxCamOfflineLogger::FlushLogToFile(int flushAll, int backup) {
    TurnHold turn(m_loggerType);
    FlushBatch batch;
    batch.flushAll = flushAll;
    batch.endsSession = flushAll == 1 && t_sessionEndingLogger == this;
    batch.threadsHeld = m_pThreadLock->HeldExclusivelyByThisThread();
    // A flush of everything takes the buckets that threads are still filling: none may copy a line
    // into one while it is taken. Threads are held off for that only; they go on in fresh buckets
    // while the old ones are written.
    std::optional<ExclusiveHold> threads;
    if (flushAll == 1 && !batch.threadsHeld) {
        if (!batch.endsSession) {
            // Nothing to write: said at once, not after holding off every thread inside a line.
            // Not so for a camera close, which holds them off in any case: a thread inside its
            // first line may be about to make the pool, and its line is written, not reset away.
            PoolHold lock(*m_pOfflineLoggerLock);
            if (m_memPool.empty()) return 2;
        }
        threads.emplace(*m_pThreadLock);
        // Raised once the threads inside a line have left, not before: a thread that waits
        // for its shared hold meanwhile goes on afterwards, in the next session, rather than
        // lose its line to a reader that is slow to leave.
        if (batch.endsSession) m_pThreadGuard->store(true);
    }
    try {
        batch.jobs.reserve(64);
        int result;
        {
            PoolHold lock(*m_pOfflineLoggerLock);
            result = CollectFlush(batch);
            if (result == 0 && batch.endsSession) ResetForNextSession(&batch);
        }
        if (result != 0) {
            if (batch.endsSession && threads) {
                // Nothing to write, and the session ends all the same before the threads are let
                // in: one that waited meanwhile must begin the next session, not leave a line in
                // this one for a later reset to drop unseen.
                SetAllToDefaultValue();
                EndSession();
            }
            return result;
        }
        if (batch.endsSession) EndSession();
        if (!batch.holdThreads) threads.reset();
        if (batch.threadsHeld && t_writingBatch != nullptr) {
            // A crash report on a thread that was writing: that flush's text is older than what
            // the threads hold now. The file being written when the crash came is written whole
            // again: some of its lines may land twice, none is lost.
            WriteFlush(*static_cast<FlushBatch*>(t_writingBatch));
        }
        void* const outer = t_writingBatch;
        t_writingBatch = &batch;
        WriteFlush(batch);
        t_writingBatch = outer;
        if (backup == 1) BackupRecentModifyLog();
        PoolHold lock(*m_pOfflineLoggerLock);
        FinishFlush(batch);
    } catch (const std::bad_alloc&) {
        OFFLINE_LOGE("VxCamOfflineLogger allocate memory failed");
    }
    if (m_statusDumpFile != nullptr) {
        if (fflush(m_statusDumpFile) != 0) OFFLINE_LOGE("fflush operation for debug dump failed");
        if (fclose(m_statusDumpFile) != 0) OFFLINE_LOGE("fclose operation for debug dump failed!");
        // Forgotten once closed, so that turning the status dump off never reaches a closed file.
        m_statusDumpFile = nullptr;
        m_statusFd = -1;
    }
    return 0;
}

// With the pool lock held (and, for a flush of everything, the capture lock). Takes the requests:
// decides which registrations are written, names their files and detaches their buckets. Returns
// the flush's result when it ends here.
int VxCamOfflineLogger::CollectFlush(FlushBatch& batch) {
    if (m_memPool.empty()) return 2;
    if (m_state.load() == kStateDisabled) return 2;
    if (s_isInitValid.load() == 0) return 1;
    const int flushAll = batch.flushAll;
    if (flushAll == 1) {
        // The state is left alone: a camera close has marked the logger closing already, and a
        // flush of everything outside one must not, or the close would skip its own flush and drop
        // what is logged until then.
        for (size_t i = 0; i < m_perLogInfoPool.size(); ++i) {
            m_flushRequestIds.push_back(static_cast<int>(i));
        }
    }
    if (m_prefixReady == 0) GetPrefixFilename();
    if (m_statusDumpEnabled == 1) {
        m_statusDumpFile = fopen((DeviceRoot() + "/Offlinelog_Dump.log").c_str(), "a+");
        if (m_statusDumpFile != nullptr) {
            m_statusFd = fileno(m_statusDumpFile);
            DPrintF(m_statusFd,
                    "+--------------------Offlinelogger Status-----------------------+\n");
        }
    }
    batch.start = std::chrono::steady_clock::now();
    if (flushAll == 0 && m_flushRequestCount < m_pConfigInfo->flushBatchSize) {
        m_triggerOperation = 0;
        return 0;
    }
    m_triggerOperation = static_cast<uint32_t>(m_flushRequestIds.size());
    const uint32_t session = m_sessionCount.load();
    batch.session = session;
    batch.requests = m_requestMemoryCount;
    // Buckets that threads go on filling are swapped for fresh ones, so that the threads need not
    // wait for the write; a crash report holds them off anyway.
    const bool swap = flushAll == 1 && !batch.threadsHeld && !batch.endsSession;
    const size_t warmLimit = 2 * size_t{m_pConfigInfo->flushBatchSize};
    // A camera close gives every page back.
    size_t keepBudget =
            batch.endsSession ? 0 : BucketPages::KeepBudget(m_memPool, m_freeBucketIds, warmLimit);
    for (; !m_flushRequestIds.empty(); m_flushRequestIds.pop_front()) {
        const int registerId = m_flushRequestIds.front();
        if (registerId < 0 || static_cast<size_t>(registerId) >= m_perLogInfoPool.size()) continue;
        PerLogThreadInfo& info = m_perLogInfoPool[registerId];
        // Not handed over: written because everything is, while its thread still holds it.
        const bool held = info.flushRequested == 0;
        // Held, but no thread will write into it again: its session has ended (core-dump
        // registrations outlive a camera close) or ends with this flush. Released once written,
        // or at once when empty; its thread, if it lives, registers afresh. A released
        // registration names no thread.
        const bool ended = held && flushAll == 1 && info.threadId != 0 &&
                           (batch.endsSession || info.sessionCnt != session);
        const bool write = info.flushRequested == 1 || (held && flushAll == 1 && info.logSize != 0);
        if (!write) {
            if (ended && !batch.endsSession) {
                ReleaseRegistration(registerId);
                if (info.bucketId < m_memPool.size())
                    BucketPages::GiveBack(m_memPool[info.bucketId]);
            }
            continue;
        }
        if (info.fileNameReady == 0) {
            auto it = m_perLogInfoPool.begin() + registerId;
            const std::string namePart = GenerateLogFileNameByOfflineLoggerType(&it);
            info.fileNameReady = 1;
            if (m_loggerType == OfflineLog) RecordTextFileName(namePart);
        }
        FlushBatch::Job job{registerId, info, nullptr, held, ended, false, false};
        if (info.bucketId < m_memPool.size()) {
            job.bucket = m_memPool[info.bucketId];
            if (keepBudget != 0) {
                job.keepPages = true;
                --keepBudget;
            }
        }
        if (held && !ended) {
            if (swap && !m_freeBucketIds.empty() && job.bucket != nullptr) {
                // A fresh bucket for the same file: the thread picks it up when it notices this
                // flush, and the old one is free again once written.
                info.bucketId = static_cast<uint32_t>(m_freeBucketIds.front());
                m_freeBucketIds.pop_front();
                job.swapped = true;
            } else {
                batch.holdThreads = true;  // written in place, under the threads' feet
            }
            info.logSize = 0;
        } else if (!held) {
            info.flushRequested = 2;  // being written: skipped if it comes up again
        }
        batch.jobs.push_back(std::move(job));
    }
    if (flushAll == 1 && !batch.endsSession) {
        // Counts the flushes of everything in the session, so that threads notice each one and
        // start their bucket over (a fresh one, when it was swapped).
        const uint32_t flushState = m_sessionFlushState.load() + 1;
        m_sessionFlushState.store(flushState != 0 ? flushState : 1);
    }
    return 0;
}

// Without the pool lock: only this flush touches the buckets it took.
void VxCamOfflineLogger::WriteFlush(FlushBatch& batch) {
    for (int id : batch.emptied) BucketPages::GiveBack(m_memPool[id]);
    const char* mode = m_loggerType == BinaryLog ? "ab+" : "a+";
    for (FlushBatch::Job& job : batch.jobs) {
        if (job.written) continue;
        FILE* file = fopen(job.info.path.c_str(), mode);
        if (file == nullptr) {
            // Kept with its bucket and request: a later flush of everything finds it.
            FLUSH_LOGE("Offlinelog failed to open file and write");
            continue;
        }
        job.opened = true;
        const uint32_t size = job.info.logSize;
        if (job.bucket != nullptr) {
            const auto writeStart = std::chrono::steady_clock::now();
            errno = 0;
            if (fwrite(job.bucket, 1, size, file) != size) {
                job.writeError = errno != 0 ? errno : EIO;
            }
            job.writeMs = MillisecondsSince(writeStart);
        }
        errno = 0;
        if (fclose(file) != 0 && job.writeError == 0) job.writeError = errno != 0 ? errno : EIO;
        job.written = true;
        if (job.bucket == nullptr) continue;
        // Zeroed here, out of every lock: in place when its pages go to the next bucket in line,
        // else by giving them back.
        if (job.keepPages || !BucketPages::GiveBack(job.bucket)) memset(job.bucket, 0, size);
    }
}

// With the pool lock held. The figures, the bookkeeping and the buckets, in the order written.
void VxCamOfflineLogger::FinishFlush(FlushBatch& batch) {
    const size_t warmLimit = 2 * size_t{m_pConfigInfo->flushBatchSize};
    for (FlushBatch::Job& job : batch.jobs) {
        const int registerId = job.registerId;
        const bool closed = batch.endsSession;  // the registration is gone with the session
        if (!job.opened) {
            // Kept with its registration and request, or, when its session has ended or its
            // thread went on in a fresh bucket, lost: the bucket is free again.
            if (!closed && !job.held) m_perLogInfoPool[registerId].flushRequested = 1;
            if ((closed || job.swapped) && job.bucket != nullptr) {
                if (!BucketPages::GiveBack(job.bucket)) memset(job.bucket, 0, job.info.logSize);
                m_freeBucketIds.push_back(static_cast<int>(job.info.bucketId));
            }
            continue;
        }
        if (job.bucket != nullptr) {
            MonitorFileSystemHealth(job.writeMs);
            if (job.keepPages)
                BucketPages::PassOn(m_memPool, m_freeBucketIds, job.bucket, warmLimit);
        } else {
            FLUSH_LOGE("Exceed memory pool size, session: %d, pool size: %zu, RegisterId: %d",
                       batch.session, m_memPool.size(), job.info.bucketId);
        }
        ++m_totalFlushCount;
        m_totalFlushSizeMB += static_cast<float>(job.info.logSize) * kBytesToMB;
        if (job.writeError != 0) {
            // A full disk: the text is lost and said to be. The bucket is recycled all the same,
            // since keeping it until there is room would let the pool grow without bound while the
            // disk stays full.
            FLUSH_LOGE("Offlinelog failed to write %u bytes to %s: %s", job.info.logSize,
                       job.info.path.c_str(), strerror(job.writeError));
        }
        if (m_loggerType == OfflineLog) KeepThreadBookkeeping(job.info);
        if (!job.held && m_flushRequestCount > 0) --m_flushRequestCount;
        if (closed || job.swapped) {
            if (job.info.bucketId < m_memPool.size()) {
                m_freeBucketIds.push_back(static_cast<int>(job.info.bucketId));
            }
            continue;
        }
        // Its thread goes on in it, from the start, when it notices this flush; the thread's exit
        // or a full bucket hands it over later.
        if (job.held && !job.ended) continue;
        ReleaseRegistration(registerId);
    }

    for (int id : batch.emptied) m_freeBucketIds.push_back(id);
    // A camera close's reset, which comes after its writes, leaves no write times behind.
    if (batch.endsSession) m_fwriteTimeHistory.clear();
    m_cleanupTriggerCount = 0;
    if (batch.flushAll == 0 && m_totalFlushSizeMB > static_cast<float>(m_maxFlushLogSizeThreshold) &&
        m_loggerType == OfflineLog && m_cleanupTriggerLink != nullptr) {
        m_cleanupTriggerLink(OfflineLog);
    }
    if (batch.flushAll == 1) {
        m_threadRegisterMap.clear();
        for (const PerLogThreadInfo& copy : m_flushedThreadList) {
            m_recycleList.push_back(
                    RecycleItemInfo{copy.sessionCnt, copy.segmentCnt, copy.fileSize, copy.path});
        }
        m_flushedThreadList.clear();
        m_recycleList.splice(m_recycleList.end(), m_finishedThreadList);
    }
    // The last flush's duration, not a sum: the report shows what one flush costs.
    m_totalFlushTimeMs = MillisecondsSince(batch.start);
    // Threads request buckets while a flush of everything writes; those requests count after it.
    const uint32_t requestsSince = batch.flushAll == 1 ? m_requestMemoryCount - batch.requests : 0;
    if (batch.flushAll == 1) m_requestMemoryCount = batch.requests;
    if (m_statusDumpEnabled == 1) {
        // A camera close reports the session it ended, which its threads have left by now.
        t_reportedSession = batch.session;
        DumpCurrentOfflineLogStatus();
        t_reportedSession = 0;
    }
    if (batch.flushAll == 1) {
        m_totalFlushTimeMs = 0.0f;
        m_totalFlushCount = 0;
        m_removeSuccessCount = 0;
        m_removeFailCount = 0;
        m_requestMemoryCount = requestsSince;
    }
}

// With the pool lock and the capture lock held, once a camera close's flush has taken the
// session's buckets: every other bucket is free and every registration dropped. Free buckets with
// pages give them back before they are free again, out of the capture lock; the taken ones are
// free once written.
void VxCamOfflineLogger::ResetForNextSession(FlushBatch* batch) {
    std::vector<bool> taken(m_memPool.size(), false);
    for (const FlushBatch::Job& job : batch->jobs) {
        if (job.info.bucketId < taken.size()) taken[job.info.bucketId] = true;
    }
    std::deque<int> free;
    for (size_t i = 0; i < m_memPool.size(); ++i) {
        if (taken[i]) continue;
        if (BucketPages::IsWarm(m_memPool[i])) {
            batch->emptied.push_back(static_cast<int>(i));
        } else {
            free.push_back(static_cast<int>(i));
        }
    }
    m_freeBucketIds.swap(free);
    // The written segments' records stay: the flush hands them on once it has written its own.
    DropSession();
}

// With the capture lock held exclusively: the camera close's last steps, which let the threads in
// again in a new session.
void VxCamOfflineLogger::EndSession() {
    {
        PoolHold lock(*m_pOfflineLoggerLock);
        if (IsValidType(m_loggerType) && m_cameraOpenCount[TypeIndex(m_loggerType)] != 0) {
            --m_cameraOpenCount[TypeIndex(m_loggerType)];
        }
    }
    m_sessionFlushState.store(0);
    // Not over a disable that came meanwhile: it waits for the close's turn, and stays.
    uint32_t closing = kStateClosing;
    m_state.compare_exchange_strong(closing, kStateActive);
    m_sessionCount.fetch_add(1);
    m_pThreadGuard->store(false);
    t_sessionEndingLogger = nullptr;  // the session has ended
}

void VxCamOfflineLogger::FlushLogBySeperateThread() {
    void (*trigger)(OfflineLoggerType) = m_flushTriggerLink.load(std::memory_order_acquire);
    if (trigger != nullptr) trigger(m_loggerType);
}

}  // namespace VxCam
