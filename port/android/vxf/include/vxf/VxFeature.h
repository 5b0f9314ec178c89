// The maker's feature library, libvxf: the bit set of feature `id`, 0 where the feature is missing.
// The library asks for feature 86 (bit 0: the tele zoom settings).
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

int GetVxFeature(int id);

#ifdef __cplusplus
}
#endif
