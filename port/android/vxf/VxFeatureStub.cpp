// libvxf for a device whose maker provides none (BoardConfig.mk sets the vxcam namespace's
// stub_libvxf, see Android.bp): every feature is missing, so the library keeps its own defaults.

#include <vxf/VxFeature.h>

extern "C" int GetVxFeature(int /*id*/) {
    return 0;
}
