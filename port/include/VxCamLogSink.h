// A hook for programs that want the Android log lines of the process (tests, vxcamctl, the
// benchmarks, the fuzzers), not part of the library: the host port implements it in its log, which
// then writes nothing to stderr, and on a device libvxcam_log_sink does over liblog's logger hook
// (port/android/VxCamLogSink.cpp). Named apart from liblog's interface on purpose: a real liblog
// in the same process keeps its own meaning for every name it declares.
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

// Every later log call goes to `sink` (unfiltered by ANDROID_LOG_TAGS on a host); null restores
// the platform's own writer.
void VxCamLogSetSink(VxCamLogSinkFn sink);

#ifdef __cplusplus
}
#endif
