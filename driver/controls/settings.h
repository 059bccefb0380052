// The persistent settings store: the settings record `DeviceProperty` (35
// slots addressed by 16-bit `PropertyId`s), the "SWSetting" bit array, the
// "\Data" values, and `RegistryKeyPath`, the small registry layer over the
// service key "\Registry\MACHINE\SYSTEM\CurrentControlSet\Services\USBKV".
// Settings persist there so that the last values return at the next start.
// Values reach the camera through a `PropertyAccess` (the control requests),
// which this store knows only as that interface.
#pragma once

#include "wdk.h"
#include "uvc.h"

class FormatTables;

// ---- PropertyId: a camera control's id is its UVC wValue (selector << 8);
// the driver's own options use 0x0606-0x0660 and 0x0905-0x0918.
typedef USHORT PropertyId;

enum : USHORT {
    // Camera controls (PU = processing unit, CT = camera terminal).
    PROPID_BACKLIGHT = UVC_PU_BACKLIGHT_COMPENSATION_CONTROL, // PU
    PROPID_BRIGHTNESS = UVC_PU_BRIGHTNESS_CONTROL, // PU
    PROPID_CONTRAST = UVC_PU_CONTRAST_CONTROL, // PU
    PROPID_EXPOSURE_TIME = UVC_CT_EXPOSURE_TIME_ABSOLUTE_CONTROL, // CT exposure time absolute, 4 bytes
    PROPID_POWER_LINE = UVC_PU_POWER_LINE_FREQUENCY_CONTROL, // PU, 1-byte control sent as 2
    PROPID_HUE = UVC_PU_HUE_CONTROL, // PU
    PROPID_SATURATION = UVC_PU_SATURATION_CONTROL, // PU
    PROPID_SHARPNESS = UVC_PU_SHARPNESS_CONTROL, // PU
    PROPID_GAMMA = UVC_PU_GAMMA_CONTROL, // PU
    PROPID_WB_TEMPERATURE = UVC_PU_WHITE_BALANCE_TEMPERATURE_CONTROL, // PU
    PROPID_WB_AUTO = UVC_PU_WHITE_BALANCE_TEMPERATURE_AUTO_CONTROL, // PU
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
    PROPID_ZOOM_LEVEL = 0x0638,         // 1 (whole picture) .. 62
    PROPID_PIN_RUNNING = 0x0639,        // read only: capture pin running flag
    PROPID_ZOOM_SWITCH = 0x063A,
    PROPID_PAN_UP = 0x063B,             // up, down, left, right: one step when 1
    PROPID_PAN_DOWN = 0x063C,
    PROPID_PAN_LEFT = 0x063D,
    PROPID_PAN_RIGHT = 0x063E,
    PROPID_PAN_RESET = 0x063F,          // 1 asks for the whole picture
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

// ---- DeviceProperty: 35 signed 32-bit slots (140 bytes). Slots 30-32 are
// not addressed by any id. Each slot is one aligned 32-bit word, written by
// property handlers and read by the frame thread without a lock.
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
    SLOT_EXPOSURE_TIME = 10,  // also persisted as "Gain": registries written by earlier installs keep it there
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
    SLOT_ZOOM_SWITCH = 22,
    SLOT_PAN_UP = 23,
    SLOT_PAN_DOWN = 24,
    SLOT_PAN_LEFT = 25,
    SLOT_PAN_RIGHT = 26,
    SLOT_PAN_RESET = 27,
    SLOT_ZOOM_LEVEL = 28,
    SLOT_OPTION_0640 = 29,
    SLOT_EXTENSION_OPTION = 33,
    SLOT_SELF_TIMER = 34,
    DEVICE_PROPERTY_SLOTS = 35,
};

struct DeviceProperty {
    LONG Slot[DEVICE_PROPERTY_SLOTS];
};
static_assert(sizeof(DeviceProperty) == 140, "DeviceProperty is 35 words");

// "DeviceExist" under "\Data": 1 while the device is started, 2 once stopped.
constexpr ULONG DEVICE_EXIST_STARTED = 1;
constexpr ULONG DEVICE_EXIST_STOPPED = 2;
// The face-tracking values the driver creates under "\Data" when missing.
constexpr ULONG TRACKING_WINDOW_SIZE_DEFAULT = 4;
constexpr ULONG TRACKING_FOCUS_DEFAULT = 2;
// The user's own photo frames: frame numbers 8-11, whose picture paths are
// "CustomerFrame1".."CustomerFrame4"; the driver-control property names
// them by index 7-11 (digits 0-4 of the value name).
constexpr ULONG CUSTOMER_FRAME_FIRST_INDEX = 7;
constexpr ULONG CUSTOMER_FRAME_LAST_INDEX = 11;
// The value name of index 7..11: "CustomerFrame" and the index's digit.
constexpr ULONG CUSTOMER_FRAME_NAME_UNITS = 24;
void CustomerFrameValueName(ULONG Index, WCHAR (&Name)[CUSTOMER_FRAME_NAME_UNITS]);

// Photo frame 11 is the last of the user's own frames; choosing it asks the
// frame loop to read its picture file again, since the user may have just
// named a new one.
constexpr LONG SPECIAL_FRAME_RELOAD = 11;

