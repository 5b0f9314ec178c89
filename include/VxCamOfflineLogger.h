// The offline logger: per-thread capture of log lines into memory buckets, written to session
// files under "/data/vendor/camera" when the host asks for a flush or a camera closes.
//
// One instance per logger type, created together on first use and never destroyed:
//
//     VxCamOfflineLogger* logger = VxCamOfflineLogger::GetInstance(OfflineLog);
//     logger->GetSettingLink();              // once, before the first line
//     logger->NotifyCameraOpen();
//     logger->AddLog(line, strlen(line));    // from any thread; lines carry their own '\n'
//     logger->NotifyCameraClose();           // writes what the threads hold, starts a new session
//
// Hosts that should not depend on this class use the C entry point ChiOfflineLogEntry instead.
//
// Operations call one another through the virtual slots, in the order declared here (the order is
// part of the binary interface), so a derived logger can replace any one of them.
#ifndef VXCAM_OFFLINE_LOGGER_H
#define VXCAM_OFFLINE_LOGGER_H

#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <atomic>
#include <deque>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "VxCamDebug.h"

#ifndef VXCAM_API
#define VXCAM_API __attribute__((visibility("default")))
#endif

namespace VxCam {

// Only the two low bits index per-type arrays; a value with any of bits 2 to 7 set is invalid.
enum OfflineLoggerType : uint32_t {
    OfflineLog = 0,
    BinaryLog = 1,
    CoredumpTxt = 2,
    CoredumpBin = 3,
};

struct OfflineLoggerConfigInfo {
    uint32_t initialBucketCount;  // buckets reserved by GetSettingLink
    uint32_t growBucketCount;     // buckets added when a thread finds none free
    uint32_t flushBatchSize;      // requests that must gather before a normal flush writes
    uint32_t bucketSize;          // bytes per bucket
};

// One thread's registration with one bucket; its index in the table is its registerId.
struct PerLogThreadInfo {
    uint32_t flushRequested;  // queued for the flush
    uint32_t fileNameReady;   // `path` names the file to append to
    uint32_t threadId;
    uint32_t bucketId;  // index into the memory pool
    uint32_t sessionCnt;
    int32_t segmentCnt;
    uint32_t logSize;  // bytes of the bucket in use
    std::string path;
    uint32_t lastFlag;  // the segment ends with this bucket
    uint32_t fileSize;  // bytes of the segment so far, across its buckets
};

class VxCamOfflineLogger;

// Hands a thread's bucket to the flush when the thread exits.
struct VXCAM_API LifetimeThreadInfo {
    uint32_t threadId;
    int32_t registerId;
    uint32_t valid;  // the thread has registered
    OfflineLoggerType type;
    // The logger that issued the registration, so a bucket goes back to its own pool.
    VxCamOfflineLogger* owner;

    ~LifetimeThreadInfo();
};

// A finished log file, kept for retention.
struct RecycleItemInfo {
    uint32_t sessionCnt;
    int32_t segmentCnt;
    uint32_t fileSize;
    std::string fileName;
};

class OfflineLoggerThreadLock;

class VXCAM_API VxCamOfflineLogger {
  public:
    // Null for an invalid type. The first call creates all four loggers.
    static VxCamOfflineLogger* GetInstance(OfflineLoggerType type);

    // Returns 2 when disabled, 1 before any instance exists, else 0 (also for a dropped line).
    virtual int AddLog(const char* log, unsigned int length);
    // Returns 0 when it ran, 2 with no buckets or when disabled, 1 before any instance exists.
    virtual int FlushLogToFile(int flushAll, int backup);
    // Returns the registerId, or -1 with a null `buffer`.
    virtual int RequestNewLogQueue(unsigned char*& buffer, unsigned int threadId, int segmentCnt);
    virtual void RequestFlushLogQueue(int registerId, int lastFlag);
    virtual void NotifyCameraOpen();
    virtual void NotifyCameraClose();
    virtual void DisableOfflinelogger();
    virtual int IsEnableOfflinelogger();
    virtual int SetFlushTriggerLink(void (*trigger)(OfflineLoggerType));
    virtual DebugLogInfo GetLogInfoMask();
    virtual void SetLogInfoMask(DebugLogInfo* info);
    // Starts the logger: 1 on success (also when the type is not switched on), 0 on failure.
    virtual int GetSettingLink();
    virtual int SetCleanupTriggerLink(void (*trigger)(OfflineLoggerType));
    virtual void RemoveOlderLogFiles();
    virtual std::string GetCurrentSessionPrefixFilename();
    virtual int SetCoredumpPath(const char* path);
    virtual void FlushLogBySeperateThread();
    virtual void EnableCoredump();
    virtual void DisableCoredump();
    virtual int IsCoredumpEnabled();
    virtual void SetMultiPathMode(int mode);
    virtual void CleanupMemoryPool();
    virtual int GetEnableBackupLogWhileCrash();
    virtual int GetMinimumRequireForBackupLog();
    // Free megabytes, or -1.0 when the file system cannot be queried.
    virtual double GetAvailableSpace(const char* path);
    virtual int GetSignal35TombstoneTriggered();
    virtual void SetSignal35TombstoneTriggered();
    virtual ~VxCamOfflineLogger();

