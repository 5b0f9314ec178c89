// The debug log frame: the message frame, the call-site gate, filtering and loading of the masks.
#define VXCAM_LOG_SOURCE "hardware/camera/test/DebugFrameProbe"
#include "VxCamDebug.h"

#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "TestSupport.h"
#include "VxCamCommonUtils.h"
#include "VxCamOfflineLogger.h"
#include "VxCamStaticSetting.h"

namespace {

using vxcamtest::LogCapture;

// Every test starts from the loaded defaults and leaves the globals as it found them.
class DebugFrame : public ::testing::Test {
  protected:
    void SetUp() override { VxCam::g_logInfoUpdated = 1; }
    void TearDown() override {
        std::tie(VxCam::g_logInfo, VxCam::g_logInfoUpdated, VxCam::g_traceInfo) = m_saved;
    }

  private:
    std::tuple<VxCam::DebugLogInfo, uint32_t, uint64_t> m_saved{
            VxCam::g_logInfo, VxCam::g_logInfoUpdated, VxCam::g_traceInfo};
};

TEST_F(DebugFrame, MessageFrameNamesLevelGroupSourceLineAndFunction) {
    LogCapture capture;
    // clang-format off
    const int errorLine = __LINE__; VXCAM_LOGE(UTILS, "Invalid format %d", 40);
    const int infoLine = __LINE__; VXCAM_LOGI(CORE, "plain text");
    // clang-format on
    VxCam::g_logInfo.verboseMask = VXCAM_GROUP_BIT_CORE;
    // clang-format off
    const int verboseLine = __LINE__; VXCAM_LOGV(CORE, "%s=%u", "depth", 3u);
    // clang-format on
    std::string written;  // priority, tag, message
    for (const vxcamtest::LogLine& line : capture.Lines()) {
        written += std::to_string(line.priority) + line.tag + " " + line.message + "\n";
    }
    const auto at = [](int line) {
        return " DebugFrameProbe:" + std::to_string(line) + " TestBody() ";
    };
    EXPECT_EQ(written, "6VxCam [ERROR   ][UTILS  ]" + at(errorLine) + "Invalid format 40\n" +
                               "4VxCam [INFO    ][CORE   ]" + at(infoLine) + "plain text\n" +
                               "2VxCam [VERBOSE ][CORE   ]" + at(verboseLine) + "depth=3\n");
}

// Levels 0 to 5, then any other.
TEST_F(DebugFrame, AndroidPriorityOfEachLevel) {
    LogCapture capture;
    for (unsigned level = 0; level < 9; ++level) VxCam::OsUtils::LogSystem(level, "x");
    std::string priorities;
    for (const vxcamtest::LogLine& line : capture.Lines())
        priorities += std::to_string(line.priority);
    EXPECT_EQ(priorities, "365642666");
}

TEST_F(DebugFrame, MasksDecideByLevelAndGroupOnceTheSystemLogIsOn) {
    struct Case {
        uint32_t infoMask, errorMask, systemLogEnable;
        unsigned group, level;
        bool written;
    };
    const Case cases[] = {
            {0x23, 0xFFFFFFFF, 1, 1, 4, true},     // core info with the default mask
            {0x23, 0xFFFFFFFF, 1, 4, 4, false},    // utils info is not in 0x23
            {0x00, 0xFFFFFFFF, 1, 0x80, 1, true},  // errors pass in every group
            {0x00, 0x00000000, 1, 1, 1, false},    // only because a host cleared the error mask
            {0xFF, 0xFFFFFFFF, 1, 1, 7, false},    // no mask above verbose
            {0xFF, 0xFFFFFFFF, 0, 1, 1, false},    // the system log switch silences everything
    };
    for (const Case& c : cases) {
        VxCam::g_logInfo.infoMask = c.infoMask;
        VxCam::g_logInfo.errorMask = c.errorMask;
        VxCam::g_logInfo.systemLogEnable = c.systemLogEnable;
        LogCapture capture;
        VxCam::Log::LogSystem(c.group, "I", c.level, "probe");
        EXPECT_EQ(capture.Lines().size(), c.written ? 1u : 0u)
                << "mask " << c.infoMask << " switch " << c.systemLogEnable << " group " << c.group
                << " level " << c.level;
    }
}

TEST_F(DebugFrame, GateSkipsArgumentsUnlessTheMasksAreNotYetKnown) {
    LogCapture capture;
    int evaluations = 0;
    const auto counted = [&evaluations] { return ++evaluations; };
    VxCam::g_logInfo.infoMask = 0;
    VXCAM_LOGI(CORE, "%d", counted());
    EXPECT_EQ(evaluations, 0);
    // Until the host says the masks are loaded, every call reaches LogSystem, which still filters.
    VxCam::g_logInfoUpdated = 0;
    VXCAM_LOGI(CORE, "%d", counted());
    EXPECT_EQ(evaluations, 1);
    EXPECT_TRUE(capture.Lines().empty());
}

// What printf makes of a message, cut as the frame cuts it.
__attribute__((format(printf, 1, 2))) std::string Printed(const char* format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return text;
}

// Messages are cut at 1023 characters, and the frame that the macros put in front of a format
// prints as printf would print it, near misses of the frame included.
TEST_F(DebugFrame, MessagesPrintAsPrintfWouldAndAreCutAt1023Characters) {
    const std::string x(2000, 'x');
    const char* const null = getenv("VXCAM_NO_SUCH_VARIABLE");  // a null the compiler cannot see
    const std::string longName(1000, 'f');
#define VXCAM_PRINTED(...)                                                           \
    {                                                                                \
        [&] { VxCam::Log::LogSystem(1, "E", 1, __VA_ARGS__); }, Printed(__VA_ARGS__) \
    }
    const std::vector<std::pair<std::function<void()>, std::string>> cases = {
            VXCAM_PRINTED("%s", x.c_str()),
            VXCAM_PRINTED("[INFO    ]%s %s:812 %s() request %u of %s", "[CORE   ]", "Node.cpp",
                          "Process", 4711u, "YUV"),
            VXCAM_PRINTED("[ERROR   ]%s %s:7 %s() %s", "[UTILS  ]", null, null, x.c_str()),
            VXCAM_PRINTED("[INFO    ]%s %s:812 %s() %d", "[CORE   ]", "Node.cpp", longName.c_str(),
                          42),
            VXCAM_PRINTED("[INFO    ]%s %s:%d %s() tail", "[CORE   ]", "Node.cpp", 812, "Process"),
    };
#undef VXCAM_PRINTED
    LogCapture capture;
    for (const auto& c : cases) c.first();
    const std::vector<std::string> messages = capture.Messages();
    ASSERT_EQ(messages.size(), cases.size());
    for (size_t i = 0; i < cases.size(); ++i) EXPECT_EQ(messages[i], cases[i].second) << i;
    EXPECT_EQ(messages[0], x.substr(0, 1023));
}

// Loading closes a log file a host left open, reloads the masks and enables from the settings,
// and keeps the error and level-3 masks and the upper half of the trace mask.
TEST_F(DebugFrame, FirstMessageLoadsTheMasksWhenNotYetLoaded) {
    LogCapture capture;
    FILE* file = tmpfile();
    const int fd = fileno(file);
    VxCam::g_logInfo = {0, 0x5, 0, 0x7, 0, 0, file, 0, 0, 0};
    VxCam::g_traceInfo = 0xABCD000000001234ull;
    VxCam::Log::LogSystem(1, "I", 4, "after load");
    const VxCam::DebugLogInfo& info = VxCam::g_logInfo;
    EXPECT_EQ(std::make_tuple(info.debugMask, info.errorMask, info.warningMask, info.level3Mask,
                              info.infoMask, info.verboseMask, info.pLogFile, info.systemLogEnable,
                              info.offlineLogEnable, info.isUpdated),
              std::make_tuple(0u, 0x5u, 0xFFFFu, 0x7u, 0x23u, 0u, nullptr, 1u, 0u, 1u));
    EXPECT_EQ(VxCam::g_traceInfo, 0xABCD000000000000ull);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);  // closed
    const std::vector<std::string> messages = capture.Messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_TRUE(std::regex_match(
            messages[0], std::regex(R"(VxCamDebug:\d+ UpdateLogInfo\(\) system log enable 1, .*)")));
    EXPECT_EQ(messages[1], "after load");
}

