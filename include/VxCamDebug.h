// The debug log frame: level and group masks, the call-site gate and Log::LogSystem.
//
// A call site tests the gate before it computes any argument, so a filtered message costs a load
// and a bit test:
//
//     #define VXCAM_LOG_SOURCE "hardware/camera/mynode/MyNode"   // optional; else __FILE__
//     #include "VxCamDebug.h"
//     VXCAM_LOGE(CORE, "Invalid format %d", format);
//
// writes "[ERROR   ][CORE   ] MyNode:42 MyFunction() Invalid format 40" under the tag "VxCam".
#ifndef VXCAM_DEBUG_H
#define VXCAM_DEBUG_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifndef VXCAM_API
#define VXCAM_API __attribute__((visibility("default")))
#endif

namespace VxCam {

// Hosts read these fields by offset: keep the order. The six masks are indexed by level.
struct DebugLogInfo {
    uint32_t debugMask;    // level 0
    uint32_t errorMask;    // level 1; stays 0xFFFFFFFF: errors are never filtered by group
    uint32_t warningMask;  // level 2
    uint32_t level3Mask;   // level 3, unused
    uint32_t infoMask;     // level 4
    uint32_t verboseMask;  // level 5
    FILE* pLogFile;
    uint32_t systemLogEnable;
    uint32_t offlineLogEnable;
    uint32_t isUpdated;
};
static_assert(sizeof(DebugLogInfo) == 48, "DebugLogInfo is shared with hosts by layout");
static_assert(offsetof(DebugLogInfo, verboseMask) == 20, "DebugLogInfo layout");
static_assert(offsetof(DebugLogInfo, pLogFile) == 24, "DebugLogInfo layout");
static_assert(offsetof(DebugLogInfo, systemLogEnable) == 32, "DebugLogInfo layout");
static_assert(offsetof(DebugLogInfo, isUpdated) == 40, "DebugLogInfo layout");

extern VXCAM_API DebugLogInfo g_logInfo;
extern VXCAM_API uint64_t g_traceInfo;  // low 32 bits: "TraceLogMask"
// Tested by every call site; while 0, every message reaches LogSystem, which decides. The library
// never sets it: a host that has loaded the masks may.
extern VXCAM_API uint32_t g_logInfoUpdated;
extern VXCAM_API uint32_t g_logInfoStored;  // the host's own; the library never touches it

class VXCAM_API Log {
  public:
    // Loads the masks and enables from the settings registry into g_logInfo and g_traceInfo.
    static int UpdateLogInfo();
    static const char* GetFileName(const char* path);
    // `group` is a group bit, `levelLetter` "E", "I" or "V", `level` 0 to 5. Lines are cut at 1023
    // characters.
    static void LogSystem(unsigned int group, const char* levelLetter, unsigned int level,
                          const char* format, ...) __attribute__((format(printf, 4, 5)));
};

// Group bits and their tags.
#define VXCAM_GROUP_BIT_CORE 1u
#define VXCAM_GROUP_TAG_CORE "[CORE   ]"
#define VXCAM_GROUP_BIT_UTILS 4u
#define VXCAM_GROUP_TAG_UTILS "[UTILS  ]"

// The mask of `level`; levels above 5 have none. With a constant level this is a single load.
inline uint32_t LogMaskOfLevel(const DebugLogInfo& info, unsigned int level) {
    switch (level) {
        case 0:
            return info.debugMask;
        case 1:
            return info.errorMask;
        case 2:
            return info.warningMask;
        case 3:
            return info.level3Mask;
        case 4:
            return info.infoMask;
        case 5:
            return info.verboseMask;
        default:
            return 0;
    }
}

inline bool LogGatePasses(unsigned int group, unsigned int level) {
    return (LogMaskOfLevel(g_logInfo, level) & group) != 0 || g_logInfoUpdated == 0;
}

}  // namespace VxCam

#ifndef VXCAM_LOG_SOURCE
#define VXCAM_LOG_SOURCE __FILE__
#endif
#define VXCAM_LOG_STRINGIFY_(x) #x
#define VXCAM_LOG_STRINGIFY(x) VXCAM_LOG_STRINGIFY_(x)

// The frame of every message: label, group tag, source base name, line, function, text.
#define VXCAM_LOG(groupBit, groupTag, letter, level, label, fmt, ...)                          \
    do {                                                                                       \
        if (::VxCam::LogGatePasses((groupBit), (level))) {                                     \
            ::VxCam::Log::LogSystem((groupBit), (letter), (level),                             \
                                    label "%s %s:" VXCAM_LOG_STRINGIFY(__LINE__) " %s() " fmt, \
                                    groupTag, ::VxCam::Log::GetFileName(VXCAM_LOG_SOURCE),     \
                                    __func__, ##__VA_ARGS__);                                  \
        }                                                                                      \
    } while (0)

// `group` is CORE or UTILS.
#define VXCAM_LOGE(group, fmt, ...)                                                         \
    VXCAM_LOG(VXCAM_GROUP_BIT_##group, VXCAM_GROUP_TAG_##group, "E", 1u, "[ERROR   ]", fmt, \
              ##__VA_ARGS__)
#define VXCAM_LOGI(group, fmt, ...)                                                         \
    VXCAM_LOG(VXCAM_GROUP_BIT_##group, VXCAM_GROUP_TAG_##group, "I", 4u, "[INFO    ]", fmt, \
              ##__VA_ARGS__)
#define VXCAM_LOGV(group, fmt, ...)                                                         \
    VXCAM_LOG(VXCAM_GROUP_BIT_##group, VXCAM_GROUP_TAG_##group, "V", 5u, "[VERBOSE ]", fmt, \
              ##__VA_ARGS__)

#endif  // VXCAM_DEBUG_H
