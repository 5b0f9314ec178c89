// Reads settings and logs through the gate, as a camera node would.
#define VXCAM_LOG_SOURCE "vendor/camera/consumer/Consumer"
#include <stdint.h>
#include <stdio.h>

#include "VxCamCommonUtils.h"
#include "VxCamDebug.h"
#include "VxCamStaticSetting.h"

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
    return 0;
}
