// The persistent settings store: the registry layer (RegistryKeyPath) and
// the routines that read "\Data", keep the settings record `DeviceProperty`,
// and load and save the "\Property\..." sets.
//
// Choices worth knowing:
// - LoadPropertySet initialises its read buffer with the slot's current value
//   before each read, so a missing value re-applies what the record holds.
// - Values reach the camera as 16-bit signed numbers (low 16 bits,
//   sign-extended); the slot keeps the whole 32-bit value.
// - The raw read copies only when the data fits; a longer value is reported
//   as STATUS_BUFFER_OVERFLOW (as ZwQueryValueKey reports a value that does
//   not fit) and leaves the caller's buffer and length untouched.
// - WriteString takes its buffer from pool ("KVaT"): the text comes from an
//   application (the driver-control property) and may be long.
// - CheckReadDef above APC_LEVEL prints the pageable-code line and returns
//   without touching the registry (registry calls need PASSIVE_LEVEL).
#include "controls/settings.h"

#include "device/formats.h"
#include "pageable.h"
#include "pooltag.h"
#include "uvc.h"

using namespace kv;

namespace {

// Reads a "\Data" value into a zeroed word: the driver takes a value's data
// bytes whatever their type, so a value shorter than four bytes must not
// keep the upper bytes of the value read before it.
bool ReadDwordFresh(RegistryKeyPath& path, PCWSTR pName, PULONG pValue)
{
    *pValue = 0;
    return NT_SUCCESS(path.ReadDword(pName, pValue));
}

// Sign-extends a registry value's low 16 bits (the camera path's width).
LONG Low16(ULONG value)
{
    return static_cast<LONG>(static_cast<SHORT>(static_cast<USHORT>(value & 0xFFFF)));
}

// Camera-control names table: 14 UTF-16 names in fixed 40-unit slots,
// indexed by the position in the processing-unit walk. Only entries 0-6 are
// looked up here; the rest are the literals of kPuWalk (same texts).
const WCHAR g_ControlNames[14][40] = {
    L"Brightness", L"Contrast",   L"Hue",     L"Saturation", L"Sharpness", L"Gamma",    L"WhiteBalanceAETarget",
    L"fBacklight", L"Gain",       L"f60Hz",   L"fAE",        L"fAutoAWB",  L"SelfTimer", L"",
};

// One step of a control walk: the bitmap mask, the registry name, the id
// applied or read, the slot, and how InitLastValue treats it.
struct ControlWalkEntry {
    ULONG Mask;
    PCWSTR pName;
    USHORT Id;
    ULONG Slot;
    bool DefaultLowByte;  // InitLastValue keeps only the low byte
    bool ReadDefault;     // InitLastValue reads GET_DEF for it
};

// Processing-unit walk, in bmControls bit order; an entry counts only when
// the camera's bitmap has its bit.
const ControlWalkEntry kPuWalk[] = {
    {UVC_PU_BM_BRIGHTNESS, g_ControlNames[0], PROPID_BRIGHTNESS, SLOT_BRIGHTNESS, false, true},
    {UVC_PU_BM_CONTRAST, g_ControlNames[1], PROPID_CONTRAST, SLOT_CONTRAST, false, true},
    {UVC_PU_BM_HUE, g_ControlNames[2], PROPID_HUE, SLOT_HUE, false, true},
    {UVC_PU_BM_SATURATION, g_ControlNames[3], PROPID_SATURATION, SLOT_SATURATION, false, true},
    {UVC_PU_BM_SHARPNESS, g_ControlNames[4], PROPID_SHARPNESS, SLOT_SHARPNESS, false, true},
    {UVC_PU_BM_GAMMA, g_ControlNames[5], PROPID_GAMMA, SLOT_GAMMA, false, true},
    {UVC_PU_BM_WHITE_BALANCE_TEMPERATURE, g_ControlNames[6], PROPID_WB_TEMPERATURE, SLOT_WB_TEMPERATURE, false, true},
    {UVC_PU_BM_BACKLIGHT_COMPENSATION, L"fBacklight", PROPID_BACKLIGHT, SLOT_BACKLIGHT, false, true},
    // Gain: persisted from and applied to slot 10 as exposure time, and no
    // camera default is read for it: registries written by earlier installs
    // keep the exposure time under this name.
    {UVC_PU_BM_GAIN, L"Gain", PROPID_EXPOSURE_TIME, SLOT_EXPOSURE_TIME, false, false},
    {UVC_PU_BM_POWER_LINE_FREQUENCY, L"f60Hz", PROPID_POWER_LINE, SLOT_POWER_LINE, true, true},
    {UVC_PU_BM_WHITE_BALANCE_TEMPERATURE_AUTO, L"fAutoAWB", PROPID_WB_AUTO, SLOT_WB_AUTO, true, true},
};

// Camera-terminal walk.
const ControlWalkEntry kCtWalk[] = {
    {UVC_CT_BM_AE_MODE, L"fAE", PROPID_AUTO_EXPOSURE, SLOT_AUTO_EXPOSURE, false, true},
    {UVC_CT_BM_EXPOSURE_TIME_ABSOLUTE, L"AETarget", PROPID_EXPOSURE_TIME, SLOT_EXPOSURE_TIME, false, true},
};

// A driver option persisted by name.
struct OptionEntry {
    PCWSTR pName;
    USHORT Id;
    ULONG Slot;
};

// The options LoadPropertySet applies, in order.
const OptionEntry kLoadOptions[] = {
    {L"fRotate", PROPID_ROTATE, SLOT_ROTATE},
    {L"fVflip", PROPID_VFLIP, SLOT_VFLIP},
    {L"fMirror", PROPID_MIRROR, SLOT_MIRROR},
    {L"fDeadPixelCorrection", PROPID_DEAD_PIXEL, SLOT_DEAD_PIXEL},
    {L"SpecialEffectNo", PROPID_SPECIAL_EFFECT, SLOT_SPECIAL_EFFECT},
    {L"SpecialFrameNo", PROPID_SPECIAL_FRAME, SLOT_SPECIAL_FRAME},
    {L"SelfTimer", PROPID_SELF_TIMER, SLOT_SELF_TIMER},
    {L"TrackingMethod", PROPID_TRACKING_METHOD, SLOT_TRACKING_METHOD},
};

// SavePropertySet's fixed tail, in its own order.
const OptionEntry kSaveOptions[] = {
    {L"fRotate", PROPID_ROTATE, SLOT_ROTATE},
    {L"fVflip", PROPID_VFLIP, SLOT_VFLIP},
    {L"fMirror", PROPID_MIRROR, SLOT_MIRROR},
    {L"SpecialEffectNo", PROPID_SPECIAL_EFFECT, SLOT_SPECIAL_EFFECT},
    {L"SpecialFrameNo", PROPID_SPECIAL_FRAME, SLOT_SPECIAL_FRAME},
    {L"fDeadPixelCorrection", PROPID_DEAD_PIXEL, SLOT_DEAD_PIXEL},
    {L"SelfTimer", PROPID_SELF_TIMER, SLOT_SELF_TIMER},
    {L"TrackingMethod", PROPID_TRACKING_METHOD, SLOT_TRACKING_METHOD},
};

// "\Property\Default" sets.
const OptionEntry kDefaultOrientation[] = {
    {L"fRotate", PROPID_ROTATE, SLOT_ROTATE},
    {L"fVflip", PROPID_VFLIP, SLOT_VFLIP},
    {L"fMirror", PROPID_MIRROR, SLOT_MIRROR},
    {L"fDeadPixelCorrection", PROPID_DEAD_PIXEL, SLOT_DEAD_PIXEL},
};
const OptionEntry kDefaultEffects[] = {
    {L"SpecialEffectNo", PROPID_SPECIAL_EFFECT, SLOT_SPECIAL_EFFECT},
    {L"SpecialFrameNo", PROPID_SPECIAL_FRAME, SLOT_SPECIAL_FRAME},
};

// Initial slot values other than 0.
struct SlotInit {
    ULONG Slot;
    LONG Value;
};
const SlotInit kInitialSlots[] = {
    {SLOT_TRACKING_0636, 1}, {SLOT_PAN_UP, -1},    {SLOT_PAN_DOWN, -1},   {SLOT_PAN_LEFT, -1},
    {SLOT_PAN_RIGHT, -1},    {SLOT_PAN_RESET, -1}, {SLOT_ZOOM_LEVEL, 1}, {SLOT_SELF_TIMER, -1},
};

PCWSTR SetKeyName(ULONG which)
{
    return which == PropertySetCustomer ? KV_REGISTRY_CUSTOMER : KV_REGISTRY_LAST;
}

}  // namespace

