// vxcamctl: runs libvxcamcommonutils on a Linux host the way the camera HAL does on a device.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "Commands.h"

namespace {

struct Command {
    const char* name;
    const char* summary;
    int (*run)(int argc, char** argv);
};

const Command kCommands[] = {
        {"settings", "print the settings as the library loaded them, or lint an override file",
         vxcamctl::RunSettings},
        {"session", "run camera sessions through the offline-log entry table and check the files",
         vxcamctl::RunSession},
        {"zlib", "compress, decompress, measure or checksum a file with the library's zlib calls",
         vxcamctl::RunZlib},
        {"format", "strides, slice heights and sizes the library computes for an image format",
         vxcamctl::RunFormat},
        {"jpeg", "the JPEG size in the blob trailer of a captured blob buffer", vxcamctl::RunJpeg},
        {"crash", "crash a camera process on one of its logging threads and show what it left",
         vxcamctl::RunCrash},
        {"logcat", "merge a session folder's per-thread log files into one stream by time stamp",
         vxcamctl::RunLogcat},
        {"sysroot", "make a camera sysroot (init DIR) for --sysroot", vxcamctl::RunSysroot},
};

void PrintUsage(FILE* out) {
    fprintf(out,
            "usage: vxcamctl [--sysroot DIR] [-v] COMMAND [OPTIONS]\n"
            "\n"
            "Runs libvxcamcommonutils on this host as the camera HAL does on a device. Device\n"
            "paths (/vendor/..., /data/vendor/camera) are taken under --sysroot DIR, or under\n"
            "$VXCAM_SYSROOT; system properties come from <sysroot>/vendor/build.prop.\n"
            "\n"
            "The library's Android log goes to stderr. By default it shows only warnings,\n"
            "errors and requested stack dumps (not the settings listing of each load, nor the\n"
            "missing override file that is the rule on a host); -v shows all of it, and\n"
            "$ANDROID_LOG_TAGS, when set, filters it instead, as on Android.\n"
            "\n"
            "options:\n"
            "  --sysroot DIR  take device paths under DIR\n"
            "  -v, --verbose  show the library's whole log\n"
            "  -h, --help     show this text\n"
            "\n"
            "commands:\n");
    for (const Command& command : kCommands)
        fprintf(out, "  %-10s %s\n", command.name, command.summary);
    fprintf(out, "\n'vxcamctl COMMAND --help' describes a command.\n");
}

// ---- Before the library loads ---------------------------------------------------------------
// The library loads its settings and system properties, and logs them, while it is being loaded,
// before main() runs: so --sysroot and the log filter have to be in the environment by then.
// glibc calls an executable's .preinit_array before any shared library's initialiser, but also
// before its own, which resets the environment: so they are applied by executing this program
// again with the environment they need. Nothing has been initialised or logged at that point; no
// allocation is made.
//
// Quiet by default: unless the user asked for the log (-v, or a filter of their own), the filter
// keeps warnings and errors. A host without an override file is the rule, yet the library calls
// that an error; so what it logs while it loads is held in a memory file, and main() passes it on
// without that line. (A process that died while loading would take that log with it; the library's
// load does nothing that could end it.)

constexpr char kLogTags[] = "ANDROID_LOG_TAGS=";
constexpr char kSysroot[] = "VXCAM_SYSROOT=";
// The crash reporter's stack dumps (tag DEBUG) are info lines, but someone asked for them.
constexpr char kQuietFilter[] = "ANDROID_LOG_TAGS=*:w DEBUG:i";
// Tells the run after the re-execution, and any vxcamctl it starts, that the filter is this
// tool's own and not the user's.
constexpr char kQuiet[] = "VXCAMCTL_QUIET=";
constexpr char kQuietMarker[] = "VXCAMCTL_QUIET=1";
constexpr char kMissingOverrideFile[] = " No override settings text file ";

int s_userStderr = -1;  // the real stderr while the load's log is held back
int s_loadLog = -1;

bool StartsWith(const char* text, const char* prefix) {
    return strncmp(text, prefix, strlen(prefix)) == 0;
}

const char* FindVariable(char** envp, const char* prefix) {
    for (char** entry = envp; entry != nullptr && *entry != nullptr; ++entry) {
        if (StartsWith(*entry, prefix)) return *entry;
    }
    return nullptr;
}

void HoldBackLoadLog() {
    const int log = memfd_create("vxcamctl-load-log", MFD_CLOEXEC);
    if (log < 0) return;
    const int saved = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    if (saved < 0 || dup2(log, STDERR_FILENO) < 0) {
        if (saved >= 0) close(saved);
        close(log);
        return;
    }
    s_userStderr = saved;
    s_loadLog = log;
}

void PrepareProcess(int argc, char** argv, char** envp) {
    const char* directory = nullptr;
    bool verbose = false;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--") == 0) break;
        if (strcmp(argv[i], "--sysroot") == 0 && i + 1 < argc) {
            directory = argv[++i];
        } else if (StartsWith(argv[i], "--sysroot=")) {
            directory = argv[i] + strlen("--sysroot=");
        } else if (strcmp(argv[i], "-v") == 0 || strcmp(argv[i], "--verbose") == 0) {
            verbose = true;
        }
    }
    const char* logTags = FindVariable(envp, kLogTags);
    const bool wasQuiet = FindVariable(envp, kQuiet) != nullptr && logTags != nullptr &&
                          strcmp(logTags, kQuietFilter) == 0;
    const bool userFilter = !wasQuiet && logTags != nullptr && logTags[strlen(kLogTags)] != '\0';
    const bool quiet = !verbose && !userFilter;

