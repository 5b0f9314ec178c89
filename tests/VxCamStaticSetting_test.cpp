// The settings registry: lookups in this process, and the load-time layers (feature overlay,
// override file, system properties) in vxcamctl children started on prepared sysroots.
#include "VxCamStaticSetting.h"

#include <gtest/gtest.h>
#include <stdint.h>

#include <filesystem>
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
    ASSERT_NE(settings, nullptr);
    EXPECT_EQ(settings, VxCam::VxCamStaticSetting::GetInstance());
    EXPECT_EQ(settings->GetPorpertyFloatValue("UltraWideZoomStart"), 0.6f);  // the nearest single

    EXPECT_EQ(settings->GetPorpertyIntegerValue("TeleZoomStart"), 0u);
    EXPECT_EQ(settings->GetPorpertyInteger64Value("LogEnable"), 0u);
    EXPECT_EQ(settings->GetPorpertyFloatValue("LogEnable"), 0.0f);
    EXPECT_EQ(settings->GetPorpertyStringValue("LogEnable"), "");
    EXPECT_EQ(settings->GetPorpertyCustomValue("LogEnable"), nullptr);
    // The custom row lives only in the custom map.
    EXPECT_EQ(settings->GetPorpertyStringValue("CameraPosition"), "");
    // Names are exact keys: the catalogue's misspelling "LogWranningMask" is the only one.
    EXPECT_EQ(settings->GetPorpertyIntegerValue("LogWarningMask"), 0u);
    EXPECT_EQ(settings->GetPorpertyIntegerValue("loginfomask"), 0u);
    EXPECT_EQ(settings->GetPorpertyIntegerValue(static_cast<char*>(nullptr)), 0u);
    EXPECT_EQ(settings->GetPorpertyCustomValue(static_cast<char*>(nullptr)), nullptr);
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
// keeps the low half, a switch counts only exactly 1, a 64-bit row keeps it all.
struct Kind {
    const char* property;
    const char* loaded;
};
const Kind kSwitch = {"100000000000000000000000000000001", "1"};  // radix 2: 2^32 + 1
const Kind kNumber = {"4294967307", "11"};                        // radix 10: 2^32 + 11
const Kind kMask = {"1000000ab", "0xab"};                         // radix 16
const Kind kMask64 = {"1000000ab", "0x1000000ab"};
const Kind kFloat = {"2.5", "2.500000"};
const Kind kText = {"Text", "Text"};
const Kind kList = {"7,6,5,4,3,2,1,-9", "7,6,5,4,3,2,1,-9"};