    // Turns the status report on (1) or off (0): each flush then appends one report block to
    // "Offlinelog_Dump.log" under "/data/vendor/camera". The switch changes between flushes only,
    // so a flush that opened the dump file also writes and closes it.
    void SetStatusDumpEnabled(int enable);

  protected:
    // For derived loggers, which must outlive every thread that logged to them: a thread hands
    // its bucket back to its logger when it exits.
    VxCamOfflineLogger(OfflineLoggerType type, const OfflineLoggerConfigInfo* config);

    virtual std::string GetPrefixFilename();
    virtual void SetAllToDefaultValue();
    virtual int AllocateLogQueueMemPool(unsigned int count, unsigned int size);
    virtual std::string GetCurrentTime();
    virtual int BackupRecentModifyLog();
    virtual std::string GenerateLogFileNameByOfflineLoggerType(
            std::vector<PerLogThreadInfo>::iterator* it);
    virtual int MonitorFileSystemHealth(float fwriteTimeMs);
    virtual int DumpCurrentOfflineLogStatus();
    virtual int DPrintF(int fd, const char* format, ...) __attribute__((format(printf, 3, 4)));

    uint32_t m_typeEnabled[4];
    std::vector<unsigned char*> m_memPool;
    std::vector<PerLogThreadInfo> m_perLogInfoPool;
    std::deque<int> m_freeBucketIds;
    std::deque<int> m_freeRegisterIds;
    std::deque<int> m_flushRequestIds;
    std::list<std::string> m_fileNameList;
    std::unordered_set<std::string> m_fileNameSet;
    std::list<float> m_fwriteTimeHistory;
    std::string m_sessionPrefix;
    std::string m_sessionPrefixName;
    std::string m_sessionFolderName;
    std::string m_loggerTypeName;
    uint32_t m_prefixReady;
    // Capturing threads read these three without a lock.
    std::atomic<uint32_t> m_state;  // 0 active, 1 closing, 2 disabled
    OfflineLoggerType m_loggerType;
    std::atomic<uint32_t> m_sessionCount;
    std::atomic<uint32_t> m_sessionFlushState;
    uint32_t m_flushRequestCount;
    float m_totalFlushSizeMB;
    DebugLogInfo m_logInfo;
    uint32_t m_maxFileNameListSize;
    uint32_t m_minimumRequireForBackupLog;
    uint32_t m_enableBackupLogWhileCrash;
    std::string m_coredumpPath;
    std::string m_multiPathCoredumpPath;
    uint32_t m_coredumpEnabled;
    uint32_t m_multiPathMode;
    int m_statusFd;
    FILE* m_statusDumpFile;
    uint32_t m_fwriteSampleCount;
    float m_fwriteTimeAvgMs;
    float m_totalFlushTimeMs;
    uint32_t m_totalFlushCount;
    uint32_t m_removeSuccessCount;
    uint32_t m_removeFailCount;
    uint32_t m_requestMemoryCount;
    uint32_t m_triggerOperation;
    uint32_t m_cleanupTriggerCount;
    uint32_t m_statusDumpEnabled;
    uint32_t m_cameraOpenCount[4];
    uint32_t m_signal35TombstoneTriggered;
    std::list<RecycleItemInfo> m_recycleList;
    std::list<RecycleItemInfo> m_finishedThreadList;
    std::list<PerLogThreadInfo> m_flushedThreadList;
    std::map<uint32_t, int> m_threadRegisterMap;
    uint32_t m_maxFlushLogSizeThreshold;
    const OfflineLoggerConfigInfo* m_pConfigInfo;
    std::atomic<void (*)(OfflineLoggerType)> m_flushTriggerLink;
    void (*m_cleanupTriggerLink)(OfflineLoggerType);
    // Registrations in m_perLogInfoPool, for capturing threads, which must not read the vector's
    // own size while another thread appends to it.
    std::atomic<int32_t> m_registrationCount;

