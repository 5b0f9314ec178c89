// Tests of the host port: the Android interfaces the library calls, as a Linux host provides them.
// The properties come from tests/data/port-sysroot/vendor/build.prop (VXCAM_SYSROOT is set by ctest).

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TestSupport.h"

#include <VxCamPortPath.h>
#include <android/log.h>
#include <cutils/properties.h>
#include <cutils/trace.h>
#include <sync/sync.h>
#include <utils/CallStack.h>

namespace {

// A developer's own ANDROID_LOG_TAGS would silently drop the lines these tests look for; the
// filter is read once per process, so clear it before anything logs.
const bool kLogTagsCleared = (unsetenv("ANDROID_LOG_TAGS"), true);

// Sends fd 2 to a temporary file until Finish(), which returns what was written.
class StderrCapture {
  public:
    StderrCapture() {
        fflush(stderr);
        mFile = tmpfile();
        mSaved = dup(STDERR_FILENO);
        if (mFile != nullptr) dup2(fileno(mFile), STDERR_FILENO);
    }
    ~StderrCapture() { Finish(); }

    std::string Finish() {
        if (mFile == nullptr) return mText;
        dup2(mSaved, STDERR_FILENO);
        close(mSaved);
        fseek(mFile, 0, SEEK_SET);
        char buffer[4096];
        size_t n;
        while ((n = fread(buffer, 1, sizeof(buffer), mFile)) > 0) mText.append(buffer, n);
        fclose(mFile);
        mFile = nullptr;
        return mText;
    }

  private:
    FILE* mFile = nullptr;
    int mSaved = -1;
    std::string mText;
};

// Sets (or, for nullptr, removes) an environment variable until the end of the scope.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, const char* value) : mName(name) {
        const char* old = getenv(name);
        mHad = old != nullptr;
        if (mHad) mOld = old;
        Set(value);
    }
    ~ScopedEnv() { Set(mHad ? mOld.c_str() : nullptr); }
    void Set(const char* value) {
        value != nullptr ? setenv(mName, value, 1) : unsetenv(mName);
        tzset();
    }

  private:
    const char* mName;
    bool mHad;
    std::string mOld;
};

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// "MM-DD HH:MM:SS.mmm " of a CLOCK_REALTIME instant, in local time.
std::string TimestampOf(const struct timespec& ts) {
    struct tm local = {};
    localtime_r(&ts.tv_sec, &local);
    char text[32];
    snprintf(text, sizeof(text), "%02d-%02d %02d:%02d:%02d.%03d ", local.tm_mon + 1, local.tm_mday,
             local.tm_hour, local.tm_min, local.tm_sec, static_cast<int>(ts.tv_nsec / 1000000));
    return text;
}

std::string PidTid() {
    char text[32];
    snprintf(text, sizeof(text), "%5d %5d", static_cast<int>(getpid()), static_cast<int>(gettid()));
    return text;
}

// gtest's POSIX regular expressions rather than std::regex, which trips GCC 12's
// -Wmaybe-uninitialized in sanitizer builds.
const char kTimestamp[] = "[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";

// ---- Log line layout ----------------------------------------------------------------------------