// The catalogue in its order: name, built-in value as vxcamctl and the load log print it, kind.
// clang-format off
const struct Row {
    const char* name;
    const char* builtIn;
    const Kind* kind;
} kCatalogue[] = {
    {"LogEnable", "1", &kSwitch}, {"LogOfflineEnable", "0", &kSwitch},
    {"LogInfoMask", "0x23", &kMask}, {"LogDebugMask", "0x0", &kMask},
    {"LogWranningMask", "0xffff", &kMask}, {"LogVerboseMask", "0x0", &kMask},
    {"LogErrorMask", "0xffff", &kMask}, {"TraceLogMask", "0x0", &kMask},
    {"MaxRequestQueueDepth", "3", &kNumber}, {"MaxMemPoolTotalBufferNumber", "60", &kNumber},
    {"DumpNodeOutputMask", "0x0", &kMask64}, {"DumpNodeInputMask", "0x0", &kMask64},
    {"NumberOfThread", "6", &kNumber}, {"DumpInputInfo", "0", &kSwitch},
    {"DumpJsonFileData", "0", &kSwitch}, {"OverridePruneNodeMask", "0x0", &kMask64},
    {"DisableNodeMask", "0x0", &kMask64}, {"ByPassNodeMask", "0x0", &kMask64},
    {"EnableNodeMask", "0x0", &kMask64}, {"EnableInitFailedAssert", "0", &kSwitch},
    {"OverridePipeline", "", &kText}, {"LivePendingRequestTimeOut", "10000", &kNumber},
    {"ForceNodeSpecialDump", "0", &kSwitch}, {"DumpMemoryBufferInfo", "0", &kSwitch},
    {"BufferReleaseWaterLevel", "1500", &kNumber}, {"EnableReuqestLIFO", "1", &kSwitch},
    {"EnableDrawFaceRect", "0x0", &kMask64}, {"NumberOfPhyCameraId", "4", &kNumber},
    {"CameraPosition", "0,1,2,3,-1,4,4,4", &kList}, {"UltraWideZoomStart", "0.600000", &kFloat},
    {"TeleZoomStart", "2.000000", &kFloat}, {"SelectNightSceneType", "0", &kNumber},
    {"DelayedTriggerOfAbort", "0", &kNumber}, {"MaxRequestQueueDepthForBokeh", "3", &kNumber},
    {"CutAtFrontOfPipelineMask", "0x0", &kMask64}, {"EnableAlgoMark", "0", &kSwitch},
    {"ColorGamut", "1", &kSwitch}, {"EnableDumpMetadata", "0", &kSwitch},
    {"EnablePreInit", "1", &kSwitch}, {"DeInitNodeWaitTimeMs", "30000", &kNumber},
    {"ReleaseAllBufferWaitTimeMs", "15000", &kNumber},
    {"EnableCopyOnNodeFailedMask", "0x0", &kMask64}, {"ReservedMemory", "0", &kNumber},
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
        properties += std::string("vendor.camera.vcf.") + row.name + "=" + row.kind->property + "\n";
        defaults.emplace_back(row.name, row.builtIn);
        overridden.emplace_back(row.name, row.kind->loaded);
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
        const char* name;  // nullptr: a line that changes nothing
        const char* value;
    } lines[] = {
        {"  Log Offline Enable =  1  ", "LogOfflineEnable", "1"},  // white space anywhere goes
        {"EnablePreInit=11", "EnablePreInit", "0"},  // a switch is on only for exactly 1
        {";ColorGamut=0", "ColorGamut", "1"},  // ';' comments the line out
        {"LogInfoMask=ff", "LogInfoMask", "0xff"},  // radix 16 without a prefix
        {"LogVerboseMask=0x3f", "LogVerboseMask", "0x3f"},  // and with one
        {"NumberOfThread==5", "NumberOfThread", "5"},  // runs of '=' are one separator
        {"=MaxRequestQueueDepth=7", "MaxRequestQueueDepth", "7"},  // a leading '=' is skipped
        {"BufferReleaseWaterLevel=9=6", "BufferReleaseWaterLevel", "9"},  // so is a second value
        {"CameraPosition=5,4,3", "CameraPosition", "5,4,3,0,0,0,0,0"},
        {"DeInitNodeWaitTimeMs=", "DeInitNodeWaitTimeMs", "30000"},  // no value: skipped
        {"ReleaseAllBufferWaitTimeMs", "ReleaseAllBufferWaitTimeMs", "15000"},
        {"UnknownKey=5", nullptr, nullptr},
        {"logenable=0", "LogEnable", "1"},  // keys are case-sensitive
        {"DumpNodeInputMask=0x123456789abc", "DumpNodeInputMask", "0x123456789abc"},
        {"NumberOfPhyCameraId=abc", "NumberOfPhyCameraId", "0"},  // not a number: 0
        {"LivePendingRequestTimeOut=99999999999", "LivePendingRequestTimeOut", "1215752191"},
        {"OverridePipeline=Bokeh Pipeline", "OverridePipeline", "BokehPipeline"},
        {"UltraWideZoomStart=0.5x", "UltraWideZoomStart", "0.500000"},  // the leading number
        {"\r", nullptr, nullptr},
        // Lines longer than 127 characters arrive in pieces, each read as a line.
        {"MaxRequestQueueDepthForBokeh=" + std::string(100, ' ') + "9",
         "MaxRequestQueueDepthForBokeh", "3"},
        {std::string(140, ' ') + "EnableAlgoMark=1", "EnableAlgoMark", "1"},
        {"TraceLogMask=0x4", "TraceLogMask", "0x4"},  // no line end at the end of the file
    };
    // clang-format on
    TempDir sysroot;
    std::string file;
    for (const auto& line : lines) file += (file.empty() ? "" : "\n") + line.text;
    sysroot.Write("vendor/etc/camera/vxcamoverridesettings.txt", file);
    sysroot.Write("vendor/build.prop", "vendor.vxf.feature.86=3\n");  // bit 0 among others
    const Loaded loaded = LoadOn(sysroot);
    ASSERT_EQ(loaded.process.exitCode, 0) << loaded.process.err;
    std::map<std::string, std::string> listed(loaded.listed.begin(), loaded.listed.end());
    for (const auto& line : lines) {
        if (line.name == nullptr) continue;
        EXPECT_EQ(listed[line.name], line.value) << line.text;
    }
    EXPECT_EQ(listed["TeleZoomStart"], "3.000000");  // the feature's
    EXPECT_TRUE(HasLine(loaded.process.err,
                        " I VxCam   : LoadOverrideSettings\\(\\):\\d+ Opening override settings "
                        "text file: " +
                                OverrideFile(sysroot) + "$"));
    EXPECT_TRUE(HasLine(
            loaded.process.err,
            R"(UpdateLogInfo\(\) system log enable 1, offline log enable 1 debug log mask 0x0, wraning log mask 0xffff, info log mask 0xff, verb log mask 0x3f$)"));
}

