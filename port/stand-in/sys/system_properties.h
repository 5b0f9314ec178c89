// Bionic's <sys/system_properties.h>, which glibc lacks, for the host build and
// scripts/device-compile.sh: Debian's libcutils headers include it for the two sizes below and
// nothing else. A device build takes bionic's own.
#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
