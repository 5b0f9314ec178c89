// Host stand-in for liblog's <log/log.h>.
#pragma once

#include <android/log.h>
