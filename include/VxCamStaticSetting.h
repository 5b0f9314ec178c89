// The registry of named camera settings.
//
// Built once while the library loads: built-in defaults, then the feature overlay, the override
// file "/vendor/etc/camera/vxcamoverridesettings.txt" and one system property per setting
// ("vendor.camera.vcf.<name>"), later layers winning. Read-only afterwards, so lookups take no
// lock. A lookup of an unknown name or of the wrong kind returns that kind's zero and logs nothing.
#ifndef VXCAM_STATIC_SETTING_H
#define VXCAM_STATIC_SETTING_H

#include <stdint.h>

#include <string>
#include <unordered_map>

#ifndef VXCAM_API
#define VXCAM_API __attribute__((visibility("default")))
#endif

namespace VxCam {

enum SettingValueType : int32_t {
    Integer = 0,    // low 32 bits of `value`, unsigned
    Float = 1,      // low 32 bits of `value`, IEEE single
    String = 2,     // `stringValue`
    Integer64 = 3,  // all of `value`
    Custom = 4,     // `stringValue`, parsed into a buffer of its own
};

struct VXCAM_API SettingValue {
    const char* name;
    std::string propertyName;
    SettingValueType type;
    int32_t radix;  // 2 (a switch: only exactly 1 is on), 10 or 16; -1 for strings
    uint64_t value;
    std::string stringValue;
    bool isCustom;

    ~SettingValue();
};

class VXCAM_API VxCamStaticSetting {
  public:
    // The one registry; never null.
    static VxCamStaticSetting* GetInstance();

    unsigned int GetPorpertyIntegerValue(char* name) const;
    unsigned long GetPorpertyInteger64Value(char* name) const;
    float GetPorpertyFloatValue(char* name) const;
    std::string GetPorpertyStringValue(char* name) const;
    // "CameraPosition": eight int32_t. The buffer stays the registry's.
    void* GetPorpertyCustomValue(char* name) const;

    // The same lookups for string literals.
    unsigned int GetPorpertyIntegerValue(const char* name) const {
        return GetPorpertyIntegerValue(const_cast<char*>(name));
    }
    unsigned long GetPorpertyInteger64Value(const char* name) const {
        return GetPorpertyInteger64Value(const_cast<char*>(name));
    }
    float GetPorpertyFloatValue(const char* name) const {
        return GetPorpertyFloatValue(const_cast<char*>(name));
    }
    std::string GetPorpertyStringValue(const char* name) const {
        return GetPorpertyStringValue(const_cast<char*>(name));
    }
    void* GetPorpertyCustomValue(const char* name) const {
        return GetPorpertyCustomValue(const_cast<char*>(name));
    }

    // Applies the override layers and registers every setting; runs once, while the library loads.
    void LoadOverrideSettings();
    static void OverlaySetting();

  private:
    __attribute__((visibility("hidden"))) VxCamStaticSetting();
    __attribute__((visibility("hidden"))) ~VxCamStaticSetting();
    VxCamStaticSetting(const VxCamStaticSetting&) = delete;
    VxCamStaticSetting& operator=(const VxCamStaticSetting&) = delete;

    // The three layers and the registration; LoadOverrideSettings keeps their failures inside.
    __attribute__((visibility("hidden"))) void LoadLayers();

    __attribute__((visibility("hidden"))) static VxCamStaticSetting s_instance;

    std::unordered_map<std::string, SettingValue*> m_settingMap;
    std::unordered_map<std::string, void*> m_customMap;  // malloc'ed buffers, owned
};

}  // namespace VxCam

#endif  // VXCAM_STATIC_SETTING_H
