// The offline logger's dealings with the files it has written and the figures it reports:
// retention and disk space, the crash backup and core-dump settings, and the status report.
#include <math.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysinfo.h>

#include <fstream>
#include <string>

#include "VxCamOfflineLoggerInternal.h"

namespace VxCam {

// ---- Retention and disk space -------------------------------------------------------------------

double VxCamOfflineLogger::GetAvailableSpace(const char* path) {
    struct statvfs info = {};
    if (path == nullptr || statvfs(path, &info) != 0) {
        m_state.store(kStateDisabled);
        OFFLINE_LOGE("Offlinelog failed to get file system information!");
        return -1.0;
    }
    return static_cast<double>(info.f_bsize) * static_cast<double>(info.f_bavail) *
           (1.0 / 1048576.0);
}

int VxCamOfflineLogger::MonitorFileSystemHealth(float fwriteTimeMs) {
    m_fwriteTimeHistory.push_back(fwriteTimeMs);
    if (m_fwriteTimeHistory.size() > 10) m_fwriteTimeHistory.pop_front();
    if (m_fwriteSampleCount++ >= 10) {
        double sum = 0.0;
        for (float sample : m_fwriteTimeHistory) sum += sample;
        m_fwriteTimeAvgMs =
                static_cast<float>(sum / static_cast<double>(m_fwriteTimeHistory.size()));
        m_fwriteSampleCount = 0;
    }
    return 0;
}

void VxCamOfflineLogger::RemoveOlderLogFiles() {
    // The flush appends to both lists, adds to the size total and clears the counters under the
    // pool lock, so retention takes its records off the lists and their sizes off the total under
    // it too. The files themselves are removed without it: threads that need a bucket must not
    // wait for the file system on retention's behalf.
    // A camera close hands its session's records on only once its files are written.
    TurnHold turn(m_loggerType);
    const uint32_t session = m_sessionCount.load();
    const float limit = static_cast<float>(m_maxFlushLogSizeThreshold);
    std::list<RecycleItemInfo> older;
    std::string currentFile;
    uint32_t currentTries = 0;
    {
        PoolHold lock(*m_pOfflineLoggerLock);
        bool withinLimit;
        if (m_recycleList.empty()) {
            withinLimit = m_totalFlushSizeMB <= limit;
        } else if (session < 3) {
            withinLimit = false;
        } else {
            // Sessions before the previous one go, oldest first, whether or not their files do.
            withinLimit = true;
            auto record = m_recycleList.begin();
            for (; record != m_recycleList.end(); ++record) {
                if (record->sessionCnt > session - 2) {
                    withinLimit = m_totalFlushSizeMB <= limit;
                    break;
                }
                m_totalFlushSizeMB -= static_cast<float>(record->fileSize) * kBytesToMB;
            }
            older.splice(older.end(), m_recycleList, m_recycleList.begin(), record);
        }
        const uint32_t finishedToDrop =
                static_cast<uint32_t>(ceilf(static_cast<float>(m_finishedThreadList.size()) * 0.3f));
        if (!m_finishedThreadList.empty() && !withinLimit &&
            m_finishedThreadList.front().sessionCnt == session) {
            // Stays on the first record on purpose: its file goes once, its size every time.
            const RecycleItemInfo& first = m_finishedThreadList.front();
            currentFile = first.fileName;
            currentTries = finishedToDrop;
            for (uint32_t i = 0; i < finishedToDrop; ++i) {
                m_totalFlushSizeMB -= static_cast<float>(first.fileSize) * kBytesToMB;
            }
        }
        for (uint32_t i = 0; i < finishedToDrop && !m_finishedThreadList.empty(); ++i) {
            m_finishedThreadList.pop_front();
        }
    }
    uint32_t failed = 0;
    for (const RecycleItemInfo& record : older) {
        if (remove(record.fileName.c_str()) != 0) ++failed;
    }
    uint32_t removed = 0;
    for (uint32_t i = 0; i < currentTries; ++i) {
        if (remove(currentFile.c_str()) == 0) ++removed;
    }
    PoolHold lock(*m_pOfflineLoggerLock);
    // As the status report counts them: failures among older sessions' files, successes among
    // the current session's.
    m_removeFailCount += failed;
    m_removeSuccessCount += removed;
}

// ---- Crash backup and core-dump settings --------------------------------------------------------

int VxCamOfflineLogger::BackupRecentModifyLog() {
    const std::string root = DeviceRoot();
    const std::string folderName = "OfflineLog_CrashLog_" + GetCurrentTime();
    char crashFolder[kPathSize];
    char rootPath[kPathSize];
    snprintf(crashFolder, sizeof(crashFolder), "%s/%s/", root.c_str(), folderName.c_str());
    snprintf(rootPath, sizeof(rootPath), "%s/", root.c_str());
    if (mkdir(crashFolder, 0777) != 0) {
        OFFLINE_LOGE("Failed to copy Offlinelogger crash log to permanent folder!");
        return 1;
    }
    while (!m_fileNameList.empty()) {
        const std::string name = m_fileNameList.front();
        m_fileNameList.pop_front();
        m_fileNameSet.erase(name);
        const std::string source = std::string(rootPath) + m_sessionFolderName + "/" + name;
        const std::string destination = std::string(crashFolder) + name;
        std::ifstream in(source, std::ios::binary);
        std::ofstream out(destination, std::ios::binary);
        if (in && out) out << in.rdbuf();
    }
    return 0;
}

int VxCamOfflineLogger::GetEnableBackupLogWhileCrash() {
    return static_cast<int>(m_enableBackupLogWhileCrash);
}

int VxCamOfflineLogger::GetMinimumRequireForBackupLog() {
    return static_cast<int>(m_minimumRequireForBackupLog);
}

int VxCamOfflineLogger::GetSignal35TombstoneTriggered() {
    return static_cast<int>(m_signal35TombstoneTriggered);
}

void VxCamOfflineLogger::SetSignal35TombstoneTriggered() {
    m_signal35TombstoneTriggered = 1;
}

int VxCamOfflineLogger::SetCoredumpPath(const char* path) {
    if (path == nullptr) return 0;
    bool newRegistration = false;
    {
        // The flush names core-dump files, and the bucket request presets their paths, from these,
        // under the pool lock.
        PoolHold lock(*m_pOfflineLoggerLock);
        try {
            if (m_multiPathMode == 0) {
                m_coredumpPath = path;
            } else if (m_multiPathMode == 1) {
                m_multiPathCoredumpPath = path;
                newRegistration = m_loggerType == CoredumpTxt;
            }
        } catch (const std::bad_alloc&) {
            OFFLINE_LOGE("VxCamOfflineLogger allocate memory failed");
            return 0;
        }
    }
    // The thread's next core-dump text goes to a registration that carries the new path.
    if (newRegistration) RequestBucketInPlace(CoredumpTxt);
    return 0;
}

void VxCamOfflineLogger::EnableCoredump() {
    m_coredumpEnabled = 1;
}

void VxCamOfflineLogger::DisableCoredump() {
    m_coredumpEnabled = 0;
}

int VxCamOfflineLogger::IsCoredumpEnabled() {
    return static_cast<int>(m_coredumpEnabled);
}

void VxCamOfflineLogger::SetStatusDumpEnabled(int enable) {
    // Between flushes: a flush opens the dump file only while the switch is on and closes it
    // before it returns, so file and switch never disagree.
    TurnHold turn(m_loggerType);
    PoolHold lock(*m_pOfflineLoggerLock);
    m_statusDumpEnabled = enable == 1 ? 1 : 0;
}

// ---- Status report ------------------------------------------------------------------------------

int VxCamOfflineLogger::DumpCurrentOfflineLogStatus() {
    const int fd = m_statusFd;
    if (m_triggerOperation != 0) {
        DPrintF(fd, "  Session                          : %d   \n",
                t_reportedSession != 0 ? t_reportedSession : m_sessionCount.load());
        DPrintF(fd, "  Logger Type                      : %s   \n", m_loggerTypeName.c_str());
        DPrintF(fd, "  Memory Pool Bucket (Total)       : %zu  \n", m_memPool.size());
        DPrintF(fd, "  Memory Pool Bucket (Available)   : %zu  \n", m_freeBucketIds.size());
        DPrintF(fd, "  Trigger operation                : TRUE \n");
        DPrintF(fd, "  Fwrite time average (Last:%d)    : %fms \n", 10,
                static_cast<double>(m_fwriteTimeAvgMs));
        DPrintF(fd, "  Total Flush log size (MB)        : %f   \n",
                static_cast<double>(m_totalFlushSizeMB));
        DPrintF(fd, "  Maxium flush log size threadhold : %d   \n", m_maxFlushLogSizeThreshold);
        DPrintF(fd, "  Total Flush Count                : %d   \n", m_totalFlushCount);
        struct sysinfo memory = {};
        sysinfo(&memory);
        const unsigned long long unit = memory.mem_unit;
        const long long virtualTotal =
                static_cast<long long>((memory.totalram + memory.totalswap) * unit);
        const long long virtualUsed = static_cast<long long>(
                ((memory.totalram - memory.freeram) + (memory.totalswap - memory.freeswap)) * unit);
        const long long physicalTotal = static_cast<long long>(memory.totalram * unit);
        const size_t physicalUsed = static_cast<size_t>((memory.totalram - memory.freeram) * unit);
        const float virtualPercent =
                static_cast<float>(virtualUsed) / static_cast<float>(virtualTotal) * 100.0f;
        const float physicalPercent =
                static_cast<float>(physicalUsed) / static_cast<float>(physicalTotal) * 100.0f;
        DPrintF(fd, "  Virtual Memory  (Total)          : %lld        \n", virtualTotal);
        DPrintF(fd, "  Virtual Memory  (Used)           : %lld(%.2f%%)\n", virtualUsed,
                static_cast<double>(virtualPercent));
        DPrintF(fd, "  Physical Memory (Total)          : %lld        \n", physicalTotal);
        DPrintF(fd, "  Physical Memory (Used)           : %zu(%.2f%%) \n", physicalUsed,
                static_cast<double>(physicalPercent));
        DPrintF(fd, "  Free space (MB)                  : %f   \n",
                GetAvailableSpace(DeviceRoot().c_str()));
        DPrintF(fd, "  Total remove files success       : %d   \n", m_removeSuccessCount);
        DPrintF(fd, "  Total remove files failed        : %d   \n", m_removeFailCount);
        DPrintF(fd, "  Trigger clean up operation       : %d   \n", m_cleanupTriggerCount);
    } else {
        DPrintF(fd, "  Trigger operation                : FALSE  \n");
    }
    DPrintF(fd, "  Total Request Memory Count       : %d   \n", m_requestMemoryCount);
    DPrintF(fd, "  Total Flush time in this session : %fms \n",
            static_cast<double>(m_totalFlushTimeMs));
    return 0;
}

}  // namespace VxCam
