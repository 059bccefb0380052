// Photo frames, countdown pictures and the snapshot file: one bitmap reader,
// one keyed overlay, one bitmap writer.
#include "imaging/photoframes.h"

#include "controls/settings.h"
#include "imaging/effects.h"
#include "pooltag.h"

using kv::FreeTagged;

namespace {

// The driver's own frames are drawn for 640 x 480; a file that matches in
// either dimension is accepted and fitted, one that matches in neither is
// someone else's picture.
constexpr ULONG kFrameFileWidth = 640;
constexpr ULONG kFrameFileHeight = 480;
constexpr ULONG kFirstUserFrame = 8;
constexpr ULONG kLastUserFrame = 11;
constexpr ULONG kLastOwnFrame = 7;
constexpr LONG kLastCountdown = 10;
// The user's frame path as the registry keeps it: at most 260 bytes.
constexpr ULONG kUserPathBytes = 260;
// No picture this driver reads is larger than a 4096 x 4096 frame; a
// larger file is not read into the pool.
constexpr ULONG kLargestFile = BITMAP_HEADER_SIZE + 4096u * 4096u * 3u;

constexpr NTSTATUS kStatusNoFrame = static_cast<NTSTATUS>(0xC00000A0L);

#define KV_SYSTEM_ROOT L"\\SystemRoot\\"
#define KV_DOS_DEVICES L"\\DosDevices\\"

const PCWSTR kOwnFrameNames[kLastOwnFrame] = {
    L"1_640_480.bmp", L"2_640_480.bmp", L"3_640_480.bmp", L"4_640_480.bmp",
    L"5_640_480.bmp", L"6_640_480.bmp", L"7_640_480.bmp",
};
const PCWSTR kCountdownNames[kLastCountdown] = {
    L"VGA1.bmp", L"VGA2.bmp", L"VGA3.bmp", L"VGA4.bmp", L"VGA5.bmp",
    L"VGA6.bmp", L"VGA7.bmp", L"VGA8.bmp", L"VGA9.bmp", L"VGA10.bmp",
};

ULONG ReadLe32(const UCHAR* p)
{
    return static_cast<ULONG>(p[0]) | (static_cast<ULONG>(p[1]) << 8) | (static_cast<ULONG>(p[2]) << 16) |
           (static_cast<ULONG>(p[3]) << 24);
}

void WriteLe16(PUCHAR p, ULONG v)
{
    p[0] = static_cast<UCHAR>(v);
    p[1] = static_cast<UCHAR>(v >> 8);
}

void WriteLe32(PUCHAR p, ULONG v)
{
    WriteLe16(p, v);
    WriteLe16(p + 2, v >> 16);
}

// width x height x 3, or 0 when it does not fit in 32 bits.
ULONG PixelBytes(ULONG Width, ULONG Height)
{
    const ULONGLONG bytes = static_cast<ULONGLONG>(Width) * Height * 3;
    return bytes > 0xFFFFFFFFull ? 0 : static_cast<ULONG>(bytes);
}

// A counted path in a caller's buffer: prefix + name.
NTSTATUS BuildPath(PUNICODE_STRING pPath, PWCHAR pBuffer, USHORT cbBuffer, PCWSTR pPrefix, PCWSTR pName,
                   USHORT cbName)
{
    RtlInitEmptyUnicodeString(pPath, pBuffer, cbBuffer);
    NTSTATUS status = RtlAppendUnicodeToString(pPath, pPrefix);
    if (NT_SUCCESS(status)) {
        UNICODE_STRING name;
        name.Buffer = const_cast<PWCHAR>(pName);
        name.Length = cbName;
        name.MaximumLength = cbName;
        status = RtlAppendUnicodeStringToString(pPath, &name);
    }
    return status;
}

USHORT NameBytes(PCWSTR pName)
{
    USHORT n = 0;
    while (pName[n] != 0 && n < 0x7FFF) {
        ++n;
    }
    return static_cast<USHORT>(n * sizeof(WCHAR));
}

// Where a bitmap comes from: the driver's own files, or a path the user
// named, which is opened with the access checks the user's own open would
// get (the handle is a kernel handle, but the user chose the file).
enum class Origin { Driver, User };

// The file into a pool buffer ("KVMI"), which the caller frees: all of it,
// or only its header (*pSize is then still the file's size).
NTSTATUS ReadFile(PUNICODE_STRING pPath, Origin From, bool HeaderOnly, PUCHAR* ppData, PULONG pSize)
{
    *ppData = nullptr;
    *pSize = 0;
    OBJECT_ATTRIBUTES attributes;
    const ULONG checks = From == Origin::User ? OBJ_FORCE_ACCESS_CHECK : 0;
    InitializeObjectAttributes(&attributes, pPath, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE | checks, nullptr, nullptr);
    IO_STATUS_BLOCK io;
    HANDLE hFile = nullptr;
    NTSTATUS status = ZwCreateFile(&hFile, GENERIC_READ | SYNCHRONIZE, &attributes, &io, nullptr,
                                   FILE_ATTRIBUTE_NORMAL, FILE_SHARE_READ, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT,
                                   nullptr, 0);
    if (!NT_SUCCESS(status)) {
        return STATUS_NO_SUCH_FILE;
    }
    FILE_STANDARD_INFORMATION info;
    status = ZwQueryInformationFile(hFile, &io, &info, sizeof(info), FileStandardInformation);
    const LONGLONG size = NT_SUCCESS(status) ? info.EndOfFile.QuadPart : 0;
    status = STATUS_UNSUCCESSFUL;
    const ULONG wanted = HeaderOnly && size > BITMAP_HEADER_SIZE ? BITMAP_HEADER_SIZE : static_cast<ULONG>(size);
    if (size > 0 && size <= kLargestFile) {
        *ppData = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, wanted, kv::kTagImage));
        if (*ppData == nullptr) {
            status = STATUS_INSUFFICIENT_RESOURCES;
        } else {
            LARGE_INTEGER offset;
            offset.QuadPart = 0;
            status = ZwReadFile(hFile, nullptr, nullptr, nullptr, &io, *ppData, wanted, &offset, nullptr);
            if (!NT_SUCCESS(status) || io.Information < static_cast<ULONG_PTR>(wanted)) {
                status = STATUS_UNSUCCESSFUL;
                FreeTagged(*ppData, kv::kTagImage);
            } else {
                *pSize = static_cast<ULONG>(size);
            }
        }
    }
    ZwClose(hFile);
    return status;
}

