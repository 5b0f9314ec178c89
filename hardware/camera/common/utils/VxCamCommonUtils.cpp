// OS services: files, properties, strings, ids, clocks, a directory scan, dynamic libraries,
// memory, threads and scheduling, atomics and the semaphore. Compression and checksums are in
// VxCamCompression.cpp.

// Every trace section of the library belongs to the camera; <cutils/trace.h> reads this when it is
// first included, so it comes before every header that might include it.
#define ATRACE_TAG ATRACE_TAG_CAMERA

#include "VxCamCommonUtils.h"

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <cutils/properties.h>
#include <cutils/trace.h>
#include <log/log.h>
#include <sync/sync.h>

#include <new>
#include <string>
#include <vector>

#include "VxCamDebug.h"
#include "VxCamLocalTime.h"
#include "VxCamPortPath.h"

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

// ---- Tracing -------------------------------------------------------------------------------
// A section is traced only when the camera's scope events are asked for (bit value 4 of the trace
// mask) and the camera tag is on. The end of a section tests both again rather than remembering the
// start: a mask changed in between costs at most an unmatched mark, which trace viewers tolerate.
constexpr uint64_t kTraceScopeEvents = 4;

bool TraceScopeEventsWanted() {
    return (g_traceInfo & kTraceScopeEvents) != 0;
}

bool TraceSectionOn() {
    return TraceScopeEventsWanted() && ATRACE_ENABLED() != 0;
}

const char* LoaderError() {
    const char* text = dlerror();
    return text != nullptr ? text : "N/A";
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
// Null streams are refused here rather than handed to libc, which would fault on them. Calls that
// libc defines for null (fflush) pass it on.

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
    // Null flushes every output stream of the process.
    return Status(fflush(stream));
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
    if (LocalTime(&now.tv_sec, &local) == nullptr) return;
    dateTime->seconds = now.tv_sec;
    dateTime->fraction = now.tv_usec;
    FillCalendar(dateTime, local);
}

void OsUtils::GetDateTime(VxCamDateTime* dateTime, long milliseconds) {
    if (dateTime == nullptr) return;
    const time_t seconds = milliseconds / 1000;
    tm local = {};
    if (LocalTime(&seconds, &local) == nullptr) return;
    dateTime->seconds = seconds;
    dateTime->fraction = milliseconds - seconds * 1000;
    FillCalendar(dateTime, local);
}

// ---- Dynamic libraries ---------------------------------------------------------------------

namespace {

constexpr const char kPrebuiltLibraryDirectory[] = "/vendor/lib64";
constexpr size_t kLibraryPathSize = 4096;

}  // namespace

void* OsUtils::LoadPreBuiltLibrary(const char* libraryName, const char* symbolName,
                                   void** phLibrary) {
    if (phLibrary == nullptr) return nullptr;
    *phLibrary = nullptr;
    std::string directory;
    try {
        directory = VxCamPort::ResolveDevicePath(kPrebuiltLibraryDirectory);
    } catch (...) {
        return nullptr;
    }
    char path[kLibraryPathSize] = {};
    // A null name is spelled "(null)", as bionic and glibc print it: it names no library, and the
    // open fails and is logged like any other.
    SNPrintF(path, sizeof(path), "%s%s%s.%s", directory.c_str(), "/",
             libraryName != nullptr ? libraryName : "(null)", "so");
    // Through LibMap and LibGetAddr so that a failure is reported exactly as theirs would be.
    void* handle = LibMap(path);
    if (handle == nullptr) return nullptr;
    // The caller owns the handle from here on, even if the symbol is missing.
    *phLibrary = handle;
    return LibGetAddr(handle, symbolName);
}

void* OsUtils::LibMap(const char* libraryPath) {
    // A null path is the main program, as dlopen defines it.
    void* handle = dlopen(libraryPath, RTLD_NOW);
    if (handle == nullptr) {
        VXCAM_LOGE(UTILS, "dlopen: %s, on '%s'", LoaderError(),
                   libraryPath != nullptr ? libraryPath : "(null)");
    }
    return handle;
}

