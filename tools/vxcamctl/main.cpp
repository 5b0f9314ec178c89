// vxcamctl: runs libvxcamcommonutils on a Linux host the way the camera HAL does on a device.
#include <errno.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

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
            "usage: vxcamctl COMMAND [OPTIONS]\n"
            "\n"
            "Runs libvxcamcommonutils on this host as the camera HAL does on a device. Device\n"
            "paths (/vendor/..., /data/vendor/camera) are taken under --sysroot DIR, or under\n"
            "$VXCAM_SYSROOT; system properties come from <sysroot>/vendor/build.prop.\n"
            "\n"
            "commands:\n");
    for (const Command& command : kCommands)
        fprintf(out, "  %-10s %s\n", command.name, command.summary);
    fprintf(out, "\n'vxcamctl COMMAND --help' describes a command.\n");
}

// The library loads its settings and system properties while it is being loaded, before main()
// runs, so --sysroot has to be in the environment by then. glibc calls an executable's
// .preinit_array before any shared library's initialiser, but also before its own, which resets
// the environment: so the option is applied by executing this program again with VXCAM_SYSROOT
// set. Nothing has been initialised or logged at that point; no allocation is made.
void ExportSysrootOption(int argc, char** argv, char** envp) {
    const char* directory = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--") == 0) break;
        if (strcmp(argv[i], "--sysroot") == 0 && i + 1 < argc) {
            directory = argv[i + 1];
        } else if (strncmp(argv[i], "--sysroot=", 10) == 0) {
            directory = argv[i] + 10;
        }
    }
    if (directory == nullptr) return;

    static char assignment[PATH_MAX + 32] = "VXCAM_SYSROOT=";
    const size_t prefix = strlen(assignment);
    if (realpath(directory, assignment + prefix) == nullptr) {
        strncpy(assignment + prefix, directory, sizeof(assignment) - prefix - 1);
    }
    static char* environment[4096];
    size_t count = 0;
    for (char** entry = envp; entry != nullptr && *entry != nullptr; ++entry) {
        if (strncmp(*entry, "VXCAM_SYSROOT=", prefix) == 0) {
            if (strcmp(*entry, assignment) == 0) return;  // already in force
            continue;
        }
        if (count + 2 >= sizeof(environment) / sizeof(environment[0])) return;
        environment[count++] = *entry;
    }
    environment[count++] = assignment;
    environment[count] = nullptr;
    execve("/proc/self/exe", argv, environment);
    // Should exec fail, go on: the library then reads the paths as they stand.
}

__attribute__((section(".preinit_array"),
               used)) void (*s_exportSysroot)(int, char**, char**) = ExportSysrootOption;

}  // namespace

namespace vxcamctl {

std::string CameraRoot() {
    const char* sysroot = getenv("VXCAM_SYSROOT");
    std::string root = sysroot != nullptr ? sysroot : "";
    while (!root.empty() && root.back() == '/') root.pop_back();
    return root + "/data/vendor/camera";
}

std::string Format(const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return text;
}

bool ReadWholeFile(const char* command, const char* path, std::vector<uint8_t>* data) {
    FILE* file = fopen(path, "rb");
    if (file == nullptr) {
        fprintf(stderr, "vxcamctl %s: cannot open '%s': %s\n", command, path, strerror(errno));
        return false;
    }
    uint8_t chunk[65536];
    size_t got = 0;
    bool tooLarge = false;
    while (!tooLarge && (got = fread(chunk, 1, sizeof(chunk), file)) > 0) {
        data->insert(data->end(), chunk, chunk + got);
        tooLarge = data->size() > UINT32_MAX;
    }
    const bool failed = ferror(file) != 0;
    fclose(file);
    if (failed) {
        fprintf(stderr, "vxcamctl %s: cannot read '%s'\n", command, path);
        return false;
    }
    if (tooLarge) {
        fprintf(stderr, "vxcamctl %s: '%s' is larger than 4 GiB, which the library cannot take\n",
                command, path);
        return false;
    }
    return true;
}

}  // namespace vxcamctl

int main(int argc, char** argv) {
    if (argc < 2) {
        PrintUsage(stderr);
        return vxcamctl::kExitUsage;
    }
    if (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0 ||
        strcmp(argv[1], "help") == 0) {
        PrintUsage(stdout);
        return vxcamctl::kExitOk;
    }
    for (const Command& command : kCommands) {
        if (strcmp(argv[1], command.name) == 0) return command.run(argc - 1, argv + 1);
    }
    fprintf(stderr, "vxcamctl: unknown command '%s'\n\n", argv[1]);
    PrintUsage(stderr);
    return vxcamctl::kExitUsage;
}