TEST(PortHostLogTest, StderrLineLayoutIsThreadtime) {
    // A zone far from UTC makes a logger that prints UTC instead of local time fail.
    const ScopedEnv zone("TZ", "VXT-9");

    struct Case {
        int priority;
        const char* tag;
        const char* message;
        std::vector<std::string> tails;  // every line after "MM-DD HH:MM:SS.mmm pid tid "
    };
    const std::vector<Case> cases = {
            {ANDROID_LOG_UNKNOWN, "VxCam", "p0", {"? VxCam   : p0"}},
            {ANDROID_LOG_VERBOSE, "VxCam", "p2", {"V VxCam   : p2"}},
            {ANDROID_LOG_INFO, "VxCam", "p4", {"I VxCam   : p4"}},
            {ANDROID_LOG_ERROR, "VxCam", "p6", {"E VxCam   : p6"}},
            {ANDROID_LOG_FATAL, "VxCam", "p7", {"F VxCam   : p7"}},
            {9, "VxCam", "p9", {"? VxCam   : p9"}},
            {ANDROID_LOG_INFO, "", "no tag", {"I         : no tag"}},
            {ANDROID_LOG_INFO, "exactly8", "fits", {"I exactly8: fits"}},
            {ANDROID_LOG_INFO, "longer-than-8", "grows", {"I longer-than-8: grows"}},
            {ANDROID_LOG_INFO, "T", "100% literal %s", {"I T       : 100% literal %s"}},
            {ANDROID_LOG_INFO, "T", "", {"I T       : "}},
            {ANDROID_LOG_INFO, "T", "one\ntwo", {"I T       : one", "I T       : two"}},
            {ANDROID_LOG_INFO, "T", "one\n\n", {"I T       : one"}},
            {ANDROID_LOG_INFO, "T", "a\n\nb\n", {"I T       : a", "I T       : ", "I T       : b"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "priority " << c.priority << " message '" << c.message << "'");
        struct timespec before = {}, after = {};
        StderrCapture capture;
        clock_gettime(CLOCK_REALTIME, &before);
        int ret = __android_log_write(c.priority, c.tag, c.message);
        clock_gettime(CLOCK_REALTIME, &after);
        std::string text = capture.Finish();
        EXPECT_EQ(ret, 1);
        ASSERT_FALSE(text.empty());
        EXPECT_EQ(text.back(), '\n');
        std::vector<std::string> lines = SplitLines(text);
        ASSERT_EQ(lines.size(), c.tails.size()) << text;
        for (size_t i = 0; i < lines.size(); ++i) {
            ASSERT_GE(lines[i].size(), 19u) << lines[i];
            std::string stamp = lines[i].substr(0, 19);
            EXPECT_THAT(stamp, testing::MatchesRegex(kTimestamp));
            // Same year assumed: the strings then order as the instants do.
            EXPECT_LE(TimestampOf(before), stamp);
            EXPECT_GE(TimestampOf(after), stamp);
            EXPECT_EQ(lines[i].substr(19), PidTid() + " " + c.tails[i]);
        }
    }
}

TEST(PortHostLogTest, PrintFormatsNullsAndTruncatesLikeLiblog) {
    vxcamtest::LogCapture capture;
    std::string longArg(1500, 'x');
    EXPECT_EQ(__android_log_print(ANDROID_LOG_WARN, "VxCam", "v=%d %s", 42, "ok"), 1);
    EXPECT_EQ(__android_log_print(ANDROID_LOG_ERROR, nullptr, "%s", longArg.c_str()), 1);
    EXPECT_EQ(__android_log_write(ANDROID_LOG_INFO, "VxCam", nullptr), 1);

    const std::vector<vxcamtest::LogLine> captured = capture.Lines();
    ASSERT_EQ(captured.size(), 3u);
    EXPECT_EQ(captured[0].priority, ANDROID_LOG_WARN);
    EXPECT_EQ(captured[0].tag, "VxCam");
    EXPECT_EQ(captured[0].message, "v=42 ok");
    EXPECT_EQ(captured[1].tag, "");
    EXPECT_EQ(captured[1].message, std::string(1023, 'x'));
    EXPECT_EQ(captured[2].message, "");
}

TEST(PortHostLogTest, ConcurrentMessagesAreNeitherLostNorTorn) {
    constexpr int kThreads = 4;
    constexpr int kMessages = 500;
    StderrCapture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int m = 0; m < kMessages; ++m) {
                __android_log_print(ANDROID_LOG_INFO, "VxStress", "t%d m%d first\nt%d m%d second",
                                    t, m, t, m);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    std::vector<std::string> lines = SplitLines(capture.Finish());

    ASSERT_EQ(lines.size(), size_t{2 * kThreads * kMessages});
    const std::string layout =
            std::string(kTimestamp) + " *[0-9]+ +[0-9]+ I VxStress: t[0-9]+ m[0-9]+ (first|second)";
    const std::string marker = "VxStress: ";
    std::set<std::string> seen;
    for (size_t i = 0; i < lines.size(); i += 2) {
        ASSERT_THAT(lines[i], testing::MatchesRegex(layout));
        ASSERT_THAT(lines[i + 1], testing::MatchesRegex(layout));
        // Both lines of one call come from one write, so they must stay adjacent.
        std::string first = lines[i].substr(lines[i].find(marker) + marker.size());
        std::string second = lines[i + 1].substr(lines[i + 1].find(marker) + marker.size());
        ASSERT_THAT(first, testing::EndsWith(" first"));
        ASSERT_THAT(second, testing::EndsWith(" second"));
        std::string id = first.substr(0, first.size() - 6);
        EXPECT_EQ(second.substr(0, second.size() - 7), id);
        EXPECT_TRUE(seen.insert(id).second) << "twice: " << id;
    }
    EXPECT_EQ(seen.size(), size_t{kThreads * kMessages});
}

// The filter is read once per process, so each case runs in a freshly started copy of this test.
TEST(PortHostLogTest, AndroidLogTagsFilterTheStderrLogger) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    struct Case {
        const char* tags;
        const char* tag;
        int priority;
        bool printed;
    };
    const Case cases[] = {
            {"*:w", "A", ANDROID_LOG_WARN, true},
            {"*:w", "A", ANDROID_LOG_INFO, false},
            {"VxCam:d *:s", "VxCam", ANDROID_LOG_DEBUG, true},
            {"VxCam:d *:s", "Other", ANDROID_LOG_FATAL, false},
            {"VxCam:d", "Other", ANDROID_LOG_VERBOSE, true},
            {"  *:e \t VxCam:i ", "VxCam", ANDROID_LOG_INFO, true},
            {"*:e VxCam:i", "VxCamX", ANDROID_LOG_WARN, false},
    };
    ScopedEnv tags("ANDROID_LOG_TAGS", nullptr);
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.tags << " / " << c.tag << " / " << c.priority);
        tags.Set(c.tags);
        // Exit code 0: returned 1 from both calls; 1: -EPERM from both; 2: anything else.
        auto run = [&] {
            int write = __android_log_write(c.priority, c.tag, "filter-probe");
            int print = __android_log_print(c.priority, c.tag, "%s", "filter-probe");
            _exit(write == 1 && print == 1 ? 0 : write == -EPERM && print == -EPERM ? 1 : 2);
        };
        if (c.printed) {
            EXPECT_EXIT(run(), testing::ExitedWithCode(0), testing::HasSubstr(": filter-probe"));
        } else {
            EXPECT_EXIT(run(), testing::ExitedWithCode(1),
                        testing::Not(testing::HasSubstr("filter-probe")));
        }
    }
}