void* OsUtils::LibGetAddr(void* hLibrary, const char* symbolName) {
    if (hLibrary == nullptr) return nullptr;
    // glibc's dlsym faults on a null name (bionic's refuses it): it fails here as a missing
    // symbol would, with no loader text to report.
    if (symbolName == nullptr) {
        VXCAM_LOGE(UTILS, "Error: dlsym(%s): %s", "(null)", "N/A");
        return nullptr;
    }
    void* address = dlsym(hLibrary, symbolName);
    if (address == nullptr) VXCAM_LOGE(UTILS, "Error: dlsym(%s): %s", symbolName, LoaderError());
    return address;
}

int OsUtils::LibUnmap(void* hLibrary) {
    if (hLibrary == nullptr) return 3;
    if (dlclose(hLibrary) != 0) {
        VXCAM_LOGI(UTILS, "dlclose error: %s", LoaderError());
        return 1;
    }
    return 0;
}

// ---- Memory --------------------------------------------------------------------------------

void* OsUtils::MallocAligned(size_t size, size_t alignment) {
    if ((alignment & (alignment - 1)) != 0) return nullptr;
    // posix_memalign wants a multiple of the pointer size.
    if (alignment < 8) alignment = 8;
    void* memory = nullptr;
    if (posix_memalign(&memory, alignment, size) != 0) return nullptr;
    return memory;
}

void OsUtils::FreeAligned(void* pMemory) {
    free(pMemory);
}

long OsUtils::PageSize() {
    return sysconf(_SC_PAGESIZE);
}

int OsUtils::MemoryProtect(void* pStart, size_t length, VxCamProtectionType protection) {
    const long pageSize = sysconf(_SC_PAGESIZE);
    if (pageSize <= 0) return 1;
    const size_t page = static_cast<size_t>(pageSize);
    if (length % page != 0 || reinterpret_cast<uintptr_t>(pStart) % page != 0) return 3;
    int flags = PROT_NONE;
    if (protection.read == 1) flags |= PROT_READ;
    if (protection.write == 1) flags |= PROT_WRITE;
    return Status(mprotect(pStart, length, flags));
}

void* OsUtils::MemMap(int fd, size_t length, long offset) {
    if (fd < 0 || length == 0) return nullptr;
    void* address = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, offset);
    if (address == MAP_FAILED) {
        const int error = errno;
        VXCAM_LOGI(UTILS, "mmap() failed! errno=%d, bufferFD=%zd, bufferLength=%d offset=%zd",
                   error, static_cast<ssize_t>(fd), static_cast<int>(length),
                   static_cast<ssize_t>(offset));
        return nullptr;
    }
    return address;
}

int OsUtils::MemUnmap(void* pAddress, size_t length) {
    if (pAddress == nullptr) return -1;
    const int result = munmap(pAddress, length);
    if (result != 0) VXCAM_LOGI(UTILS, "munmap() failed! errno %d", errno);
    return result;
}

// ---- Threads -------------------------------------------------------------------------------

int OsUtils::ThreadCreate(void* (*startRoutine)(void*), void* pArgument, pthread_t* pThread) {
    if (startRoutine == nullptr || pThread == nullptr) return 1;
    return Status(pthread_create(pThread, nullptr, startRoutine, pArgument));
}

int OsUtils::ThreadCreateWithAttr(void* (*startRoutine)(void*), pthread_attr_t* pAttributes,
                                  void* pArgument, pthread_t* pThread) {
    if (startRoutine == nullptr || pThread == nullptr) return 1;
    return Status(pthread_create(pThread, pAttributes, startRoutine, pArgument));
}

int OsUtils::ThreadSetName(pthread_t thread, const char* name) {
    if (name == nullptr) return 1;
    return Status(pthread_setname_np(thread, name));
}

int OsUtils::ThreadWait(pthread_t thread) {
    return pthread_join(thread, nullptr);
}

int OsUtils::ThreadDetach(pthread_attr_t* pAttributes) {
    if (pAttributes == nullptr) return EINVAL;
    return pthread_attr_setdetachstate(pAttributes, PTHREAD_CREATE_DETACHED);
}

int OsUtils::ThreadInit(pthread_attr_t* pAttributes) {
    if (pAttributes == nullptr) return EINVAL;
    return pthread_attr_init(pAttributes);
}

int OsUtils::ThreadGetPriorityMax(int policy) {
    return sched_get_priority_max(policy);
}

int OsUtils::ThreadGetPriorityMin(int policy) {
    return sched_get_priority_min(policy);
}

