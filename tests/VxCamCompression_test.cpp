// Compression over zlib: round trips, the 128-byte slack boundary, the failure paths and their
// lines, and streams exchanged with another zlib user (Python's zlib module).
#include "VxCamCommonUtils.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "VxCamDebug.h"

// Failed streams keep zlib's memory on purpose; LeakSanitizer, when present, is told so.
extern "C" void __lsan_disable() __attribute__((weak));
extern "C" void __lsan_enable() __attribute__((weak));

namespace {

using Bytes = std::vector<uint8_t>;
using VxCam::OsUtils;
using vxcamtest::LogCapture;

class KeptStreamMemory {
  public:
    KeptStreamMemory() {
        if (__lsan_disable != nullptr) __lsan_disable();
    }
    ~KeptStreamMemory() {
        if (__lsan_enable != nullptr) __lsan_enable();
    }
};

class Compression : public ::testing::Test {
  protected:
    void SetUp() override {
        m_saved = VxCam::g_logInfo;
        VxCam::g_logInfo.infoMask |= VXCAM_GROUP_BIT_UTILS;
    }
    void TearDown() override { VxCam::g_logInfo = m_saved; }

    static bool Logged(const LogCapture& capture, const std::string& text) {
        for (const std::string& message : capture.Messages()) {
            if (message.find(text) != std::string::npos) return true;
        }
        return false;
    }

