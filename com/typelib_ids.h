// The identities of the type library and its classes and interfaces. Hosts
// record them when the component is registered: never change them.
#pragma once

#include <string_view>

namespace elatectwn4::com {

inline constexpr std::string_view kLibraryName = "ElatecTWN4";
inline constexpr std::string_view kProgId = "ElatecTWN4.Encoder";
inline constexpr unsigned kLibraryMajor = 1;
inline constexpr unsigned kLibraryMinor = 0;

inline constexpr std::string_view kLibraryId = "{f6a7d544-062f-48ac-b71d-4b920a4dd940}";
inline constexpr std::string_view kEncoderClassId = "{7ab325cd-44b3-4e94-a015-bad7c2269d9c}";
inline constexpr std::string_view kErrorClassId = "{f2fd1921-d9f6-46d0-8b7b-a203c10bb66d}";
inline constexpr std::string_view kEncoderInterfaceId = "{dc625ad2-825a-4c1d-8227-5d821b88630e}";
inline constexpr std::string_view kErrorInterfaceId = "{52b11868-8079-47c6-a748-9da23695b0ee}";

}  // namespace elatectwn4::com
