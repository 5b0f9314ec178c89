// Compression over zlib: round trips, the 128-byte slack boundary, the failure paths and their
// lines, and the stream format another zlib user reads and writes.
#include "VxCamCommonUtils.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>
#include <zlib.h>

#include <atomic>
#include <random>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "VxCamDebug.h"

// Failed streams keep zlib's memory on purpose; LeakSanitizer, when present, is told so.
extern "C" void __lsan_disable() __attribute__((weak));
extern "C" void __lsan_enable() __attribute__((weak));

// zlib's inflate, with the output count of a fresh stream starting at s_inflatedBefore: the
// library's calls bind to this definition of the test program before zlib's. A real stream that
// inflates past 4 GiB takes ten seconds and more to run through.
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
using vxcamtest::LogCapture;
using vxcamtest::TempDir;

struct KeptStreamMemory {
    KeptStreamMemory() {
        if (__lsan_disable != nullptr) __lsan_disable();
    }
    ~KeptStreamMemory() {
        if (__lsan_enable != nullptr) __lsan_enable();
    }
};

// The library's compression lines are info lines of the utils group, off by default.
struct UtilsLinesShown : LogCapture {
    UtilsLinesShown() : saved(VxCam::g_logInfo) { VxCam::g_logInfo.infoMask |= 4; }
    ~UtilsLinesShown() { VxCam::g_logInfo = saved; }
    // Whether an info line of the utils group holds `text`.
    bool Has(const std::string& text) const {
        for (const vxcamtest::LogLine& line : Lines()) {
            if (line.priority == ANDROID_LOG_INFO &&
                line.message.rfind("[INFO    ][UTILS  ] ", 0) == 0 &&
                line.message.find(text) != std::string::npos) {
                return true;
            }
        }
        return false;
    }
    VxCam::DebugLogInfo saved;
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
    const int result = OsUtils::UnCompress(stream.data(), stream.size(), &buffer, &length);
    if (result != 0) return result;
    // The slack past the data is never written.
    EXPECT_EQ(Bytes(data->begin() + length, data->end()), Bytes(capacity - length, 0xEE));
    data->resize(length);
    return 0;
}

uint32_t Estimate(const Bytes& stream, int* result) {
    uint32_t estimate = 77;
    *result = OsUtils::FindEstimatedSizeOfUnCompressed(stream.data(), stream.size(), &estimate);
    return estimate;
}

TEST(Compression, RoundTripsAndTheSlackBoundary) {
    for (const Bytes& input :
         {Random(64, 4), Bytes(1000, 0), Random(10000, 4), Random(1 << 20, 4)}) {
        SCOPED_TRACE(input.size());
        UtilsLinesShown log;
        Bytes stream, output;
        ASSERT_EQ(Compress(input, &stream), 0);
        EXPECT_EQ(Bytes(stream.begin(), stream.begin() + 2), (Bytes{0x78, 0xDA}));  // zlib, level 9
        int result = 1;
        const uint32_t estimate = Estimate(stream, &result);
        EXPECT_EQ(result, 0);
        EXPECT_EQ(estimate, input.size() + 128);
        EXPECT_TRUE(log.Has("FindEstimatedSizeOfUnCompressed() rc = Z_STREAM_END"));
        ASSERT_EQ(UnCompress(stream, estimate, &output), 0);
        EXPECT_EQ(output, input);
        KeptStreamMemory kept;
        EXPECT_EQ(UnCompress(stream, estimate - 1, &output), 1);
        EXPECT_TRUE(log.Has("UnCompress() Inflate Failed rc =-5, total_in: "));
    }
}

TEST(Compression, FailuresAndTheirLines) {
    KeptStreamMemory kept;
    UtilsLinesShown log;
    Bytes stream;
    EXPECT_EQ(Compress({}, &stream), 1);  // no room for even the header
    EXPECT_TRUE(log.Has("Compress() deflate failed rc =-5"));
    EXPECT_TRUE(log.Has("Compress() Failed rc =-5"));
    // A stream whose end does not fit the input's size fails, with the bytes it did write.
    EXPECT_EQ(Compress(Random(16, 256), &stream), 1);
    EXPECT_EQ(stream.size(), 16u);
    EXPECT_TRUE(log.Has("Compress() deflateEnd failed rc =-3"));
    // A missing argument is named, and the value printed is never a live pointer's.
    uint32_t length = 0;
    uint8_t* none = nullptr;
    uint8_t* buffer = stream.data();
    const struct {
        uint8_t** output;
        uint32_t* length;
        std::string line;
    } invalid[] = {{&none, &length, "Compress() Invalid *ppOutputStream  =0"},
                   {&buffer, nullptr, "Compress() Invalid pOutputLength  =0"}};
    for (const auto& c : invalid) {
        log.Clear();
        EXPECT_EQ(OsUtils::Compress(stream.data(), 16, c.output, c.length), 1);
        ASSERT_EQ(log.Messages().size(), 1u);
        EXPECT_TRUE(log.Has(c.line)) << log.Messages()[0];
    }

    Bytes valid, output;
    ASSERT_EQ(Compress(Random(10000, 4), &valid), 0);
    log.Clear();
    EXPECT_EQ(UnCompress(Bytes(), 256, &output), 1);
    ASSERT_EQ(log.Messages().size(), 1u);
    EXPECT_TRUE(log.Has(", inputLength =0, *ppOutputStream: 0x"));
    EXPECT_TRUE(log.Has(", *pOutputLength: 256 "));  // the trailing blank is kept

    Bytes corrupt = valid;
    corrupt.back() ^= 0xFF;  // the Adler-32 trailer
    const Bytes truncated(valid.begin(), valid.end() - 10);
    for (const auto& [bad, code] :
         {std::pair<const Bytes*, const char*>{&corrupt, "-3"}, {&truncated, "-5"}}) {
        log.Clear();
        int result = 0;
        EXPECT_EQ(Estimate(*bad, &result), 0u);
        EXPECT_EQ(result, 1);
        EXPECT_TRUE(log.Has(std::string("FindEstimatedSizeOfUnCompressed() Error rc = ") + code));
        EXPECT_EQ(UnCompress(*bad, 10128, &output), 1);
        EXPECT_TRUE(log.Has(std::string("UnCompress() Inflate Failed rc =") + code));
    }
}

