// OS services for the camera HAL: one uniform face over libc, the dynamic loader, zlib and the
// Android property service, plus atomics and a counting semaphore.
//
// Status wrappers return 0 for success and 1 for failure and leave the cause in errno. The file,
// property, string, id and clock wrappers write no log line, so they are safe to use from the log
// paths themselves; the loader, memory, compression and scheduling services report failures
// through the debug log frame.
#ifndef VXCAM_COMMON_UTILS_H
#define VXCAM_COMMON_UTILS_H

#include <pthread.h>
#include <semaphore.h>
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

// Access granted by MemoryProtect: a field grants its access only when it is exactly 1.
struct VxCamProtectionType {
    uint32_t read;
    uint32_t write;
};
static_assert(sizeof(VxCamProtectionType) == 8, "VxCamProtectionType is passed by value");

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

    // ---- Dynamic libraries ----
    // Opens "/vendor/lib64/<libraryName>.so" and looks `symbolName` up in it. The handle is stored
    // whenever the library opened, even if the symbol is missing: release it with LibUnmap.
    static void* LoadPreBuiltLibrary(const char* libraryName, const char* symbolName,
                                     void** phLibrary);
    static void* LibMap(const char* libraryPath);
    static void* LibGetAddr(void* hLibrary, const char* symbolName);
    // 0, 1 when the loader refused, 3 for a null handle.
    static int LibUnmap(void* hLibrary);

    // ---- Memory ----
    // Alignments below 8 (0 included) are raised to 8; one that is not a power of two gives null.
    static void* MallocAligned(size_t size, size_t alignment);
    static void FreeAligned(void* pMemory);
    static long PageSize();
    // 3 without a system call unless both the start and the length are whole pages.
    static int MemoryProtect(void* pStart, size_t length, VxCamProtectionType protection);
    // Shared read-write mapping of `fd`; null for a negative descriptor or a zero length.
    static void* MemMap(int fd, size_t length, long offset);
    // 0, or -1 (a null address included).
    static int MemUnmap(void* pAddress, size_t length);

    // ---- Compression (zlib stream format) ----
    // The output buffer must be at least `inputLength` bytes: that is all zlib may write, so data
    // that does not shrink fails. On success *pOutputLength is the compressed size.
    static int Compress(const uint8_t* pInputStream, uint32_t inputLength, uint8_t** ppOutputStream,
                        uint32_t* pOutputLength);
    // *pOutputLength is the capacity of the buffer going in (it must exceed 128: the last 128
    // bytes are slack and never written) and the decompressed size coming out.
    static int UnCompress(const uint8_t* pInputStream, uint32_t inputLength,
                          uint8_t** ppOutputStream, uint32_t* pOutputLength);
    // Decompressed size plus the 128 bytes of slack: a buffer of exactly this capacity takes the
    // data in UnCompress.
    static int FindEstimatedSizeOfUnCompressed(const uint8_t* pInputStream, uint32_t inputLength,
                                               uint32_t* pEstimatedSize);
    static unsigned long ComputeCRC32(unsigned long crc, const uint8_t* pBuffer, uint32_t length);

    // ---- Threads ----
    static int ThreadCreate(void* (*startRoutine)(void*), void* pArgument, pthread_t* pThread);
    static int ThreadCreateWithAttr(void* (*startRoutine)(void*), pthread_attr_t* pAttributes,
                                    void* pArgument, pthread_t* pThread);
    static int ThreadSetName(pthread_t thread, const char* name);
    // The results below are the pthread calls' own error numbers.
    static int ThreadWait(pthread_t thread);
    // Marks the attributes so that threads created with them start detached.
    static int ThreadDetach(pthread_attr_t* pAttributes);
    static int ThreadInit(pthread_attr_t* pAttributes);
    static int ThreadGetPriorityMax(int policy);
    static int ThreadGetPriorityMin(int policy);
    static int ThreadSetPolicyPriority(pthread_t* pThread, int policy, int priority);

    // ---- Scheduling and process resources ----
    static int SetPriority(int which, int who, int priority);
    // Binds the calling thread to CPUs first..last; first > last applies an empty set, which the
    // system rejects. Returns sched_setaffinity's result.
    static int SetThreadAffinity(unsigned int firstCpu, unsigned int lastCpu);
    // Back to CPUs 0-7.
    static int ResetThreadAffinity();
    // Binds the calling thread to the listed CPUs (numbers of 1024 and above are left out).
    static void BindCores(const int* pCores, unsigned int count);
    static void SleepMicroseconds(unsigned int microseconds);
    // 0 when the fence signalled within the time-out, 1 otherwise.
    static int NativeFenceWait(int fenceFd, int timeoutMilliseconds);
    // Raises the soft open-file limit to `limit` when it is lower; never lowers it.
    static int SetFDLimit(unsigned int limit);
    static bool Is32bitMode();
    // Bytes; 0 when the system does not say.
    static unsigned long GetTotalRam();
    // Creates "/data/vendor/camera/metadata" (mode 0775) unless it exists.
    static void SetMetadataDumpDirectoryPath();
    static int RaiseSignalAbort();
    // Raises the platform debugger's stack-dump signal (35); its handler does the dump.
    static int DumpCallStacksForAllThreads();

    // ---- Android log ----
    // Writes `text` under the tag "VxCam" with the priority of debug level `level` (0 to 5).
    static int LogSystem(unsigned int level, const char* text);
};