int OsUtils::ThreadSetPolicyPriority(pthread_t* pThread, int policy, int priority) {
    int result = EINVAL;
    if (pThread != nullptr) {
        sched_param parameters = {};
        parameters.sched_priority = priority;
        result = pthread_setschedparam(*pThread, policy, &parameters);
    }
    if (result != 0) {
        VXCAM_LOGI(UTILS, "Failed to set thread priority %d", result);
        return 1;
    }
    return 0;
}

// ---- Scheduling and process resources ------------------------------------------------------

namespace {

constexpr unsigned int kDefaultAffinityLastCpu = 7;
constexpr const char kMetadataDumpDirectory[] = "/data/vendor/camera/metadata";
// bionic's DEBUGGER_SIGNAL (__SIGRTMIN + 3): debuggerd's handler answers it with a dump of every
// thread's stack and lets the process go on.
constexpr int kDebuggerSignal = 35;

int ApplyAffinity(const cpu_set_t& cpus) {
    return sched_setaffinity(0, sizeof(cpus), &cpus);
}

}  // namespace

int OsUtils::SetPriority(int which, int who, int priority) {
    const int result = setpriority(which, static_cast<id_t>(who), priority);
    if (result != 0) {
        VXCAM_LOGI(UTILS, "Failed to set  priority %d", result);
        return 1;
    }
    return 0;
}

int OsUtils::SetThreadAffinity(unsigned int firstCpu, unsigned int lastCpu) {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    // CPUs beyond the set's 1024 are left out, which also keeps a last CPU of UINT_MAX finite.
    for (unsigned long cpu = firstCpu; cpu <= lastCpu && cpu < CPU_SETSIZE; ++cpu) {
        CPU_SET(cpu, &cpus);
    }
    return ApplyAffinity(cpus);
}

int OsUtils::ResetThreadAffinity() {
    return SetThreadAffinity(0, kDefaultAffinityLastCpu);
}

void OsUtils::BindCores(const int* pCores, unsigned int count) {
    // Nothing to bind, and no list whose last separator could be trimmed.
    if (pCores == nullptr || count == 0) return;
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    std::string list;
    try {
        for (unsigned int i = 0; i < count; ++i) {
            // Listed as given, so a bad entry shows in the log; bound only if the set has it.
            list += std::to_string(pCores[i]) + ", ";
            const unsigned int cpu = static_cast<unsigned int>(pCores[i]);
            if (cpu < CPU_SETSIZE) CPU_SET(cpu, &cpus);
        }
        list.resize(list.size() - 2);
    } catch (...) {
        return;
    }
    VXCAM_LOGV(UTILS, "Bind cpu core number {%s}", list.c_str());
    // A CPU that is offline or absent fails the whole call; the thread then keeps its binding.
    ApplyAffinity(cpus);
}

void OsUtils::SleepMicroseconds(unsigned int microseconds) {
    if (TraceSectionOn()) ATRACE_BEGIN("OsUtilsSleepMicroseconds");
    usleep(microseconds);
    if (TraceSectionOn()) ATRACE_END();
}

int OsUtils::NativeFenceWait(int fenceFd, int timeoutMilliseconds) {
    return Status(sync_wait(fenceFd, timeoutMilliseconds));
}

int OsUtils::SetFDLimit(unsigned int limit) {
    rlimit files = {};
    if (getrlimit(RLIMIT_NOFILE, &files) != 0) {
        VXCAM_LOGI(CORE, "getrlimit(RLIMIT_NOFILE) failed; errno=%d", errno);
        return 1;
    }
    VXCAM_LOGI(CORE, "Current limit (RLIMIT_NOFILE):%d", static_cast<int>(files.rlim_cur));
    // Only the soft limit moves: above the hard limit the system refuses.
    if (files.rlim_cur < limit) files.rlim_cur = limit;
    int result = 0;
    if (setrlimit(RLIMIT_NOFILE, &files) != 0) {
        VXCAM_LOGI(CORE, "setrlimit(RLIMIT_NOFILE) failed; errno:%d", errno);
        result = 1;
    }
    getrlimit(RLIMIT_NOFILE, &files);
    VXCAM_LOGI(CORE, "New limit (RLIMIT_NOFILE):%d", static_cast<int>(files.rlim_cur));
    return result;
}

