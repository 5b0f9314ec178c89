// The maker's feature library. On a host it answers from the property "vendor.vxf.feature.<id>"
// (integer, default 0).
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

int GetVxFeature(int id);

#ifdef __cplusplus
}
#endif
