// The simulated file system: ZwCreateFile, ZwOpenFile, ZwReadFile,
// ZwWriteFile, ZwQueryInformationFile and ZwSetInformationFile on host
// folders that stand for NT roots (kvsim/files.h), with file objects in the
// simulated object manager (type *IoFileObjectType, closed by ZwClose).
//
// Behaviour as documented on learn.microsoft.com (windows-hardware/drivers/
// ddi/wdm/nf-wdm-zwcreatefile, -zwreadfile, -zwwritefile,
// -zwqueryinformationfile, -zwsetinformationfile; "Using Files in a
// Driver"):
//  - every routine runs at PASSIVE_LEVEL only; a call above it is reported;
//  - CreateDisposition FILE_SUPERSEDE .. FILE_OVERWRITE_IF with
//    IoStatusBlock->Information FILE_SUPERSEDED/OPENED/CREATED/OVERWRITTEN;
//    a missing file STATUS_OBJECT_NAME_NOT_FOUND, a missing folder on the way
//    STATUS_OBJECT_PATH_NOT_FOUND, an existing one with FILE_CREATE
//    STATUS_OBJECT_NAME_COLLISION;
//  - FILE_SYNCHRONOUS_IO_(NON)ALERT needs SYNCHRONIZE access and makes the
//    I/O manager keep the current file position: a NULL ByteOffset (or
//    FILE_USE_FILE_POINTER_POSITION) reads or writes there, and every
//    transfer moves it; on other handles a ByteOffset is required;
//  - a read starting at or beyond the end of file fails with
//    STATUS_END_OF_FILE; IoStatusBlock->Information is the number of bytes
//    transferred; HighPart -1 with FILE_WRITE_TO_END_OF_FILE appends;
//  - share access is checked between open file objects of the same file
//    as IoCheckShareAccess does (STATUS_SHARING_VIOLATION).
// Not simulated: events and APC routines of asynchronous I/O (the transfer
// completes before the call returns), EAs, other information classes
// (STATUS_INVALID_INFO_CLASS).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>

#include "../reg/text.h"
#include "kv/ke.h"
#include "kv/zw.h"
#include "kvsim/diag.h"
#include "kvsim/files.h"
#include "kvsim/object.h"

namespace fs = std::filesystem;