  private:
    VxCam::DebugLogInfo m_saved{};
};

// Random letters from a small alphabet: about two bits of information per byte.
Bytes Compressible(size_t size, unsigned seed = 1) {
    std::mt19937 random(seed);
    Bytes data(size);
    for (uint8_t& byte : data) byte = "ISP3A"[random() % 4];
    return data;
}

Bytes Noise(size_t size) {
    std::mt19937 random(7);
    Bytes data(size);
    for (uint8_t& byte : data) byte = static_cast<uint8_t>(random());
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
    if (result == 0) {
        // The slack past the data is never written.
        EXPECT_EQ(Bytes(data->begin() + length, data->end()), Bytes(capacity - length, 0xEE));
        data->resize(length);
    }
    return result;
}

uint32_t Estimate(const Bytes& stream, int* result) {
    uint32_t estimate = 77;
    *result = OsUtils::FindEstimatedSizeOfUnCompressed(stream.data(), stream.size(), &estimate);
    return estimate;
}

TEST_F(Compression, RoundTripsAndTheSlackBoundary) {
    const Bytes inputs[] = {Compressible(64), Bytes(1000, 0), Compressible(10000),
                            Compressible(1 << 20)};
    for (const Bytes& input : inputs) {
        SCOPED_TRACE(input.size());
        LogCapture capture;
        Bytes stream, output;
        ASSERT_EQ(Compress(input, &stream), 0);
        EXPECT_LT(stream.size(), input.size());
        int result = 1;
        const uint32_t estimate = Estimate(stream, &result);
        EXPECT_EQ(result, 0);
        EXPECT_EQ(estimate, input.size() + 128);
        EXPECT_TRUE(Logged(capture, "FindEstimatedSizeOfUnCompressed() rc = Z_STREAM_END"));

        ASSERT_EQ(UnCompress(stream, estimate, &output), 0);
        EXPECT_EQ(output, input);
        KeptStreamMemory kept;
        EXPECT_EQ(UnCompress(stream, estimate - 1, &output), 1);
        EXPECT_TRUE(Logged(capture, "UnCompress() Inflate Failed rc =-5, total_in: "));
    }
}

TEST_F(Compression, FailuresAndTheirLines) {
    KeptStreamMemory kept;
    LogCapture capture;
    Bytes stream;
    EXPECT_EQ(Compress({}, &stream), 1);  // no room for even the header
    EXPECT_TRUE(Logged(capture, "[INFO    ][UTILS  ]"));
    EXPECT_TRUE(Logged(capture, "Compress() deflate failed rc =-5"));
    EXPECT_TRUE(Logged(capture, "Compress() Failed rc =-5"));

    // Output that does not fit in the input's size never finishes the stream.
    EXPECT_EQ(Compress(Noise(16), &stream), 1);
    EXPECT_EQ(stream.size(), 16u);
    EXPECT_TRUE(Logged(capture, "Compress() deflateEnd failed rc =-3"));

    uint32_t length = 5;
    uint8_t* none = nullptr;
    EXPECT_EQ(OsUtils::Compress(stream.data(), 16, &none, &length), 1);
    EXPECT_TRUE(Logged(capture, "Compress() Invalid *ppOutputStream  =0"));

    Bytes valid;
    ASSERT_EQ(Compress(Compressible(10000), &valid), 0);
    capture.Clear();
    uint8_t output[256];
    uint8_t* buffer = output;
    length = sizeof(output);
    EXPECT_EQ(OsUtils::UnCompress(valid.data(), 0, &buffer, &length), 1);
    ASSERT_EQ(capture.Messages().size(), 1u);
    const std::string invalid = capture.Messages()[0];
    EXPECT_NE(invalid.find("UnCompress() Invalid input: pInputStream: 0x"), std::string::npos);
    EXPECT_NE(invalid.find(", inputLength =0, *ppOutputStream: 0x"), std::string::npos);
    const std::string tail = ", *pOutputLength: 256 ";  // the trailing blank is kept
    EXPECT_EQ(invalid.substr(invalid.size() - tail.size()), tail) << invalid;

    Bytes corrupt = valid;
    corrupt.back() ^= 0xFF;  // the Adler-32 trailer
    Bytes truncated(valid.begin(), valid.end() - 10);
    struct Case {
        const Bytes* stream;
        int zlibResult;
    };
    for (const Case& c : {Case{&corrupt, -3}, Case{&truncated, -5}}) {
        const std::string code = std::to_string(c.zlibResult);
        capture.Clear();
        int result = 0;
        EXPECT_EQ(Estimate(*c.stream, &result), 0u);
        EXPECT_EQ(result, 1);
        EXPECT_TRUE(Logged(capture, "FindEstimatedSizeOfUnCompressed() Error rc = " + code));
        Bytes data;
        EXPECT_EQ(UnCompress(*c.stream, 10128, &data), 1);
        EXPECT_TRUE(Logged(capture, "UnCompress() Inflate Failed rc =" + code));
    }
}

TEST_F(Compression, Crc32) {
    const std::string digits = "123456789";
    const auto* bytes = reinterpret_cast<const uint8_t*>(digits.data());
    EXPECT_EQ(OsUtils::ComputeCRC32(0, bytes, 9), 0xCBF43926ul);
    EXPECT_EQ(OsUtils::ComputeCRC32(OsUtils::ComputeCRC32(0, bytes, 4), bytes + 4, 5), 0xCBF43926ul);
    EXPECT_EQ(OsUtils::ComputeCRC32(0x1234, bytes, 0), 0x1234ul);
}

// ---- Another zlib user ---------------------------------------------------------------------

std::string Python3() {
    const char* path = getenv("PATH");
    std::string folders = path != nullptr ? path : "/usr/bin:/bin";
    for (size_t start = 0, end = 0; end != std::string::npos; start = end + 1) {
        end = folders.find(':', start);
        const std::string candidate = folders.substr(start, end - start) + "/python3";
        if (access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return "";
}

// decompress IN OUT, or compress IN OUT LEVEL
const char kPythonZlib[] =
        "import sys, zlib\n"
        "data = open(sys.argv[2], 'rb').read()\n"
        "out = zlib.decompress(data) if sys.argv[1] == 'decompress' else zlib.compress(data, "
        "int(sys.argv[4]))\n"
        "open(sys.argv[3], 'wb').write(out)\n";

bool Python(const std::vector<std::string>& arguments) {
    std::vector<std::string> argv = {Python3(), "-c", kPythonZlib};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    const vxcamtest::ProcessResult result = vxcamtest::RunProcess(argv);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return result.exitCode == 0;
}

Bytes ReadBytes(const std::string& path) {
    const std::string text = vxcamtest::ReadFile(path);
    return Bytes(text.begin(), text.end());
}

std::string WriteBytes(const vxcamtest::TempDir& folder, const std::string& name,
                       const Bytes& data) {
    return folder.Write(name, std::string(data.begin(), data.end()));
}

TEST_F(Compression, StreamsExchangedWithPython) {
    if (Python3().empty())
        GTEST_SKIP() << "python3 not found on PATH: interoperability not checked";
    vxcamtest::TempDir folder;
    const Bytes input = Compressible(300000, 3);
    const std::string plain = WriteBytes(folder, "plain", input);

    Bytes ours;
    ASSERT_EQ(Compress(input, &ours), 0);
    ASSERT_TRUE(Python({"decompress", WriteBytes(folder, "ours.z", ours), folder / "ours.out"}));
    EXPECT_EQ(ReadBytes(folder / "ours.out"), input);

    for (const char* level : {"1", "6", "9"}) {
        ASSERT_TRUE(Python({"compress", plain, folder / "theirs.z", level}));
        const Bytes theirs = ReadBytes(folder / "theirs.z");
        int result = 1;
        const uint32_t estimate = Estimate(theirs, &result);
        ASSERT_EQ(result, 0) << level;
        Bytes output;
        ASSERT_EQ(UnCompress(theirs, estimate, &output), 0) << level;
        EXPECT_EQ(output, input) << level;
    }
}

#ifdef VXCAMCTL_PATH
vxcamtest::ProcessResult Vxcamctl(const std::vector<std::string>& arguments) {
    std::vector<std::string> argv = {vxcamtest::Vxcamctl(), "zlib"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return vxcamtest::RunProcess(argv, {{"ANDROID_LOG_TAGS", "*:s"}});
}

TEST_F(Compression, VxcamctlZlib) {
    vxcamtest::TempDir folder;
    const Bytes input = Compressible(10000, 5);
    const std::string plain = WriteBytes(folder, "plain", input);

    EXPECT_EQ(Vxcamctl({"compress", plain, "-o", folder / "dump.z"}).exitCode, 0);
    vxcamtest::ProcessResult result = Vxcamctl({"estimate", folder / "dump.z"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, "10128\n");
    EXPECT_EQ(Vxcamctl({"decompress", folder / "dump.z", "-o", folder / "back"}).exitCode, 0);
    EXPECT_EQ(ReadBytes(folder / "back"), input);
    result = Vxcamctl({"crc32", folder.Write("digits", "123456789")});
    EXPECT_EQ(result.out, "cbf43926\n");

    EXPECT_EQ(Vxcamctl({"decompress", plain}).exitCode, 1);  // not a stream
    EXPECT_EQ(Vxcamctl({"compress", WriteBytes(folder, "noise", Noise(64))}).exitCode, 1);
    EXPECT_EQ(Vxcamctl({"estimate", folder / "absent"}).exitCode, 2);
    EXPECT_EQ(Vxcamctl({"inflate", plain}).exitCode, 2);

    if (Python3().empty())
        GTEST_SKIP() << "python3 not found on PATH: interoperability not checked";
    ASSERT_TRUE(Python({"decompress", folder / "dump.z", folder / "python.out"}));
    EXPECT_EQ(ReadBytes(folder / "python.out"), input);
}
#endif

}  // namespace
