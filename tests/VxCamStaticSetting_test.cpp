// The settings registry: lookups in this process, and the load-time layers (override file, system
// properties, feature overlay) in child processes started on prepared sysroots.
#include "VxCamStaticSetting.h"

#include <gtest/gtest.h>
#include <stdint.h>

#include <map>
#include <regex>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace {

using vxcamtest::ProcessResult;
using vxcamtest::TempDir;

// ---- Lookups in this process (its sysroot is empty: built-in defaults) ----------------------

TEST(SettingLookup, EachKindAnswersOnlyItsOwnGetter) {
    const VxCam::VxCamStaticSetting* settings = VxCam::VxCamStaticSetting::GetInstance();
    ASSERT_NE(settings, nullptr);
    EXPECT_EQ(settings, VxCam::VxCamStaticSetting::GetInstance());

    EXPECT_EQ(settings->GetPorpertyIntegerValue("LogInfoMask"), 0x23u);
    EXPECT_EQ(settings->GetPorpertyIntegerValue("LivePendingRequestTimeOut"), 10000u);
    EXPECT_FLOAT_EQ(settings->GetPorpertyFloatValue("TeleZoomStart"), 2.0f);
    EXPECT_EQ(settings->GetPorpertyFloatValue("UltraWideZoomStart"), 0.6f);  // the nearest single
    EXPECT_EQ(settings->GetPorpertyInteger64Value("DumpNodeOutputMask"), 0u);
    EXPECT_EQ(settings->GetPorpertyStringValue("OverridePipeline"), "");

    // A wrong kind is not an error: it is that kind's zero.
    EXPECT_EQ(settings->GetPorpertyIntegerValue("TeleZoomStart"), 0u);
    EXPECT_EQ(settings->GetPorpertyInteger64Value("LogEnable"), 0u);
    EXPECT_EQ(settings->GetPorpertyFloatValue("LogEnable"), 0.0f);
    EXPECT_EQ(settings->GetPorpertyStringValue("LogEnable"), "");
    EXPECT_EQ(settings->GetPorpertyCustomValue("LogEnable"), nullptr);
    // The custom row lives only in the custom map.
    EXPECT_EQ(settings->GetPorpertyStringValue("CameraPosition"), "");

    // Names are exact keys, misspellings included.
    EXPECT_EQ(settings->GetPorpertyIntegerValue("LogWranningMask"), 0xFFFFu);
    EXPECT_EQ(settings->GetPorpertyIntegerValue("LogWarningMask"), 0u);
    EXPECT_EQ(settings->GetPorpertyIntegerValue("EnableReuqestLIFO"), 1u);
    EXPECT_EQ(settings->GetPorpertyIntegerValue("loginfomask"), 0u);
    EXPECT_EQ(settings->GetPorpertyIntegerValue(static_cast<char*>(nullptr)), 0u);
    EXPECT_EQ(settings->GetPorpertyCustomValue(static_cast<char*>(nullptr)), nullptr);
}

TEST(SettingLookup, CameraPositionHoldsEightSignedNumbers) {
    const auto* positions = static_cast<const int32_t*>(
            VxCam::VxCamStaticSetting::GetInstance()->GetPorpertyCustomValue("CameraPosition"));
    ASSERT_NE(positions, nullptr);
    const std::vector<int32_t> expected = {0, 1, 2, 3, -1, 4, 4, 4};
    EXPECT_EQ(std::vector<int32_t>(positions, positions + 8), expected);
}

// ---- Load-time layers, in child processes ---------------------------------------------------

struct Loaded {
    ProcessResult process;
    std::map<std::string, std::string> values;  // name -> value as vxcamctl prints it
};

Loaded LoadOn(const TempDir& sysroot) {
    Loaded loaded;
    loaded.process = vxcamtest::RunProcess(
            {vxcamtest::Vxcamctl(), "-v", "settings", "--sysroot", sysroot.Path()},
            {{"ANDROID_LOG_TAGS", "\x01"}});
    // NAME KIND FROM VALUE, then the default where the value differs from it.
    const std::regex row(R"(^(\S+)\s+(\S+)\s+\S+\s+(.*?)(  \(default .*\))?$)");
    std::istringstream lines(loaded.process.out);
    std::string line;
    while (std::getline(lines, line)) {
        std::smatch match;
        if (line.empty() || line[0] == '#' || line.rfind("NAME ", 0) == 0 ||
            !std::regex_match(line, match, row)) {
            continue;
        }
        loaded.values[match[1]] = match[3];
    }
    return loaded;
}

