// Bounds-checked reading of USB descriptors, used by every descriptor parser
// of the driver: descriptors come from the camera and are not trusted. Multi-byte fields are little-endian on the wire and
// are read byte by byte, so no read depends on alignment or host order.
//
// DescriptorWalker steps through a configuration descriptor one descriptor
// at a time. A descriptor is handed out only when its bLength is at least 2
// and lies wholly inside the bytes we hold; the walk stops at a bLength of 0
// (nothing after it can be found) and at a descriptor that would run past
// the end. Each
// parser then asks Has(n) before reading a field that ends at byte n.
#pragma once

#include "wdk.h"

namespace kv {

inline USHORT ReadLe16(const UCHAR* p)
{
    return static_cast<USHORT>(p[0] | (p[1] << 8));
}

inline ULONG ReadLe32(const UCHAR* p)
{
    return static_cast<ULONG>(p[0]) | (static_cast<ULONG>(p[1]) << 8) | (static_cast<ULONG>(p[2]) << 16) |
           (static_cast<ULONG>(p[3]) << 24);
}

// One descriptor: its bytes are p[0 .. length-1], length == bLength.
struct DescriptorView {
    const UCHAR* p;
    ULONG length;

    UCHAR Type() const { return p[1]; }
    // Class-specific descriptors carry their subtype in byte 2.
    UCHAR Subtype() const { return length >= 3 ? p[2] : 0; }
    // True when the descriptor holds the bytes [0, end).
    bool Has(ULONG end) const { return end <= length; }
    UCHAR U8(ULONG offset) const { return p[offset]; }
    USHORT U16(ULONG offset) const { return ReadLe16(p + offset); }
    ULONG U32(ULONG offset) const { return ReadLe32(p + offset); }
};

class DescriptorWalker {
public:
    // Walks p[0 .. length-1]. For a configuration descriptor the caller passes
    // min(wTotalLength, bytes actually held): see ConfigurationWalkLength.
    DescriptorWalker(const UCHAR* p, ULONG length) : m_p(p), m_length(p != nullptr ? length : 0), m_offset(0) {}

    // Next whole descriptor, or false at the end of the walk.
    bool Next(DescriptorView* pView)
    {
        if (m_offset + 2 > m_length) {
            return false;
        }
        const ULONG bLength = m_p[m_offset];
        if (bLength < 2 || bLength > m_length - m_offset) {
            m_offset = m_length;  // bLength 0 ends the walk; a 1 or an overrun cannot be stepped over safely
            return false;
        }
        pView->p = m_p + m_offset;
        pView->length = bLength;
        m_offset += bLength;
        return true;
    }

    ULONG Offset() const { return m_offset; }

private:
    const UCHAR* m_p;
    ULONG m_length;
    ULONG m_offset;
};

// The number of bytes of a configuration descriptor that a walk may read:
// wTotalLength (bytes 2-3), but never more than the buffer holds. A buffer
// too short for the 9-byte header gives 0.
inline ULONG ConfigurationWalkLength(const UCHAR* pConfiguration, ULONG bufferLength)
{
    if (pConfiguration == nullptr || bufferLength < 9) {
        return 0;
    }
    const ULONG total = ReadLe16(pConfiguration + 2);
    return total < bufferLength ? total : bufferLength;
}

}  // namespace kv
