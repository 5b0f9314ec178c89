// libsync's <sync/sync.h> for scripts/device-compile.sh, which Debian does not package: the one
// call the library makes, declared as libsync declares it. A device build takes libsync's own.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Waits up to `timeout` ms (-1: forever) for the fence to signal. 0 when signalled; -1 with errno
// ETIME on time-out.
int sync_wait(int fd, int timeout);

#ifdef __cplusplus
}
#endif
