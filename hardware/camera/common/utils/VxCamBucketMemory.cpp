// The bucket memory's mappings and page moves. What they promise is in VxCamBucketMemory.h.
#include "VxCamBucketMemory.h"

#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <exception>

namespace VxCam {

unsigned char* BucketPages::Map(size_t size) {
    const size_t length = PageRound(size);
    void* pages = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) return nullptr;
    unsigned char* bucket = static_cast<unsigned char*>(pages);
    try {
        std::lock_guard<std::mutex> lock(Mutex());
        Table()[bucket] = Mapping{length, false};
    } catch (const std::exception&) {
        munmap(pages, length);
        return nullptr;
    }
    return bucket;
}

void BucketPages::Unmap(unsigned char* bucket) {
    size_t length = 0;
    {
        std::lock_guard<std::mutex> lock(Mutex());
        auto found = Table().find(bucket);
        if (found != Table().end()) {
            length = found->second.length;
            Table().erase(found);
        }
    }
    if (length != 0) {
        munmap(bucket, length);
    } else {
        free(bucket);
    }
}

size_t BucketPages::KeepBudget(const std::vector<unsigned char*>& pool,
                               const std::deque<int>& freeIds, size_t warmLimit) {
    std::lock_guard<std::mutex> lock(Mutex());
    size_t warm = 0;
    size_t cold = 0;
    for (int id : freeIds) {
        if (id < 0 || static_cast<size_t>(id) >= pool.size()) continue;
        const Mapping* candidate = Find(pool[id]);
        if (candidate == nullptr) continue;
        if (candidate->warm) {
            if (++warm >= warmLimit) return 0;
        } else if (++cold >= warmLimit) {
            break;
        }
    }
    return std::min(warmLimit - warm, cold);
}

void BucketPages::PassOn(const std::vector<unsigned char*>& pool, const std::deque<int>& freeIds,
                         unsigned char* bucket, size_t warmLimit) {
    std::lock_guard<std::mutex> lock(Mutex());
    Mapping* mapping = Find(bucket);
    if (mapping == nullptr) return;
    Mapping* heir = nullptr;
    unsigned char* heirBucket = nullptr;
    size_t warm = 0;
    // Buckets with pages lead the line, so the first one without is the heir.
    for (int id : freeIds) {
        if (id < 0 || static_cast<size_t>(id) >= pool.size()) continue;
        Mapping* candidate = Find(pool[id]);
        if (candidate == nullptr) continue;
        if (candidate->warm) {
            if (++warm >= warmLimit) break;
        } else if (candidate->length == mapping->length) {
            heir = candidate;
            heirBucket = pool[id];
            break;
        }
    }
    mapping->warm = false;
    // The bucket stays mapped, empty; kernels before 5.7 refuse and the pages go back.
    if (heir != nullptr && warm < warmLimit &&
        mremap(bucket, mapping->length, mapping->length,
               MREMAP_MAYMOVE | MREMAP_FIXED | MREMAP_DONTUNMAP, heirBucket) != MAP_FAILED) {
        heir->warm = true;
        return;
    }
    madvise(bucket, mapping->length, MADV_DONTNEED);
}

bool BucketPages::GiveBack(unsigned char* bucket) {
    std::lock_guard<std::mutex> lock(Mutex());
    Mapping* mapping = Find(bucket);
    if (mapping == nullptr) return false;
    mapping->warm = false;
    madvise(bucket, mapping->length, MADV_DONTNEED);
    return true;
}

bool BucketPages::IsWarm(const unsigned char* bucket) {
    std::lock_guard<std::mutex> lock(Mutex());
    const Mapping* mapping = Find(bucket);
    return mapping != nullptr && mapping->warm;
}

size_t BucketPages::PageRound(size_t size) {
    static const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return (std::max<size_t>(size, 1) + page - 1) / page * page;
}

std::mutex& BucketPages::Mutex() {
    static std::mutex* mutex = new std::mutex;  // never destroyed: threads may outlive exit
    return *mutex;
}

std::unordered_map<const unsigned char*, BucketPages::Mapping>& BucketPages::Table() {
    static auto* table = new std::unordered_map<const unsigned char*, Mapping>;
    return *table;
}

BucketPages::Mapping* BucketPages::Find(const unsigned char* bucket) {
    auto found = Table().find(bucket);
    return found != Table().end() ? &found->second : nullptr;
}

}  // namespace VxCam
