// The TLV packet family.
#pragma once

#include <cstddef>
#include <type_traits>

#include "VEXType.h"

// The head of a record, in memory as in a packet.
typedef struct tag_VEX_Packet_TLV {
    USHORT usType;
    USHORT usChildCount;  // child records
    DWORD dwDataLen;      // bytes of data; 4 bytes of padding stand before
} VEX_Packet_TLV, *PVEX_Packet_TLV;

static_assert(std::is_trivially_copyable_v<VEX_Packet_TLV> && sizeof(VEX_Packet_TLV) == 16);
static_assert(offsetof(VEX_Packet_TLV, usType) == 0 && offsetof(VEX_Packet_TLV, usChildCount) == 2);
static_assert(offsetof(VEX_Packet_TLV, dwDataLen) == 8);
