// Where the library's fixed device paths live on this platform.
#pragma once

#include <string>

namespace VxCamPort {

// On a host every absolute device path ("/data/vendor/camera", "/vendor/etc/camera/...") is
// resolved under $VXCAM_SYSROOT, read at each call; unset or empty, the path stands as it is.
std::string ResolveDevicePath(const char* devicePath);

}  // namespace VxCamPort
