// The debug log frame: the message frame, the call-site gate, filtering and loading of the masks.
#define VXCAM_LOG_SOURCE "hardware/camera/test/DebugFrameProbe"
#include "VxCamDebug.h"

#include <errno.h>
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

namespace {

using vxcamtest::LogCapture;

// Every test starts from the loaded defaults and leaves the globals as it found them.
class DebugFrame : public ::testing::Test {
  protected:
    void SetUp() override {
        m_saved = VxCam::g_logInfo;
        m_savedUpdated = VxCam::g_logInfoUpdated;
        m_savedTrace = VxCam::g_traceInfo;
        VxCam::g_logInfoUpdated = 1;
    }
    void TearDown() override {
        VxCam::g_logInfo = m_saved;
        VxCam::g_logInfoUpdated = m_savedUpdated;
        VxCam::g_traceInfo = m_savedTrace;
    }

  private:
    VxCam::DebugLogInfo m_saved{};
    uint32_t m_savedUpdated = 0;
    uint64_t m_savedTrace = 0;
};

// The error mask is never loaded from the settings: it keeps its all-groups start value.
TEST_F(DebugFrame, LoadedDefaults) {
    const VxCam::DebugLogInfo& info = VxCam::g_logInfo;
    EXPECT_EQ(std::make_tuple(info.debugMask, info.errorMask, info.warningMask, info.level3Mask,
                              info.infoMask, info.verboseMask, info.systemLogEnable,
                              info.offlineLogEnable, info.isUpdated),
              std::make_tuple(0u, 0xFFFFFFFFu, 0xFFFFu, 0u, 0x23u, 0u, 1u, 0u, 1u));
    EXPECT_EQ(info.pLogFile, nullptr);
    EXPECT_EQ(VxCam::g_traceInfo, 0u);
    EXPECT_EQ(VxCam::g_logInfoStored, 0u);
}

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
    const std::vector<vxcamtest::LogLine> lines = capture.Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].message, "[ERROR   ][UTILS  ] DebugFrameProbe:" + std::to_string(errorLine) +
                                        " TestBody() Invalid format 40");
    EXPECT_EQ(lines[0].priority, ANDROID_LOG_ERROR);
    EXPECT_EQ(lines[0].tag, "VxCam");
    EXPECT_EQ(lines[1].message, "[INFO    ][CORE   ] DebugFrameProbe:" + std::to_string(infoLine) +
                                        " TestBody() plain text");
    EXPECT_EQ(lines[1].priority, ANDROID_LOG_INFO);
    EXPECT_EQ(lines[2].message, "[VERBOSE ][CORE   ] DebugFrameProbe:" +
                                        std::to_string(verboseLine) + " TestBody() depth=3");
    EXPECT_EQ(lines[2].priority, ANDROID_LOG_VERBOSE);
}

TEST_F(DebugFrame, AndroidPriorityOfEachLevel) {
    LogCapture capture;
    const int expected[] = {3, 6, 5, 6, 4, 2, 6, 6, 6};
    for (unsigned level = 0; level < sizeof(expected) / sizeof(expected[0]); ++level) {
        VxCam::OsUtils::LogSystem(level, "x");
    }
    const std::vector<vxcamtest::LogLine> lines = capture.Lines();
    ASSERT_EQ(lines.size(), sizeof(expected) / sizeof(expected[0]));
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].priority, expected[i]) << "level " << i;
        EXPECT_EQ(lines[i].tag, "VxCam");
    }
}

