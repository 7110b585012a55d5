// A client toolkit for tests, in a library that replaces libVEXClientTKDll64.so. It records the calls of its VCTK_
// operations and returns what the test has set. Its compatibility functions are those of libVEXClientTKDll64.so.
//
// By default all operations succeed: there is a handle, settings are accepted, every text is "text".
//
// Recorded calls read like C++. Handles and filter types are 64-bit hexadecimal numbers, other integers are signed
// 32-bit numbers. The length of a size query is &length, and its buffer is null or its contents.
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

// The answers of one operation to the two calls of a size query. A result of 0 is success.
struct Text {
    std::string bytes = "text";  // written with a NUL behind them, as far as the buffer has room
    std::int32_t nSizeResult = 0;
    std::optional<std::int32_t> nSize =
        std::nullopt;  // stored by the first call; default: the size of the bytes and their NUL
    std::int32_t nFetchResult = 0;
    std::optional<std::int32_t> nSizeAfterFetch =
        std::nullopt;  // stored by the second call; default: the length does not change
};

// Forgets the calls and restores the defaults.
void Reset();

// The calls since Reset, in order.
std::vector<std::string> Calls();

// Adds a line to the calls. Other recorders use it, so that their calls and the toolkit's are in one order.
void Record(std::string strCall);

// Sets the result of VCTK_Initialize.
void SetHandle(std::uint64_t nHandle);

// Sets the result of the operation of this name ("VCTK_P1Sign"). Not for VCTK_Initialize and the size queries.
void SetResult(std::string_view operation, std::int32_t nResult);

// Sets the answers of the size query of this name ("VCTK_GetCertList").
void SetText(std::string_view operation, Text text);

}  // namespace recording_toolkit
