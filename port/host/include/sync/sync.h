// Host stand-in for libsync's <sync/sync.h>.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Waits up to `timeout` ms (-1: forever) for the fence to signal. 0 when signalled; -1 with errno
// ETIME on time-out, EINVAL for a bad descriptor or an errored fence.
int sync_wait(int fd, int timeout);

#ifdef __cplusplus
}
#endif
