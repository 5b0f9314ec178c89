// The maker's feature switches, answered on a host from properties so that tests and vxcamctl can
// turn features on per process.

#include <vxf/VxFeature.h>

#include <stdio.h>

#include <cutils/properties.h>

extern "C" int GetVxFeature(int id) {
    char key[PROPERTY_KEY_MAX + 16];
    snprintf(key, sizeof(key), "vendor.vxf.feature.%d", id);
    return property_get_int32(key, 0);
}
