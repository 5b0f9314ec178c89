// A hook for tests, fuzzers and benchmarks that want the Android log lines of the process: the
// device's part of it, over liblog's own logger hook (API 30), in libvxcam_log_sink. Not part of
// the library, which only ever calls liblog.
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

// Every later log call goes to `sink` instead of logd; null restores
// liblog's logd logger.
void VxCamLogSetSink(VxCamLogSinkFn sink);

#ifdef __cplusplus
}
#endif