// ---- RegistryKeyPath --------------------------------------------------------

RegistryKeyPath::RegistryKeyPath() : m_hKey(nullptr)
{
    m_PathBuffer[0] = 0;
    RtlInitEmptyUnicodeString(&m_Path, m_PathBuffer, sizeof(m_PathBuffer));
}

RegistryKeyPath::~RegistryKeyPath()
{
    Close();
}

NTSTATUS RegistryKeyPath::OpenPath()
{
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &m_Path, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE hKey = nullptr;
    NTSTATUS status = ZwOpenKey(&hKey, KEY_ALL_ACCESS, &attributes);
    m_hKey = NT_SUCCESS(status) ? hKey : nullptr;
    return status;
}

// The root path, then the subkey (L"\\USBKV").
NTSTATUS RegistryKeyPath::OpenRoot(PCWSTR pSubkey)
{
    Close();
    m_Path.Length = 0;
    NTSTATUS status = RtlAppendUnicodeToString(&m_Path, KV_REGISTRY_ROOT);
    if (NT_SUCCESS(status)) {
        status = RtlAppendUnicodeToString(&m_Path, pSubkey);
    }
    if (!NT_SUCCESS(status)) {
        DbgPrint("RegistryKeyPath::OpenRoot: path too long (0x%x)\n", status);
        return status;
    }
    return OpenPath();
}

