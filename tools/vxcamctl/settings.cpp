// vxcamctl settings: the effective settings, and a lint for override files.
#include <ctype.h>
#include <dlfcn.h>
#include <errno.h>
#include <limits.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include <cutils/properties.h>

#include "Commands.h"
#include "VxCamSettingCatalogue.h"
#include "VxCamStaticSetting.h"

namespace vxcamctl {

namespace {

using VxCam::kSettingCatalogue;
using VxCam::SettingDefault;

const char* KindName(VxCam::SettingValueType type) {
    switch (type) {
        case VxCam::Integer:
            return "Integer";
        case VxCam::Float:
            return "Float";
        case VxCam::String:
            return "String";
        case VxCam::Integer64:
            return "Integer64";
        case VxCam::Custom:
            return "Custom";
    }
    return "?";
}

std::string IntegerText(const SettingDefault& row, unsigned long long value) {
    if (row.radix == 16) return Format("0x%llx", value);
    return Format("%llu", value);
}

std::string DefaultText(const SettingDefault& row) {
    switch (row.type) {
        case VxCam::Integer:
        case VxCam::Integer64:
            return IntegerText(row, row.integerValue);
        case VxCam::Float:
            return Format("%f", static_cast<double>(row.floatValue));
        case VxCam::String:
            return Format("\"%s\"", row.text);
        case VxCam::Custom:
            return row.text;
    }
    return "";
}

std::string EffectiveText(const SettingDefault& row) {
    const VxCam::VxCamStaticSetting* settings = VxCam::VxCamStaticSetting::GetInstance();
    switch (row.type) {
        case VxCam::Integer:
            return IntegerText(row, settings->GetPorpertyIntegerValue(row.name));
        case VxCam::Integer64:
            return IntegerText(row, settings->GetPorpertyInteger64Value(row.name));
        case VxCam::Float:
            return Format("%f", static_cast<double>(settings->GetPorpertyFloatValue(row.name)));
        case VxCam::String:
            return "\"" + settings->GetPorpertyStringValue(row.name) + "\"";
        case VxCam::Custom: {
            const auto* slots =
                    static_cast<const int32_t*>(settings->GetPorpertyCustomValue(row.name));
            if (slots == nullptr) return "(not registered)";
            std::string text;
            for (size_t i = 0; i < VxCam::kCameraPositionCount; ++i) {
                text += (i == 0 ? "" : ",") + std::to_string(slots[i]);
            }
            return text;
        }
    }
    return "";
}

// ---- The override-file lint ----------------------------------------------------------------

size_t EditDistance(const std::string& a, const std::string& b) {
    std::vector<size_t> previous(b.size() + 1), current(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) previous[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        current[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const bool same = tolower(static_cast<unsigned char>(a[i - 1])) ==
                              tolower(static_cast<unsigned char>(b[j - 1]));
            current[j] = std::min(
                    {previous[j] + 1, current[j - 1] + 1, previous[j - 1] + (same ? 0 : 1)});
        }
        std::swap(previous, current);
    }
    return previous[b.size()];
}

const char* NearestName(const std::string& key) {
    const char* best = kSettingCatalogue[0].name;
    size_t bestDistance = SIZE_MAX;
    for (const SettingDefault& row : kSettingCatalogue) {
        const size_t distance = EditDistance(key, row.name);
        if (distance < bestDistance) {
            bestDistance = distance;
            best = row.name;
        }
    }
    return best;
}

// The loader reads the file with fgets into kOverrideLineSize bytes: a longer line arrives in
// pieces, each read as a line of its own. Calls onLine(number, line) for each line of the file and
// onPiece(number, piece) for each read the loader makes of it. Returns the read error, or 0.
template <typename OnLine, typename OnPiece>
int ReadOverrideLines(FILE* file, OnLine onLine, OnPiece onPiece) {
    char* line = nullptr;
    size_t capacity = 0;
    ssize_t length = 0;
    unsigned lineNumber = 0;
    const size_t pieceSize = VxCam::kOverrideLineSize - 1;
    while ((length = getline(&line, &capacity, file)) >= 0) {
        ++lineNumber;
        const std::string whole(line, static_cast<size_t>(length));
        onLine(lineNumber, whole);
        for (size_t at = 0; at < whole.size(); at += pieceSize) {
            onPiece(lineNumber, whole.substr(at, pieceSize));
        }
    }
    const int error = ferror(file) != 0 ? errno : 0;
    free(line);
    return error;
}

class Linter {
  public:
    explicit Linter(const char* path) : m_path(path) {}

