// The settings registry: built-in defaults, override layers, typed lookups.
#include "VxCamStaticSetting.h"

#include <stdlib.h>
#include <string.h>

#include <cutils/properties.h>
#include <log/log.h>
#include <vxf/VxFeature.h>

#include <string>

#include "VxCamCommonUtils.h"
#include "VxCamDebug.h"
#include "VxCamPortPath.h"
#include "VxCamSettingCatalogue.h"

namespace VxCam {

namespace {

constexpr const char kTag[] = "VxCam";
constexpr const char kSourceName[] = "VxCamStaticSetting";
constexpr int kTeleZoomFeature = 86;
constexpr size_t kOverlayRowCount = 10;
constexpr float kTeleZoomStartWithFeature = 3.0f;

// The rows live for the whole process; the registry's maps point into them.
SettingValue s_rows[kSettingCount];

// False until the registry's maps exist and again once they are destroyed: a lookup made from
// another static constructor or destructor finds an empty registry rather than a dead one.
bool s_registryLive = false;

uint64_t FloatToValue(float number) {
    uint32_t bits = 0;
    memcpy(&bits, &number, sizeof(bits));
    return bits;
}

float ValueToFloat(uint64_t value) {
    const uint32_t bits = static_cast<uint32_t>(value);
    float number = 0.0f;
    memcpy(&number, &bits, sizeof(number));
    return number;
}

// Radix 2 marks a switch: only a number that is exactly 1 turns it on ("11" is off).
uint32_t TextToInteger(const char* text, int radix) {
    const uint32_t low = static_cast<uint32_t>(strtol(text, nullptr, radix));
    if (radix == 2) return low == 1 ? 1 : 0;
    return low;
}

// Rows are always laid out in catalogue order (FillSettingDefaults).
SettingValue* FindRow(SettingValue* rows, const char* key) {
    const int index = FindSettingRow(key);
    return index >= 0 ? &rows[index] : nullptr;
}

// The value as text, in the form a property holding the same value would have.
std::string DefaultText(const SettingValue& row) {
    char text[64];
    switch (row.type) {
        case Integer:
            snprintf(text, sizeof(text), "%u", static_cast<uint32_t>(row.value));
            return text;
        case Float:
            snprintf(text, sizeof(text), "%f", static_cast<double>(ValueToFloat(row.value)));
            return text;
        case Integer64:
            snprintf(text, sizeof(text), "%llu", static_cast<unsigned long long>(row.value));
            return text;
        case String:
        case Custom:
            return row.stringValue;
    }
    return std::string();
}

void ApplyPropertyText(SettingValue& row, const char* text) {
    switch (row.type) {
        case Integer:
            row.value = TextToInteger(text, row.radix);
            break;
        case Float:
            row.value = FloatToValue(static_cast<float>(atof(text)));
            break;
        case String:
        case Custom:
            row.stringValue = text;
            break;
        case Integer64: {
            const unsigned long long number = strtoull(text, nullptr, row.radix);
            row.value = row.radix == 2 ? (number == 1 ? 1 : 0) : number;
            break;
        }
    }
}

// One line per setting at every load, so the log of each camera-provider start shows the
// configuration in force.
void LogEffectiveValue(const SettingValue& row) {
    const uint32_t low = static_cast<uint32_t>(row.value);
    switch (row.type) {
        case Integer:
            if (row.radix == 16) {
                __android_log_print(ANDROID_LOG_INFO, kTag, "%s:%d [Global Settings] %s = 0x%x",
                                    kSourceName, __LINE__, row.name, low);
            } else {
                __android_log_print(ANDROID_LOG_INFO, kTag, "%s:%d [Global Settings] %s = %u",
                                    kSourceName, __LINE__, row.name, low);
            }
            break;
        case Integer64:
            if (row.radix == 16) {
                __android_log_print(ANDROID_LOG_INFO, kTag, "%s:%d [Global Settings] %s = 0x%llx",
                                    kSourceName, __LINE__, row.name,
                                    static_cast<unsigned long long>(row.value));
            } else {
                __android_log_print(ANDROID_LOG_INFO, kTag, "%s:%d [Global Settings] %s = %u",
                                    kSourceName, __LINE__, row.name, low);
            }
            break;
        case Float:
            __android_log_print(ANDROID_LOG_INFO, kTag, "%s:%d [Global Settings] %s = %f",
                                kSourceName, __LINE__, row.name,
                                static_cast<double>(ValueToFloat(row.value)));
            break;
        case String:
        case Custom:
            __android_log_print(ANDROID_LOG_INFO, kTag, "%s:%d [Global Settings] %s = %s",
                                kSourceName, __LINE__, row.name, row.stringValue.c_str());
            break;
    }
}

void OverlayProperty(SettingValue& row) {
    if (row.type != Integer && row.type != Float && row.type != String && row.type != Integer64 &&
        row.type != Custom) {
        return;
    }
    const std::string defaultText = DefaultText(row);
    char text[PROPERTY_VALUE_MAX] = {};
    property_get(row.propertyName.c_str(), text, defaultText.c_str());
    // A property value holds at most PROPERTY_VALUE_MAX - 1 characters, and so does the default
    // that property_get hands back: a longer string setting must not read as changed, and be cut.
    if (defaultText.compare(0, PROPERTY_VALUE_MAX - 1, text) != 0) ApplyPropertyText(row, text);
    LogEffectiveValue(row);
}

// The maker's feature switches change built-in defaults before the file and properties do.
void ApplyFeatureOverlay() {
    SettingValue overlay[kOverlayRowCount] = {};
    if ((GetVxFeature(kTeleZoomFeature) & 1) != 0) {
        overlay[0].name = "TeleZoomStart";
        overlay[0].type = Float;
        overlay[0].radix = 10;
        overlay[0].value = FloatToValue(kTeleZoomStartWithFeature);
    }
    for (const SettingValue& change : overlay) {
        if (change.name == nullptr) continue;
        SettingValue* row = FindRow(s_rows, change.name);
        if (row == nullptr) continue;
        switch (row->type) {
            case Integer:
            case Float:
                row->value = static_cast<uint32_t>(change.value);
                break;
            case Integer64:
                row->value = change.value;
                break;
            case String:
            case Custom:
                row->stringValue = change.stringValue;
                break;
        }
    }
}

}  // namespace

SettingValue::~SettingValue() = default;

void FillSettingDefaults(SettingValue* rows) {
    for (size_t i = 0; i < kSettingCount; ++i) {
        const SettingDefault& entry = kSettingCatalogue[i];
        SettingValue& row = rows[i];
        row.name = entry.name;
        row.propertyName.clear();
        row.type = entry.type;
        row.radix = entry.radix;
        row.value = entry.type == Float ? FloatToValue(entry.floatValue) : entry.integerValue;
        row.stringValue = entry.text;
        row.isCustom = entry.isCustom;
    }
}

void ParseCameraPositions(const std::string& text, int32_t* slots) {
    size_t count = 0;
    VisitCameraPositions(text, [&](const std::string& piece, long number, bool isNumber) {
        if (count == kCameraPositionCount) {
            __android_log_print(ANDROID_LOG_WARN, kTag,
                                "%s():%d %s lists more than %zu values; the rest are ignored\n",
                                "LoadOverrideSettings", __LINE__, kCameraPositionName,
                                kCameraPositionCount);
            return false;
        }
        if (!isNumber) {
            __android_log_print(
                    ANDROID_LOG_ERROR, kTag,
                    "%s():%d %s value \"%s\" is not a number; the list ends before it\n",
                    "LoadOverrideSettings", __LINE__, kCameraPositionName, piece.c_str());
            return false;
        }
        slots[count++] = static_cast<int32_t>(number);
        return true;
    });
}

void ApplyOverrideFile(FILE* file, SettingValue* rows) {
    char line[kOverrideLineSize];
    while (fgets(line, sizeof(line), file) != nullptr) {
        char compact[kOverrideLineSize];
        char* key = nullptr;
        char* value = nullptr;
        if (!ParseOverrideLine(line, compact, &key, &value)) continue;
        SettingValue* row = FindRow(rows, key);
        if (row == nullptr) continue;
        switch (row->type) {
            case Integer:
                row->value = TextToInteger(value, row->radix);
                break;
            case Float:
                row->value = FloatToValue(static_cast<float>(atof(value)));
                break;
            case String:
            case Custom:
                row->stringValue = value;
                break;
            case Integer64:
                // Unlike the property layer, the file takes a radix-2 mask as the number it reads.
                row->value = strtoull(value, nullptr, row->radix);
                break;
            default:
                __android_log_print(ANDROID_LOG_ERROR, kTag, "%s():%d %s Unknow type %d\n",
                                    "LoadOverrideSettings", __LINE__, key,
                                    static_cast<int>(row->type));
                break;
        }
    }
}

VxCamStaticSetting VxCamStaticSetting::s_instance;

VxCamStaticSetting::VxCamStaticSetting() {
    m_settingMap.max_load_factor(1.0f);
    m_customMap.max_load_factor(1.0f);
    FillSettingDefaults(s_rows);
    s_registryLive = true;
    LoadOverrideSettings();
    Log::UpdateLogInfo();
}

VxCamStaticSetting::~VxCamStaticSetting() {
    s_registryLive = false;
    for (auto& entry : m_customMap) free(entry.second);
    m_customMap.clear();
    m_settingMap.clear();
}

VxCamStaticSetting* VxCamStaticSetting::GetInstance() {
    return &s_instance;
}

void VxCamStaticSetting::OverlaySetting() {
    try {
        ApplyFeatureOverlay();
    } catch (...) {
        // Only an allocation can fail here; the defaults stand.
    }
}

void VxCamStaticSetting::LoadOverrideSettings() {
    try {
        LoadLayers();
    } catch (...) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "%s():%d out of memory; settings incomplete\n",
                            __func__, __LINE__);
    }
}

