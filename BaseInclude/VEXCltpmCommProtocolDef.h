// The command header in front of every file server request. Integers are in host byte order.
#pragma once

#include <cstddef>
#include <type_traits>

#include "VEXType.h"

#pragma pack(push, 1)

struct _tagVEX_COMM_PROTOCOL {
    DWORD dwCmd;         // operation code
    DWORD dwResult;      // 0 in a request
    DWORD dwExtendSize;  // bytes of the request behind this header
};

#pragma pack(pop)

static_assert(std::is_trivially_copyable_v<_tagVEX_COMM_PROTOCOL> && sizeof(_tagVEX_COMM_PROTOCOL) == 24);
static_assert(offsetof(_tagVEX_COMM_PROTOCOL, dwCmd) == 0 && offsetof(_tagVEX_COMM_PROTOCOL, dwResult) == 8);
static_assert(offsetof(_tagVEX_COMM_PROTOCOL, dwExtendSize) == 16);
