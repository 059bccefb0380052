// The simulated configuration manager: ZwOpenKey, ZwCreateKey,
// ZwQueryValueKey, ZwSetValueKey, ZwDeleteValueKey, ZwDeleteKey,
// ZwEnumerateKey, ZwEnumerateValueKey, ZwQueryKey and ZwFlushKey over the
// hive of hive.h, with key objects in the simulated object manager (closed
// by ZwClose).
//
// Behaviour as documented on learn.microsoft.com (windows-hardware/drivers/
// ddi/wdm/nf-wdm-zwopenkey, -zwcreatekey, -zwqueryvaluekey, -zwsetvaluekey,
// -zwdeletevaluekey, -zwdeletekey, -zwenumeratekey, -zwenumeratevaluekey,
// -zwquerykey, -zwflushkey) and kernel-mode driver architecture "Registry
// Key Object Routines":
//  - every routine runs at PASSIVE_LEVEL only; a call above it is reported;
//  - an absolute name starts with "\Registry\"; a name with RootDirectory
//    is relative to that open key (a leading backslash is then a syntax
//    error, as in the object manager);
//  - names are case-insensitive and case-preserving; ZwCreateKey does not
//    create missing intermediate keys (STATUS_OBJECT_NAME_NOT_FOUND);
//  - ZwQueryValueKey: STATUS_BUFFER_TOO_SMALL when Length does not hold the
//    fixed part of the record (nothing written), STATUS_BUFFER_OVERFLOW when
//    it holds the fixed part but not all (fixed part written), and in both
//    cases *ResultLength is the size needed;
//  - a deleted key's handles stay open, every routine but ZwClose then
//    fails with STATUS_KEY_DELETED; a key with subkeys cannot be deleted.
#include <cstring>
#include <set>

#include "hive.h"
#include "kv/ke.h"
#include "kvsim/diag.h"
#include "kvsim/object.h"
#include "kvsim/registry.h"
#include "text.h"

