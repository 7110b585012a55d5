// A client toolkit for tests, in a library of its own that takes the place of libVEXClientTKDll64.so: it writes down
// how its VCTK_ operations are called and answers as told. Its compatibility functions are the substitute's.
//
// Unless told otherwise it obliges: there is a handle, settings are accepted, every text is "text".
//
// Recorded calls read like C++: handles and filter types as all their 64 bits in hexadecimal, other integers as signed
// 32-bit numbers, the length of a size query as &length, its buffer as null or by what it holds.
//     VCTK_P7Sign(0x5158, "data", 1, 1, 0)
//     VCTK_GetP7SignResult(0x5158, null, &0)
//     VCTK_GetP7SignResult(0x5158, [5 zero bytes], &5)
//
// Any thread may call anything.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace recording_toolkit {

inline constexpr std::uint64_t kHandle = 0x5158;

// How one operation answers the two calls of a size query. A result of 0 is success.
struct Text {
    std::string bytes = "text";  // a NUL is written behind them; what does not fit the buffer is left out
    std::int32_t nSizeResult = 0;
    std::optional<std::int32_t> nSize =
        std::nullopt;  // stored by the first call; without it, what the bytes and their NUL need
    std::int32_t nFetchResult = 0;
    std::optional<std::int32_t> nSizeAfterFetch =
        std::nullopt;  // stored by the second call; without it, the length is left alone
};

// Forgets the calls and obliges again.
void Reset();

// The calls since Reset, in their order.
std::vector<std::string> Calls();

// Puts a line among the calls, for others whose calls are to be seen in one order with the toolkit's.
void Record(std::string strCall);

// What VCTK_Initialize returns.
void SetHandle(std::uint64_t nHandle);

// What the operation of this name ("VCTK_P1Sign") returns; not for VCTK_Initialize and the size queries.
void SetResult(std::string_view operation, std::int32_t nResult);

// How the size query of this name ("VCTK_GetCertList") is answered.
void SetText(std::string_view operation, Text text);

}  // namespace recording_toolkit
