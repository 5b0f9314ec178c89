// vxcamctl logcat: the per-thread, per-segment text logs of a session folder (or of a crash backup
// folder) merged into one stream by the time stamps their lines carry, so that the offline log
// reads like one logcat.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <regex.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <queue>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "Commands.h"

namespace vxcamctl {

namespace {

// Below every stamp a line can carry (months start at 1): a thread without any stamp comes first.
constexpr uint64_t kNoStamp = 0;

void PrintLogcatUsage(FILE* out) {
    fprintf(out,
            "usage: vxcamctl logcat [--tid N[,N...]] [--since STAMP] [--grep REGEX] DIR...\n"
            "       vxcamctl logcat [--session N] [FILTERS] CAMERA_DIR\n"
            "       vxcamctl logcat --list CAMERA_DIR\n"
            "\n"
            "Merges the text log files of an offline-log session folder\n"
            "(VxCam_OfflineLog_<time>) or of a crash backup folder (OfflineLog_CrashLog_<time>)\n"
            "into one stream ordered by the time stamps the lines carry,\n"
            "\"MM-DD HH:MM:SS:nnnnnnnnn  pid  tid L VxCam: ...\" as Log::LogSystem writes them,\n"
            "and prints the lines unchanged, like one logcat. Several folders merge together.\n"
            "A crash backup holds copies of its session's files under the same names: a file\n"
            "whose lines begin, or are, those of a file of the same name in another folder is\n"
            "read once, the longer of the two.\n"
            "\n"
            "A camera folder (what 'adb pull /data/vendor/camera' gives: session folders and\n"
            "crash backups) is read as one of its sessions: a session folder with the crash\n"
            "backups that copied its files, found by their file names' prefix. Sessions are\n"
            "numbered by the time in their names, oldest first; the newest is merged unless\n"
            "--session N picks another, and where there are several they are listed on stderr.\n"
            "\n"
            "A thread's files (..._Tid<tid>_Session<n>_Segment<m>.txt) are read in session,\n"
            "then segment order, numerically (Segment10 after Segment9), and its lines keep\n"
            "their order. Threads are interleaved by time stamp; on equal stamps the earlier\n"
            "folder, then the lower thread id, comes first. The binary logger's .bin files\n"
            "hold no text and are skipped (noted on stderr); other files are ignored.\n"
            "\n"
            "A line without a time stamp (text a host added with AddLog, the rest of a\n"
            "multi-line message) takes the stamp of the line before it in its thread's files,\n"
            "so it stays with its neighbours; lines before a thread's first stamp take that\n"
            "first stamp; a thread without any stamp comes first. The stamps carry no year:\n"
            "a log that spans New Year's Eve puts January first.\n"
            "\n"
            "Each file is read once, up to the size it had when its folder was listed, so the\n"
            "library may go on appending; files it creates later are not read, and a file\n"
            "removed meanwhile (retention) is noted and passed over. A last line without a\n"
            "line feed (still being written, or cut off by a crash) is printed with one.\n"
            "\n"
            "options:\n"
            "  --tid N[,N...]  only the lines of these threads (repeatable)\n"
            "  --since STAMP   only lines stamped at or after STAMP, written as the lines write\n"
            "                  it, \"MM-DD HH:MM:SS\", optionally with a fraction of a second\n"
            "                  after '.' or ':' (\"03-14 09:26:53.5\"); lines with no stamp to\n"
            "                  go by are left out\n"
            "  --grep REGEX    only lines that match REGEX, a POSIX extended regular\n"
            "                  expression (case-sensitive, anywhere in the line)\n"
            "  --session N     of a camera folder, session N as --list numbers them\n"
            "  --list          list a camera folder's sessions, and merge nothing\n"
            "  --help          show this text\n"
            "\n"
            "Exit status 0 when lines were printed; 1 when none was (no text log file, or no\n"
            "line passed the filters); 2 on bad arguments, a folder that cannot be read, or a\n"
            "log file that cannot be read (the other files are still merged).\n");
}

// ---- Time stamps ---------------------------------------------------------------------------

// One number that orders as the stamps do: the fields in mixed radix, the second allowing 60.
uint64_t PackStamp(const unsigned long clock[5], unsigned long nanoseconds) {
    const uint64_t seconds = (((clock[0] * 32 + clock[1]) * 24 + clock[2]) * 60 + clock[3]) * 61;
    return (seconds + clock[4]) * 1000000000ull + nanoseconds;
}

bool Digits(const char* text, size_t count, unsigned long* value) {
    *value = 0;
    for (size_t i = 0; i < count; ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
        *value = *value * 10 + static_cast<unsigned long>(text[i] - '0');
    }
    return true;
}

constexpr size_t kClockLength = 14;  // "MM-DD HH:MM:SS"

// Month, day, hour, minute and second of "MM-DD HH:MM:SS" at `text` (at least kClockLength).
bool ParseClock(const char* text, unsigned long clock[5]) {
    static const char kSeparators[] = "- ::";
    for (int field = 0; field < 5; ++field) {
        if (!Digits(text + field * 3, 2, &clock[field])) return false;
        if (field < 4 && text[field * 3 + 2] != kSeparators[field]) return false;
    }
    return clock[0] >= 1 && clock[0] <= 12 && clock[1] >= 1 && clock[1] <= 31 && clock[2] <= 23 &&
           clock[3] <= 59 && clock[4] <= 60;
}

// The stamp at the head of a line: "MM-DD HH:MM:SS:nnnnnnnnn" and then a blank, as the debug frame
// and the crash report write it; anything else is a line without a stamp.
bool ParseLineStamp(const std::string& line, uint64_t* stamp) {
    constexpr size_t kStampLength = kClockLength + 10;
    if (line.size() < kStampLength || line[kClockLength] != ':') return false;
    if (line.size() > kStampLength && line[kStampLength] != ' ') return false;
    unsigned long clock[5];
    unsigned long nanoseconds = 0;
    if (!ParseClock(line.c_str(), clock) ||
        !Digits(line.c_str() + kClockLength + 1, 9, &nanoseconds)) {
        return false;
    }
    *stamp = PackStamp(clock, nanoseconds);
    return true;
}

// --since: "MM-DD HH:MM:SS", then optionally '.' or ':' and one to nine digits of the second.
bool ParseSince(const char* text, uint64_t* stamp) {
    const size_t length = strlen(text);
    unsigned long clock[5];
    if (length < kClockLength || !ParseClock(text, clock)) return false;
    unsigned long nanoseconds = 0;
    if (length > kClockLength) {
        const size_t digits = length - kClockLength - 1;
        if ((text[kClockLength] != '.' && text[kClockLength] != ':') || digits < 1 || digits > 9 ||
            !Digits(text + kClockLength + 1, digits, &nanoseconds)) {
            return false;
        }
        for (size_t i = digits; i < 9; ++i) nanoseconds *= 10;
    }
    *stamp = PackStamp(clock, nanoseconds);
    return true;
}

// ---- The folder ----------------------------------------------------------------------------

struct LogFile {
    uint32_t session;
    int32_t segment;
    size_t folder;  // the folder it was listed from, in the order the folders were given
    std::string path;
    uint64_t size;  // bytes present when the folder was listed: all that is read
};

// A thread of one naming session (the file prefix), and the first folder it was listed from,
// which orders threads whose stamps tie.
using ThreadKey = std::tuple<size_t, std::string, uint32_t>;
using ThreadFiles = std::map<ThreadKey, std::vector<LogFile>>;

// While listing: a thread's files from every folder, by file prefix and thread id, so that a
// crash backup's copy of a file meets the file it copied.
using ListedThreads = std::map<std::pair<std::string, uint32_t>, std::vector<LogFile>>;

// Decimal digits at `*pos` that fit `max`; moves `*pos` past them.
bool ParseDecimal(const std::string& text, size_t* pos, uint64_t max, uint64_t* value) {
    const size_t start = *pos;
    *value = 0;
    while (*pos < text.size() && text[*pos] >= '0' && text[*pos] <= '9' && *pos - start < 11) {
        *value = *value * 10 + static_cast<uint64_t>(text[*pos] - '0');
        ++*pos;
    }
    return *pos > start && *value <= max;
}

bool Expect(const std::string& text, size_t* pos, const char* word) {
    if (text.compare(*pos, strlen(word), word) != 0) return false;
    *pos += strlen(word);
    return true;
}

// "<prefix>_Tid<tid>_Session<n>_Segment<m>" with ".txt", or ".bin" for the binary logger. The
// segment is written signed.
bool ParseLogFileName(const std::string& name, std::string* prefix, uint32_t* tid, LogFile* file,
                      bool* binary) {
    if (name.size() < 4) return false;
    const std::string extension = name.substr(name.size() - 4);
    if (extension != ".txt" && extension != ".bin") return false;
    size_t pos = name.rfind("_Tid");
    if (pos == std::string::npos) return false;
    *prefix = name.substr(0, pos);
    uint64_t thread = 0, session = 0, segment = 0;
    pos += 4;
    if (!ParseDecimal(name, &pos, UINT32_MAX, &thread) || !Expect(name, &pos, "_Session") ||
        !ParseDecimal(name, &pos, UINT32_MAX, &session) || !Expect(name, &pos, "_Segment")) {
        return false;
    }
    const bool negative = Expect(name, &pos, "-");
    if (!ParseDecimal(name, &pos, negative ? 2147483648ull : INT32_MAX, &segment) ||
        pos != name.size() - 4) {
        return false;
    }
    *tid = static_cast<uint32_t>(thread);
    file->session = static_cast<uint32_t>(session);
    file->segment = negative ? static_cast<int32_t>(-static_cast<int64_t>(segment))
                             : static_cast<int32_t>(segment);
    *binary = extension == ".bin";
    return true;
}

// Adds the text log files of `folder` to `threads`; says why on stderr and returns false when the
// folder cannot be read.
bool ListFolder(const char* folder, size_t index, const std::set<uint32_t>& tids,
                ListedThreads* threads, size_t* textFiles) {
    struct stat info = {};
    if (stat(folder, &info) != 0) {
        fprintf(stderr, "vxcamctl logcat: cannot open folder '%s': %s\n", folder, strerror(errno));
        return false;
    }
    if (!S_ISDIR(info.st_mode)) {
        fprintf(stderr, "vxcamctl logcat: '%s' is not a folder\n", folder);
        return false;
    }
    DIR* dir = opendir(folder);
    if (dir == nullptr) {
        fprintf(stderr, "vxcamctl logcat: cannot open folder '%s': %s\n", folder, strerror(errno));
        return false;
    }
    size_t texts = 0, binaries = 0;
    while (dirent* entry = readdir(dir)) {
        std::string prefix;
        uint32_t tid = 0;
        LogFile file = {};
        bool binary = false;
        if (!ParseLogFileName(entry->d_name, &prefix, &tid, &file, &binary)) continue;
        file.path = std::string(folder) + "/" + entry->d_name;
        // Gone already (retention), or not a plain file (a FIFO would block the read).
        if (stat(file.path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
        if (binary) {
            ++binaries;
            continue;
        }
        ++texts;
        if (!tids.empty() && tids.count(tid) == 0) continue;
        file.folder = index;
        file.size = static_cast<uint64_t>(info.st_size);
        (*threads)[std::make_pair(prefix, tid)].push_back(std::move(file));
    }
    closedir(dir);
    if (binaries > 0) {
        fprintf(stderr, "vxcamctl logcat: skipped %zu binary log file%s (.bin) in '%s'\n", binaries,
                binaries == 1 ? "" : "s", folder);
    }
    if (texts == 0) {
        fprintf(stderr,
                "vxcamctl logcat: no text log file (..._Tid<tid>_Session<n>_Segment<m>.txt) in "
                "'%s'\n",
                folder);
    }
    *textFiles += texts;
    return true;
}

// Whether the bytes of `shorter` begin `longer`, both read up to their listed sizes.
bool BeginsWith(const LogFile& longer, const LogFile& shorter) {
    const int a = open(longer.path.c_str(), O_RDONLY | O_CLOEXEC);
    const int b = open(shorter.path.c_str(), O_RDONLY | O_CLOEXEC);
    bool same = a >= 0 && b >= 0;
    std::vector<char> chunkA(65536), chunkB(65536);
    for (uint64_t offset = 0; same && offset < shorter.size;) {
        const size_t wanted =
                static_cast<size_t>(std::min<uint64_t>(shorter.size - offset, chunkA.size()));
        const ssize_t gotA = pread(a, chunkA.data(), wanted, static_cast<off_t>(offset));
        const ssize_t gotB = pread(b, chunkB.data(), wanted, static_cast<off_t>(offset));
        same = gotA > 0 && gotA == gotB &&
               memcmp(chunkA.data(), chunkB.data(), static_cast<size_t>(gotA)) == 0;
        offset += gotA > 0 ? static_cast<uint64_t>(gotA) : 0;
    }
    if (a >= 0) close(a);
    if (b >= 0) close(b);
    return same;
}

// Puts each thread's files in session, then segment order, numerically (Segment10 after
// Segment9), and reads a copied file once. A crash backup holds copies of its session's files
// under the same names, taken at the crash (an empty one where the file had gone): of two files
// with one name whose bytes agree as far as the shorter goes, only the longer is read, the earlier
// folder's when they are equal. Files that share a name but not their bytes are both read.
ThreadFiles OrderAndDropCopies(ListedThreads* listed, size_t* copies) {
    ThreadFiles threads;
    for (auto& [key, files] : *listed) {
        std::stable_sort(files.begin(), files.end(), [](const LogFile& a, const LogFile& b) {
            return std::tie(a.session, a.segment, a.folder) <
                   std::tie(b.session, b.segment, b.folder);
        });
        std::vector<LogFile> kept;
        for (LogFile& file : files) {
            if (!kept.empty() && kept.back().session == file.session &&
                kept.back().segment == file.segment) {
                LogFile& previous = kept.back();
                const bool longer = file.size > previous.size;
                if (longer ? BeginsWith(file, previous) : BeginsWith(previous, file)) {
                    ++*copies;
                    if (longer) previous = std::move(file);
                    continue;
                }
                fprintf(stderr,
                        "vxcamctl logcat: '%s' and '%s' share a name but not their lines: both "
                        "are read\n",
                        previous.path.c_str(), file.path.c_str());
            }
            kept.push_back(std::move(file));
        }
        size_t folder = kept.front().folder;
        for (const LogFile& file : kept) folder = std::min(folder, file.folder);
        threads[ThreadKey(folder, key.first, key.second)] = std::move(kept);
    }
    return threads;
}

// ---- A camera folder -------------------------------------------------------------------------

// What `adb pull /data/vendor/camera` brings: session folders "VxCam_OfflineLog_<time>" and
// crash backups "OfflineLog_CrashLog_<time>", <time> as "%d-%02d-%02d--%02d-%02d-%02d-%06ld"
// (year, month, day, hour, minute, second, microsecond).
constexpr char kSessionFolder[] = "VxCam_OfflineLog_";
constexpr char kBackupFolder[] = "OfflineLog_CrashLog_";

// A session: the text logs of one naming session, found by the prefix their names share, in its
// session folder and in the crash backups that copied them.
struct Session {
    std::string prefix;  // of its files' names; the folder's name when it holds no text log
    std::string folder;  // its session folder, or empty where retention removed it
    std::vector<std::string> backups;
    std::set<std::string> names;  // its text log files, a copy counted once
};

// The time in a session folder's, a crash backup's or a file prefix's name, as numbers that order
// as the times do; zeros where the name holds none.
std::vector<long> TimeOf(const std::string& name) {
    std::vector<long> time(7, 0);
    for (const char* kind : {kSessionFolder, kBackupFolder}) {
        if (name.rfind(kind, 0) != 0) continue;
        if (sscanf(name.c_str() + strlen(kind), "%ld-%ld-%ld--%ld-%ld-%ld-%ld", &time[0], &time[1],
                   &time[2], &time[3], &time[4], &time[5], &time[6]) != 7) {
            time.assign(7, 0);
        }
        break;
    }
    return time;
}

// The sessions of a camera folder, oldest first; none when `root` holds log files of its own or no
// session folder or crash backup, so that it is read as a folder of log files.
std::vector<Session> ListSessions(const std::string& root) {
    std::vector<Session> sessions;
    DIR* dir = opendir(root.c_str());
    if (dir == nullptr) return sessions;
    std::vector<std::string> folders;
    bool logFiles = false;
    while (dirent* entry = readdir(dir)) {
        std::string prefix;
        uint32_t tid = 0;
        LogFile file = {};
        bool binary = false;
        const std::string name = entry->d_name;
        logFiles = logFiles || ParseLogFileName(name, &prefix, &tid, &file, &binary);
        struct stat info = {};
        if ((name.rfind(kSessionFolder, 0) == 0 || name.rfind(kBackupFolder, 0) == 0) &&
            stat((root + "/" + name).c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
            folders.push_back(name);
        }
    }
    closedir(dir);
    if (logFiles) return sessions;

    std::map<std::string, Session> byPrefix;
    for (const std::string& name : folders) {
        // A backup may hold empty files named for an earlier session's logs: its own session is
        // the newest prefix, and so is a session folder's.
        std::string newest;
        std::multimap<std::string, std::string> names;  // by prefix
        if (DIR* folder = opendir((root + "/" + name).c_str())) {
            while (dirent* entry = readdir(folder)) {
                std::string prefix;
                uint32_t tid = 0;
                LogFile file = {};
                bool binary = false;
                if (!ParseLogFileName(entry->d_name, &prefix, &tid, &file, &binary) || binary) {
                    continue;
                }
                names.emplace(prefix, entry->d_name);
                if (newest.empty() || TimeOf(prefix) > TimeOf(newest)) newest = prefix;
            }
            closedir(folder);
        }
        Session& session = byPrefix[newest.empty() ? name : newest];
        session.prefix = newest.empty() ? name : newest;
        const auto own = names.equal_range(newest);
        for (auto name = own.first; name != own.second; ++name) session.names.insert(name->second);
        const std::string path = root + "/" + name;
        if (name.rfind(kSessionFolder, 0) == 0) {
            session.folder = path;
        } else {
            session.backups.push_back(path);
        }
    }
    for (auto& entry : byPrefix) sessions.push_back(std::move(entry.second));
    std::sort(sessions.begin(), sessions.end(), [](const Session& a, const Session& b) {
        const std::vector<long> timeA = TimeOf(a.prefix), timeB = TimeOf(b.prefix);
        return timeA != timeB ? timeA < timeB : a.prefix < b.prefix;
    });
    for (Session& session : sessions) std::sort(session.backups.begin(), session.backups.end());
    return sessions;
}

void PrintSessions(FILE* out, const std::string& root, const std::vector<Session>& sessions) {
    fprintf(out, "sessions in '%s', oldest first:\n", root.c_str());
    for (size_t i = 0; i < sessions.size(); ++i) {
        const Session& session = sessions[i];
        const size_t slash = session.folder.rfind('/');
        fprintf(out, "  %zu  %s  %zu text file%s", i + 1,
                session.folder.empty() ? "(no session folder)" : session.folder.c_str() + slash + 1,
                session.names.size(), session.names.size() == 1 ? "" : "s");
        for (const std::string& backup : session.backups) {
            fprintf(out, ", crash backup %s", backup.c_str() + backup.rfind('/') + 1);
        }
        fprintf(out, "\n");
    }
}

// ---- Reading a thread's lines --------------------------------------------------------------

// Reads one thread's files in order, each up to its size at listing time: a file the library is
// appending to is neither waited on nor read past the snapshot, so no line is taken twice. A file
// is opened for each chunk, so that merging thousands of threads holds no descriptor between reads.
class LineReader {
  public:
    LineReader(const std::vector<LogFile>& files, bool report)
        : m_files(files), m_report(report), m_buffer(16384) {}

    // The next line without its line feed; false after the last line of the last file. A file's
    // unterminated last line is a line of its own, never joined to the next segment.
    bool Next(std::string* line) {
        line->clear();
        while (m_file < m_files.size()) {
            if (m_begin < m_end) {
                const char* start = m_buffer.data() + m_begin;
                const char* feed = static_cast<const char*>(memchr(start, '\n', m_end - m_begin));
                if (feed != nullptr) {
                    line->append(start, static_cast<size_t>(feed - start));
                    m_begin += static_cast<size_t>(feed - start) + 1;
                    return true;
                }
                line->append(start, m_end - m_begin);
                m_begin = m_end = 0;
            }
            if (Refill()) continue;
            ++m_file;
            m_offset = 0;
            if (!line->empty()) return true;
        }
        return false;
    }

    bool Failed() const { return m_failed; }

  private:
    // The next chunk of the current file's snapshot; false at its end or when it cannot be read.
    bool Refill() {
        const LogFile& file = m_files[m_file];
        if (m_offset >= file.size) return false;
        const int fd = open(file.path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            if (errno != ENOENT) {
                Fail("cannot open", file.path);
            } else if (m_report) {
                fprintf(stderr, "vxcamctl logcat: '%s' was removed %s it was read\n",
                        file.path.c_str(), m_offset == 0 ? "before" : "while");
            }
            m_offset = file.size;
            return false;
        }
        const size_t wanted =
                static_cast<size_t>(std::min<uint64_t>(file.size - m_offset, m_buffer.size()));
        ssize_t got;
        do {
            got = pread(fd, m_buffer.data(), wanted, static_cast<off_t>(m_offset));
        } while (got < 0 && errno == EINTR);
        const int error = errno;
        close(fd);
        if (got <= 0) {  // an error, or the file shrank since it was listed
            errno = error;
            if (got < 0) Fail("cannot read", file.path);
            m_offset = file.size;
            return false;
        }
        m_offset += static_cast<uint64_t>(got);
        m_begin = 0;
        m_end = static_cast<size_t>(got);
        return true;
    }

    void Fail(const char* what, const std::string& path) {
        if (m_report) {
            fprintf(stderr, "vxcamctl logcat: %s '%s': %s\n", what, path.c_str(), strerror(errno));
        }
        m_failed = true;
    }

    const std::vector<LogFile>& m_files;
    const bool m_report;  // the look-ahead for the first stamp stays quiet; the merge reports
    std::vector<char> m_buffer;
    size_t m_begin = 0, m_end = 0;  // the unread part of m_buffer
    size_t m_file = 0;              // the file being read
    uint64_t m_offset = 0;          // bytes of it read so far
    bool m_failed = false;
};

// The stamp of a thread's first stamped line, which the lines before it take.
uint64_t FirstStamp(const std::vector<LogFile>& files) {
    LineReader reader(files, false);
    std::string line;
    uint64_t stamp = kNoStamp;
    while (reader.Next(&line)) {
        if (ParseLineStamp(line, &stamp)) return stamp;
    }
    return kNoStamp;
}

struct Filters {
    std::set<uint32_t> tids;
    bool since = false;
    uint64_t sinceStamp = 0;
    bool grep = false;
    regex_t pattern = {};
    // Of a camera folder: list its sessions, or merge session number `session` (0: the newest).
    bool list = false;
    unsigned long session = 0;
};

struct ThreadState {
    std::unique_ptr<LineReader> reader;
    std::string line;
    uint64_t stamp = kNoStamp;  // of the current line, its own or inherited
};

// Interleaves the threads by the stamp of their next line; a thread's lines keep their order even
// where its stamps step back (a clock set back), and ties go to the thread listed first.
// Returns the number of lines printed; sets `*failed` when a file could not be read.
unsigned long Merge(const ThreadFiles& threads, const Filters& filters, bool* failed) {
    std::vector<ThreadState> states(threads.size());
    using Head = std::pair<uint64_t, size_t>;  // (stamp, thread)
    std::priority_queue<Head, std::vector<Head>, std::greater<Head>> heads;
    auto advance = [&](size_t index) {
        ThreadState& state = states[index];
        if (!state.reader->Next(&state.line)) return;
        ParseLineStamp(state.line, &state.stamp);
        heads.emplace(state.stamp, index);
    };
    size_t index = 0;
    for (const auto& thread : threads) {
        states[index].reader = std::make_unique<LineReader>(thread.second, true);
        states[index].stamp = FirstStamp(thread.second);
        advance(index++);
    }
    unsigned long printed = 0;
    while (!heads.empty()) {
        const size_t next = heads.top().second;
        heads.pop();
        const ThreadState& state = states[next];
        const bool selected = (!filters.since || state.stamp >= filters.sinceStamp) &&
                              (!filters.grep ||
                               regexec(&filters.pattern, state.line.c_str(), 0, nullptr, 0) == 0);
        if (selected) {
            fwrite(state.line.data(), 1, state.line.size(), stdout);
            fputc('\n', stdout);
            ++printed;
        }
        advance(next);
    }
    for (const ThreadState& state : states) *failed = *failed || state.reader->Failed();
    return printed;
}

bool ParseTids(const char* text, std::set<uint32_t>* tids) {
    const std::string list = text;
    size_t pos = 0;
    for (;;) {
        uint64_t tid = 0;
        if (!ParseDecimal(list, &pos, UINT32_MAX, &tid)) return false;
        tids->insert(static_cast<uint32_t>(tid));
        if (pos == list.size()) return true;
        if (list[pos++] != ',') return false;
    }
}

constexpr int kGoOn = -1;
enum OptionId { kTid = 256, kSince, kGrep, kSession, kList };

// Reads one option into `filters`; false, having said why, on a bad value.
bool ReadFilter(int id, const char* value, Filters* filters) {
    switch (id) {
        case kTid:
            if (ParseTids(value, &filters->tids)) return true;
            UsageError("logcat", "--tid needs decimal thread ids, comma-separated, not '%s'", value);
            return false;
        case kSince:
            filters->since = ParseSince(value, &filters->sinceStamp);
            if (filters->since) return true;
            UsageError("logcat",
                       "--since needs a time stamp \"MM-DD HH:MM:SS[.fraction]\", not '%s'", value);
            return false;
        case kGrep: {
            if (filters->grep) {
                UsageError("logcat", "--grep is given twice; join the patterns with '|'");
                return false;
            }
            const int error = regcomp(&filters->pattern, value, REG_EXTENDED | REG_NOSUB);
            if (error != 0) {
                char message[256];
                regerror(error, &filters->pattern, message, sizeof(message));
                UsageError("logcat", "--grep '%s': %s", value, message);
                return false;
            }
            filters->grep = true;
            return true;
        }
        case kSession: {
            uint64_t number = 0;
            const std::string text = value;
            size_t pos = 0;
            if (!ParseDecimal(text, &pos, UINT32_MAX, &number) || pos != text.size() ||
                number == 0) {
                UsageError("logcat",
                           "--session needs a session number from 1 (--list numbers them), not "
                           "'%s'",
                           value);
                return false;
            }
            filters->session = static_cast<unsigned long>(number);
            return true;
        }
        case kList:
            filters->list = true;
            return true;
    }
    return true;
}

// Reads the options into `filters` and the folders into `folders`; returns kGoOn, or the exit
// status when there is nothing to merge.
int ParseArguments(int argc, char** argv, Filters* filters, std::vector<const char*>* folders) {
    static const option kOptions[] = {
            {"tid", required_argument, nullptr, kTid},
            {"since", required_argument, nullptr, kSince},
            {"grep", required_argument, nullptr, kGrep},
            {"session", required_argument, nullptr, kSession},
            {"list", no_argument, nullptr, kList},
            {"help", no_argument, nullptr, 'h'},
            {nullptr, 0, nullptr, 0},
    };
    bool help = false;
    const bool parsed = ParseOptions(
            "logcat", argc, argv, "h", kOptions,
            [&](int id, const char* value) {
                help = help || id == 'h';
                return ReadFilter(id, value, filters);
            },
            folders);
    if (!parsed) return kExitUsage;
    if (help) {
        PrintLogcatUsage(stdout);
        return kExitOk;
    }
    if (folders->empty()) {
        PrintLogcatUsage(stderr);
        return kExitUsage;
    }
    return kGoOn;
}

// Replaces each camera folder among `arguments` by the folders of the session it asks for, or
// lists its sessions; returns kGoOn, or the exit status when there is nothing to merge.
int ExpandCameraFolders(const std::vector<const char*>& arguments, const Filters& filters,
                        std::vector<std::string>* folders) {
    bool cameraFolder = false;
    for (const char* argument : arguments) {
        const std::vector<Session> sessions = ListSessions(argument);
        if (sessions.empty()) {
            folders->push_back(argument);
            continue;
        }
        cameraFolder = true;
        if (filters.list) {
            PrintSessions(stdout, argument, sessions);
            continue;
        }
        if (filters.session > sessions.size()) {
            fprintf(stderr,
                    "vxcamctl logcat: --session %lu: '%s' holds %zu session%s (--list lists "
                    "them)\n",
                    filters.session, argument, sessions.size(), sessions.size() == 1 ? "" : "s");
            return kExitUsage;
        }
        const size_t chosen = filters.session != 0 ? filters.session : sessions.size();
        if (filters.session == 0 && sessions.size() > 1) {
            PrintSessions(stderr, argument, sessions);
            fprintf(stderr,
                    "vxcamctl logcat: merging the newest, session %zu; --session N picks another\n",
                    chosen);
        }
        const Session& session = sessions[chosen - 1];
        if (!session.folder.empty()) folders->push_back(session.folder);
        folders->insert(folders->end(), session.backups.begin(), session.backups.end());
    }
    if ((filters.list || filters.session != 0) && !cameraFolder) {
        fprintf(stderr,
                "vxcamctl logcat: %s takes a camera folder (of VxCam_OfflineLog_<time> session "
                "folders), and no folder given is one\n",
                filters.list ? "--list" : "--session");
        return kExitUsage;
    }
    return filters.list ? kExitOk : kGoOn;
}

}  // namespace

int RunLogcat(int argc, char** argv) {
    Filters filters;
    std::vector<const char*> arguments;
    std::vector<std::string> folders;
    int status = ParseArguments(argc, argv, &filters, &arguments);
    if (status == kGoOn) status = ExpandCameraFolders(arguments, filters, &folders);
    if (status == kGoOn) {
        ListedThreads listed;
        size_t textFiles = 0;
        bool readable = true;
        for (size_t i = 0; i < folders.size(); ++i) {
            readable = ListFolder(folders[i].c_str(), i, filters.tids, &listed, &textFiles) &&
                       readable;
        }
        size_t copies = 0;
        const ThreadFiles threads = OrderAndDropCopies(&listed, &copies);
        if (copies > 0) {
            fprintf(stderr,
                    "vxcamctl logcat: passed over %zu cop%s of files read from another folder "
                    "(same name, same lines)\n",
                    copies, copies == 1 ? "y" : "ies");
        }
        bool failed = !readable;
        const unsigned long printed = Merge(threads, filters, &failed);
        if (fflush(stdout) != 0 || ferror(stdout) != 0) {
            fprintf(stderr, "vxcamctl logcat: cannot write the output: %s\n", strerror(errno));
            failed = true;
        }
        if (failed) {
            status = kExitUsage;
        } else if (printed == 0) {
            const bool filtered = !filters.tids.empty() || filters.since || filters.grep;
            if (textFiles > 0) {
                fprintf(stderr, "vxcamctl logcat: %s\n",
                        filtered ? "no line passed the filters" : "the log files hold no line");
            }
            status = kExitFindings;
        } else {
            status = kExitOk;
        }
    }
    if (filters.grep) regfree(&filters.pattern);
    return status;
}

}  // namespace vxcamctl