std::string OverrideFile(const TempDir& sysroot) {
    return sysroot / "vendor/etc/camera/vxcamoverridesettings.txt";
}

bool HasLine(const std::string& log, const std::string& pattern) {
    return std::regex_search(log, std::regex(pattern, std::regex::multiline));
}

TEST(SettingLoad, DefaultsOnAnEmptySysroot) {
    TempDir sysroot;
    const Loaded loaded = LoadOn(sysroot);
    ASSERT_EQ(loaded.process.exitCode, 0) << loaded.process.err;

    const std::vector<std::pair<std::string, std::string>> expected = {
            {"LogEnable", "1"},
            {"LogOfflineEnable", "0"},
            {"LogInfoMask", "0x23"},
            {"LogDebugMask", "0x0"},
            {"LogWranningMask", "0xffff"},
            {"LogVerboseMask", "0x0"},
            {"LogErrorMask", "0xffff"},
            {"TraceLogMask", "0x0"},
            {"MaxRequestQueueDepth", "3"},
            {"MaxMemPoolTotalBufferNumber", "60"},
            {"DumpNodeOutputMask", "0x0"},
            {"DumpNodeInputMask", "0x0"},
            {"NumberOfThread", "6"},
            {"DumpInputInfo", "0"},
            {"DumpJsonFileData", "0"},
            {"OverridePruneNodeMask", "0x0"},
            {"DisableNodeMask", "0x0"},
            {"ByPassNodeMask", "0x0"},
            {"EnableNodeMask", "0x0"},
            {"EnableInitFailedAssert", "0"},
            {"OverridePipeline", "\"\""},
            {"LivePendingRequestTimeOut", "10000"},
            {"ForceNodeSpecialDump", "0"},
            {"DumpMemoryBufferInfo", "0"},
            {"BufferReleaseWaterLevel", "1500"},
            {"EnableReuqestLIFO", "1"},
            {"EnableDrawFaceRect", "0x0"},
            {"NumberOfPhyCameraId", "4"},
            {"CameraPosition", "0,1,2,3,-1,4,4,4"},
            {"UltraWideZoomStart", "0.600000"},
            {"TeleZoomStart", "2.000000"},
            {"SelectNightSceneType", "0"},
            {"DelayedTriggerOfAbort", "0"},
            {"MaxRequestQueueDepthForBokeh", "3"},
            {"CutAtFrontOfPipelineMask", "0x0"},
            {"EnableAlgoMark", "0"},
            {"ColorGamut", "1"},
            {"EnableDumpMetadata", "0"},
            {"EnablePreInit", "1"},
            {"DeInitNodeWaitTimeMs", "30000"},
            {"ReleaseAllBufferWaitTimeMs", "15000"},
            {"EnableCopyOnNodeFailedMask", "0x0"},
            {"ReservedMemory", "0"},
    };
    ASSERT_EQ(expected.size(), 43u);
    EXPECT_EQ(loaded.values.size(), 43u);
    for (const auto& [name, value] : expected) EXPECT_EQ(loaded.values.at(name), value) << name;

    // One "[Global Settings]" line per setting, in catalogue order, at info priority.
    const std::string& log = loaded.process.err;
    std::vector<std::string> logged;
    const std::regex global(R"( I VxCam   : VxCamStaticSetting:\d+ \[Global Settings\] (\S+) = )");
    for (auto it = std::sregex_iterator(log.begin(), log.end(), global);
         it != std::sregex_iterator(); ++it) {
        logged.push_back((*it)[1]);
    }
    ASSERT_EQ(logged.size(), 43u);
    for (size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(logged[i], expected[i].first);
    EXPECT_TRUE(HasLine(log, R"(\[Global Settings\] LogInfoMask = 0x23$)"));
    EXPECT_TRUE(HasLine(log, R"(\[Global Settings\] DumpNodeOutputMask = 0x0$)"));
    EXPECT_TRUE(HasLine(log, R"(\[Global Settings\] UltraWideZoomStart = 0\.600000$)"));
    EXPECT_TRUE(HasLine(log, R"(\[Global Settings\] LivePendingRequestTimeOut = 10000$)"));
    EXPECT_TRUE(HasLine(log, R"(\[Global Settings\] OverridePipeline = $)"));
    EXPECT_TRUE(HasLine(
            log, " E VxCam   : LoadOverrideSettings\\(\\):\\d+ No override settings text file " +
                         OverrideFile(sysroot) + " found$"));
    EXPECT_TRUE(HasLine(
            log,
            R"( I VxCam   : VxCamDebug:\d+ UpdateLogInfo\(\) system log enable 1, offline log enable 0 debug log mask 0x0, wraning log mask 0xffff, info log mask 0x23, verb log mask 0x0$)"));
}

TEST(SettingLoad, OverrideFileLinesAsTheLoaderReadsThem) {
    TempDir sysroot;
    const std::string longSkipped = "MaxRequestQueueDepthForBokeh=" + std::string(100, ' ') + "9";
    const std::string longApplied = std::string(140, ' ') + "EnableAlgoMark=1";
    sysroot.Write("vendor/etc/camera/vxcamoverridesettings.txt",
                  "  Log Offline Enable =  1  \n"
                  "EnablePreInit=11\n"
                  ";ColorGamut=0\n"
                  "LogInfoMask=ff\n"
                  "LogVerboseMask=0x3f\n"
                  "NumberOfThread==5\n"
                  "=MaxRequestQueueDepth=7\n"
                  "BufferReleaseWaterLevel=9=6\n"
                  "CameraPosition=5,4,3\n"
                  "DeInitNodeWaitTimeMs=\n"
                  "ReleaseAllBufferWaitTimeMs\n"
                  "UnknownKey=5\n"
                  "logenable=0\n"
                  "DumpNodeInputMask=0x123456789abc\n"
                  "DumpInputInfo=1\n"
                  "NumberOfPhyCameraId=abc\n"
                  "LivePendingRequestTimeOut=99999999999\n"
                  "OverridePipeline=Bokeh Pipeline\n"
                  "UltraWideZoomStart=0.5x\n"
                  "\r\n" + longSkipped +
                          "\n" + longApplied + "\n" +
                          "TraceLogMask=0x4");  // no line end at the end of the file
    const Loaded loaded = LoadOn(sysroot);
    ASSERT_EQ(loaded.process.exitCode, 0) << loaded.process.err;

    const std::vector<std::pair<std::string, std::string>> expected = {
            {"LogOfflineEnable", "1"},         // white space anywhere is removed
            {"EnablePreInit", "0"},            // a switch is on only for exactly 1
            {"ColorGamut", "1"},               // ';' comments the line out
            {"LogInfoMask", "0xff"},           // radix 16 without a prefix
            {"LogVerboseMask", "0x3f"},        // and with one
            {"NumberOfThread", "5"},           // runs of '=' are one separator
            {"MaxRequestQueueDepth", "7"},     // a leading '=' is skipped
            {"BufferReleaseWaterLevel", "9"},  // text after a second '=' is ignored
            {"CameraPosition", "5,4,3,0,0,0,0,0"},
            {"DeInitNodeWaitTimeMs", "30000"},  // no value: skipped
            {"ReleaseAllBufferWaitTimeMs", "15000"},
            {"LogEnable", "1"},  // keys are case-sensitive
            {"DumpNodeInputMask", "0x123456789abc"},
            {"DumpInputInfo", "1"},
            {"NumberOfPhyCameraId", "0"},                 // not a number: 0
            {"LivePendingRequestTimeOut", "1215752191"},  // the low 32 bits
            {"OverridePipeline", "\"BokehPipeline\""},
            {"UltraWideZoomStart", "0.500000"},     // the leading number
            {"MaxRequestQueueDepthForBokeh", "3"},  // cut into two pieces, neither has key and value
            {"EnableAlgoMark", "1"},                // the second 127-character piece is a line
            {"TraceLogMask", "0x4"},
    };
    for (const auto& [name, value] : expected) EXPECT_EQ(loaded.values.at(name), value) << name;
    EXPECT_TRUE(HasLine(
            loaded.process.err,
            " I VxCam   : LoadOverrideSettings\\(\\):\\d+ Opening override settings text file: " +
                    OverrideFile(sysroot) + "$"));
    EXPECT_TRUE(HasLine(loaded.process.err,
                        R"(\[Global Settings\] OverridePipeline = BokehPipeline$)"));
    EXPECT_TRUE(HasLine(loaded.process.err,
                        R"(\[Global Settings\] DumpNodeInputMask = 0x123456789abc$)"));
    EXPECT_TRUE(HasLine(
            loaded.process.err,
            R"(UpdateLogInfo\(\) system log enable 1, offline log enable 1 debug log mask 0x0, wraning log mask 0xffff, info log mask 0xff, verb log mask 0x3f$)"));
}

TEST(SettingLoad, PropertiesWinOverTheFileAndCompareAgainstTheDefaultText) {
    TempDir sysroot;
    sysroot.Write("vendor/etc/camera/vxcamoverridesettings.txt",
                  "NumberOfThread=5\nLogDebugMask=1\n");
    sysroot.Write("vendor/build.prop",
                  "# the default text of 0x23 is \"35\": unchanged, not read as 0x35\n"
                  "vendor.camera.vcf.LogInfoMask=35\n"
                  "vendor.camera.vcf.LogVerboseMask=36\n"
                  "vendor.camera.vcf.NumberOfThread=8\n"
                  "vendor.camera.vcf.LogDebugMask=1\n"
                  "vendor.camera.vcf.BufferReleaseWaterLevel=zz\n"
                  "vendor.camera.vcf.EnableReuqestLIFO=11\n"
                  "vendor.camera.vcf.EnableDrawFaceRect=ff\n"
                  "vendor.camera.vcf.OverridePipeline=Realtime\n"
                  "vendor.camera.vcf.TeleZoomStart=2.25\n"
                  "vendor.camera.vcf.UltraWideZoomStart=0.6\n"
                  "vendor.camera.vcf.CameraPosition=1,x,3\n");
    const Loaded loaded = LoadOn(sysroot);
    ASSERT_EQ(loaded.process.exitCode, 0) << loaded.process.err;
    const std::vector<std::pair<std::string, std::string>> expected = {
            {"LogInfoMask", "0x23"},
            {"LogVerboseMask", "0x36"},
            {"NumberOfThread", "8"},
            {"LogDebugMask", "0x1"},
            {"BufferReleaseWaterLevel", "0"},
            {"EnableReuqestLIFO", "0"},
            {"EnableDrawFaceRect", "0xff"},
            {"OverridePipeline", "\"Realtime\""},
            {"TeleZoomStart", "2.250000"},
            {"UltraWideZoomStart", "0.600000"},
            {"CameraPosition", "1,0,0,0,0,0,0,0"},
    };
    for (const auto& [name, value] : expected) EXPECT_EQ(loaded.values.at(name), value) << name;
    EXPECT_TRUE(HasLine(
            loaded.process.err,
            R"( E VxCam   : LoadOverrideSettings\(\):\d+ CameraPosition value "x" is not a number)"));
    EXPECT_TRUE(HasLine(loaded.process.err, R"(\[Global Settings\] CameraPosition = 1,x,3$)"));
}

TEST(SettingLoad, CameraPositionKeepsAtMostEightValues) {
    TempDir sysroot;
    sysroot.Write("vendor/etc/camera/vxcamoverridesettings.txt",
                  "CameraPosition=9,8,7,6,5,4,3,2,1,0,-1,-2\n");
    const Loaded loaded = LoadOn(sysroot);
    ASSERT_EQ(loaded.process.exitCode, 0) << loaded.process.err;
    EXPECT_EQ(loaded.values.at("CameraPosition"), "9,8,7,6,5,4,3,2");
    EXPECT_TRUE(HasLine(loaded.process.err,
                        R"( W VxCam   : .*CameraPosition lists more than 8 values)"));
}

TEST(SettingLoad, FeatureOverlayComesFirst) {
    struct Case {
        std::string feature;
        std::string file;
        std::string teleZoomStart;
    };
    const Case cases[] = {
            {"1", "", "3.000000"},
            {"3", "", "3.000000"},  // only bit 0 counts
            {"2", "", "2.000000"},
            {"0", "", "2.000000"},
            {"1", "TeleZoomStart=2.5\n", "2.500000"},  // the file wins over the feature
    };
    for (const Case& c : cases) {
        TempDir sysroot;
        sysroot.Write("vendor/build.prop", "vendor.vxf.feature.86=" + c.feature + "\n");
        if (!c.file.empty()) sysroot.Write("vendor/etc/camera/vxcamoverridesettings.txt", c.file);
        const Loaded loaded = LoadOn(sysroot);
        ASSERT_EQ(loaded.process.exitCode, 0) << loaded.process.err;
        EXPECT_EQ(loaded.values.at("TeleZoomStart"), c.teleZoomStart) << "feature " << c.feature;
    }
}

TEST(SettingLoad, UnreadableOverrideFileLeavesDefaultsAndProperties) {
    TempDir sysroot;
    // A folder where the file should be: it cannot be read as one.
    std::filesystem::create_directories(OverrideFile(sysroot));
    sysroot.Write("vendor/build.prop", "vendor.camera.vcf.LogEnable=0\n");
    const Loaded loaded = LoadOn(sysroot);
    ASSERT_EQ(loaded.process.exitCode, 0) << loaded.process.err;
    EXPECT_EQ(loaded.values.at("LogEnable"), "0");
    EXPECT_EQ(loaded.values.at("LogInfoMask"), "0x23");
}

}  // namespace
