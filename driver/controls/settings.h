// Part 3.1: the persistent settings store - the settings record
// `DeviceProperty` (35 slots addressed by 16-bit `PropertyId`s), the
// "SWSetting" bit array, and `RegistryKeyPath`, the small registry layer over
// the service key "\Registry\MACHINE\SYSTEM\CurrentControlSet\Services\USBKV".
// The device-level routines (InitDeviceSettings, CheckReadDef, InitLastValue,
// Load/SavePropertySet ...) are CCaptureDevice members, declared in
// device/device.h inside the Part 3.1 block and defined in settings.cpp.
#pragma once

#include "wdk.h"
#include "pooltag.h"

// ---- Pool tags (Overview "Conventions": the tag's bytes in memory read as
// the four characters). The Parts give "KVaT" for registry buffers; the
// settings record has no tag of its own in the spec, and as the in-memory
// image of the registry store it takes the same tag.
constexpr ULONG KV_TAG_REGISTRY = kv::PoolTag("KVaT");

// ---- PropertyId: a camera control's id is its UVC wValue (selector << 8);
// the driver's own options use 0x0606-0x0660 and 0x0905-0x0918.
typedef USHORT PropertyId;

enum : USHORT {
    // Camera controls (PU = processing unit, CT = camera terminal).
    PROPID_BACKLIGHT = 0x0100,          // PU
    PROPID_BRIGHTNESS = 0x0200,         // PU
    PROPID_CONTRAST = 0x0300,           // PU
    PROPID_EXPOSURE_TIME = 0x0400,      // CT exposure time absolute, 4 bytes
    PROPID_POWER_LINE = 0x0500,         // PU, 1-byte control sent as 2
    PROPID_HUE = 0x0600,                // PU
    PROPID_SATURATION = 0x0700,         // PU
    PROPID_SHARPNESS = 0x0800,          // PU
    PROPID_GAMMA = 0x0900,              // PU
    PROPID_WB_TEMPERATURE = 0x0A00,     // PU
    PROPID_WB_AUTO = 0x0B00,            // PU
    PROPID_AUTO_EXPOSURE = 0x0C00,      // CT auto-exposure mode (wValue 0x0200)
    // Driver options.
    PROPID_VFLIP = 0x0606,
    PROPID_MIRROR = 0x0607,
    PROPID_PU_BITMAP = 0x0608,          // read only: ProcessingUnitControls
    PROPID_CT_BITMAP = 0x0609,          // read only: CameraTerminalControls
    PROPID_ROTATE = 0x060A,
    PROPID_SPECIAL_EFFECT = 0x060F,
    PROPID_SPECIAL_FRAME = 0x0610,
    PROPID_TRACKING_METHOD = 0x0635,
    PROPID_TRACKING_0636 = 0x0636,
    PROPID_TRACKING_0637 = 0x0637,
    PROPID_TRACKING_0638 = 0x0638,
    PROPID_PIN_RUNNING = 0x0639,        // read only: capture pin running flag
    PROPID_TRACKING_063A = 0x063A,
    PROPID_TRACKING_063B = 0x063B,
    PROPID_TRACKING_063F = 0x063F,
    PROPID_OPTION_0640 = 0x0640,
    PROPID_DEAD_PIXEL = 0x0655,
    PROPID_CONTROL_READY = 0x0660,      // read only
    PROPID_SWSETTING_OPTION = 0x0905,
    PROPID_SAVE_CUSTOMER = 0x0906,
    PROPID_LOAD_CUSTOMER = 0x0907,
    PROPID_EXTENSION_OPTION = 0x0909,
    PROPID_SELF_TIMER = 0x090B,
    PROPID_DEFAULT_ORIENTATION = 0x0915,
    PROPID_DEFAULT_EFFECTS = 0x0916,
    PROPID_RESET_TRACKING = 0x0917,
    PROPID_ONE_SHOT = 0x0918,
};

// ---- DeviceProperty: 35 signed 32-bit slots (140 bytes). Slot numbers as
// Part 3.1's table; slots 30-32 are not addressed by any id.
enum : ULONG {
    SLOT_BRIGHTNESS = 0,
    SLOT_CONTRAST = 1,
    SLOT_SATURATION = 2,
    SLOT_SHARPNESS = 3,
    SLOT_HUE = 4,
    SLOT_GAMMA = 5,
    SLOT_POWER_LINE = 6,
    SLOT_AUTO_EXPOSURE = 7,
    SLOT_WB_TEMPERATURE = 8,
    SLOT_WB_AUTO = 9,
    SLOT_EXPOSURE_TIME = 10,  // also persisted as "Gain" (Part 3.1's deliberate oddity)
    SLOT_BACKLIGHT = 11,
    SLOT_ROTATE = 12,
    SLOT_VFLIP = 13,
    SLOT_MIRROR = 14,
    SLOT_DEAD_PIXEL = 15,
    SLOT_SWSETTING_OPTION = 16,
    SLOT_SPECIAL_EFFECT = 17,
    SLOT_SPECIAL_FRAME = 18,
    SLOT_TRACKING_METHOD = 19,
    SLOT_TRACKING_0637 = 20,
    SLOT_TRACKING_0636 = 21,
    SLOT_TRACKING_063A = 22,
    SLOT_TRACKING_063B = 23,  // 23-27: ids 0x063B-0x063F
    SLOT_TRACKING_0638 = 28,
    SLOT_OPTION_0640 = 29,
    SLOT_EXTENSION_OPTION = 33,
    SLOT_SELF_TIMER = 34,
    DEVICE_PROPERTY_SLOTS = 35,
};