// The file's picture fitted to Width x Height: copied when the sizes match,
// else resized. A header that claims more pixels than the file holds, or a
// picture too small to resize, is refused.
NTSTATUS FitPicture(const UCHAR* pFile, ULONG Size, ULONG Width, ULONG Height, PUCHAR pDestination)
{
    const ULONG fileWidth = ReadLe32(pFile + BITMAP_WIDTH_OFFSET);
    const ULONG fileHeight = ReadLe32(pFile + BITMAP_HEIGHT_OFFSET);
    const ULONG pixels = PixelBytes(fileWidth, fileHeight);
    if (pixels == 0 || pixels > Size - BITMAP_HEADER_SIZE) {
        return STATUS_UNSUCCESSFUL;
    }
    if (fileWidth == Width && fileHeight == Height) {
        RtlCopyMemory(pDestination, pFile + BITMAP_HEADER_SIZE, pixels);
        return STATUS_SUCCESS;
    }
    // The resize reads each pixel's right and lower neighbour; a picture it
    // does not take would leave the overlay unwritten.
    if (fileWidth < 2 || fileHeight < 2 || fileWidth > 0x7FFFFFFF || fileHeight > 0x7FFFFFFF) {
        return STATUS_UNSUCCESSFUL;
    }
    const ResizeSource source = {pFile + BITMAP_HEADER_SIZE, fileWidth, fileHeight, 0, 0,
                                 static_cast<LONG>(fileWidth - 1), static_cast<LONG>(fileHeight - 1)};
    const ResizeDestination destination = {pDestination, Width, Height};
    if (!ResizeBilinearAccepts(&source, &destination, 3)) {
        return STATUS_UNSUCCESSFUL;
    }
    ResizeBilinear(&source, &destination, 3);
    return STATUS_SUCCESS;
}