// The self-timer slot's "not supported" marker (SetDeviceProperty 0x090B).
constexpr LONG SELF_TIMER_NOT_SUPPORTED = -2;
// The longest countdown: one countdown picture per second, "VGA10.bmp" first.
constexpr LONG SELF_TIMER_MAX_SECONDS = 10;

// Which saved set LoadPropertySet / SavePropertySet address.
enum PropertySetKind { PropertySetLast, PropertySetCustomer };

// ---- "SWSetting": three bytes, bit n is bit (n mod 8) of byte n div 8.
constexpr ULONG SWSETTING_BYTES = 3;
// Mirror, vertical flip and dead-pixel correction enabled; idle power and
// option 0x0905 off.
constexpr UCHAR SWSETTING_DEFAULT[SWSETTING_BYTES] = {0x00, 0xC0, 0x01};
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

// ---- RegistryKeyPath: an open key handle, a 256-byte path buffer and a
// counted string over it. Created on the stack of
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

// Registry key names (UTF-16) under the service key.
#define KV_REGISTRY_ROOT L"\\Registry\\MACHINE\\SYSTEM\\CurrentControlSet\\Services"
#define KV_REGISTRY_SERVICE L"\\USBKV"
#define KV_REGISTRY_DATA L"\\Data"
#define KV_REGISTRY_DEFAULT L"\\Property\\Default"
#define KV_REGISTRY_LAST L"\\Property\\Last"
#define KV_REGISTRY_CUSTOMER L"\\Property\\Customer"

// The registry name a setting is persisted under, by PropertyId (null for
// the ids that are not persisted), and the id of a name: one home for both
// directions, the tables the load and save walks use.
PCWSTR SettingName(USHORT Id);
bool SettingIdForName(PCWSTR pName, PUSHORT pId);

// What loaded values go through: GetDeviceProperty reads camera defaults,
// SetDeviceProperty sends a value to the camera and keeps the record in step.
// Two routines and their context, not a class with virtual functions: the
// driver has no run-time type information and no vtables.
struct PropertyAccess {
    PVOID pContext;
    NTSTATUS (*pfnGetDeviceProperty)(PVOID pContext, USHORT Id, UCHAR Request, PLONG pValue);
    NTSTATUS (*pfnSetDeviceProperty)(PVOID pContext, USHORT Id, LONG Value);

    NTSTATUS GetDeviceProperty(USHORT Id, UCHAR Request, PLONG pValue) const
    {
        return pfnGetDeviceProperty(pContext, Id, Request, pValue);
    }
    NTSTATUS SetDeviceProperty(USHORT Id, LONG Value) const { return pfnSetDeviceProperty(pContext, Id, Value); }
};

// The device's settings: the record and the "\Data" values read at start.
// PASSIVE_LEVEL routines; registry failures are ignored and leave defaults.
class DeviceSettings {
public:
    DeviceSettings();
    ~DeviceSettings();
    DeviceSettings(const DeviceSettings&) = delete;
    DeviceSettings& operator=(const DeviceSettings&) = delete;

    // Where values go, and the control bitmaps that say which camera
    // controls exist.
    void Bind(const PropertyAccess& access, const FormatTables* pFormats);

    // Device start: reads "\Data", creates the two values the driver owns
    // there when missing, writes "DeviceExist" = 1 and creates the record.
    // `path` is open at the service key.
    NTSTATUS LoadDataKey(RegistryKeyPath& path);
    // Device stop writes "DeviceExist" = 2.
    NTSTATUS WriteDeviceExist(ULONG Value);
    // Capture pin start: when "ReadDef" differs from the processing unit's
    // bitmap, the camera's defaults are read again (InitLastValue).
    NTSTATUS CheckReadDef();
    BOOLEAN InitLastValue();  // 1 in every case
    NTSTATUS LoadPropertySet(ULONG Which);
    NTSTATUS SavePropertySet(ULONG Which);
    NTSTATUS LoadDefaultOrientation();
    NTSTATUS LoadDefaultEffects();
    NTSTATUS ResetTrackingAndTimer();
    NTSTATUS SaveSpecialFrameString(ULONG Index, PCWSTR pText, ULONG Count);
    bool SwBit(ULONG n) const { return SwSettingBit(m_SWSetting, n); }
    // Frees the record (a second call is harmless).
    void Release();

    DeviceProperty* m_Property;  // 140 bytes, "KVaT"
    ULONG m_BW;                  // "BW"
    UCHAR m_SWSetting[SWSETTING_BYTES];
    ULONG m_SaveFileMJPEG;
    ULONG m_SaveFileDroppedMJPEG;
    ULONG m_DropFrameCntVGA;
    ULONG m_Key1Function;
    ULONG m_Key2Function;
    ULONG m_TrackingWindowSize;  // 4 when absent
    ULONG m_TrackingFocus;       // 2 when absent
    // Flip, mirror and dead-pixel correction as the frame loop applies them:
    // the slot's value where "SWSetting" enables the feature, else 0.
    LONG m_EffectiveVflip;
    LONG m_EffectiveMirror;
    LONG m_EffectiveDeadPixel;
    LONG m_OneShotValue;  // id 0x0918, cleared by its read

private:
    PropertyAccess m_Access;
    const FormatTables* m_pFormats;
};