namespace kvsim::reg {
namespace {

struct KeyObject {
    std::shared_ptr<Node> node;
    ACCESS_MASK access = 0;
    std::string path;  // for leak reports
    bool reported = false;
};

std::set<KeyObject*>& LiveKeys() {  // registry lock held
    static auto* keys = new std::set<KeyObject*>;
    return *keys;
}

void DestroyKey(void* body) {
    auto* key = static_cast<KeyObject*>(body);
    {
        std::lock_guard<std::mutex> guard(Lock());
        LiveKeys().erase(key);
    }
    delete key;
}

void RequirePassive(const char* routine) {
    KIRQL irql = KeGetCurrentIrql();
    if (irql != PASSIVE_LEVEL)
        kvsim::ReportViolation("%s called at IRQL %u; registry routines require PASSIVE_LEVEL", routine,
                               static_cast<unsigned>(irql));
}

// Generic rights mapped to key rights (the registry's generic mapping).
ACCESS_MASK MapKeyAccess(ACCESS_MASK desired) {
    ACCESS_MASK a = desired & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL | MAXIMUM_ALLOWED);
    if (desired & GENERIC_READ) a |= KEY_READ;
    if (desired & GENERIC_WRITE) a |= KEY_WRITE;
    if (desired & GENERIC_EXECUTE) a |= KEY_EXECUTE;
    if (desired & (GENERIC_ALL | MAXIMUM_ALLOWED)) a |= KEY_ALL_ACCESS;
    return a;
}

// A referenced key object; the reference is dropped on scope exit. Declared
// before the registry lock is taken, so that a last dereference (which
// destroys the object and takes the lock) runs after the lock is released.
struct KeyRef {
    KeyObject* key = nullptr;
    KeyRef() = default;
    KeyRef(const KeyRef&) = delete;
    KeyRef& operator=(const KeyRef&) = delete;
    ~KeyRef() {
        if (key) ObfDereferenceObject(key);
    }
};

NTSTATUS ReferenceKey(HANDLE handle, KeyRef& ref) {
    void* body = kvsim::ObReferenceByHandle(handle, *CmKeyObjectType);
    if (body) {
        ref.key = static_cast<KeyObject*>(body);
        return STATUS_SUCCESS;
    }
    if (void* other = kvsim::ObReferenceByHandle(handle, nullptr)) {
        ObfDereferenceObject(other);
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    return STATUS_INVALID_HANDLE;
}

// An object name taken apart: where the walk starts and the components.
struct ParsedName {
    KeyRef root;  // RootDirectory's key, if given
    std::vector<std::u16string> components;
};

NTSTATUS SplitComponents(std::u16string_view name, std::vector<std::u16string>& out) {
    size_t start = 0;
    while (start < name.size()) {
        size_t end = name.find(u'\\', start);
        if (end == std::u16string_view::npos) end = name.size();
        if (end == start) return STATUS_OBJECT_NAME_INVALID;  // "a\\b"
        out.emplace_back(name.substr(start, end - start));
        start = end + 1;  // a single trailing backslash ends the loop
    }
    return STATUS_SUCCESS;
}

NTSTATUS ParseObjectName(POBJECT_ATTRIBUTES oa, ParsedName& parsed) {
    if (oa == nullptr) return STATUS_INVALID_PARAMETER;
    if (oa->ObjectName && (oa->ObjectName->Length % 2) != 0) return STATUS_OBJECT_NAME_INVALID;
    std::u16string name = text::FromCounted(oa->ObjectName);
    if (oa->RootDirectory) {
        NTSTATUS status = ReferenceKey(oa->RootDirectory, parsed.root);
        if (!NT_SUCCESS(status)) return status;
        if (!name.empty() && name[0] == u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
        return SplitComponents(name, parsed.components);
    }
    if (name.empty() || name[0] != u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
    NTSTATUS status = SplitComponents(std::u16string_view(name).substr(1), parsed.components);
    if (!NT_SUCCESS(status)) return status;
    // Only the \Registry part of the object namespace is simulated here.
    if (parsed.components.empty() || !text::EqualNoCase(parsed.components[0], u"REGISTRY"))
        return parsed.components.size() > 1 ? STATUS_OBJECT_PATH_NOT_FOUND : STATUS_OBJECT_NAME_NOT_FOUND;
    parsed.components.erase(parsed.components.begin());
    return STATUS_SUCCESS;
}

// The node the walk starts from. Lock held.
NTSTATUS StartNode(const ParsedName& parsed, std::shared_ptr<Node>& start) {
    start = parsed.root.key ? parsed.root.key->node : Root();
    return start->deleted ? STATUS_KEY_DELETED : STATUS_SUCCESS;
}

// A new key object with one handle. Lock held.
HANDLE InsertKeyHandle(const std::shared_ptr<Node>& node, ACCESS_MASK access) {
    auto* key = new KeyObject{node, access, text::ToUtf8(PathOf(*node)), false};
    LiveKeys().insert(key);
    kvsim::ObRegisterObject(key, *CmKeyObjectType, DestroyKey);
    HANDLE handle = kvsim::ObInsertHandle(key);
    ObfDereferenceObject(key);  // the handle's reference remains; nothing is destroyed here
    return handle;
}

// ---- Information records ---------------------------------------------------

// A record as the routines return it: the whole, the size of its fixed part,
// and how much of it may be returned with STATUS_BUFFER_OVERFLOW (the fixed
// part and, where Windows does so, the part of a name that fits).
struct Record {
    std::vector<uint8_t> bytes;
    size_t fixed = 0;
    size_t partialLimit = 0;

    void Put32(size_t offset, ULONG v) { std::memcpy(bytes.data() + offset, &v, 4); }
    void Put64(size_t offset, LONGLONG v) { std::memcpy(bytes.data() + offset, &v, 8); }
    void PutName(size_t offset, std::u16string_view name) { std::memcpy(bytes.data() + offset, name.data(), name.size() * 2); }
};

NTSTATUS Deliver(const Record& r, PVOID buffer, ULONG length, PULONG resultLength) {
    if (resultLength == nullptr) return STATUS_INVALID_PARAMETER;
    *resultLength = static_cast<ULONG>(r.bytes.size());
    if (length < r.fixed) return STATUS_BUFFER_TOO_SMALL;
    if (buffer == nullptr) return STATUS_INVALID_PARAMETER;
    if (length < r.bytes.size()) {
        std::memcpy(buffer, r.bytes.data(), std::min<size_t>(length, r.partialLimit));
        return STATUS_BUFFER_OVERFLOW;
    }
    std::memcpy(buffer, r.bytes.data(), r.bytes.size());
    return STATUS_SUCCESS;
}

size_t AlignUp(size_t v, size_t a) { return (v + a - 1) / a * a; }

NTSTATUS BuildValueRecord(const Value& v, KEY_VALUE_INFORMATION_CLASS cls, Record& r) {
    const ULONG nameBytes = static_cast<ULONG>(v.name.size() * 2);
    const ULONG dataBytes = static_cast<ULONG>(v.data.size());
    switch (cls) {
        case KeyValueBasicInformation:
            r.fixed = offsetof(KEY_VALUE_BASIC_INFORMATION, Name);
            r.bytes.assign(r.fixed + nameBytes, 0);
            r.Put32(4, v.type);
            r.Put32(8, nameBytes);
            r.PutName(r.fixed, v.name);
            r.partialLimit = r.bytes.size();
            return STATUS_SUCCESS;
        case KeyValueFullInformation:
        case KeyValueFullInformationAlign64: {
            r.fixed = offsetof(KEY_VALUE_FULL_INFORMATION, Name);
            size_t nameEnd = r.fixed + nameBytes;
            size_t dataOffset = AlignUp(nameEnd, cls == KeyValueFullInformation ? 4 : 8);
            r.bytes.assign(dataOffset + dataBytes, 0);
            r.Put32(4, v.type);
            r.Put32(8, static_cast<ULONG>(dataOffset));
            r.Put32(12, dataBytes);
            r.Put32(16, nameBytes);
            r.PutName(r.fixed, v.name);
            if (dataBytes) std::memcpy(r.bytes.data() + dataOffset, v.data.data(), dataBytes);
            r.partialLimit = nameEnd;
            return STATUS_SUCCESS;
        }
        case KeyValuePartialInformation:
            r.fixed = offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data);
            r.bytes.assign(r.fixed + dataBytes, 0);
            r.Put32(4, v.type);
            r.Put32(8, dataBytes);
            if (dataBytes) std::memcpy(r.bytes.data() + r.fixed, v.data.data(), dataBytes);
            r.partialLimit = r.fixed;
            return STATUS_SUCCESS;
        case KeyValuePartialInformationAlign64:
            r.fixed = offsetof(KEY_VALUE_PARTIAL_INFORMATION_ALIGN64, Data);
            r.bytes.assign(r.fixed + dataBytes, 0);
            r.Put32(0, v.type);
            r.Put32(4, dataBytes);
            if (dataBytes) std::memcpy(r.bytes.data() + r.fixed, v.data.data(), dataBytes);
            r.partialLimit = r.fixed;
            return STATUS_SUCCESS;
        default:
            return STATUS_INVALID_PARAMETER;  // KeyValueLayerInformation is not simulated
    }
}

constexpr ULONG kNoClass = 0xFFFFFFFF;  // ClassOffset of a key without a class name

NTSTATUS BuildKeyRecord(const Node& n, KEY_INFORMATION_CLASS cls, Record& r) {
    const ULONG nameBytes = static_cast<ULONG>(n.name.size() * 2);
    switch (cls) {
        case KeyBasicInformation:
            r.fixed = offsetof(KEY_BASIC_INFORMATION, Name);
            r.bytes.assign(r.fixed + nameBytes, 0);
            r.Put64(0, n.lastWriteTime);
            r.Put32(12, nameBytes);
            r.PutName(r.fixed, n.name);
            r.partialLimit = r.bytes.size();
            return STATUS_SUCCESS;
        case KeyNodeInformation:
            r.fixed = offsetof(KEY_NODE_INFORMATION, Name);
            r.bytes.assign(r.fixed + nameBytes, 0);
            r.Put64(0, n.lastWriteTime);
            r.Put32(12, kNoClass);
            r.Put32(20, nameBytes);
            r.PutName(r.fixed, n.name);
            r.partialLimit = r.bytes.size();
            return STATUS_SUCCESS;
        case KeyFullInformation: {
            ULONG maxName = 0, maxValueName = 0, maxValueData = 0;
            for (auto& [key, child] : n.children) maxName = std::max<ULONG>(maxName, child->name.size() * 2);
            for (auto& v : n.values) {
                maxValueName = std::max<ULONG>(maxValueName, v.name.size() * 2);
                maxValueData = std::max<ULONG>(maxValueData, v.data.size());
            }
            r.fixed = offsetof(KEY_FULL_INFORMATION, Class);
            r.bytes.assign(r.fixed, 0);
            r.Put64(0, n.lastWriteTime);
            r.Put32(12, kNoClass);
            r.Put32(20, static_cast<ULONG>(n.children.size()));
            r.Put32(24, maxName);
            r.Put32(32, static_cast<ULONG>(n.values.size()));
            r.Put32(36, maxValueName);
            r.Put32(40, maxValueData);
            r.partialLimit = r.fixed;
            return STATUS_SUCCESS;
        }
        case KeyNameInformation: {
            std::u16string path = PathOf(n);
            r.fixed = offsetof(KEY_NAME_INFORMATION, Name);
            r.bytes.assign(r.fixed + path.size() * 2, 0);
            r.Put32(0, static_cast<ULONG>(path.size() * 2));
            r.PutName(r.fixed, path);
            r.partialLimit = r.bytes.size();
            return STATUS_SUCCESS;
        }
        default:
            return STATUS_INVALID_PARAMETER;  // the other classes are not simulated
    }
}

// The common opening of the routines that work on an open key: IRQL,
// handle, access right. The lock is taken by the caller afterwards.
NTSTATUS EnterKey(const char* routine, HANDLE handle, ACCESS_MASK needed, KeyRef& ref) {
    RequirePassive(routine);
    NTSTATUS status = ReferenceKey(handle, ref);
    if (!NT_SUCCESS(status)) return status;
    if ((ref.key->access & needed) != needed) return STATUS_ACCESS_DENIED;
    return STATUS_SUCCESS;
}

}  // namespace

size_t OpenKeyCountLocked() { return LiveKeys().size(); }

std::vector<std::string> TakeUnreportedOpenKeys() {
    std::lock_guard<std::mutex> guard(Lock());
    std::vector<std::string> out;
    for (auto* key : LiveKeys()) {
        if (key->reported) continue;
        key->reported = true;
        out.push_back(key->path);
    }
    return out;
}

}  // namespace kvsim::reg

using namespace kvsim::reg;

extern "C" NTSTATUS ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes) {
    RequirePassive("ZwOpenKey");
    if (KeyHandle == nullptr) return STATUS_INVALID_PARAMETER;
    ParsedName parsed;
    NTSTATUS status = ParseObjectName(ObjectAttributes, parsed);
    if (!NT_SUCCESS(status)) return status;
    std::lock_guard<std::mutex> guard(Lock());
    std::shared_ptr<Node> node;
    status = StartNode(parsed, node);
    if (!NT_SUCCESS(status)) return status;
    for (const auto& component : parsed.components) {
        node = node->FindChild(component);
        if (!node) return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    *KeyHandle = InsertKeyHandle(node, MapKeyAccess(DesiredAccess));
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS ZwCreateKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                                ULONG TitleIndex, PUNICODE_STRING Class, ULONG CreateOptions, PULONG Disposition) {
    RequirePassive("ZwCreateKey");
    if (KeyHandle == nullptr) return STATUS_INVALID_PARAMETER;
    ParsedName parsed;
    NTSTATUS status = ParseObjectName(ObjectAttributes, parsed);
    if (!NT_SUCCESS(status)) return status;
    std::lock_guard<std::mutex> guard(Lock());
    std::shared_ptr<Node> node;
    status = StartNode(parsed, node);
    if (!NT_SUCCESS(status)) return status;
    ULONG disposition = REG_OPENED_EXISTING_KEY;
    for (size_t i = 0; i < parsed.components.size(); ++i) {
        auto child = node->FindChild(parsed.components[i]);
        if (!child) {
            // Only the last component is created; a missing parent fails.
            if (i + 1 != parsed.components.size()) return STATUS_OBJECT_NAME_NOT_FOUND;
            if (!node->parent.lock()) return STATUS_ACCESS_DENIED;  // no new hives below \Registry
            if (parsed.root.key && i == 0 && !(parsed.root.key->access & KEY_CREATE_SUB_KEY))
                return STATUS_ACCESS_DENIED;
            bool makeVolatile = (CreateOptions & REG_OPTION_VOLATILE) != 0;
            // A stable key cannot live below a volatile one (ZwCreateKey page).
            if (node->isVolatile && !makeVolatile) return STATUS_CHILD_MUST_BE_VOLATILE;
            child = node->AddChild(parsed.components[i], makeVolatile);
            disposition = REG_CREATED_NEW_KEY;
        }
        node = child;
    }
    *KeyHandle = InsertKeyHandle(node, MapKeyAccess(DesiredAccess));
    if (Disposition) *Disposition = disposition;
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                                    KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass, PVOID KeyValueInformation,
                                    ULONG Length, PULONG ResultLength) {
    KeyRef ref;
    NTSTATUS status = EnterKey("ZwQueryValueKey", KeyHandle, KEY_QUERY_VALUE, ref);
    if (!NT_SUCCESS(status)) return status;
    std::lock_guard<std::mutex> guard(Lock());
    if (ref.key->node->deleted) return STATUS_KEY_DELETED;
    const Value* value = ref.key->node->FindValue(kvsim::text::FromCounted(ValueName));
    if (!value) return STATUS_OBJECT_NAME_NOT_FOUND;
    Record record;
    status = BuildValueRecord(*value, KeyValueInformationClass, record);
    if (!NT_SUCCESS(status)) return status;
    return Deliver(record, KeyValueInformation, Length, ResultLength);
}

extern "C" NTSTATUS ZwSetValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG TitleIndex, ULONG Type,
                                  PVOID Data, ULONG DataSize) {
    KeyRef ref;
    NTSTATUS status = EnterKey("ZwSetValueKey", KeyHandle, KEY_SET_VALUE, ref);
    if (!NT_SUCCESS(status)) return status;
    if (DataSize > 0 && Data == nullptr) return STATUS_INVALID_PARAMETER;
    if (ValueName && (ValueName->Length % 2) != 0) return STATUS_INVALID_PARAMETER;
    std::lock_guard<std::mutex> guard(Lock());
    if (ref.key->node->deleted) return STATUS_KEY_DELETED;
    const auto* bytes = static_cast<const uint8_t*>(Data);
    ref.key->node->SetValue(kvsim::text::FromCounted(ValueName), Type,
                            std::vector<uint8_t>(bytes, bytes + (bytes ? DataSize : 0)));
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS ZwDeleteValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName) {
    KeyRef ref;
    NTSTATUS status = EnterKey("ZwDeleteValueKey", KeyHandle, KEY_SET_VALUE, ref);
    if (!NT_SUCCESS(status)) return status;
    std::lock_guard<std::mutex> guard(Lock());
    if (ref.key->node->deleted) return STATUS_KEY_DELETED;
    return ref.key->node->DeleteValue(kvsim::text::FromCounted(ValueName)) ? STATUS_SUCCESS
                                                                           : STATUS_OBJECT_NAME_NOT_FOUND;
}

