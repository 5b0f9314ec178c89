// libcutils tracing on a host: sections go to the kernel's ftrace marker, so that `trace-cmd` or
// Perfetto on the host shows them like atrace does on a device.

#include <cutils/trace.h>

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <mutex>

#include <cutils/properties.h>

namespace {

std::once_flag gMarkerOnce;
int gMarkerFd = -1;

int MarkerFd() {
    try {
        std::call_once(gMarkerOnce, [] {
            // tracefs is mounted on its own in newer kernels; older ones only show it in debugfs.
            gMarkerFd = open("/sys/kernel/tracing/trace_marker", O_WRONLY | O_CLOEXEC);
            if (gMarkerFd < 0) {
                gMarkerFd = open("/sys/kernel/debug/tracing/trace_marker", O_WRONLY | O_CLOEXEC);
            }
        });
    } catch (...) {
        return -1;
    }
    return gMarkerFd;
}

void WriteMarker(const char* text, int length) {
    int fd = MarkerFd();
    if (fd < 0 || length <= 0) return;
    int savedErrno = errno;
    // A lost trace section is not worth reporting: tracing must never change how the code runs.
    ssize_t ignored = write(fd, text, static_cast<size_t>(length));
    (void)ignored;
    errno = savedErrno;
}

bool IsSpace(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v';
}

}  // namespace

extern "C" {

// Read at every call rather than cached as on a device: the host has no property service to tell
// the process about a change, and tests switch tags within one process.
// Nothing to set up: the tags are read at every call.
void atrace_init() {}

uint64_t atrace_get_enabled_tags() {
    char value[PROPERTY_VALUE_MAX];
    property_get("debug.atrace.tags.enableflags", value, "0");
    int savedErrno = errno;
    errno = 0;
    char* end = nullptr;
    uint64_t tags = strtoull(value, &end, 0);
    bool valid = errno != ERANGE && end != value;
    errno = savedErrno;
    if (valid) {
        while (IsSpace(*end)) ++end;
        valid = *end == '\0';
    }
    if (!valid) tags = 0;
    return (tags | ATRACE_TAG_ALWAYS) & ATRACE_TAG_VALID_MASK;
}

void atrace_begin_body(const char* name) {
    char buffer[1024];
    int length = snprintf(buffer, sizeof(buffer), "B|%d|%s", static_cast<int>(getpid()),
                          name != nullptr ? name : "");
    if (length >= static_cast<int>(sizeof(buffer))) length = sizeof(buffer) - 1;
    WriteMarker(buffer, length);
}

void atrace_end_body() {
    char buffer[32];
    int length = snprintf(buffer, sizeof(buffer), "E|%d", static_cast<int>(getpid()));
    WriteMarker(buffer, length);
}

}  // extern "C"
