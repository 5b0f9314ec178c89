// vxcamctl format: what the library answers for an image format, and why.
#include <errno.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

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

// The enumerators as the HAL's sources spell them, by value.
// clang-format off
constexpr const char* kEnumerators[] = {
    "Jpeg", "Y8", "Y16", "YUV420NV12", "YUV420NV21", "YUV422NV16", "Blob", "Format7",
    "RawOpaque", "RawMIPI10", "RawPlain16", "Format11", "Format12", "Format13", "Format14",
    "YUV420NV12TP10", "YUV420NV21TP10", "YUV422NV16TP10", "PD10", "Format19", "Format20",
    "Format21", "P010", "Format23", "Format24", "Format25", "Raw12", "Raw16", "Format28",
    "Format29", "Format30", "Format31", "Format32", "Dmap", "Format34", "YV12", "YUV420SP",
    "Jpgr", "DepthJpeg", "Max",
};
// clang-format on
static_assert(sizeof(kEnumerators) / sizeof(kEnumerators[0]) == VxCam::kImageFormatRowCount,
              "one enumerator per catalogue row");

struct Size {
    uint32_t width;
    uint32_t height;
};

struct Options {
    bool all = false;
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

// A number, an enumerator, a name string, or the unique end of an enumerator ("NV12").
bool FindFormat(const char* text, uint32_t* value) {
    if (ParseNumber(text, value)) return true;
    for (uint32_t i = 0; i < VxCam::Max; ++i) {
        const char* name = VxCam::kImageFormatCatalogue[i].name;
        if (strcasecmp(text, kEnumerators[i]) == 0 ||
            (name != nullptr && strcasecmp(text, name) == 0)) {
            *value = i;
            return true;
        }
    }
    std::vector<uint32_t> matches;
    for (uint32_t i = 0; i < VxCam::Max; ++i) {
        if (EndsWithIgnoringCase(kEnumerators[i], text)) matches.push_back(i);
    }
    if (matches.size() == 1) {
        *value = matches[0];
        return true;
    }
    fprintf(stderr, "vxcamctl format: '%s' is %s image format", text,
            matches.empty() ? "no" : "more than one");
    for (size_t i = 0; i < matches.size(); ++i) {
        fprintf(stderr, "%s%s", i == 0 ? ": " : ", ", kEnumerators[matches[i]]);
    }
    fprintf(stderr, "\n");
    return false;
}

const char* EnumeratorOf(uint32_t value) {
    return value <= VxCam::Max ? kEnumerators[value] : "(not a format)";
}

// How sentences name the format: its enumerator, or its number past the last one.
std::string Subject(uint32_t value) {
    return value < VxCam::Max ? kEnumerators[value] : std::to_string(value);
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
    printf("%-14s %u  (%s)\n", "stride", stride,
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
        printf(" %10u %10u %12s %12s", stride, sliceHeight, sizes[0].c_str(), sizes[1].c_str());
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
}

void PrintFormatUsage(FILE* out) {
    fprintf(out,
            "usage: vxcamctl format FORMAT [WIDTHxHEIGHT] [--align N]\n"
            "       vxcamctl format --all [WIDTHxHEIGHT] [--align N]\n"
            "\n"
            "Prints what the library answers for an image format: whether ConvertFormat accepts\n"
            "it, its name string, the Android HAL pixel format, the layer (plane) count, the "
            "plane\n"
            "and slice alignment and, for a size, the row stride, the slice height and the buffer\n"
            "size for stride x slice height and for width x height. Where the library has no\n"
            "answer, it says so and shows the value the library returns instead.\n"
            "\n"
            "FORMAT is a number (0 to 38; 0x.. for hex; any other 32-bit value shows the\n"
            "fall-backs) or a name in any case: the enumerator (YUV420NV12), the name string\n"
            "(yv12) or the unique end of an enumerator (NV12).\n"
            "\n"
            "options:\n"
            "  --all       one line per format value, and one for the values past the last\n"
            "  --align N   alignment for stride and slice height (default: the format's own plane\n"
            "              and slice alignment); 0 counts as 2, an odd value as the next even one\n"
            "  --help      show this text\n");
}

}  // namespace

int RunFormat(int argc, char** argv) {
    Options options;
    std::vector<const char*> positional;
    for (int i = 1; i < argc; ++i) {
        const char* argument = argv[i];
        if (strcmp(argument, "--help") == 0 || strcmp(argument, "-h") == 0) {
            PrintFormatUsage(stdout);
            return kExitOk;
        }
        if (strcmp(argument, "--all") == 0) {
            options.all = true;
        } else if (strcmp(argument, "--align") == 0 || strncmp(argument, "--align=", 8) == 0) {
            const char* value = argument[7] == '=' ? argument + 8 : (i + 1 < argc ? argv[++i] : "");
            if (!ParseNumber(value, &options.alignment)) {
                fprintf(stderr, "vxcamctl format: --align needs a 32-bit number, not '%s'\n", value);
                return kExitUsage;
            }
            options.hasAlignment = true;
        } else if (argument[0] == '-' && argument[1] == '-') {
            fprintf(stderr, "vxcamctl format: unknown option '%s'\n\n", argument);
            PrintFormatUsage(stderr);
            return kExitUsage;
        } else {
            positional.push_back(argument);
        }
    }
    const size_t formatCount = options.all ? 0 : 1;
    if (positional.size() < formatCount || positional.size() > formatCount + 1) {
        PrintFormatUsage(stderr);
        return kExitUsage;
    }
    if (positional.size() > formatCount) {
        if (!ParseSize(positional[formatCount], &options.size)) {
            fprintf(stderr, "vxcamctl format: '%s' is not a size WIDTHxHEIGHT\n",
                    positional[formatCount]);
            return kExitUsage;
        }
        options.hasSize = true;
    }
    uint32_t value = 0;
    if (!options.all && !FindFormat(positional[0], &value)) return kExitUsage;

    // The report states each failure itself; the library's own error lines would only repeat it.
    VxCam::g_logInfo.systemLogEnable = 0;
    if (options.all) {
        PrintAll(options);
    } else {
        PrintOne(value, options);
    }
    return kExitOk;
}

}  // namespace vxcamctl