// Reads the file at pPath; with a destination, fits it there, else only
// checks its header (the button's stepping reads no more than that).
// CheckFrameSize: the 640-or-480 rule of photo-frame files.
NTSTATUS ReadBitmap(PUNICODE_STRING pPath, Origin From, ULONG Width, ULONG Height, PUCHAR pDestination,
                    bool CheckFrameSize)
{
    PUCHAR pFile = nullptr;
    ULONG size = 0;
    NTSTATUS status = ReadFile(pPath, From, pDestination == nullptr, &pFile, &size);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = STATUS_UNSUCCESSFUL;
    if (size >= BITMAP_HEADER_SIZE) {
        const ULONG fileWidth = ReadLe32(pFile + BITMAP_WIDTH_OFFSET);
        const ULONG fileHeight = ReadLe32(pFile + BITMAP_HEIGHT_OFFSET);
        const ULONG pixels = PixelBytes(fileWidth, fileHeight);
        const bool holdsPixels = pixels != 0 && pixels <= size - BITMAP_HEADER_SIZE;
        if (!CheckFrameSize || fileWidth == kFrameFileWidth || fileHeight == kFrameFileHeight) {
            status = pDestination != nullptr ? FitPicture(pFile, size, Width, Height, pDestination)
                                             : (holdsPixels ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL);
        }
    }
    FreeTagged(pFile, kv::kTagImage);
    return status;
}

// "CustomerFrame1".."CustomerFrame4" of "\Property\Last": the text the user
// gave (at most 260 bytes, not necessarily terminated) as a counted string.
NTSTATUS ReadUserFramePath(ULONG FrameNumber, PWCHAR pText, PUSHORT pcbText)
{
    WCHAR nameBuffer[CUSTOMER_FRAME_NAME_UNITS];
    CustomerFrameValueName(FrameNumber, nameBuffer);

    RegistryKeyPath path;
    path.OpenRoot(KV_REGISTRY_SERVICE);
    NTSTATUS status = path.OpenSubkey(KV_REGISTRY_LAST);
    if (!NT_SUCCESS(status)) {
        path.Close();
        return STATUS_NO_SUCH_FILE;
    }
    ULONG length = kUserPathBytes;
    status = path.ReadRaw(nameBuffer, pText, &length);
    path.CloseSubkey(KV_REGISTRY_LAST);
    path.Close();
    if (!NT_SUCCESS(status)) {
        return STATUS_NO_SUCH_FILE;
    }
    USHORT units = static_cast<USHORT>(length / sizeof(WCHAR));
    while (units > 0 && pText[units - 1] == 0) {
        --units;
    }
    *pcbText = static_cast<USHORT>(units * sizeof(WCHAR));
    return STATUS_SUCCESS;
}

}  // namespace

void InitPhotoFrameState(PhotoFrameState* pState, SIZE_T BufferBytes)
{
    RtlZeroMemory(pState, sizeof(*pState));
    pState->BufferBytes = BufferBytes;
}

void ReleasePhotoFrames(PhotoFrameState* pState)
{
    FreeTagged(pState->pFrameOverlay, kv::kTagImage);
    FreeTagged(pState->pCountdownOverlay, kv::kTagImage);
    pState->FrameNumber = 0;
    pState->CountdownNumber = 0;
}

NTSTATUS LoadFrameBitmap(ULONG FrameNumber, ULONG Width, ULONG Height, ULONG Mode, PUCHAR pDestination)
{
    PUCHAR pTarget = Mode == FRAME_LOAD_INTO ? pDestination : nullptr;
    if (FrameNumber >= 1 && FrameNumber <= kLastOwnFrame) {
        WCHAR buffer[128];
        UNICODE_STRING path;
        PCWSTR pName = kOwnFrameNames[FrameNumber - 1];
        NTSTATUS status = BuildPath(&path, buffer, sizeof(buffer), KV_SYSTEM_ROOT, pName, NameBytes(pName));
        return NT_SUCCESS(status) ? ReadBitmap(&path, Origin::Driver, Width, Height, pTarget, true) : status;
    }
    if (FrameNumber < kFirstUserFrame || FrameNumber > kLastUserFrame) {
        return STATUS_NO_SUCH_FILE;
    }
    WCHAR text[kUserPathBytes / sizeof(WCHAR)];
    USHORT cbText = 0;
    NTSTATUS status = ReadUserFramePath(FrameNumber, text, &cbText);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    WCHAR buffer[(kUserPathBytes + 28) / sizeof(WCHAR)];
    UNICODE_STRING path;
    status = BuildPath(&path, buffer, sizeof(buffer), KV_DOS_DEVICES, text, cbText);
    return NT_SUCCESS(status) ? ReadBitmap(&path, Origin::User, Width, Height, pTarget, true) : status;
}

