// Tests of the host port: the Android interfaces the library calls, as a Linux host provides them.
// The properties come from tests/data/port-sysroot/vendor/build.prop (ctest sets VXCAM_SYSROOT).

#include <dlfcn.h>
#include <errno.h>
#include <time.h>

#include <optional>
#include <set>
#include <thread>

#include <gmock/gmock.h>

#include "TestSupport.h"

#include <VxCamPortPath.h>
#include <cutils/properties.h>
#include <cutils/trace.h>
#include <utils/CallStack.h>
#include <vxf/VxFeature.h>

namespace {

// A developer's own ANDROID_LOG_TAGS would drop the lines these tests look for; it is read once.
const bool kLogTagsCleared = (unsetenv("ANDROID_LOG_TAGS"), true);

// Sends fd 2 to a temporary file until Finish(), which returns what was written.
struct StderrCapture {
    FILE* file = (fflush(stderr), tmpfile());
    int saved = dup(STDERR_FILENO);
    StderrCapture() { dup2(fileno(file), STDERR_FILENO); }
    std::string Finish() {
        dup2(saved, STDERR_FILENO);
        close(saved);
        const std::string text =
                vxcamtest::ReadFile("/proc/self/fd/" + std::to_string(fileno(file)));
        fclose(file);
        return text;
    }
};

// Sets (nullptr: removes) an environment variable until the end of the scope.
struct ScopedEnv {
    const char* name;
    std::optional<std::string> old;
    ScopedEnv(const char* variable, const char* value) : name(variable) {
        if (const char* was = getenv(variable)) old = was;
        Set(value);
    }
    ~ScopedEnv() { Set(old ? old->c_str() : nullptr); }
    void Set(const char* value) {
        value != nullptr ? setenv(name, value, 1) : unsetenv(name);
        tzset();
    }
};

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// "MM-DD HH:MM:SS.mmm " of a CLOCK_REALTIME instant, in local time.
std::string TimestampOf(const timespec& ts) {
    tm local = {};
    localtime_r(&ts.tv_sec, &local);
    char text[32];
    snprintf(text, sizeof(text), "%02d-%02d %02d:%02d:%02d.%03d ", local.tm_mon + 1, local.tm_mday,
             local.tm_hour, local.tm_min, local.tm_sec, static_cast<int>(ts.tv_nsec / 1000000));
    return text;
}

TEST(PortHostLogTest, StderrLinesAreThreadtimeInLocalTime) {
    const ScopedEnv zone("TZ", "VXT-9");  // far from UTC: a logger printing UTC fails
    // clang-format off
    const struct { int priority; const char *tag, *message, *lines; } writes[] = {
        {ANDROID_LOG_VERBOSE, "Vx", "v", "V Vx      : v\n"}, {9, "Vx", "p", "? Vx      : p\n"},
        {ANDROID_LOG_FATAL, nullptr, "no tag", "F         : no tag\n"},
        {ANDROID_LOG_INFO, "longer-than-8", "g", "I longer-than-8: g\n"},
        {ANDROID_LOG_INFO, "T", nullptr, "I T       : \n"},
        {ANDROID_LOG_INFO, "T", "a\n\nb\n\n", "I T       : a\nI T       : \nI T       : b\n"}};
    // clang-format on
    const std::string longArg(1500, 'x');
    // Formatted messages are cut to liblog's 1023 characters.
    std::string expected = "W         : 42 " + longArg.substr(0, 1020) + "\n", got;
    timespec before = {}, after = {};
    StderrCapture capture;
    clock_gettime(CLOCK_REALTIME, &before);
    EXPECT_EQ(__android_log_print(ANDROID_LOG_WARN, nullptr, "%d %s", 42, longArg.c_str()), 1);
    for (const auto& w : writes) {
        EXPECT_EQ(__android_log_write(w.priority, w.tag, w.message), 1);
        expected += w.lines;
    }
    clock_gettime(CLOCK_REALTIME, &after);
    const std::string text = capture.Finish();
    EXPECT_EQ(text.back(), '\n');
    char ids[32];
    snprintf(ids, sizeof(ids), "%5d %5d ", static_cast<int>(getpid()), static_cast<int>(gettid()));
    const size_t idsEnd = 19 + strlen(ids);
    for (const std::string& line : SplitLines(text)) {
        const std::string stamp = line.substr(0, 19);
        EXPECT_THAT(stamp, testing::MatchesRegex("[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}"
                                                 "\\.[0-9]{3} "));
        EXPECT_LE(TimestampOf(before), stamp);  // the same year assumed
        EXPECT_GE(TimestampOf(after), stamp);
        EXPECT_EQ(line.substr(19, idsEnd - 19), ids);
        got += line.substr(idsEnd) + "\n";
    }
    EXPECT_EQ(got, expected);
}

TEST(PortHostLogTest, ConcurrentMessagesAreNeitherLostNorTorn) {
    StderrCapture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int m = 0; m < 500; ++m) {
                __android_log_print(ANDROID_LOG_INFO, "VxStress", "%d.%d first\n%d.%d second", t, m,
                                    t, m);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    const std::vector<std::string> lines = SplitLines(capture.Finish());
    ASSERT_EQ(lines.size(), 4000u);
    const auto text = [&](size_t i) { return lines[i].substr(lines[i].find("VxStress: ") + 10); };
    std::set<std::string> seen;
    // Both lines of one call come from one write, so they stay adjacent.
    for (size_t i = 0; i < lines.size(); i += 2) {
        const std::string first = text(i);
        ASSERT_THAT(first, testing::EndsWith(" first"));
        EXPECT_EQ(text(i + 1), first.substr(0, first.size() - 5) + "second");
        EXPECT_TRUE(seen.insert(first).second) << "twice: " << first;
    }
}

// The filter is read once per process, so each case runs in a freshly started copy of this test.
TEST(PortHostLogTest, AndroidLogTagsFilterTheStderrLogger) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // clang-format off
    const struct { const char *tags, *tag; int priority; bool printed; } cases[] = {
        {"*:w", "A", ANDROID_LOG_WARN, true}, {"*:w", "A", ANDROID_LOG_INFO, false},
        {" VxCam:d \t *:s", "VxCam", ANDROID_LOG_DEBUG, true},
        {"VxCam:d *:s", "VxCamX", ANDROID_LOG_FATAL, false}};
    // clang-format on
    ScopedEnv tags("ANDROID_LOG_TAGS", nullptr);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.tags);
        tags.Set(c.tags);
        // Exit code 0: returned 1 from both calls; 1: -EPERM from both; 2: anything else.
        auto run = [&] {
            int write = __android_log_write(c.priority, c.tag, "filter-probe");
            int print = __android_log_print(c.priority, c.tag, "%s", "filter-probe");
            _exit(write == 1 && print == 1 ? 0 : write == -EPERM && print == -EPERM ? 1 : 2);
        };
        EXPECT_EXIT(run(), testing::ExitedWithCode(c.printed ? 0 : 1),
                    c.printed ? ": filter-probe\n" : "^$");
    }
}

