// Bionic declares strlcpy and strlcat in <string.h>; glibc does so only from 2.38, and Debian 12
// ships 2.36. For the host build (port/host/strlcpy.cpp defines them) and scripts/device-compile.sh,
// which compile against glibc's headers in bionic's place. A device build takes bionic's own.
#pragma once

#include_next <string.h>

#if defined(__GLIBC__) && !__GLIBC_PREREQ(2, 38)
#ifdef __cplusplus
extern "C" {
#endif
size_t strlcpy(char* dst, const char* src, size_t size);
size_t strlcat(char* dst, const char* src, size_t size);
#ifdef __cplusplus
}
#endif
#endif
