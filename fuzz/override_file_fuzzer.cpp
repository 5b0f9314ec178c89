// The override-settings file on arbitrary contents, read by the loader's own code: the open file
// into freshly defaulted rows, then the "CameraPosition" list into its 32-byte buffer.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "VxCamSettingCatalogue.h"

namespace {

using VxCam::kSettingCatalogue;
using VxCam::kSettingCount;
using VxCam::SettingValue;

// Reads `contents` as the loader reads the file on the device, into `rows`.
void ApplyFile(const std::vector<char>& contents, SettingValue* rows) {
    std::vector<char> buffer(contents);
    buffer.push_back('\0');  // fmemopen wants a buffer even for an empty file
    FILE* file = fmemopen(buffer.data(), contents.size(), "r");
    FUZZ_CHECK(file != nullptr);
    VxCam::ApplyOverrideFile(file, rows);
    fclose(file);
}

bool SameRow(const SettingValue& a, const SettingValue& b) {
    return a.value == b.value && a.stringValue == b.stringValue;
}

void CheckRow(const SettingValue& row, size_t index) {
    const VxCam::SettingDefault& entry = kSettingCatalogue[index];
    // The file changes values only: what a row is stays as the catalogue says.
    FUZZ_CHECK(row.name == entry.name);
    FUZZ_CHECK(row.type == entry.type && row.radix == entry.radix);
    FUZZ_CHECK(row.isCustom == entry.isCustom);
    FUZZ_CHECK(row.propertyName.empty());
    switch (row.type) {
        case VxCam::Integer:
            FUZZ_CHECK(row.value <= UINT32_MAX);
            if (row.radix == 2) FUZZ_CHECK(row.value == 0 || row.value == 1);
            break;
        case VxCam::Float:
            FUZZ_CHECK(row.value <= UINT32_MAX);
            break;
        case VxCam::String:
        case VxCam::Custom:
            // A text value is one piece of one line: terminated where the string ends, no longer
            // than a line, with no white space and no separator left in it.
            FUZZ_CHECK(strlen(row.stringValue.c_str()) == row.stringValue.size());
            FUZZ_CHECK(row.stringValue.size() < VxCam::kOverrideLineSize);
            FUZZ_CHECK(row.stringValue.find_first_of(" \t\n\r\f\v=") == std::string::npos);
            break;
        case VxCam::Integer64:
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    vxcamfuzz::FormatEveryLineQuietly();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::vector<char> contents(data, data + size);
    std::vector<SettingValue> rows(kSettingCount);
    VxCam::FillSettingDefaults(rows.data());
    ApplyFile(contents, rows.data());
    for (size_t i = 0; i < kSettingCount; ++i) CheckRow(rows[i], i);

    // Each line sets its row from its own text alone, the last line winning: reading the same
    // file once more changes nothing.
    std::vector<SettingValue> again(rows);
    ApplyFile(contents, again.data());
    for (size_t i = 0; i < kSettingCount; ++i) FUZZ_CHECK(SameRow(rows[i], again[i]));

    // The registry's buffer for the list is exactly eight slots; ASan guards its end.
    const int index = VxCam::FindSettingRow(VxCam::kCameraPositionName);
    FUZZ_CHECK(index >= 0);
    auto* slots = static_cast<int32_t*>(malloc(VxCam::kCameraPositionCount * sizeof(int32_t)));
    FUZZ_CHECK(slots != nullptr);
    memset(slots, 0, VxCam::kCameraPositionCount * sizeof(int32_t));
    VxCam::ParseCameraPositions(rows[index].stringValue, slots);
    free(slots);
    return 0;
}
