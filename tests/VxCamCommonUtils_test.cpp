// OS services core: the functions with logic of their own, and the null and failure results that
// hosts rely on.
#include "VxCamCommonUtils.h"

#include <cutils/properties.h>
#include <errno.h>
#include <time.h>

#include <set>
#include <thread>

#include "TestSupport.h"

namespace {

using VxCam::OsUtils;

TEST(OsUtilsNames, FileNamesAndTheirTokens) {
    EXPECT_STREQ(OsUtils::GetFileName("a/b/c"), "c");
    EXPECT_STREQ(OsUtils::GetFileName("dir/"), "");
    EXPECT_EQ(OsUtils::GetFileName(nullptr), nullptr);
    // clang-format off
    const struct { const char* name; unsigned index; size_t size; int found; const char* token; }
    cases[] = {
        {"a.b.c", 1, 32, 1, "a"}, {"a.b.c", 3, 32, 1, "c"}, {"a.b.c", 4, 32, 0, "unchanged"},
        {"..a...b..", 2, 32, 1, "b"},   // runs of dots are one separator
        {"abcdef.g", 1, 4, 1, "abc"}};  // cut to the caller's token size
    // clang-format on
    char token[32];
    for (const auto& c : cases) {
        std::string name = c.name;
        strcpy(token, "unchanged");
        EXPECT_EQ(OsUtils::GetFileNameToken(name.data(), c.index, token, c.size), c.found)
                << c.name << " " << c.index;
        EXPECT_STREQ(token, c.token) << c.name << " " << c.index;
        EXPECT_EQ(name, c.name);  // the caller's name is not cut up
    }
    EXPECT_EQ(OsUtils::GetFileNameToken(nullptr, 1, token, sizeof(token)), 0);
}

std::set<std::string> FilesFrom(const std::string& folder, const char* t1, const char* t2,
                                const char* t3, const char* t4, const char* last,
                                unsigned long entrySize = 256) {
    std::vector<char> entries(entrySize * 16, '\0');
    const unsigned count = OsUtils::GetFilesFromPath(folder.c_str(), entrySize, entries.data(), t1,
                                                     t2, t3, t4, last);
    std::set<std::string> found;
    for (unsigned i = 0; i < count; ++i) found.insert(entries.data() + i * entrySize);
    EXPECT_EQ(found.size(), count);
    return found;
}

TEST(OsUtilsNames, GetFilesFromPathMatchesFiveOrSixTokensAfterCom) {
    vxcamtest::TempDir folder;
    for (const char* name : {"com.a.b.c.d", "com.a.b.c.d.e", "com.a.b.c", "x.a.b.c.d",
                             "com.a.b.c.d.e.f", "com.q.b.c.d", "Com.a.b.c.d"}) {
        folder.Write(name, "");
    }
    const std::string d = folder.Path() + "/";
    using Set = std::set<std::string>;
    EXPECT_EQ(FilesFrom(folder.Path(), "*", "*", "*", "*", "*"),
              (Set{d + "com.a.b.c.d", d + "com.a.b.c.d.e", d + "com.q.b.c.d"}));
    EXPECT_EQ(FilesFrom(folder.Path(), "a", "b", "c", "d", "e"), (Set{d + "com.a.b.c.d.e"}));
    // With five tokens the fourth filter and the last filter both look at the fifth token.
    EXPECT_EQ(FilesFrom(folder.Path(), "*", "b", "c", "*", "d"),
              (Set{d + "com.a.b.c.d", d + "com.q.b.c.d"}));
    // A slot too small for the path gets the path cut, the name still matches.
    EXPECT_EQ(FilesFrom(folder.Path(), "q", "*", "*", "*", "*", d.size() + 5),
              Set{(d + "com.q.b.c.d").substr(0, d.size() + 4)});
}

// Local time is that of the zone in force at the call, even one changed while the process runs.
TEST(OsUtilsTime, DateTimeFollowsTheZoneAndKeepsTheSignedRemainder) {
    VxCam::VxCamDateTime east = {}, west = {}, now = {}, r = {};
    setenv("TZ", "VXT-5", 1);
    OsUtils::GetDateTime(&east, 1500);
    setenv("TZ", "VXT+3:30", 1);
    OsUtils::GetDateTime(&west, -1500);
    OsUtils::GetDateTime(&now);
    EXPECT_EQ(
            std::vector<long>({east.seconds, east.fraction, east.hour, east.gmtOffset, west.seconds,
                               west.fraction, west.hour, west.gmtOffset, now.gmtOffset}),
            std::vector<long>({1, 500, 5, 18000, -1, -500, 20, -12600, -12600}));
    EXPECT_GT(now.seconds, 1700000000);
    // Each calendar field in its own slot: 2023-11-14 22:13:20 UTC, a Tuesday, day 317 of the year.
    setenv("TZ", "UTC0", 1);
    OsUtils::GetDateTime(&r, 1700000000123);
    EXPECT_EQ(std::vector<long>({r.seconds, r.fraction, r.second, r.minute, r.hour, r.dayOfMonth,
                                 r.month, r.year, r.weekday, r.dayOfYear, r.isDaylightSaving}),
              std::vector<long>({1700000000, 123, 20, 13, 22, 14, 10, 123, 2, 317, 0}));
    unsetenv("TZ");
}

// Rows of a call's result and what it must be, evaluated in order.
struct Row {
    template <typename T>
    Row(const char* call, T got, long long expected)
        : call(call), got(static_cast<long long>(got)), expected(expected) {}
    const char* call;
    long long got, expected;
};

// The wrappers pass arguments and results through, and answer for nulls instead of faulting.
TEST(OsUtilsWrappers, PassArgumentsAndResultsThrough) {
    vxcamtest::TempDir folder;
    const std::string path = folder.Write("f.bin", "abc-42xyz");
    const char* kKey = "vendor.test.osutils";
    ASSERT_EQ(property_set(kKey, "0x10"), 0);
    FILE* file = OsUtils::FOpen(path.c_str(), "r+");
    ASSERT_NE(file, nullptr);
    char text[16] = {}, small[4], copy[4], joined[8] = "ab", error[128];
    char untouched[PROPERTY_VALUE_MAX] = "untouched", value[PROPERTY_VALUE_MAX];
    struct stat64 info;
    VxCam::VxCamTime boot = {};
    tm utc = {};
    const long day = 86400;
    int fds[2], calls = 0;
    ASSERT_EQ(pipe(fds), 0);
    const auto count = [](const char*, const char*, void* cookie) { ++*static_cast<int*>(cookie); };
    OsUtils::GetPropertyList(count, nullptr);  // no cookie: not called, as count would fault
    OsUtils::GetPropertyList(nullptr, &calls);
    // clang-format off
    const Row rows[] = {
        {"FSeek", OsUtils::FSeek(file, 4, SEEK_SET), 0},
        {"FRead", OsUtils::FRead(text, 1, 1, 5, file), 5},  // the buffer size is not a limit
        {"FTell", OsUtils::FTell(file), 9}, {"FWrite", OsUtils::FWrite("!", 1, 1, file), 1},
        {"FFlush(null)", OsUtils::FFlush(nullptr), 0},  // every stream, this one included
        {"GetFileSize", OsUtils::GetFileSize(path.c_str()), 10},
        {"FClose", OsUtils::FClose(file), 0}, {"Stat", OsUtils::Stat(path.c_str(), &info), 0},
        {"FDelete", OsUtils::FDelete(path.c_str()), 0},
        {"GetFileSize(missing)", OsUtils::GetFileSize(path.c_str()), 0},
        {"Stat(missing)", OsUtils::Stat(path.c_str(), &info), 1}, {"errno", errno, ENOENT},
        {"FDelete(missing)", OsUtils::FDelete(path.c_str()), 1},
        {"FClose(null)", OsUtils::FClose(nullptr), 1}, {"FTell(null)", OsUtils::FTell(nullptr), -1},
        {"FSeek(null)", OsUtils::FSeek(nullptr, 0, SEEK_SET), 1},
        {"FWrite(null)", OsUtils::FWrite("x", 1, 1, nullptr), 0},
        {"FRead(null)", OsUtils::FRead(text + 8, 1, 1, 1, nullptr), 0},
        {"FOpen(null)", OsUtils::FOpen(nullptr, "r") != nullptr, 0},
        {"Close", OsUtils::Close(fds[0]), 0}, {"Close(closed)", OsUtils::Close(fds[0]), 1},
        {"SNPrintF", OsUtils::SNPrintF(small, sizeof(small), "%s", "hello"), 5},  // uncut length
        {"StrLCpy", OsUtils::StrLCpy(copy, "hello", sizeof(copy)), 5},
        {"StrLCat", OsUtils::StrLCat(joined, "cdefgh", sizeof(joined)), 8},
        {"StrError", strcmp(OsUtils::StrError(error, sizeof(error), ENOENT), strerror(ENOENT)), 0},
        {"GetProcessID", OsUtils::GetProcessID(), getpid()},
        {"GetPid", OsUtils::GetPid(), getpid()},
        {"GetTime", OsUtils::GetTime(&boot), 0}, {"GetTime(null)", OsUtils::GetTime(nullptr), -1},
        {"GetGMTime", OsUtils::GetGMTime(&day, &utc), 0}, {"tm_mday", utc.tm_mday, 2},
        {"GetPropertyString(null)", OsUtils::GetPropertyString(kKey, untouched, nullptr), 0},
        {"GetPropertyString", OsUtils::GetPropertyString("vendor.test.missing", value, "dflt"), 4},
        {"INT32", OsUtils::GetPropertyINT32(kKey, 7), 16},
        {"INT64", OsUtils::GetPropertyINT64(kKey, 7), 16},
        {"INT64(missing)", OsUtils::GetPropertyINT64("vendor.test.missing", 7), 7},
        {"Bool(missing)", OsUtils::GetPropertyBool("vendor.test.missing", 1), 1},
        {"INT32(null)", OsUtils::GetPropertyINT32(nullptr, 7), 0},
        {"INT64(null)", OsUtils::GetPropertyINT64(nullptr, 7), 0},
        {"Bool(null)", OsUtils::GetPropertyBool(nullptr, 1), 0},
        {"GetPropertyList", (OsUtils::GetPropertyList(count, &calls), calls > 0), 1}};
    // clang-format on
    for (const Row& row : rows) EXPECT_EQ(row.got, row.expected) << row.call;
    EXPECT_EQ(std::string(text) + "|" + small + "|" + copy + joined + "|" + untouched + "|" + value,
              "42xyz|hel|helabcdefg|untouched|dflt");
    EXPECT_LT(boot.nanoSeconds, 1000000000);
    std::thread([] { EXPECT_EQ(OsUtils::GetThreadID(), gettid()); }).join();
    close(fds[1]);
}

}  // namespace
