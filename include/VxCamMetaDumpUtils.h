// Metadata helpers for the camera HAL: sensor gains read from the chip vendors' per-frame metadata,
// crop intersection, and dump files of metadata under /data/vendor/camera.
#ifndef VXCAM_META_DUMP_UTILS_H
#define VXCAM_META_DUMP_UTILS_H

#include <stdint.h>
#include <stdio.h>

#include <vector>

#ifndef VXCAM_API
#define VXCAM_API __attribute__((visibility("default")))
#endif

namespace VxCam {

// The HAL finds the vendor metadata entry and passes its payload; these read the value at its
// place in the payload and scale it. A null payload gives each reader's "no value" answer.
class VXCAM_API VxCamMetaUtil {
  public:
    // Qualcomm: the float in the second 32-bit field. 1.0 for null.
    static float GetQcomTotalGain(const void* payload);
    // Qualcomm: an integer in hundredths, reported doubled. -1.0 (no value) for null.
    static float GetQcomSensorGain(const void* payload, uint32_t unused);
    // MediaTek: an integer in units of 1/1024. 1024.0 (one raw unit) for null.
    static float GetMtkSensorGain(const void* payload);
    // MediaTek: an integer in units of 1/4096. 1.0 for null.
    static float GetMtkTotalGain(const void* payload);
    // MediaTek: a float. 1.0 for null.
    static float GetMtkAdrcGain(const void* payload);
    // Rectangles are [left, top, right, bottom]. Clips `crop` to `reference` in place when the
    // two overlap (touching edges do not); leaves it alone otherwise.
    static void intersectCropRegion(std::vector<int32_t>* reference, std::vector<int32_t>* crop);
};

// Dump files live in /data/vendor/camera/<directory>/; every dump appends.
class VXCAM_API VxCamMetaDumpUtils {
  public:
    VxCamMetaDumpUtils();
    ~VxCamMetaDumpUtils();

    static void WriteFile(const uint8_t* buffer, const char* fileName, const char* directory,
                          int32_t size);
    static void WriteFile(const uint8_t* firstBuffer, int32_t firstSize, const uint8_t* secondBuffer,
                          int32_t secondSize, const char* fileName, const char* directory);
    // A stream for the caller to fill and pass to CloseTxtFile; null if it cannot be opened.
    static FILE* OpenTxtFile(const char* fileName, const char* directory);
    static int CloseTxtFile(FILE* stream);
    // Writes "<first>/<second>" into `output`, which the caller sizes.
    static char* Join(const char* first, const char* second, char* output);
    // Wall-clock milliseconds since the epoch.
    static int64_t GetTimeMs();
    // "YYYYMMDD_hhmmss_uuuu" in local time; the last field is microseconds, 4 to 6 digits.
    // `output` holds at least 25 bytes.
    static void GetTimeStamp(char* output);
    // Writes the four channels (R, Gr, Gb, B) of a lens-shading table as text, `width` values per
    // row and `height` rows. `unused` is kept for the hosts that pass it.
    static void dumpLensShadingTable(FILE* stream, int unused, int32_t channelLength,
                                     const float table[4][1024], int32_t width, int32_t height);
};

}  // namespace VxCam

#endif  // VXCAM_META_DUMP_UTILS_H
