// Host stand-in for libcutils' <cutils/properties.h>.
//
// Properties come from $VXCAM_SYSROOT/vendor/build.prop ("key=value" lines, '#' comments), read
// once at first use; property_set changes them for this process only.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

int property_get(const char* key, char* value, const char* default_value);
int8_t property_get_bool(const char* key, int8_t default_value);
int64_t property_get_int64(const char* key, int64_t default_value);
int32_t property_get_int32(const char* key, int32_t default_value);
int property_set(const char* key, const char* value);
int property_list(void (*propfn)(const char* key, const char* value, void* cookie), void* cookie);

#ifdef __cplusplus
}
#endif
