// liblog for a Linux host: every message goes to stderr in the layout of `logcat -v threadtime`,
// so that host logs read, grep and parse like device logs, or to the sink a program installed.

#include <android/log.h>

#include <VxCamLogSink.h>

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

namespace {

std::atomic<VxCamLogSinkFn> gSink{nullptr};

// liblog keeps errno intact across a log call: callers log a failure and then report errno.
class ErrnoRestorer {
  public:
    ErrnoRestorer() : mSaved(errno) {}
    ~ErrnoRestorer() { errno = mSaved; }
    ErrnoRestorer(const ErrnoRestorer&) = delete;
    ErrnoRestorer& operator=(const ErrnoRestorer&) = delete;

  private:
    int mSaved;
};

// ---- ANDROID_LOG_TAGS --------------------------------------------------------------------------
// Fixed-size tables rather than containers: the filter is consulted from signal handlers, and its
// one-time parse must not be able to throw out of a C entry point.
constexpr size_t kMaxTagFilters = 32;
constexpr size_t kMaxFilterTagLength = 64;

struct TagFilter {
    char tag[kMaxFilterTagLength + 1];
    int minPriority;
};

struct LogFilter {
    bool active = false;     // ANDROID_LOG_TAGS set and non-empty
    int defaultMinimum = 0;  // "*:x"; 0 lets everything through
    size_t count = 0;
    TagFilter tags[kMaxTagFilters];
};

int PriorityFromLetter(char letter) {
    switch (letter) {
        case 'v':
        case 'V':
            return ANDROID_LOG_VERBOSE;
        case 'd':
        case 'D':
            return ANDROID_LOG_DEBUG;
        case 'i':
        case 'I':
            return ANDROID_LOG_INFO;
        case 'w':
        case 'W':
            return ANDROID_LOG_WARN;
        case 'e':
        case 'E':
            return ANDROID_LOG_ERROR;
        case 'f':
        case 'F':
            return ANDROID_LOG_FATAL;
        case 's':
        case 'S':
            return ANDROID_LOG_SILENT;
        default:
            return -1;
    }
}

bool IsFilterSeparator(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == ',';
}

// One "tag:letter" item. As in logcat, a tag without a letter means verbose; an item logcat would
// reject (unknown letter, oversized tag) is skipped rather than poisoning the whole filter.
void AddFilterItem(LogFilter* filter, const char* item, size_t length) {
    const char* colon = nullptr;
    for (size_t i = length; i > 0; --i) {
        if (item[i - 1] == ':') {
            colon = item + i - 1;
            break;
        }
    }
    size_t tagLength = colon != nullptr ? static_cast<size_t>(colon - item) : length;
    int priority = ANDROID_LOG_VERBOSE;
    if (colon != nullptr) {
        if (item + length - colon != 2) return;
        priority = PriorityFromLetter(colon[1]);
        if (priority < 0) return;
    }
    if (tagLength == 0 || tagLength > kMaxFilterTagLength) return;
    if (tagLength == 1 && item[0] == '*') {
        filter->defaultMinimum = priority;
        return;
    }
    for (size_t i = 0; i < filter->count; ++i) {
        TagFilter& existing = filter->tags[i];
        if (strlen(existing.tag) == tagLength && memcmp(existing.tag, item, tagLength) == 0) {
            existing.minPriority = priority;
            return;
        }
    }
    if (filter->count == kMaxTagFilters) return;
    TagFilter& added = filter->tags[filter->count++];
    memcpy(added.tag, item, tagLength);
    added.tag[tagLength] = '\0';
    added.minPriority = priority;
}

LogFilter ParseLogFilter() {
    LogFilter filter;
    const char* spec = getenv("ANDROID_LOG_TAGS");
    if (spec == nullptr || spec[0] == '\0') return filter;
    filter.active = true;
    const char* p = spec;
    while (*p != '\0') {
        while (*p != '\0' && IsFilterSeparator(*p)) ++p;
        const char* start = p;
        while (*p != '\0' && !IsFilterSeparator(*p)) ++p;
        if (p > start) AddFilterItem(&filter, start, static_cast<size_t>(p - start));
    }
    return filter;
}

const LogFilter& GetLogFilter() {
    static const LogFilter filter = ParseLogFilter();
    return filter;
}

bool StderrFilterPasses(int priority, const char* tag) {
    const LogFilter& filter = GetLogFilter();
    if (!filter.active) return true;
    int minimum = filter.defaultMinimum;
    for (size_t i = 0; i < filter.count; ++i) {
        if (strcmp(filter.tags[i].tag, tag) == 0) {
            minimum = filter.tags[i].minPriority;
            break;
        }
    }
    if (minimum >= ANDROID_LOG_SILENT) return false;
    return priority >= minimum;
}

// ---- The stderr logger ---------------------------------------------------------------------------
char PriorityLetter(int priority) {
    switch (priority) {
        case ANDROID_LOG_VERBOSE:
            return 'V';
        case ANDROID_LOG_DEBUG:
            return 'D';
        case ANDROID_LOG_INFO:
            return 'I';
        case ANDROID_LOG_WARN:
            return 'W';
        case ANDROID_LOG_ERROR:
            return 'E';
        case ANDROID_LOG_FATAL:
            return 'F';
        case ANDROID_LOG_SILENT:
            return 'S';
        default:
            return '?';
    }
}

void WriteFully(int fd, const char* data, size_t length) {
    while (length > 0) {
        ssize_t written = write(fd, data, length);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;
        data += written;
        length -= static_cast<size_t>(written);
    }
}

// Everything of one line except its text: "MM-DD HH:MM:SS.mmm  pid   tid P tag     : ".
struct LinePrefix {
    char fixed[64];
    size_t fixedLength;
    const char* tag;
    size_t tagLength;
    size_t padding;

