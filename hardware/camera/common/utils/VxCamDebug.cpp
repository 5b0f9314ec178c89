// The debug log frame: the global log configuration and Log::LogSystem.
#include "VxCamDebug.h"

#include <stdarg.h>
#include <time.h>

#include <log/log.h>

#include "VxCamCommonUtils.h"
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

// The offline copy carries what logcat would have added: time, pid, tid and level.
void HandOffToOfflineLogger(const char* levelLetter, const char* message) {
    VxCamOfflineLogger* logger = VxCamOfflineLogger::GetInstance(OfflineLog);
    if (logger == nullptr || logger->IsEnableOfflinelogger() == 0) return;
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local = {};
    localtime_r(&now.tv_sec, &local);
    char line[kLineSize];
    const int size = OsUtils::SNPrintF(
            line, sizeof(line), "%02d-%02d %02d:%02d:%02d:%09ld  %4d  %4d %s VxCam: %s\n",
            local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, now.tv_nsec,
            OsUtils::GetProcessID(), OsUtils::GetThreadID(), levelLetter, message);
    // The logger is told the length the line would have had; it bounds the copy to the line.
    if (size > 0) logger->AddLog(line, static_cast<unsigned int>(size));
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
    vsnprintf(message, sizeof(message), format, arguments);
    va_end(arguments);

    if ((LogMaskOfLevel(g_logInfo, level) & group) == 0) return;
    OsUtils::LogSystem(level, message);
    if (g_logInfo.offlineLogEnable != 1) return;
    HandOffToOfflineLogger(levelLetter, message);
}

}  // namespace VxCam