std::string Get(const char* key, const char* defaultValue) {
    char value[PROPERTY_VALUE_MAX];
    memset(value, '@', sizeof(value));
    const int length = property_get(key, value, defaultValue);
    EXPECT_EQ(length, static_cast<int>(strlen(value))) << key;
    return value;
}

// The build.prop lines as each getter reads them (default "<d>" for the ones that set nothing).
TEST(PortHostPropertiesTest, BuildPropOfTheSysrootAsEachGetterReadsIt) {
    const std::map<std::string, std::string> texts = {
            {"vendor.test.plain", "hello"},   {"vendor.test.spaced", "two words"},
            {"vendor.test.dup", "second"},    {"vendor.test.len91", std::string(90, 'a') + "Z"},
            {"vendor.test.len92", "<d>"},     {"vendor.test.empty", "<d>"},
            {"#vendor.test.commented", "<d>"}};
    std::map<std::string, std::string> listed;
    property_list([](const char* key, const char* value,
                     void* cookie) { (*static_cast<decltype(listed)*>(cookie))[key] = value; },
                  &listed);
    for (const auto& [key, text] : texts) {
        EXPECT_EQ(Get(key.c_str(), "<d>"), text) << key;
        EXPECT_EQ(listed[key], text == "<d>" ? "" : text) << key;
        EXPECT_EQ(property_get_bool(key.c_str(), 7), 7) << key;
        EXPECT_EQ(property_get_int64(key.c_str(), -99), -99) << key;
    }
    EXPECT_EQ(property_list(nullptr, &listed), -1);
    // "vendor.test.<name>" by each getter; integers as strtoimax reads them with base 0.
    // clang-format off
    const struct { const char* name; int flag; int64_t as64; int32_t as32; } words[] = {
        {"bool.1", 1, 1, 1}, {"bool.on", 1, -99, -77}, {"bool.0", 0, 0, 0},
        {"bool.off", 0, -99, -77}, {"bool.TRUE", -1, -99, -77}, {"int.hex", -1, 31, 31},
        {"int.octal", -1, 8, 8}, {"int.garbage", -1, 12, 12}, {"int.over64", -1, -99, -77},
        {"int.min32", -1, INT32_MIN, INT32_MIN}, {"int.over32", -1, 2147483648LL, -77}};
    // clang-format on
    for (const auto& c : words) {
        const std::string key = std::string("vendor.test.") + c.name;
        errno = 1234;
        EXPECT_EQ(property_get_bool(key.c_str(), -1), c.flag) << key;
        EXPECT_EQ(property_get_int64(key.c_str(), -99), c.as64) << key;
        EXPECT_EQ(property_get_int32(key.c_str(), -77), c.as32) << key;
        EXPECT_EQ(errno, 1234) << key;
    }
    // Defaults are cut like values; null arguments answer instead of faulting.
    EXPECT_EQ(Get("vendor.test.absent", std::string(120, 'd').c_str()), std::string(91, 'd'));
    EXPECT_EQ(Get("vendor.test.absent", nullptr), "");
    char keep[PROPERTY_VALUE_MAX] = "keep";
    EXPECT_EQ(property_get("vendor.test.dup", nullptr, "") + property_get(nullptr, keep, ""), 0);
    EXPECT_STREQ(keep, "keep");
    EXPECT_EQ(property_get_bool(nullptr, 1) + property_get_int64(nullptr, 5), 6);
    // The maker's feature switches are properties on a host.
    ASSERT_EQ(property_set("vendor.vxf.feature.86", "5"), 0);
    EXPECT_EQ(GetVxFeature(86), 5);
}

