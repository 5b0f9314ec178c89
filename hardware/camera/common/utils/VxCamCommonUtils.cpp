// OS services core: files, properties, strings, ids, clocks and a directory scan.
#include "VxCamCommonUtils.h"

#include <dirent.h>
#include <errno.h>
#include <stdarg.h>
#include <string.h>
#include <strings.h>
#include <sys/time.h>
#include <unistd.h>

#include <cutils/properties.h>
#include <log/log.h>

#include <vector>

namespace VxCam {

namespace {

constexpr size_t kNameWorkSize = 4096;  // PATH_MAX: longer names are cut, not rejected

// Android priority of each debug level; anything above verbose is reported as an error.
constexpr int kLevelPriority[] = {ANDROID_LOG_DEBUG, ANDROID_LOG_ERROR, ANDROID_LOG_WARN,
                                  ANDROID_LOG_ERROR, ANDROID_LOG_INFO,  ANDROID_LOG_VERBOSE};

int Status(int result) {
    return result == 0 ? 0 : 1;
}

void FillCalendar(VxCamDateTime* dateTime, const tm& local) {
    dateTime->second = local.tm_sec;
    dateTime->minute = local.tm_min;
    dateTime->hour = local.tm_hour;
    dateTime->dayOfMonth = local.tm_mday;
    dateTime->month = local.tm_mon;
    dateTime->year = local.tm_year;
    dateTime->weekday = local.tm_wday;
    dateTime->dayOfYear = local.tm_yday;
    dateTime->isDaylightSaving = local.tm_isdst;
    dateTime->gmtOffset = local.tm_gmtoff;
}

}  // namespace

// ---- System properties ---------------------------------------------------------------------

void OsUtils::GetPropertyList(void (*fn)(const char*, const char*, void*), void* cookie) {
    if (fn != nullptr && cookie != nullptr) property_list(fn, cookie);
}

int OsUtils::GetPropertyString(const char* key, char* value, const char* defaultValue) {
    if (key == nullptr || value == nullptr || defaultValue == nullptr) return 0;
    return property_get(key, value, defaultValue);
}

bool OsUtils::GetPropertyBool(const char* key, int defaultValue) {
    if (key == nullptr) return false;
    return property_get_bool(key, static_cast<int8_t>(defaultValue)) != 0;
}

long OsUtils::GetPropertyINT64(const char* key, long defaultValue) {
    if (key == nullptr) return 0;
    return property_get_int64(key, defaultValue);
}

int OsUtils::GetPropertyINT32(const char* key, int defaultValue) {
    if (key == nullptr) return 0;
    return property_get_int32(key, defaultValue);
}

// ---- Files ---------------------------------------------------------------------------------
// Null streams are refused here rather than handed to libc, which would fault on them.

int OsUtils::Stat(const char* path, struct stat64* info) {
    if (path == nullptr || info == nullptr) return 1;
    return Status(stat64(path, info));
}

int OsUtils::FStat(int fd, struct stat64* info) {
    if (info == nullptr) return 1;
    return Status(fstat64(fd, info));
}

FILE* OsUtils::FOpen(const char* path, const char* mode) {
    if (path == nullptr || mode == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    return fopen(path, mode);
}

int OsUtils::FileNo(FILE* stream) {
    return stream != nullptr ? fileno(stream) : -1;
}

int OsUtils::FClose(FILE* stream) {
    return stream != nullptr ? Status(fclose(stream)) : 1;
}

int OsUtils::FDelete(const char* path) {
    return path != nullptr ? Status(unlink(path)) : 1;
}

int OsUtils::FSeek(FILE* stream, long offset, int whence) {
    return stream != nullptr ? Status(fseeko(stream, offset, whence)) : 1;
}

long OsUtils::FTell(FILE* stream) {
    return stream != nullptr ? ftello(stream) : -1;
}

int OsUtils::FPrintF(FILE* stream, const char* format, ...) {
    if (stream == nullptr || format == nullptr) return -1;
    va_list arguments;
    va_start(arguments, format);
    const int result = vfprintf(stream, format, arguments);
    va_end(arguments);
    return result;
}

int OsUtils::FScanF(FILE* stream, const char* format, ...) {
    if (stream == nullptr || format == nullptr) return EOF;
    va_list arguments;
    va_start(arguments, format);
    const int result = vfscanf(stream, format, arguments);
    va_end(arguments);
    return result;
}

size_t OsUtils::FRead(void* buffer, size_t /*bufferSize*/, size_t elementSize, size_t count,
                      FILE* stream) {
    if (buffer == nullptr || stream == nullptr) return 0;
    return fread(buffer, elementSize, count, stream);
}

size_t OsUtils::FWrite(const void* buffer, size_t elementSize, size_t count, FILE* stream) {
    if (buffer == nullptr || stream == nullptr) return 0;
    return fwrite(buffer, elementSize, count, stream);
}

int OsUtils::FFlush(FILE* stream) {
    return stream != nullptr ? Status(fflush(stream)) : 1;
}

const char* OsUtils::GetFileName(const char* path) {
    if (path == nullptr) return nullptr;
    const char* slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

unsigned long OsUtils::GetFileSize(const char* path) {
    struct stat64 info;
    if (path == nullptr || stat64(path, &info) != 0) return 0;
    return static_cast<unsigned long>(info.st_size);
}

int OsUtils::GetFileNameToken(char* fileName, unsigned int index, char* token,
                              unsigned long tokenSize) {
    if (fileName == nullptr || token == nullptr) return 0;
    char work[kNameWorkSize] = {};
    strlcpy(work, fileName, sizeof(work));
    char* save = nullptr;
    // Index 0 would be reached only after 2^32 - 1 tokens: in practice it finds none.
    unsigned int remaining = index;
    for (char* piece = strtok_r(work, ".", &save); piece != nullptr;
         piece = strtok_r(nullptr, ".", &save)) {
        if (remaining == 1) {
            strlcpy(token, piece, tokenSize);
            return 1;
        }
        --remaining;
    }
    return 0;
}

unsigned int OsUtils::GetFilesFromPath(const char* directory, unsigned long entrySize, char* entries,
                                       const char* token1, const char* token2, const char* token3,
                                       const char* token4, const char* lastToken) {
    if (directory == nullptr || entries == nullptr || entrySize == 0 || token1 == nullptr ||
        token2 == nullptr || token3 == nullptr || token4 == nullptr || lastToken == nullptr) {
        return 0;
    }
    std::vector<char> name;
    try {
        name.assign(entrySize, '\0');
    } catch (...) {
        return 0;
    }
    DIR* folder = opendir(directory);
    if (folder == nullptr) return 0;

    // Files are named "com.<t1>.<t2>.<t3>.<t4>" with an optional sixth token; a filter of "*"
    // matches any token. With five tokens, token4 and lastToken both apply to the fifth.
    const char* filters[] = {token1, token2, token3, token4};
    unsigned int count = 0;
    while (dirent* entry = readdir(folder)) {
        strlcpy(name.data(), entry->d_name, entrySize);
        const char* tokens[7] = {};
        size_t tokenCount = 0;
        char* save = nullptr;
        for (char* piece = strtok_r(name.data(), ".", &save); piece != nullptr && tokenCount < 7;
             piece = strtok_r(nullptr, ".", &save)) {
            tokens[tokenCount++] = piece;
        }
        if (tokenCount != 5 && tokenCount != 6) continue;
        if (strcmp(tokens[0], "com") != 0) continue;
        bool matches = true;
        for (size_t i = 0; i < 4 && matches; ++i) {
            matches = strcmp(filters[i], "*") == 0 || strcmp(filters[i], tokens[i + 1]) == 0;
        }
        const char* last = tokens[tokenCount - 1];
        matches = matches && (strcmp(lastToken, "*") == 0 || strcmp(lastToken, last) == 0);
        if (!matches) continue;
        SNPrintF(entries + static_cast<size_t>(count % 65536) * entrySize, entrySize, "%s%s%s",
                 directory, "/", entry->d_name);
        ++count;
    }
    closedir(folder);
    return count;
}

int OsUtils::Close(int fd) {
    if (fd == -1) return 0;
    return Status(close(fd));
}

// ---- Strings -------------------------------------------------------------------------------

size_t OsUtils::StrLCpy(char* dst, const char* src, size_t size) {
    return strlcpy(dst, src, size);
}

char* OsUtils::StrTokReentrant(char* text, const char* delimiters, char** savePointer) {
    return strtok_r(text, delimiters, savePointer);
}

int OsUtils::StrNICmp(const char* a, const char* b, size_t length) {
    return strncasecmp(a, b, length);
}

size_t OsUtils::StrLCat(char* dst, const char* src, size_t size) {
    return strlcat(dst, src, size);
}

char* OsUtils::StrError(char* buffer, size_t size, int errorNumber) {
    return strerror_r(errorNumber, buffer, size);
}

int OsUtils::SNPrintF(char* buffer, size_t size, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int result = vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    return result;
}

int OsUtils::DPrintF(int fd, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int result = vdprintf(fd, format, arguments);
    va_end(arguments);
    return result;
}

// ---- Process, threads, time ----------------------------------------------------------------

int OsUtils::GetThreadID() {
    return static_cast<int>(gettid());
}

int OsUtils::GetProcessID() {
    return static_cast<int>(getpid());
}

int OsUtils::GetPid() {
    return static_cast<int>(getpid());
}

int OsUtils::GetTime(VxCamTime* time) {
    if (time == nullptr) return -1;
    timespec now = {};
    const int result = clock_gettime(CLOCK_BOOTTIME, &now);
    if (result != 0) now = {};
    time->seconds = now.tv_sec;
    time->nanoSeconds = now.tv_nsec;
    return result == 0 ? 0 : -1;
}

int OsUtils::GetGMTime(const long* seconds, struct tm* result) {
    if (seconds == nullptr || result == nullptr) return -1;
    const time_t value = *seconds;
    return gmtime_r(&value, result) != nullptr ? 0 : -1;
}

void OsUtils::GetDateTime(VxCamDateTime* dateTime) {
    if (dateTime == nullptr) return;
    timeval now = {};
    if (gettimeofday(&now, nullptr) != 0) return;
    tm local = {};
    if (localtime_r(&now.tv_sec, &local) == nullptr) return;
    dateTime->seconds = now.tv_sec;
    dateTime->fraction = now.tv_usec;
    FillCalendar(dateTime, local);
}

void OsUtils::GetDateTime(VxCamDateTime* dateTime, long milliseconds) {
    if (dateTime == nullptr) return;
    const time_t seconds = milliseconds / 1000;
    tm local = {};
    if (localtime_r(&seconds, &local) == nullptr) return;
    dateTime->seconds = seconds;
    dateTime->fraction = milliseconds - seconds * 1000;
    FillCalendar(dateTime, local);
}

// ---- Android log ---------------------------------------------------------------------------

int OsUtils::LogSystem(unsigned int level, const char* text) {
    const int priority = level < sizeof(kLevelPriority) / sizeof(kLevelPriority[0])
                                 ? kLevelPriority[level]
                                 : ANDROID_LOG_ERROR;
    return __android_log_write(priority, "VxCam", text);
}

}  // namespace VxCam
