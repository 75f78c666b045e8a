// Late-bound access to the component: the description of every member of
// the _Encoder and _CError interfaces, and calling a member by name or
// dispatch id with run-time typed arguments. The command-line tool, the C ABI
// and scripting hosts use it; a C++ host calls Encoder directly.
//
//   std::vector<elatectwn4::Variant> args{std::int32_t{4}, std::string("FFFFFFFFFFFF"),
//                                         std::uint8_t{0}, std::string()};
//   auto r = elatectwn4::Invoke(encoder, "ReadDataBloc", elatectwn4::MemberKind::Method, args);
//   // r.value holds the sceReturnCode; args[3] the block contents.
#pragma once

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "elatectwn4/encoder.h"
#include "elatectwn4/export.h"
#include "elatectwn4/variant.h"

namespace elatectwn4 {

/// How a member is reached.
enum class MemberKind { Method, PropertyGet, PropertyPut };

/// The automation types the members use.
enum class ValueType {
    Void,     ///< no result (a Sub)
    String,   ///< std::string
    Long,     ///< std::int32_t
    Byte,     ///< std::uint8_t
    Boolean,  ///< bool
    Variant,  ///< any
    Object,   ///< a CError record (LastError)
};

struct ParamInfo {
    std::string_view name;
    ValueType type;
    std::string_view typeName;  ///< as the type library shows it: "String", "SCBS_SecurityLevelEnum", ...
    bool inOut;                 ///< passed by reference: the call writes it back
    bool optional;
};

struct MemberInfo {
    std::string_view interfaceName;  ///< "_Encoder" or "_CError"
    std::string_view name;
    std::int32_t dispId;
    MemberKind kind;
    ValueType result;
    std::string_view resultTypeName;
    std::span<const ParamInfo> params;
    std::string_view help;  ///< one line for listings
};

/// Every member of _Encoder, then every member of _CError, in type-library order.
ELATECTWN4_API std::span<const MemberInfo> Members();

/// The member of `interfaceName` called `name` (case-insensitive) of `kind`; nullptr if none.
ELATECTWN4_API const MemberInfo* FindMember(std::string_view interfaceName, std::string_view name, MemberKind kind);

/// Why a late-bound call was refused. Nothing reached the card.
class ELATECTWN4_API DispatchError : public std::runtime_error {
public:
    enum class Reason {
        UnknownName,    ///< DISP_E_UNKNOWNNAME
        BadParamCount,  ///< DISP_E_BADPARAMCOUNT
        TypeMismatch,   ///< DISP_E_TYPEMISMATCH
        Overflow,       ///< DISP_E_OVERFLOW: a number out of the parameter type's range
    };
    DispatchError(Reason reason, std::string message, int argumentIndex = -1)
        : std::runtime_error(std::move(message)), reason_(reason), argument_(argumentIndex) {}
    Reason reason() const noexcept { return reason_; }
    /// The HRESULT a COM client would have seen.
    std::uint32_t hresult() const noexcept;
    /// 0-based index of the offending argument, -1 if not about one argument.
    int argumentIndex() const noexcept { return argument_; }

private:
    Reason reason_;
    int argument_;
};

/// The result of a late-bound call: a value, or for LastError the record itself.
struct DispatchResult {
    Variant value;
    CError* object = nullptr;
};

/// Calls a member of _Encoder. `args` are in the member's parameter order;
/// trailing optional ones may be left out. Each argument is converted to its
/// parameter's type (numbers between numeric types when in range, and the
/// converted value is what in/out arguments carry back). Throws
/// DispatchError before anything is sent when the call cannot be made; the
/// member itself never throws.
ELATECTWN4_API DispatchResult Invoke(Encoder& encoder, std::string_view name, MemberKind kind,
                                     std::vector<Variant>& args);
ELATECTWN4_API DispatchResult Invoke(Encoder& encoder, std::int32_t dispId, MemberKind kind,
                                     std::vector<Variant>& args);
/// Calls a member of _CError.
ELATECTWN4_API Variant Invoke(CError& error, std::string_view name, MemberKind kind, std::vector<Variant>& args);

/// Converts `value` to `type` as the dispatcher does; throws DispatchError.
ELATECTWN4_API Variant ConvertArgument(const Variant& value, ValueType type, int argumentIndex = -1);

/// The zero of a type: "" for a String, 0 for a Long or a Byte, False for a
/// Boolean, nothing for a Variant. What an absent optional argument passes.
ELATECTWN4_API Variant DefaultOf(ValueType type);

/// Text of a value for people ("sceSuccess" is not applied here: plain values).
ELATECTWN4_API std::string ToText(const Variant& value);

/// "ReadDataBloc(BlocNumber As Long, Key As String, KeyType As Byte, in/out BlocContents As String) As
/// sceReturnCode"; optional parameters in brackets.
ELATECTWN4_API std::string Signature(const MemberInfo& member);

/// `text` as a message quotes it: whole up to 40 bytes, else its first 40
/// bytes (never half a UTF-8 character) followed by "...". A caller's
/// mistake may be megabytes long; the message stays readable.
ELATECTWN4_API std::string Abbreviated(std::string_view text);

/// "ValueType" name as the type library shows it.
ELATECTWN4_API std::string_view TypeName(ValueType type) noexcept;

}  // namespace elatectwn4
