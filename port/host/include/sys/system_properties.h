// Bionic's <sys/system_properties.h>, which <cutils/properties.h> includes for the two size limits;
// glibc has no such header. The property functions themselves are libcutils' (properties.cpp).
#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
