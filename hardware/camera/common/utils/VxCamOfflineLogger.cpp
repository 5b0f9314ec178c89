// The offline logger: its instances and their start, the memory pool and registrations, the
// per-thread capture, camera sessions and the C entry table. The rest of the logger is in files
// beside this one: flushing (VxCamOfflineLoggerFlush.cpp), retention, crash backup and the status
// report (VxCamOfflineLoggerRetention.cpp), the signal catcher (VxCamSignalCatcher.cpp), and the
// mechanisms with invariants of their own, the capture lock (VxCamCaptureLock.h) and the bucket
// memory (VxCamBucketMemory.h).
#include "VxCamOfflineLogger.h"

#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include <VxCamPortPath.h>
#include <log/log.h>

#include "VxCamBucketMemory.h"
#include "VxCamOfflineLoggerInternal.h"
#include "VxCamStaticSetting.h"

namespace VxCam {

namespace {

constexpr uint32_t kSegmentLimit = 52428800;  // 50 MiB per file part
constexpr double kMinimumStartSpaceMB = 3000.0;

constexpr OfflineLoggerConfigInfo kBuiltInConfig[4] = {
        {25, 25, 6, 3145728},   // OfflineLog
        {25, 25, 12, 3145728},  // BinaryLog
        {0, 60, 50, 3145728},   // CoredumpTxt
        {0, 2, 1, 3145728},     // CoredumpBin
};

// Capturing threads store into their own registration under the shared lock only, so the table
// must never move: it is reserved once for this many registrations, and a request beyond that
// fails like an allocation failure. Each live registration holds a 3 MiB bucket, so the bound is
// far above any real pool; the reservation is address space, untouched until used.
constexpr size_t kRegistrationCapacity = 4096;

const char* TypeName(uint32_t type) {
    static const char* const kNames[] = {"OfflineLog", "BinaryLog", "CoredumpTxt", "CoredumpBin"};
    return type < 4 ? kNames[type] : "UnKnow";
}

std::mutex s_offlineLoggerMutex;
std::atomic<bool> s_threadGuard{false};

// The entry table's per-type instance cache, shared with the thread-exit guard.
std::atomic<VxCamOfflineLogger*> s_entryInstances[4];

VxCamOfflineLogger* CachedInstance(OfflineLoggerType type) {
    if (!IsValidType(type)) return VxCamOfflineLogger::GetInstance(type);
    std::atomic<VxCamOfflineLogger*>& entry = s_entryInstances[TypeIndex(type)];
    VxCamOfflineLogger* logger = entry.load(std::memory_order_acquire);
    if (logger == nullptr) {
        logger = VxCamOfflineLogger::GetInstance(type);
        entry.store(logger, std::memory_order_release);
    }
    return logger;
}

}  // namespace

// ---- Process-wide state -------------------------------------------------------------------------

// Shared with the logger's other files: VxCamOfflineLoggerInternal.h says what they are.
OfflineLoggerThreadLock s_threadLock;
__thread const VxCamOfflineLogger* t_sessionEndingLogger = nullptr;
__thread uint32_t t_reportedSession = 0;

std::atomic<uint32_t> VxCamOfflineLogger::s_isInitValid{0};
std::mutex* VxCamOfflineLogger::m_pOfflineLoggerLock = &s_offlineLoggerMutex;
OfflineLoggerThreadLock* VxCamOfflineLogger::m_pThreadLock = &s_threadLock;
std::atomic<bool>* VxCamOfflineLogger::m_pThreadGuard = &s_threadGuard;

// Text and binary logs count segments from 1, the core-dump types from 0.
thread_local uint32_t VxCamOfflineLogger::s_threadLocalSegmentCnt[4] = {1, 1, 0, 0};
thread_local unsigned char* VxCamOfflineLogger::s_pThreadLocalLogBuffer[4] = {};
thread_local int32_t VxCamOfflineLogger::s_threadLocalQueuePoolId[4] = {};
thread_local uint32_t VxCamOfflineLogger::s_threadLocalSessionCnt[4] = {};
thread_local uint32_t VxCamOfflineLogger::s_threadLocalLogSize[4] = {};
thread_local uint32_t VxCamOfflineLogger::s_threadLocalLogCurPos[4] = {};
thread_local uint32_t VxCamOfflineLogger::s_threadLocalFlushDone[4] = {};
thread_local LifetimeThreadInfo VxCamOfflineLogger::s_threadLocalLifeTime[4] = {};

// The capture reads the thread-locals above for every line. Their exported names may be
// interposed, so each costs a run-time look-up of its own; these aliases of the same storage are
// bound within the library, so a line looks up the library's thread-local block once.
#define VXCAM_LOCAL_ALIAS(symbol) \
    __attribute__((alias(#symbol), tls_model("local-dynamic"), visibility("hidden")))
namespace {
extern __thread uint32_t t_segmentCnt[4] VXCAM_LOCAL_ALIAS(
        _ZN5VxCam18VxCamOfflineLogger23s_threadLocalSegmentCntE);
extern __thread unsigned char* t_logBuffer[4] VXCAM_LOCAL_ALIAS(
        _ZN5VxCam18VxCamOfflineLogger23s_pThreadLocalLogBufferE);
extern __thread int32_t t_queuePoolId[4] VXCAM_LOCAL_ALIAS(
        _ZN5VxCam18VxCamOfflineLogger24s_threadLocalQueuePoolIdE);
extern __thread uint32_t t_sessionCnt[4] VXCAM_LOCAL_ALIAS(
        _ZN5VxCam18VxCamOfflineLogger23s_threadLocalSessionCntE);
extern __thread uint32_t t_logSize[4] VXCAM_LOCAL_ALIAS(
        _ZN5VxCam18VxCamOfflineLogger20s_threadLocalLogSizeE);
extern __thread uint32_t t_logCurPos[4] VXCAM_LOCAL_ALIAS(
        _ZN5VxCam18VxCamOfflineLogger22s_threadLocalLogCurPosE);
extern __thread uint32_t t_flushDone[4] VXCAM_LOCAL_ALIAS(
        _ZN5VxCam18VxCamOfflineLogger22s_threadLocalFlushDoneE);
}  // namespace
#undef VXCAM_LOCAL_ALIAS

// ---- Instances ----------------------------------------------------------------------------------

VxCamOfflineLogger* VxCamOfflineLogger::GetInstance(OfflineLoggerType type) {
    static VxCamOfflineLogger* const* s_instances = []() -> VxCamOfflineLogger* const* {
        static VxCamOfflineLogger* table[4] = {};
        try {
            for (uint32_t t = 0; t < 4; ++t) {
                table[t] = new VxCamOfflineLogger(static_cast<OfflineLoggerType>(t),
                                                  &kBuiltInConfig[t]);
            }
        } catch (const std::bad_alloc&) {
            OFFLINE_LOGE("VxCamOfflineLogger allocate memory failed");
            return nullptr;
        }
        return table;
    }();
    // Stored once: every debug message passes here, from every thread.
    if (s_isInitValid.load(std::memory_order_relaxed) == 0) {
        s_isInitValid.store(1, std::memory_order_relaxed);
    }
    if (s_instances == nullptr || !IsValidType(type)) return nullptr;
    return s_instances[type & 3];
}

VxCamOfflineLogger::VxCamOfflineLogger(OfflineLoggerType type, const OfflineLoggerConfigInfo* config)
    : m_typeEnabled{},
      m_loggerTypeName(TypeName(type)),
      m_prefixReady(0),
      m_state(kStateActive),
      m_loggerType(type),
      m_sessionCount(1),
      m_sessionFlushState(0),
      m_flushRequestCount(0),
      m_totalFlushSizeMB(0.0f),
      m_logInfo{},
      m_maxFileNameListSize(0),
      m_minimumRequireForBackupLog(0),
      m_enableBackupLogWhileCrash(0),
      m_coredumpEnabled(0),
      m_multiPathMode(0),
      m_statusFd(-1),
      m_statusDumpFile(nullptr),
      m_fwriteSampleCount(0),
      m_fwriteTimeAvgMs(0.0f),
      m_totalFlushTimeMs(0.0f),
      m_totalFlushCount(0),
      m_removeSuccessCount(0),
      m_removeFailCount(0),
      m_requestMemoryCount(0),
      m_triggerOperation(0),
      m_cleanupTriggerCount(0),
      m_statusDumpEnabled(0),
      m_cameraOpenCount{},
      m_signal35TombstoneTriggered(0),
      m_maxFlushLogSizeThreshold(2600),
      m_pConfigInfo(config != nullptr ? config : &kBuiltInConfig[type & 3]),
      m_flushTriggerLink(nullptr),
      m_cleanupTriggerLink(nullptr),
      m_registrationCount(0) {
    m_fileNameSet.max_load_factor(1.0f);
    m_perLogInfoPool.reserve(
            std::max<size_t>(kRegistrationCapacity, 4u * m_pConfigInfo->initialBucketCount));
}

VxCamOfflineLogger::~VxCamOfflineLogger() {
    for (unsigned char* bucket : m_memPool) BucketPages::Unmap(bucket);
    m_memPool.clear();
    m_memPool.shrink_to_fit();
}

std::string VxCamOfflineLogger::DeviceRoot() const {
    return VxCamPort::ResolveDevicePath(kDeviceRoot);
}

int VxCamOfflineLogger::GetSettingLink() {
    VxCamStaticSetting* settings = VxCamStaticSetting::GetInstance();
    std::string root;
    try {
        root = DeviceRoot();
    } catch (const std::bad_alloc&) {
        OFFLINE_LOGE("VxCamOfflineLogger get override setting failed");
        return 0;
    }
    const double freeMB = GetAvailableSpace(root.c_str());
    if (freeMB >= 0.0 && freeMB < kMinimumStartSpaceMB) {
        char path[kPathSize];
        const int length = snprintf(path, sizeof(path), "%s/VxCam_%s_ErrorMsg.txt", root.c_str(),
                                    m_loggerTypeName.c_str());
        if (length > 0 && static_cast<size_t>(length) < sizeof(path)) {
            FILE* file = fopen(path, "a+");
            if (file != nullptr) {
                static const char kNoSpace[] =
                        "VxCamOfflineLogger detect file system has no space left";
                fwrite(kNoSpace, 1, sizeof(kNoSpace) - 1, file);
                fclose(file);
            }
        }
        OFFLINE_LOGE("VxCamOfflineLogger detect file system has no space left!");
        OFFLINE_LOGE("VxCamOfflineLogger get override setting failed");
        return 0;
    }
    if (freeMB < 0.0) {
        OFFLINE_LOGE("VxCamOfflineLogger query system space failed!");
        OFFLINE_LOGE("VxCamOfflineLogger get override setting failed");
        return 0;
    }
    if (settings == nullptr) {
        OFFLINE_LOGE("VxCamOfflineLogger get override setting failed");
        return 0;
    }

    // Built in: no setting changes these.
    m_maxFileNameListSize = 200;
    m_minimumRequireForBackupLog = 3000;
    m_enableBackupLogWhileCrash = 1;
    m_typeEnabled[OfflineLog] = 0;
    m_typeEnabled[BinaryLog] = 0;
    m_typeEnabled[CoredumpTxt] = 1;
    m_typeEnabled[CoredumpBin] = 1;
    m_statusDumpEnabled = 0;

    if (!IsValidType(m_loggerType) || m_typeEnabled[TypeIndex(m_loggerType)] != 1) return 1;

    int result;
    {
        PoolHold lock(*m_pOfflineLoggerLock);
        result = AllocateLogQueueMemPool(m_pConfigInfo->initialBucketCount,
                                         m_pConfigInfo->bucketSize);
    }
    if (result != 1) return result;
    m_state.store(kStateActive);
    RegisterSignalHandlersOnce();
    return 1;
}

void VxCamOfflineLogger::SetAllToDefaultValue() {
    PoolHold lock(*m_pOfflineLoggerLock);
    m_freeBucketIds.clear();
    for (size_t i = 0; i < m_memPool.size(); ++i) m_freeBucketIds.push_back(static_cast<int>(i));
    // Every bucket is free again: none keeps pages until a thread writes into it.
    for (unsigned char* bucket : m_memPool) BucketPages::GiveBack(bucket);
    m_flushedThreadList.clear();
    DropSession();
}

// With the pool lock held: the session's naming, registrations and requests go.
void VxCamOfflineLogger::DropSession() {
    m_prefixReady = 0;
    m_sessionPrefix.clear();
    m_freeRegisterIds.clear();
    m_flushRequestIds.clear();
    m_fileNameList.clear();
    m_fileNameSet.clear();
    m_fwriteTimeHistory.clear();
    m_perLogInfoPool.clear();  // keeps its reservation: registrations never move
    m_registrationCount.store(0, std::memory_order_relaxed);
}

DebugLogInfo VxCamOfflineLogger::GetLogInfoMask() {
    return m_logInfo;
}

void VxCamOfflineLogger::SetLogInfoMask(DebugLogInfo* info) {
    if (info == nullptr) return;
    m_logInfo.debugMask = info->debugMask;
    m_logInfo.errorMask = info->errorMask;
    m_logInfo.warningMask = info->warningMask;
    m_logInfo.level3Mask = info->level3Mask;
    m_logInfo.infoMask = info->infoMask;
    m_logInfo.verboseMask = info->verboseMask;
    m_logInfo.systemLogEnable = info->systemLogEnable;
    m_logInfo.offlineLogEnable = info->offlineLogEnable;
    m_logInfo.isUpdated = info->isUpdated;
}

// ---- Memory pool and registrations --------------------------------------------------------------

int VxCamOfflineLogger::AllocateLogQueueMemPool(unsigned int count, unsigned int size) {
    bool failed = false;
    for (unsigned int i = 0; i < count; ++i) {
        // Zero pages that cost nothing until a thread writes into them.
        unsigned char* bucket = BucketPages::Map(size);
        if (bucket == nullptr) {
            OFFLINE_LOGE("VxCamOfflineLogger allocate memory failed");
            failed = true;
            continue;
        }
        try {
            m_memPool.push_back(bucket);
            m_freeBucketIds.push_back(static_cast<int>(m_memPool.size() - 1));
        } catch (const std::bad_alloc&) {
            if (!m_memPool.empty() && m_memPool.back() == bucket) m_memPool.pop_back();
            BucketPages::Unmap(bucket);
            OFFLINE_LOGE("VxCamOfflineLogger allocate memory failed");
            failed = true;
        }
    }
    return failed ? 0 : 1;
}

int VxCamOfflineLogger::RequestNewLogQueue(unsigned char*& buffer, unsigned int threadId,
                                           int segmentCnt) {
    const uint32_t type = TypeIndex(m_loggerType);
    int registerId = -1;
    buffer = nullptr;
    PoolHold lock(*m_pOfflineLoggerLock);
    const uint32_t sessionCnt = t_sessionCnt[type];
    ++m_requestMemoryCount;
    try {
        // A pool that has to grow does not hand out a free registerId on the same request.
        bool mayReuseRegistration = true;
        if (m_freeBucketIds.empty()) {
            AllocateLogQueueMemPool(m_pConfigInfo->growBucketCount, m_pConfigInfo->bucketSize);
            mayReuseRegistration = false;
        }
        if (!m_freeBucketIds.empty()) {
            const int bucketId = m_freeBucketIds.front();
            const bool presetPath = m_multiPathMode == 1 && m_loggerType == CoredumpTxt;
            if (mayReuseRegistration && !m_freeRegisterIds.empty()) {
                registerId = m_freeRegisterIds.front();
                m_freeRegisterIds.pop_front();
                PerLogThreadInfo& info = m_perLogInfoPool[registerId];
                info.flushRequested = 0;
                info.fileNameReady = presetPath ? 1 : 0;
                info.threadId = threadId;
                info.bucketId = static_cast<uint32_t>(bucketId);
                info.sessionCnt = sessionCnt;
                info.segmentCnt = segmentCnt;
                info.logSize = 0;
                info.lastFlag = 0;
                info.fileSize = 0;
                if (presetPath) info.path = m_multiPathCoredumpPath;
            } else if (m_perLogInfoPool.size() < m_perLogInfoPool.capacity()) {
                m_perLogInfoPool.push_back(PerLogThreadInfo{
                        0, presetPath ? 1u : 0u, threadId, static_cast<uint32_t>(bucketId),
                        sessionCnt, segmentCnt, 0,
                        presetPath ? m_multiPathCoredumpPath : std::string(), 0, 0});
                registerId = static_cast<int>(m_perLogInfoPool.size() - 1);
                m_registrationCount.store(static_cast<int32_t>(m_perLogInfoPool.size()),
                                          std::memory_order_relaxed);
            }
            if (registerId >= 0) {
                m_freeBucketIds.pop_front();
                buffer = m_memPool[bucketId];
            }
        }
    } catch (const std::bad_alloc&) {
        registerId = -1;
        buffer = nullptr;
    }
    if (buffer == nullptr) {
        OFFLINE_LOGE("Offlinelog failed to request new container");
        registerId = -1;
    }
    LifetimeThreadInfo& lifetime = s_threadLocalLifeTime[type];
    lifetime.threadId = threadId;
    lifetime.registerId = registerId;
    lifetime.valid = 1;
    lifetime.type = static_cast<OfflineLoggerType>(type);
    lifetime.owner = this;
    return registerId;
}

void VxCamOfflineLogger::CleanupMemoryPool() {
    TurnHold turn(m_loggerType);
    ExclusiveHold threads(*m_pThreadLock);
    PoolHold lock(*m_pOfflineLoggerLock);
    m_freeBucketIds.clear();
    m_flushRequestIds.clear();
    m_freeRegisterIds.clear();
    m_perLogInfoPool.clear();
    m_registrationCount.store(0, std::memory_order_relaxed);
    for (unsigned char* bucket : m_memPool) BucketPages::Unmap(bucket);
    m_memPool.clear();
    m_memPool.shrink_to_fit();
    // Every thread's bucket pointer is stale now; the capture notices the new session.
    m_sessionCount.fetch_add(1);
}

// With the pool lock held. Gives a registration's bucket and id back to their free lists. The
// registration then names no thread (id 0): its old thread may still hold the id, and must not
// take the registration for its own again.
void VxCamOfflineLogger::ReleaseRegistration(int registerId) {
    PerLogThreadInfo& info = m_perLogInfoPool[registerId];
    m_freeRegisterIds.push_back(registerId);
    try {
        m_freeBucketIds.push_back(static_cast<int>(info.bucketId));
    } catch (const std::bad_alloc&) {
        m_freeRegisterIds.pop_back();  // free both or neither
        throw;
    }
    info.flushRequested = 0;
    info.fileNameReady = 0;
    info.threadId = 0;
    info.logSize = 0;
    info.lastFlag = 0;
}

// Gives up the registration the calling thread holds for `type`, before it registers afresh, takes
// a new path, or ends: queued for the flush when it holds text, so that the text goes to the file
// the registration names, or released at once when empty. The thread holds no bucket afterwards.
//
// Registrations can go behind their threads' backs: a camera close of the text and binary logs,
// and a pool clean-up, drop them all; a flush of everything releases those of ended sessions. The
// id a thread holds may then be another thread's. So a thread owns the registration its id names
// only while, under the pool lock, the registration names this thread and the session, and is
// neither queued nor released: a thread has one such registration of a type at most.
//
// No flush trigger is called. Only the core-dump types, whose registrations outlive a camera
// close, have anything to hand over here (a close of the text and binary logs has dropped their
// threads' registrations already), and for them a thread's end, a new session or a new path call
// for no flush: the host writes the text when it next flushes the type, a normal flush counting
// it towards its batch.
void VxCamOfflineLogger::HandOverRegistration(unsigned int type) {
    const bool holds = t_logBuffer[type] != nullptr;
    const int32_t registerId = t_queuePoolId[type];
    t_logBuffer[type] = nullptr;
    t_queuePoolId[type] = -1;
    if (!holds || registerId < 0) return;
    const uint32_t threadId = static_cast<uint32_t>(gettid());
    PoolHold lock(*m_pOfflineLoggerLock);
    if (static_cast<size_t>(registerId) >= m_perLogInfoPool.size()) return;
    PerLogThreadInfo& info = m_perLogInfoPool[registerId];
    // Not the bucket: a flush of everything that this thread has not noticed yet may have given
    // the registration a fresh one in place of the one the thread holds.
    if (info.flushRequested != 0 || info.threadId != threadId ||
        info.sessionCnt != t_sessionCnt[type] || info.bucketId >= m_memPool.size()) {
        return;
    }
    try {
        if (info.logSize != 0) {
            m_flushRequestIds.push_back(registerId);
            info.flushRequested = 1;
            ++m_flushRequestCount;
        } else {
            ReleaseRegistration(registerId);
            // Free buckets keep no pages of their own.
            BucketPages::GiveBack(m_memPool[info.bucketId]);
        }
    } catch (const std::bad_alloc&) {
        OFFLINE_LOGE("VxCamOfflineLogger allocate memory failed");
    }
}

LifetimeThreadInfo::~LifetimeThreadInfo() {
    if (valid != 1) return;
    const uint32_t index = TypeIndex(type);
    if (t_logBuffer[index] == nullptr) return;  // holds no bucket
    VxCamOfflineLogger* logger = owner != nullptr ? owner : CachedInstance(type);
    if (logger == nullptr) return;
    if (type == CoredumpTxt || type == CoredumpBin) {
        // Core-dump text is not flushed when its thread ends, but the bucket must not outlive the
        // thread: handed over without a flush request, it is written by the host's next flush of
        // the type, and an empty one is free at once.
        logger->HandOverRegistration(index);
        return;
    }
    if (logger->IsEnableOfflinelogger() == 0) return;  // buckets are gone
    SharedHold hold(*VxCamOfflineLogger::m_pThreadLock);
    // A camera close or a clean-up since the bucket was taken has already written or released
    // it, and the registerId may belong to another thread by now.
    if (t_sessionCnt[index] != logger->m_sessionCount.load(std::memory_order_relaxed)) return;
    logger->RequestFlushLogQueue(registerId, 0);
}

// ---- Capture ------------------------------------------------------------------------------------

int VxCamOfflineLogger::RegisterThread(unsigned int type) {
    // A core-dump registration outlives a camera close: the thread's old one goes first, with
    // what it holds, or it would be left behind. Those of the other types are gone by now.
    if (type == CoredumpTxt || type == CoredumpBin) HandOverRegistration(type);
    t_sessionCnt[type] = m_sessionCount.load(std::memory_order_relaxed);
    t_logSize[type] = 0;
    t_segmentCnt[type] = 1;
    t_logCurPos[type] = 0;
    // Flushes of everything before this registration wrote nothing of it.
    t_flushDone[type] = m_sessionFlushState.load(std::memory_order_relaxed);
    t_queuePoolId[type] = RequestNewLogQueue(t_logBuffer[type], static_cast<unsigned int>(gettid()),
                                             static_cast<int>(t_segmentCnt[type]));
    return t_queuePoolId[type];
}

void VxCamOfflineLogger::AppendToBucket(unsigned int type, const char* log, unsigned int length) {
    memcpy(t_logBuffer[type] + t_logCurPos[type], log, length);
    const uint32_t curPos = t_logCurPos[type] += length;
    const uint32_t logSize = t_logSize[type] += length;
    const int32_t registerId = t_queuePoolId[type];
    if (registerId >= 0 && registerId < m_registrationCount.load(std::memory_order_relaxed)) {
        // data(): the table's start never moves, while its end may grow under another thread.
        PerLogThreadInfo& info = m_perLogInfoPool.data()[registerId];
        info.logSize = curPos;
        info.fileSize = logSize;
    }
}

int VxCamOfflineLogger::AddLog(const char* log, unsigned int length) {
    if (m_state.load(std::memory_order_relaxed) == kStateDisabled) return 2;
    if (s_isInitValid.load(std::memory_order_relaxed) == 0) return 1;
    if (m_pThreadGuard->load(std::memory_order_acquire)) {
        OFFLINE_LOGE("VxCamOfflineLogger: Please note log is skipped due to camera is closing");
        return 0;
    }
    if (log == nullptr || length == 0) return 0;

    const unsigned int type = TypeIndex(m_loggerType);
    const uint32_t bucketSize = m_pConfigInfo->bucketSize;
    // Callers may state more than they hold: the debug frame passes the length its line would
    // have had before it was cut to its buffer. A text line ends at its terminator, and no line
    // is longer than a bucket; binary records are taken at their word.
    if (type == OfflineLog || type == CoredumpTxt) {
        const void* end = memchr(log, '\0', length);
        if (end != nullptr) length = static_cast<unsigned int>(static_cast<const char*>(end) - log);
    }
    if (length > bucketSize) length = bucketSize;
    if (length == 0) return 0;

    // GCC recomputes a thread-local's address, with a call into the dynamic linker, wherever it is
    // used rather than keep it; passed through an empty asm it is an ordinary value to keep.
    CaptureThread* capture = &t_capture;
    asm("" : "+r"(capture));
    CaptureThread& self = *capture;
    if (self.logCurPos == nullptr) {
        self.sessionCnt = t_sessionCnt;
        self.logBuffer = t_logBuffer;
        self.queuePoolId = t_queuePoolId;
        self.logSize = t_logSize;
        self.logCurPos = t_logCurPos;
        self.flushDone = t_flushDone;
    }
    SharedHold hold(*m_pThreadLock, self.lock);
    // The common line: registered in this session, no flush of everything since the last line,
    // room in the bucket and in the segment. Any other case takes the steps below in their order.
    const uint32_t curPos = self.logCurPos[type];
    unsigned char* const bucket = self.logBuffer[type];
    const int32_t registerId = self.queuePoolId[type];
    if (self.sessionCnt[type] == m_sessionCount.load(std::memory_order_relaxed) &&
        bucket != nullptr &&
        self.flushDone[type] == m_sessionFlushState.load(std::memory_order_relaxed) &&
        uint64_t{curPos} + length <= bucketSize && self.logSize[type] <= kSegmentLimit &&
        registerId >= 0 && registerId < m_registrationCount.load(std::memory_order_relaxed)) {
        memcpy(bucket + curPos, log, length);
        const uint32_t segmentSize = self.logSize[type] += length;
        self.logCurPos[type] = curPos + length;
        PerLogThreadInfo& info = m_perLogInfoPool.data()[registerId];
        info.logSize = curPos + length;
        info.fileSize = segmentSize;
        return 0;
    }
    if (t_sessionCnt[type] != m_sessionCount.load(std::memory_order_relaxed)) {
        // First line of this thread, or first since a camera close or clean-up.
        RegisterThread(type);
    } else if (t_logBuffer[type] == nullptr) {
        return 0;  // no bucket could be had in this session
    } else {
        const uint32_t flushState = m_sessionFlushState.load(std::memory_order_relaxed);
        if (t_flushDone[type] != flushState) {
            // A flush of every bucket has taken this one's text: start over, in the fresh bucket
            // it may have left in its place.
            t_flushDone[type] = flushState;
            t_logSize[type] = 0;
            t_logCurPos[type] = 0;
            TakeBackBucket(type);
        }
        // The bucket test comes first, so a segment ends only on a line that fits its bucket.
        if (t_logCurPos[type] + length > bucketSize) {
            RequestFlushLogQueue(t_queuePoolId[type], 0);
            t_queuePoolId[type] =
                    RequestNewLogQueue(t_logBuffer[type], static_cast<unsigned int>(gettid()),
                                       static_cast<int>(t_segmentCnt[type]));
            t_logCurPos[type] = 0;
        } else if (t_logSize[type] > kSegmentLimit) {
            ++t_segmentCnt[type];
            t_logSize[type] = 0;
            RequestFlushLogQueue(t_queuePoolId[type], 1);
            t_queuePoolId[type] =
                    RequestNewLogQueue(t_logBuffer[type], static_cast<unsigned int>(gettid()),
                                       static_cast<int>(t_segmentCnt[type]));
            t_logCurPos[type] = 0;
        } else if (t_queuePoolId[type] >= m_registrationCount.load(std::memory_order_relaxed)) {
            OFFLINE_LOGE(
                    "Exceed per thrad pool size, Local:%d, m_sessionCount:%d, pool size:%zu, "
                    "PoolId: %d",
                    t_sessionCnt[type], m_sessionCount.load(),
                    static_cast<size_t>(m_registrationCount.load()), t_queuePoolId[type]);
            RegisterThread(type);
        }
    }
    if (t_logBuffer[type] != nullptr) AppendToBucket(type, log, length);
    return 0;
}

int VxCamOfflineLogger::DPrintF(int fd, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int result = vdprintf(fd, format, arguments);
    va_end(arguments);
    return result;
}

// After a flush of everything: the thread's registration may hold a fresh bucket now.
void VxCamOfflineLogger::TakeBackBucket(unsigned int type) {
    const int32_t registerId = t_queuePoolId[type];
    PoolHold lock(*m_pOfflineLoggerLock);
    if (registerId < 0 || static_cast<size_t>(registerId) >= m_perLogInfoPool.size()) return;
    PerLogThreadInfo& info = m_perLogInfoPool[registerId];
    if (info.flushRequested != 0 || info.sessionCnt != t_sessionCnt[type] ||
        info.threadId != static_cast<uint32_t>(gettid()) || info.bucketId >= m_memPool.size()) {
        return;
    }
    t_logBuffer[type] = m_memPool[info.bucketId];
    info.logSize = 0;
}

// ---- Camera sessions and enablement -------------------------------------------------------------

void VxCamOfflineLogger::NotifyCameraOpen() {
    if (m_state.load() == kStateDisabled) return;
    uint32_t openCount;
    {
        PoolHold lock(*m_pOfflineLoggerLock);
        if (!IsValidType(m_loggerType)) return;
        openCount = ++m_cameraOpenCount[TypeIndex(m_loggerType)];
    }
    if (openCount >= 2) {
        OFFLINE_LOGE(
                "VxCamOfflineLogger not support concurrent camera usecase and will be "
                "disable!");
        m_state.store(kStateDisabled);
    }
}

void VxCamOfflineLogger::NotifyCameraClose() {
    // The session's files are written before any flush of the next session's. The state is read
    // in the turn, so that a close that comes while another ends the session ends the next one
    // itself, with its flush, rather than reset it unwritten.
    TurnHold turn(m_loggerType);
    uint32_t state = m_state.load();
    if (state == kStateDisabled) return;
    const bool textOrBinary = m_loggerType == OfflineLog || m_loggerType == BinaryLog;
    bool flush = false;
    // Not over a disable that came meanwhile, which waits for this turn.
    if (state == kStateActive && m_state.compare_exchange_strong(state, kStateClosing)) {
        flush = textOrBinary;
    }
    // The flush takes the threads' buckets with the capture shut out, starts the next session and
    // lets the threads in again before it writes; lines that arrive while it holds them off are
    // dropped with a message, so that a close drops only what comes in those microseconds.
    t_sessionEndingLogger = this;
    if (flush) FlushLogToFile(1, 0);
    if (t_sessionEndingLogger == this) {
        // No flush ended the session (the core-dump types, whose buckets outlive a close, or a
        // flush that could not start): it ends here.
        ExclusiveHold threads(*m_pThreadLock);
        m_pThreadGuard->store(true);
        if (textOrBinary) SetAllToDefaultValue();
        EndSession();
    }
}

void VxCamOfflineLogger::DisableOfflinelogger() {
    if (m_state.exchange(kStateDisabled) == kStateDisabled) return;
    // A flush that is writing finishes first, and threads already past the state test finish
    // their line, before the buckets go.
    TurnHold turn(m_loggerType);
    ExclusiveHold threads(*m_pThreadLock);
    SetAllToDefaultValue();
    PoolHold lock(*m_pOfflineLoggerLock);
    for (unsigned char* bucket : m_memPool) BucketPages::Unmap(bucket);
    m_memPool.clear();
    m_memPool.shrink_to_fit();
    m_freeBucketIds.clear();
    // A new core-dump path takes a bucket without holding threads off, so a registration may have
    // come in since the reset: none outlives the buckets.
    m_freeRegisterIds.clear();
    m_flushRequestIds.clear();
    m_perLogInfoPool.clear();
    m_registrationCount.store(0, std::memory_order_relaxed);
}

int VxCamOfflineLogger::IsEnableOfflinelogger() {
    return m_state.load(std::memory_order_relaxed) == kStateDisabled ? 0 : 1;
}

int VxCamOfflineLogger::SetFlushTriggerLink(void (*trigger)(OfflineLoggerType)) {
    if (trigger == nullptr) return 0;
    m_flushTriggerLink.store(trigger, std::memory_order_release);
    return 1;
}

int VxCamOfflineLogger::SetCleanupTriggerLink(void (*trigger)(OfflineLoggerType)) {
    if (trigger == nullptr) return 0;
    m_cleanupTriggerLink = trigger;
    return 1;
}

void VxCamOfflineLogger::RequestBucketInPlace(unsigned int type) {
    // The old registration keeps its path: handed over first, its text lands in its own file.
    HandOverRegistration(type);
    t_queuePoolId[type] = RequestNewLogQueue(t_logBuffer[type], static_cast<unsigned int>(gettid()),
                                             static_cast<int>(t_segmentCnt[type]));
    t_logCurPos[type] = 0;
}

void VxCamOfflineLogger::SetMultiPathMode(int mode) {
    {
        // The bucket request presets core-dump paths by the mode, under the pool lock.
        PoolHold lock(*m_pOfflineLoggerLock);
        m_multiPathMode = static_cast<uint32_t>(mode);
    }
    if (mode == 0 && m_loggerType == CoredumpTxt) RequestBucketInPlace(CoredumpTxt);
}

// ---- Entry table --------------------------------------------------------------------------------
// Invalid types reach no logger: the functions return 0 or do nothing.

int OfflinelogAddLogInterface(OfflineLoggerType type, const char* text) {
    VxCamOfflineLogger* logger = CachedInstance(type);
    if (logger == nullptr || text == nullptr) return 0;
    return logger->AddLog(text, static_cast<unsigned int>(strlen(text)));
}

int OfflinelogFlushLogInterface(OfflineLoggerType type, int mode) {
    VxCamOfflineLogger* logger = CachedInstance(type);
    return logger != nullptr ? logger->FlushLogToFile(mode, 0) : 0;
}

void OfflinelogNoticeCameraOpenInterface(OfflineLoggerType type) {
    if (VxCamOfflineLogger* logger = CachedInstance(type)) logger->NotifyCameraOpen();
}

void OfflinelogNoticeCameraCloseInterface(OfflineLoggerType type) {
    if (VxCamOfflineLogger* logger = CachedInstance(type)) logger->NotifyCameraClose();
}

void OfflinelogDisableInterface(OfflineLoggerType type) {
    if (VxCamOfflineLogger* logger = CachedInstance(type)) logger->DisableOfflinelogger();
}

int OfflinelogIsEnableInterface(OfflineLoggerType type) {
    VxCamOfflineLogger* logger = CachedInstance(type);
    return logger != nullptr ? logger->IsEnableOfflinelogger() : 0;
}

int OfflinelogLinkFlushTriggerInterface(OfflineLoggerType type, void (*trigger)(OfflineLoggerType)) {
    VxCamOfflineLogger* logger = CachedInstance(type);
    return logger != nullptr ? logger->SetFlushTriggerLink(trigger) : 0;
}

int OfflinelogGetSettingInterface(OfflineLoggerType type) {
    VxCamOfflineLogger* logger = CachedInstance(type);
    return logger != nullptr ? logger->GetSettingLink() : 0;
}

int OfflinelogSetCleanupTriggerLink(OfflineLoggerType type, void (*trigger)(OfflineLoggerType)) {
    VxCamOfflineLogger* logger = CachedInstance(type);
    return logger != nullptr ? logger->SetCleanupTriggerLink(trigger) : 0;
}

int OfflinelogCleanupOlderLogFileInterface(OfflineLoggerType type) {
    if (VxCamOfflineLogger* logger = CachedInstance(type)) logger->RemoveOlderLogFiles();
    return 0;
}

int OfflinelogSetCoredumpPathInterface(OfflineLoggerType type, const char* path) {
    VxCamOfflineLogger* logger = CachedInstance(type);
    return logger != nullptr ? logger->SetCoredumpPath(path) : 0;
}

int OfflinelogEnableCoredumpInterface(OfflineLoggerType type) {
    if (VxCamOfflineLogger* logger = CachedInstance(type)) logger->EnableCoredump();
    return 0;
}

int OfflinelogDisableCoredumpInterface(OfflineLoggerType type) {
    if (VxCamOfflineLogger* logger = CachedInstance(type)) logger->DisableCoredump();
    return 0;
}

int OfflinelogIsCoredumpEnabledInterface(OfflineLoggerType type) {
    VxCamOfflineLogger* logger = CachedInstance(type);
    return logger != nullptr ? logger->IsCoredumpEnabled() : 0;
}

int OfflinelogSetMultiPathModeInterface(OfflineLoggerType type, int mode) {
    if (VxCamOfflineLogger* logger = CachedInstance(type)) logger->SetMultiPathMode(mode);
    return 0;
}

int OfflinelogCleanupMemPoolInterface(OfflineLoggerType type) {
    if (VxCamOfflineLogger* logger = CachedInstance(type)) logger->CleanupMemoryPool();
    return 0;
}

}  // namespace VxCam

extern "C" void ChiOfflineLogEntry(VxCam::OfflineLogEntryTable* table) {
    using namespace VxCam;
    if (table == nullptr) return;
    table->size = sizeof(OfflineLogEntryTable);
    table->padding = 0;
    table->addLog = OfflinelogAddLogInterface;
    table->flushLog = OfflinelogFlushLogInterface;
    table->noticeCameraOpen = OfflinelogNoticeCameraOpenInterface;
    table->noticeCameraClose = OfflinelogNoticeCameraCloseInterface;
    table->disable = OfflinelogDisableInterface;
    table->isEnable = OfflinelogIsEnableInterface;
    table->linkFlushTrigger = OfflinelogLinkFlushTriggerInterface;
    table->getSetting = OfflinelogGetSettingInterface;
    table->setCleanupTrigger = OfflinelogSetCleanupTriggerLink;
    table->cleanupOlderLogFile = OfflinelogCleanupOlderLogFileInterface;
    table->setCoredumpPath = OfflinelogSetCoredumpPathInterface;
    table->enableCoredump = OfflinelogEnableCoredumpInterface;
    table->disableCoredump = OfflinelogDisableCoredumpInterface;
    table->isCoredumpEnabled = OfflinelogIsCoredumpEnabledInterface;
    table->setMultiPathMode = OfflinelogSetMultiPathModeInterface;
    table->cleanupMemPool = OfflinelogCleanupMemPoolInterface;
}