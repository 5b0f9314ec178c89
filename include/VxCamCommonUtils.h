// OS services for the camera HAL: one uniform face over libc and the Android property service.
//
// Status wrappers return 0 for success and 1 for failure and leave the cause in errno. None of
// these functions writes a log line, so they are safe to use from the log paths themselves.
#ifndef VXCAM_COMMON_UTILS_H
#define VXCAM_COMMON_UTILS_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/stat.h>
#include <time.h>

#ifndef VXCAM_API
#define VXCAM_API __attribute__((visibility("default")))
#endif

namespace VxCam {

// Boot-time clock: keeps counting while the device sleeps, so frame timestamps stay comparable.
struct VxCamTime {
    int64_t seconds;
    int64_t nanoSeconds;
};
static_assert(sizeof(VxCamTime) == 16, "VxCamTime is shared with hosts by layout");

// Wall-clock time broken into local calendar fields.
struct VxCamDateTime {
    int64_t seconds;  // since the Unix epoch
    // Microseconds when filled by GetDateTime(VxCamDateTime*), milliseconds when filled by
    // GetDateTime(VxCamDateTime*, long): hosts print the second form as milliseconds.
    int64_t fraction;
    int32_t second;
    int32_t minute;
    int32_t hour;
    int32_t dayOfMonth;
    int32_t month;  // 0 to 11
    int32_t year;   // years since 1900
    int32_t weekday;
    int32_t dayOfYear;
    int32_t isDaylightSaving;
    int64_t gmtOffset;  // seconds east of UTC
};
static_assert(sizeof(VxCamDateTime) == 64, "VxCamDateTime is shared with hosts by layout");
static_assert(offsetof(VxCamDateTime, second) == 16, "VxCamDateTime layout");
static_assert(offsetof(VxCamDateTime, isDaylightSaving) == 48, "VxCamDateTime layout");
static_assert(offsetof(VxCamDateTime, gmtOffset) == 56, "VxCamDateTime layout");

class VXCAM_API OsUtils {
  public:
    // ---- System properties ----
    static void GetPropertyList(void (*fn)(const char* key, const char* value, void* cookie),
                                void* cookie);
    // Length of the value read; 0 (and `value` untouched) if any pointer is null.
    static int GetPropertyString(const char* key, char* value, const char* defaultValue);
    static bool GetPropertyBool(const char* key, int defaultValue);
    static long GetPropertyINT64(const char* key, long defaultValue);
    static int GetPropertyINT32(const char* key, int defaultValue);

    // ---- Files ----
    static int Stat(const char* path, struct stat64* info);
    static int FStat(int fd, struct stat64* info);
    static FILE* FOpen(const char* path, const char* mode);
    static int FileNo(FILE* stream);
    static int FClose(FILE* stream);
    static int FDelete(const char* path);
    static int FSeek(FILE* stream, long offset, int whence);
    static long FTell(FILE* stream);
    static int FPrintF(FILE* stream, const char* format, ...) __attribute__((format(printf, 2, 3)));
    static int FScanF(FILE* stream, const char* format, ...) __attribute__((format(scanf, 2, 3)));
    // `bufferSize` is accepted for the hosts that pass it and not used.
    static size_t FRead(void* buffer, size_t bufferSize, size_t elementSize, size_t count,
                        FILE* stream);
    static size_t FWrite(const void* buffer, size_t elementSize, size_t count, FILE* stream);
    static int FFlush(FILE* stream);
    static const char* GetFileName(const char* path);
    // 0 for a missing file as for an empty one.
    static unsigned long GetFileSize(const char* path);
    // Returns 1 and the index-th (from 1) '.'-separated token of fileName, or 0.
    static int GetFileNameToken(char* fileName, unsigned int index, char* token,
                                unsigned long tokenSize);
    // Lists "com.<t1>.<t2>.<t3>.<t4>[.<t5>]" files of `directory` whose tokens match ("*" matches
    // any) into `entries`, slots of `entrySize` bytes. The caller sizes `entries` for every match.
    static unsigned int GetFilesFromPath(const char* directory, unsigned long entrySize,
                                         char* entries, const char* token1, const char* token2,
                                         const char* token3, const char* token4,
                                         const char* lastToken);
    static int Close(int fd);

    // ---- Strings ----
    static size_t StrLCpy(char* dst, const char* src, size_t size);
    static char* StrTokReentrant(char* text, const char* delimiters, char** savePointer);
    static int StrNICmp(const char* a, const char* b, size_t length);
    static size_t StrLCat(char* dst, const char* src, size_t size);
    // The message pointer, which need not be `buffer`.
    static char* StrError(char* buffer, size_t size, int errorNumber);
    // The length formatting produced before truncation.
    static int SNPrintF(char* buffer, size_t size, const char* format, ...)
            __attribute__((format(printf, 3, 4)));
    static int DPrintF(int fd, const char* format, ...) __attribute__((format(printf, 2, 3)));

    // ---- Process, threads, time ----
    static int GetThreadID();
    static int GetProcessID();
    static int GetPid();
    static int GetTime(VxCamTime* time);
    static int GetGMTime(const long* seconds, struct tm* result);
    static void GetDateTime(VxCamDateTime* dateTime);
    static void GetDateTime(VxCamDateTime* dateTime, long milliseconds);

    // ---- Android log ----
    // Writes `text` under the tag "VxCam" with the priority of debug level `level` (0 to 5).
    static int LogSystem(unsigned int level, const char* text);
};

}  // namespace VxCam

#endif  // VXCAM_COMMON_UTILS_H
