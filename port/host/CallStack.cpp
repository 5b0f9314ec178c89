// android::CallStack on a host, to the declaration of Android's own <utils/CallStack.h>. Lines are
// laid out as debuggerd and libutilscallstack print them, so the same symbolization scripts work on
// both. Linked privately into the library, as String8.cpp is.
//
// The walk is the compiler runtime's own unwinder (<unwind.h>, in libgcc_s on every Linux
// toolchain), so that the port needs no unwinding library whose development package would exclude
// another's (Debian's libunwind-dev and LLVM's, which libc++-dev brings, cannot be installed
// together). Names come from each object's own symbol table, hidden functions included, as a
// device's unwinder finds them; the lookup reads the file with open/pread and small stack buffers,
// so it can run in a signal handler.

#include <utils/CallStack.h>

#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <inttypes.h>
#include <limits.h>
#include <link.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <unwind.h>

namespace android {

namespace {

constexpr size_t kMaxFrames = 64;

// A return address points after the call; stepping back into the call instruction makes the pc,
// and the symbol found for it, name the call site even when the call was a function's last
// instruction. The step is what Android's unwinder uses per architecture.
#if defined(__aarch64__) || defined(__riscv)
constexpr uint64_t kCallAdjustment = 4;
#elif defined(__arm__)
constexpr uint64_t kCallAdjustment = 2;
#else
constexpr uint64_t kCallAdjustment = 1;
#endif

struct RawFrame {
    uintptr_t ip;
    bool signalContext;  // the ip is the interrupted instruction itself, not a return address
};

struct Walk {
    RawFrame frames[kMaxFrames];
    size_t count;
};

_Unwind_Reason_Code CollectFrame(struct _Unwind_Context* context, void* argument) {
    Walk* walk = static_cast<Walk*>(argument);
    if (walk->count == kMaxFrames) return _URC_END_OF_STACK;
    int ipBeforeInstruction = 0;
    const uintptr_t ip = _Unwind_GetIPInfo(context, &ipBeforeInstruction);
    if (ip == 0) return _URC_END_OF_STACK;
    walk->frames[walk->count++] = {ip, ipBeforeInstruction != 0};
    return _URC_NO_REASON;
}

// glibc names the main program by argv[0], which may be relative or empty; a device names the
// file itself. Reading the link costs no allocation, so this stays usable in a signal handler.
const char* ObjectPath(const char* name, char* buffer, size_t size) {
    if (name == nullptr) return "<unknown>";
    if (name[0] != '/' && (name[0] == '\0' || strcmp(name, program_invocation_name) == 0)) {
        ssize_t length = readlink("/proc/self/exe", buffer, size - 1);
        if (length > 0 && static_cast<size_t>(length) < size - 1) {
            buffer[length] = '\0';
            return buffer;
        }
    }
    return name[0] != '\0' ? name : "<unknown>";
}

bool ReadAt(int fd, void* buffer, size_t size, uint64_t offset) {
    return pread(fd, buffer, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
}

// The function symbol of `path` that holds `address` (an address as the file's symbols give it):
// its name into `name` and the distance from its start into `offset`. The full symbol table when
// the file has one, else the dynamic one.
bool FindFunction(const char* path, uint64_t address, char* name, size_t nameSize,
                  uint64_t* offset) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool found = false;
    ElfW(Ehdr) header;
    if (ReadAt(fd, &header, sizeof(header), 0) && memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
        header.e_shentsize == sizeof(ElfW(Shdr))) {
        ElfW(Shdr) table = {};
        ElfW(Shdr) strings = {};
        for (unsigned pass = 0; pass < 2 && table.sh_size == 0; ++pass) {
            const uint32_t wanted = pass == 0 ? SHT_SYMTAB : SHT_DYNSYM;
            for (uint16_t i = 0; i < header.e_shnum; ++i) {
                ElfW(Shdr) section;
                if (!ReadAt(fd, &section, sizeof(section), header.e_shoff + i * sizeof(section)))
                    break;
                if (section.sh_type != wanted || section.sh_entsize != sizeof(ElfW(Sym))) continue;
                if (ReadAt(fd, &strings, sizeof(strings),
                           header.e_shoff + section.sh_link * sizeof(section))) {
                    table = section;
                }
                break;
            }
        }
        ElfW(Sym) symbols[32];
        ElfW(Sym) best = {};
        const size_t total = table.sh_size / sizeof(ElfW(Sym));
        for (size_t first = 0; first < total && !found; first += 32) {
            const size_t batch = total - first < 32 ? total - first : 32;
            if (!ReadAt(fd, symbols, batch * sizeof(ElfW(Sym)),
                        table.sh_offset + first * sizeof(ElfW(Sym))))
                break;
            for (size_t i = 0; i < batch; ++i) {
                const ElfW(Sym)& symbol = symbols[i];
                const unsigned type = ELF64_ST_TYPE(symbol.st_info);
                if ((type != STT_FUNC && type != STT_GNU_IFUNC) || symbol.st_shndx == SHN_UNDEF ||
                    address < symbol.st_value || address - symbol.st_value >= symbol.st_size) {
                    continue;
                }
                best = symbol;
                found = true;
                break;
            }
        }
        if (found) {
            const ssize_t length = pread(fd, name, nameSize - 1,
                                         static_cast<off_t>(strings.sh_offset + best.st_name));
            if (length > 0) {
                name[length] = '\0';
                *offset = address - best.st_value;
            }
            found = length > 0 && name[0] != '\0';
        }
    }
    close(fd);
    return found;
}

// One line of the device layout: "#00 pc 000000000001a2b4  /path/libx.so (Symbol+12)".
void FormatFrame(uint64_t pc, size_t index, String8* line) {
    const char* path = "<unknown>";
    char pathBuffer[512];
    uint64_t relativePc = pc;
    uint64_t symbolAddress = pc;
    Dl_info info = {};
    if (dladdr(reinterpret_cast<void*>(static_cast<uintptr_t>(pc)), &info) != 0 &&
        info.dli_fbase != nullptr) {
        relativePc = pc - reinterpret_cast<uintptr_t>(info.dli_fbase);
        path = ObjectPath(info.dli_fname, pathBuffer, sizeof(pathBuffer));
        // A position-independent object's symbols are relative to where it was loaded.
        const auto* header = static_cast<const ElfW(Ehdr)*>(info.dli_fbase);
        symbolAddress = header->e_type == ET_DYN ? relativePc : pc;
    }
    line->appendFormat("#%02zu pc %016" PRIx64 "  %s", index, relativePc, path);
    char name[512];
    uint64_t offset = 0;
    if (path[0] != '/' || !FindFunction(path, symbolAddress, name, sizeof(name), &offset)) return;
    int status = 0;
    char* demangled = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    line->appendFormat(" (%s+%" PRIu64 ")", status == 0 && demangled != nullptr ? demangled : name,
                       offset);
    free(demangled);
}

}  // namespace

CallStack::CallStack() {}

// Not inlined, so that this constructor is exactly one frame for the +1 below to leave out.
__attribute__((noinline)) CallStack::CallStack(const char* logtag, int32_t ignoreDepth) {
    // The constructor is one more frame between the caller and update, as in libutilscallstack.
    update(ignoreDepth < INT32_MAX ? ignoreDepth + 1 : ignoreDepth);
    log(logtag);
}

CallStack::~CallStack() {}

// Not inlined: the caller counts this function as the first of the frames to leave out.
__attribute__((noinline)) void CallStack::update(int32_t ignoreDepth, pid_t tid) {
    clear();
    // Only the calling thread can be walked from inside the process.
    if (tid != BACKTRACE_CURRENT_THREAD && tid != gettid()) return;

    Walk walk;
    walk.count = 0;
    _Unwind_Backtrace(CollectFrame, &walk);
    // The first frame the walk reports is this function's own.
    const size_t first = ignoreDepth > 0 ? static_cast<size_t>(ignoreDepth) : 0;
    for (size_t i = first; i < walk.count; ++i) {
        // A signal trampoline is entered by the kernel, not by a call: the frame just before an
        // interrupted one holds its exact pc, as the interrupted one does.
        const bool trampoline = i + 1 < walk.count && walk.frames[i + 1].signalContext;
        const bool exact = walk.frames[i].signalContext || trampoline;
        const uint64_t ip = walk.frames[i].ip;
        String8 line;
        FormatFrame(!exact && ip >= kCallAdjustment ? ip - kCallAdjustment : ip, mFrameLines.size(),
                    &line);
        if (mFrameLines.add(line) < 0) break;
    }
}

void CallStack::log(const char* logtag, android_LogPriority priority, const char* prefix) const {
    for (const String8& line : mFrameLines) {
        __android_log_print(priority, logtag, "%s%s", prefix != nullptr ? prefix : "", line.c_str());
    }
}

void CallStack::dump(int fd, int indent, const char* prefix) const {
    if (fd < 0) return;
    for (const String8& line : mFrameLines) {
        dprintf(fd, "%*s%s%s\n", indent > 0 ? indent : 0, "", prefix != nullptr ? prefix : "",
                line.c_str());
    }
}

String8 CallStack::toString(const char* prefix) const {
    String8 text;
    for (const String8& line : mFrameLines) {
        if (prefix != nullptr) text.append(prefix);
        text.append(line);
        text.append("\n");
    }
    return text;
}

}  // namespace android
