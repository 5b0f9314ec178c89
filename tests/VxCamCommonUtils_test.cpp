// OS services core: the functions with logic of their own, and the null and failure results that
// hosts rely on.
#include "VxCamCommonUtils.h"

#include <cutils/properties.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "TestSupport.h"

namespace {

using VxCam::OsUtils;
using vxcamtest::TempDir;

TEST(OsUtilsNames, GetFileName) {
    EXPECT_STREQ(OsUtils::GetFileName("a/b/c"), "c");
    EXPECT_STREQ(OsUtils::GetFileName("abc"), "abc");
    EXPECT_STREQ(OsUtils::GetFileName("dir/"), "");
    EXPECT_EQ(OsUtils::GetFileName(nullptr), nullptr);
}

TEST(OsUtilsNames, GetFileNameToken) {
    struct Case {
        const char* name;
        unsigned index;
        size_t size;
        int found;
        const char* token;
    };
    const Case cases[] = {
            {"a.b.c", 1, 32, 1, "a"},
            {"a.b.c", 3, 32, 1, "c"},
            {"a.b.c", 4, 32, 0, "unchanged"},
            {"a.b.c", 0, 32, 0, "unchanged"},  // counts down from the largest unsigned value
            {"..a...b..", 2, 32, 1, "b"},      // runs of dots are one separator
            {"...", 1, 32, 0, "unchanged"},
            {"abcdef.g", 1, 4, 1, "abc"},  // cut to the caller's token size
    };
    for (const Case& c : cases) {
        std::string name = c.name;
        char token[32] = "unchanged";
        EXPECT_EQ(OsUtils::GetFileNameToken(name.data(), c.index, token, c.size), c.found)
                << c.name << " " << c.index;
        EXPECT_STREQ(token, c.token) << c.name << " " << c.index;
        EXPECT_EQ(name, c.name);  // the caller's name is not cut up
    }
    // Names are read through a 4096-byte buffer: the 4096th character and beyond are dropped.
    std::string longName(5000, 'a');
    std::vector<char> token(6000, '\0');
    EXPECT_EQ(OsUtils::GetFileNameToken(longName.data(), 1, token.data(), token.size()), 1);
    EXPECT_EQ(strlen(token.data()), 4095u);
    EXPECT_EQ(OsUtils::GetFileNameToken(nullptr, 1, token.data(), token.size()), 0);
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
    TempDir folder;
    for (const char* name :
         {"com.a.b.c.d", "com.a.b.c.d.e", "com.a.b.c", "x.a.b.c.d", "com.a.b.c.d.e.f",
          "com.q.b.c.d", "com.a.b.c.e", "Com.a.b.c.d", "com.a.b.c.d.d"}) {
        folder.Write(name, "");
    }
    const std::string d = folder.Path();
    using Set = std::set<std::string>;
    EXPECT_EQ(FilesFrom(d, "*", "*", "*", "*", "*"),
              (Set{d + "/com.a.b.c.d", d + "/com.a.b.c.d.e", d + "/com.q.b.c.d", d + "/com.a.b.c.e",
                   d + "/com.a.b.c.d.d"}));
    // With five tokens the fourth filter and the last filter both look at the fifth token.
    EXPECT_EQ(FilesFrom(d, "a", "b", "c", "d", "d"),
              (Set{d + "/com.a.b.c.d", d + "/com.a.b.c.d.d"}));
    EXPECT_EQ(FilesFrom(d, "a", "b", "c", "d", "e"), (Set{d + "/com.a.b.c.d.e"}));
    EXPECT_EQ(FilesFrom(d, "*", "b", "c", "*", "d"),
              (Set{d + "/com.a.b.c.d", d + "/com.q.b.c.d", d + "/com.a.b.c.d.d"}));
    EXPECT_EQ(FilesFrom(d, "A", "*", "*", "*", "*"), Set{});  // case-sensitive
    EXPECT_EQ(FilesFrom(d + "/missing", "*", "*", "*", "*", "*"), Set{});

    // A slot too small for the path gets the path cut, the name still matches.
    const unsigned long slot = d.size() + 6;
    const Set cut = FilesFrom(d, "q", "*", "*", "*", "*", slot);
    ASSERT_EQ(cut.size(), 1u);
    EXPECT_EQ(*cut.begin(), (d + "/com.q.b.c.d").substr(0, slot - 1));
}

// Local time is that of the zone in force at the call: a zone changed while the process runs
// applies at once.
TEST(OsUtilsTime, DateTimeFollowsTheZoneAndKeepsTheSignedRemainder) {
    const char* savedZone = getenv("TZ");
    const std::string saved = savedZone != nullptr ? savedZone : "";
    const bool hadZone = savedZone != nullptr;
    struct Case {
        const char* tz;
        long milliseconds;
        int64_t seconds, fraction;
        int hour;
        int64_t offset;
    };
    const Case cases[] = {
            {"UTC0", 1700000000123, 1700000000, 123, 22, 0},
            {"VXT-5", 1500, 1, 500, 5, 18000},
            {"VXT+3:30", -1500, -1, -500, 20, -12600},
            {"UTC0", 999, 0, 999, 0, 0},
    };
    for (const Case& c : cases) {
        setenv("TZ", c.tz, 1);
        VxCam::VxCamDateTime now = {}, record = {};
        OsUtils::GetDateTime(&now);
        EXPECT_EQ(now.gmtOffset, c.offset) << c.tz;
        OsUtils::GetDateTime(&record, c.milliseconds);
        EXPECT_EQ(std::make_tuple(record.seconds, record.fraction, record.hour, record.gmtOffset),
                  std::make_tuple(c.seconds, c.fraction, c.hour, c.offset))
                << c.tz << " " << c.milliseconds;
    }
    // Each calendar field in its own slot: 2023-11-14 22:13:20 UTC, a Tuesday, day 317 of the year.
    setenv("TZ", "UTC0", 1);
    VxCam::VxCamDateTime r = {};
    OsUtils::GetDateTime(&r, 1700000000123);
    EXPECT_EQ(std::vector<int>({r.second, r.minute, r.hour, r.dayOfMonth, r.month, r.year,
                                r.weekday, r.dayOfYear, r.isDaylightSaving}),
              std::vector<int>({20, 13, 22, 14, 10, 123, 2, 317, 0}));
    hadZone ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ");
    tzset();
}

TEST(OsUtilsTime, WallClockAndBootClock) {
    VxCam::VxCamDateTime now = {};
    OsUtils::GetDateTime(&now);
    EXPECT_GT(now.seconds, 1700000000);
    EXPECT_GE(now.fraction, 0);
    EXPECT_LT(now.fraction, 1000000);  // microseconds in this variant
    VxCam::VxCamTime boot = {};
    EXPECT_EQ(OsUtils::GetTime(&boot), 0);
    EXPECT_GT(boot.seconds + boot.nanoSeconds, 0);
    EXPECT_LT(boot.nanoSeconds, 1000000000);
    EXPECT_EQ(OsUtils::GetTime(nullptr), -1);
    tm utc = {};
    const long epoch = 86400;
    EXPECT_EQ(OsUtils::GetGMTime(&epoch, &utc), 0);
    EXPECT_EQ(utc.tm_mday, 2);
}

// SNPrintF's result is the untruncated length; the other wrappers hand on the caller's size,
// error number and thread.
TEST(OsUtilsStrings, FormattingCopiesAndIds) {
    char small[4], copy[4], joined[8] = "ab", error[128];
    EXPECT_EQ(OsUtils::SNPrintF(small, sizeof(small), "%s", "hello"), 5);
    EXPECT_STREQ(small, "hel");
    EXPECT_EQ(OsUtils::StrLCpy(copy, "hello", sizeof(copy)), 5u);
    EXPECT_EQ(OsUtils::StrLCat(joined, "cdefgh", sizeof(joined)), 8u);
    EXPECT_EQ(std::string(copy) + joined, "helabcdefg");
    EXPECT_STREQ(OsUtils::StrError(error, sizeof(error), ENOENT), strerror(ENOENT));
    EXPECT_EQ(std::make_pair(OsUtils::GetProcessID(), OsUtils::GetPid()),
              std::make_pair(getpid(), getpid()));
    std::thread([] { EXPECT_EQ(OsUtils::GetThreadID(), gettid()); }).join();
}

// The results the wrappers make of libc's, and their answers for null streams.
TEST(OsUtilsFiles, ResultsAndFailures) {
    TempDir folder;
    const std::string path = folder.Write("f.bin", "abc-42xyz");
    EXPECT_EQ(OsUtils::GetFileSize(path.c_str()), 9u);
    FILE* file = OsUtils::FOpen(path.c_str(), "r+");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(OsUtils::FSeek(file, 4, SEEK_SET), 0);
    char text[16] = {};
    EXPECT_EQ(OsUtils::FRead(text, 1, 1, 5, file), 5u);  // the buffer size is not a limit
    EXPECT_STREQ(text, "42xyz");
    EXPECT_EQ(OsUtils::FTell(file), 9);
    EXPECT_EQ(OsUtils::FWrite("!", 1, 1, file), 1u);
    EXPECT_EQ(OsUtils::FFlush(nullptr), 0);  // as fflush(NULL): every stream, this one included
    EXPECT_EQ(OsUtils::GetFileSize(path.c_str()), 10u);
    EXPECT_EQ(OsUtils::FClose(file), 0);

    struct stat64 info;
    EXPECT_EQ(OsUtils::Stat(path.c_str(), &info), 0);
    EXPECT_EQ(OsUtils::FDelete(path.c_str()), 0);
    EXPECT_EQ(OsUtils::GetFileSize(path.c_str()), 0u);  // missing reads as empty
    errno = 0;
    EXPECT_EQ(OsUtils::Stat(path.c_str(), &info), 1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(OsUtils::FDelete(path.c_str()), 1);

    // Null streams give failure results instead of faulting inside libc.
    EXPECT_EQ(OsUtils::FClose(nullptr), 1);
    EXPECT_EQ(OsUtils::FSeek(nullptr, 0, SEEK_SET), 1);
    EXPECT_EQ(OsUtils::FTell(nullptr), -1);
    EXPECT_EQ(OsUtils::FWrite("x", 1, 1, nullptr), 0u);
    EXPECT_EQ(OsUtils::FRead(text, 1, 1, 1, nullptr), 0u);
    EXPECT_EQ(OsUtils::FOpen(nullptr, "r"), nullptr);

    EXPECT_EQ(OsUtils::Close(-1), 0);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    EXPECT_EQ(OsUtils::Close(fds[0]), 0);
    EXPECT_EQ(OsUtils::Close(fds[1]), 0);
    EXPECT_EQ(OsUtils::Close(fds[1]), 1);  // already closed
}

// What the wrappers add to the port's property calls (whose parsing port_host_test checks): the
// key and default passed on, and their own answers for null arguments.
TEST(OsUtilsProperties, WrappersPassOnOrAnswerForNulls) {
    ASSERT_EQ(property_set("vendor.test.osutils", "0x10"), 0);
    char value[PROPERTY_VALUE_MAX] = "untouched";
    EXPECT_EQ(OsUtils::GetPropertyString("vendor.test.osutils", value, nullptr), 0);
    EXPECT_STREQ(value, "untouched");
    EXPECT_EQ(OsUtils::GetPropertyString("vendor.test.missing", value, "dflt"), 4);
    EXPECT_STREQ(value, "dflt");
    EXPECT_EQ(OsUtils::GetPropertyINT32("vendor.test.osutils", 7), 16);
    EXPECT_EQ(OsUtils::GetPropertyINT64("vendor.test.osutils", 7), 16);
    EXPECT_EQ(OsUtils::GetPropertyINT64("vendor.test.missing", 7), 7);
    EXPECT_TRUE(OsUtils::GetPropertyBool("vendor.test.missing", 1));
    EXPECT_EQ(OsUtils::GetPropertyINT32(nullptr, 7), 0);
    EXPECT_EQ(OsUtils::GetPropertyINT64(nullptr, 7), 0);
    EXPECT_FALSE(OsUtils::GetPropertyBool(nullptr, 1));

    int calls = 0;
    const auto count = [](const char*, const char*, void* cookie) { ++*static_cast<int*>(cookie); };
    OsUtils::GetPropertyList(count, &calls);
    EXPECT_GT(calls, 0);
    OsUtils::GetPropertyList(count, nullptr);  // no cookie: not called, as count would fault
    OsUtils::GetPropertyList(nullptr, &calls);
}

}  // namespace
