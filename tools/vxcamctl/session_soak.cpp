// vxcamctl session --duration: a soak of camera sessions whose threads come and go, each session
// checked after its close and its files deleted, with resident memory sampled throughout.
#include <malloc.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Commands.h"
#include "Session.h"

namespace vxcamctl::session {

namespace {

// A soak's line a minute: so that an hour's run shows it is alive, and how memory goes.
void PrintSoakMinute(unsigned minute, unsigned sessions, unsigned long lines,
                     std::vector<long> kib) {
    if (kib.empty()) return;
    std::sort(kib.begin(), kib.end());
    const auto mib = [](long value) { return static_cast<double>(value) / 1024.0; };
    printf("%4u min: %u sessions, %lu lines checked; VmRSS over the minute low %.1f, median "
           "%.1f, high %.1f MiB\n",
           minute, sessions, lines, mib(kib.front()), mib(kib[kib.size() / 2]), mib(kib.back()));
    fflush(stdout);
}

}  // namespace

int RunSoak(const Options& options, const Library& library, const std::string& camera) {
    printf("soak: %u s of camera sessions of %u s, %u thread slots, %lu lines per thread%s\n",
           options.duration, kSoakSessionSeconds, options.threads, options.lines,
           options.closeWhileLogging ? ", a close half way through each session" : "");
    fflush(stdout);
    // A fixed threshold: the tool's own large vectors (the lines dropped in a close, the landed
    // bits) then go back to the system when freed, rather than settle in the allocator's arenas
    // as free memory that would blur the curve.
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    MemorySampler memory(options.duration + 2 * kSoakSessionSeconds + 2);
    PoolWatch pool;
    FlushThread flusher(library.table, &pool);
    library.table.linkFlushTrigger(kTextLog, FlushThread::Trigger);
    library.table.setCleanupTrigger(kTextLog, FlushThread::Cleanup);
    Tally total;
    Landed damage;  // out of order and foreign lines of every session
    std::atomic<unsigned long> threads{0};
    unsigned sessions = 0;
    size_t warmUp = options.duration / 5;  // in samples; raised at the end of the warm-up sessions
    size_t warmPool = 0;
    const std::set<std::string> before = SessionFolders(camera);
    const auto start = Clock::now();
    const auto end = start + std::chrono::seconds(options.duration);
    unsigned minutes = 0;
    size_t minuteFirstSample = 0;
    while (Clock::now() < end) {
        Run run;
        run.firstSession = ++sessions;
        run.records.assign(1, std::vector<ThreadRecord>(options.threads));
        library.table.noticeCameraOpen(kTextLog);
        const auto sessionEnd =
                std::min(end, Clock::now() + std::chrono::seconds(kSoakSessionSeconds));
        std::vector<std::thread> slots;
        const size_t behindLimit = options.threads + 4 * kFlushBatch;
        for (unsigned t = 0; t < options.threads; ++t) {
            slots.emplace_back([&, t] {
                // Each batch on a thread of its own, which ends holding a part-filled bucket.
                do {
                    // A camera logs far less than its disk takes; these threads log as fast as
                    // they can, and each batch leaves a file of its own to create. The library
                    // holds no thread back for the disk, so the host does: the next batch waits
                    // while the flush is more than a few batches behind, and the soak runs as a
                    // camera whose disk keeps up.
                    while (PoolPeek::Read().inFlight > behindLimit && Clock::now() < sessionEnd) {
                        std::this_thread::sleep_for(std::chrono::milliseconds(1));
                    }
                    std::thread(LogLines, std::cref(options), std::cref(library), 0u, t, &run).join();
                    threads.fetch_add(1, std::memory_order_relaxed);
                } while (Clock::now() < sessionEnd);
            });
        }
        if (options.closeWhileLogging) {
            std::this_thread::sleep_until(sessionEnd -
                                          std::chrono::milliseconds(kSoakSessionSeconds * 500));
            CloseCamera(library, &run);
            library.table.noticeCameraOpen(kTextLog);
        }
        for (std::thread& slot : slots) slot.join();
        flusher.HoldCleanups();
        CloseCamera(library, &run);
        const bool warming = sessions <= kWarmUpSessions || memory.Count() <= warmUp;
        if (warming) warmPool = PoolPeek::Read().buckets;
        if (sessions == kWarmUpSessions) warmUp = std::max(warmUp, memory.Count());

        // The session's files, wherever they are: a flush that finds nothing to write may make
        // the next session's folder before that session opens.
        std::set<std::string> folders;
        for (const std::string& folder : SessionFolders(camera)) {
            if (before.count(folder) == 0) folders.insert(folder);
        }
        Landed landed;
        ReadBack(camera, folders, &landed);
        for (const auto& file : landed.files) unlink((camera + "/" + file.first).c_str());
        flusher.ReleaseCleanups();
        const Tally tally = Account(run, &landed, nullptr);
        const bool damaged = tally.lost != 0 || tally.duplicates != 0 || landed.outOfOrder != 0;
        if ((damaged && !options.quiet) || options.verbose) {
            printf("session %u: logged %lu, landed %lu, lost %lu, duplicated %lu, out of order "
                   "%lu\n",
                   sessions, tally.logged, tally.landed, tally.lost, tally.duplicates,
                   landed.outOfOrder);
        }
        total.logged += tally.logged;
        total.landed += tally.landed;
        total.accepted += tally.accepted;
        total.lost += tally.lost;
        total.duplicates += tally.duplicates;
        damage.outOfOrder += landed.outOfOrder;
        damage.foreign += landed.foreign;
        if (!options.quiet && Clock::now() >= start + std::chrono::minutes(minutes + 1)) {
            std::vector<long> minute = memory.Since(minuteFirstSample);
            minuteFirstSample += minute.size();
            PrintSoakMinute(++minutes, sessions, total.logged, std::move(minute));
        }
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    memory.Stop();
    if (sessions < kWarmUpSessions) warmUp = memory.Samples().size();  // all of it
    flusher.Stop();
    // Emptied as they were checked; kept until now, since the library may still write into the
    // newest one.
    for (const std::string& folder : SessionFolders(camera)) {
        if (before.count(folder) == 0) rmdir((camera + "/" + folder).c_str());
    }

    printf("%u sessions in %.1f s, %lu threads of %lu lines, %.0f lines/s; flushes run by the "
           "trigger thread: %lu, retention passes: %lu\n",
           sessions, seconds, threads.load(), options.lines,
           seconds > 0 ? static_cast<double>(total.logged) / seconds : 0.0, flusher.Flushes(),
           flusher.Cleanups());
    const bool memoryFlat = JudgeMemory(memory.Samples(), warmUp);
    // Buckets nobody writes cost address space only, which resident memory does not show.
    printf("pool: %zu buckets after the warm-up, %zu at the end (it grows when more are in flight "
           "than ever before, and never shrinks)\n",
           warmPool, PoolPeek::Read().buckets);
    PrintComplaints(library, camera, total);
    const bool clean = PrintTotals(library, total, damage, SkipReports());
    if (!options.quiet && (options.verbose || !clean || !memoryFlat)) {
        PrintMemoryCurve(memory.Samples());
    }
    return clean && memoryFlat ? kExitOk : kExitFindings;
}

}  // namespace vxcamctl::session