void VxCamStaticSetting::LoadLayers() {
    const std::string path = VxCamPort::ResolveDevicePath(kOverrideSettingsPath);
    FILE* file = OsUtils::FOpen(path.c_str(), "r");
    OverlaySetting();
    for (SettingValue& row : s_rows) {
        row.propertyName.assign(kSettingPropertyPrefix).append(row.name);
    }
    if (file != nullptr) {
        __android_log_print(ANDROID_LOG_INFO, kTag,
                            "%s():%d Opening override settings text file: %s\n",
                            "LoadOverrideSettings", __LINE__, path.c_str());
        ApplyOverrideFile(file, s_rows);
        OsUtils::FClose(file);
    } else {
        __android_log_print(ANDROID_LOG_ERROR, kTag,
                            "%s():%d No override settings text file %s found\n",
                            "LoadOverrideSettings", __LINE__, path.c_str());
    }
    for (SettingValue& row : s_rows) {
        OverlayProperty(row);
        if (!row.isCustom) {
            m_settingMap.emplace(row.name, &row);
            continue;
        }
        if (strcmp(row.name, kCameraPositionName) != 0) continue;
        auto* slots = static_cast<int32_t*>(malloc(kCameraPositionCount * sizeof(int32_t)));
        if (slots == nullptr) continue;
        memset(slots, 0, kCameraPositionCount * sizeof(int32_t));
        ParseCameraPositions(row.stringValue, slots);
        if (!m_customMap.emplace(row.name, slots).second) free(slots);
    }
}