    size_t length() const { return fixedLength + tagLength + padding + 2; }

    char* CopyTo(char* out) const {
        memcpy(out, fixed, fixedLength);
        out += fixedLength;
        memcpy(out, tag, tagLength);
        out += tagLength;
        memset(out, ' ', padding);
        out += padding;
        *out++ = ':';
        *out++ = ' ';
        return out;
    }
};

LinePrefix MakeLinePrefix(int priority, const char* tag) {
    LinePrefix prefix;
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm local = {};
    time_t seconds = now.tv_sec;
    localtime_r(&seconds, &local);
    int written = snprintf(prefix.fixed, sizeof(prefix.fixed),
                           "%02d-%02d %02d:%02d:%02d.%03d %5d %5d %c ", local.tm_mon + 1,
                           local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                           static_cast<int>(now.tv_nsec / 1000000), static_cast<int>(getpid()),
                           static_cast<int>(gettid()), PriorityLetter(priority));
    if (written < 0) written = 0;
    prefix.fixedLength = static_cast<size_t>(written) < sizeof(prefix.fixed)
                                 ? static_cast<size_t>(written)
                                 : sizeof(prefix.fixed) - 1;
    prefix.tag = tag;
    prefix.tagLength = strlen(tag);
    prefix.padding = prefix.tagLength < 8 ? 8 - prefix.tagLength : 0;
    return prefix;
}

// Calls fn(lineStart, lineLength) for every text line of `message`. Trailing line feeds end the
// last line rather than open empty ones, so "x\n" logs as one line; "" still logs one empty line.
template <typename Fn>
void ForEachLine(const char* message, Fn fn) {
    size_t length = strlen(message);
    while (length > 0 && message[length - 1] == '\n') --length;
    const char* p = message;
    const char* end = message + length;
    for (;;) {
        const char* lineEnd =
                static_cast<const char*>(memchr(p, '\n', static_cast<size_t>(end - p)));
        if (lineEnd == nullptr) lineEnd = end;
        fn(p, static_cast<size_t>(lineEnd - p));
        if (lineEnd == end) break;
        p = lineEnd + 1;
    }
}

// Filtered by ANDROID_LOG_TAGS before it is called (DroppedBy).
void StderrSink(const struct VxCamLogMessage* log_message) {
    const char* tag = log_message->tag;
    const char* message = log_message->message;

    const LinePrefix prefix = MakeLinePrefix(log_message->priority, tag);
    size_t total = 0;
    ForEachLine(message, [&](const char*, size_t length) { total += prefix.length() + length + 1; });

    // One write(2) for the whole message keeps concurrent threads from interleaving inside it.
    // The stack buffer covers ordinary messages without touching the heap (signal handlers).
    char stackBuffer[2048];
    char* buffer = stackBuffer;
    if (total > sizeof(stackBuffer)) {
        buffer = static_cast<char*>(malloc(total));
    }
    if (buffer == nullptr) {
        // No memory for the whole text: line by line still beats losing it.
        ForEachLine(message, [&](const char* line, size_t length) {
            WriteFully(STDERR_FILENO, prefix.fixed, prefix.fixedLength);
            WriteFully(STDERR_FILENO, prefix.tag, prefix.tagLength);
            WriteFully(STDERR_FILENO, "        ", prefix.padding);
            WriteFully(STDERR_FILENO, ": ", 2);
            WriteFully(STDERR_FILENO, line, length);
            WriteFully(STDERR_FILENO, "\n", 1);
        });
        return;
    }
    char* out = buffer;
    ForEachLine(message, [&](const char* line, size_t length) {
        out = prefix.CopyTo(out);
        memcpy(out, line, length);
        out += length;
        *out++ = '\n';
    });
    WriteFully(STDERR_FILENO, buffer, static_cast<size_t>(out - buffer));
    if (buffer != stackBuffer) free(buffer);
}

VxCamLogSinkFn CurrentSink() {
    VxCamLogSinkFn sink = gSink.load(std::memory_order_acquire);
    return sink != nullptr ? sink : StderrSink;
}

// ANDROID_LOG_TAGS belongs to the stderr writer; a sink of the program's own sees everything.
bool DroppedBy(VxCamLogSinkFn sink, int priority, const char* tag) {
    return sink == StderrSink && !StderrFilterPasses(priority, tag);
}

}  // namespace

