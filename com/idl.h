// The type library as Microsoft IDL, written from the member table so that it
// can never disagree with dispatch. The Windows build compiles it (widl) into
// the .tlb the COM server carries as its type-library resource.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace elatectwn4::com {

struct Enumerator {
    std::string_view name;
    std::int32_t value;
};

struct Enumeration {
    std::string_view name;
    std::span<const Enumerator> members;
};

/// Every public enumeration with its members, in type-library order.
std::span<const Enumeration> Enumerations();

/// The library ElatecTWN4: the enumerations, the dual interfaces _CError and
/// _Encoder with one line per row of the member table, and the classes.
std::string TypeLibraryIdl();

}  // namespace elatectwn4::com