namespace {

const SettingValue* Lookup(const std::unordered_map<std::string, SettingValue*>& map,
                           const char* name, SettingValueType type) {
    if (!s_registryLive || name == nullptr) return nullptr;
    try {
        auto it = map.find(name);
        if (it == map.end() || it->second->type != type) return nullptr;
        return it->second;
    } catch (...) {
        return nullptr;
    }
}

}  // namespace

unsigned int VxCamStaticSetting::GetPorpertyIntegerValue(char* name) const {
    const SettingValue* row = Lookup(m_settingMap, name, Integer);
    return row != nullptr ? static_cast<uint32_t>(row->value) : 0;
}

unsigned long VxCamStaticSetting::GetPorpertyInteger64Value(char* name) const {
    const SettingValue* row = Lookup(m_settingMap, name, Integer64);
    return row != nullptr ? row->value : 0;
}

float VxCamStaticSetting::GetPorpertyFloatValue(char* name) const {
    const SettingValue* row = Lookup(m_settingMap, name, Float);
    return row != nullptr ? ValueToFloat(row->value) : 0.0f;
}

std::string VxCamStaticSetting::GetPorpertyStringValue(char* name) const {
    const SettingValue* row = Lookup(m_settingMap, name, String);
    try {
        return row != nullptr ? row->stringValue : std::string();
    } catch (...) {
        return std::string();
    }
}

void* VxCamStaticSetting::GetPorpertyCustomValue(char* name) const {
    if (!s_registryLive || name == nullptr) return nullptr;
    try {
        auto it = m_customMap.find(name);
        return it != m_customMap.end() ? it->second : nullptr;
    } catch (...) {
        return nullptr;
    }
}

}  // namespace VxCam
