// What the offline logger's suites share: a logger with a configuration of the test's choosing, a
// fixed session time, a free space to taste and its bookkeeping in reach; numbered lines.
#ifndef VXCAM_TEST_LOGGER_H
#define VXCAM_TEST_LOGGER_H

#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "VxCamOfflineLogger.h"

namespace vxcamtest {

// The session time of every TestLogger: its session folder is "VxCam_OfflineLog_" + kT1.
constexpr const char kT1[] = "2026-11-21--10-00-00-000001";

struct ConfigHolder {  // built before the logger, which reads its configuration at once
    VxCam::OfflineLoggerConfigInfo m_config;
};

class TestLogger : private ConfigHolder, public VxCam::VxCamOfflineLogger {
  public:
    using Base = VxCam::VxCamOfflineLogger;
    TestLogger(VxCam::OfflineLoggerType type, VxCam::OfflineLoggerConfigInfo config)
        : ConfigHolder{config}, Base(type, &m_config) {}

    using Base::AllocateLogQueueMemPool;
    using Base::m_fileNameList;
    using Base::m_finishedThreadList;
    using Base::m_flushRequestCount;
    using Base::m_flushRequestIds;
    using Base::m_freeBucketIds;
    using Base::m_freeRegisterIds;
    using Base::m_memPool;
    using Base::m_perLogInfoPool;
    using Base::m_recycleList;
    using Base::m_sessionCount;
    using Base::m_totalFlushSizeMB;

    double GetAvailableSpace(const char* path) override {
        return m_freeMB < 0 ? Base::GetAvailableSpace(path) : m_freeMB;
    }
    std::string GetCurrentTime() override { return kT1; }
    uint32_t Session() const { return m_sessionCount.load(); }

    double m_freeMB = 100000.0;  // below 0: the file system's own answer
};

// The bookkeeping of any logger, the process's own instances included.
struct Inside : VxCam::VxCamOfflineLogger {
    using Logger = VxCam::VxCamOfflineLogger;
    static uint32_t Session(Logger& logger) { return (logger.*&Inside::m_sessionCount).load(); }
    static uint32_t MultiPathMode(Logger& logger) { return logger.*&Inside::m_multiPathMode; }
    static float& TotalFlushMB(Logger& logger) { return logger.*&Inside::m_totalFlushSizeMB; }
};

// "t<thread> s<seq> " filled with dots to `width` bytes, the last a line end.
inline std::string Numbered(int thread, int seq, size_t width = 64) {
    std::string line = "t" + std::to_string(thread) + " s" + std::to_string(seq) + " ";
    line.resize(width - 1, '.');
    return line + "\n";
}

inline void LogNumbered(VxCam::VxCamOfflineLogger& logger, int thread, int first, int count,
                        size_t width = 64) {
    for (int seq = first; seq < first + count; ++seq) {
        const std::string line = Numbered(thread, seq, width);
        logger.AddLog(line.data(), static_cast<unsigned>(line.size()));
    }
}

// The sequence numbers of thread `thread` in `text`, in order; -1 for any other line.
inline std::vector<int> Seqs(const std::string& text, int thread, size_t width = 64) {
    std::vector<int> seqs;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        int t = -1, seq = -1;
        const bool whole = sscanf(line.c_str(), "t%d s%d", &t, &seq) == 2 && t == thread &&
                           Numbered(t, seq, width) == line + "\n";
        seqs.push_back(whole ? seq : -1);
    }
    return seqs;
}

inline std::vector<int> Range(int first, int count) {
    std::vector<int> seqs(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) seqs[static_cast<size_t>(i)] = first + i;
    return seqs;
}

// Every file below `folder` whose path holds `part`, by path.
inline std::map<std::string, std::string> FilesUnder(const std::string& folder,
                                                     const std::string& part = "") {
    std::map<std::string, std::string> files;
    if (!std::filesystem::exists(folder)) return files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        const std::string path = entry.path().string();
        if (entry.is_regular_file() && path.find(part) != std::string::npos)
            files[path] = ReadFile(path);
    }
    return files;
}

inline std::string TextUnder(const std::string& folder, const std::string& part = "") {
    std::string text;
    for (const auto& file : FilesUnder(folder, part)) text += file.second;
    return text;
}

inline std::string ThreadText(const std::string& folder, pid_t tid) {
    return TextUnder(folder, "__Tid" + std::to_string(tid) + "_");
}

// The messages of `log` that match `pattern` whole.
inline size_t Count(const LogCapture& log, const std::string& pattern) {
    const std::regex whole(pattern);
    const auto messages = log.Messages();
    return static_cast<size_t>(std::count_if(messages.begin(), messages.end(),
                                             [&](auto& m) { return std::regex_match(m, whole); }));
}

// Runs `body` in a forked child on `root` (see RunInChild), which exits with 0 when none of the
// expectations it made failed; they print as they fail.
inline ChildEnd CheckInChild(const TempDir& root, const std::function<void()>& body) {
    return RunInChild(root, [&] {
        const auto& result = *::testing::UnitTest::GetInstance()->current_test_info()->result();
        int part = result.total_part_count();
        body();
        bool failed = false;
        for (; part < result.total_part_count(); ++part)
            failed = failed || result.GetTestPartResult(part).failed();
        fflush(stdout);
        _exit(failed ? 1 : 0);
    });
}

// Runs `body` on a new thread and returns that thread's kernel id.
inline pid_t OnNewThread(const std::function<void()>& body) {
    pid_t tid = 0;
    std::thread([&] {
        tid = gettid();
        body();
    }).join();
    return tid;
}

// A thread that runs the steps it is given and stays alive between them, so what it registers with
// a logger stays its own until it ends, on destruction: declare it after the logger.
class LiveThread {
  public:
    ~LiveThread() {
        Run(nullptr);
        m_thread.join();
    }
    // Runs `step` on the thread and waits for it; a null step ends the thread.
    void Run(std::function<void()> step) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_step = step ? std::move(step) : [this] { m_stop = true; };
        m_wake.notify_all();
        m_wake.wait(lock, [this] { return !m_step; });
    }

  private:
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::function<void()> m_step;
    bool m_stop = false;
    std::thread m_thread{[this] {  // last: starts once the rest is built
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_stop) {
            m_wake.wait(lock, [this] { return static_cast<bool>(m_step); });
            m_step();
            m_step = nullptr;
            m_wake.notify_all();
        }
    }};
};

}  // namespace vxcamtest

#endif  // VXCAM_TEST_LOGGER_H
