// Where the library's fixed device paths live on this platform: on a device, where they say.
#pragma once

#include <string>

namespace VxCamPort {

inline std::string ResolveDevicePath(const char* devicePath) {
    return devicePath != nullptr ? devicePath : "";
}

}  // namespace VxCamPort
