// Adds bionic's strlcpy and strlcat on C libraries that lack them (glibc before 2.38), so that the
// library calls them by their Android names.
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
