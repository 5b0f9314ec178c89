// libsync's wait on a host: any pollable descriptor stands in for a fence, readable meaning
// signalled, which is how the kernel's sync_file reports it too.

#include <sync/sync.h>

#include <errno.h>
#include <poll.h>

extern "C" int sync_wait(int fd, int timeout) {
    if (fd < 0) {
        errno = EINVAL;
        return -1;
    }
    struct pollfd fds = {};
    fds.fd = fd;
    fds.events = POLLIN;
    int ret;
    do {
        ret = poll(&fds, 1, timeout);
    } while (ret == -1 && (errno == EINTR || errno == EAGAIN));
    if (ret > 0) {
        // POLLERR is how a fence signalled with an error shows; POLLNVAL a descriptor that is
        // not open. Neither is a signal the caller may go on with.
        if ((fds.revents & (POLLERR | POLLNVAL)) != 0) {
            errno = EINVAL;
            return -1;
        }
        return 0;
    }
    if (ret == 0) errno = ETIME;
    return -1;
}