NTSTATUS LoadBitmapFile(PCWSTR pName, ULONG Width, ULONG Height, PUCHAR pDestination)
{
    WCHAR buffer[128];
    UNICODE_STRING path;
    NTSTATUS status = BuildPath(&path, buffer, sizeof(buffer), KV_SYSTEM_ROOT, pName, NameBytes(pName));
    return NT_SUCCESS(status) ? ReadBitmap(&path, Origin::Driver, Width, Height, pDestination, false) : status;
}

void OverlayKeyed(ULONG Width, ULONG Height, const UCHAR* pOverlay, PUCHAR pFrame)
{
    const SIZE_T bytes = static_cast<SIZE_T>(Width) * Height * 3;
    for (SIZE_T i = 0; i < bytes; i += 3) {
        if ((pOverlay[i] | pOverlay[i + 1] | pOverlay[i + 2]) != 0) {
            pFrame[i] = pOverlay[i];
            pFrame[i + 1] = pOverlay[i + 1];
            pFrame[i + 2] = pOverlay[i + 2];
        }
    }
}

NTSTATUS ApplyPhotoFrame(PhotoFrameState* pState, ULONG FrameNumber, ULONG Width, ULONG Height, PUCHAR pFrame,
                         PULONG pReload)
{
    const SIZE_T frameBytes = static_cast<SIZE_T>(Width) * Height * 3;
    if (FrameNumber == 0) {
        FreeTagged(pState->pFrameOverlay, kv::kTagImage);
        pState->FrameNumber = 0;
        pState->FrameWidth = Width;
        pState->FrameHeight = Height;
        return kStatusNoFrame;
    }
    // The buffer holds the largest frame the camera offers; a frame beyond
    // it (never offered) gets no overlay.
    if (frameBytes > pState->BufferBytes) {
        return STATUS_INVALID_PARAMETER;
    }
    bool load = false;
    if (pState->pFrameOverlay == nullptr) {
        pState->pFrameOverlay =
            static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, pState->BufferBytes, kv::kTagImage));
        if (pState->pFrameOverlay == nullptr) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        RtlZeroMemory(pState->pFrameOverlay, pState->BufferBytes);
        load = true;
    }
    if (load || FrameNumber != pState->FrameNumber || Width != pState->FrameWidth || Height != pState->FrameHeight) {
        if (!NT_SUCCESS(LoadFrameBitmap(FrameNumber, Width, Height, FRAME_LOAD_INTO, pState->pFrameOverlay))) {
            RtlZeroMemory(pState->pFrameOverlay, pState->BufferBytes);
        }
        pState->FrameNumber = FrameNumber;
        pState->FrameWidth = Width;
        pState->FrameHeight = Height;
    }
    if (pReload != nullptr && *pReload != 0) {
        const NTSTATUS status = LoadFrameBitmap(FrameNumber, Width, Height, FRAME_LOAD_INTO, pState->pFrameOverlay);
        if (!NT_SUCCESS(status)) {
            DbgPrint("ComFrSt=%x\n", status);
            RtlZeroMemory(pState->pFrameOverlay, pState->BufferBytes);
        }
        *pReload = 0;
    }
    OverlayKeyed(Width, Height, pState->pFrameOverlay, pFrame);
    return STATUS_SUCCESS;
}

