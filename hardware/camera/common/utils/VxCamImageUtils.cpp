// Image geometry, the JPEG blob trailer and image dumps. Every format question is a look-up in the
// catalogue row of the format followed by the rule that row names.
#define VXCAM_LOG_SOURCE "hardware/camera/common/utils/VxCamImageUtils"
#include "VxCamImageUtils.h"

#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <string>

#include "VxCamCommonUtils.h"
#include "VxCamDebug.h"
#include "VxCamImageFormatCatalogue.h"
#include "VxCamPortPath.h"

namespace VxCam {

namespace {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the blob trailer is read and written in the CPU's byte order");

constexpr const char kCameraDataDirectory[] = "/data/vendor/camera";

// The trailer is the last 8 bytes of a blob buffer: the blob id, then the JPEG length.
constexpr uint32_t kBlobTrailerSize = 8;
constexpr uint32_t kBlobIdWritten = 255;
constexpr int32_t kBlobIdLegacy = 15;  // still written by older encoders

// Read and written by any thread without ordering: a concurrent change is seen before or after.
std::atomic<uint32_t> s_maxJpegSize{kInitialMaxJpegSize};

// 0 is taken as 2 and an odd value as the next even one; 0xFFFFFFFF stays, since raising it would
// wrap to 0.
uint32_t NormaliseAlignment(uint32_t alignment) {
    if (alignment == 0) return 2;
    if ((alignment & 1u) != 0 && alignment != 0xFFFFFFFFu) return alignment + 1;
    return alignment;
}

uint32_t RoundUp(uint32_t value, uint32_t multiple) {
    const uint32_t remainder = value % multiple;
    return remainder == 0 ? value : value + multiple - remainder;
}

// Half the value, raised to the next even number when odd (PD10 rows and slices).
uint32_t HalfMadeEven(uint32_t value) {
    const uint32_t half = value / 2;
    return half + (half & 1u);
}

uint32_t ApplyStrideRule(StrideRule rule, uint32_t alignment, uint32_t width) {
    switch (rule) {
        case StrideRule::W:
            return width;
        case StrideRule::A:
            return RoundUp(width, NormaliseAlignment(alignment));
        case StrideRule::M16:
            return (width + 15u) & ~15u;
        case StrideRule::W2:
            return 2u * width;
        case StrideRule::P:
            return width % 128u == 0 ? 2u * width : ((2u * width) & ~0xFFu) + 256u;
        case StrideRule::TP:
            return RoundUp(width, 3) * 4u / 3u;
        case StrideRule::PD:
            return RoundUp(8u * HalfMadeEven(width), 192);
    }
    return width;
}

uint32_t ApplySliceRule(SliceRule rule, uint32_t alignment, uint32_t height) {
    switch (rule) {
        case SliceRule::H:
            return height;
        case SliceRule::A:
            return RoundUp(height, NormaliseAlignment(alignment));
        case SliceRule::H4:
            return (height + 3u) & ~3u;
        case SliceRule::HPD:
            return (HalfMadeEven(height) + 31u) & ~31u;
    }
    return height;
}

// Named like the public operation, whose error lines it writes. Lines name the device path.
void DumpImage(void* buffer, uint64_t length, const std::string& devicePath, bool append) {
    if (buffer == nullptr) return;
    FILE* file = OsUtils::FOpen(VxCamPort::ResolveDevicePath(devicePath.c_str()).c_str(),
                                append ? "ab+" : "wb+");
    if (file == nullptr) {
        VXCAM_LOGE(UTILS, "Open %s failed!", devicePath.c_str());
        return;
    }
    if (OsUtils::FWrite(buffer, length, 1, file) == 0) {
        VXCAM_LOGE(UTILS, "Write failed, buffer size %d, rw %d", static_cast<int>(length), 0);
    }
    OsUtils::FClose(file);
}

}  // namespace

VxImageUtils::VxImageUtils() {}

VxImageUtils::~VxImageUtils() {}

uint32_t VxImageUtils::GetPlaneAlignment(ImageFormat format) {
    return ImageFormatRowOf(format).planeAlignment;
}

uint32_t VxImageUtils::GetSliceAlignment(ImageFormat format) {
    return ImageFormatRowOf(format).sliceAlignment;
}

uint32_t VxImageUtils::GetLayerCount(ImageFormat format) {
    const ImageFormatRow& row = ImageFormatRowOf(format);
    if (row.layers == 0) {
        VXCAM_LOGE(UTILS, "UnKnow image format %d ", static_cast<int>(format));
        return kFallbackLayerCount;
    }
    return row.layers;
}

uint32_t VxImageUtils::GetBufferStride(uint32_t alignment, uint32_t width, ImageFormat format) {
    return ApplyStrideRule(ImageFormatRowOf(format).stride, alignment, width);
}

uint32_t VxImageUtils::GetSliceHeight(uint32_t alignment, uint32_t height, ImageFormat format) {
    return ApplySliceRule(ImageFormatRowOf(format).sliceHeight, alignment, height);
}

uint64_t VxImageUtils::GetBufferSize(ImageFormat format, uint32_t width, uint32_t height,
                                     bool /*unused*/) {
    // 32-bit like every other geometry value hosts pass around; it wraps for huge sizes.
    const uint32_t pixels = width * height;
    switch (ImageFormatRowOf(format).size) {
        case SizeRule::OneHalf:
            return static_cast<uint64_t>(static_cast<double>(pixels) * 1.5);
        case SizeRule::WH:
            return pixels;
        case SizeRule::Jpeg4K: {
            // 32-bit like every other geometry value: a bound within 4095 of 4 GiB rounds up to 0.
            const uint32_t bounded = std::min(pixels, s_maxJpegSize.load(std::memory_order_relaxed));
            return (bounded + 4095u) & ~uint32_t{4095};
        }
        case SizeRule::JpegPlain:
            return std::min(pixels, s_maxJpegSize.load(std::memory_order_relaxed));
        case SizeRule::None:
            break;
    }
    VXCAM_LOGE(UTILS, "Invalid format %d", static_cast<int>(format));
    return 0;
}

ImageFormat VxImageUtils::ConvertFormat(uint32_t format) {
    if (!ImageFormatRowOf(format).accepted) {
        VXCAM_LOGE(UTILS, "Invalid format %d", static_cast<int>(format));
        return Max;
    }
    return static_cast<ImageFormat>(format);
}

uint32_t VxImageUtils::ConvertGraphicFormat(ImageFormat format) {
    const ImageFormatRow& row = ImageFormatRowOf(format);
    if (row.halFormat == kNoHalFormat) {
        VXCAM_LOGE(UTILS, "UnKnow image format %d ", static_cast<int>(format));
        return kFallbackHalFormat;
    }
    return row.halFormat;
}

std::string VxImageUtils::ImageFormatToString(ImageFormat format) {
    const ImageFormatRow& row = ImageFormatRowOf(format);
    if (row.name == nullptr) {
        VXCAM_LOGE(UTILS, "Invalid format %d", static_cast<int>(format));
        return std::string();
    }
    // Every name fits the string's inline buffer: nothing is allocated, nothing can throw.
    return std::string(row.name);
}

void VxImageUtils::SetMaxJpegSize(uint32_t size) {
    s_maxJpegSize.store(size, std::memory_order_relaxed);
}

uint32_t VxImageUtils::CalculateJpegSize(void* buffer, uint32_t bufferSize) {
    // A buffer too small for a trailer has none.
    if (buffer == nullptr || bufferSize < kBlobTrailerSize) return bufferSize;
    const uint8_t* trailer = static_cast<const uint8_t*>(buffer) + bufferSize - kBlobTrailerSize;
    int32_t blobId = 0;
    uint32_t jpegSize = 0;
    memcpy(&blobId, trailer, sizeof(blobId));
    memcpy(&jpegSize, trailer + sizeof(blobId), sizeof(jpegSize));
    if (blobId != kBlobIdLegacy && blobId != static_cast<int32_t>(kBlobIdWritten)) {
        VXCAM_LOGE(UTILS, "Blob Id %d miss match", blobId);
        return bufferSize;
    }
    return jpegSize;
}

void VxImageUtils::SetJpegSize(void* buffer, uint32_t bufferSize, uint32_t jpegSize) {
    if (buffer == nullptr || bufferSize < kBlobTrailerSize) return;
    // Hosts match this line as it stands: the first value is always 0 (the old size is not read).
    VXCAM_LOGV(UTILS, "Update jpeg size(%d) to (%d)", 0, static_cast<int>(jpegSize));
    // Id and size go out in one 8-byte store, id in the low half.
    const uint64_t trailer = (uint64_t{jpegSize} << 32) | kBlobIdWritten;
    memcpy(static_cast<uint8_t*>(buffer) + bufferSize - kBlobTrailerSize, &trailer, sizeof(trailer));
}

void VxImageUtils::DumpImage(void* buffer, uint64_t length, const char* directory,
                             const char* fileName, bool append) {
    if (directory == nullptr || fileName == nullptr) return;
    try {
        std::string path = std::string(kCameraDataDirectory).append("/").append(directory);
        const std::string directoryPath = VxCamPort::ResolveDevicePath(path.c_str());
        struct stat64 info;
        // Only the last component is created: the camera data directory itself belongs to init.
        if (OsUtils::Stat(directoryPath.c_str(), &info) != 0) mkdir(directoryPath.c_str(), 0777);
        path.append("/").append(fileName);
        VxCam::DumpImage(buffer, length, path, append);
    } catch (...) {
        // Only the path allocation can throw; the dump is skipped.
    }
}

void VxImageUtils::DumpImage(void* buffer, uint64_t length, const char* fileName, bool append) {
    if (fileName == nullptr) return;
    try {
        const std::string path = std::string(kCameraDataDirectory).append("/").append(fileName);
        VxCam::DumpImage(buffer, length, path, append);
    } catch (...) {
        // Only the path allocation can throw; the dump is skipped.
    }
}

}  // namespace VxCam