    // One piece as the loader's fgets hands it over.
    void CheckPiece(unsigned lineNumber, const std::string& piece) {
        m_lineNumber = lineNumber;
        char line[VxCam::kOverrideLineSize];
        VxCam::OsUtils::StrLCpy(line, piece.c_str(), sizeof(line));
        char compact[VxCam::kOverrideLineSize];
        char* key = nullptr;
        char* value = nullptr;
        if (!VxCam::ParseOverrideLine(line, compact, &key, &value)) {
            ReportSkipped(key);
            return;
        }
        std::string rest = AfterValue(piece, value);
        const int index = VxCam::FindSettingRow(key);
        if (index < 0) {
            Report("unknown key '%s' (nearest setting: '%s'): the library skips this line", key,
                   NearestName(key));
            return;
        }
        const SettingDefault& row = kSettingCatalogue[index];
        if (!rest.empty()) {
            Report("the value of '%s' is '%s': the text after the second '=' ('%s') is ignored",
                   key, value, rest.c_str());
        }
        auto seen = m_firstLine.find(row.name);
        if (seen != m_firstLine.end()) {
            Report("'%s' is set again (first on line %u): this line wins", row.name, seen->second);
        } else {
            m_firstLine.emplace(row.name, lineNumber);
        }
        CheckValue(row, value);
    }

    // A physical line longer than the loader's 127-character reads.
    void ReportLongLine(unsigned lineNumber, size_t length, size_t pieces) {
        m_lineNumber = lineNumber;
        Report("line is %zu characters long: the library reads at most %zu at once and takes it "
               "as %zu separate lines",
               length, VxCam::kOverrideLineSize - 1, pieces);
    }

    unsigned Findings() const { return m_findings; }

  private:
    void Report(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        char text[1024];
        va_list arguments;
        va_start(arguments, format);
        vsnprintf(text, sizeof(text), format, arguments);
        va_end(arguments);
        printf("%s:%u: %s\n", m_path, m_lineNumber, text);
        ++m_findings;
    }

    void ReportSkipped(const char* key) {
        if (key == nullptr || key[0] == ';') return;  // blank line or comment
        Report("'%s' has no value: the library skips this line", key);
    }

    // The loader keeps the text between the first and second run of '='; anything after is lost.
    static std::string AfterValue(const std::string& piece, const char* value) {
        std::string compact;
        for (char c : piece) {
            if (!isspace(static_cast<unsigned char>(c))) compact += c;
        }
        size_t at = compact.find_first_not_of('=');
        at = compact.find('=', at);               // end of the key
        at = compact.find_first_not_of('=', at);  // start of the value
        if (at == std::string::npos) return "";
        at += strlen(value);  // end of the value
        at = compact.find_first_not_of('=', at);
        return at == std::string::npos ? "" : compact.substr(at);
    }

    void CheckValue(const SettingDefault& row, const char* value) {
        switch (row.type) {
            case VxCam::Integer:
                CheckInteger(row, value);
                break;
            case VxCam::Integer64:
                CheckInteger64(row, value);
                break;
            case VxCam::Float:
                CheckFloat(row, value);
                break;
            case VxCam::Custom:
                CheckCameraPositions(value);
                break;
            case VxCam::String:
                break;
        }
    }

