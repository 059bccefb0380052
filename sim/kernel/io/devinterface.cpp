// The simulated I/O manager's device interfaces: IoRegisterDeviceInterface
// and IoSetDeviceInterfaceState, and the host's enumeration of enabled
// interfaces by class (kvsim/devinterface.h). Registrations are kept in a
// host table; a symbolic link reads
// "\??\KVSIM#<pdo number>#{class guid}\<reference string>", which is the shape
// of a Windows link without its bus-specific instance path.
#include <cstdio>
#include <mutex>

#include "io_internal.h"
#include "kv/rtl.h"
#include "kv/ex.h"
#include "kvsim/devinterface.h"
#include "kvsim/pool.h"

#ifndef STATUS_OBJECT_NAME_EXISTS
#define STATUS_OBJECT_NAME_EXISTS ((NTSTATUS)0x40000000L)
#endif

namespace kvsim {
namespace {

std::mutex g_lock;
std::vector<DeviceInterface> g_interfaces;
std::vector<PDEVICE_OBJECT> g_pdoNumbers;  // index + 1 = the number in the link

std::u16string FromUnicode(PCUNICODE_STRING s) {
    if (!s || !s->Buffer) return {};
    return std::u16string(reinterpret_cast<const char16_t*>(s->Buffer), s->Length / sizeof(WCHAR));
}

std::u16string Ascii(const std::string& s) { return std::u16string(s.begin(), s.end()); }

std::string GuidText(const GUID& g) {
    char text[40];
    snprintf(text, sizeof(text), "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", static_cast<unsigned>(g.Data1),
             g.Data2, g.Data3, g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6],
             g.Data4[7]);
    return text;
}

size_t PdoNumber(PDEVICE_OBJECT pdo) {
    for (size_t i = 0; i < g_pdoNumbers.size(); ++i) {
        if (g_pdoNumbers[i] == pdo) return i + 1;
    }
    g_pdoNumbers.push_back(pdo);
    return g_pdoNumbers.size();
}

NTSTATUS ReturnLink(const std::u16string& link, PUNICODE_STRING out) {
    size_t bytes = link.size() * sizeof(WCHAR);
    auto* buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, bytes + sizeof(WCHAR), PoolTag("Strg")));
    if (!buffer) return STATUS_INSUFFICIENT_RESOURCES;
    memcpy(buffer, link.data(), bytes);
    buffer[link.size()] = 0;
    out->Buffer = buffer;
    out->Length = static_cast<USHORT>(bytes);
    out->MaximumLength = static_cast<USHORT>(bytes + sizeof(WCHAR));
    return STATUS_SUCCESS;
}

}  // namespace

std::vector<DeviceInterface> EnabledDeviceInterfaces(const GUID& category) {
    std::lock_guard lock(g_lock);
    std::vector<DeviceInterface> out;
    for (auto& i : g_interfaces) {
        if (i.enabled && i.category == category) out.push_back(i);
    }
    return out;
}

std::vector<DeviceInterface> AllDeviceInterfaces() {
    std::lock_guard lock(g_lock);
    return g_interfaces;
}

std::vector<std::string> DeviceInterfaceEndOfTestCheck() {
    std::lock_guard lock(g_lock);
    std::vector<std::string> lines;
    for (auto& i : g_interfaces) {
        if (!i.enabled) continue;
        std::string link(i.symbolicLink.begin(), i.symbolicLink.end());
        lines.push_back("device interface still enabled: " + link);
    }
    g_interfaces.clear();
    g_pdoNumbers.clear();
    return lines;
}

}  // namespace kvsim

using kvsim::DeviceInterface;

extern "C" NTSTATUS IoRegisterDeviceInterface(PDEVICE_OBJECT PhysicalDeviceObject, CONST GUID* InterfaceClassGuid,
                                              PUNICODE_STRING ReferenceString, PUNICODE_STRING SymbolicLinkName) {
    kvsim::io::CheckIrqlAtMost(PASSIVE_LEVEL, "IoRegisterDeviceInterface");
    // Only a PDO (a bus-enumerated device) can have interfaces.
    if (!PhysicalDeviceObject || !(PhysicalDeviceObject->Flags & DO_BUS_ENUMERATED_DEVICE)) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    std::u16string ref = kvsim::FromUnicode(ReferenceString);
    std::lock_guard lock(kvsim::g_lock);
    for (auto& i : kvsim::g_interfaces) {
        if (i.pdo == PhysicalDeviceObject && i.category == *InterfaceClassGuid && i.referenceString == ref) {
            return kvsim::ReturnLink(i.symbolicLink, SymbolicLinkName);
        }
    }
    DeviceInterface entry;
    entry.category = *InterfaceClassGuid;
    entry.pdo = PhysicalDeviceObject;
    entry.referenceString = ref;
    entry.symbolicLink = kvsim::Ascii("\\??\\KVSIM#" + std::to_string(kvsim::PdoNumber(PhysicalDeviceObject)) + "#" +
                                      kvsim::GuidText(*InterfaceClassGuid));
    if (!ref.empty()) entry.symbolicLink += u"\\" + ref;
    NTSTATUS status = kvsim::ReturnLink(entry.symbolicLink, SymbolicLinkName);
    if (NT_SUCCESS(status)) kvsim::g_interfaces.push_back(entry);
    return status;
}

extern "C" NTSTATUS IoSetDeviceInterfaceState(PUNICODE_STRING SymbolicLinkName, BOOLEAN Enable) {
    kvsim::io::CheckIrqlAtMost(PASSIVE_LEVEL, "IoSetDeviceInterfaceState");
    std::u16string link = kvsim::FromUnicode(SymbolicLinkName);
    std::lock_guard lock(kvsim::g_lock);
    for (auto& i : kvsim::g_interfaces) {
        if (i.symbolicLink != link) continue;
        if (Enable) {
            if (i.enabled) return STATUS_OBJECT_NAME_EXISTS;
            i.enabled = true;
            return STATUS_SUCCESS;
        }
        if (!i.enabled) return STATUS_OBJECT_NAME_NOT_FOUND;
        i.enabled = false;
        return STATUS_SUCCESS;
    }
    return STATUS_OBJECT_NAME_NOT_FOUND;
}
