// Host-side control of the simulated file system (sim/kernel/file): which
// host folder each NT root stands for. Not visible to the driver.
//
//   kvsim::MapRoot("\\SystemRoot", "/tmp/run/windows");
//   kvsim::MapRoot("\\DosDevices\\C:", "/tmp/run/c");   // also \??\C: and \GLOBAL??\C:
//
// Below a mapped root, path components are matched case-insensitively
// against the real names in the host folder (an exact match wins).
#pragma once
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kvsim {

// Maps an NT path prefix (one or more components) to a host folder; a later
// mapping of the same prefix replaces the earlier one. The longest mapped
// prefix of a path wins.
void MapRoot(std::string_view ntPrefix, std::string hostFolder);
void UnmapAllRoots();

// The host path an NT path names, resolved as ZwCreateFile would, when every
// component exists; for tests.
std::optional<std::string> HostPathOf(std::string_view ntPath);

// File objects (handles from ZwCreateFile/ZwOpenFile) not yet destroyed.
size_t OpenFileCount();

// Open file objects not reported before, one line each (used by
// CheckOpenKeysAndFiles in kvsim/registry.h).
std::vector<std::string> CheckOpenFiles();

}  // namespace kvsim
