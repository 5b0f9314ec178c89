// Device paths on a host: the library keeps its Android paths, and a sysroot chosen per process
// (tests, vxcamctl) decides where they land.

#include <VxCamPortPath.h>

#include <stdlib.h>
#include <string.h>

namespace VxCamPort {

std::string ResolveDevicePath(const char* devicePath) {
    if (devicePath == nullptr) return std::string();
    // Read at each call, not cached: tests switch sysroots within one process.
    const char* sysroot = getenv("VXCAM_SYSROOT");
    if (sysroot == nullptr || sysroot[0] == '\0' || devicePath[0] != '/') {
        return std::string(devicePath);
    }
    size_t rootLength = strlen(sysroot);
    while (rootLength > 0 && sysroot[rootLength - 1] == '/') --rootLength;
    std::string resolved(sysroot, rootLength);
    resolved += devicePath;
    return resolved;
}

}  // namespace VxCamPort