  public:
    static std::atomic<uint32_t> s_isInitValid;  // 1 once any instance was asked for
    // Process-wide, taken in this order: the thread lock (shared by capture, exclusive for camera
    // close, a flush of everything and pool clean-up, each only while it takes or drops buckets),
    // then the pool lock (not held while files are written). A logger's flushes, camera closes,
    // disable, clean-up and retention take one turn of the library's own before both.
    static std::mutex* m_pOfflineLoggerLock;
    static OfflineLoggerThreadLock* m_pThreadLock;
    static std::atomic<bool>* m_pThreadGuard;  // raised while a camera closes

    // Per thread, indexed by logger type.
    static thread_local uint32_t s_threadLocalSegmentCnt[4];
    static thread_local unsigned char* s_pThreadLocalLogBuffer[4];
    static thread_local int32_t s_threadLocalQueuePoolId[4];
    static thread_local uint32_t s_threadLocalSessionCnt[4];
    static thread_local uint32_t s_threadLocalLogSize[4];
    static thread_local uint32_t s_threadLocalLogCurPos[4];
    static thread_local uint32_t s_threadLocalFlushDone[4];
    static thread_local LifetimeThreadInfo s_threadLocalLifeTime[4];

  private:
    friend struct LifetimeThreadInfo;
    // Helpers of this build, not part of the interface.
#define VXCAM_OFFLINE_INTERNAL __attribute__((visibility("hidden")))
    VXCAM_OFFLINE_INTERNAL void AppendToBucket(unsigned int type, const char* log,
                                               unsigned int length);
    VXCAM_OFFLINE_INTERNAL int RegisterThread(unsigned int type);
    VXCAM_OFFLINE_INTERNAL void RequestBucketInPlace(unsigned int type);
    VXCAM_OFFLINE_INTERNAL void HandOverRegistration(unsigned int type);
    VXCAM_OFFLINE_INTERNAL void ReleaseRegistration(int registerId);
    VXCAM_OFFLINE_INTERNAL void RecordTextFileName(const std::string& namePart);
    VXCAM_OFFLINE_INTERNAL void KeepThreadBookkeeping(const PerLogThreadInfo& info);
    VXCAM_OFFLINE_INTERNAL std::string DeviceRoot() const;
    // A flush in three steps: the requests taken under the pool lock, the files written without
    // it, the buckets given back under it again.
    struct VXCAM_OFFLINE_INTERNAL FlushBatch;
    VXCAM_OFFLINE_INTERNAL int CollectFlush(FlushBatch& batch);
    VXCAM_OFFLINE_INTERNAL void WriteFlush(FlushBatch& batch);
    VXCAM_OFFLINE_INTERNAL void FinishFlush(FlushBatch& batch);
    VXCAM_OFFLINE_INTERNAL void ResetForNextSession(FlushBatch* batch);
    VXCAM_OFFLINE_INTERNAL void EndSession();
    VXCAM_OFFLINE_INTERNAL void DropSession();
    VXCAM_OFFLINE_INTERNAL void TakeBackBucket(unsigned int type);
#undef VXCAM_OFFLINE_INTERNAL
    VxCamOfflineLogger(const VxCamOfflineLogger&) = delete;
    VxCamOfflineLogger& operator=(const VxCamOfflineLogger&) = delete;
};

// ---- Crash signals ------------------------------------------------------------------------------
// On SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSYS and SIGTRAP the catcher writes a report and
// the faulting thread's stack into the text log and into a crash dump file next to the session's
// files, flushes every bucket (and copies the session's text logs to a crash folder when the disk
// has room), then calls the action that was installed before it. On signal 35, the platform's
// request for a stack dump, it writes the stack to the crash dump file only, notes the request and
// passes it on. GetSettingLink registers the catcher once per process, when a logger with a
// memory pool starts; the actions found then must be real handlers (on a device, the system crash
// reporter's), since the catcher calls them as they stand. Registering again keeps the actions
// found the first time, and a second fault on a thread that is already reporting one goes straight
// to the saved action.
VXCAM_API void RegisterSignalHandlers();
VXCAM_API void SignalCatcher(int sig, siginfo_t* info, void* context);
// Calls `oldAction`'s three-argument handler when it has SA_SIGINFO, else its one-argument one.
VXCAM_API void InvokeDefaultHndlr(struct sigaction* oldAction, int sig, siginfo_t* info,
                                  void* context);

// A core-dump base directory for hosts; the library itself neither reads nor writes it.
extern VXCAM_API char g_coreDumpBaseDirectory[256];

// ---- Entry table for hosts that use no C++ interface -------------------------------------------
// Each function forwards to the logger of its type. Functions that return a value for a void
// operation return 0; those from OfflinelogCleanupOlderLogFileInterface on also return 0 for an
// invalid type.
VXCAM_API int OfflinelogAddLogInterface(OfflineLoggerType type, const char* text);
VXCAM_API int OfflinelogFlushLogInterface(OfflineLoggerType type, int mode);
VXCAM_API void OfflinelogNoticeCameraOpenInterface(OfflineLoggerType type);
VXCAM_API void OfflinelogNoticeCameraCloseInterface(OfflineLoggerType type);
VXCAM_API void OfflinelogDisableInterface(OfflineLoggerType type);
VXCAM_API int OfflinelogIsEnableInterface(OfflineLoggerType type);
VXCAM_API int OfflinelogLinkFlushTriggerInterface(OfflineLoggerType type,
                                                  void (*trigger)(OfflineLoggerType));
VXCAM_API int OfflinelogGetSettingInterface(OfflineLoggerType type);
VXCAM_API int OfflinelogSetCleanupTriggerLink(OfflineLoggerType type,
                                              void (*trigger)(OfflineLoggerType));
VXCAM_API int OfflinelogCleanupOlderLogFileInterface(OfflineLoggerType type);
VXCAM_API int OfflinelogSetCoredumpPathInterface(OfflineLoggerType type, const char* path);
VXCAM_API int OfflinelogEnableCoredumpInterface(OfflineLoggerType type);
VXCAM_API int OfflinelogDisableCoredumpInterface(OfflineLoggerType type);
VXCAM_API int OfflinelogIsCoredumpEnabledInterface(OfflineLoggerType type);
VXCAM_API int OfflinelogSetMultiPathModeInterface(OfflineLoggerType type, int mode);
VXCAM_API int OfflinelogCleanupMemPoolInterface(OfflineLoggerType type);

// The record ChiOfflineLogEntry fills; hosts share it by layout.
struct OfflineLogEntryTable {
    uint32_t size;  // 136
    uint32_t padding;
    int (*addLog)(OfflineLoggerType, const char*);
    int (*flushLog)(OfflineLoggerType, int);
    void (*noticeCameraOpen)(OfflineLoggerType);
    void (*noticeCameraClose)(OfflineLoggerType);
    void (*disable)(OfflineLoggerType);
    int (*isEnable)(OfflineLoggerType);
    int (*linkFlushTrigger)(OfflineLoggerType, void (*)(OfflineLoggerType));
    int (*getSetting)(OfflineLoggerType);
    int (*setCleanupTrigger)(OfflineLoggerType, void (*)(OfflineLoggerType));
    int (*cleanupOlderLogFile)(OfflineLoggerType);
    int (*setCoredumpPath)(OfflineLoggerType, const char*);
    int (*enableCoredump)(OfflineLoggerType);
    int (*disableCoredump)(OfflineLoggerType);
    int (*isCoredumpEnabled)(OfflineLoggerType);
    int (*setMultiPathMode)(OfflineLoggerType, int);
    int (*cleanupMemPool)(OfflineLoggerType);
};
static_assert(sizeof(OfflineLogEntryTable) == 136,
              "the entry table is shared with hosts by layout");
static_assert(offsetof(OfflineLogEntryTable, addLog) == 8, "entry table layout");
static_assert(offsetof(OfflineLogEntryTable, cleanupMemPool) == 128, "entry table layout");

}  // namespace VxCam

// Fills `table` (size and the sixteen functions); does nothing for null. Starts no logger.
extern "C" VXCAM_API void ChiOfflineLogEntry(VxCam::OfflineLogEntryTable* table);

#endif  // VXCAM_OFFLINE_LOGGER_H
