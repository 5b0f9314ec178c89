// The built-in settings catalogue and the reading of override-file lines.
//
// Internal to the library and its own tools: vxcamctl includes this header so that its settings
// listing and its override-file lint see exactly the rows and the line handling of the loader.
#ifndef VXCAM_SETTING_CATALOGUE_H
#define VXCAM_SETTING_CATALOGUE_H

#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "VxCamCommonUtils.h"
#include "VxCamStaticSetting.h"

namespace VxCam {

struct SettingDefault {
    const char* name;
    SettingValueType type;
    int32_t radix;
    uint64_t integerValue;  // Integer, Integer64
    float floatValue;       // Float
    const char* text;       // String, Custom
    bool isCustom;
};

// Names are keys character for character, misspellings included: hosts look them up by name.
// "EnableDrawFaceRect" is a 64-bit mask although it reads like a switch.
// clang-format off
inline constexpr SettingDefault kSettingCatalogue[] = {
    // name                           type       radix  integer   float  text                 custom
    {"LogEnable",                     Integer,   2,     1,        0.0f,  "",                  false},
    {"LogOfflineEnable",              Integer,   2,     0,        0.0f,  "",                  false},
    {"LogInfoMask",                   Integer,   16,    0x23,     0.0f,  "",                  false},
    {"LogDebugMask",                  Integer,   16,    0x0,      0.0f,  "",                  false},
    {"LogWranningMask",               Integer,   16,    0xFFFF,   0.0f,  "",                  false},
    {"LogVerboseMask",                Integer,   16,    0x0,      0.0f,  "",                  false},
    {"LogErrorMask",                  Integer,   16,    0xFFFF,   0.0f,  "",                  false},
    {"TraceLogMask",                  Integer,   16,    0x0,      0.0f,  "",                  false},
    {"MaxRequestQueueDepth",          Integer,   10,    3,        0.0f,  "",                  false},
    {"MaxMemPoolTotalBufferNumber",   Integer,   10,    60,       0.0f,  "",                  false},
    {"DumpNodeOutputMask",            Integer64, 16,    0x0,      0.0f,  "",                  false},
    {"DumpNodeInputMask",             Integer64, 16,    0x0,      0.0f,  "",                  false},
    {"NumberOfThread",                Integer,   10,    6,        0.0f,  "",                  false},
    {"DumpInputInfo",                 Integer,   2,     0,        0.0f,  "",                  false},
    {"DumpJsonFileData",              Integer,   2,     0,        0.0f,  "",                  false},
    {"OverridePruneNodeMask",         Integer64, 16,    0x0,      0.0f,  "",                  false},
    {"DisableNodeMask",               Integer64, 16,    0x0,      0.0f,  "",                  false},
    {"ByPassNodeMask",                Integer64, 16,    0x0,      0.0f,  "",                  false},
    {"EnableNodeMask",                Integer64, 16,    0x0,      0.0f,  "",                  false},
    {"EnableInitFailedAssert",        Integer,   2,     0,        0.0f,  "",                  false},
    {"OverridePipeline",              String,    -1,    0,        0.0f,  "",                  false},
    {"LivePendingRequestTimeOut",     Integer,   10,    10000,    0.0f,  "",                  false},
    {"ForceNodeSpecialDump",          Integer,   2,     0,        0.0f,  "",                  false},
    {"DumpMemoryBufferInfo",          Integer,   2,     0,        0.0f,  "",                  false},
    {"BufferReleaseWaterLevel",       Integer,   10,    1500,     0.0f,  "",                  false},
    {"EnableReuqestLIFO",             Integer,   2,     1,        0.0f,  "",                  false},
    {"EnableDrawFaceRect",            Integer64, 16,    0x0,      0.0f,  "",                  false},
    {"NumberOfPhyCameraId",           Integer,   10,    4,        0.0f,  "",                  false},
    {"CameraPosition",                Custom,    10,    0,        0.0f,  "0,1,2,3,-1,4,4,4",  true},
    {"UltraWideZoomStart",            Float,     10,    0,        0.6f,  "",                  false},
    {"TeleZoomStart",                 Float,     10,    0,        2.0f,  "",                  false},
    {"SelectNightSceneType",          Integer,   10,    0,        0.0f,  "",                  false},
    {"DelayedTriggerOfAbort",         Integer,   10,    0,        0.0f,  "",                  false},
    {"MaxRequestQueueDepthForBokeh",  Integer,   10,    3,        0.0f,  "",                  false},
    {"CutAtFrontOfPipelineMask",      Integer64, 16,    0x0,      0.0f,  "",                  false},
    {"EnableAlgoMark",                Integer,   2,     0,        0.0f,  "",                  false},
    {"ColorGamut",                    Integer,   2,     1,        0.0f,  "",                  false},
    {"EnableDumpMetadata",            Integer,   2,     0,        0.0f,  "",                  false},
    {"EnablePreInit",                 Integer,   2,     1,        0.0f,  "",                  false},
    {"DeInitNodeWaitTimeMs",          Integer,   10,    30000,    0.0f,  "",                  false},
    {"ReleaseAllBufferWaitTimeMs",    Integer,   10,    15000,    0.0f,  "",                  false},
    {"EnableCopyOnNodeFailedMask",    Integer64, 16,    0x0,      0.0f,  "",                  false},
    {"ReservedMemory",                Integer,   10,    0,        0.0f,  "",                  false},
};
// clang-format on
inline constexpr size_t kSettingCount = sizeof(kSettingCatalogue) / sizeof(kSettingCatalogue[0]);
static_assert(kSettingCount == 43, "the catalogue has 43 settings");

inline constexpr const char kOverrideSettingsPath[] =
        "/vendor/etc/camera/vxcamoverridesettings.txt";
inline constexpr const char kSettingPropertyPrefix[] = "vendor.camera.vcf.";
inline constexpr const char kCameraPositionName[] = "CameraPosition";
inline constexpr size_t kCameraPositionCount = 8;  // int32_t slots of its 32-byte buffer

// The loader reads the file with fgets into this many bytes, so a longer line arrives in pieces of
// at most kOverrideLineSize - 1 characters, each read as a line of its own.
inline constexpr size_t kOverrideLineSize = 128;

// Reads one override-file line the way the loader does: white space removed everywhere ("Log Info
// Mask = 0x3" is "LogInfoMask=0x3"), then split at runs of '=' (text after a second separator is
// ignored). `line` is consumed. Returns false for a line the loader skips: no key, no value, or a
// comment (';').
inline bool ParseOverrideLine(char* line, char (&compact)[kOverrideLineSize], char** key,
                              char** value) {
    compact[0] = '\0';
    char* save = nullptr;
    for (char* piece = OsUtils::StrTokReentrant(line, " \t\n\r\f\v", &save); piece != nullptr;
         piece = OsUtils::StrTokReentrant(nullptr, " \t\n\r\f\v", &save)) {
        OsUtils::StrLCat(compact, piece, kOverrideLineSize);
    }
    save = nullptr;
    *key = OsUtils::StrTokReentrant(compact, "=", &save);
    *value = *key != nullptr ? OsUtils::StrTokReentrant(nullptr, "=", &save) : nullptr;
    return *key != nullptr && *value != nullptr && (*value)[0] != '\0' && (*key)[0] != ';';
}

// The catalogue row named exactly `key`, or -1.
inline int FindSettingRow(const char* key) {
    for (size_t i = 0; i < kSettingCount; ++i) {
        if (strcmp(kSettingCatalogue[i].name, key) == 0) return static_cast<int>(i);
    }
    return -1;
}

// Walks a "CameraPosition" list the way the loader reads it: split at every ',' (no piece after a
// final ','), each piece read as a base-10 number, leading valid part only. Calls
// visit(piece, number, isNumber) for each piece until visit returns false; isNumber is false for a
// piece with no digits or out of the range of long.
template <typename Visit>
void VisitCameraPositions(const std::string& text, Visit visit) {
    size_t start = 0;
    while (start < text.size()) {
        size_t comma = text.find(',', start);
        if (comma == std::string::npos) comma = text.size();
        const std::string piece = text.substr(start, comma - start);
        start = comma + 1;
        const int savedErrno = errno;
        errno = 0;
        char* end = nullptr;
        const long number = strtol(piece.c_str(), &end, 10);
        const bool isNumber = end != piece.c_str() && errno != ERANGE;
        errno = savedErrno;
        if (!visit(piece, number, isNumber)) return;
    }
}

// Library-internal: the loader's steps, exposed for the fuzzer and tests that drive them on rows
// of their own. ApplyOverrideFile reads one open override file into the rows, line by line;
// ParseCameraPositions reads a "CameraPosition" list into the kCameraPositionCount slots of its
// buffer and leaves the slots after the last value as they were.
void FillSettingDefaults(SettingValue* rows);
void ApplyOverrideFile(FILE* file, SettingValue* rows);
void ParseCameraPositions(const std::string& text, int32_t* slots);

}  // namespace VxCam

#endif  // VXCAM_SETTING_CATALOGUE_H