    static char sysroot[PATH_MAX + 32] = "VXCAM_SYSROOT=";
    bool changed = quiet != wasQuiet;
    if (directory != nullptr) {
        const size_t prefix = strlen(kSysroot);
        if (realpath(directory, sysroot + prefix) == nullptr) {
            strncpy(sysroot + prefix, directory, sizeof(sysroot) - prefix - 1);
        }
        const char* current = FindVariable(envp, kSysroot);
        changed = changed || current == nullptr || strcmp(current, sysroot) != 0;
    }
    if (!changed) {
        if (quiet) HoldBackLoadLog();
        return;
    }

    static char* environment[4096];
    const size_t capacity = sizeof(environment) / sizeof(environment[0]);
    size_t count = 0;
    for (char** entry = envp; entry != nullptr && *entry != nullptr; ++entry) {
        if (directory != nullptr && StartsWith(*entry, kSysroot)) continue;
        if ((quiet || wasQuiet) && (StartsWith(*entry, kLogTags) || StartsWith(*entry, kQuiet))) {
            continue;
        }
        if (count + 4 >= capacity) return;
        environment[count++] = *entry;
    }
    if (directory != nullptr) environment[count++] = sysroot;
    if (quiet) {
        environment[count++] = const_cast<char*>(kQuietFilter);
        environment[count++] = const_cast<char*>(kQuietMarker);
    }
    environment[count] = nullptr;
    execve("/proc/self/exe", argv, environment);
    // Should exec fail, go on: the library then reads the paths and logs as they stand.
}

__attribute__((section(".preinit_array"), used)) void (*s_prepareProcess)(int, char**,
                                                                          char**) = PrepareProcess;

void ReleaseLoadLog() {
    if (s_loadLog < 0) return;
    fflush(stderr);
    dup2(s_userStderr, STDERR_FILENO);
    close(s_userStderr);
    std::string text;
    char chunk[4096];
    ssize_t got = 0;
    while ((got = pread(s_loadLog, chunk, sizeof(chunk), static_cast<off_t>(text.size()))) > 0) {
        text.append(chunk, static_cast<size_t>(got));
    }
    close(s_loadLog);
    std::string shown;
    for (size_t start = 0; start < text.size();) {
        size_t end = text.find('\n', start);
        end = end == std::string::npos ? text.size() : end + 1;
        const std::string line = text.substr(start, end - start);
        if (line.find(kMissingOverrideFile) == std::string::npos) shown += line;
        start = end;
    }
    fputs(shown.c_str(), stderr);
}

