// vxcamctl sysroot: a camera sysroot for a vxcamctl that runs outside its build folder.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "Commands.h"
#include "SysrootTemplate.h"

namespace vxcamctl {

namespace {

void PrintSysrootUsage(FILE* out) {
    fprintf(out,
            "usage: vxcamctl sysroot init DIR\n"
            "\n"
            "Makes DIR a camera sysroot, as the build folder's sysroot is: DIR/data/vendor/camera\n"
            "(where the offline logs go), DIR/vendor/etc/camera (the override settings file),\n"
            "DIR/vendor/lib64 (prebuilt libraries) and DIR/vendor/build.prop (system properties,\n"
            "with offline logging on). What is there already is left as it is. Then give\n"
            "--sysroot DIR to the other commands.\n"
            "\n"
            "options:\n"
            "  --help         show this text\n");
}

// A mistake in the action is shown with the usage, which is short and says what it wants.
int ActionError(const char* command, const std::string& message) {
    UsageError(command, "%s\n", message.c_str());
    PrintSysrootUsage(stderr);
    return kExitUsage;
}

// mkdir -p. Says on stderr which folder could not be made, and why.
bool MakeFolders(const std::string& path, bool* made) {
    *made = false;
    for (size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
        const std::string folder = path.substr(0, end);
        if (mkdir(folder.c_str(), 0755) == 0) {
            *made = true;
        } else {
            struct stat info;
            if (errno != EEXIST || stat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
                fprintf(stderr, "vxcamctl sysroot init: cannot make the folder '%s': %s\n",
                        folder.c_str(),
                        errno == EEXIST ? "a file of that name exists" : strerror(errno));
                return false;
            }
        }
        if (end == std::string::npos) return true;
    }
}

int Init(const char* directory) {
    std::string root = directory;
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    bool made = false;
    if (!MakeFolders(root, &made)) return kExitUsage;
    char resolved[PATH_MAX];
    if (realpath(root.c_str(), resolved) != nullptr) root = resolved;
    if (root == "/") root.clear();

    printf("sysroot %s\n", root.empty() ? "/" : root.c_str());
    for (const char* folder : kSysrootFolders) {
        if (!MakeFolders(root + "/" + folder, &made)) return kExitUsage;
        printf("  %-20s %s\n", (std::string(folder) + "/").c_str(), made ? "made" : "kept");
    }
    // O_EXCL: a build.prop someone has edited stays theirs.
    const std::string buildProp = root + "/vendor/build.prop";
    const int fd = open(buildProp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0 && errno != EEXIST) {
        fprintf(stderr, "vxcamctl sysroot init: cannot write '%s': %s\n", buildProp.c_str(),
                strerror(errno));
        return kExitUsage;
    }
    if (fd >= 0) {
        const size_t length = strlen(kSysrootBuildProp);
        const bool written = write(fd, kSysrootBuildProp, length) == static_cast<ssize_t>(length);
        const int writeError = errno;
        if (close(fd) != 0 || !written) {
            fprintf(stderr, "vxcamctl sysroot init: cannot write '%s': %s\n", buildProp.c_str(),
                    strerror(written ? errno : writeError));
            unlink(buildProp.c_str());
            return kExitUsage;
        }
    }
    printf("  %-20s %s\n", "vendor/build.prop", fd >= 0 ? "made" : "kept");
    printf("next: vxcamctl session --sysroot %s\n", root.empty() ? "/" : root.c_str());
    return kExitOk;
}

}  // namespace

int RunSysroot(int argc, char** argv) {
    std::vector<const char*> operands;
    int status = kExitOk;
    if (!ParseOperands("sysroot", argc, argv, PrintSysrootUsage, &operands, &status)) return status;
    if (operands.empty()) return ActionError("sysroot", "an action is needed: init DIR");
    if (strcmp(operands[0], "init") != 0) {
        return ActionError("sysroot",
                           Format("unknown action '%s' (the one action is init)", operands[0]));
    }
    if (operands.size() < 2) return ActionError("sysroot init", "DIR is needed");
    if (operands.size() > 2) {
        return ActionError("sysroot init", Format("unexpected argument '%s'", operands[2]));
    }
    if (operands[1][0] == '\0') return ActionError("sysroot init", "DIR is empty");
    return Init(operands[1]);
}

}  // namespace vxcamctl
