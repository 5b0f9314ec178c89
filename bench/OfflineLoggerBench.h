// Shared by the offline logger's benchmarks and their spdlog baselines (spdlog_baseline_bench.cpp,
// built where spdlog is, so that a device's cc_benchmark builds without it): the line both write,
// the message both format, and where the files go.
#ifndef VXCAM_OFFLINE_LOGGER_BENCH_H
#define VXCAM_OFFLINE_LOGGER_BENCH_H

#include <stdint.h>

#include <string>

#include "VxCamOfflineLogger.h"

namespace vxcambench {

constexpr unsigned kLineLength = 128;
// Lines per thread in one run of a capture benchmark: long enough to cycle the pool, short enough
// that the files written meanwhile stay in the page cache.
constexpr int64_t kCaptureLines = int64_t{1} << 21;

struct Context {
    std::string camera;   // the camera folder the library writes in
    std::string scratch;  // spdlog's and fwrite's files
    VxCam::VxCamOfflineLogger* logger = nullptr;
    char line[kLineLength + 1] = {};
};
extern Context g_context;

// A typical HAL message, for the library and for spdlog alike.
struct Message {
    unsigned request = 4711;
    int stream = 2;
    const char* format = "YUV420NV12";
    unsigned width = 4000;
    unsigned height = 3000;
};

inline std::string ScratchFile(const char* name) {
    return g_context.scratch + "/" + name;
}

}  // namespace vxcambench

#endif  // VXCAM_OFFLINE_LOGGER_BENCH_H
