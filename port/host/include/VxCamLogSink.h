// A hook for programs that want the Android log lines of the process rather than stderr (tests,
// vxcamctl, the benchmarks, the fuzzers): the host log's part of it. Named apart from liblog's
// interface on purpose: a real liblog loaded into the same process keeps its own meaning for every
// name it declares. Lines a sink takes are not filtered by ANDROID_LOG_TAGS.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct VxCamLogMessage {
    int32_t priority;     // android_LogPriority
    const char* tag;      // never null
    const char* message;  // the whole text of one log call, never null
};
typedef void (*VxCamLogSinkFn)(const struct VxCamLogMessage* message);

// Every later log call goes to `sink` instead of stderr; null
// restores the stderr writer.
void VxCamLogSetSink(VxCamLogSinkFn sink);

#ifdef __cplusplus
}
#endif