extern "C" NTSTATUS ZwDeleteKey(HANDLE KeyHandle) {
    KeyRef ref;
    NTSTATUS status = EnterKey("ZwDeleteKey", KeyHandle, DELETE, ref);
    if (!NT_SUCCESS(status)) return status;
    std::lock_guard<std::mutex> guard(Lock());
    auto& node = ref.key->node;
    if (node->deleted) return STATUS_KEY_DELETED;
    if (!node->children.empty() || IsHiveRoot(*node)) return STATUS_CANNOT_DELETE;
    DeleteTree(node);
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS ZwEnumerateKey(HANDLE KeyHandle, ULONG Index, KEY_INFORMATION_CLASS KeyInformationClass,
                                   PVOID KeyInformation, ULONG Length, PULONG ResultLength) {
    KeyRef ref;
    NTSTATUS status = EnterKey("ZwEnumerateKey", KeyHandle, KEY_ENUMERATE_SUB_KEYS, ref);
    if (!NT_SUCCESS(status)) return status;
    if (KeyInformationClass == KeyNameInformation) return STATUS_INVALID_PARAMETER;
    std::lock_guard<std::mutex> guard(Lock());
    const auto& node = ref.key->node;
    if (node->deleted) return STATUS_KEY_DELETED;
    if (Index >= node->children.size()) return STATUS_NO_MORE_ENTRIES;
    auto it = node->children.begin();
    std::advance(it, Index);
    Record record;
    status = BuildKeyRecord(*it->second, KeyInformationClass, record);
    if (!NT_SUCCESS(status)) return status;
    return Deliver(record, KeyInformation, Length, ResultLength);
}

extern "C" NTSTATUS ZwEnumerateValueKey(HANDLE KeyHandle, ULONG Index,
                                        KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                                        PVOID KeyValueInformation, ULONG Length, PULONG ResultLength) {
    KeyRef ref;
    NTSTATUS status = EnterKey("ZwEnumerateValueKey", KeyHandle, KEY_QUERY_VALUE, ref);
    if (!NT_SUCCESS(status)) return status;
    std::lock_guard<std::mutex> guard(Lock());
    const auto& node = ref.key->node;
    if (node->deleted) return STATUS_KEY_DELETED;
    if (Index >= node->values.size()) return STATUS_NO_MORE_ENTRIES;
    Record record;
    status = BuildValueRecord(node->values[Index], KeyValueInformationClass, record);
    if (!NT_SUCCESS(status)) return status;
    return Deliver(record, KeyValueInformation, Length, ResultLength);
}

extern "C" NTSTATUS ZwQueryKey(HANDLE KeyHandle, KEY_INFORMATION_CLASS KeyInformationClass, PVOID KeyInformation,
                               ULONG Length, PULONG ResultLength) {
    KeyRef ref;
    // KeyNameInformation needs no access right; the others KEY_QUERY_VALUE.
    ACCESS_MASK needed = KeyInformationClass == KeyNameInformation ? 0 : KEY_QUERY_VALUE;
    NTSTATUS status = EnterKey("ZwQueryKey", KeyHandle, needed, ref);
    if (!NT_SUCCESS(status)) return status;
    std::lock_guard<std::mutex> guard(Lock());
    if (ref.key->node->deleted) return STATUS_KEY_DELETED;
    Record record;
    status = BuildKeyRecord(*ref.key->node, KeyInformationClass, record);
    if (!NT_SUCCESS(status)) return status;
    return Deliver(record, KeyInformation, Length, ResultLength);
}

// The simulated hive lives in memory only; a flush has nothing to write.
extern "C" NTSTATUS ZwFlushKey(HANDLE KeyHandle) {
    KeyRef ref;
    NTSTATUS status = EnterKey("ZwFlushKey", KeyHandle, 0, ref);
    if (!NT_SUCCESS(status)) return status;
    std::lock_guard<std::mutex> guard(Lock());
    return ref.key->node->deleted ? STATUS_KEY_DELETED : STATUS_SUCCESS;
}