bool OsUtils::Is32bitMode() {
    utsname system = {};
    if (uname(&system) != 0) return false;
    VXCAM_LOGV(UTILS, "sysname %s, nodename %s, release %s, version %s, machine %s", system.sysname,
               system.nodename, system.release, system.version, system.machine);
    return strcmp(system.machine, "armv7l") == 0;
}

unsigned long OsUtils::GetTotalRam() {
    struct sysinfo memory = {};
    if (sysinfo(&memory) != 0) {
        VXCAM_LOGI(UTILS, "sysinfo failed with error no = %d", errno);
        return 0;
    }
    VXCAM_LOGI(UTILS, "totalram = %ld, freeram = %ld mem_unit = %d ",
               static_cast<long>(memory.totalram), static_cast<long>(memory.freeram),
               static_cast<int>(memory.mem_unit));
    return static_cast<unsigned long>(memory.totalram) * memory.mem_unit;
}

void OsUtils::SetMetadataDumpDirectoryPath() {
    std::string path;
    try {
        path = VxCamPort::ResolveDevicePath(kMetadataDumpDirectory);
    } catch (...) {
        return;
    }
    struct stat64 info;
    if (stat64(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
        VXCAM_LOGI(UTILS, "Camera Metadata Dump: Dir:%s already exists", path.c_str());
        return;
    }
    const int result = mkdir(path.c_str(), 0775);
    VXCAM_LOGI(UTILS, "Camera Metadata Dump: Create root Dir: %s return = %d", path.c_str(), result);
}

int OsUtils::RaiseSignalAbort() {
    return raise(SIGABRT);
}

int OsUtils::DumpCallStacksForAllThreads() {
    return raise(kDebuggerSignal);
}

// ---- Android log ---------------------------------------------------------------------------

int OsUtils::LogSystem(unsigned int level, const char* text) {
    const int priority = level < sizeof(kLevelPriority) / sizeof(kLevelPriority[0])
                                 ? kLevelPriority[level]
                                 : ANDROID_LOG_ERROR;
    return __android_log_write(priority, "VxCam", text);
}

// ---- Atomics ------------------------------------------------------------------------------
// One template per row of the family; the exported names only fix the operand type.

namespace {

template <typename T>
T AtomicAdd(volatile T* pValue, T amount) {
    return __atomic_add_fetch(pValue, amount, __ATOMIC_ACQ_REL);
}

template <typename T>
T AtomicSub(volatile T* pValue, T amount) {
    return __atomic_sub_fetch(pValue, amount, __ATOMIC_ACQ_REL);
}

// The amount is decided on a plain read and then subtracted atomically, which keeps this one
// atomic instruction sequence; the check and the subtraction do not form one step.
template <typename T>
T AtomicSubIfAtLeast(volatile T* pValue, T amount) {
    const T current = *pValue;
    return AtomicSub(pValue, current >= amount ? amount : T(0));
}

template <typename T>
void AtomicStore(volatile T* pValue, T value) {
    __atomic_exchange_n(pValue, value, __ATOMIC_ACQ_REL);
}

template <typename T>
T AtomicLoad(volatile T* pValue) {
    return __atomic_fetch_or(pValue, T(0), __ATOMIC_ACQ_REL);
}

template <typename T>
int AtomicCompareExchange(volatile T* pValue, T expected, T desired) {
    return __atomic_compare_exchange_n(pValue, &expected, desired, false, __ATOMIC_ACQ_REL,
                                       __ATOMIC_ACQUIRE)
                   ? 1
                   : 0;
}

// Pointers take the integer path: fetch-or is defined on integers only.
static_assert(sizeof(void*) == sizeof(uintptr_t), "pointer operands are handled as integers");

volatile uintptr_t* AsInteger(void* volatile* ppValue) {
    return reinterpret_cast<volatile uintptr_t*>(ppValue);
}

}  // namespace

int VxCamAtomicInc(volatile int* pValue) {
    return AtomicAdd(pValue, 1);
}
unsigned int VxCamAtomicIncU(volatile unsigned int* pValue) {
    return AtomicAdd(pValue, 1u);
}
unsigned int VxCamAtomicIncU32(volatile unsigned int* pValue, unsigned int amount) {
    return AtomicAdd(pValue, amount);
}

int VxCamAtomicDec(volatile int* pValue) {
    // Only a positive value drops; zero and negative values stay as they are.
    const int current = *pValue;
    return AtomicSub(pValue, current > 0 ? 1 : 0);
}
unsigned int VxCamAtomicDecU(volatile unsigned int* pValue) {
    return AtomicSubIfAtLeast(pValue, 1u);
}
unsigned int VxCamAtomicDecU32(volatile unsigned int* pValue, unsigned int amount) {
    return AtomicSubIfAtLeast(pValue, amount);
}

int VxCamAtomicAdd(volatile int* pValue, int amount) {
    return AtomicAdd(pValue, amount);
}
int VxCamAtomicAdd32(volatile int* pValue, int amount) {
    return AtomicAdd(pValue, amount);
}
unsigned int VxCamAtomicAddU(volatile unsigned int* pValue, unsigned int amount) {
    return AtomicAdd(pValue, amount);
}
unsigned int VxCamAtomicAddU32(volatile unsigned int* pValue, unsigned int amount) {
    return AtomicAdd(pValue, amount);
}
signed char VxCamAtomicAdd8(volatile signed char* pValue, signed char amount) {
    return AtomicAdd(pValue, amount);
}
unsigned char VxCamAtomicAddU8(volatile unsigned char* pValue, unsigned char amount) {
    return AtomicAdd(pValue, amount);
}
long VxCamAtomicAdd64(volatile long* pValue, long amount) {
    return AtomicAdd(pValue, amount);
}
unsigned long VxCamAtomicAddU64(volatile unsigned long* pValue, unsigned long amount) {
    return AtomicAdd(pValue, amount);
}

int VxCamAtomicSub(volatile int* pValue, int amount) {
    return AtomicSub(pValue, amount);
}
int VxCamAtomicSub32(volatile int* pValue, int amount) {
    return AtomicSub(pValue, amount);
}
unsigned int VxCamAtomicSubU(volatile unsigned int* pValue, unsigned int amount) {
    return AtomicSub(pValue, amount);
}
unsigned int VxCamAtomicSubU32(volatile unsigned int* pValue, unsigned int amount) {
    return AtomicSub(pValue, amount);
}
signed char VxCamAtomicSub8(volatile signed char* pValue, signed char amount) {
    return AtomicSub(pValue, amount);
}
unsigned char VxCamAtomicSubU8(volatile unsigned char* pValue, unsigned char amount) {
    return AtomicSub(pValue, amount);
}
long VxCamAtomicSub64(volatile long* pValue, long amount) {
    return AtomicSub(pValue, amount);
}
unsigned long VxCamAtomicSubU64(volatile unsigned long* pValue, unsigned long amount) {
    return AtomicSub(pValue, amount);
}

void VxCamAtomicStore(volatile int* pValue, int value) {
    AtomicStore(pValue, value);
}
void VxCamAtomicStore32(volatile int* pValue, int value) {
    AtomicStore(pValue, value);
}
void VxCamAtomicStoreU(volatile unsigned int* pValue, unsigned int value) {
    AtomicStore(pValue, value);
}
void VxCamAtomicStoreU32(volatile unsigned int* pValue, unsigned int value) {
    AtomicStore(pValue, value);
}
void VxCamAtomicStore8(volatile signed char* pValue, signed char value) {
    AtomicStore(pValue, value);
}
void VxCamAtomicStoreU8(volatile unsigned char* pValue, unsigned char value) {
    AtomicStore(pValue, value);
}
void VxCamAtomicStore64(volatile long* pValue, long value) {
    AtomicStore(pValue, value);
}
void VxCamAtomicStoreU64(volatile unsigned long* pValue, unsigned long value) {
    AtomicStore(pValue, value);
}
void VxCamAtomicStoreP(void* volatile* ppValue, void* pValue) {
    AtomicStore(AsInteger(ppValue), reinterpret_cast<uintptr_t>(pValue));
}

int VxCamAtomicLoad(volatile int* pValue) {
    return AtomicLoad(pValue);
}
int VxCamAtomicLoad32(volatile int* pValue) {
    return AtomicLoad(pValue);
}
unsigned int VxCamAtomicLoadU(volatile unsigned int* pValue) {
    return AtomicLoad(pValue);
}
unsigned int VxCamAtomicLoadU32(volatile unsigned int* pValue) {
    return AtomicLoad(pValue);
}
signed char VxCamAtomicLoad8(volatile signed char* pValue) {
    return AtomicLoad(pValue);
}
unsigned char VxCamAtomicLoadU8(volatile unsigned char* pValue) {
    return AtomicLoad(pValue);
}
long VxCamAtomicLoad64(volatile long* pValue) {
    return AtomicLoad(pValue);
}
unsigned long VxCamAtomicLoadU64(volatile unsigned long* pValue) {
    return AtomicLoad(pValue);
}
void* VxCamAtomicLoadP(void* volatile* ppValue) {
    return reinterpret_cast<void*>(AtomicLoad(AsInteger(ppValue)));
}

int VxCamAtomicCompareExchange(volatile int* pValue, int expected, int desired) {
    return AtomicCompareExchange(pValue, expected, desired);
}
int VxCamAtomicCompareExchangeU(volatile unsigned int* pValue, unsigned int expected,
                                unsigned int desired) {
    return AtomicCompareExchange(pValue, expected, desired);
}

void VxCamFence() {
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
}

// ---- Semaphore -----------------------------------------------------------------------------

namespace {

constexpr size_t kTraceLabelSize = 512;
constexpr long kNanosecondsPerSecond = 1000000000;
constexpr long kNanosecondsPerMillisecond = 1000000;

// A trace section named after the operation and the object, so that waits and posts on one
// semaphore pair up in a trace.
class SemaphoreTrace {
  public:
    SemaphoreTrace(const char* operation, const void* object) {
        if (!TraceScopeEventsWanted()) return;
        char label[kTraceLabelSize];
        OsUtils::SNPrintF(label, sizeof(label), "%s : %llu", operation,
                          static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(object)));
        if (TraceSectionOn()) ATRACE_BEGIN(label);
    }
    ~SemaphoreTrace() {
        if (TraceSectionOn()) ATRACE_END();
    }
    SemaphoreTrace(const SemaphoreTrace&) = delete;
    SemaphoreTrace& operator=(const SemaphoreTrace&) = delete;
};

}  // namespace