// The long options `typed` ("--name", without any "=value") may stand for: the one it names in
// full, or those it begins, less any that getopt_long takes for the same option.
std::vector<const option*> LongOptionsFor(const option* longOptions, const std::string& typed) {
    const std::string name = typed.substr(2);
    std::vector<const option*> matches;
    for (const option* candidate = longOptions; candidate != nullptr && candidate->name != nullptr;
         ++candidate) {
        if (name.empty() || strncmp(candidate->name, name.c_str(), name.size()) != 0) continue;
        if (candidate->name[name.size()] == '\0') return {candidate};
        const bool same = std::any_of(matches.begin(), matches.end(), [&](const option* match) {
            return match->has_arg == candidate->has_arg && match->flag == candidate->flag &&
                   match->val == candidate->val;
        });
        if (!same) matches.push_back(candidate);
    }
    return matches;
}

// Says why getopt_long refused `argument`: it only says that it did. A long option is named in
// full, since getopt_long takes any unambiguous beginning of one.
void ReportBadOption(const char* command, const option* longOptions, const char* argument,
                     bool missingValue) {
    if (strncmp(argument, "--", 2) != 0) {
        if (missingValue) {
            vxcamctl::UsageError(command, "-%c needs a value", optopt);
        } else {
            vxcamctl::UsageError(command, "unknown option '-%c'", optopt);
        }
        return;
    }
    const std::string typed(argument, strcspn(argument, "="));
    const std::vector<const option*> matches = LongOptionsFor(longOptions, typed);
    if (matches.empty()) {
        vxcamctl::UsageError(command, "unknown option '%s'", typed.c_str());
    } else if (matches.size() > 1) {
        std::string names;
        for (const option* match : matches) {
            names += std::string(names.empty() ? "" : ", ") + "--" + match->name;
        }
        vxcamctl::UsageError(command, "'%s' is ambiguous: %s", typed.c_str(), names.c_str());
    } else if (missingValue) {
        vxcamctl::UsageError(command, "--%s needs a value", matches[0]->name);
    } else {
        vxcamctl::UsageError(command, "--%s takes no value", matches[0]->name);
    }
}

}  // namespace