    bool CheckDigits(const SettingDefault& row, const char* value, const char* end, bool range,
                     const std::string& read) {
        if (end == value) {
            Report("'%s' for '%s' is not a base-%d number: the library reads 0", value, row.name,
                   row.radix);
            return false;
        }
        if (*end != '\0') {
            Report("'%s' for '%s' is not wholly a base-%d number: the library reads %s and "
                   "ignores '%s'",
                   value, row.name, row.radix, read.c_str(), end);
        }
        if (range) {
            Report("'%s' for '%s' is out of range: the library reads %s", value, row.name,
                   read.c_str());
        }
        return true;
    }

    void CheckInteger(const SettingDefault& row, const char* value) {
        errno = 0;
        char* end = nullptr;
        const long number = strtol(value, &end, row.radix);
        const bool range = errno == ERANGE;
        if (!CheckDigits(row, value, end, range, std::to_string(number))) return;
        const uint32_t stored = static_cast<uint32_t>(number);
        if (row.radix == 2) {
            if (stored != 0 && stored != 1) {
                Report("'%s' for '%s' reads as %ld in base 2, which is not 1: the library stores 0",
                       value, row.name, number);
            }
        } else if (!range && (number < 0 || number > static_cast<long>(UINT32_MAX))) {
            Report("'%s' for '%s' does not fit 32 unsigned bits: the library keeps %s", value,
                   row.name, IntegerText(row, stored).c_str());
        }
    }

    void CheckInteger64(const SettingDefault& row, const char* value) {
        errno = 0;
        char* end = nullptr;
        const unsigned long long number = strtoull(value, &end, row.radix);
        CheckDigits(row, value, end, errno == ERANGE, IntegerText(row, number));
    }

    void CheckFloat(const SettingDefault& row, const char* value) {
        char* end = nullptr;
        const double number = strtod(value, &end);
        if (end == value) {
            Report("'%s' for '%s' is not a number: the library reads 0.0", value, row.name);
        } else if (*end != '\0') {
            Report("'%s' for '%s' is not wholly a number: the library reads %f and ignores '%s'",
                   value, row.name, number, end);
        }
    }

    void CheckCameraPositions(const char* value) {
        size_t count = 0;
        VxCam::VisitCameraPositions(value, [&](const std::string& piece, long number, bool isNumber) {
            if (!isNumber) {
                Report("CameraPosition piece '%s' is not a number: the library ends the list "
                       "before it",
                       piece.c_str());
                return false;
            }
            if (number < INT32_MIN || number > INT32_MAX) {
                Report("CameraPosition value %ld does not fit 32 bits: the library keeps %d",
                       number, static_cast<int32_t>(number));
            }
            ++count;
            return true;
        });
        if (count > VxCam::kCameraPositionCount) {
            Report("CameraPosition lists %zu values: the library keeps the first %zu", count,
                   VxCam::kCameraPositionCount);
        }
    }

