// The host log's own hook, for programs that want the library's Android log lines rather than
// stderr (tests, vxcamctl, the benchmarks). Named apart from liblog's interface on purpose: a real
// liblog loaded into the same process keeps its own meaning for every name it declares.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct VxCamHostLogMessage {
    int32_t priority;     // android_LogPriority
    const char* tag;      // never null
    const char* message;  // the whole text of one log call, never null
};
typedef void (*VxCamHostLogSink)(const struct VxCamHostLogMessage* message);

// Every later log call goes to `sink` instead of stderr, unfiltered by ANDROID_LOG_TAGS; null
// restores the stderr writer.
void VxCamHostLogSetSink(VxCamHostLogSink sink);

#ifdef __cplusplus
}
#endif
