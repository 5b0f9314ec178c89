// Bucket memory, internal to the offline logger: the pool's buckets as mappings whose pages move
// from a flushed bucket to the next one in line.
//
// Each bucket is a private anonymous mapping of its own, so it costs address space only until a
// thread writes into it. After its flush a bucket is zeroed without touching its untouched pages:
// its written pages either move to the bucket next in line in the free list (zeroed first, then
// moved whole with mremap), or go back to the system (MADV_DONTNEED), and the bucket reads as zeros
// either way. Moving them is for the capture's sake: a page that comes fresh from the kernel costs a
// fault and a clear, more than the lines written into it, while a moved page is ready. Buckets
// holding moved pages are the first in line (the heir is the first bucket in line without any), so
// a thread takes a bucket without pages only when no bucket with pages is free: the pool's resident
// memory never exceeds what was in flight at its busiest. The caller bounds how many free buckets
// keep pages after a burst, and a reset of the pool (camera close) gives them all back.
//
// Only the logger's pool uses it, under the pool lock wherever a free list is passed in; its own
// mutex guards nothing but its record of the mappings, so that a flush may give a bucket's pages
// back out of the pool lock. It never decides which bucket is free: the free list does.
#ifndef VXCAM_BUCKET_MEMORY_H
#define VXCAM_BUCKET_MEMORY_H

#include <stddef.h>

#include <deque>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace VxCam {

#pragma GCC visibility push(hidden)

class BucketPages {
  public:
    static unsigned char* Map(size_t size);

    // Also takes buckets that a derived logger's AllocateLogQueueMemPool got from malloc.
    static void Unmap(unsigned char* bucket);

    // How many of the buckets a flush is about to write may keep their pages: as many as there are
    // free buckets without pages to pass them on to, up to `warmLimit` free buckets with pages.
    // With the pool lock held.
    static size_t KeepBudget(const std::vector<unsigned char*>& pool,
                             const std::deque<int>& freeIds, size_t warmLimit);

    // Passes the pages of a written bucket, zeroed by the flush, to the free bucket first in line
    // without any; they go back to the system when there is none or enough free buckets have
    // pages. With the pool lock held, before the bucket is free again.
    static void PassOn(const std::vector<unsigned char*>& pool, const std::deque<int>& freeIds,
                       unsigned char* bucket, size_t warmLimit);

    // Drops whatever the bucket holds; it reads as zeros afterwards. False for a bucket that is
    // not a mapping of this class (a derived logger's), which the caller zeroes itself.
    static bool GiveBack(unsigned char* bucket);

    static bool IsWarm(const unsigned char* bucket);

  private:
    struct Mapping {
        size_t length;
        bool warm;  // free, holding pages moved in from a flushed bucket
    };

    static size_t PageRound(size_t size);
    static std::mutex& Mutex();
    static std::unordered_map<const unsigned char*, Mapping>& Table();
    static Mapping* Find(const unsigned char* bucket);
};

#pragma GCC visibility pop

}  // namespace VxCam

#endif  // VXCAM_BUCKET_MEMORY_H