// The offline copy of a line: the local time of the zone in force when it is logged (a zone
// changed while the camera runs applies at once), pid and tid. In a child, whose default logger
// starts on a fresh sysroot; settings reloaded there switch offline logging on.
TEST_F(DebugFrame, OfflineCopiesCarryTimeAndIdsAndFollowATimeZoneChange) {
    const std::string savedRoot = getenv("VXCAM_SYSROOT") != nullptr ? getenv("VXCAM_SYSROOT") : "";
    vxcamtest::TempDir root;
    root.Write("vendor/etc/camera/vxcamoverridesettings.txt",
               "LogOfflineEnable=1\nLogInfoMask=7\n");
    const auto day = [](time_t now) {
        char text[8];
        strftime(text, sizeof(text), "%m-%d", gmtime(&now));
        return std::string(text);
    };
    const std::string before = day(time(nullptr));
    const vxcamtest::ChildEnd child = vxcamtest::RunInChild(root, [] {
        LogCapture quiet;
        VxCam::VxCamStaticSetting::GetInstance()->LoadOverrideSettings();
        VxCam::g_logInfo.isUpdated = 0;
        for (const char* zone : {"UTC0", "VXT-5"}) {
            setenv("TZ", zone, 1);
            // A new thread formats its time afresh, not within the second of the one before.
            std::thread([zone] {
                VXCAM_LOGE(CORE, "zone %s %d %d", zone, getpid(), gettid());
            }).join();
        }
        auto* logger = VxCam::VxCamOfflineLogger::GetInstance(VxCam::OfflineLog);
        logger->FlushLogToFile(1, 0);
        if (logger->GetLogInfoMask().infoMask != 7) _exit(1);  // the logger was not told the masks
    });
    const std::string after = day(time(nullptr));
    setenv("VXCAM_SYSROOT", savedRoot.c_str(), 1);
    EXPECT_EQ(child.exitCode, vxcamtest::kChildReturned);
    std::map<std::string, int> hours;
    const std::regex offlineLine(
            R"(^(\d\d-\d\d) (\d\d):\d\d:\d\d:\d{9}(.*) E VxCam: \[ERROR.* zone (\S+) (\d+) (\d+)$)");
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root.Path())) {
        std::istringstream text(vxcamtest::ReadFile(entry.path().string()));
        std::smatch match;
        for (std::string line; std::getline(text, line);) {
            if (!std::regex_match(line, match, offlineLine)) continue;
            hours[match[4]] = std::stoi(match[2]);
            char ids[32];
            snprintf(ids, sizeof(ids), "  %4d  %4d", std::stoi(match[5]), std::stoi(match[6]));
            EXPECT_EQ(match[3], ids);
            EXPECT_TRUE(match[4] != "UTC0" || match[1] == before || match[1] == after) << line;
        }
    }
    ASSERT_EQ(hours.size(), 2u);
    EXPECT_EQ(hours["VXT-5"], (hours["UTC0"] + 5) % 24);
}

}  // namespace
