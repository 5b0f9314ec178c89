// Reads settings and logs through the gate, as a camera node would.
#define VXCAM_LOG_SOURCE "vendor/camera/consumer/Consumer"
#include <stdint.h>
#include <stdio.h>

#include "VxCamDebug.h"
#include "VxCamOfflineLogger.h"
#include "VxCamStaticSetting.h"

#include <thread>

int main() {
    const VxCam::VxCamStaticSetting* settings = VxCam::VxCamStaticSetting::GetInstance();
    const unsigned depth = settings->GetPorpertyIntegerValue("MaxRequestQueueDepth");
    const auto* positions =
            static_cast<const int32_t*>(settings->GetPorpertyCustomValue("CameraPosition"));
    printf("depth=%u infoMask=0x%x tele=%.1f position4=%d\n", depth,
           settings->GetPorpertyIntegerValue("LogInfoMask"),
           static_cast<double>(settings->GetPorpertyFloatValue("TeleZoomStart")),
           positions != nullptr ? positions[4] : 99);
    VXCAM_LOGI(CORE, "consumer sees queue depth %u", depth);
    VXCAM_LOGI(UTILS, "filtered out by the default info mask");
    // The exported thread-locals, from this thread and a fresh one: each starts as the library
    // initialises it, whichever compiler built this program.
    using VxCam::VxCamOfflineLogger;
    unsigned fresh = 0;
    std::thread([&fresh] {
        fresh = VxCamOfflineLogger::s_threadLocalSegmentCnt[0] * 10 +
                VxCamOfflineLogger::s_threadLocalLifeTime[1].valid;
    }).join();
    printf("segments=%u registered=%u fresh=%u\n", VxCamOfflineLogger::s_threadLocalSegmentCnt[1],
           VxCamOfflineLogger::s_threadLocalLifeTime[0].valid, fresh);
    return 0;
}
