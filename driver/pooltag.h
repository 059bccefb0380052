// Pool tags (Overview, "Conventions"): every lasting allocation carries a
// four-character tag beginning with "KV". The tag's bytes in memory are the
// four characters in order, as pool tools (poolmon, !poolused) show them:
// PoolTag("KVdd") is the ULONG a WDK driver writes as 'ddVK'.
#pragma once
#include "wdk.h"

namespace kv {

constexpr ULONG PoolTag(const char (&tag)[5])
{
    return static_cast<ULONG>(static_cast<UCHAR>(tag[0])) | (static_cast<ULONG>(static_cast<UCHAR>(tag[1])) << 8) |
           (static_cast<ULONG>(static_cast<UCHAR>(tag[2])) << 16) |
           (static_cast<ULONG>(static_cast<UCHAR>(tag[3])) << 24);
}

}  // namespace kv