    const char* m_path;
    unsigned m_lineNumber = 0;
    unsigned m_findings = 0;
    std::map<std::string, unsigned> m_firstLine;
};

int CheckOverrideFile(const char* path) {
    FILE* file = OpenInput("settings", path);
    if (file == nullptr) return kExitUsage;
    Linter linter(path);
    const size_t pieceSize = VxCam::kOverrideLineSize - 1;
    const int error = ReadOverrideLines(
            file,
            [&](unsigned lineNumber, const std::string& whole) {
                const size_t content =
                        whole.size() - (!whole.empty() && whole.back() == '\n' ? 1 : 0);
                if (content > pieceSize) {
                    linter.ReportLongLine(lineNumber, content,
                                          (whole.size() + pieceSize - 1) / pieceSize);
                }
            },
            [&](unsigned lineNumber, const std::string& piece) {
                linter.CheckPiece(lineNumber, piece);
            });
    fclose(file);
    if (error != 0) {
        fprintf(stderr, "vxcamctl settings: cannot read '%s': %s\n", path, strerror(error));
        return kExitUsage;
    }
    if (linter.Findings() == 0) {
        printf("%s: no problems found\n", path);
        return kExitOk;
    }
    printf("%s: %u problem%s found\n", path, linter.Findings(), linter.Findings() == 1 ? "" : "s");
    return kExitFindings;
}

// ---- The settings listing --------------------------------------------------------------------

// The host port's property calls, looked up at run time: the port is the library's dependency,
// not this program's, so the linker does not hand its names to vxcamctl.
struct PropertyCalls {
    decltype(&property_get) get =
            reinterpret_cast<decltype(&property_get)>(dlsym(RTLD_DEFAULT, "property_get"));
    decltype(&property_list) list =
            reinterpret_cast<decltype(&property_list)>(dlsym(RTLD_DEFAULT, "property_list"));
};

// Where each value came from. The loader keeps no record, so its layers are read again as it
// reads them: defaults, the feature overlay, the override file (last line wins), then properties.
// A value that neither the file nor a property set, yet differs from its default, can only come
// from the feature overlay.
struct Layers {
    std::string overridePath = DevicePath(VxCam::kOverrideSettingsPath);
    std::string overrideState;  // why the file was not read, if it was not
    unsigned fileLine[VxCam::kSettingCount] = {};
    bool property[VxCam::kSettingCount] = {};

    explicit Layers(const PropertyCalls& properties) {
        FILE* file = fopen(overridePath.c_str(), "r");
        if (file == nullptr) {
            overrideState = errno == ENOENT ? "absent" : Format("unreadable: %s", strerror(errno));
        } else {
            const int error = ReadOverrideLines(
                    file, [](unsigned, const std::string&) {},
                    [&](unsigned lineNumber, const std::string& piece) {
                        char line[VxCam::kOverrideLineSize];
                        VxCam::OsUtils::StrLCpy(line, piece.c_str(), sizeof(line));
                        char compact[VxCam::kOverrideLineSize];
                        char* key = nullptr;
                        char* value = nullptr;
                        if (!VxCam::ParseOverrideLine(line, compact, &key, &value)) return;
                        const int index = VxCam::FindSettingRow(key);
                        if (index >= 0) fileLine[index] = lineNumber;
                    });
            if (error != 0) overrideState = Format("unreadable: %s", strerror(error));
            fclose(file);
        }
        for (size_t i = 0; i < VxCam::kSettingCount && properties.get != nullptr; ++i) {
            const std::string name =
                    std::string(VxCam::kSettingPropertyPrefix) + kSettingCatalogue[i].name;
            char value[PROPERTY_VALUE_MAX];
            property[i] = properties.get(name.c_str(), value, "") > 0;
        }
    }

