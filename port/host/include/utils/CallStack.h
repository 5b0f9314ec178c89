// Host stand-in for libutilscallstack's android::CallStack, unwinding with libunwind.
//
// Frames are rendered as on a device:
//   "#00 pc 000000000001a2b4  /path/libx.so (Symbol+12)"
// where pc is relative to the start of the mapped file and the offset after the symbol is decimal.
// Only the calling thread can be unwound on a host; another tid gives an empty stack.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <vector>

#include <android/log.h>
#include <utils/String8.h>

#define BACKTRACE_CURRENT_THREAD (-1)

namespace android {

class CallStack {
  public:
    CallStack();
    // Unwinds at once, then logs the stack under `logtag` at debug priority.
    CallStack(const char* logtag, int32_t ignoreDepth = 1);
    ~CallStack();

    void clear() { mFrameLines.clear(); }
    // Captures the stack of `tid`, leaving out the innermost `ignoreDepth` frames (update itself is
    // one of them).
    void update(int32_t ignoreDepth = 1, pid_t tid = BACKTRACE_CURRENT_THREAD);
    void log(const char* logtag, android_LogPriority priority = ANDROID_LOG_DEBUG,
             const char* prefix = nullptr) const;
    void dump(int fd, int indent = 0, const char* prefix = nullptr) const;
    // Every frame line, each preceded by `prefix` and followed by '\n'.
    String8 toString(const char* prefix = nullptr) const;
    size_t size() const { return mFrameLines.size(); }

  private:
    std::vector<String8> mFrameLines;
};

}  // namespace android