// ---- Properties ---------------------------------------------------------------------------------

std::string Get(const char* key, const char* defaultValue) {
    char value[PROPERTY_VALUE_MAX];
    memset(value, '@', sizeof(value));
    int length = property_get(key, value, defaultValue);
    EXPECT_EQ(length, static_cast<int>(strlen(value))) << key;
    return value;
}

// Each build.prop line as every getter reads it: property_get (default "<d>"), property_get_bool
// (-1), and the integers as strtoimax reads them with base 0 (-99, -77); the list holds what the
// getter finds, and nothing that the file failed to set.
TEST(PortHostPropertiesTest, BuildPropLinesAsEachGetterReadsThem) {
    const std::string len91 = std::string(90, 'a') + "Z";
    // clang-format off
    const struct {
        std::string key, text;
        int flag;
        int64_t as64;
        int32_t as32;
    } cases[] = {
        {"vendor.test.plain", "hello", -1, -99, -77},
        {"vendor.test.spaced", "two words", -1, -99, -77},
        {"vendor.test.eq", "a=b", -1, -99, -77},
        {"vendor.test.crlf", "dos", -1, -99, -77},
        {"vendor.test.dup", "second", -1, -99, -77},
        {"vendor.test.len91", len91, -1, -99, -77},
        {"ro.vendor.test.locked", "fixed", -1, -99, -77},
        {"vendor.test.len92", "<d>", -1, -99, -77},
        {"vendor.test.empty", "<d>", -1, -99, -77},
        {"vendor.test.noequals", "<d>", -1, -99, -77},
        {"#vendor.test.commented", "<d>", -1, -99, -77},
        {"", "<d>", -1, -99, -77},
        {"vendor.test.absent", "<d>", -1, -99, -77},
        {"vendor.test.bool.1", "1", 1, 1, 1}, {"vendor.test.bool.y", "y", 1, -99, -77},
        {"vendor.test.bool.yes", "yes", 1, -99, -77}, {"vendor.test.bool.on", "on", 1, -99, -77},
        {"vendor.test.bool.true", "true", 1, -99, -77}, {"vendor.test.bool.0", "0", 0, 0, 0},
        {"vendor.test.bool.n", "n", 0, -99, -77}, {"vendor.test.bool.no", "no", 0, -99, -77},
        {"vendor.test.bool.off", "off", 0, -99, -77}, {"vendor.test.bool.false", "false", 0, -99, -77},
        {"vendor.test.bool.TRUE", "TRUE", -1, -99, -77}, {"vendor.test.bool.Yes", "Yes", -1, -99, -77},
        {"vendor.test.bool.2", "2", -1, 2, 2}, {"vendor.test.bool.yess", "yess", -1, -99, -77},
        {"vendor.test.int.hex", "0x1f", -1, 31, 31},
        {"vendor.test.int.octal", "010", -1, 8, 8},
        {"vendor.test.int.garbage", "12abc", -1, 12, 12},
        {"vendor.test.int.nodigits", "abc", -1, -99, -77},
        {"vendor.test.int.max64", "9223372036854775807", -1, INT64_MAX, -77},
        {"vendor.test.int.over64", "9223372036854775808", -1, -99, -77},
        {"vendor.test.int.min64", "-9223372036854775808", -1, INT64_MIN, -77},
        {"vendor.test.int.under64", "-9223372036854775809", -1, -99, -77},
        {"vendor.test.int.max32", "2147483647", -1, INT32_MAX, INT32_MAX},
        {"vendor.test.int.over32", "2147483648", -1, 2147483648LL, -77},
        {"vendor.test.int.min32", "-2147483648", -1, INT32_MIN, INT32_MIN},
        {"vendor.test.int.under32", "-2147483649", -1, -2147483649LL, -77},
    };
    // clang-format on
    std::map<std::string, std::string> listed;
    property_list(
            [](const char* key, const char* value, void* cookie) {
                (*static_cast<std::map<std::string, std::string>*>(cookie))[key] = value;
            },
            &listed);
    for (const auto& c : cases) {
        const char* key = c.key.c_str();
        EXPECT_EQ(Get(key, "<d>"), c.text) << key;
        EXPECT_EQ(listed[key], c.text == "<d>" ? "" : c.text) << key;
        EXPECT_EQ(property_get_bool(key, -1), c.flag) << key;
        // Neither default may leak into a recognised word.
        EXPECT_EQ(property_get_bool(key, 7), c.flag == -1 ? 7 : c.flag) << key;
        errno = 1234;
        EXPECT_EQ(property_get_int64(key, -99), c.as64) << key;
        EXPECT_EQ(property_get_int32(key, -77), c.as32) << key;
        EXPECT_EQ(errno, 1234) << key;
    }
    EXPECT_EQ(property_list(nullptr, &listed), -1);
}