NTSTATUS ApplyCountdownPicture(PhotoFrameState* pState, LONG Count, ULONG Width, ULONG Height, PUCHAR pFrame)
{
    if (Count == 0) {
        FreeTagged(pState->pCountdownOverlay, kv::kTagImage);
        pState->CountdownNumber = 0;
        pState->CountdownWidth = Width;
        return STATUS_SUCCESS;
    }
    if (static_cast<SIZE_T>(Width) * Height * 3 > pState->BufferBytes) {
        return STATUS_INVALID_PARAMETER;
    }
    if (pState->pCountdownOverlay == nullptr) {
        pState->pCountdownOverlay =
            static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, pState->BufferBytes, kv::kTagImage));
        if (pState->pCountdownOverlay == nullptr) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        RtlZeroMemory(pState->pCountdownOverlay, pState->BufferBytes);
        // A fresh buffer holds nothing yet, whatever was remembered.
        pState->CountdownNumber = 0;
    }
    // Only the count and the width say whether the picture is current: a
    // change of height alone keeps the picture loaded for the old height.
    if (Count != pState->CountdownNumber || Width != pState->CountdownWidth) {
        NTSTATUS status = STATUS_NO_SUCH_FILE;
        if (Count >= 1 && Count <= kLastCountdown) {
            status = LoadBitmapFile(kCountdownNames[Count - 1], Width, Height, pState->pCountdownOverlay);
        }
        if (!NT_SUCCESS(status)) {
            DbgPrint("St=%x\n", status);
            RtlZeroMemory(pState->pCountdownOverlay, pState->BufferBytes);
        }
        pState->CountdownNumber = Count;
        pState->CountdownWidth = Width;
    }
    OverlayKeyed(Width, Height, pState->pCountdownOverlay, pFrame);
    return STATUS_SUCCESS;
}

NTSTATUS SaveSnapshot(const UCHAR* pFrame, ULONG Width, ULONG Height)
{
    return WriteBitmapFile(L"snapshot.bmp", pFrame, Width, Height);
}

NTSTATUS WriteBitmapFile(PCWSTR pName, const UCHAR* pPixels, ULONG Width, ULONG Height)
{
    const ULONG pixels = PixelBytes(Width, Height);
    if (pixels == 0 || pixels > 0xFFFFFFFFu - BITMAP_HEADER_SIZE) {
        return STATUS_UNSUCCESSFUL;
    }
    UCHAR header[BITMAP_HEADER_SIZE] = {};
    header[0] = 'B';
    header[1] = 'M';
    WriteLe32(header + 2, 40 + pixels + 14);
    WriteLe32(header + 10, BITMAP_HEADER_SIZE);
    WriteLe32(header + 14, 40);
    WriteLe32(header + BITMAP_WIDTH_OFFSET, Width);
    WriteLe32(header + BITMAP_HEIGHT_OFFSET, Height);
    WriteLe16(header + 26, 1);
    WriteLe16(header + 28, 24);
    WriteLe32(header + 34, pixels);

    const USHORT cbName = NameBytes(pName);
    const USHORT cbPath = static_cast<USHORT>(cbName + 26);
    auto* pBuffer = static_cast<PWCHAR>(ExAllocatePoolWithTag(NonPagedPool, cbPath, kv::kTagImage));
    if (pBuffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    UNICODE_STRING path;
    NTSTATUS status = BuildPath(&path, pBuffer, cbPath, KV_SYSTEM_ROOT, pName, cbName);
    HANDLE hFile = nullptr;
    IO_STATUS_BLOCK io;
    if (NT_SUCCESS(status)) {
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &path, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
        status = ZwCreateFile(&hFile, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, &attributes, &io, nullptr,
                              FILE_ATTRIBUTE_NORMAL, FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OVERWRITE_IF,
                              FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
        if (!NT_SUCCESS(status)) {
            status = STATUS_NO_SUCH_FILE;
            hFile = nullptr;
        }
    }
    if (hFile != nullptr) {
        LARGE_INTEGER offset;
        offset.QuadPart = 0;
        status = ZwWriteFile(hFile, nullptr, nullptr, nullptr, &io, header, BITMAP_HEADER_SIZE, &offset, nullptr);
        if (NT_SUCCESS(status)) {
            offset.QuadPart = BITMAP_HEADER_SIZE;
            status = ZwWriteFile(hFile, nullptr, nullptr, nullptr, &io, const_cast<PUCHAR>(pPixels), pixels, &offset,
                                 nullptr);
        }
        if (!NT_SUCCESS(status)) {
            status = STATUS_UNSUCCESSFUL;
        }
        ZwClose(hFile);
    }
    ExFreePoolWithTag(pBuffer, kv::kTagImage);
    return status;
}