// property_set as tests use it, and the trace tags it switches.
TEST(PortHostPropertiesTest, SetRulesAndTheTraceTags) {
    // Read-only keys can be written once per process; fresh names keep --gtest_repeat working.
    static int run = 0;
    const std::string fresh = "ro.vendor.set.fresh" + std::to_string(run++), v91(91, 'v');
    EXPECT_EQ(property_set("vendor.set.a", v91.c_str()), 0);
    EXPECT_EQ(property_set("vendor.set.a", (v91 + "v").c_str()), -1);
    EXPECT_EQ(Get("vendor.set.a", "<d>"), v91);
    EXPECT_EQ(property_set("vendor.set.a", nullptr), 0);
    EXPECT_EQ(Get("vendor.set.a", "<d>"), "<d>");
    EXPECT_EQ(property_set(nullptr, "x"), -1);
    EXPECT_EQ(property_set("ro.vendor.test.locked", "other"), -1);
    EXPECT_EQ(property_set(fresh.c_str(), "first"), 0);
    EXPECT_EQ(property_set(fresh.c_str(), "again"), -1);
    EXPECT_EQ(Get(fresh.c_str(), "<d>") + Get("ro.vendor.test.locked", "<d>"), "firstfixed");

    EXPECT_EQ(atrace_get_enabled_tags(), uint64_t{ATRACE_TAG_ALWAYS});
    ASSERT_EQ(property_set("debug.atrace.tags.enableflags", "0x400 "), 0);
    EXPECT_EQ(atrace_get_enabled_tags(), uint64_t{0x400 | ATRACE_TAG_ALWAYS});
    property_set("debug.atrace.tags.enableflags", "");
}

void* gProbeReturnAddress = nullptr;

__attribute__((noinline)) void VxPortCallStackInner(android::CallStack* stack, int32_t ignoreDepth) {
    gProbeReturnAddress = __builtin_return_address(0);
    stack->update(ignoreDepth);
    asm volatile("" ::: "memory");  // no tail call, which would drop this frame
}