    std::string From(size_t index, bool isDefault) const {
        if (property[index]) return "property";
        if (fileLine[index] != 0) return Format("override:%u", fileLine[index]);
        return isDefault ? "default" : "feature";
    }
};

// A property under the settings' prefix that names no setting is a typo the library passes over
// in silence. Returns how many there are.
unsigned WarnAboutUnknownProperties(const PropertyCalls& properties) {
    if (properties.list == nullptr) return 0;
    std::vector<std::string> unknown;
    properties.list(
            [](const char* key, const char*, void* cookie) {
                const size_t prefix = strlen(VxCam::kSettingPropertyPrefix);
                if (strncmp(key, VxCam::kSettingPropertyPrefix, prefix) == 0 &&
                    VxCam::FindSettingRow(key + prefix) < 0) {
                    static_cast<std::vector<std::string>*>(cookie)->push_back(key);
                }
            },
            &unknown);
    for (const std::string& key : unknown) {
        fprintf(stderr,
                "vxcamctl settings: property '%s' names no setting (nearest setting: '%s'): the "
                "library ignores it\n",
                key.c_str(), NearestName(key.substr(strlen(VxCam::kSettingPropertyPrefix))));
    }
    return static_cast<unsigned>(unknown.size());
}

int PrintSettings() {
    const PropertyCalls properties;
    const Layers layers(properties);
    const char* sysroot = getenv("VXCAM_SYSROOT");
    printf("# settings as libvxcamcommonutils loaded them (sysroot: %s)\n",
           sysroot != nullptr && sysroot[0] != '\0' ? sysroot : "/");
    printf("# FROM, the layer each value came from, each layer over the one before:\n"
           "#   default\n"
           "#   feature        the maker's feature switches\n"
           "#   override:LINE  %s%s%s%s\n"
           "#   property       %s<NAME> in %s\n",
           layers.overridePath.c_str(), layers.overrideState.empty() ? "" : " (",
           layers.overrideState.c_str(), layers.overrideState.empty() ? "" : ")",
           VxCam::kSettingPropertyPrefix, DevicePath("/vendor/build.prop").c_str());
    printf("%-30s %-10s %-13s %s\n", "NAME", "KIND", "FROM", "VALUE");
    for (size_t i = 0; i < VxCam::kSettingCount; ++i) {
        const SettingDefault& row = kSettingCatalogue[i];
        const std::string effective = EffectiveText(row);
        const std::string builtIn = DefaultText(row);
        const std::string from = layers.From(i, effective == builtIn);
        if (effective == builtIn) {
            printf("%-30s %-10s %-13s %s\n", row.name, KindName(row.type), from.c_str(),
                   effective.c_str());
        } else {
            printf("%-30s %-10s %-13s %s  (default %s)\n", row.name, KindName(row.type),
                   from.c_str(), effective.c_str(), builtIn.c_str());
        }
    }
    return WarnAboutUnknownProperties(properties) == 0 ? kExitOk : kExitFindings;
}

void PrintSettingsUsage(FILE* out) {
    fprintf(out,
            "usage: vxcamctl settings [--sysroot DIR]\n"
            "       vxcamctl settings --check FILE\n"
            "\n"
            "Without --check, prints every setting as the library loaded it: built-in default,\n"
            "then the feature overlay, <sysroot>/vendor/etc/camera/vxcamoverridesettings.txt and\n"
            "the properties vendor.camera.vcf.<name> of <sysroot>/vendor/build.prop. FROM names\n"
            "the layer each value came from (override:LINE for a line of the file); values that\n"
            "differ from the built-in default show it in brackets. A property under\n"
            "vendor.camera.vcf. that names no setting is reported with the nearest name; exit\n"
            "status 1 then.\n"
            "\n"
            "With --check, reads FILE as the library reads an override file and reports, line by\n"
            "line, what it would skip or misread. Exit status 1 when anything was found.\n"
            "\n"
            "options:\n"
            "  --sysroot DIR  take device paths under DIR (default: $VXCAM_SYSROOT, else /)\n"
            "  --check FILE   lint FILE instead of printing the settings\n"
            "  -h, --help     show this text\n");
}

}  // namespace

int RunSettings(int argc, char** argv) {
    static const option kOptions[] = {
            {"check", required_argument, nullptr, 'c'},
            {"sysroot", required_argument, nullptr, 's'},
            {"help", no_argument, nullptr, 'h'},
            {nullptr, 0, nullptr, 0},
    };
    const char* checkFile = nullptr;
    bool help = false;
    std::vector<const char*> operands;
    // --sysroot took effect before the library loaded; here it is only checked.
    const bool parsed = ParseOptions(
            "settings", argc, argv, "h", kOptions,
            [&](int id, const char* value) {
                if (id == 'c') checkFile = value;
                if (id == 'h') help = true;
                return id != 's' || CheckSysroot("settings", value);
            },
            &operands);
    if (!parsed) return kExitUsage;
    if (help) {
        PrintSettingsUsage(stdout);
        return kExitOk;
    }
    if (!operands.empty()) {
        return UsageError("settings", "unexpected argument '%s': settings takes only options",
                          operands[0]);
    }
    if (checkFile != nullptr) return CheckOverrideFile(checkFile);
    return PrintSettings();
}

}  // namespace vxcamctl
