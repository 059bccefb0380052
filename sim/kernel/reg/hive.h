// The simulated registry's hive: one tree of keys below \Registry, shared by
// the ZwXxx routines (zwreg.cpp), the host API (hostapi.cpp) and the .reg
// reader and writer (regfile.cpp). Internal to sim/kernel/reg.
//
// Names are case-preserving and case-insensitive: children are indexed by
// their upper-cased names (ZwEnumerateKey therefore returns subkeys sorted as
// Windows does), values keep their order of creation (as
// ZwEnumerateValueKey returns them on Windows).
#pragma once
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kv/zw.h"

namespace kvsim::reg {

struct Value {
    std::u16string name;
    ULONG type = REG_NONE;
    std::vector<uint8_t> data;
};

struct Node : std::enable_shared_from_this<Node> {
    std::u16string name;
    std::weak_ptr<Node> parent;
    std::map<std::u16string, std::shared_ptr<Node>> children;  // by upper-cased name
    std::vector<Value> values;
    bool isVolatile = false;
    bool deleted = false;
    LONGLONG lastWriteTime = 0;  // FILETIME units

    std::shared_ptr<Node> FindChild(std::u16string_view name) const;
    Value* FindValue(std::u16string_view name);
    // Creates or replaces; a replaced value keeps its name's original case
    // and its place in the value order.
    void SetValue(std::u16string_view name, ULONG type, std::vector<uint8_t> data);
    bool DeleteValue(std::u16string_view name);
    std::shared_ptr<Node> AddChild(std::u16string_view name, bool isVolatile);
    void Touch();
};

// The registry lock: every access to the tree holds it.
std::mutex& Lock();
// \Registry (its children MACHINE and USER are hive roots). Lock held.
std::shared_ptr<Node> Root();
// Replaces the tree by an empty one; the old nodes are marked deleted. Lock held.
void ResetLocked();
// Removes a node (and its subtree) from the tree and marks it deleted. Lock held.
void DeleteTree(const std::shared_ptr<Node>& node);
// Whether a node is \Registry or a hive root below it (never deletable).
bool IsHiveRoot(const Node& node);
// "\REGISTRY\MACHINE\..." with each component as stored.
std::u16string PathOf(const Node& node);

// The components below \Registry of a host-API path ("\Registry\Machine\X",
// "HKEY_LOCAL_MACHINE\X", "HKLM\X", "HKEY_USERS\X"), or nullopt when the
// path names no registry key.
std::optional<std::vector<std::u16string>> SplitHostPath(std::string_view path);
// Walks from \Registry; with create, missing keys are created. Lock held.
std::shared_ptr<Node> Walk(const std::vector<std::u16string>& components, bool create);

LONGLONG Now();

// Key objects (zwreg.cpp): how many exist (lock held), and the paths of
// those not reported by an earlier end-of-test check (takes the lock).
size_t OpenKeyCountLocked();
std::vector<std::string> TakeUnreportedOpenKeys();

}  // namespace kvsim::reg
