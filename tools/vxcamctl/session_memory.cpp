// vxcamctl session's memory watch: resident memory against the buckets in flight, and a soak's
// curve of it, sampled once a second, judged for growth after the warm-up.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "Session.h"

namespace vxcamctl::session {

namespace {

constexpr double kBucketMiB = 3.0;  // the text logger's bucket
constexpr double kMemorySlackMiB = 16.0;

double MedianMiB(std::vector<long> kib) {
    std::nth_element(kib.begin(), kib.begin() + static_cast<long>(kib.size() / 2), kib.end());
    return static_cast<double>(kib[kib.size() / 2]) / 1024.0;
}

}  // namespace

long StatusKiB(const char* field) {
    FILE* status = fopen("/proc/self/status", "r");
    if (status == nullptr) return -1;
    char line[256];
    const size_t fieldLength = strlen(field);
    long kib = -1;
    while (fgets(line, sizeof(line), status) != nullptr) {
        if (strncmp(line, field, fieldLength) == 0 && line[fieldLength] == ':') {
            kib = strtol(line + fieldLength + 1, nullptr, 10);
            break;
        }
    }
    fclose(status);
    return kib;
}

void PrintMemory(long idleKiB, long peakKiB, const PoolWatch& pool) {
    const size_t inFlight = pool.peakInFlight.load();
    const size_t buckets = pool.buckets.load();
    printf("memory: idle %ld KiB, peak %ld KiB; buckets in flight at most %zu (%.0f MiB), pool of "
           "%zu buckets (%.0f MiB)\n",
           idleKiB, peakKiB, inFlight, static_cast<double>(inFlight) * kBucketMiB, buckets,
           static_cast<double>(buckets) * kBucketMiB);
    if (idleKiB < 0 || peakKiB < 0 || buckets == 0) return;
    const double grewMiB = static_cast<double>(peakKiB - idleKiB) / 1024.0;
    const double boundMiB = static_cast<double>(inFlight) * kBucketMiB + kMemorySlackMiB;
    printf("memory follows use: peak - idle = %.1f MiB, in flight + %.0f MiB = %.1f MiB: %s\n",
           grewMiB, kMemorySlackMiB, boundMiB, grewMiB <= boundMiB ? "within" : "ABOVE");
}

MemorySampler::MemorySampler(size_t expected) {
    m_kib.reserve(expected);  // grows no more while it runs
    m_thread = std::thread([this] { Run(); });
}

size_t MemorySampler::Count() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_kib.size();
}

std::vector<long> MemorySampler::Since(size_t first) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return {m_kib.begin() + static_cast<long>(std::min(first, m_kib.size())), m_kib.end()};
}

void MemorySampler::Run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    auto next = Clock::now();
    do {
        m_kib.push_back(StatusKiB("VmRSS"));
        next += std::chrono::seconds(1);
    } while (!m_wake.wait_until(lock, next, [this] { return m_stop; }));
}

void PrintMemoryCurve(const std::vector<long>& kib) {
    printf("\nresident memory (VmRSS, MiB), one sample a second:\n");
    for (size_t i = 0; i < kib.size(); ++i) {
        if (i % 10 == 0) printf("%s%6zu s ", i == 0 ? "" : "\n", i);
        printf(" %6.1f", static_cast<double>(kib[i]) / 1024.0);
    }
    printf("\n");
}

bool JudgeMemory(const std::vector<long>& kib, size_t warmUp) {
    const size_t lastThird = kib.size() - kib.size() / 3;
    if (warmUp == 0 || warmUp > lastThird || kib.size() < 3) {
        printf("memory: the run is too short to look past its warm-up of %zu s\n", warmUp);
        return true;
    }
    const double warm = MedianMiB({kib.begin(), kib.begin() + static_cast<long>(warmUp)});
    const double late = MedianMiB({kib.begin() + static_cast<long>(lastThird), kib.end()});
    const bool within = late - warm <= kGrowthToleranceMiB;
    printf("memory: median %.1f MiB in the warm-up (the first %zu s), %.1f MiB in the last third: "
           "grew %.1f MiB, at most %.0f MiB allowed: %s\n",
           warm, warmUp, late, late - warm, kGrowthToleranceMiB, within ? "within" : "GROWING");
    return within;
}

}  // namespace vxcamctl::session