extern "C" {

void VxCamLogSetSink(VxCamLogSinkFn sink) {
    gSink.store(sink, std::memory_order_release);
}

int __android_log_write(int prio, const char* tag, const char* text) {
    ErrnoRestorer errnoRestorer;
    if (tag == nullptr) tag = "";
    if (text == nullptr) text = "";
    const VxCamLogSinkFn sink = CurrentSink();
    if (DroppedBy(sink, prio, tag)) return -EPERM;
    const struct VxCamLogMessage message = {prio, tag, text};
    sink(&message);
    return 1;
}

int __android_log_vprint(int prio, const char* tag, const char* fmt, va_list ap) {
    ErrnoRestorer errnoRestorer;
    if (tag == nullptr) tag = "";
    // Filtering before formatting spares the vsnprintf of every dropped verbose line.
    if (DroppedBy(CurrentSink(), prio, tag)) return -EPERM;
    char buffer[1024];
    if (fmt == nullptr) {
        buffer[0] = '\0';
    } else if (vsnprintf(buffer, sizeof(buffer), fmt, ap) < 0) {
        buffer[0] = '\0';
    }
    return __android_log_write(prio, tag, buffer);
}

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int result = __android_log_vprint(prio, tag, fmt, ap);
    va_end(ap);
    return result;
}

// The fatal half of LOG_ALWAYS_FATAL and friends, which Android's own headers expand to.
void __android_log_assert(const char* cond, const char* tag, const char* fmt, ...) {
    char buffer[1024];
    if (fmt != nullptr) {
        va_list ap;
        va_start(ap, fmt);
        vsnprintf(buffer, sizeof(buffer), fmt, ap);
        va_end(ap);
    } else {
        snprintf(buffer, sizeof(buffer), "Assertion failed: %s", cond != nullptr ? cond : "");
    }
    __android_log_write(ANDROID_LOG_FATAL, tag, buffer);
    abort();
}

}  // extern "C"