TEST_F(DebugFrame, MasksDecideByLevelAndGroupOnceTheSystemLogIsOn) {
    struct Case {
        uint32_t infoMask, errorMask, systemLogEnable;
        unsigned group, level;
        bool written;
    };
    const Case cases[] = {
            {0x23, 0xFFFFFFFF, 1, 1, 4, true},   // core info with the default mask
            {0x23, 0xFFFFFFFF, 1, 4, 4, false},  // utils info is not in 0x23
            {0x04, 0xFFFFFFFF, 1, 4, 4, true},
            {0x00, 0xFFFFFFFF, 1, 1, 1, true},  // errors pass in every group
            {0x00, 0xFFFFFFFF, 1, 0x80, 1, true},
            {0x00, 0x00000000, 1, 1, 1, false},  // only because a host cleared the error mask
            {0xFF, 0xFFFFFFFF, 1, 1, 7, false},  // no mask above verbose
            {0xFF, 0xFFFFFFFF, 0, 1, 1, false},  // the system log switch silences everything
            {0xFF, 0xFFFFFFFF, 2, 1, 1, false},  // only exactly 1 enables
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

int s_argumentEvaluations = 0;
int CountedArgument() {
    return ++s_argumentEvaluations;
}

TEST_F(DebugFrame, GateSkipsArgumentsUnlessTheMasksAreNotYetKnown) {
    LogCapture capture;
    VxCam::g_logInfo.infoMask = 0;
    s_argumentEvaluations = 0;
    VXCAM_LOGI(CORE, "%d", CountedArgument());
    EXPECT_EQ(s_argumentEvaluations, 0);

    // While the host has not said the masks are loaded, every call reaches LogSystem, which
    // still filters.
    VxCam::g_logInfoUpdated = 0;
    VXCAM_LOGI(CORE, "%d", CountedArgument());
    EXPECT_EQ(s_argumentEvaluations, 1);
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
            VXCAM_PRINTED("%s", x.substr(0, 1023).c_str()),
            VXCAM_PRINTED("%s", x.substr(0, 1022).c_str()),
            VXCAM_PRINTED("[INFO    ]%s %s:812 %s() request %u of %s", "[CORE   ]", "Node.cpp",
                          "Process", 4711u, "YUV"),
            VXCAM_PRINTED("[ERROR   ]%s %s:7 %s() %s", "[UTILS  ]", null, null, x.c_str()),
            VXCAM_PRINTED("[INFO    ]%s %s:812 %s() %d", "[CORE   ]", "Node.cpp", longName.c_str(),
                          42),
            VXCAM_PRINTED("[INFO    ]%s %s:%d %s() tail", "[CORE   ]", "Node.cpp", 812, "Process"),
            VXCAM_PRINTED("[INFO    ]%s %s:812 %s %s", "[CORE   ]", "Node.cpp", "Process", "()"),
            VXCAM_PRINTED("[%s]", "not a frame"),
            VXCAM_PRINTED("["),
    };
#undef VXCAM_PRINTED
    LogCapture capture;
    for (const auto& c : cases) c.first();
    const std::vector<std::string> messages = capture.Messages();
    ASSERT_EQ(messages.size(), cases.size());
    for (size_t i = 0; i < cases.size(); ++i)
        EXPECT_EQ(messages[i], cases[i].second) << "case " << i;
    EXPECT_EQ(messages[0], x.substr(0, 1023));
}

// Loading closes a log file a host left open, reloads the masks and enables from the settings,
// and keeps the error and level-3 masks and the upper half of the trace mask.
TEST_F(DebugFrame, FirstMessageLoadsTheMasksWhenNotYetLoaded) {
    LogCapture capture;
    FILE* file = tmpfile();
    ASSERT_NE(file, nullptr);
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
    errno = 0;
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);  // closed
    EXPECT_EQ(errno, EBADF);
    const std::vector<vxcamtest::LogLine> lines = capture.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].priority, ANDROID_LOG_INFO);
    EXPECT_EQ(lines[0].message.rfind("VxCamDebug:", 0), 0u);
    EXPECT_NE(lines[0].message.find(" UpdateLogInfo() system log enable 1"), std::string::npos);
    EXPECT_EQ(lines[1].message, "after load");
}

// The offline copy of a line carries the local time of the zone in force when it is logged: a zone
// changed while the camera runs applies at once. In a child, whose default logger starts on a
// fresh sysroot.
TEST_F(DebugFrame, OfflineCopiesFollowATimeZoneChange) {
    const std::string savedRoot = getenv("VXCAM_SYSROOT") != nullptr ? getenv("VXCAM_SYSROOT") : "";
    vxcamtest::TempDir root;
    const vxcamtest::ChildEnd child = vxcamtest::RunInChild(root, [] {
        LogCapture quiet;
        VxCam::g_logInfo.offlineLogEnable = 1;
        for (const char* zone : {"UTC0", "VXT-5"}) {
            setenv("TZ", zone, 1);
            // A new thread formats its time afresh, not within the second of the one before.
            std::thread([zone] { VXCAM_LOGE(CORE, "zone %s", zone); }).join();
        }
        VxCam::VxCamOfflineLogger::GetInstance(VxCam::OfflineLog)->FlushLogToFile(1, 0);
    });
    setenv("VXCAM_SYSROOT", savedRoot.c_str(), 1);
    EXPECT_EQ(child.exitCode, vxcamtest::kChildReturned);
    std::map<std::string, int> hours;
    const std::regex offlineLine("^\\d\\d-\\d\\d (\\d\\d):\\d\\d:\\d\\d:\\d{9} .* zone (\\S+)$");
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root.Path())) {
        std::istringstream text(vxcamtest::ReadFile(entry.path().string()));
        std::smatch match;
        for (std::string line; std::getline(text, line);) {
            if (std::regex_match(line, match, offlineLine)) hours[match[2]] = std::stoi(match[1]);
        }
    }
    ASSERT_EQ(hours.size(), 2u);
    EXPECT_EQ(hours["VXT-5"], (hours["UTC0"] + 5) % 24);
}

}  // namespace
