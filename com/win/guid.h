// GUIDs of the type library (com/typelib_ids.h) as the Windows structures.
#pragma once

// clang-format off
#include <windows.h>
// clang-format on

#include <string_view>

#include "com/typelib_ids.h"

namespace elatectwn4::com::win {

constexpr unsigned HexDigit(char c) {
    return c >= '0' && c <= '9'   ? static_cast<unsigned>(c - '0')
           : c >= 'a' && c <= 'f' ? static_cast<unsigned>(c - 'a' + 10)
                                  : static_cast<unsigned>(c - 'A' + 10);
}

constexpr unsigned long long HexField(std::string_view text, std::size_t at, std::size_t digits) {
    unsigned long long value = 0;
    for (std::size_t i = 0; i < digits; ++i)
        value = value * 16 + HexDigit(text[at + i]);
    return value;
}

/// "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}" as a GUID.
constexpr GUID ToGuid(std::string_view t) {
    GUID g{static_cast<unsigned long>(HexField(t, 1, 8)),
           static_cast<unsigned short>(HexField(t, 10, 4)),
           static_cast<unsigned short>(HexField(t, 15, 4)),
           {}};
    constexpr std::size_t kTail[8] = {20, 22, 25, 27, 29, 31, 33, 35};
    for (std::size_t i = 0; i < 8; ++i)
        g.Data4[i] = static_cast<unsigned char>(HexField(t, kTail[i], 2));
    return g;
}

inline constexpr GUID kLibraryGuid = ToGuid(kLibraryId);
inline constexpr GUID kEncoderClassGuid = ToGuid(kEncoderClassId);
inline constexpr GUID kEncoderInterfaceGuid = ToGuid(kEncoderInterfaceId);
inline constexpr GUID kErrorInterfaceGuid = ToGuid(kErrorInterfaceId);

}  // namespace elatectwn4::com::win