struct DeviceProperty {
    LONG Slot[DEVICE_PROPERTY_SLOTS];
};
static_assert(sizeof(DeviceProperty) == 140, "Part 3.1: DeviceProperty is 140 bytes");

// The self-timer slot's "not supported" marker (SetDeviceProperty 0x090B).
constexpr LONG SELF_TIMER_NOT_SUPPORTED = -2;

// Which saved set LoadPropertySet / SavePropertySet address.
enum PropertySetKind { PropertySetLast, PropertySetCustomer };

// ---- "SWSetting": three bytes, bit n is bit (n mod 8) of byte n div 8.
constexpr ULONG SWSETTING_BYTES = 3;
inline bool SwSettingBit(const UCHAR* pSwSetting, ULONG n)
{
    return ((pSwSetting[n / 8] >> (n % 8)) & 1) != 0;
}
enum : ULONG {
    SWBIT_IDLE_POWER = 0,       // copied into m_IdlePowerEnabled
    SWBIT_OPTION_0905 = 13,     // initial value of slot 16
    SWBIT_MIRROR = 14,
    SWBIT_VFLIP = 15,
    SWBIT_DEAD_PIXEL = 16,
};

// ---- RegistryKeyPath (Part 3.1 "Registry layer"): an open key handle, a
// 256-byte path buffer and a counted string over it. Created on the stack of
// each routine that touches the registry and closed before that routine
// returns (the destructor closes too, so no path leaves a handle open).
// Every operation except OpenRoot returns STATUS_INVALID_HANDLE without
// touching the registry when the handle is null. PASSIVE_LEVEL only.
class RegistryKeyPath {
public:
    RegistryKeyPath();
    ~RegistryKeyPath();
    RegistryKeyPath(const RegistryKeyPath&) = delete;
    RegistryKeyPath& operator=(const RegistryKeyPath&) = delete;

    // Root path + subkey (L"\\USBKV"), ZwOpenKey with KEY_ALL_ACCESS,
    // OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE; on failure the handle is null.
    NTSTATUS OpenRoot(PCWSTR pSubkey);
    NTSTATUS Close();
    NTSTATUS Reopen();
    // Appends pName (which may hold several components) and reopens.
    NTSTATUS OpenSubkey(PCWSTR pName);
    // Drops the LAST path component only (pName is not used) and reopens.
    NTSTATUS CloseSubkey(PCWSTR pName);
    NTSTATUS WriteDword(PCWSTR pName, ULONG Value);
    NTSTATUS ReadDword(PCWSTR pName, PULONG pValue);
    // Copies the data only when the call succeeds and it fits pLength's
    // capacity (then *pLength = data length); a longer value is not copied,
    // *pLength is left unchanged and STATUS_BUFFER_OVERFLOW is returned.
    NTSTATUS ReadRaw(PCWSTR pName, PVOID pBuffer, PULONG pLength);
    // REG_SZ of (Count + 1) * 2 bytes: the units and a terminating zero.
    NTSTATUS WriteString(PCWSTR pName, PCWSTR pText, ULONG Count);

    HANDLE KeyHandle() const { return m_hKey; }
    const UNICODE_STRING& Path() const { return m_Path; }

private:
    NTSTATUS OpenPath();

    HANDLE m_hKey;
    WCHAR m_PathBuffer[128];  // 256 bytes including the terminator
    UNICODE_STRING m_Path;
};

// Registry names (UTF-16), as Part 3.1 spells them.
#define KV_REGISTRY_ROOT L"\\Registry\\MACHINE\\SYSTEM\\CurrentControlSet\\Services"
#define KV_REGISTRY_SERVICE L"\\USBKV"
#define KV_REGISTRY_DATA L"\\Data"
#define KV_REGISTRY_DEFAULT L"\\Property\\Default"
#define KV_REGISTRY_LAST L"\\Property\\Last"
#define KV_REGISTRY_CUSTOMER L"\\Property\\Customer"
