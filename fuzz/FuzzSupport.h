// Shared by the fuzzers: a quiet Android log that still formats every line, and the check that
// turns a broken invariant into a crash libFuzzer keeps the input of.
#ifndef VXCAM_FUZZ_SUPPORT_H
#define VXCAM_FUZZ_SUPPORT_H

#include <stdio.h>
#include <stdlib.h>

#include <VxCamLogSink.h>
#include <android/log.h>

#include "VxCamDebug.h"

namespace vxcamfuzz {

inline void DropLine(const struct VxCamLogMessage*) {}

// Every debug line of every group and level is formatted, so the sanitizers see the formatting of
// what the fuzzed input put into it; the lines themselves go nowhere, at the speed of a dropped
// line. Lines stay out of the offline logger.
inline void FormatEveryLineQuietly() {
    VxCamLogSetSink(DropLine);
    VxCam::DebugLogInfo& info = VxCam::g_logInfo;
    info.debugMask = info.errorMask = info.warningMask = info.level3Mask = 0xFFFFFFFFu;
    info.infoMask = info.verboseMask = 0xFFFFFFFFu;
    info.systemLogEnable = 1;
    info.offlineLogEnable = 0;
}

}  // namespace vxcamfuzz

// A broken invariant aborts; libFuzzer reports it as a crash and writes the input out.
#define FUZZ_CHECK(condition)                                                                 \
    do {                                                                                      \
        if (!(condition)) {                                                                   \
            fprintf(stderr, "%s:%d: invariant broken: %s\n", __FILE__, __LINE__, #condition); \
            abort();                                                                          \
        }                                                                                     \
    } while (0)

#endif  // VXCAM_FUZZ_SUPPORT_H