TEST(PortHostPropertiesTest, DefaultsAndNulls) {
    const std::string longDefault(120, 'd');
    EXPECT_EQ(Get("vendor.test.absent", longDefault.c_str()), std::string(91, 'd'));
    EXPECT_EQ(Get("vendor.test.absent", nullptr), "");
    EXPECT_EQ(Get("vendor.test.plain", nullptr), "hello");
    EXPECT_EQ(property_get("vendor.test.plain", nullptr, "x"), 0);
    char untouched[PROPERTY_VALUE_MAX] = "keep";
    EXPECT_EQ(property_get(nullptr, untouched, "x"), 0);
    EXPECT_STREQ(untouched, "keep");
    EXPECT_EQ(property_get_bool("vendor.test.absent", 1), 1);
    EXPECT_EQ(property_get_bool(nullptr, 1), 1);
    EXPECT_EQ(property_get_int64(nullptr, 5), 5);
}

TEST(PortHostPropertiesTest, SetRules) {
    const std::string v91(91, 'v');
    const std::string v92(92, 'v');
    struct Case {
        const char* key;
        const char* value;
        int ret;
        const char* readBack;  // with default "<d>"
    };
    // Read-only keys can be written once per process; fresh names keep --gtest_repeat working.
    static int run = 0;
    const std::string fresh = "ro.vendor.set.fresh" + std::to_string(run);
    ++run;
    const Case cases[] = {
            {"vendor.set.a", "one", 0, "one"},
            {"vendor.set.a", "two", 0, "two"},
            {"vendor.set.a", nullptr, 0, "<d>"},
            {"vendor.set.b", v91.c_str(), 0, v91.c_str()},
            {"vendor.set.b", v92.c_str(), -1, v91.c_str()},
            {nullptr, "x", -1, nullptr},
            {"ro.vendor.test.locked", "other", -1, "fixed"},
            {fresh.c_str(), "first", 0, "first"},
            {fresh.c_str(), "first", -1, "first"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << (c.key ? c.key : "(null)") << " = " << (c.value ? c.value : "(null)"));
        EXPECT_EQ(property_set(c.key, c.value), c.ret);
        if (c.readBack != nullptr) {
            EXPECT_EQ(Get(c.key, "<d>"), c.readBack);
        }
    }
}

