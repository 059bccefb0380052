// Pool tags: every lasting allocation of the driver carries a four-character
// tag beginning with "KV", and is freed with the same tag, so that poolmon
// and Driver Verifier's pool tracking attribute every block to its owner.
// The tag's bytes in memory are the four characters in order, as pool tools
// show them: PoolTag("KVdd") is the ULONG a WDK driver writes as 'ddVK'.
// https://learn.microsoft.com/windows-hardware/drivers/devtest/poolmon
#pragma once
#include "wdk.h"

namespace kv {

constexpr ULONG PoolTag(const char (&tag)[5])
{
    return static_cast<ULONG>(static_cast<UCHAR>(tag[0])) | (static_cast<ULONG>(static_cast<UCHAR>(tag[1])) << 8) |
           (static_cast<ULONG>(static_cast<UCHAR>(tag[2])) << 16) |
           (static_cast<ULONG>(static_cast<UCHAR>(tag[3])) << 24);
}

// Everything a plain global new allocates in kvdrv.sys.
constexpr ULONG kTagNew = PoolTag("KVnw");
// The device object.
constexpr ULONG kTagDevice = PoolTag("KVaC");
// USB configuration: descriptors, the first interface, the pipe array, the
// USBDI bus interface, and the request blocks sent to the bus.
constexpr ULONG kTagDeviceDescriptor = PoolTag("KVdd");
constexpr ULONG kTagConfigurationDescriptor = PoolTag("KVcd");
constexpr ULONG kTagInterfaceList = PoolTag("KVle");
constexpr ULONG kTagPipes = PoolTag("KVtx");
constexpr ULONG kTagBusInterface = PoolTag("KVB1");
constexpr ULONG kTagRequest = PoolTag("KVrb");
constexpr ULONG kTagSelectConfiguration = PoolTag("KVsc");
// Format tables and the pins' pointer arrays into them.
constexpr ULONG kTagCaptureTable = PoolTag("KVVd");
constexpr ULONG kTagStillTable = PoolTag("KVVs");
constexpr ULONG kTagCaptureRanges = PoolTag("KVVp");
constexpr ULONG kTagStillRanges = PoolTag("KVVr");
// Filter topology and the filter object.
constexpr ULONG kTagNodes = PoolTag("KVNd");
constexpr ULONG kTagConnections = PoolTag("KVCn");
constexpr ULONG kTagFilter = PoolTag("KVFl");
// Registry buffers and the settings record, its in-memory image.
constexpr ULONG kTagRegistry = PoolTag("KVaT");
// The capture pin: its format copy and its edited descriptor and framing.
constexpr ULONG kTagPinFormat = PoolTag("KVIV");
constexpr ULONG kTagEditedDescriptor = PoolTag("KVCa");
// The stream: the frame descriptor, the work buffers (and the pan-and-zoom
// area), the collection and ready buffers, the list heads and locks, and
// each transfer's object, URB and data buffer.
constexpr ULONG kTagFrameDescriptor = PoolTag("KVER");
constexpr ULONG kTagWork = PoolTag("KVSs");
constexpr ULONG kTagFrameData = PoolTag("KVfb");
constexpr ULONG kTagLists = PoolTag("KVls");
constexpr ULONG kTagTransfer = PoolTag("KVto");
constexpr ULONG kTagUrb = PoolTag("KVur");
constexpr ULONG kTagTransferData = PoolTag("KVdb");
// The interrupt endpoint: its URB and receive buffer, and each received
// packet on its way to a work item (and each still event raised from one).
constexpr ULONG kTagInterrupt = PoolTag("KVit");
constexpr ULONG kTagButtonWork = PoolTag("KVwk");
// Image work areas: the picture operations' scratch and state buffers (the
// effects' grid and tiles, resize and rotation work buffers).
constexpr ULONG kTagImage = PoolTag("KVMI");

// Frees a pool block with its tag and clears the pointer, so that a second
// release is harmless.
template <typename T>
void FreeTagged(T*& p, ULONG tag)
{
    if (p != nullptr) {
        ExFreePoolWithTag(const_cast<void*>(static_cast<const void*>(p)), tag);
        p = nullptr;
    }
}

}  // namespace kv