namespace vxcamctl {

std::string DevicePath(const char* devicePath) {
    const char* sysroot = getenv("VXCAM_SYSROOT");
    std::string root = sysroot != nullptr ? sysroot : "";
    while (!root.empty() && root.back() == '/') root.pop_back();
    return root + devicePath;
}

std::string CameraRoot() {
    return DevicePath("/data/vendor/camera");
}

std::string Format(const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return text;
}

int UsageError(const char* command, const char* format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    if (command != nullptr) {
        fprintf(stderr, "vxcamctl %s: %s\n", command, text);
    } else {
        fprintf(stderr, "vxcamctl: %s\n", text);
    }
    return kExitUsage;
}

bool ParseOptions(const char* command, int argc, char** argv, const char* shortOptions,
                  const option* longOptions,
                  const std::function<bool(int id, const char* value)>& onOption,
                  std::vector<const char*>* operands) {
    // '-' hands operands over in place, so that they may stand anywhere whatever POSIXLY_CORRECT
    // says, unless the caller asked for getopt's stop at the first one ('+'). ':' tells a missing
    // value apart from an unknown option.
    const std::string letters = shortOptions[0] == '+' ? std::string("+:") + (shortOptions + 1)
                                                       : std::string("-:") + shortOptions;
    opterr = 0;
    optind = 0;  // glibc starts afresh: a command parses what the global options left
    for (;;) {
        // The argument getopt is on: a cluster of short options keeps optind until its last.
        const int at = optind == 0 ? 1 : optind;
        const char* typed = at < argc ? argv[at] : "";
        int index = -1;
        const int id = getopt_long(argc, argv, letters.c_str(), longOptions, &index);
        if (id == -1) break;
        if (id == 1) {
            operands->push_back(optarg);
        } else if (id == '?' || id == ':') {
            ReportBadOption(command, longOptions, typed, id == ':');
            return false;
        } else if (index >= 0 && strcmp(longOptions[index].name, "sysroot") == 0 &&
                   strncmp(typed, "--sysroot", 9) != 0) {
            // It took effect before main(), which knows it by its full name only.
            const std::string name(typed, strcspn(typed, "="));
            UsageError(command, "write '%s' as --sysroot in full", name.c_str());
            return false;
        } else if (!onOption(id, optarg)) {
            return false;
        }
    }
    operands->insert(operands->end(), argv + optind, argv + argc);
    return true;
}

bool ParseOperands(const char* command, int argc, char** argv, void (*printUsage)(FILE* out),
                   std::vector<const char*>* operands, int* status) {
    static const option kHelpOnly[] = {
            {"help", no_argument, nullptr, 'h'},
            {nullptr, 0, nullptr, 0},
    };
    bool help = false;
    const auto onHelp = [&](int, const char*) { return help = true; };
    if (!ParseOptions(command, argc, argv, "h", kHelpOnly, onHelp, operands)) {
        *status = kExitUsage;
        return false;
    }
    if (help) {
        printUsage(stdout);
        *status = kExitOk;
        return false;
    }
    return true;
}

FILE* OpenInput(const char* command, const char* path) {
    FILE* file = fopen(path, "rb");
    int error = file == nullptr ? errno : 0;
    struct stat info;
    // fopen takes a directory; only the first read would fail, and with less to say.
    if (file != nullptr && fstat(fileno(file), &info) == 0 && S_ISDIR(info.st_mode)) {
        fclose(file);
        file = nullptr;
        error = EISDIR;
    }
    if (file == nullptr) {
        fprintf(stderr, "vxcamctl %s: cannot read '%s': %s\n", command, path, strerror(error));
    }
    return file;
}

bool ReadWholeFile(const char* command, const char* path, std::vector<uint8_t>* data) {
    FILE* file = OpenInput(command, path);
    if (file == nullptr) return false;
    struct stat info;
    bool tooLarge = fstat(fileno(file), &info) == 0 && S_ISREG(info.st_mode) &&
                    static_cast<uint64_t>(info.st_size) > UINT32_MAX;
    uint8_t chunk[65536];
    size_t got = 0;
    while (!tooLarge && (got = fread(chunk, 1, sizeof(chunk), file)) > 0) {
        data->insert(data->end(), chunk, chunk + got);
        tooLarge = data->size() > UINT32_MAX;
    }
    const int error = ferror(file) != 0 ? errno : 0;
    fclose(file);
    if (error != 0) {
        fprintf(stderr, "vxcamctl %s: cannot read '%s': %s\n", command, path, strerror(error));
        return false;
    }
    if (tooLarge) {
        fprintf(stderr, "vxcamctl %s: '%s' is larger than 4 GiB, which the library cannot take\n",
                command, path);
        return false;
    }
    return true;
}

bool CheckSysroot(const char* command, const char* directory) {
    struct stat info;
    int error = 0;
    if (stat(directory, &info) != 0) {
        error = errno;
    } else if (!S_ISDIR(info.st_mode)) {
        error = ENOTDIR;
    }
    if (error == 0) return true;
    UsageError(command, "cannot use sysroot '%s': %s", directory, strerror(error));
    return false;
}

}  // namespace vxcamctl

int main(int argc, char** argv) {
    ReleaseLoadLog();
    static const option kGlobalOptions[] = {
            {"sysroot", required_argument, nullptr, 's'},
            {"verbose", no_argument, nullptr, 'v'},
            {"help", no_argument, nullptr, 'h'},
            {nullptr, 0, nullptr, 0},
    };
    bool help = false;
    std::vector<const char*> rest;
    // --sysroot and -v took effect before the library loaded; here they are only checked.
    const bool parsed = vxcamctl::ParseOptions(
            nullptr, argc, argv, "+hv", kGlobalOptions,
            [&](int id, const char* value) {
                if (id == 'h') help = true;
                return id != 's' || vxcamctl::CheckSysroot(nullptr, value);
            },
            &rest);
    if (!parsed) return vxcamctl::kExitUsage;
    if (help || (!rest.empty() && strcmp(rest[0], "help") == 0)) {
        PrintUsage(stdout);
        return vxcamctl::kExitOk;
    }
    if (rest.empty()) {
        PrintUsage(stderr);
        return vxcamctl::kExitUsage;
    }
    // With getopt's stop at the first operand nothing is permuted: the command ends argv.
    const int first = argc - static_cast<int>(rest.size());
    for (const Command& command : kCommands) {
        if (strcmp(rest[0], command.name) == 0) return command.run(argc - first, argv + first);
    }
    fprintf(stderr, "vxcamctl: unknown command '%s'\n\n", rest[0]);
    PrintUsage(stderr);
    return vxcamctl::kExitUsage;
}