// ---- Atomics ----------------------------------------------------------------------------------
// Every operation is one acquire-release atomic access to the caller's operand and returns the
// operand's new value. Loads and stores are made read-modify-write (fetch-or with 0, exchange) so
// that they order like the arithmetic does.
//
// The decrements never take a value below zero, but the test and the subtraction are two steps:
// two threads racing on 1 may both subtract.
VXCAM_API int VxCamAtomicInc(volatile int* pValue);
VXCAM_API unsigned int VxCamAtomicIncU(volatile unsigned int* pValue);
VXCAM_API unsigned int VxCamAtomicIncU32(volatile unsigned int* pValue, unsigned int amount);
VXCAM_API int VxCamAtomicDec(volatile int* pValue);
VXCAM_API unsigned int VxCamAtomicDecU(volatile unsigned int* pValue);
VXCAM_API unsigned int VxCamAtomicDecU32(volatile unsigned int* pValue, unsigned int amount);

VXCAM_API int VxCamAtomicAdd(volatile int* pValue, int amount);
VXCAM_API int VxCamAtomicAdd32(volatile int* pValue, int amount);
VXCAM_API unsigned int VxCamAtomicAddU(volatile unsigned int* pValue, unsigned int amount);
VXCAM_API unsigned int VxCamAtomicAddU32(volatile unsigned int* pValue, unsigned int amount);
VXCAM_API signed char VxCamAtomicAdd8(volatile signed char* pValue, signed char amount);
VXCAM_API unsigned char VxCamAtomicAddU8(volatile unsigned char* pValue, unsigned char amount);
VXCAM_API long VxCamAtomicAdd64(volatile long* pValue, long amount);
VXCAM_API unsigned long VxCamAtomicAddU64(volatile unsigned long* pValue, unsigned long amount);

VXCAM_API int VxCamAtomicSub(volatile int* pValue, int amount);
VXCAM_API int VxCamAtomicSub32(volatile int* pValue, int amount);
VXCAM_API unsigned int VxCamAtomicSubU(volatile unsigned int* pValue, unsigned int amount);
VXCAM_API unsigned int VxCamAtomicSubU32(volatile unsigned int* pValue, unsigned int amount);
VXCAM_API signed char VxCamAtomicSub8(volatile signed char* pValue, signed char amount);
VXCAM_API unsigned char VxCamAtomicSubU8(volatile unsigned char* pValue, unsigned char amount);
VXCAM_API long VxCamAtomicSub64(volatile long* pValue, long amount);
VXCAM_API unsigned long VxCamAtomicSubU64(volatile unsigned long* pValue, unsigned long amount);

VXCAM_API void VxCamAtomicStore(volatile int* pValue, int value);
VXCAM_API void VxCamAtomicStore32(volatile int* pValue, int value);
VXCAM_API void VxCamAtomicStoreU(volatile unsigned int* pValue, unsigned int value);
VXCAM_API void VxCamAtomicStoreU32(volatile unsigned int* pValue, unsigned int value);
VXCAM_API void VxCamAtomicStore8(volatile signed char* pValue, signed char value);
VXCAM_API void VxCamAtomicStoreU8(volatile unsigned char* pValue, unsigned char value);
VXCAM_API void VxCamAtomicStore64(volatile long* pValue, long value);
VXCAM_API void VxCamAtomicStoreU64(volatile unsigned long* pValue, unsigned long value);
VXCAM_API void VxCamAtomicStoreP(void* volatile* ppValue, void* pValue);

VXCAM_API int VxCamAtomicLoad(volatile int* pValue);
VXCAM_API int VxCamAtomicLoad32(volatile int* pValue);
VXCAM_API unsigned int VxCamAtomicLoadU(volatile unsigned int* pValue);
VXCAM_API unsigned int VxCamAtomicLoadU32(volatile unsigned int* pValue);
VXCAM_API signed char VxCamAtomicLoad8(volatile signed char* pValue);
VXCAM_API unsigned char VxCamAtomicLoadU8(volatile unsigned char* pValue);
VXCAM_API long VxCamAtomicLoad64(volatile long* pValue);
VXCAM_API unsigned long VxCamAtomicLoadU64(volatile unsigned long* pValue);
VXCAM_API void* VxCamAtomicLoadP(void* volatile* ppValue);

// 1 when *pValue held `expected` and now holds `desired`, else 0 (and *pValue is unchanged).
VXCAM_API int VxCamAtomicCompareExchange(volatile int* pValue, int expected, int desired);
VXCAM_API int VxCamAtomicCompareExchangeU(volatile unsigned int* pValue, unsigned int expected,
                                          unsigned int desired);
// Full sequentially consistent barrier.
VXCAM_API void VxCamFence();

// ---- Semaphore ------------------------------------------------------------------------------
// A process-private counting semaphore, starting at 0. Objects live on the heap: Create makes
// one, Destroy frees it, and it must outlive every waiter (Destroy wakes none).
class VXCAM_API Semaphore {
  public:
    // Null when the semaphore cannot be initialised.
    static Semaphore* Create();
    // 0, or 1 with the object left invalid: Wait and Signal then return at once.
    int Initialize();
    void Destroy();
    void Wait();
    void Signal();
    // 0 when signalled within `milliseconds` of the wall clock, else 1. (6 is kept for a wait
    // call that returns ETIMEDOUT itself; the POSIX semaphore returns -1 with errno instead.)
    int TimedWait(unsigned int milliseconds);

  private:
    Semaphore() = default;
    ~Semaphore() = default;
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    sem_t m_semaphore{};
    uint32_t m_valid = 0;
};

}  // namespace VxCam

#endif  // VXCAM_COMMON_UTILS_H