namespace kvsim {
namespace {

struct FileObject {
    std::string ntName;    // for leak reports
    std::string hostPath;
    int fd = -1;           // -1 for a folder
    bool directory = false;
    dev_t device = 0;
    ino_t inode = 0;
    ACCESS_MASK access = 0;
    ULONG share = 0;
    bool synchronous = false;
    bool deleteOnClose = false;
    LONGLONG position = 0;
    bool reported = false;
};

struct RootMap {
    std::vector<std::u16string> prefix;  // upper-cased, \DosDevices and \GLOBAL?? as \??
    std::string hostFolder;
};

struct FileState {
    std::mutex lock;
    std::vector<RootMap> roots;
    std::set<FileObject*> files;
};

FileState& State() {
    static auto* state = new FileState;  // never destroyed: handles may outlive main
    return *state;
}

void DestroyFile(void* body) {
    auto* file = static_cast<FileObject*>(body);
    {
        std::lock_guard<std::mutex> guard(State().lock);
        State().files.erase(file);
    }
    if (file->fd >= 0) ::close(file->fd);
    if (file->deleteOnClose) {
        std::error_code ec;
        fs::remove(file->hostPath, ec);
    }
    delete file;
}

void RequirePassive(const char* routine) {
    KIRQL irql = KeGetCurrentIrql();
    if (irql != PASSIVE_LEVEL)
        ReportViolation("%s called at IRQL %u; file routines require PASSIVE_LEVEL", routine,
                        static_cast<unsigned>(irql));
}

// ---- Names --------------------------------------------------------------------

// Components of a path; an empty component (other than a trailing one) makes
// the name invalid.
bool SplitPath(std::u16string_view s, std::vector<std::u16string>& out) {
    size_t start = 0;
    while (start < s.size()) {
        size_t end = s.find(u'\\', start);
        if (end == std::u16string_view::npos) end = s.size();
        if (end == start) return false;
        out.emplace_back(s.substr(start, end - start));
        start = end + 1;
    }
    return true;
}

// \DosDevices and \GLOBAL?? are symbolic links to \?? on Windows.
void NormalizeRoot(std::vector<std::u16string>& components) {
    for (auto& c : components) c = text::Upcase(c);
    if (!components.empty() && (components[0] == u"DOSDEVICES" || components[0] == u"GLOBAL??")) components[0] = u"??";
}

bool ValidComponent(std::u16string_view c) {
    if (c == u"." || c == u"..") return false;
    for (char16_t ch : c)
        if (ch < 0x20 || std::u16string_view(u"<>:\"/|?*").find(ch) != std::u16string_view::npos) return false;
    return true;
}

// The entry of `folder` that `name` stands for: the exact name when it
// exists, else the first entry equal to it ignoring case.
std::optional<std::string> FindEntry(const std::string& folder, std::u16string_view name) {
    std::string exact = text::ToUtf8(name);
    std::error_code ec;
    if (fs::exists(fs::path(folder) / exact, ec)) return exact;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        std::string real = it->path().filename().string();
        if (text::EqualNoCase(text::FromUtf8(real), name)) return real;
    }
    return std::nullopt;
}

bool IsFolder(const std::string& path) {
    std::error_code ec;
    return fs::is_directory(path, ec);
}

struct Resolved {
    std::string hostPath;  // of the last component as found, or as named when missing
    bool exists = false;
};

// Resolves the remaining components below a host folder. Lock not needed.
NTSTATUS ResolveBelow(std::string folder, const std::vector<std::u16string>& rest, Resolved& out) {
    for (size_t i = 0; i < rest.size(); ++i) {
        if (!ValidComponent(rest[i])) return STATUS_OBJECT_NAME_INVALID;
        bool last = i + 1 == rest.size();
        auto entry = FindEntry(folder, rest[i]);
        if (!last) {
            if (!entry || !IsFolder(folder + "/" + *entry)) return STATUS_OBJECT_PATH_NOT_FOUND;
            folder += "/" + *entry;
            continue;
        }
        out.exists = entry.has_value();
        out.hostPath = folder + "/" + (entry ? *entry : text::ToUtf8(rest[i]));
        return STATUS_SUCCESS;
    }
    out.hostPath = folder;  // the mapped folder itself
    out.exists = IsFolder(folder);
    return out.exists ? STATUS_SUCCESS : STATUS_OBJECT_PATH_NOT_FOUND;
}

NTSTATUS ResolveAbsolute(std::u16string_view name, Resolved& out) {
    std::vector<std::u16string> components;
    if (name.empty() || name[0] != u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
    if (!SplitPath(name.substr(1), components)) return STATUS_OBJECT_NAME_INVALID;
    std::vector<std::u16string> upper = components;
    NormalizeRoot(upper);
    const RootMap* best = nullptr;
    {
        std::lock_guard<std::mutex> guard(State().lock);
        for (const auto& root : State().roots) {
            if (root.prefix.size() > upper.size()) continue;
            if (!std::equal(root.prefix.begin(), root.prefix.end(), upper.begin())) continue;
            if (!best || root.prefix.size() > best->prefix.size()) best = &root;
        }
        if (!best) return STATUS_OBJECT_PATH_NOT_FOUND;  // an unmapped root (a drive not present)
        std::vector<std::u16string> rest(components.begin() + best->prefix.size(), components.end());
        std::string folder = best->hostFolder;
        return ResolveBelow(folder, rest, out);
    }
}

// ---- Handles -------------------------------------------------------------------

struct FileRef {
    FileObject* file = nullptr;
    FileRef() = default;
    FileRef(const FileRef&) = delete;
    FileRef& operator=(const FileRef&) = delete;
    ~FileRef() {
        if (file) ObfDereferenceObject(file);
    }
};

NTSTATUS ReferenceFile(HANDLE handle, FileRef& ref) {
    if (void* body = ObReferenceByHandle(handle, *IoFileObjectType)) {
        ref.file = static_cast<FileObject*>(body);
        return STATUS_SUCCESS;
    }
    if (void* other = ObReferenceByHandle(handle, nullptr)) {
        ObfDereferenceObject(other);
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    return STATUS_INVALID_HANDLE;
}

ACCESS_MASK MapFileAccess(ACCESS_MASK desired) {
    ACCESS_MASK a = desired & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL | MAXIMUM_ALLOWED);
    if (desired & GENERIC_READ) a |= FILE_GENERIC_READ;
    if (desired & GENERIC_WRITE) a |= FILE_GENERIC_WRITE;
    if (desired & GENERIC_EXECUTE) a |= FILE_GENERIC_EXECUTE;
    if (desired & (GENERIC_ALL | MAXIMUM_ALLOWED)) a |= FILE_ALL_ACCESS;
    return a;
}

constexpr ACCESS_MASK kReadRights = FILE_READ_DATA | FILE_EXECUTE;
constexpr ACCESS_MASK kWriteRights = FILE_WRITE_DATA | FILE_APPEND_DATA;

// IoCheckShareAccess: only opens that read, write or delete take part. Lock held.
bool ShareConflict(dev_t device, ino_t inode, ACCESS_MASK access, ULONG share) {
    auto wants = [](ACCESS_MASK a, ACCESS_MASK rights) { return (a & rights) != 0; };
    if (!wants(access, kReadRights | kWriteRights | DELETE)) return false;
    for (const FileObject* f : State().files) {
        if (f->device != device || f->inode != inode) continue;
        if (!wants(f->access, kReadRights | kWriteRights | DELETE)) continue;
        if ((wants(access, kReadRights) && !(f->share & FILE_SHARE_READ)) ||
            (wants(access, kWriteRights) && !(f->share & FILE_SHARE_WRITE)) ||
            (wants(access, DELETE) && !(f->share & FILE_SHARE_DELETE)) ||
            (wants(f->access, kReadRights) && !(share & FILE_SHARE_READ)) ||
            (wants(f->access, kWriteRights) && !(share & FILE_SHARE_WRITE)) ||
            (wants(f->access, DELETE) && !(share & FILE_SHARE_DELETE)))
            return true;
    }
    return false;
}

NTSTATUS FromErrno(int err) {
    switch (err) {
        case ENOENT: return STATUS_OBJECT_NAME_NOT_FOUND;
        case ENOTDIR: return STATUS_OBJECT_PATH_NOT_FOUND;
        case EEXIST: return STATUS_OBJECT_NAME_COLLISION;
        case EACCES:
        case EPERM:
        case EROFS: return STATUS_ACCESS_DENIED;
        case EISDIR: return STATUS_FILE_IS_A_DIRECTORY;
        case ENOSPC: return STATUS_DISK_FULL;
        default: return STATUS_UNSUCCESSFUL;
    }
}

NTSTATUS CheckCreateParameters(PHANDLE handle, PIO_STATUS_BLOCK iosb, ACCESS_MASK desired, ULONG share,
                               ULONG disposition, ULONG options) {
    if (!handle || !iosb) return STATUS_INVALID_PARAMETER;
    if (disposition > FILE_MAXIMUM_DISPOSITION || (share & ~FILE_SHARE_VALID_FLAGS)) return STATUS_INVALID_PARAMETER;
    ULONG sync = options & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT);
    if (sync == (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT)) return STATUS_INVALID_PARAMETER;
    // Synchronous I/O waits on the file object, which needs SYNCHRONIZE.
    if (sync && !(MapFileAccess(desired) & SYNCHRONIZE)) return STATUS_INVALID_PARAMETER;
    if ((options & FILE_DIRECTORY_FILE) && (options & FILE_NON_DIRECTORY_FILE)) return STATUS_INVALID_PARAMETER;
    if ((options & FILE_DIRECTORY_FILE) && disposition != FILE_CREATE && disposition != FILE_OPEN &&
        disposition != FILE_OPEN_IF)
        return STATUS_INVALID_PARAMETER;
    return STATUS_SUCCESS;
}

// Opens (or creates) the host file for an existing or missing name and
// tells which Information value the create reports.
NTSTATUS OpenHost(const Resolved& r, ACCESS_MASK access, ULONG disposition, ULONG options, int& fd, bool& directory,
                  ULONG& information) {
    fd = -1;
    directory = r.exists && IsFolder(r.hostPath);
    bool wantsFolder = (options & FILE_DIRECTORY_FILE) != 0;
    if (r.exists) {
        if (disposition == FILE_CREATE) return STATUS_OBJECT_NAME_COLLISION;
        if (directory) {
            if (options & FILE_NON_DIRECTORY_FILE) return STATUS_FILE_IS_A_DIRECTORY;
            if (disposition != FILE_OPEN && disposition != FILE_OPEN_IF) return STATUS_FILE_IS_A_DIRECTORY;
            information = FILE_OPENED;
            return STATUS_SUCCESS;
        }
        if (wantsFolder) return STATUS_NOT_A_DIRECTORY;
        int flags = (access & kWriteRights) ? O_RDWR : O_RDONLY;
        information = FILE_OPENED;
        if (disposition == FILE_SUPERSEDE || disposition == FILE_OVERWRITE || disposition == FILE_OVERWRITE_IF) {
            flags = O_RDWR | O_TRUNC;
            information = disposition == FILE_SUPERSEDE ? FILE_SUPERSEDED : FILE_OVERWRITTEN;
        }
        fd = ::open(r.hostPath.c_str(), flags | O_CLOEXEC);
        return fd < 0 ? FromErrno(errno) : STATUS_SUCCESS;
    }
    if (disposition == FILE_OPEN || disposition == FILE_OVERWRITE) return STATUS_OBJECT_NAME_NOT_FOUND;
    information = FILE_CREATED;
    if (wantsFolder) {
        directory = true;
        return ::mkdir(r.hostPath.c_str(), 0777) == 0 ? STATUS_SUCCESS : FromErrno(errno);
    }
    fd = ::open(r.hostPath.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    return fd < 0 ? FromErrno(errno) : STATUS_SUCCESS;
}

// The offset a transfer starts at: explicit, the current position of a
// synchronous handle, or (for writes) the end of file.
NTSTATUS TransferOffset(const FileObject& f, PLARGE_INTEGER byteOffset, bool write, LONGLONG size,
                        LONGLONG& offset) {
    bool useCurrent = byteOffset == nullptr ||
                      (byteOffset->HighPart == -1 && byteOffset->LowPart == FILE_USE_FILE_POINTER_POSITION);
    if (write && ((f.access & kWriteRights) == FILE_APPEND_DATA ||
                  (byteOffset && byteOffset->HighPart == -1 && byteOffset->LowPart == FILE_WRITE_TO_END_OF_FILE))) {
        offset = size;
        return STATUS_SUCCESS;
    }
    if (useCurrent) {
        if (!f.synchronous) return STATUS_INVALID_PARAMETER;
        offset = f.position;
        return STATUS_SUCCESS;
    }
    if (byteOffset->QuadPart < 0) return STATUS_INVALID_PARAMETER;
    offset = byteOffset->QuadPart;
    return STATUS_SUCCESS;
}

LONGLONG FileSize(int fd) {
    struct stat st {};
    return ::fstat(fd, &st) == 0 ? static_cast<LONGLONG>(st.st_size) : 0;
}

LONGLONG ToFileTime(const struct timespec& ts) {
    return (static_cast<LONGLONG>(ts.tv_sec) + 11644473600LL) * 10000000LL + ts.tv_nsec / 100;
}

NTSTATUS CreateFileCommon(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                          PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess, ULONG CreateDisposition,
                          ULONG CreateOptions) {
    NTSTATUS status = CheckCreateParameters(FileHandle, IoStatusBlock, DesiredAccess, ShareAccess,
                                            CreateDisposition, CreateOptions);
    if (!NT_SUCCESS(status)) return status;
    if (!ObjectAttributes || (ObjectAttributes->ObjectName && ObjectAttributes->ObjectName->Length % 2))
        return STATUS_OBJECT_NAME_INVALID;
    std::u16string name = text::FromCounted(ObjectAttributes->ObjectName);
    Resolved resolved;
    std::string ntName;
    if (ObjectAttributes->RootDirectory) {
        // Relative to an open folder.
        FileRef root;
        status = ReferenceFile(ObjectAttributes->RootDirectory, root);
        if (!NT_SUCCESS(status)) return status;
        if (!root.file->directory) return STATUS_INVALID_PARAMETER;
        if (!name.empty() && name[0] == u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
        std::vector<std::u16string> rest;
        if (!SplitPath(name, rest)) return STATUS_OBJECT_NAME_INVALID;
        status = ResolveBelow(root.file->hostPath, rest, resolved);
        ntName = root.file->ntName + "\\" + text::ToUtf8(name);
    } else {
        status = ResolveAbsolute(name, resolved);
        ntName = text::ToUtf8(name);
    }
    if (!NT_SUCCESS(status)) return status;

    ACCESS_MASK access = MapFileAccess(DesiredAccess);
    std::lock_guard<std::mutex> guard(State().lock);
    // Share access is checked before an existing file is truncated.
    struct stat st {};
    if (resolved.exists && ::stat(resolved.hostPath.c_str(), &st) == 0 &&
        ShareConflict(st.st_dev, st.st_ino, access, ShareAccess))
        return STATUS_SHARING_VIOLATION;
    int fd = -1;
    bool directory = false;
    ULONG information = 0;
    status = OpenHost(resolved, access, CreateDisposition, CreateOptions, fd, directory, information);
    if (!NT_SUCCESS(status)) return status;
    if (::stat(resolved.hostPath.c_str(), &st) != 0) st = {};

    auto* file = new FileObject;
    file->ntName = ntName;
    file->hostPath = resolved.hostPath;
    file->fd = fd;
    file->directory = directory;
    file->device = st.st_dev;
    file->inode = st.st_ino;
    file->access = access;
    file->share = ShareAccess;
    file->synchronous = (CreateOptions & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT)) != 0;
    file->deleteOnClose = (CreateOptions & FILE_DELETE_ON_CLOSE) != 0;
    State().files.insert(file);
    ObRegisterObject(file, *IoFileObjectType, DestroyFile);
    *FileHandle = ObInsertHandle(file);
    ObfDereferenceObject(file);  // the handle's reference remains
    IoStatusBlock->Status = STATUS_SUCCESS;
    IoStatusBlock->Information = information;
    return STATUS_SUCCESS;
}

}  // namespace

void MapRoot(std::string_view ntPrefix, std::string hostFolder) {
    std::u16string prefix = text::FromUtf8(ntPrefix);
    std::vector<std::u16string> components;
    if (!prefix.empty() && prefix[0] == u'\\') prefix.erase(0, 1);
    SplitPath(prefix, components);
    NormalizeRoot(components);
    std::lock_guard<std::mutex> guard(State().lock);
    auto& roots = State().roots;
    roots.erase(std::remove_if(roots.begin(), roots.end(), [&](const RootMap& r) { return r.prefix == components; }),
                roots.end());
    roots.push_back(RootMap{components, std::move(hostFolder)});
}

void UnmapAllRoots() {
    std::lock_guard<std::mutex> guard(State().lock);
    State().roots.clear();
}

std::optional<std::string> HostPathOf(std::string_view ntPath) {
    Resolved r;
    if (!NT_SUCCESS(ResolveAbsolute(text::FromUtf8(ntPath), r)) || !r.exists) return std::nullopt;
    return r.hostPath;
}

size_t OpenFileCount() {
    std::lock_guard<std::mutex> guard(State().lock);
    return State().files.size();
}

std::vector<std::string> CheckOpenFiles() {
    std::lock_guard<std::mutex> guard(State().lock);
    std::vector<std::string> out;
    for (auto* f : State().files) {
        if (f->reported) continue;
        f->reported = true;
        out.push_back("file handle left open: " + f->ntName);
    }
    return out;
}

}  // namespace kvsim

