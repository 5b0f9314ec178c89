// The settings registry: lookups in this process, and the load-time layers (feature overlay,
// override file, system properties) in vxcamctl children started on prepared sysroots.
#include "VxCamStaticSetting.h"

#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "TestSupport.h"

namespace {

using vxcamtest::ProcessResult;
using vxcamtest::TempDir;
using Values = std::vector<std::pair<std::string, std::string>>;

// ---- Lookups in this process (its sysroot is empty: built-in defaults) ----------------------

TEST(SettingLookup, AWrongKindOrAnUnknownNameAnswersThatKindsZero) {
    const VxCam::VxCamStaticSetting* settings = VxCam::VxCamStaticSetting::GetInstance();
    EXPECT_EQ(settings->GetPorpertyFloatValue("UltraWideZoomStart"), 0.6f);  // the nearest single

    EXPECT_EQ(settings->GetPorpertyIntegerValue("TeleZoomStart"), 0u);
    EXPECT_EQ(settings->GetPorpertyInteger64Value("LogEnable"), 0u);
    EXPECT_EQ(settings->GetPorpertyStringValue("LogEnable"), "");
    // The custom row lives only in the custom map.
    EXPECT_EQ(settings->GetPorpertyStringValue("CameraPosition"), "");
    // Names are exact keys: the catalogue's misspelling "LogWranningMask" is the only one.
    EXPECT_EQ(settings->GetPorpertyIntegerValue("LogWarningMask"), 0u);
    EXPECT_EQ(settings->GetPorpertyIntegerValue(static_cast<char*>(nullptr)), 0u);
}

// ---- Load-time layers, in child processes ---------------------------------------------------

struct Loaded {
    ProcessResult process;
    Values listed;  // NAME and VALUE of each row that vxcamctl lists, strings unquoted
    Values logged;  // the name and value of each "[Global Settings]" info line, in order
};

Loaded LoadOn(const TempDir& sysroot) {
    Loaded loaded;
    loaded.process = vxcamtest::RunProcess(
            {vxcamtest::Vxcamctl(), "-v", "settings", "--sysroot", sysroot.Path()},
            {{"ANDROID_LOG_TAGS", "\x01"}});
    // NAME KIND FROM VALUE, then the default where the value differs from it.
    const std::regex row(
            R"re(^(\S+)\s+(?:Integer|Integer64|Float|String|Custom)\s+\S+\s+"?(.*?)"?(  \(default .*\))?$)re");
    const std::regex global(
            R"( I VxCam   : VxCamStaticSetting:\d+ \[Global Settings\] (\S+) = (.*)$)");
    std::smatch match;
    std::istringstream out(loaded.process.out), err(loaded.process.err);
    for (std::string line; std::getline(out, line);) {
        if (std::regex_match(line, match, row)) loaded.listed.emplace_back(match[1], match[2]);
    }
    for (std::string line; std::getline(err, line);) {
        if (std::regex_search(line, match, global)) loaded.logged.emplace_back(match[1], match[2]);
    }
    return loaded;
}

std::string OverrideFile(const TempDir& sysroot) {
    return sysroot / "vendor/etc/camera/vxcamoverridesettings.txt";
}

bool HasLine(const std::string& log, const std::string& pattern) {
    return std::regex_search(log, std::regex(pattern, std::regex::multiline));
}

// A property value far outside 32 bits, and what each kind and radix makes of it: a 32-bit row
// keeps the low half, a switch (radix 2) counts only exactly 1, a 64-bit row keeps it all.
// clang-format off
const std::map<char, std::pair<const char*, const char*>> kKinds = {
    {'b', {"100000000000000000000000000000001", "1"}}, {'d', {"4294967307", "11"}},
    {'x', {"1000000ab", "0xab"}}, {'X', {"1000000ab", "0x1000000ab"}}, {'f', {"2.5", "2.500000"}},
    {'s', {"Text", "Text"}}, {'l', {"7,6,5,4,3,2,1,-9", "7,6,5,4,3,2,1,-9"}}};
// The catalogue in its order: name, built-in value as vxcamctl and the load log print it, kind.
const struct Row {
    const char* name;
    const char* builtIn;
    char kind;
} kCatalogue[] = {
    {"LogEnable", "1", 'b'}, {"LogOfflineEnable", "0", 'b'}, {"LogInfoMask", "0x23", 'x'},
    {"LogDebugMask", "0x0", 'x'}, {"LogWranningMask", "0xffff", 'x'},
    {"LogVerboseMask", "0x0", 'x'}, {"LogErrorMask", "0xffff", 'x'}, {"TraceLogMask", "0x0", 'x'},
    {"MaxRequestQueueDepth", "3", 'd'}, {"MaxMemPoolTotalBufferNumber", "60", 'd'},
    {"DumpNodeOutputMask", "0x0", 'X'}, {"DumpNodeInputMask", "0x0", 'X'},
    {"NumberOfThread", "6", 'd'}, {"DumpInputInfo", "0", 'b'}, {"DumpJsonFileData", "0", 'b'},
    {"OverridePruneNodeMask", "0x0", 'X'}, {"DisableNodeMask", "0x0", 'X'},
    {"ByPassNodeMask", "0x0", 'X'}, {"EnableNodeMask", "0x0", 'X'},
    {"EnableInitFailedAssert", "0", 'b'}, {"OverridePipeline", "", 's'},
    {"LivePendingRequestTimeOut", "10000", 'd'}, {"ForceNodeSpecialDump", "0", 'b'},
    {"DumpMemoryBufferInfo", "0", 'b'}, {"BufferReleaseWaterLevel", "1500", 'd'},
    {"EnableReuqestLIFO", "1", 'b'}, {"EnableDrawFaceRect", "0x0", 'X'},
    {"NumberOfPhyCameraId", "4", 'd'}, {"CameraPosition", "0,1,2,3,-1,4,4,4", 'l'},
    {"UltraWideZoomStart", "0.600000", 'f'}, {"TeleZoomStart", "2.000000", 'f'},
    {"SelectNightSceneType", "0", 'd'}, {"DelayedTriggerOfAbort", "0", 'd'},
    {"MaxRequestQueueDepthForBokeh", "3", 'd'}, {"CutAtFrontOfPipelineMask", "0x0", 'X'},
    {"EnableAlgoMark", "0", 'b'}, {"ColorGamut", "1", 'b'}, {"EnableDumpMetadata", "0", 'b'},
    {"EnablePreInit", "1", 'b'}, {"DeInitNodeWaitTimeMs", "30000", 'd'},
    {"ReleaseAllBufferWaitTimeMs", "15000", 'd'}, {"EnableCopyOnNodeFailedMask", "0x0", 'X'},
    {"ReservedMemory", "0", 'd'},
};
// clang-format on
static_assert(sizeof(kCatalogue) / sizeof(kCatalogue[0]) == 43, "one row per setting");

// Each row's built-in value on an empty sysroot, and its kind and radix through a property, as
// listed and as logged in one "[Global Settings]" line per setting, in catalogue order.
TEST(SettingLoad, EveryRowsDefaultAndKind) {
    TempDir empty, everyProperty;
    std::string properties;
    Values defaults, overridden;
    for (const Row& row : kCatalogue) {
        const auto& [property, loaded] = kKinds.at(row.kind);
        properties += std::string("vendor.camera.vcf.") + row.name + "=" + property + "\n";
        defaults.emplace_back(row.name, row.builtIn);
        overridden.emplace_back(row.name, loaded);
    }
    everyProperty.Write("vendor/build.prop", properties);
    const auto load = [](const TempDir& sysroot, const Values& expected) {
        const Loaded loaded = LoadOn(sysroot);
        EXPECT_EQ(loaded.process.exitCode, 0) << loaded.process.err;
        EXPECT_EQ(loaded.listed, expected);
        EXPECT_EQ(loaded.logged, expected);
        return loaded.process.err;
    };
    load(everyProperty, overridden);
    const std::string log = load(empty, defaults);
    EXPECT_TRUE(HasLine(
            log, " E VxCam   : LoadOverrideSettings\\(\\):\\d+ No override settings text file " +
                         OverrideFile(empty) + " found$"));
    EXPECT_TRUE(HasLine(
            log,
            R"( I VxCam   : VxCamDebug:\d+ UpdateLogInfo\(\) system log enable 1, offline log enable 0 debug log mask 0x0, wraning log mask 0xffff, info log mask 0x23, verb log mask 0x0$)"));
}

// Each line of an override file, and the value it leaves its setting with.
TEST(SettingLoad, OverrideFileLinesAsTheLoaderReadsThem) {
    // clang-format off
    const struct {
        std::string text;
        const char *name, *value;
    } lines[] = {
        {"  Log Offline Enable =  1  ", "LogOfflineEnable", "1"},  // white space anywhere goes
        {"EnablePreInit=11", "EnablePreInit", "0"},  // a switch is on only for exactly 1
        {";ColorGamut=0", "ColorGamut", "1"},  // ';' comments the line out
        {"LogInfoMask=ff", "LogInfoMask", "0xff"},  // radix 16 without a prefix
        {"LogVerboseMask=0x3f", "LogVerboseMask", "0x3f"},  // and with one
        {"SelectNightSceneType==5", "SelectNightSceneType", "5"},  // runs of '=' are one separator
        {"=MaxRequestQueueDepth=7", "MaxRequestQueueDepth", "7"},  // a leading '=' is skipped
        {"BufferReleaseWaterLevel=9=6", "BufferReleaseWaterLevel", "9"},  // so is a second value
        {"CameraPosition=5,4,3", "CameraPosition", "5,4,3,0,0,0,0,0"},
        {"DeInitNodeWaitTimeMs=", "DeInitNodeWaitTimeMs", "30000"},  // no value: skipped
        {"logenable=0", "LogEnable", "1"},  // keys are case-sensitive
        {"DumpNodeInputMask=0x123456789abc", "DumpNodeInputMask", "0x123456789abc"},
        {"NumberOfPhyCameraId=abc", "NumberOfPhyCameraId", "0"},  // not a number: 0
        {"OverridePipeline=Bokeh Pipeline", "OverridePipeline", "BokehPipeline"},
        // Lines longer than 127 characters arrive in pieces, each read as a line.
        {"MaxRequestQueueDepthForBokeh=" + std::string(100, ' ') + "9",
         "MaxRequestQueueDepthForBokeh", "3"},
        {std::string(140, ' ') + "EnableAlgoMark=1", "EnableAlgoMark", "1"},
        {"NumberOfThread=5", "NumberOfThread", "8"},  // a property wins over the file
        {"TeleZoomStart=2.5", "TeleZoomStart", "2.500000"},  // and the file over the feature
        {"TraceLogMask=0x4", "TraceLogMask", "0x4"},  // no line end at the end of the file
    };
    // clang-format on
    TempDir sysroot;
    std::string file;
    for (const auto& line : lines) file += (file.empty() ? "" : "\n") + line.text;
    sysroot.Write("vendor/etc/camera/vxcamoverridesettings.txt", file);
    sysroot.Write("vendor/build.prop",
                  "vendor.vxf.feature.86=3\nvendor.camera.vcf.NumberOfThread=8\n");
    const Loaded loaded = LoadOn(sysroot);
    ASSERT_EQ(loaded.process.exitCode, 0) << loaded.process.err;
    std::map<std::string, std::string> listed(loaded.listed.begin(), loaded.listed.end());
    for (const auto& line : lines) EXPECT_EQ(listed[line.name], line.value) << line.text;
    EXPECT_TRUE(HasLine(loaded.process.err,
                        " I VxCam   : LoadOverrideSettings\\(\\):\\d+ Opening override settings "
                        "text file: " +
                                OverrideFile(sysroot) + "$"));
    EXPECT_TRUE(HasLine(
            loaded.process.err,
            R"(UpdateLogInfo\(\) system log enable 1, offline log enable 1 debug log mask 0x0, wraning log mask 0xffff, info log mask 0xff, verb log mask 0x3f$)"));
}

}  // namespace
