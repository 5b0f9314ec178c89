// libsync's <sync/sync.h>, which Debian does not package: the one call the library makes, declared
// as libsync declares it, for the host build (port/host/sync.cpp defines it) and
// scripts/device-compile.sh. A device build takes libsync's own.
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
