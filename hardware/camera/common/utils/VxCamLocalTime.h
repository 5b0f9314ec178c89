// The local time as localtime gives it, from any thread of the library.
#ifndef VXCAM_LOCAL_TIME_H
#define VXCAM_LOCAL_TIME_H

#include <time.h>

#include <mutex>

namespace VxCam {

// localtime_r, unlike localtime, need not read the time zone again: without tzset first, a zone
// changed while the camera runs would not show until the process restarts. tzset replaces the
// zone's strings, and libc's own lock around that is neither promised everywhere nor visible to a
// race checker, so the library's callers take turns.
inline tm* LocalTime(const time_t* seconds, tm* local) {
    static std::mutex zone;
    std::lock_guard<std::mutex> turn(zone);
    tzset();
    return localtime_r(seconds, local);
}

}  // namespace VxCam

#endif  // VXCAM_LOCAL_TIME_H
