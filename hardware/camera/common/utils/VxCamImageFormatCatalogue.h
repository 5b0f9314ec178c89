// The image format catalogue: one row per format value, holding everything the library knows of
// that format.
//
// Internal to the library and its own tools: vxcamctl includes this header so that its format
// report explains each answer from the very row the library used.
#ifndef VXCAM_IMAGE_FORMAT_CATALOGUE_H
#define VXCAM_IMAGE_FORMAT_CATALOGUE_H

#include <stddef.h>
#include <stdint.h>

#include "VxCamImageUtils.h"

namespace VxCam {

// Row stride from width x and the caller's alignment A (0 counts as 2, odd as the next even value).
// All arithmetic is 32-bit and wraps, as hosts compute it.
enum class StrideRule : uint8_t {
    W,    // x
    A,    // x rounded up to a multiple of A
    M16,  // (x + 15) & ~15: MIPI RAW10 rows of whole 16-byte bursts
    W2,   // 2x: two bytes per pixel
    P,    // 2x rounded up to a multiple of 256 (2x itself when x is a multiple of 128)
    TP,   // x rounded up to a multiple of 3, x 4 / 3: three 10-bit pixels per 32-bit word
    PD,   // E = x / 2 made even, 8E rounded up to a multiple of 192
};

// Slice height (rows a plane occupies) from height y.
enum class SliceRule : uint8_t {
    H,    // y
    A,    // y rounded up to a multiple of A
    H4,   // (y + 3) & ~3
    HPD,  // E = y / 2 made even, (E + 31) & ~31
};

// Buffer size from p = width x height (32-bit, wraps).
enum class SizeRule : uint8_t {
    None,      // no size: error line, 0
    OneHalf,   // p x 1.5 in double, truncated: 4:2:0 and, by convention, the 4:2:2 formats
    WH,        // p
    Jpeg4K,    // min(p, max JPEG size) rounded up to a multiple of 4096
    JpegPlain  // min(p, max JPEG size)
};

struct ImageFormatRow {
    ImageFormat format;
    const char* name;         // ImageFormatToString; nullptr: none, the call fails
    bool accepted;            // by ConvertFormat
    uint32_t halFormat;       // ConvertGraphicFormat; kNoHalFormat: none, the call fails
    const char* halName;      // HAL_PIXEL_FORMAT_ + this, for people reading a report
    uint32_t layers;          // GetLayerCount; 0: none, the call fails
    uint32_t planeAlignment;  // never fails: unknown values have 2
    uint32_t sliceAlignment;
    StrideRule stride;
    SliceRule sliceHeight;
    SizeRule size;
};

inline constexpr uint32_t kNoHalFormat = 0;  // no format maps to 0 (HAL formats start at 1)

// What a failed look-up returns.
inline constexpr uint32_t kFallbackHalFormat = 0x20;  // HAL_PIXEL_FORMAT_RAW16
inline constexpr uint32_t kFallbackLayerCount = 1;

inline constexpr uint32_t kInitialMaxJpegSize = 48u * 1024u * 1024u;

// Irregularities hosts depend on, kept on purpose: Y16 has no name; YUV422NV16 is semi-planar but
// reports the interleaved HAL format 0x14 and is sized like 4:2:0; Raw16 has a HAL format but no
// layer count; Y8 aligns planes to 64 but slices to 2; Format34 has 64-byte alignment and nothing
// else; 20 and 21 are rejected between accepted neighbours; only Jpeg and Blob round to 4096.
// The last row stands for every value from Max up.
// clang-format off
inline constexpr ImageFormatRow kImageFormatCatalogue[] = {
    // format          name              accepted  HAL         HAL name         layers plane slice stride             slice height      size
    {Jpeg,             "jpg",            true,  0x21,          "BLOB",          1,     1,    1,    StrideRule::W,   SliceRule::H,   SizeRule::Jpeg4K},
    {Y8,               "Y8",             true,  0x20203859,    "Y8",            1,     64,   2,    StrideRule::A,   SliceRule::A,   SizeRule::WH},
    {Y16,              nullptr,          true,  0x20363159,    "Y16",           1,     2,    2,    StrideRule::W,   SliceRule::H,   SizeRule::None},
    {YUV420NV12,       "YUV420NV12",     true,  0x23,          "YCBCR_420_888", 3,     64,   64,   StrideRule::A,   SliceRule::A,   SizeRule::OneHalf},
    {YUV420NV21,       "YUV420NV21",     true,  0x23,          "YCBCR_420_888", 3,     64,   64,   StrideRule::A,   SliceRule::A,   SizeRule::OneHalf},
    {YUV422NV16,       "YUV422NV16",     true,  0x14,          "YCBCR_422_I",   3,     64,   64,   StrideRule::W,   SliceRule::H,   SizeRule::OneHalf},
    {Blob,             "jpg",            true,  0x21,          "BLOB",          1,     1,    1,    StrideRule::W,   SliceRule::H,   SizeRule::Jpeg4K},
    {Format7,          nullptr,          true,  kNoHalFormat,  nullptr,         0,     2,    2,    StrideRule::W,   SliceRule::H,   SizeRule::None},
    {RawOpaque,        nullptr,          true,  0x24,          "RAW_OPAQUE",    1,     2,    2,    StrideRule::W,   SliceRule::H,   SizeRule::None},
    {RawMIPI10,        "RawMIPI10",      true,  0x25,          "RAW10",         1,     2,    2,    StrideRule::M16, SliceRule::H,   SizeRule::WH},
    {RawPlain16,       "RawPlain16",     true,  0x20,          "RAW16",         1,     2,    2,    StrideRule::W2,  SliceRule::H,   SizeRule::WH},
    {Format11,         nullptr,          true,  kNoHalFormat,  nullptr,         0,     2,    2,    StrideRule::W,   SliceRule::H,   SizeRule::None},
    {Format12,         nullptr,          true,  kNoHalFormat,  nullptr,         0,     2,    2,    StrideRule::W,   SliceRule::H,   SizeRule::None},
    {Format13,         nullptr,          true,  kNoHalFormat,  nullptr,         0,     2,    2,    StrideRule::W,   SliceRule::H,   SizeRule::None},
    {Format14,         nullptr,          true,  kNoHalFormat,  nullptr,         0,     2,    2,    StrideRule::W,   SliceRule::H,   SizeRule::None},
    {YUV420NV12TP10,   "YUV420NV12TP10", true,  kNoHalFormat,  nullptr,         0,     2,    2,    StrideRule::TP,  SliceRule::H4,  SizeRule::OneHalf},
    {YUV420NV21TP10,   "YUV420NV21TP10", true,  kNoHalFormat,  nullptr,         0,     2,    2,    StrideRule::TP,  SliceRule::H4,  SizeRule::OneHalf},
    {YUV422NV16TP10,   "YUV422NV16TP10", true,  kNoHalFormat,  nullptr,         0,     2,    2,    StrideRule::TP,  SliceRule::H4,  SizeRule::OneHalf},
    {PD10,             "PD10",           true,  kNoHalFormat,  nullptr,         0,     2,    2,    StrideRule::PD,  SliceRule::HPD, SizeRule::WH},
    {Format19,         nullptr,          true,  kNoHalFormat,  nullptr,         0,     2,    2,    StrideRule::W,   SliceRule::H,   SizeRule::None},
    {Format20,         nullptr,          false, kNoHalFormat,  nullptr,         0,     2,    2,    StrideRule::W,   SliceRule::H,   SizeRule::None},
    {Format21,         nullptr,          false, kNoHalFormat,  nullptr,         0,     2,    2,    StrideRule::W,   SliceRule::H,   SizeRule::None},
    {P010,             "P010",           true,  0x36,          "YCBCR_P010",    3,     64,   64,   StrideRule::P,   SliceRule::H,   SizeRule::OneHalf},
    {Format23,         nullptr,          true,  kNoHalFormat,  nullptr,         0,     2,    2,    StrideRule::W,   SliceRule::H,   SizeRule::None},
    {Format24,         nullptr,          true,  kNoHalFormat,  nullptr,         0,     2,    2,    StrideRule::W,   SliceRule::H,   SizeRule::None},
    {Format25,         nullptr,          true,  kNoHalFormat,  nullptr,         0,     2,    2,    StrideRule::W,   SliceRule::H,   SizeRule::None},
    {Raw12,            nullptr,          true,  0x26,          "RAW12",         1,     2,    2,    StrideRule::W,   SliceRule::H,   SizeRule::None},
    {Raw16,            nullptr,          true,  0x20,          "RAW16",         0,     2,    2,    StrideRule::W,   SliceRule::H,   SizeRule::None},
    {Format28,         nullptr,          true,  kNoHalFormat,  nullptr,         0,     2,    2,    StrideRule::W,   SliceRule::H,   SizeRule::None},
    {Format29,         nullptr,          true,  kNoHalFormat,  nullptr,         0,     2,    2,    StrideRule::W,   SliceRule::H,   SizeRule::None},
    {Format30,         nullptr,          true,  kNoHalFormat,  nullptr,         0,     2,    2,    StrideRule::W,   SliceRule::H,   SizeRule::None},
    {Format31,         nullptr,          true,  kNoHalFormat,  nullptr,         0,     2,    2,    StrideRule::W,   SliceRule::H,   SizeRule::None},
    {Format32,         nullptr,          true,  kNoHalFormat,  nullptr,         0,     2,    2,    StrideRule::W,   SliceRule::H,   SizeRule::None},
    {Dmap,             "dmap",           true,  0x20203859,    "Y8",            1,     1,    1,    StrideRule::W,   SliceRule::H,   SizeRule::WH},
    {Format34,         nullptr,          true,  kNoHalFormat,  nullptr,         0,     64,   64,   StrideRule::W,   SliceRule::H,   SizeRule::None},
    {YV12,             "yv12",           true,  0x32315659,    "YV12",          3,     64,   64,   StrideRule::A,   SliceRule::A,   SizeRule::OneHalf},
    {YUV420SP,         "YUV420SP",       true,  0x11,          "YCRCB_420_SP",  3,     64,   64,   StrideRule::A,   SliceRule::A,   SizeRule::OneHalf},
    {Jpgr,             "jpgr",           true,  0x21,          "BLOB",          1,     1,    1,    StrideRule::W,   SliceRule::H,   SizeRule::JpegPlain},
    {DepthJpeg,        "depthjpeg",      true,  0x21,          "BLOB",          1,     1,    1,    StrideRule::W,   SliceRule::H,   SizeRule::JpegPlain},
    {Max,              nullptr,          false, kNoHalFormat,  nullptr,         0,     2,    2,    StrideRule::W,   SliceRule::H,   SizeRule::None},
};
// clang-format on

inline constexpr size_t kImageFormatRowCount =
        sizeof(kImageFormatCatalogue) / sizeof(kImageFormatCatalogue[0]);
static_assert(kImageFormatRowCount == Max + 1u, "one row per format value and one for the rest");

constexpr bool RowsFollowFormatValues() {
    for (size_t i = 0; i < kImageFormatRowCount; ++i) {
        if (kImageFormatCatalogue[i].format != i) return false;
    }
    return true;
}
static_assert(RowsFollowFormatValues(), "row i describes format value i");

// The row the library uses for `format`: values from Max up share the last.
constexpr const ImageFormatRow& ImageFormatRowOf(uint32_t format) {
    return kImageFormatCatalogue[format < Max ? format : Max];
}

}  // namespace VxCam

#endif  // VXCAM_IMAGE_FORMAT_CATALOGUE_H