Semaphore* Semaphore::Create() {
    Semaphore* semaphore = new (std::nothrow) Semaphore();
    if (semaphore == nullptr) return nullptr;
    if (sem_init(&semaphore->m_semaphore, 0, 0) != 0) {
        delete semaphore;
        return nullptr;
    }
    semaphore->m_valid = 1;
    return semaphore;
}

int Semaphore::Initialize() {
    m_valid = 0;
    if (sem_init(&m_semaphore, 0, 0) != 0) return 1;
    m_valid = 1;
    return 0;
}

void Semaphore::Destroy() {
    if (m_valid == 1) sem_destroy(&m_semaphore);
    delete this;
}

void Semaphore::Wait() {
    SemaphoreTrace trace("OsUtilsSemaphoreWait", this);
    // An interrupted wait is not retried: the caller sees an early return as it would a post.
    if (m_valid == 1) sem_wait(&m_semaphore);
}

void Semaphore::Signal() {
    SemaphoreTrace trace("OsUtilsSemaphoreSignal", this);
    if (m_valid == 1) sem_post(&m_semaphore);
}

int Semaphore::TimedWait(unsigned int milliseconds) {
    SemaphoreTrace trace("OsUtilsSemaphoreWait", this);
    timespec deadline = {};
    clock_gettime(CLOCK_REALTIME, &deadline);
    const long nanoseconds =
            deadline.tv_nsec + static_cast<long>(milliseconds % 1000) * kNanosecondsPerMillisecond;
    deadline.tv_sec +=
            static_cast<int32_t>(milliseconds / 1000 + nanoseconds / kNanosecondsPerSecond);
    deadline.tv_nsec = nanoseconds % kNanosecondsPerSecond;
    // Unlike Wait, the valid flag is not consulted.
    const int result = sem_timedwait(&m_semaphore, &deadline);
    if (result == 0) return 0;
    // sem_timedwait returns -1 and leaves ETIMEDOUT in errno, so a time-out gives 1; 6 answers
    // only a wait call that returns the error number itself.
    return result == ETIMEDOUT ? 6 : 1;
}

}  // namespace VxCam