// The estimate is 32-bit and carries the slack: a stream that inflates to more would wrap to a
// small estimate, which a host would allocate and overrun. It fails instead.
TEST(Compression, EstimatesThatDoNotFitIn32BitsFail) {
    Bytes stream;
    ASSERT_EQ(Compress(Bytes(10000, 0), &stream), 0);
    const struct {
        uint64_t inflated;
        int result;
        uint32_t estimate;
        const char* line;
    } cases[] = {
            {0xFFFFFFFFull - 128, 0, 0xFFFFFFFF,
             "FindEstimatedSizeOfUnCompressed() rc = Z_STREAM_END"},
            {0xFFFFFFFFull - 127, 1, 0, "FindEstimatedSizeOfUnCompressed() Error rc = -5"},
            {0x100000000ull + 10000, 1, 0, "FindEstimatedSizeOfUnCompressed() Error rc = -5"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.inflated);
        UtilsLinesShown log;
        s_inflatedBefore = c.inflated - 10000;
        int result = -1;
        EXPECT_EQ(Estimate(stream, &result), c.estimate);
        s_inflatedBefore = 0;
        EXPECT_EQ(result, c.result);
        EXPECT_TRUE(log.Has(c.line));
    }
}

// The check value of CRC-32, and a stream that another zlib user wrote at level 1.
TEST(Compression, AgreesWithOtherZlibUsers) {
    const auto* digits = reinterpret_cast<const uint8_t*>("123456789");
    EXPECT_EQ(OsUtils::ComputeCRC32(0, digits, 9), 0xCBF43926ul);
    EXPECT_EQ(OsUtils::ComputeCRC32(OsUtils::ComputeCRC32(0, digits, 4), digits + 4, 5),
              0xCBF43926ul);
    const Bytes theirs = {0x78, 0x01, 0x4b, 0x4e, 0xcc, 0x4d, 0x2d, 0x4a, 0x54,
                          0x48, 0xc6, 0x42, 0x01, 0x00, 0x8c, 0x11, 0x0a, 0x05};
    int result = 1;
    const uint32_t estimate = Estimate(theirs, &result);
    EXPECT_EQ(result, 0);
    Bytes output;
    ASSERT_EQ(UnCompress(theirs, estimate, &output), 0);
    EXPECT_EQ(std::string(output.begin(), output.end()), "camera camera camera camera");
}

#ifdef VXCAMCTL_PATH
TEST(Compression, VxcamctlZlib) {
    const auto vxcamctl = [](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {vxcamtest::Vxcamctl(), "zlib"});
        return vxcamtest::RunProcess(arguments, {{"ANDROID_LOG_TAGS", "*:s"}});
    };
    TempDir folder;
    const auto write = [&](const char* name, const Bytes& data) {
        return folder.Write(name, std::string(data.begin(), data.end()));
    };
    const Bytes input = Random(10000, 4, 5);
    const std::string plain = write("plain", input);
    EXPECT_EQ(vxcamctl({"compress", plain, "-o", folder / "dump.z"}).exitCode, 0);
    EXPECT_EQ(vxcamctl({"estimate", folder / "dump.z"}).out, "10128\n");
    EXPECT_EQ(vxcamctl({"decompress", folder / "dump.z", "-o", folder / "back"}).exitCode, 0);
    EXPECT_EQ(vxcamtest::ReadFile(folder / "back"), vxcamtest::ReadFile(plain));
    EXPECT_EQ(vxcamctl({"crc32", folder.Write("digits", "123456789")}).out, "cbf43926\n");
    // Read in pieces, chained through the library's call; -o takes the printed line too.
    const Bytes large = Random(200000, 256, 7);
    EXPECT_EQ(vxcamctl({"crc32", write("large", large), "-o", folder / "crc"}).exitCode, 0);
    char crc[16];
    snprintf(crc, sizeof(crc), "%08lx\n", OsUtils::ComputeCRC32(0, large.data(), large.size()));
    EXPECT_EQ(vxcamtest::ReadFile(folder / "crc"), crc);

    EXPECT_EQ(vxcamctl({"decompress", plain}).exitCode, 1);  // not a stream
    EXPECT_EQ(vxcamctl({"compress", write("noise", Random(64, 256))}).exitCode, 1);
    EXPECT_EQ(vxcamctl({"estimate", folder / "absent"}).exitCode, 2);
    EXPECT_EQ(vxcamctl({"inflate", plain}).exitCode, 2);
    EXPECT_EQ(vxcamctl({"estimate", plain, "extra"}).exitCode, 2);
}
#endif

}  // namespace
