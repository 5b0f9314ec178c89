// A logger for tests: a derived instance with a configuration of the test's choosing (small
// buckets), a fixed session time, a free space to taste, and its bookkeeping in reach.
#ifndef VXCAM_TEST_LOGGER_H
#define VXCAM_TEST_LOGGER_H

#include <unistd.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "VxCamOfflineLogger.h"

namespace vxcamtest {

// The session time of every TestLogger: its session folder is "VxCam_OfflineLog_" + kT1.
constexpr const char kT1[] = "2026-11-21--10-00-00-000001";

// Constructed before the logger, which reads its configuration at once.
struct ConfigHolder {
    VxCam::OfflineLoggerConfigInfo m_config;
};

class TestLogger : private ConfigHolder, public VxCam::VxCamOfflineLogger {
  public:
    TestLogger(VxCam::OfflineLoggerType type, VxCam::OfflineLoggerConfigInfo config)
        : ConfigHolder{config}, VxCam::VxCamOfflineLogger(type, &m_config) {}

    using VxCam::VxCamOfflineLogger::AllocateLogQueueMemPool;
    using VxCam::VxCamOfflineLogger::BackupRecentModifyLog;
    using VxCam::VxCamOfflineLogger::m_coredumpPath;
    using VxCam::VxCamOfflineLogger::m_fileNameList;
    using VxCam::VxCamOfflineLogger::m_fileNameSet;
    using VxCam::VxCamOfflineLogger::m_finishedThreadList;
    using VxCam::VxCamOfflineLogger::m_flushRequestCount;
    using VxCam::VxCamOfflineLogger::m_flushRequestIds;
    using VxCam::VxCamOfflineLogger::m_freeBucketIds;
    using VxCam::VxCamOfflineLogger::m_freeRegisterIds;
    using VxCam::VxCamOfflineLogger::m_fwriteTimeAvgMs;
    using VxCam::VxCamOfflineLogger::m_fwriteTimeHistory;
    using VxCam::VxCamOfflineLogger::m_memPool;
    using VxCam::VxCamOfflineLogger::m_multiPathCoredumpPath;
    using VxCam::VxCamOfflineLogger::m_perLogInfoPool;
    using VxCam::VxCamOfflineLogger::m_recycleList;
    using VxCam::VxCamOfflineLogger::m_removeFailCount;
    using VxCam::VxCamOfflineLogger::m_removeSuccessCount;
    using VxCam::VxCamOfflineLogger::m_sessionCount;
    using VxCam::VxCamOfflineLogger::m_sessionFolderName;
    using VxCam::VxCamOfflineLogger::m_totalFlushSizeMB;
    using VxCam::VxCamOfflineLogger::m_triggerOperation;
    using VxCam::VxCamOfflineLogger::MonitorFileSystemHealth;
    using VxCam::VxCamOfflineLogger::SetAllToDefaultValue;

    double GetAvailableSpace(const char* path) override {
        return m_freeMB < 0 ? VxCam::VxCamOfflineLogger::GetAvailableSpace(path) : m_freeMB;
    }
    std::string GetCurrentTime() override { return kT1; }
    void RequestFlushLogQueue(int registerId, int lastFlag) override {
        {
            std::lock_guard<std::mutex> lock(m_callsMutex);
            m_flushCalls.push_back({registerId, lastFlag});
        }
        VxCam::VxCamOfflineLogger::RequestFlushLogQueue(registerId, lastFlag);
    }

    std::vector<std::pair<int, int>> FlushCalls() {
        std::lock_guard<std::mutex> lock(m_callsMutex);
        return m_flushCalls;
    }
    uint32_t Session() const { return m_sessionCount.load(); }

    double m_freeMB = 100000.0;

  private:
    std::mutex m_callsMutex;
    std::vector<std::pair<int, int>> m_flushCalls;
};

// Runs `body` on a new thread and returns that thread's kernel id.
inline pid_t OnNewThread(const std::function<void()>& body) {
    pid_t tid = 0;
    std::thread([&] {
        tid = gettid();
        body();
    }).join();
    return tid;
}

// A thread that runs the steps it is given, one at a time, and stays alive between them: what it
// registers with a logger stays its own until it ends. It ends on destruction, so declare it after
// the logger it logs to.
class LiveThread {
  public:
    LiveThread() : m_thread([this] { Serve(); }) {}
    ~LiveThread() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        m_wake.notify_all();
        m_thread.join();
    }
    LiveThread(const LiveThread&) = delete;
    LiveThread& operator=(const LiveThread&) = delete;

    // Runs `step` on the thread and waits for it.
    void Run(std::function<void()> step) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_step = std::move(step);
        m_wake.notify_all();
        m_wake.wait(lock, [this] { return !m_step; });
    }

  private:
    void Serve() {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            m_wake.wait(lock, [this] { return m_stop || m_step; });
            if (m_stop) return;
            m_step();
            m_step = nullptr;
            m_wake.notify_all();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::function<void()> m_step;
    bool m_stop = false;
    std::thread m_thread;  // last: starts once the rest is built
};

}  // namespace vxcamtest

#endif  // VXCAM_TEST_LOGGER_H
