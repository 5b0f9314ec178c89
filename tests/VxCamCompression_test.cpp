// Compression over zlib: round trips, the 128-byte slack, the failure lines, the 32-bit estimate
// guard, and the stream format other zlib users read and write.
#include "VxCamCommonUtils.h"

#include <dlfcn.h>
#include <zlib.h>

#include <atomic>
#include <random>

#include "TestSupport.h"
#include "VxCamDebug.h"

// Failed streams keep zlib's memory on purpose; LeakSanitizer, when present, is told so.
extern "C" void __lsan_disable() __attribute__((weak));
extern "C" void __lsan_enable() __attribute__((weak));

// zlib's inflate, with the output count of a fresh stream starting at s_inflatedBefore (the
// library binds to this definition first): inflating past 4 GiB for real takes too long.
namespace {
std::atomic<uLong> s_inflatedBefore{0};
}  // namespace

extern "C" int inflate(z_streamp stream, int flush) {
    using Real = int (*)(z_streamp, int);
    static const Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "inflate"));
    if (stream->total_in == 0 && stream->total_out == 0) stream->total_out = s_inflatedBefore;
    return real(stream, flush);
}

namespace {

using Bytes = std::vector<uint8_t>;
using VxCam::OsUtils;

// The compression lines (info, utils group, off by default), with failed streams' memory let go.
struct UtilsLines : vxcamtest::LogCapture {
    VxCam::DebugLogInfo saved = VxCam::g_logInfo;
    UtilsLines() {
        VxCam::g_logInfo.infoMask |= VXCAM_GROUP_BIT_UTILS;
        if (__lsan_disable != nullptr) __lsan_disable();
    }
    ~UtilsLines() {
        VxCam::g_logInfo = saved;
        if (__lsan_enable != nullptr) __lsan_enable();
    }
};

// Bytes drawn from `symbols` values: 4 compresses to about a quarter, 256 not at all.
Bytes Random(size_t size, unsigned symbols, unsigned seed = 1) {
    std::mt19937 random(seed);
    Bytes data(size);
    for (uint8_t& byte : data) byte = static_cast<uint8_t>('A' + random() % symbols);
    return data;
}

int Compress(const Bytes& data, Bytes* stream) {
    stream->assign(data.size() + 1, 0);
    uint8_t* buffer = stream->data();
    uint32_t length = 0;
    const int result = OsUtils::Compress(data.data(), data.size(), &buffer, &length);
    stream->resize(length);
    return result;
}

int UnCompress(const Bytes& stream, uint32_t capacity, Bytes* data) {
    data->assign(capacity, 0xEE);
    uint8_t* buffer = data->data();
    uint32_t length = capacity;
    if (OsUtils::UnCompress(stream.data(), stream.size(), &buffer, &length) != 0) return 1;
    // The slack past the data is never written.
    EXPECT_EQ(Bytes(data->begin() + length, data->end()), Bytes(capacity - length, 0xEE));
    data->resize(length);
    return 0;
}

// The estimate, or -999 for a failed call, which must leave it 0.
int64_t Estimate(const Bytes& stream) {
    uint32_t estimate = 77;
    const int result =
            OsUtils::FindEstimatedSizeOfUnCompressed(stream.data(), stream.size(), &estimate);
    return result == 0 ? int64_t{estimate} : int64_t{result} - 1000 + estimate;
}

TEST(Compression, RoundTripsTheSlackBoundaryAndOtherZlibUsers) {
    UtilsLines log;
    const Bytes input = Random(100000, 4);
    Bytes stream, output;
    ASSERT_EQ(Compress(input, &stream), 0);
    EXPECT_EQ(Bytes(stream.begin(), stream.begin() + 2), (Bytes{0x78, 0xDA}));  // zlib, level 9
    const int64_t estimate = Estimate(stream);
    EXPECT_EQ(estimate, input.size() + 128);
    EXPECT_TRUE(log.Has("FindEstimatedSizeOfUnCompressed() rc = Z_STREAM_END"));
    ASSERT_EQ(UnCompress(stream, estimate, &output), 0);
    EXPECT_EQ(output, input);
    EXPECT_EQ(UnCompress(stream, estimate - 1, &output), 1);
    EXPECT_TRUE(log.Has("UnCompress() Inflate Failed rc =-5, total_in: "));
    // The check value of CRC-32, chained, and a stream that another zlib user wrote at level 1.
    const auto* digits = reinterpret_cast<const uint8_t*>("123456789");
    EXPECT_EQ(OsUtils::ComputeCRC32(OsUtils::ComputeCRC32(0, digits, 4), digits + 4, 5),
              0xCBF43926ul);
    const Bytes theirs = {0x78, 0x01, 0x4b, 0x4e, 0xcc, 0x4d, 0x2d, 0x4a, 0x54,
                          0x48, 0xc6, 0x42, 0x01, 0x00, 0x8c, 0x11, 0x0a, 0x05};
    ASSERT_EQ(UnCompress(theirs, Estimate(theirs), &output), 0);
    EXPECT_EQ(std::string(output.begin(), output.end()), "camera camera camera camera");
}

TEST(Compression, FailuresTheirLinesAndThe32BitEstimate) {
    UtilsLines log;
    Bytes stream, output;
    EXPECT_EQ(Compress({}, &stream), 1);  // no room for even the header
    // A stream whose end does not fit the input's size fails, with the bytes it did write.
    EXPECT_EQ(Compress(Random(16, 256), &stream), 1);
    EXPECT_EQ(stream.size(), 16u);
    // A missing argument is named, and the value printed is never a live pointer's.
    uint32_t length = 0;
    uint8_t *none = nullptr, *buffer = stream.data();
    EXPECT_EQ(OsUtils::Compress(stream.data(), 16, &none, &length), 1);
    EXPECT_EQ(OsUtils::Compress(stream.data(), 16, &buffer, nullptr), 1);
    EXPECT_EQ(UnCompress(Bytes(), 256, &output), 1);
    for (const char* line :
         {"Compress() deflate failed rc =-5", "Compress() Failed rc =-5",
          "Compress() deflateEnd failed rc =-3", "Compress() Invalid *ppOutputStream  =0",
          "Compress() Invalid pOutputLength  =0", ", inputLength =0, *ppOutputStream: 0x",
          ", *pOutputLength: 256 "}) {
        EXPECT_TRUE(log.Has(line)) << line;
    }

    Bytes corrupt;
    ASSERT_EQ(Compress(Random(10000, 4), &corrupt), 0);
    // The 32-bit estimate carries the slack: one that would wrap, for a host to overrun, fails.
    s_inflatedBefore = 0xFFFFFFFFull - 128 - 10000;
    EXPECT_EQ(Estimate(corrupt), 0xFFFFFFFFll);
    s_inflatedBefore = 0xFFFFFFFFull - 127 - 10000;
    EXPECT_EQ(Estimate(corrupt), -999);
    s_inflatedBefore = 0;
    const Bytes truncated(corrupt.begin(), corrupt.end() - 10);
    corrupt.back() ^= 0xFF;  // the Adler-32 trailer
    for (const auto& [bad, code] :
         {std::pair<const Bytes*, const char*>{&corrupt, "-3"}, {&truncated, "-5"}}) {
        EXPECT_EQ(Estimate(*bad), -999);
        EXPECT_TRUE(log.Has(std::string("FindEstimatedSizeOfUnCompressed() Error rc = ") + code));
        EXPECT_EQ(UnCompress(*bad, 10128, &output), 1);
        EXPECT_TRUE(log.Has(std::string("UnCompress() Inflate Failed rc =") + code));
    }
}

#ifdef VXCAMCTL_PATH
TEST(Compression, VxcamctlZlib) {
    vxcamtest::TempDir folder;
    const auto zlib = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "zlib");
        return vxcamtest::RunVxcamctl(arguments);
    };
    const auto write = [&](const char* name, const Bytes& data) {
        return folder.Write(name, std::string(data.begin(), data.end()));
    };
    const std::string plain = write("plain", Random(10000, 4, 5));
    EXPECT_EQ(zlib({"compress", plain, "-o", folder / "dump.z"}).exitCode, 0);
    EXPECT_EQ(zlib({"estimate", folder / "dump.z"}).out, "10128\n");
    EXPECT_EQ(zlib({"decompress", folder / "dump.z", "-o", folder / "back"}).exitCode, 0);
    EXPECT_EQ(vxcamtest::ReadFile(folder / "back"), vxcamtest::ReadFile(plain));
    // Read in pieces, chained through the library's call; -o takes the printed line too.
    const Bytes large = Random(200000, 256, 7);
    EXPECT_EQ(zlib({"crc32", write("large", large), "-o", folder / "crc"}).exitCode, 0);
    char crc[16];
    snprintf(crc, sizeof(crc), "%08lx\n", OsUtils::ComputeCRC32(0, large.data(), large.size()));
    EXPECT_EQ(vxcamtest::ReadFile(folder / "crc"), crc);

    EXPECT_EQ(zlib({"decompress", plain}).exitCode, 1);  // not a stream
    EXPECT_EQ(zlib({"inflate", plain}).exitCode, 2);
}
#endif

}  // namespace
