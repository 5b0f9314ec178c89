// vxcamctl format: what the library answers for an image format, and why.
#include <errno.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <system/graphics.h>

#include <string>
#include <vector>

#include "Commands.h"
#include "VxCamDebug.h"
#include "VxCamImageFormatCatalogue.h"
#include "VxCamImageUtils.h"

namespace vxcamctl {

namespace {

using VxCam::ImageFormat;
using VxCam::ImageFormatRow;
using VxCam::SizeRule;
using VxCam::SliceRule;
using VxCam::StrideRule;
using VxCam::VxImageUtils;

// Per format value: the enumerator as the HAL's sources spell it, and the bits a pixel takes in a
// row of its first plane, which turn a stride the library gives in pixels into bytes (packed MIPI
// RAW10 and RAW12 take 10 and 12). The bits are 0 where the library's stride is in bytes already
// (RawPlain16, the TP10 formats, PD10, P010) or the layout is not the library's to know (blobs,
// opaque raw, formats without a name).
struct FormatNote {
    const char* enumerator;
    uint32_t pixelBits;
};

// clang-format off
constexpr FormatNote kFormatNotes[] = {
    // enumerator       bits
    {"Jpeg",             0}, {"Y8",               8}, {"Y16",             16}, {"YUV420NV12",       8},
    {"YUV420NV21",       8}, {"YUV422NV16",       8}, {"Blob",             0}, {"Format7",          0},
    {"RawOpaque",        0}, {"RawMIPI10",       10}, {"RawPlain16",       0}, {"Format11",         0},
    {"Format12",         0}, {"Format13",         0}, {"Format14",         0}, {"YUV420NV12TP10",   0},
    {"YUV420NV21TP10",   0}, {"YUV422NV16TP10",   0}, {"PD10",             0}, {"Format19",         0},
    {"Format20",         0}, {"Format21",         0}, {"P010",             0}, {"Format23",         0},
    {"Format24",         0}, {"Format25",         0}, {"Raw12",           12}, {"Raw16",           16},
    {"Format28",         0}, {"Format29",         0}, {"Format30",         0}, {"Format31",         0},
    {"Format32",         0}, {"Dmap",             8}, {"Format34",         0}, {"YV12",             8},
    {"YUV420SP",         8}, {"Jpgr",             0}, {"DepthJpeg",        0}, {"Max",              0},
};
// clang-format on
static_assert(sizeof(kFormatNotes) / sizeof(kFormatNotes[0]) == VxCam::kImageFormatRowCount,
              "one note per catalogue row");

// Android's HAL pixel formats: the names its headers give them after HAL_PIXEL_FORMAT_, and the
// values from those headers (system/graphics-base-v1.*.h and graphics-sw.h of AOSP's platform
// headers), so that a name means here what it means to the HAL.
struct HalFormat {
    uint32_t value;
    const char* name;
};

#define VXCAM_HAL_FORMAT(name) \
    { static_cast<uint32_t>(HAL_PIXEL_FORMAT_##name), #name }
constexpr HalFormat kHalFormats[] = {
        VXCAM_HAL_FORMAT(RGBA_8888),     VXCAM_HAL_FORMAT(RGBX_8888),
        VXCAM_HAL_FORMAT(RGB_888),       VXCAM_HAL_FORMAT(RGB_565),
        VXCAM_HAL_FORMAT(BGRA_8888),     VXCAM_HAL_FORMAT(YCBCR_422_SP),
        VXCAM_HAL_FORMAT(YCRCB_420_SP),  VXCAM_HAL_FORMAT(YCBCR_422_I),
        VXCAM_HAL_FORMAT(RGBA_FP16),     VXCAM_HAL_FORMAT(RAW16),
        VXCAM_HAL_FORMAT(BLOB),          VXCAM_HAL_FORMAT(IMPLEMENTATION_DEFINED),
        VXCAM_HAL_FORMAT(YCBCR_420_888), VXCAM_HAL_FORMAT(RAW_OPAQUE),
        VXCAM_HAL_FORMAT(RAW10),         VXCAM_HAL_FORMAT(RAW12),
        VXCAM_HAL_FORMAT(YCBCR_422_888), VXCAM_HAL_FORMAT(YCBCR_444_888),
        VXCAM_HAL_FORMAT(FLEX_RGB_888),  VXCAM_HAL_FORMAT(FLEX_RGBA_8888),
        VXCAM_HAL_FORMAT(RGBA_1010102),  VXCAM_HAL_FORMAT(DEPTH_16),
        VXCAM_HAL_FORMAT(DEPTH_24),      VXCAM_HAL_FORMAT(DEPTH_24_STENCIL_8),
        VXCAM_HAL_FORMAT(DEPTH_32F),     VXCAM_HAL_FORMAT(DEPTH_32F_STENCIL_8),
        VXCAM_HAL_FORMAT(STENCIL_8),     VXCAM_HAL_FORMAT(YCBCR_P010),
        VXCAM_HAL_FORMAT(HSV_888),       VXCAM_HAL_FORMAT(Y8),
        VXCAM_HAL_FORMAT(Y16),           VXCAM_HAL_FORMAT(YV12),
};
#undef VXCAM_HAL_FORMAT

constexpr bool SameText(const char* a, const char* b) {
    while (*a != '\0' && *a == *b) ++a, ++b;
    return *a == *b;
}

// The catalogue's HAL formats are Android's, by value and by name.
constexpr bool CatalogueAgreesWithAndroid() {
    for (const VxCam::ImageFormatRow& row : VxCam::kImageFormatCatalogue) {
        if (row.halFormat == VxCam::kNoHalFormat) continue;
        bool found = false;
        for (const HalFormat& hal : kHalFormats) {
            found = found || (hal.value == row.halFormat && SameText(hal.name, row.halName));
        }
        if (!found) return false;
    }
    return true;
}
static_assert(CatalogueAgreesWithAndroid(), "the catalogue's HAL formats are Android's");

const HalFormat* FindHalFormat(uint32_t value) {
    for (const HalFormat& hal : kHalFormats) {
        if (hal.value == value) return &hal;
    }
    return nullptr;
}

// A name as the headers write it, with or without HAL_PIXEL_FORMAT_, in any case.
const HalFormat* FindHalFormat(const char* text) {
    static const char kPrefix[] = "HAL_PIXEL_FORMAT_";
    if (strncasecmp(text, kPrefix, sizeof(kPrefix) - 1) == 0) text += sizeof(kPrefix) - 1;
    for (const HalFormat& hal : kHalFormats) {
        if (strcasecmp(text, hal.name) == 0) return &hal;
    }
    return nullptr;
}

// The library formats that report HAL format `hal`, in value order. A HAL given a stream of that
// format takes the first: catalogue order puts the general layout first, so that BLOB is Jpeg (a
// stream's data space, not its format, makes it Jpgr or DepthJpeg), YCBCR_420_888 is YUV420NV12,
// RAW16 is RawPlain16 (Raw16 has no layer count and no size) and Y8 is Y8 (Dmap is the depth
// map's own).
std::vector<uint32_t> LibraryFormatsOf(uint32_t hal) {
    std::vector<uint32_t> formats;
    for (uint32_t value = 0; value < VxCam::Max; ++value) {
        if (VxCam::kImageFormatCatalogue[value].halFormat == hal) formats.push_back(value);
    }
    return formats;
}

struct Size {
    uint32_t width;
    uint32_t height;
};

struct Options {
    bool all = false;
    const char* hal = nullptr;  // --hal
    bool hasSize = false;
    Size size{0, 0};
    bool hasAlignment = false;
    uint32_t alignment = 0;
};

// Decimal, or hexadecimal after "0x"; a leading 0 does not mean octal.
bool ParseNumber(const char* text, uint32_t* value) {
    if (text[0] == '\0' || text[0] == '-' || text[0] == '+') return false;
    const bool hex = text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    errno = 0;
    char* end = nullptr;
    const unsigned long long number = strtoull(text, &end, hex ? 16 : 10);
    if (errno != 0 || *end != '\0' || number > UINT32_MAX) return false;
    *value = static_cast<uint32_t>(number);
    return true;
}

bool ParseSize(const char* text, Size* size) {
    const char* cross = strpbrk(text, "xX");
    if (cross == nullptr) return false;
    const std::string width(text, cross);
    return ParseNumber(width.c_str(), &size->width) && ParseNumber(cross + 1, &size->height);
}

bool EndsWithIgnoringCase(const char* text, const char* suffix) {
    const size_t length = strlen(text);
    const size_t suffixLength = strlen(suffix);
    return suffixLength <= length && strcasecmp(text + length - suffixLength, suffix) == 0;
}

// What was asked for, and the library format that answers it.
struct Request {
    uint32_t value = 0;              // the library's format
    const HalFormat* hal = nullptr;  // asked for by Android HAL format
    bool number = false;             // a bare number, read as the library's own value
};

// A number, read as the library's value; an Android HAL format name, which wins where the library
// has an enumerator spelt alike (BLOB, RAW16), as a HAL engineer means it; an enumerator; a name
// string; or the unique end of an enumerator ("NV12").
bool FindFormat(const char* text, Request* request) {
    if (ParseNumber(text, &request->value)) {
        request->number = true;
        return true;
    }
    request->hal = FindHalFormat(text);
    if (request->hal != nullptr) return true;
    for (uint32_t i = 0; i < VxCam::Max; ++i) {
        const char* name = VxCam::kImageFormatCatalogue[i].name;
        if (strcasecmp(text, kFormatNotes[i].enumerator) == 0 ||
            (name != nullptr && strcasecmp(text, name) == 0)) {
            request->value = i;
            return true;
        }
    }
    std::vector<uint32_t> matches;
    for (uint32_t i = 0; i < VxCam::Max; ++i) {
        if (EndsWithIgnoringCase(kFormatNotes[i].enumerator, text)) matches.push_back(i);
    }
    if (matches.size() == 1) {
        request->value = matches[0];
        return true;
    }
    fprintf(stderr, "vxcamctl format: '%s' is %s image format", text,
            matches.empty() ? "no" : "more than one");
    for (size_t i = 0; i < matches.size(); ++i) {
        fprintf(stderr, "%s%s", i == 0 ? ": " : ", ", kFormatNotes[matches[i]].enumerator);
    }
    if (matches.empty()) {
        fprintf(stderr,
                ", neither of the library's nor of Android's HAL pixel formats (--all lists "
                "both)");
    }
    fprintf(stderr, "\n");
    return false;
}

std::string LibraryFormatText(uint32_t value) {
    return Format("%s (%u)", kFormatNotes[value].enumerator, value);
}

// Where the format came from, when that is not plain from the report: a number read as the
// library's value, or an Android HAL format and the library format a HAL takes for it. Returns
// false when no library format reports that HAL format.
bool PrintRequest(const Request& request, const char* text) {
    if (request.number) {
        const HalFormat* hal = FindHalFormat(request.value);
        if (hal != nullptr) {
            printf("%-14s %s, read as the library's own format value; for Android's "
                   "HAL_PIXEL_FORMAT_%s (0x%x) write --hal %s\n",
                   "asked for", text, hal->name, hal->value, text);
        } else {
            printf("%-14s %s, read as the library's own format value (no Android HAL pixel format "
                   "has it)\n",
                   "asked for", text);
        }
        return true;
    }
    if (request.hal == nullptr) return true;
    const HalFormat& hal = *request.hal;
    const std::vector<uint32_t> formats = LibraryFormatsOf(hal.value);
    if (formats.empty()) {
        printf("%-14s HAL_PIXEL_FORMAT_%s (0x%x): no library format reports this HAL format\n",
               "asked for", hal.name, hal.value);
        return false;
    }
    printf("%-14s HAL_PIXEL_FORMAT_%s (0x%x): a HAL takes the library's %s for it\n", "asked for",
           hal.name, hal.value, LibraryFormatText(formats[0]).c_str());
    if (formats.size() > 1) {
        std::string others;
        for (size_t i = 1; i < formats.size(); ++i) {
            others += (i == 1 ? "" : ", ") + LibraryFormatText(formats[i]);
        }
        printf("%-14s %s report%s this HAL format too\n", "", others.c_str(),
               formats.size() == 2 ? "s" : "");
    }
    for (uint32_t value = 0; value < VxCam::Max; ++value) {
        if (value != formats[0] && strcasecmp(kFormatNotes[value].enumerator, hal.name) == 0) {
            printf("%-14s for the library's own enumerator %s: vxcamctl format %u\n", "",
                   kFormatNotes[value].enumerator, value);
        }
    }
    return true;
}

const char* EnumeratorOf(uint32_t value) {
    return value <= VxCam::Max ? kFormatNotes[value].enumerator : "(not a format)";
}

// How sentences name the format: its enumerator, or its number past the last one.
std::string Subject(uint32_t value) {
    return value < VxCam::Max ? kFormatNotes[value].enumerator : std::to_string(value);
}

std::string HalText(const ImageFormatRow& row) {
    return Format("0x%x HAL_PIXEL_FORMAT_%s", row.halFormat, row.halName);
}

uint32_t NormalisedAlignment(uint32_t alignment) {
    if (alignment == 0) return 2;
    if ((alignment & 1u) != 0 && alignment != UINT32_MAX) return alignment + 1;
    return alignment;
}

std::string AlignedText(const char* what, uint32_t dimension, uint32_t alignment) {
    std::string text = Format("%s %u rounded up to a multiple of %u", what, dimension,
                              NormalisedAlignment(alignment));
    if (NormalisedAlignment(alignment) != alignment) text += Format(" (alignment %u)", alignment);
    return text;
}

// The rules that count bytes; the others count pixels.
bool StrideInBytes(StrideRule rule) {
    return rule == StrideRule::W2 || rule == StrideRule::P || rule == StrideRule::TP ||
           rule == StrideRule::PD;
}

// The stride with its unit and, for a stride in pixels of a format whose pixel size is known, the
// bytes of a row: ceil(stride x bits / 8).
std::string StrideText(uint32_t value, StrideRule rule, uint32_t stride) {
    if (StrideInBytes(rule)) return Format("%u bytes", stride);
    const uint32_t bits = kFormatNotes[value < VxCam::Max ? value : VxCam::Max].pixelBits;
    if (bits == 0) return Format("%u pixels", stride);
    return Format("%u pixels, %llu bytes at %u bits a pixel", stride,
                  (static_cast<unsigned long long>(stride) * bits + 7) / 8, bits);
}

std::string StrideReason(StrideRule rule, uint32_t alignment, uint32_t width) {
    switch (rule) {
        case StrideRule::W:
            return Format("the width");
        case StrideRule::A:
            return AlignedText("width", width, alignment);
        case StrideRule::M16:
            return Format("width %u rounded up to a multiple of 16", width);
        case StrideRule::W2:
            return Format("2 bytes a pixel");
        case StrideRule::P:
            return Format("2 bytes a pixel, rounded up to a multiple of 256");
        case StrideRule::TP:
            return Format("4 bytes for every 3 pixels");
        case StrideRule::PD:
            return Format("half the width made even, 8 bytes each, rounded up to 192");
    }
    return "";
}

std::string SliceReason(SliceRule rule, uint32_t alignment, uint32_t height) {
    switch (rule) {
        case SliceRule::H:
            return Format("the height");
        case SliceRule::A:
            return AlignedText("height", height, alignment);
        case SliceRule::H4:
            return Format("height %u rounded up to a multiple of 4", height);
        case SliceRule::HPD:
            return Format("half the height made even, rounded up to a multiple of 32");
    }
    return "";
}

std::string SizeReason(SizeRule rule, Size size) {
    std::string text;
    switch (rule) {
        case SizeRule::OneHalf:
            text = "1.5 bytes a pixel";
            break;
        case SizeRule::WH:
            text = "1 byte a pixel";
            break;
        case SizeRule::Jpeg4K:
            text = "1 byte a pixel up to the maximum JPEG size, rounded up to a multiple of 4096";
            break;
        case SizeRule::JpegPlain:
            text = "1 byte a pixel up to the maximum JPEG size";
            break;
        case SizeRule::None:
            break;
    }
    if (static_cast<uint64_t>(size.width) * size.height > UINT32_MAX) {
        text += Format("; %u x %u wraps at 32 bits to %u pixels", size.width, size.height,
                       size.width * size.height);
    }
    return text;
}

// The alignments a HAL passes for this format unless told otherwise.
uint32_t StrideAlignment(const Options& options, ImageFormat format) {
    return options.hasAlignment ? options.alignment : VxImageUtils::GetPlaneAlignment(format);
}

uint32_t SliceAlignment(const Options& options, ImageFormat format) {
    return options.hasAlignment ? options.alignment : VxImageUtils::GetSliceAlignment(format);
}

void PrintOne(uint32_t value, const Options& options) {
    const ImageFormat format = static_cast<ImageFormat>(value);
    const ImageFormatRow& row = VxCam::ImageFormatRowOf(value);
    const std::string subject = Subject(value);
    const char* enumerator = subject.c_str();
    const bool isFormat = value < VxCam::Max;
    printf("%-14s %u %s\n", "format", value, EnumeratorOf(value));
    if (!isFormat) {
        printf("%-14s %u is past the last format (38): every look-up gives its fall-back\n", "",
               value);
    }

    const ImageFormat converted = VxImageUtils::ConvertFormat(value);
    if (row.accepted) {
        printf("%-14s accepted\n", "ConvertFormat");
    } else {
        printf("%-14s rejected: the library returns %u (%s) and logs an error\n", "ConvertFormat",
               static_cast<uint32_t>(converted), EnumeratorOf(converted));
    }

    const std::string name = VxImageUtils::ImageFormatToString(format);
    if (row.name != nullptr) {
        printf("%-14s \"%s\"\n", "name", name.c_str());
    } else {
        printf("%-14s none: %s has no name string; the library returns \"%s\" and logs an error\n",
               "name", enumerator, name.c_str());
    }

    const uint32_t hal = VxImageUtils::ConvertGraphicFormat(format);
    if (row.halFormat != VxCam::kNoHalFormat) {
        printf("%-14s %s\n", "HAL format", HalText(row).c_str());
    } else {
        printf("%-14s none: %s has no HAL format; the library returns 0x%x (%s) and logs an "
               "error\n",
               "HAL format", enumerator, hal,
               hal == VxCam::kFallbackHalFormat ? "HAL_PIXEL_FORMAT_RAW16" : "?");
    }

    const uint32_t layers = VxImageUtils::GetLayerCount(format);
    if (row.layers != 0) {
        printf("%-14s %u\n", "layers", layers);
    } else {
        printf("%-14s none: %s has no layer count; the library returns %u and logs an error\n",
               "layers", enumerator, layers);
    }
    printf("%-14s %u\n", "plane align", VxImageUtils::GetPlaneAlignment(format));
    printf("%-14s %u\n", "slice align", VxImageUtils::GetSliceAlignment(format));
    if (!options.hasSize) return;

    const Size size = options.size;
    const uint32_t strideAlignment = StrideAlignment(options, format);
    const uint32_t sliceAlignment = SliceAlignment(options, format);
    const uint32_t stride = VxImageUtils::GetBufferStride(strideAlignment, size.width, format);
    const uint32_t sliceHeight = VxImageUtils::GetSliceHeight(sliceAlignment, size.height, format);
    printf("%-14s %s  (%s)\n", "stride", StrideText(value, row.stride, stride).c_str(),
           StrideReason(row.stride, strideAlignment, size.width).c_str());
    printf("%-14s %u  (%s)\n", "slice height", sliceHeight,
           SliceReason(row.sliceHeight, sliceAlignment, size.height).c_str());
    if (row.size == SizeRule::None) {
        const uint64_t bytes = VxImageUtils::GetBufferSize(format, size.width, size.height, false);
        printf("%-14s none: %s has no size rule; the library returns %llu and logs an error\n",
               "buffer size", enumerator, static_cast<unsigned long long>(bytes));
        return;
    }
    const Size sizes[] = {{stride, sliceHeight}, {size.width, size.height}};
    const char* dimensions[] = {"stride x slice height", "width x height"};
    for (int i = 0; i < 2; ++i) {
        const uint64_t bytes =
                VxImageUtils::GetBufferSize(format, sizes[i].width, sizes[i].height, false);
        printf("%-14s %llu  (%s %u x %u, %s)\n", "buffer size",
               static_cast<unsigned long long>(bytes), dimensions[i], sizes[i].width,
               sizes[i].height, SizeReason(row.size, sizes[i]).c_str());
    }
}

void PrintTableRow(uint32_t value, const char* label, const Options& options) {
    const ImageFormat format = static_cast<ImageFormat>(value);
    const ImageFormatRow& row = VxCam::ImageFormatRowOf(value);
    const std::string name = row.name != nullptr ? VxImageUtils::ImageFormatToString(format) : "-";
    const std::string hal =
            row.halFormat != VxCam::kNoHalFormat
                    ? Format("0x%x %s", VxImageUtils::ConvertGraphicFormat(format), row.halName)
                    : "-";
    const std::string layers =
            row.layers != 0 ? std::to_string(VxImageUtils::GetLayerCount(format)) : "-";
    printf("%-5s %-15s %-15s %-4s %-24s %6s %5u %5u", label, EnumeratorOf(value), name.c_str(),
           value != VxCam::Max && VxImageUtils::ConvertFormat(value) == format ? "yes" : "no",
           hal.c_str(), layers.c_str(), VxImageUtils::GetPlaneAlignment(format),
           VxImageUtils::GetSliceAlignment(format));
    if (options.hasSize) {
        const uint32_t stride = VxImageUtils::GetBufferStride(StrideAlignment(options, format),
                                                              options.size.width, format);
        const uint32_t sliceHeight = VxImageUtils::GetSliceHeight(SliceAlignment(options, format),
                                                                  options.size.height, format);
        std::string sizes[2] = {"-", "-"};
        if (row.size != SizeRule::None) {
            sizes[0] =
                    std::to_string(VxImageUtils::GetBufferSize(format, stride, sliceHeight, false));
            sizes[1] = std::to_string(VxImageUtils::GetBufferSize(format, options.size.width,
                                                                  options.size.height, false));
        }
        const std::string strideCell =
                std::to_string(stride) + (StrideInBytes(row.stride) ? " B" : " px");
        printf(" %10s %10u %12s %12s", strideCell.c_str(), sliceHeight, sizes[0].c_str(),
               sizes[1].c_str());
    }
    printf("\n");
}

void PrintAll(const Options& options) {
    if (options.hasSize) {
        printf("# image formats at %ux%u; strides and slice heights with %s\n", options.size.width,
               options.size.height,
               options.hasAlignment ? Format("alignment %u", options.alignment).c_str()
                                    : "each format's plane and slice alignment");
        if (static_cast<uint64_t>(options.size.width) * options.size.height > UINT32_MAX) {
            printf("# width x height exceeds 32 bits: the library's sizes wrap\n");
        }
    } else {
        printf("# image formats\n");
    }
    printf("%-5s %-15s %-15s %-4s %-24s %6s %5s %5s", "VALUE", "ENUMERATOR", "NAME", "CONV",
           "HAL FORMAT", "LAYERS", "PLANE", "SLICE");
    if (options.hasSize) {
        printf(" %10s %10s %12s %12s", "STRIDE", "SLICE-H", "SIZE S*SH", "SIZE W*H");
    }
    printf("\n");
    for (uint32_t value = 0; value < VxCam::Max; ++value) {
        PrintTableRow(value, std::to_string(value).c_str(), options);
    }
    PrintTableRow(VxCam::Max, ">=39", options);
    printf("\n- : the library has no answer. It returns the name \"\", HAL format 0x20 (RAW16),\n"
           "    1 layer and size 0 instead, and logs an error; ConvertFormat returns 39 (Max) for\n"
           "    a value it rejects.\n");
    if (options.hasSize) {
        printf("STRIDE: px when the library's stride counts pixels, B when it counts bytes.\n");
    }

    printf("\n# Android HAL pixel formats (system/graphics.h) and the library format a HAL "
           "takes\n");
    printf("%-10s %-24s %s\n", "VALUE", "HAL FORMAT", "LIBRARY FORMAT");
    for (const HalFormat& hal : kHalFormats) {
        const std::vector<uint32_t> formats = LibraryFormatsOf(hal.value);
        std::string text = formats.empty() ? "-" : LibraryFormatText(formats[0]);
        for (size_t i = 1; i < formats.size(); ++i) {
            text += (i == 1 ? "; also reported by " : ", ") + LibraryFormatText(formats[i]);
        }
        printf("%-10s %-24s %s\n", Format("0x%x", hal.value).c_str(), hal.name, text.c_str());
    }
}

void PrintFormatUsage(FILE* out) {
    fprintf(out,
            "usage: vxcamctl format FORMAT [WIDTHxHEIGHT] [--align N]\n"
            "       vxcamctl format --hal HAL_FORMAT [WIDTHxHEIGHT] [--align N]\n"
            "       vxcamctl format --all [WIDTHxHEIGHT] [--align N]\n"
            "\n"
            "Prints what the library answers for an image format: whether ConvertFormat accepts\n"
            "it, its name string, the Android HAL pixel format, the layer (plane) count, the "
            "plane\n"
            "and slice alignment and, for a size, the row stride (in pixels or in bytes, as the\n"
            "format's rule counts it), the slice height and the buffer size for stride x slice\n"
            "height and for width x height. Where the library has no answer, it says so and\n"
            "shows the value the library returns instead.\n"
            "\n"
            "FORMAT is a number, read as the library's own format value (0 to 38; 0x.. for hex;\n"
            "any other 32-bit value shows the fall-backs), or a name in any case: an Android HAL\n"
            "pixel format (YCBCR_420_888 or HAL_PIXEL_FORMAT_YCBCR_420_888), the enumerator\n"
            "(YUV420NV12), the name string (yv12) or the unique end of an enumerator (NV12). A\n"
            "HAL format is answered by the library format a HAL takes for it, the first that\n"
            "reports it (BLOB: Jpeg, RAW16: RawPlain16); exit status 1 when there is none.\n"
            "\n"
            "options:\n"
            "  --hal F     the Android HAL pixel format F, a number (0x23) or a name\n"
            "  --all       one line per format value and one for the values past the last, then\n"
            "              Android's HAL pixel formats with the library format a HAL takes\n"
            "  --align N   alignment for stride and slice height (default: the format's own plane\n"
            "              and slice alignment); 0 counts as 2, an odd value as the next even one\n"
            "  --help      show this text\n");
}

}  // namespace

int RunFormat(int argc, char** argv) {
    enum { kAll = 256, kAlign, kHal };
    static const option kOptions[] = {
            {"all", no_argument, nullptr, kAll},
            {"align", required_argument, nullptr, kAlign},
            {"hal", required_argument, nullptr, kHal},
            {"help", no_argument, nullptr, 'h'},
            {nullptr, 0, nullptr, 0},
    };
    Options options;
    bool help = false;
    std::vector<const char*> positional;
    const bool parsed = ParseOptions(
            "format", argc, argv, "h", kOptions,
            [&](int id, const char* value) {
                if (id == 'h') help = true;
                if (id == kAll) options.all = true;
                if (id == kHal) options.hal = value;
                if (id != kAlign) return true;
                options.hasAlignment = ParseNumber(value, &options.alignment);
                if (!options.hasAlignment) {
                    UsageError("format", "--align needs a 32-bit number, not '%s'", value);
                }
                return options.hasAlignment;
            },
            &positional);
    if (!parsed) return kExitUsage;
    if (help) {
        PrintFormatUsage(stdout);
        return kExitOk;
    }
    if (options.all && options.hal != nullptr) {
        return UsageError("format", "--all lists every format; it takes no --hal");
    }
    const size_t formatCount = options.all || options.hal != nullptr ? 0 : 1;
    if (positional.size() < formatCount) {
        UsageError("format", "which format? Give FORMAT, --hal F or --all\n");
        PrintFormatUsage(stderr);
        return kExitUsage;
    }
    if (positional.size() > formatCount + 1) {
        UsageError("format", "unexpected argument '%s'\n", positional[formatCount + 1]);
        PrintFormatUsage(stderr);
        return kExitUsage;
    }
    if (positional.size() > formatCount) {
        if (!ParseSize(positional[formatCount], &options.size)) {
            return UsageError("format", "'%s' is not a size WIDTHxHEIGHT", positional[formatCount]);
        }
        options.hasSize = true;
    }
    Request request;
    const char* asked = options.hal != nullptr ? options.hal
                        : positional.empty()   ? ""
                                               : positional[0];
    if (options.hal != nullptr) {
        uint32_t number = 0;
        request.hal = ParseNumber(options.hal, &number) ? FindHalFormat(number)
                                                        : FindHalFormat(options.hal);
        if (request.hal == nullptr) {
            return UsageError("format",
                              "--hal '%s' is no Android HAL pixel format (--all lists them)",
                              options.hal);
        }
    } else if (!options.all && !FindFormat(positional[0], &request)) {
        return kExitUsage;
    }

    // The report states each failure itself; the library's own error lines would only repeat it.
    VxCam::g_logInfo.systemLogEnable = 0;
    if (options.all) {
        PrintAll(options);
        return kExitOk;
    }
    if (!PrintRequest(request, asked)) return kExitFindings;
    if (request.hal != nullptr) request.value = LibraryFormatsOf(request.hal->value)[0];
    PrintOne(request.value, options);
    return kExitOk;
}

}  // namespace vxcamctl
