// Image geometry for the camera HAL: plane and slice alignment, strides, slice heights, buffer
// sizes and Android HAL pixel formats of the camera image formats; the JPEG blob trailer; image
// dumps for debugging.
//
// Look-ups never fail hard: an unknown or unsupported format gets a fixed fallback (format Max,
// HAL format 32, layer count 1, size 0, an empty name) and one error line in the debug log.
#ifndef VXCAM_IMAGE_UTILS_H
#define VXCAM_IMAGE_UTILS_H

#include <stdint.h>

#include <string>

#ifndef VXCAM_API
#define VXCAM_API __attribute__((visibility("default")))
#endif

namespace VxCam {

// The numbers are shared with the HAL and its nodes and never change; Max marks an invalid value.
enum ImageFormat : uint32_t {
    Jpeg = 0,
    Y8 = 1,
    Y16 = 2,
    YUV420NV12 = 3,
    YUV420NV21 = 4,
    YUV422NV16 = 5,
    Blob = 6,
    Format7 = 7,
    RawOpaque = 8,
    RawMIPI10 = 9,
    RawPlain16 = 10,
    Format11 = 11,
    Format12 = 12,
    Format13 = 13,
    Format14 = 14,
    YUV420NV12TP10 = 15,
    YUV420NV21TP10 = 16,
    YUV422NV16TP10 = 17,
    PD10 = 18,
    Format19 = 19,
    Format20 = 20,
    Format21 = 21,
    P010 = 22,
    Format23 = 23,
    Format24 = 24,
    Format25 = 25,
    Raw12 = 26,
    Raw16 = 27,
    Format28 = 28,
    Format29 = 29,
    Format30 = 30,
    Format31 = 31,
    Format32 = 32,
    Dmap = 33,
    Format34 = 34,
    YV12 = 35,
    YUV420SP = 36,
    Jpgr = 37,
    DepthJpeg = 38,
    Max = 39,
};

class VXCAM_API VxImageUtils {
  public:
    VxImageUtils();
    ~VxImageUtils();

    // ---- Format catalogue ----
    // 64, 1 or 2; any value without an entry gets 2.
    static uint32_t GetPlaneAlignment(ImageFormat format);
    static uint32_t GetSliceAlignment(ImageFormat format);
    // Number of planes: 1 or 3; 1 (and an error line) for a format without a count.
    static uint32_t GetLayerCount(ImageFormat format);
    // `alignment` applies to the formats that align their rows to the caller's value: 0 counts as
    // 2 and an odd value as the next even one. Unknown formats keep the width.
    static uint32_t GetBufferStride(uint32_t alignment, uint32_t width, ImageFormat format);
    static uint32_t GetSliceHeight(uint32_t alignment, uint32_t height, ImageFormat format);
    // Sizes width x height (callers pass a stride and slice height, or the plain dimensions);
    // JPEG formats are bounded by the maximum JPEG size. 0 for a format without a size rule.
    // `unused` is kept for the hosts that pass it.
    static uint64_t GetBufferSize(ImageFormat format, uint32_t width, uint32_t height, bool unused);
    // Validates a format number received from elsewhere; Max if it is not one.
    static ImageFormat ConvertFormat(uint32_t format);
    // The Android HAL_PIXEL_FORMAT_* value; 32 (HAL_PIXEL_FORMAT_RAW16) if there is none.
    static uint32_t ConvertGraphicFormat(ImageFormat format);
    // A short display name ("jpg", "YUV420NV12"); empty if the format has none.
    static std::string ImageFormatToString(ImageFormat format);
    // Bounds the buffer size of JPEG formats; 48 MiB until set.
    static void SetMaxJpegSize(uint32_t size);

    // ---- JPEG blob trailer: the last 8 bytes of a blob buffer of `bufferSize` bytes ----
    // The JPEG length the trailer holds, or `bufferSize` when there is no valid trailer.
    static uint32_t CalculateJpegSize(void* buffer, uint32_t bufferSize);
    static void SetJpegSize(void* buffer, uint32_t bufferSize, uint32_t jpegSize);

    // ---- Image dumps under /data/vendor/camera ----
    // Into the sub-directory `directory`, created when missing.
    static void DumpImage(void* buffer, uint64_t length, const char* directory,
                          const char* fileName, bool append);
    // Straight into /data/vendor/camera.
    static void DumpImage(void* buffer, uint64_t length, const char* fileName, bool append);
};

}  // namespace VxCam

#endif  // VXCAM_IMAGE_UTILS_H
