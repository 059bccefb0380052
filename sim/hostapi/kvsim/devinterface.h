// Host-side view of the simulated I/O manager's device interfaces
// (sim/kernel/io/devinterface.cpp): what a user-mode client enumerates with
// SetupDiGetClassDevs(DIGCF_DEVICEINTERFACE | DIGCF_PRESENT). Not visible to
// the driver.
#pragma once
#include <string>
#include <vector>

#include "kv/io.h"
#include "kv/devinterface.h"

namespace kvsim {

struct DeviceInterface {
    std::u16string symbolicLink;
    GUID category{};
    PDEVICE_OBJECT pdo = nullptr;
    std::u16string referenceString;  // empty when none
    bool enabled = false;
};

// The enabled interfaces of `category`, in registration order.
std::vector<DeviceInterface> EnabledDeviceInterfaces(const GUID& category);
// Every registration (enabled or not), for tests.
std::vector<DeviceInterface> AllDeviceInterfaces();

// End-of-test check: one line per interface still enabled (its device was
// not removed); forgets every registration.
std::vector<std::string> DeviceInterfaceEndOfTestCheck();

}  // namespace kvsim
