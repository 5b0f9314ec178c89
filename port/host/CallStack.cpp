// android::CallStack on a host, unwinding the calling thread with libunwind. Lines are laid out as
// debuggerd and libutilscallstack print them, so the same symbolization scripts work on both.

#include <utils/CallStack.h>

#define UNW_LOCAL_ONLY
#include <libunwind.h>

#include <cxxabi.h>
#include <dlfcn.h>
#include <errno.h>
#include <inttypes.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <utility>

namespace android {

namespace {

constexpr size_t kMaxFrames = 64;

// A return address points after the call; stepping back into the call instruction makes the pc,
// and the symbol found for it, name the call site even when the call was a function's last
// instruction. The step is what Android's unwinder uses per architecture.
#if defined(__aarch64__) || defined(__riscv)
constexpr uint64_t kCallAdjustment = 4;
#elif defined(__arm__)
constexpr uint64_t kCallAdjustment = 2;
#else
constexpr uint64_t kCallAdjustment = 1;
#endif

// glibc names the main program by argv[0], which may be relative or empty; a device names the
// file itself. Reading the link costs no allocation, so this stays usable in a signal handler.
const char* ObjectPath(const char* name, char* buffer, size_t size) {
    if (name == nullptr) return "<unknown>";
    if (name[0] != '/' && (name[0] == '\0' || strcmp(name, program_invocation_name) == 0)) {
        ssize_t length = readlink("/proc/self/exe", buffer, size - 1);
        if (length > 0 && static_cast<size_t>(length) < size - 1) {
            buffer[length] = '\0';
            return buffer;
        }
    }
    return name[0] != '\0' ? name : "<unknown>";
}

// One line of the device layout: "#00 pc 000000000001a2b4  /path/libx.so (Symbol+12)".
void FormatFrame(unw_cursor_t* cursor, uint64_t ip, uint64_t adjustment, size_t index,
                 String8* line) {
    uint64_t pc = ip - adjustment;
    const char* path = "<unknown>";
    char pathBuffer[512];
    uint64_t relativePc = pc;
    Dl_info info = {};
    if (dladdr(reinterpret_cast<void*>(static_cast<uintptr_t>(pc)), &info) != 0 &&
        info.dli_fbase != nullptr) {
        relativePc = pc - reinterpret_cast<uintptr_t>(info.dli_fbase);
        path = ObjectPath(info.dli_fname, pathBuffer, sizeof(pathBuffer));
    }
    line->appendFormat("#%02zu pc %016" PRIx64 "  %s", index, relativePc, path);

    char name[512];
    unw_word_t offset = 0;
    int found = unw_get_proc_name(cursor, name, sizeof(name), &offset);
    // -UNW_ENOMEM still leaves a terminated, merely shortened name worth showing.
    if ((found != 0 && found != -UNW_ENOMEM) || name[0] == '\0') return;
    int status = 0;
    char* demangled = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    // libunwind measures from the return address; the line shows the adjusted pc.
    uint64_t symbolOffset = static_cast<uint64_t>(offset);
    symbolOffset = symbolOffset >= adjustment ? symbolOffset - adjustment : 0;
    line->appendFormat(" (%s+%" PRIu64 ")", status == 0 && demangled != nullptr ? demangled : name,
                       symbolOffset);
    free(demangled);
}

}  // namespace

CallStack::CallStack() {}

// Not inlined, so that this constructor is exactly one frame for the +1 below to leave out.
__attribute__((noinline)) CallStack::CallStack(const char* logtag, int32_t ignoreDepth) {
    // The constructor is one more frame between the caller and update, as in libutilscallstack.
    update(ignoreDepth < INT32_MAX ? ignoreDepth + 1 : ignoreDepth);
    log(logtag);
}

CallStack::~CallStack() {}

// Not inlined: the caller counts this function as the first of the frames to leave out.
__attribute__((noinline)) void CallStack::update(int32_t ignoreDepth, pid_t tid) {
    clear();
    // libunwind can walk another thread only through ptrace, which a process cannot do to itself.
    if (tid != BACKTRACE_CURRENT_THREAD && tid != gettid()) return;

    unw_context_t context;
    unw_cursor_t cursor;
    if (unw_getcontext(&context) != 0 || unw_init_local(&cursor, &context) != 0) return;
    try {
        mFrameLines.reserve(kMaxFrames);
    } catch (...) {
        return;
    }

    int32_t toSkip = ignoreDepth > 0 ? ignoreDepth : 0;
    bool previousWasSignalFrame = false;
    for (size_t depth = 0; mFrameLines.size() < kMaxFrames; ++depth) {
        // One step ahead: whether the next frame is a signal frame tells what this one is.
        unw_cursor_t next = cursor;
        bool hasNext = unw_step(&next) > 0;
        bool signalFrame = unw_is_signal_frame(&cursor) > 0;
        bool nextIsSignalFrame = hasNext && unw_is_signal_frame(&next) > 0;
#if defined(__x86_64__)
        // libunwind on x86_64 flags the frame whose registers came from a signal context, i.e.
        // the interrupted frame; the trampoline is the frame before it.
        bool trampoline = nextIsSignalFrame;
        bool interrupted = signalFrame;
        (void)previousWasSignalFrame;
#else
        // Elsewhere libunwind recognises the trampoline by its code; the frame after it is the
        // interrupted one.
        bool trampoline = signalFrame;
        bool interrupted = previousWasSignalFrame;
        (void)nextIsSignalFrame;
#endif
        if (toSkip > 0) {
            --toSkip;
        } else {
            unw_word_t ip = 0;
            if (unw_get_reg(&cursor, UNW_REG_IP, &ip) != 0 || ip == 0) break;
            // The innermost frame, the signal trampoline (entered by the kernel, not by a call)
            // and the frame a signal interrupted hold the exact pc rather than a return address.
            bool exact = depth == 0 || trampoline || interrupted;
            uint64_t adjustment = !exact && ip >= kCallAdjustment ? kCallAdjustment : 0;
            String8 line;
            FormatFrame(&cursor, static_cast<uint64_t>(ip), adjustment, mFrameLines.size(), &line);
            try {
                mFrameLines.push_back(std::move(line));
            } catch (...) {
                break;
            }
        }
        if (!hasNext) break;
        previousWasSignalFrame = signalFrame;
        cursor = next;
    }
}

void CallStack::log(const char* logtag, android_LogPriority priority, const char* prefix) const {
    for (const String8& line : mFrameLines) {
        __android_log_print(priority, logtag, "%s%s", prefix != nullptr ? prefix : "", line.c_str());
    }
}

void CallStack::dump(int fd, int indent, const char* prefix) const {
    if (fd < 0) return;
    for (const String8& line : mFrameLines) {
        dprintf(fd, "%*s%s%s\n", indent > 0 ? indent : 0, "", prefix != nullptr ? prefix : "",
                line.c_str());
    }
}

String8 CallStack::toString(const char* prefix) const {
    String8 text;
    for (const String8& line : mFrameLines) {
        if (prefix != nullptr) text.append(prefix);
        text.append(line);
        text.append("\n");
    }
    return text;
}

}  // namespace android