using namespace kvsim;

extern "C" NTSTATUS ZwCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                                 PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                                 ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                                 ULONG EaLength) {
    RequirePassive("ZwCreateFile");
    return CreateFileCommon(FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, ShareAccess,
                            CreateDisposition, CreateOptions);
}

extern "C" NTSTATUS ZwOpenFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                               PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess, ULONG OpenOptions) {
    RequirePassive("ZwOpenFile");
    return CreateFileCommon(FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, ShareAccess, FILE_OPEN,
                            OpenOptions);
}

extern "C" NTSTATUS ZwReadFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                               PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset,
                               PULONG Key) {
    RequirePassive("ZwReadFile");
    FileRef ref;
    NTSTATUS status = ReferenceFile(FileHandle, ref);
    if (!NT_SUCCESS(status)) return status;
    if (!IoStatusBlock || (!Buffer && Length)) return STATUS_INVALID_PARAMETER;
    FileObject& f = *ref.file;
    if (f.directory) return STATUS_INVALID_DEVICE_REQUEST;
    if (!(f.access & FILE_READ_DATA)) return STATUS_ACCESS_DENIED;
    LONGLONG size = FileSize(f.fd), offset = 0;
    status = TransferOffset(f, ByteOffset, false, size, offset);
    if (!NT_SUCCESS(status)) return status;
    IoStatusBlock->Information = 0;
    if (Length == 0) {
        IoStatusBlock->Status = STATUS_SUCCESS;
        return STATUS_SUCCESS;
    }
    if (offset >= size) {
        IoStatusBlock->Status = STATUS_END_OF_FILE;
        return STATUS_END_OF_FILE;
    }
    size_t want = static_cast<size_t>(std::min<LONGLONG>(Length, size - offset));
    ssize_t got = ::pread(f.fd, Buffer, want, offset);
    if (got < 0) return FromErrno(errno);
    if (f.synchronous) f.position = offset + got;
    IoStatusBlock->Status = STATUS_SUCCESS;
    IoStatusBlock->Information = static_cast<ULONG_PTR>(got);
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS ZwWriteFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                                PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset,
                                PULONG Key) {
    RequirePassive("ZwWriteFile");
    FileRef ref;
    NTSTATUS status = ReferenceFile(FileHandle, ref);
    if (!NT_SUCCESS(status)) return status;
    if (!IoStatusBlock || (!Buffer && Length)) return STATUS_INVALID_PARAMETER;
    FileObject& f = *ref.file;
    if (f.directory) return STATUS_INVALID_DEVICE_REQUEST;
    if (!(f.access & kWriteRights)) return STATUS_ACCESS_DENIED;
    LONGLONG offset = 0;
    status = TransferOffset(f, ByteOffset, true, FileSize(f.fd), offset);
    if (!NT_SUCCESS(status)) return status;
    size_t done = 0;
    while (done < Length) {
        ssize_t n = ::pwrite(f.fd, static_cast<const uint8_t*>(Buffer) + done, Length - done, offset + done);
        if (n <= 0) return FromErrno(errno);
        done += static_cast<size_t>(n);
    }
    if (f.synchronous) f.position = offset + static_cast<LONGLONG>(done);
    IoStatusBlock->Status = STATUS_SUCCESS;
    IoStatusBlock->Information = done;
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS ZwQueryInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation,
                                           ULONG Length, FILE_INFORMATION_CLASS FileInformationClass) {
    RequirePassive("ZwQueryInformationFile");
    FileRef ref;
    NTSTATUS status = ReferenceFile(FileHandle, ref);
    if (!NT_SUCCESS(status)) return status;
    if (!IoStatusBlock || !FileInformation) return STATUS_INVALID_PARAMETER;
    const FileObject& f = *ref.file;
    struct stat st {};
    if (::stat(f.hostPath.c_str(), &st) != 0) return FromErrno(errno);
    switch (FileInformationClass) {
        case FileStandardInformation: {
            if (Length < sizeof(FILE_STANDARD_INFORMATION)) return STATUS_INFO_LENGTH_MISMATCH;
            FILE_STANDARD_INFORMATION info{};
            info.EndOfFile.QuadPart = f.directory ? 0 : st.st_size;
            info.AllocationSize.QuadPart = ALIGN_UP_BY(info.EndOfFile.QuadPart, 4096);  // 4 KB clusters
            info.NumberOfLinks = static_cast<ULONG>(st.st_nlink);
            info.DeletePending = FALSE;
            info.Directory = f.directory ? TRUE : FALSE;
            std::memcpy(FileInformation, &info, sizeof info);
            IoStatusBlock->Information = sizeof info;
            break;
        }
        case FilePositionInformation: {
            if (Length < sizeof(FILE_POSITION_INFORMATION)) return STATUS_INFO_LENGTH_MISMATCH;
            FILE_POSITION_INFORMATION info{};
            info.CurrentByteOffset.QuadPart = f.position;
            std::memcpy(FileInformation, &info, sizeof info);
            IoStatusBlock->Information = sizeof info;
            break;
        }
        case FileBasicInformation: {
            if (Length < sizeof(FILE_BASIC_INFORMATION)) return STATUS_INFO_LENGTH_MISMATCH;
            FILE_BASIC_INFORMATION info{};
            info.CreationTime.QuadPart = ToFileTime(st.st_ctim);
            info.LastAccessTime.QuadPart = ToFileTime(st.st_atim);
            info.LastWriteTime.QuadPart = ToFileTime(st.st_mtim);
            info.ChangeTime.QuadPart = ToFileTime(st.st_ctim);
            // NTFS marks files it creates for archiving.
            info.FileAttributes = f.directory ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_ARCHIVE;
            std::memcpy(FileInformation, &info, sizeof info);
            IoStatusBlock->Information = sizeof info;
            break;
        }
        default:
            return STATUS_INVALID_INFO_CLASS;
    }
    IoStatusBlock->Status = STATUS_SUCCESS;
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS ZwSetInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation,
                                         ULONG Length, FILE_INFORMATION_CLASS FileInformationClass) {
    RequirePassive("ZwSetInformationFile");
    FileRef ref;
    NTSTATUS status = ReferenceFile(FileHandle, ref);
    if (!NT_SUCCESS(status)) return status;
    if (!IoStatusBlock || !FileInformation) return STATUS_INVALID_PARAMETER;
    FileObject& f = *ref.file;
    switch (FileInformationClass) {
        case FilePositionInformation: {
            if (Length < sizeof(FILE_POSITION_INFORMATION)) return STATUS_INFO_LENGTH_MISMATCH;
            FILE_POSITION_INFORMATION info;
            std::memcpy(&info, FileInformation, sizeof info);
            if (info.CurrentByteOffset.QuadPart < 0) return STATUS_INVALID_PARAMETER;
            f.position = info.CurrentByteOffset.QuadPart;
            break;
        }
        case FileEndOfFileInformation: {
            if (Length < sizeof(FILE_END_OF_FILE_INFORMATION)) return STATUS_INFO_LENGTH_MISMATCH;
            if (f.directory) return STATUS_INVALID_PARAMETER;
            if (!(f.access & FILE_WRITE_DATA)) return STATUS_ACCESS_DENIED;
            FILE_END_OF_FILE_INFORMATION info;
            std::memcpy(&info, FileInformation, sizeof info);
            if (info.EndOfFile.QuadPart < 0) return STATUS_INVALID_PARAMETER;
            if (::ftruncate(f.fd, info.EndOfFile.QuadPart) != 0) return FromErrno(errno);
            break;
        }
        default:
            return STATUS_INVALID_INFO_CLASS;
    }
    IoStatusBlock->Status = STATUS_SUCCESS;
    IoStatusBlock->Information = 0;
    return STATUS_SUCCESS;
}