NTSTATUS RegistryKeyPath::Close()
{
    if (m_hKey == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    NTSTATUS status = ZwClose(m_hKey);
    m_hKey = nullptr;
    return status;
}

NTSTATUS RegistryKeyPath::Reopen()
{
    if (m_hKey == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    Close();
    return OpenPath();
}

NTSTATUS RegistryKeyPath::OpenSubkey(PCWSTR pName)
{
    if (m_hKey == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    NTSTATUS status = RtlAppendUnicodeToString(&m_Path, pName);
    if (!NT_SUCCESS(status)) {
        DbgPrint("RegistryKeyPath::OpenSubkey: path too long (0x%x)\n", status);
        return status;
    }
    return Reopen();
}

// Removes only the last component: after "\Property\Last" the path names the
// key Property below "\USBKV". The name is not used: callers pass the name
// they opened, and a path always loses exactly one component.
NTSTATUS RegistryKeyPath::CloseSubkey(PCWSTR pName)
{
    UNREFERENCED_PARAMETER(pName);
    if (m_hKey == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    USHORT units = m_Path.Length / sizeof(WCHAR);
    while (units > 0 && m_PathBuffer[units - 1] != L'\\') {
        --units;
    }
    if (units > 0) {
        --units;  // the backslash itself
    }
    m_Path.Length = static_cast<USHORT>(units * sizeof(WCHAR));
    return Reopen();
}

NTSTATUS RegistryKeyPath::WriteDword(PCWSTR pName, ULONG Value)
{
    if (m_hKey == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, pName);
    return ZwSetValueKey(m_hKey, &name, 0, REG_DWORD, &Value, sizeof(Value));
}

NTSTATUS RegistryKeyPath::ReadDword(PCWSTR pName, PULONG pValue)
{
    ULONG length = sizeof(ULONG);
    return ReadRaw(pName, pValue, &length);
}

NTSTATUS RegistryKeyPath::ReadRaw(PCWSTR pName, PVOID pBuffer, PULONG pLength)
{
    if (m_hKey == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    const ULONG capacity = *pLength;
    const ULONG infoSize = capacity + 16;
    auto pInfo = static_cast<PKEY_VALUE_PARTIAL_INFORMATION>(
        ExAllocatePoolWithTag(NonPagedPoolNx, infoSize, kTagRegistry));
    if (pInfo == nullptr) {
        DbgPrint("RegistryKeyPath::ReadRaw: Failed to allocate memory\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, pName);
    ULONG resultLength = 0;
    NTSTATUS status = ZwQueryValueKey(m_hKey, &name, KeyValuePartialInformation, pInfo, infoSize, &resultLength);
    if (NT_SUCCESS(status)) {
        if (pInfo->DataLength <= capacity) {
            RtlCopyMemory(pBuffer, pInfo->Data, pInfo->DataLength);
            *pLength = pInfo->DataLength;
        } else {
            status = STATUS_BUFFER_OVERFLOW;
        }
    }
    ExFreePoolWithTag(pInfo, kTagRegistry);
    return status;
}

NTSTATUS RegistryKeyPath::WriteString(PCWSTR pName, PCWSTR pText, ULONG Count)
{
    if (m_hKey == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    if (Count >= 0x7FFFFFFF / sizeof(WCHAR)) {
        return STATUS_INVALID_PARAMETER;
    }
    const ULONG bytes = (Count + 1) * sizeof(WCHAR);
    auto pCopy = static_cast<PWCHAR>(ExAllocatePoolWithTag(NonPagedPoolNx, bytes, kTagRegistry));
    if (pCopy == nullptr) {
        DbgPrint("RegistryKeyPath::WriteString: Failed to allocate memory\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(pCopy, pText, Count * sizeof(WCHAR));
    pCopy[Count] = 0;
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, pName);
    NTSTATUS status = ZwSetValueKey(m_hKey, &name, 0, REG_SZ, pCopy, bytes);
    ExFreePoolWithTag(pCopy, kTagRegistry);
    return status;
}

// ---- Device routines --------------------------------------------------------

DeviceSettings::DeviceSettings()
    : m_Property(nullptr),
      m_BW(0),
      m_SWSetting{SWSETTING_DEFAULT[0], SWSETTING_DEFAULT[1], SWSETTING_DEFAULT[2]},
      m_SaveFileMJPEG(0),
      m_SaveFileDroppedMJPEG(0),
      m_DropFrameCntVGA(0),
      m_Key1Function(0),
      m_Key2Function(0),
      m_TrackingWindowSize(0),
      m_TrackingFocus(0),
      m_EffectiveVflip(0),
      m_EffectiveMirror(0),
      m_EffectiveDeadPixel(0),
      m_OneShotValue(0),
      m_Access(),
      m_pFormats(nullptr)
{
}

DeviceSettings::~DeviceSettings()
{
    Release();
}

void DeviceSettings::Bind(const PropertyAccess& access, const FormatTables* pFormats)
{
    m_Access = access;
    m_pFormats = pFormats;
}

NTSTATUS DeviceSettings::LoadDataKey(RegistryKeyPath& path)
{
    m_EffectiveVflip = 0;
    m_EffectiveMirror = 0;
    m_EffectiveDeadPixel = 0;
    RtlCopyMemory(m_SWSetting, SWSETTING_DEFAULT, SWSETTING_BYTES);
    m_OneShotValue = 0;

    // Each value is stored only when read.
    path.OpenSubkey(KV_REGISTRY_DATA);
    ULONG value = 0;
    if (ReadDwordFresh(path, L"BW", &value)) {
        m_BW = value;
    }
    ULONG length = SWSETTING_BYTES;
    path.ReadRaw(L"SWSetting", m_SWSetting, &length);
    if (ReadDwordFresh(path, L"SaveFileMJPEG", &value)) {
        m_SaveFileMJPEG = value;
    }
    if (ReadDwordFresh(path, L"SaveFileDroppedMJPEG", &value)) {
        m_SaveFileDroppedMJPEG = value;
    }
    if (ReadDwordFresh(path, L"DropFrameCntVGA", &value)) {
        m_DropFrameCntVGA = value;
    }
    m_Key1Function = ReadDwordFresh(path, L"Key1Function", &value) ? value : 0;
    m_Key2Function = ReadDwordFresh(path, L"Key2Function", &value) ? value : 0;

    // The two values the driver creates when missing.
    if (ReadDwordFresh(path, L"TrackingWindowSize", &value)) {
        m_TrackingWindowSize = value;
    } else {
        m_TrackingWindowSize = TRACKING_WINDOW_SIZE_DEFAULT;
        path.WriteDword(L"TrackingWindowSize", TRACKING_WINDOW_SIZE_DEFAULT);
    }
    if (ReadDwordFresh(path, L"TrackingFocus", &value)) {
        m_TrackingFocus = value;
    } else {
        m_TrackingFocus = TRACKING_FOCUS_DEFAULT;
        path.WriteDword(L"TrackingFocus", TRACKING_FOCUS_DEFAULT);
    }
    path.WriteDword(L"DeviceExist", DEVICE_EXIST_STARTED);
    path.CloseSubkey(KV_REGISTRY_DATA);

    if (m_Property == nullptr) {
        m_Property = static_cast<DeviceProperty*>(
            ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(DeviceProperty), kTagRegistry));
        if (m_Property == nullptr) {
            DbgPrint("failed to alloc mem for m_Property\n");
            path.Close();
            return STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    RtlZeroMemory(m_Property, sizeof(DeviceProperty));
    for (const SlotInit& init : kInitialSlots) {
        m_Property->Slot[init.Slot] = init.Value;
    }
    m_Property->Slot[SLOT_SWSETTING_OPTION] = SwSettingBit(m_SWSetting, SWBIT_OPTION_0905) ? 1 : 0;
    path.Close();
    return STATUS_SUCCESS;
}

NTSTATUS DeviceSettings::WriteDeviceExist(ULONG Value)
{
    RegistryKeyPath path;
    path.OpenRoot(KV_REGISTRY_SERVICE);
    path.OpenSubkey(KV_REGISTRY_DATA);
    NTSTATUS status = path.WriteDword(L"DeviceExist", Value);
    path.Close();
    return status;
}

void DeviceSettings::Release()
{
    FreeTagged(m_Property, kTagRegistry);
}

NTSTATUS DeviceSettings::CheckReadDef()
{
    if (PageableCallTooHigh()) {
        return STATUS_SUCCESS;
    }
    RegistryKeyPath path;
    path.OpenRoot(KV_REGISTRY_SERVICE);
    path.OpenSubkey(KV_REGISTRY_DATA);
    ULONG readDef = 0;
    NTSTATUS status = path.ReadDword(L"ReadDef", &readDef);
    path.CloseSubkey(KV_REGISTRY_DATA);

    // A missing "ReadDef" is never created: the defaults are then never read.
    if (NT_SUCCESS(status) && readDef != m_pFormats->ProcessingUnitControls) {
        InitLastValue();
        path.OpenSubkey(KV_REGISTRY_DATA);
        path.WriteDword(L"ReadDef", m_pFormats->ProcessingUnitControls);
        path.CloseSubkey(KV_REGISTRY_DATA);
    }
    path.Close();
    return STATUS_SUCCESS;
}

// The camera defaults into the record, the default orientation, then
// "\Property\Last".
BOOLEAN DeviceSettings::InitLastValue()
{
    bool failed = false;
    auto readDefaults = [this, &failed](const ControlWalkEntry* pWalk, ULONG nWalk, ULONG bitmap) {
        for (ULONG i = 0; i < nWalk; ++i) {
            const ControlWalkEntry& entry = pWalk[i];
            if ((bitmap & entry.Mask) == 0 || !entry.ReadDefault) {
                continue;
            }
            LONG value = 0;
            if (!NT_SUCCESS(m_Access.GetDeviceProperty(entry.Id, UVC_GET_DEF, &value))) {
                value = 0;
                failed = true;
            }
            m_Property->Slot[entry.Slot] = entry.DefaultLowByte ? (value & 0xFF) : value;
        }
    };
    readDefaults(kPuWalk, ARRAYSIZE(kPuWalk), m_pFormats->ProcessingUnitControls);
    readDefaults(kCtWalk, ARRAYSIZE(kCtWalk), m_pFormats->CameraTerminalControls);

    LoadDefaultOrientation();
    SavePropertySet(PropertySetLast);
    if (failed) {
        DbgPrint("InitLastValue() Retrieve properties fail.");
    }
    return 1;
}

// Applies "\Property\Last" or "\Property\Customer" to the camera and the
// record.
namespace {

bool SameName(PCWSTR a, PCWSTR b)
{
    for (; *a != 0 && *a == *b; ++a, ++b) {
    }
    return *a == *b;
}

// Calls visit(name, id) for every persisted setting, camera controls first.
template <typename Visit>
bool AnySetting(Visit visit)
{
    for (const ControlWalkEntry& e : kPuWalk) {
        if (visit(e.pName, e.Id)) return true;
    }
    for (const ControlWalkEntry& e : kCtWalk) {
        if (visit(e.pName, e.Id)) return true;
    }
    for (const OptionEntry& e : kLoadOptions) {
        if (visit(e.pName, e.Id)) return true;
    }
    return false;
}

}  // namespace

PCWSTR SettingName(USHORT Id)
{
    PCWSTR pFound = nullptr;
    AnySetting([&](PCWSTR pName, USHORT id) {
        if (id != Id) return false;
        pFound = pName;
        return true;
    });
    return pFound;
}

bool SettingIdForName(PCWSTR pName, PUSHORT pId)
{
    return AnySetting([&](PCWSTR pEntry, USHORT id) {
        if (!SameName(pEntry, pName)) return false;
        *pId = id;
        return true;
    });
}

NTSTATUS DeviceSettings::LoadPropertySet(ULONG Which)
{
    RegistryKeyPath path;
    path.OpenRoot(KV_REGISTRY_SERVICE);
    NTSTATUS status = path.OpenSubkey(SetKeyName(Which));

    // The read's status is not checked: the buffer starts as the slot's
    // current value, so a missing value re-applies the record.
    auto applyControls = [this, &path](const ControlWalkEntry* pWalk, ULONG nWalk, ULONG bitmap) {
        for (ULONG i = 0; i < nWalk; ++i) {
            const ControlWalkEntry& entry = pWalk[i];
            if ((bitmap & entry.Mask) == 0) {
                continue;
            }
            ULONG value = static_cast<ULONG>(m_Property->Slot[entry.Slot]);
            path.ReadDword(entry.pName, &value);
            m_Access.SetDeviceProperty(entry.Id, Low16(value));
            m_Property->Slot[entry.Slot] = static_cast<LONG>(value);
        }
    };
    applyControls(kPuWalk, ARRAYSIZE(kPuWalk), m_pFormats->ProcessingUnitControls);
    applyControls(kCtWalk, ARRAYSIZE(kCtWalk), m_pFormats->CameraTerminalControls);

    // The driver's options, each only when read.
    for (const OptionEntry& option : kLoadOptions) {
        ULONG value = 0;
        if (NT_SUCCESS(path.ReadDword(option.pName, &value))) {
            m_Access.SetDeviceProperty(option.Id, Low16(value));
        }
    }
    path.CloseSubkey(SetKeyName(Which));
    path.Close();
    return status;
}

// The record into "\Property\Last" or "\Property\Customer". Write failures
// are ignored.
NTSTATUS DeviceSettings::SavePropertySet(ULONG Which)
{
    RegistryKeyPath path;
    path.OpenRoot(KV_REGISTRY_SERVICE);
    NTSTATUS status = path.OpenSubkey(SetKeyName(Which));

    auto saveControls = [this, &path](const ControlWalkEntry* pWalk, ULONG nWalk, ULONG bitmap) {
        for (ULONG i = 0; i < nWalk; ++i) {
            const ControlWalkEntry& entry = pWalk[i];
            if ((bitmap & entry.Mask) != 0) {
                path.WriteDword(entry.pName, static_cast<ULONG>(m_Property->Slot[entry.Slot]));
            }
        }
    };
    saveControls(kPuWalk, ARRAYSIZE(kPuWalk), m_pFormats->ProcessingUnitControls);
    saveControls(kCtWalk, ARRAYSIZE(kCtWalk), m_pFormats->CameraTerminalControls);
    for (const OptionEntry& option : kSaveOptions) {
        path.WriteDword(option.pName, static_cast<ULONG>(m_Property->Slot[option.Slot]));
    }
    path.CloseSubkey(SetKeyName(Which));
    path.Close();
    return status;
}

namespace {

// Applies each value of "\Property\Default" that reads successfully.
template <ULONG N>
void ApplyDefaults(const PropertyAccess& access, const OptionEntry (&options)[N])
{
    RegistryKeyPath path;
    path.OpenRoot(KV_REGISTRY_SERVICE);
    path.OpenSubkey(KV_REGISTRY_DEFAULT);
    for (const OptionEntry& option : options) {
        ULONG value = 0;
        if (NT_SUCCESS(path.ReadDword(option.pName, &value))) {
            access.SetDeviceProperty(option.Id, Low16(value));
        }
    }
    path.CloseSubkey(KV_REGISTRY_DEFAULT);
    path.Close();
}

}  // namespace

NTSTATUS DeviceSettings::LoadDefaultOrientation()
{
    ApplyDefaults(m_Access, kDefaultOrientation);
    return STATUS_SUCCESS;
}

NTSTATUS DeviceSettings::LoadDefaultEffects()
{
    ApplyDefaults(m_Access, kDefaultEffects);
    return STATUS_SUCCESS;
}

// Tracking off, self-timer off.
NTSTATUS DeviceSettings::ResetTrackingAndTimer()
{
    m_Access.SetDeviceProperty(PROPID_TRACKING_METHOD, 0);
    m_Access.SetDeviceProperty(PROPID_SELF_TIMER, -1);
    return STATUS_SUCCESS;
}

// "CustomerFrame" + decimal (Index - 7) under "\Property\Last"; indexes 7-11
// give the digits 0-4, of which the photo-frame reader uses 1-4.
void CustomerFrameValueName(ULONG Index, WCHAR (&Name)[CUSTOMER_FRAME_NAME_UNITS])
{
    UNICODE_STRING name;
    RtlInitEmptyUnicodeString(&name, Name, sizeof(Name) - sizeof(WCHAR));
    RtlAppendUnicodeToString(&name, L"CustomerFrame");
    WCHAR digitBuffer[4];
    UNICODE_STRING digit;
    RtlInitEmptyUnicodeString(&digit, digitBuffer, sizeof(digitBuffer));
    RtlIntegerToUnicodeString(Index - CUSTOMER_FRAME_FIRST_INDEX, 10, &digit);
    RtlAppendUnicodeStringToString(&name, &digit);
    Name[name.Length / sizeof(WCHAR)] = 0;
}

NTSTATUS DeviceSettings::SaveSpecialFrameString(ULONG Index, PCWSTR pText, ULONG Count)
{
    if (Index < CUSTOMER_FRAME_FIRST_INDEX || Index > CUSTOMER_FRAME_LAST_INDEX || pText == nullptr || Count == 0) {
        DbgPrint("SaveSpecialFrameString: invalid index %u or text\n", Index);
        return STATUS_INVALID_PARAMETER;
    }
    WCHAR nameBuffer[CUSTOMER_FRAME_NAME_UNITS];
    CustomerFrameValueName(Index, nameBuffer);

    RegistryKeyPath path;
    path.OpenRoot(KV_REGISTRY_SERVICE);
    path.OpenSubkey(KV_REGISTRY_LAST);
    NTSTATUS status = path.WriteString(nameBuffer, pText, Count);
    path.CloseSubkey(KV_REGISTRY_LAST);
    path.Close();
    return status;
}