TEST(SettingLoad, FeatureOverlayFileAndPropertiesInTurn) {
    struct Case {
        const char* what;
        std::string buildProp;
        std::string overrideFile;  // "/": a folder where the file should be
        Values expected;
        std::vector<std::string> lines;  // patterns of the child's log lines
    };
    const Case cases[] = {
            {"properties win, compared with the text of the value before them",
             "# the default text of 0x23 is \"35\": unchanged, not read as 0x35\n"
             "vendor.camera.vcf.LogInfoMask=35\n"
             "vendor.camera.vcf.NumberOfThread=8\n"
             "vendor.camera.vcf.LogDebugMask=1\n"
             "vendor.camera.vcf.BufferReleaseWaterLevel=zz\n"
             "vendor.camera.vcf.EnableReuqestLIFO=11\n"
             "vendor.camera.vcf.CameraPosition=1,x,3\n"
             "vendor.vxf.feature.86=1\n",
             "NumberOfThread=5\nLogDebugMask=1\nTeleZoomStart=2.5\n",
             {{"LogInfoMask", "0x23"},
              {"NumberOfThread", "8"},
              {"LogDebugMask", "0x1"},
              {"BufferReleaseWaterLevel", "0"},
              {"EnableReuqestLIFO", "0"},
              {"CameraPosition", "1,0,0,0,0,0,0,0"},
              {"TeleZoomStart", "2.500000"}},  // the file wins over the feature
             {R"( E VxCam   : LoadOverrideSettings\(\):\d+ CameraPosition value "x" is not a number)",
              R"(\[Global Settings\] CameraPosition = 1,x,3$)"}},
            {"at most eight camera positions, and a feature without bit 0",
             "vendor.vxf.feature.86=2\n",
             "CameraPosition=9,8,7,6,5,4,3,2,1,0,-1,-2\n",
             {{"CameraPosition", "9,8,7,6,5,4,3,2"}, {"TeleZoomStart", "2.000000"}},
             {R"( W VxCam   : .*CameraPosition lists more than 8 values)"}},
            {"an unreadable override file leaves defaults and properties",
             "vendor.camera.vcf.LogEnable=0\n",
             "/",
             {{"LogEnable", "0"}, {"LogInfoMask", "0x23"}},
             {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TempDir sysroot;
        sysroot.Write("vendor/build.prop", c.buildProp);
        if (c.overrideFile == "/") {
            std::filesystem::create_directories(OverrideFile(sysroot));
        } else {
            sysroot.Write("vendor/etc/camera/vxcamoverridesettings.txt", c.overrideFile);
        }
        const Loaded loaded = LoadOn(sysroot);
        ASSERT_EQ(loaded.process.exitCode, 0) << loaded.process.err;
        const std::map<std::string, std::string> listed(loaded.listed.begin(), loaded.listed.end());
        for (const auto& [name, value] : c.expected) EXPECT_EQ(listed.at(name), value) << name;
        for (const std::string& line : c.lines) {
            EXPECT_TRUE(HasLine(loaded.process.err, line)) << line;
        }
    }
}

}  // namespace
