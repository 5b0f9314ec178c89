// Image geometry over every format value (and one more taken from the input) with fuzzed
// alignments and sizes, the JPEG blob trailer of fuzzed buffers, and GetFileNameToken on fuzzed
// names. Under UndefinedBehaviorSanitizer: 32-bit geometry wraps by contract, and nothing here may
// overflow a signed value, shift out of range or load misaligned. Every unknown format must answer
// alike.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "VxCamCommonUtils.h"
#include "VxCamImageFormatCatalogue.h"
#include "VxCamImageUtils.h"

namespace {

using VxCam::ImageFormat;
using VxCam::SizeRule;
using VxCam::SliceRule;
using VxCam::StrideRule;
using VxCam::VxImageUtils;

constexpr uint64_t kMax32 = UINT32_MAX;

uint32_t NormalisedAlignment(uint32_t alignment) {
    if (alignment == 0) return 2;
    return (alignment % 2 == 1 && alignment != UINT32_MAX) ? alignment + 1 : alignment;
}

// `value` rounded up to a multiple of `multiple`, when that fits in 32 bits.
bool RoundedUp(uint64_t result, uint64_t value, uint64_t multiple) {
    if (value + multiple > kMax32) return true;  // wraps by contract; UBSan watches the arithmetic
    return result % multiple == 0 && result >= value && result - value < multiple;
}

void CheckStride(StrideRule rule, uint32_t alignment, uint32_t width, uint32_t stride) {
    const uint64_t w = width;
    switch (rule) {
        case StrideRule::W:
            FUZZ_CHECK(stride == width);
            break;
        case StrideRule::A:
            FUZZ_CHECK(RoundedUp(stride, w, NormalisedAlignment(alignment)));
            break;
        case StrideRule::M16:
            FUZZ_CHECK(RoundedUp(stride, w, 16));
            break;
        case StrideRule::W2:
            FUZZ_CHECK(stride == static_cast<uint32_t>(2 * w));
            break;
        case StrideRule::P:
            FUZZ_CHECK(RoundedUp(stride, 2 * w, 256));
            break;
        case StrideRule::TP:
            // Three 10-bit pixels per 32-bit word, rows of whole words.
            if (4 * (w + 3) <= kMax32) {
                FUZZ_CHECK(stride % 4 == 0 && 3 * uint64_t{stride} >= 4 * w &&
                           3 * uint64_t{stride} < 4 * (w + 3));
            }
            break;
        case StrideRule::PD:
            if (8 * (w / 2 + 1) + 192 <= kMax32) {
                FUZZ_CHECK(stride % 192 == 0 && stride >= 8 * (w / 2) &&
                           stride < 8 * (w / 2 + 1) + 192);
            }
            break;
    }
}

void CheckSliceHeight(SliceRule rule, uint32_t alignment, uint32_t height, uint32_t slice) {
    const uint64_t h = height;
    switch (rule) {
        case SliceRule::H:
            FUZZ_CHECK(slice == height);
            break;
        case SliceRule::A:
            FUZZ_CHECK(RoundedUp(slice, h, NormalisedAlignment(alignment)));
            break;
        case SliceRule::H4:
            FUZZ_CHECK(RoundedUp(slice, h, 4));
            break;
        case SliceRule::HPD:
            FUZZ_CHECK(slice % 32 == 0 && slice >= h / 2 && slice < h / 2 + 1 + 32);
            break;
    }
}

void CheckSize(SizeRule rule, uint32_t width, uint32_t height, uint32_t maxJpeg, uint64_t size) {
    const uint32_t pixels = static_cast<uint32_t>(uint64_t{width} * height);
    const uint64_t bounded = std::min(pixels, maxJpeg);
    switch (rule) {
        case SizeRule::None:
            FUZZ_CHECK(size == 0);
            break;
        case SizeRule::OneHalf:
            FUZZ_CHECK(size == uint64_t{pixels} + pixels / 2);
            break;
        case SizeRule::WH:
            FUZZ_CHECK(size == pixels);
            break;
        case SizeRule::Jpeg4K:
            // Rounded up within 32 bits: the last 4095 values below 4 GiB wrap to 0.
            FUZZ_CHECK(size % 4096 == 0 && size < 0x100000000ull);
            FUZZ_CHECK(size >= bounded ? size - bounded < 4096 : size == 0 && bounded > 0xFFFFF000u);
            break;
        case SizeRule::JpegPlain:
            FUZZ_CHECK(size == bounded);
            break;
    }
}

void CheckFormat(uint32_t value, uint32_t alignment, uint32_t width, uint32_t height,
                 uint32_t maxJpeg, bool flag) {
    const ImageFormat format = static_cast<ImageFormat>(value);
    const VxCam::ImageFormatRow& row = VxCam::ImageFormatRowOf(value);
    const uint32_t planeAlignment = VxImageUtils::GetPlaneAlignment(format);
    const uint32_t sliceAlignment = VxImageUtils::GetSliceAlignment(format);
    FUZZ_CHECK(planeAlignment == 1 || planeAlignment == 2 || planeAlignment == 64);
    FUZZ_CHECK(sliceAlignment == 1 || sliceAlignment == 2 || sliceAlignment == 64);
    const uint32_t layers = VxImageUtils::GetLayerCount(format);
    FUZZ_CHECK(layers == 1 || layers == 3);
    const ImageFormat converted = VxImageUtils::ConvertFormat(value);
    FUZZ_CHECK(converted == format || converted == VxCam::Max);
    const uint32_t halFormat = VxImageUtils::ConvertGraphicFormat(format);
    FUZZ_CHECK(halFormat != VxCam::kNoHalFormat);
    const std::string name = VxImageUtils::ImageFormatToString(format);
    FUZZ_CHECK(name.size() < 16);

    const uint32_t stride = VxImageUtils::GetBufferStride(alignment, width, format);
    const uint32_t slice = VxImageUtils::GetSliceHeight(alignment, height, format);
    const uint64_t size = VxImageUtils::GetBufferSize(format, width, height, flag);
    CheckStride(row.stride, alignment, width, stride);
    CheckSliceHeight(row.sliceHeight, alignment, height, slice);
    CheckSize(row.size, width, height, maxJpeg, size);

    if (value >= VxCam::Max) {
        // Every unknown value answers as the first one does, whatever the sizes.
        const ImageFormat max = VxCam::Max;
        FUZZ_CHECK(planeAlignment == VxImageUtils::GetPlaneAlignment(max) &&
                   sliceAlignment == VxImageUtils::GetSliceAlignment(max) &&
                   layers == VxImageUtils::GetLayerCount(max));
        FUZZ_CHECK(halFormat == VxImageUtils::ConvertGraphicFormat(max) &&
                   name == VxImageUtils::ImageFormatToString(max) && converted == max);
        FUZZ_CHECK(stride == VxImageUtils::GetBufferStride(alignment, width, max) &&
                   slice == VxImageUtils::GetSliceHeight(alignment, height, max) &&
                   size == VxImageUtils::GetBufferSize(max, width, height, flag));
    }
}

uint32_t ReadLittleEndian32(const uint8_t* bytes) {
    return uint32_t{bytes[0]} | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 |
           uint32_t{bytes[3]} << 24;
}

// The trailer of a heap buffer of exactly the stated size, read and then rewritten.
void CheckBlobTrailer(const std::vector<uint8_t>& bytes, uint32_t jpegSize) {
    const uint32_t size = static_cast<uint32_t>(bytes.size());
    FUZZ_CHECK(VxImageUtils::CalculateJpegSize(nullptr, size) == size);
    VxImageUtils::SetJpegSize(nullptr, size, jpegSize);

    auto* buffer = static_cast<uint8_t*>(malloc(bytes.size()));
    FUZZ_CHECK(buffer != nullptr || bytes.empty());
    if (!bytes.empty()) memcpy(buffer, bytes.data(), bytes.size());
    uint32_t expected = size;  // too small for a trailer, or the wrong blob id
    if (size >= 8) {
        const uint32_t id = ReadLittleEndian32(bytes.data() + size - 8);
        if (id == 15 || id == 255) expected = ReadLittleEndian32(bytes.data() + size - 4);
    }
    FUZZ_CHECK(VxImageUtils::CalculateJpegSize(buffer, size) == expected);

    VxImageUtils::SetJpegSize(buffer, size, jpegSize);
    if (size >= 8) {
        FUZZ_CHECK(VxImageUtils::CalculateJpegSize(buffer, size) == jpegSize);
        FUZZ_CHECK(ReadLittleEndian32(buffer + size - 8) == 255);
        FUZZ_CHECK(memcmp(buffer, bytes.data(), size - 8) == 0);
    } else if (size > 0) {
        FUZZ_CHECK(memcmp(buffer, bytes.data(), size) == 0);
    }
    free(buffer);
}

// GetFileNameToken against the names' dot-separated pieces, with heap buffers of exact size.
void CheckFileNameToken(const std::string& text, uint32_t index, size_t tokenSize) {
    const size_t length = strlen(text.c_str());
    auto* name = static_cast<char*>(malloc(length + 1));
    FUZZ_CHECK(name != nullptr);
    memcpy(name, text.c_str(), length + 1);
    constexpr char kUntouched = 0x5A;
    auto* token = static_cast<char*>(malloc(std::max<size_t>(tokenSize, 1)));
    FUZZ_CHECK(token != nullptr);
    memset(token, kUntouched, std::max<size_t>(tokenSize, 1));

    // Names are read up to 4095 characters; runs of dots are one separator.
    std::vector<std::string> pieces;
    const std::string readable = text.substr(0, std::min<size_t>(length, 4095));
    for (size_t start = 0; start <= readable.size();) {
        size_t dot = readable.find('.', start);
        if (dot == std::string::npos) dot = readable.size();
        if (dot > start) pieces.push_back(readable.substr(start, dot - start));
        start = dot + 1;
    }

    const int found = VxCam::OsUtils::GetFileNameToken(name, index, token, tokenSize);
    FUZZ_CHECK(memcmp(name, text.c_str(), length + 1) == 0);  // the name is not changed
    const bool exists = index >= 1 && index <= pieces.size();
    FUZZ_CHECK(found == (exists ? 1 : 0));
    if (exists && tokenSize > 0) {
        FUZZ_CHECK(pieces[index - 1].compare(0, tokenSize - 1, token) == 0);
        FUZZ_CHECK(strlen(token) == std::min(pieces[index - 1].size(), tokenSize - 1));
    } else {
        for (size_t i = 0; i < std::max<size_t>(tokenSize, 1); ++i)
            FUZZ_CHECK(token[i] == kUntouched);
    }
    free(token);
    free(name);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    vxcamfuzz::FormatEveryLineQuietly();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const uint32_t extraFormat = input.ConsumeIntegral<uint32_t>();
    const uint32_t alignment = input.ConsumeIntegral<uint32_t>();
    const uint32_t width = input.ConsumeIntegral<uint32_t>();
    const uint32_t height = input.ConsumeIntegral<uint32_t>();
    const bool flag = input.ConsumeBool();
    const bool setMaxJpeg = input.ConsumeBool();
    const uint32_t maxJpeg =
            setMaxJpeg ? input.ConsumeIntegral<uint32_t>() : VxCam::kInitialMaxJpegSize;
    const uint32_t jpegSize = input.ConsumeIntegral<uint32_t>();
    const uint32_t index = input.ConsumeBool() ? input.ConsumeIntegral<uint32_t>()
                                               : input.ConsumeIntegralInRange<uint32_t>(0, 12);
    const size_t tokenSize = input.ConsumeIntegralInRange<size_t>(0, 80);
    const std::string name = input.ConsumeRandomLengthString(5000);
    const std::vector<uint8_t> blob = input.ConsumeRemainingBytes<uint8_t>();

    VxImageUtils::SetMaxJpegSize(maxJpeg);
    for (uint32_t value = 0; value <= VxCam::Max + 1; ++value) {
        CheckFormat(value, alignment, width, height, maxJpeg, flag);
    }
    CheckFormat(extraFormat, alignment, width, height, maxJpeg, flag);
    VxImageUtils::SetMaxJpegSize(VxCam::kInitialMaxJpegSize);  // each input starts from the same

    CheckBlobTrailer(blob, jpegSize);
    CheckFileNameToken(name, index, tokenSize);
    return 0;
}