// Frame #00 when ignoreDepth is 1; the return address into it is known, so its pc can be checked.
__attribute__((noinline)) void VxPortCallStackProbe(android::CallStack* stack, int32_t ignoreDepth) {
    VxPortCallStackInner(stack, ignoreDepth + 1);
    asm volatile("" ::: "memory");
}

// The lines of the stack taken `ignoreDepth` frames above the probe's inner call.
__attribute__((noinline)) std::vector<std::string> Frames(android::CallStack* stack,
                                                          int32_t ignoreDepth,
                                                          const char* prefix = "") {
    VxPortCallStackProbe(stack, ignoreDepth);
    return SplitLines(stack->toString(prefix).c_str());
}

// "#00 pc <16 hex>  <path> (<symbol>+<offset>)", as the crash catcher copies it.
TEST(PortHostCallStackTest, FramesUseTheDeviceLayoutFromTheDepthAsked) {
    android::CallStack stack;
    const std::vector<std::string> lines = Frames(&stack, 1);
    ASSERT_GE(lines.size(), 2u);
    for (size_t i = 0; i < lines.size(); ++i) {
        ASSERT_THAT(lines[i], testing::MatchesRegex("#[0-9]{2} pc [0-9a-f]{16}  [^ ]+"
                                                    "( \\(.+\\+[0-9]+\\))?"));
        EXPECT_EQ(std::stoul(lines[i].substr(1, 2)), i) << lines[i];
    }
    const std::string& top = lines[0];
    const size_t pathEnd = top.find(' ', 25), plus = top.rfind('+');
    EXPECT_EQ(top.substr(25, pathEnd - 25), std::filesystem::read_symlink("/proc/self/exe"));
    EXPECT_EQ(top.substr(pathEnd + 2, plus - pathEnd - 2),
              "(anonymous namespace)::VxPortCallStackProbe(android::CallStack*, int)");
    EXPECT_THAT(lines[1], testing::HasSubstr("::Frames(android::CallStack*, int, char const*)+"));

    // The pc is file-relative, stepped back into the call; the offset is from the symbol's start.
    Dl_info info = {};
    void* probe = reinterpret_cast<void*>(&VxPortCallStackProbe);
    ASSERT_NE(dladdr(probe, &info), 0);
    const uintptr_t base = reinterpret_cast<uintptr_t>(info.dli_fbase);
    const uint64_t pc = std::stoull(top.substr(7, 16), nullptr, 16);
    EXPECT_LT(pc, reinterpret_cast<uintptr_t>(gProbeReturnAddress) - base);
    EXPECT_GE(pc, reinterpret_cast<uintptr_t>(gProbeReturnAddress) - base - 4);
    EXPECT_EQ(pc, reinterpret_cast<uintptr_t>(probe) - base + std::stoull(top.substr(plus + 1)));

    // Depth -1 keeps update's own frame.
    EXPECT_THAT(Frames(&stack, -1).at(0),
                testing::HasSubstr("(android::CallStack::update(int, int)+"));
    EXPECT_EQ(Frames(&stack, 1, "  >").at(0), "  >" + top);
}

TEST(PortHostPathTest, DevicePathsResolveUnderTheSysroot) {
    ScopedEnv sysroot("VXCAM_SYSROOT", nullptr);
    // clang-format off
    const struct { const char *sysroot, *path, *expected; } cases[] = {  // sysroot nullptr: unset
        {"/x//", "/vendor/a", "/x/vendor/a"}, {"/x", "/vendor/a", "/x/vendor/a"},
        {"/", "/vendor/a", "/vendor/a"}, {"/x", "vendor/a", "vendor/a"},
        {"", "/vendor/a", "/vendor/a"}, {nullptr, "/vendor/a", "/vendor/a"}, {"/x", nullptr, ""}};
    // clang-format on
    for (const auto& c : cases) {
        sysroot.Set(c.sysroot);
        EXPECT_EQ(VxCamPort::ResolveDevicePath(c.path), c.expected)
                << (c.sysroot ? c.sysroot : "(unset)") << " + " << (c.path ? c.path : "(null)");
    }
}

}  // namespace