// ---- Trace ----------------------------------------------------------------------------

TEST(PortHostTraceTest, EnabledTagsFollowTheProperty) {
    const char* kKey = "debug.atrace.tags.enableflags";
    EXPECT_EQ(atrace_get_enabled_tags(), uint64_t{ATRACE_TAG_ALWAYS});
    const std::vector<std::pair<const char*, uint64_t>> cases = {
            {"", 0x1},
            {"0x400", 0x401},
            {"0x400 ", 0x401},
            {"zz", 0x1},
            {"0x400x", 0x1},
            {"99999999999999999999999", 0x1},
            {"0xffffffffffffffff", ATRACE_TAG_VALID_MASK},
    };
    for (const auto& [value, expected] : cases) {
        ASSERT_EQ(property_set(kKey, value), 0);
        EXPECT_EQ(atrace_get_enabled_tags(), expected) << "'" << value << "'";
    }
    property_set(kKey, "");
    // The always-on tag reaches the port's begin and end; without a writable trace marker they go
    // nowhere, and they must not fail either way.
    atrace_begin(ATRACE_TAG_ALWAYS, "VxCam section");
    atrace_begin(ATRACE_TAG_ALWAYS, nullptr);
    atrace_end(ATRACE_TAG_ALWAYS);
    atrace_end(ATRACE_TAG_ALWAYS);
}

// ---- sync_wait ----------------------------------------------------------------------------------

TEST(PortHostSyncTest, WaitOnPollableDescriptors) {
    struct Case {
        const char* name;
        int (*prepare)(int readFd, int writeFd);  // returns the fd to wait on
        int timeout;
        int ret;
        int error;
    };
    const Case cases[] = {
            {"pending times out", [](int r, int) { return r; }, 10, -1, ETIME},
            {"signalled", [](int r, int w) { return write(w, "x", 1) == 1 ? r : -2; }, 1000, 0, 0},
            {"writer gone", [](int r, int w) { return close(w) == 0 ? r : -2; }, 1000, 0, 0},
            {"closed descriptor", [](int r, int) { return close(r) == 0 ? r : -2; }, 1000, -1,
             EINVAL},
            {"negative descriptor", [](int, int) { return -1; }, 1000, -1, EINVAL},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        int fd = c.prepare(fds[0], fds[1]);
        ASSERT_NE(fd, -2);
        errno = 0;
        EXPECT_EQ(sync_wait(fd, c.timeout), c.ret);
        if (c.ret != 0) {
            EXPECT_EQ(errno, c.error);
        }
        // Whichever end the case closed already fails here harmlessly.
        close(fds[0]);
        close(fds[1]);
    }
}

// ---- CallStack ----------------------------------------------------------------------------------

void* gProbeReturnAddress = nullptr;

__attribute__((noinline)) void VxPortCallStackInner(android::CallStack* stack, int32_t ignoreDepth) {
    gProbeReturnAddress = __builtin_return_address(0);
    stack->update(ignoreDepth);
    // Keeps the call above from becoming a tail call, which would drop this frame.
    asm volatile("" ::: "memory");
}

// Frame #00 when ignoreDepth is 1; the return address into it is known, so its pc can be checked.
__attribute__((noinline)) void VxPortCallStackProbe(android::CallStack* stack, int32_t ignoreDepth) {
    VxPortCallStackInner(stack, ignoreDepth + 1);
    asm volatile("" ::: "memory");
}

#if defined(__aarch64__)
constexpr uint64_t kCallAdjustment = 4;
#else
constexpr uint64_t kCallAdjustment = 1;
#endif

