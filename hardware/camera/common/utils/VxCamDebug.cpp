// The debug log frame: the global log configuration and Log::LogSystem.
#include "VxCamDebug.h"

#include <pthread.h>
#include <stdarg.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <atomic>

#include <log/log.h>

#include "VxCamCommonUtils.h"
#include "VxCamLocalTime.h"
#include "VxCamOfflineLogger.h"
#include "VxCamStaticSetting.h"

namespace VxCam {

// Before the settings load everything is let through to LogSystem, which loads them first.
DebugLogInfo g_logInfo = {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0, 0, 0, nullptr, 1, 0, 0};
uint64_t g_traceInfo = 0;
uint32_t g_logInfoUpdated = 0;
uint32_t g_logInfoStored = 0;

namespace {

constexpr const char kTag[] = "VxCam";
constexpr size_t kLineSize = 1024;  // one log line, terminator included

// ---- Hand-off to the default offline logger ------------------------------------------------

// Raised in the child of a fork: its process id and its one thread's id are new.
std::atomic<uint32_t> s_forkGeneration{0};

void RegisterForkHandler() {
    static const int registered =
            pthread_atfork(nullptr, nullptr, [] { s_forkGeneration.fetch_add(1); });
    (void)registered;
}

// The parts of this thread's offline lines that change slower than the lines: the wall-clock
// second ("MM-DD hh:mm:ss:") and the ids ("  %4d  %4d " of pid and tid). Each is formatted with the
// conversions of the whole line, so a line assembled from them is the same text, byte for byte;
// what a line saves is a local-time conversion, two system calls and most of a printf.
struct OfflineLinePrefix {
    time_t second;
    size_t clockLength;  // 0: not formatted yet
    char clock[64];
    uint32_t forkGeneration;
    size_t idsLength;  // 0: not formatted yet
    char ids[32];
};
thread_local OfflineLinePrefix t_linePrefix = {};

// Appends to a line of kLineSize as snprintf would: what fits is written, everything is counted.
class LineWriter {
  public:
    explicit LineWriter(char* line) : m_line(line) {}
    void Put(const char* text, size_t length) {
        if (m_length < kLineSize - 1) {
            memcpy(m_line + m_length, text, std::min(length, kLineSize - 1 - m_length));
        }
        m_length += length;
    }
    // Terminates the line and returns its uncut length.
    size_t Finish() {
        m_line[std::min(m_length, kLineSize - 1)] = '\0';
        return m_length;
    }

