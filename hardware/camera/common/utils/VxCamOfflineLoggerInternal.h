// What the offline logger's own files share, and no other file includes: VxCamOfflineLogger.cpp
// (instances, the memory pool, the capture, camera sessions, the entry table),
// VxCamOfflineLoggerFlush.cpp (flushing and file naming), VxCamOfflineLoggerRetention.cpp
// (retention, crash backup, core-dump settings, the status report) and VxCamSignalCatcher.cpp (the
// crash report). They are one class's parts, split for size: each may rely on the others' state.
//
// The thread-locals here tell the later steps on the same thread, a crash report among them, what
// the thread is in the middle of.
#ifndef VXCAM_OFFLINE_LOGGER_INTERNAL_H
#define VXCAM_OFFLINE_LOGGER_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

#include <log/log.h>

#include "VxCamCaptureLock.h"
#include "VxCamOfflineLogger.h"

// The logger's own diagnostics go straight to the Android log: they must not re-enter the capture.
#define OFFLINE_LOG(priority, fmt, ...) \
    __android_log_print(priority, "VxCam", "%s():%d " fmt "\n", __func__, __LINE__, ##__VA_ARGS__)
#define OFFLINE_LOGE(fmt, ...) OFFLINE_LOG(ANDROID_LOG_ERROR, fmt, ##__VA_ARGS__)
#define OFFLINE_LOGW(fmt, ...) OFFLINE_LOG(ANDROID_LOG_WARN, fmt, ##__VA_ARGS__)

namespace VxCam {

#pragma GCC visibility push(hidden)

constexpr const char kDeviceRoot[] = "/data/vendor/camera";
constexpr float kBytesToMB = 9.536743e-07f;
constexpr uint32_t kStateActive = 0;
constexpr uint32_t kStateClosing = 1;
constexpr uint32_t kStateDisabled = 2;
constexpr size_t kPathSize = 4096;

inline bool IsValidType(uint32_t type) {
    return (type & 0xFC) == 0;
}

// The type is 32 bits wide and only bits 2 to 7 make it invalid: every per-type array is indexed
// by the two low bits, never by the value itself.
constexpr uint32_t TypeIndex(uint32_t type) {
    return type & 3;
}

// The capture lock of every logger (m_pThreadLock points to it): the crash report takes it by name.
extern OfflineLoggerThreadLock s_threadLock;

// The text or binary logger whose camera close is flushing everything on this thread: the session
// ends with that flush, so no registration it finds is used again.
extern __thread const VxCamOfflineLogger* t_sessionEndingLogger;

// The session that the status report on this thread speaks of, when not the current one.
extern __thread uint32_t t_reportedSession;

// Registers the signal catcher the first time a logger with a memory pool starts (GetSettingLink).
void RegisterSignalHandlersOnce();

#pragma GCC visibility pop

}  // namespace VxCam

#endif  // VXCAM_OFFLINE_LOGGER_INTERNAL_H