// The lines of the stack taken `ignoreDepth` frames above the probe's inner call.
__attribute__((noinline)) std::vector<std::string> Frames(android::CallStack* stack,
                                                          int32_t ignoreDepth,
                                                          const char* prefix = "") {
    VxPortCallStackProbe(stack, ignoreDepth);
    return SplitLines(stack->toString(prefix).c_str());
}

TEST(PortHostCallStackTest, FramesUseTheDeviceLayoutFromTheDepthAsked) {
    android::CallStack stack;
    const std::vector<std::string> lines = Frames(&stack, 1);
    ASSERT_GE(lines.size(), 2u);
    ASSERT_EQ(lines.size(), stack.size());
    for (size_t i = 0; i < lines.size(); ++i) {
        ASSERT_THAT(lines[i], testing::MatchesRegex("#[0-9]{2} pc [0-9a-f]{16}  [^ ]+"
                                                    "( \\(.+\\+[0-9]+\\))?"));
        EXPECT_EQ(std::stoul(lines[i].substr(1, 2)), i) << lines[i];
    }
    // "#00 pc <16 hex>  <path> (<symbol>+<offset>)"
    const std::string& top = lines[0];
    const size_t pathEnd = top.find(' ', 25), plus = top.rfind('+');
    char self[4096] = {};
    ASSERT_GT(readlink("/proc/self/exe", self, sizeof(self) - 1), 0);
    EXPECT_EQ(top.substr(25, pathEnd - 25), self);
    EXPECT_EQ(top.substr(pathEnd + 2, plus - pathEnd - 2),
              "(anonymous namespace)::VxPortCallStackProbe(android::CallStack*, int)");
    EXPECT_THAT(lines[1], testing::HasSubstr("::Frames(android::CallStack*, int, char const*)+"));

    // The pc is file-relative and steps back from the return address into the call, and the
    // offset is measured from the function's start to that pc.
    Dl_info info = {};
    void* probe = reinterpret_cast<void*>(&VxPortCallStackProbe);
    ASSERT_NE(dladdr(probe, &info), 0);
    const uintptr_t base = reinterpret_cast<uintptr_t>(info.dli_fbase);
    const uint64_t pc = std::stoull(top.substr(7, 16), nullptr, 16);
    EXPECT_EQ(pc, reinterpret_cast<uintptr_t>(gProbeReturnAddress) - base - kCallAdjustment);
    EXPECT_EQ(pc, reinterpret_cast<uintptr_t>(probe) - base + std::stoull(top.substr(plus + 1)));

    // Depth -1 keeps update's own frame, 2 leaves the probe out too.
    EXPECT_THAT(Frames(&stack, -1).at(0),
                testing::HasSubstr("(android::CallStack::update(int, int)+"));
    EXPECT_THAT(Frames(&stack, -1).at(1), testing::HasSubstr("VxPortCallStackInner"));
    EXPECT_THAT(Frames(&stack, 2).at(0), testing::HasSubstr("::Frames("));
    EXPECT_EQ(Frames(&stack, 1, "  >").at(0), "  >" + top);
    stack.update(1, gettid() + 100000);  // no such thread
    EXPECT_EQ(stack.size(), 0u);
    EXPECT_EQ(std::string(stack.toString("x").c_str()), "");
}

// ---- Paths -----------------------------------------------------------------------------

TEST(PortHostPathTest, DevicePathsResolveUnderTheSysroot) {
    ScopedEnv sysroot("VXCAM_SYSROOT", nullptr);
    struct Case {
        const char* sysroot;  // nullptr: unset
        const char* path;
        const char* expected;
    };
    const Case cases[] = {
            {"/x/", "/vendor/a", "/x/vendor/a"},
            {"/x", "/vendor/a", "/x/vendor/a"},
            {"/x//", "/vendor/a", "/x/vendor/a"},
            {"/", "/vendor/a", "/vendor/a"},
            {"/x", "vendor/a", "vendor/a"},
            {"", "/vendor/a", "/vendor/a"},
            {nullptr, "/vendor/a", "/vendor/a"},
            {"/x", "", ""},
            {"/x", nullptr, ""},
    };
    for (const Case& c : cases) {
        sysroot.Set(c.sysroot);
        EXPECT_EQ(VxCamPort::ResolveDevicePath(c.path), c.expected)
                << (c.sysroot ? c.sysroot : "(unset)") << " + " << (c.path ? c.path : "(null)");
    }
}

}  // namespace