  private:
    char* m_line;
    size_t m_length = 0;
};

// The frame that the logging macros put in front of every format: "[LABEL   ]%s %s:<line> %s() ",
// for the group tag, the source's base name and the function. Copied here as printf would print
// it, which costs a fraction of printf finding and converting it; the rest of the format goes to
// vsnprintf. Returns false, with nothing written, for a format that does not start so.
bool FormatFramed(char* out, size_t size, const char* format, va_list arguments) {
    const char* closing = static_cast<const char*>(memchr(format, ']', strnlen(format, 16)));
    if (format[0] != '[' || closing == nullptr || strncmp(closing + 1, "%s %s:", 6) != 0) {
        return false;
    }
    const char* digits = closing + 7;
    const char* digitsEnd = digits;
    while (*digitsEnd >= '0' && *digitsEnd <= '9') ++digitsEnd;
    if (digitsEnd == digits || strncmp(digitsEnd, " %s() ", 6) != 0) return false;
    const auto text = [](const char* s) { return s != nullptr ? s : "(null)"; };
    const char* group = text(va_arg(arguments, const char*));
    const char* file = text(va_arg(arguments, const char*));
    const char* function = text(va_arg(arguments, const char*));
    LineWriter writer(out);
    writer.Put(format, static_cast<size_t>(closing + 1 - format));
    writer.Put(group, strlen(group));
    writer.Put(" ", 1);
    writer.Put(file, strlen(file));
    writer.Put(":", 1);
    writer.Put(digits, static_cast<size_t>(digitsEnd - digits));
    writer.Put(" ", 1);
    writer.Put(function, strlen(function));
    writer.Put("() ", 3);
    const size_t used = writer.Finish();
    if (used < size - 1) vsnprintf(out + used, size - used, digitsEnd + 6, arguments);
    return true;
}

// The offline copy carries what logcat would have added: time, pid, tid and level.
void HandOffToOfflineLogger(const char* levelLetter, const char* message) {
    VxCamOfflineLogger* logger = VxCamOfflineLogger::GetInstance(OfflineLog);
    if (logger == nullptr || logger->IsEnableOfflinelogger() == 0) return;
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    OfflineLinePrefix& prefix = t_linePrefix;
    if (prefix.clockLength == 0 || prefix.second != now.tv_sec) {
        tm local = {};
        // A zone changed while the camera runs shows from the next second on.
        LocalTime(&now.tv_sec, &local);
        const int length = snprintf(prefix.clock, sizeof(prefix.clock),
                                    "%02d-%02d %02d:%02d:%02d:", local.tm_mon + 1, local.tm_mday,
                                    local.tm_hour, local.tm_min, local.tm_sec);
        prefix.second = now.tv_sec;
        prefix.clockLength = length > 0 ? std::min<size_t>(length, sizeof(prefix.clock) - 1) : 0;
    }
    RegisterForkHandler();
    const uint32_t generation = s_forkGeneration.load(std::memory_order_relaxed);
    if (prefix.idsLength == 0 || prefix.forkGeneration != generation) {
        const int length = snprintf(prefix.ids, sizeof(prefix.ids), "  %4d  %4d ",
                                    OsUtils::GetProcessID(), OsUtils::GetThreadID());
        prefix.forkGeneration = generation;
        prefix.idsLength = length > 0 ? std::min<size_t>(length, sizeof(prefix.ids) - 1) : 0;
    }
    // "%09ld" of the nanoseconds, which clock_gettime keeps below a second.
    char nanoseconds[32];  // room for any long
    size_t nanosecondsLength = 9;
    if (now.tv_nsec >= 0 && now.tv_nsec < 1000000000L) {
        long value = now.tv_nsec;
        for (int i = 8; i >= 0; --i, value /= 10)
            nanoseconds[i] = static_cast<char>('0' + value % 10);
    } else {
        const int length =
                snprintf(nanoseconds, sizeof(nanoseconds), "%09ld", static_cast<long>(now.tv_nsec));
        nanosecondsLength = length > 0 ? std::min<size_t>(length, sizeof(nanoseconds) - 1) : 0;
    }
    // "%s" prints a null string as "(null)".
    const char* letter = levelLetter != nullptr ? levelLetter : "(null)";
    static const char kTagText[] = " VxCam: ";

    // "%02d-%02d %02d:%02d:%02d:%09ld  %4d  %4d %s VxCam: %s\n"
    char line[kLineSize];
    LineWriter writer(line);
    writer.Put(prefix.clock, prefix.clockLength);
    writer.Put(nanoseconds, nanosecondsLength);
    writer.Put(prefix.ids, prefix.idsLength);
    writer.Put(letter, strlen(letter));
    writer.Put(kTagText, sizeof(kTagText) - 1);
    writer.Put(message, strnlen(message, kLineSize));
    writer.Put("\n", 1);
    const size_t size = writer.Finish();
    // The logger is told the length the line would have had; it bounds the copy to the line.
    logger->AddLog(line, static_cast<unsigned int>(size));
}

}  // namespace

int Log::UpdateLogInfo() {
    if (g_logInfo.pLogFile != nullptr) {
        OsUtils::FClose(g_logInfo.pLogFile);
        g_logInfo.pLogFile = nullptr;
    }
    VxCamStaticSetting* settings = VxCamStaticSetting::GetInstance();
    // The error mask is deliberately not loaded: errors pass in every group.
    g_logInfo.debugMask = settings->GetPorpertyIntegerValue("LogDebugMask");
    g_logInfo.warningMask = settings->GetPorpertyIntegerValue("LogWranningMask");
    g_logInfo.infoMask = settings->GetPorpertyIntegerValue("LogInfoMask");
    g_logInfo.verboseMask = settings->GetPorpertyIntegerValue("LogVerboseMask");
    g_logInfo.systemLogEnable = settings->GetPorpertyIntegerValue("LogEnable");
    g_logInfo.offlineLogEnable = settings->GetPorpertyIntegerValue("LogOfflineEnable");
    g_logInfo.pLogFile = nullptr;
    g_logInfo.isUpdated = 1;
    g_traceInfo = (g_traceInfo & 0xFFFFFFFF00000000ull) |
                  settings->GetPorpertyIntegerValue("TraceLogMask");
    __android_log_print(ANDROID_LOG_INFO, kTag,
                        "%s:%d UpdateLogInfo() system log enable %d, offline log enable %d debug "
                        "log mask 0x%x, wraning log mask 0x%x, info log mask 0x%x, verb log mask "
                        "0x%x",
                        "VxCamDebug", __LINE__, g_logInfo.systemLogEnable,
                        g_logInfo.offlineLogEnable, g_logInfo.debugMask, g_logInfo.warningMask,
                        g_logInfo.infoMask, g_logInfo.verboseMask);
    if (g_logInfo.offlineLogEnable == 1) {
        VxCamOfflineLogger* logger = VxCamOfflineLogger::GetInstance(OfflineLog);
        if (logger != nullptr) logger->SetLogInfoMask(&g_logInfo);
    }
    return 0;
}

const char* Log::GetFileName(const char* path) {
    return OsUtils::GetFileName(path);
}

void Log::LogSystem(unsigned int group, const char* levelLetter, unsigned int level,
                    const char* format, ...) {
    if (g_logInfo.isUpdated == 0) UpdateLogInfo();
    if (g_logInfo.systemLogEnable != 1 || format == nullptr) return;

    char message[kLineSize];
    va_list arguments;
    va_start(arguments, format);
    if (!FormatFramed(message, sizeof(message), format, arguments)) {
        va_end(arguments);
        va_start(arguments, format);
        vsnprintf(message, sizeof(message), format, arguments);
    }
    va_end(arguments);

    if ((LogMaskOfLevel(g_logInfo, level) & group) == 0) return;
    OsUtils::LogSystem(level, message);
    if (g_logInfo.offlineLogEnable != 1) return;
    HandOffToOfflineLogger(levelLetter, message);
}

}  // namespace VxCam
