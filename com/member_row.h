// Rows of the member table that take what they can from the member's C++
// signature: the automation type of every parameter and of the result, which
// parameters the call writes back (those passed by non-const reference), and
// the call itself. A row states only what C++ cannot tell: the names hosts
// see, which parameters may be left out, and the enumeration a Long stands
// for. What it states is checked against the signature when it compiles.
//
//   constexpr std::array kBlock{In("BlocNumber"), In("Key"), In("KeyType"), InOut("BlocContents")};
//   Method<&Encoder::ReadDataBloc, kBlock>(30, "ReadDataBloc", "Reads a 16-byte block")
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "com/member.h"
#include "elatectwn4/dispatch.h"
#include "elatectwn4/types.h"

namespace elatectwn4::com {

/// One parameter as a row states it.
struct Param {
    std::string_view name;
    bool inOut = false;
    bool optional = false;
    std::string_view typeName = {};  ///< an enumeration hosts see instead of "Long"; empty: from the C++ type
};

constexpr Param In(std::string_view name, std::string_view enumName = {}) {
    return {name, false, false, enumName};
}
constexpr Param InOut(std::string_view name, std::string_view enumName = {}) {
    return {name, true, false, enumName};
}
constexpr Param Optional(std::string_view name, std::string_view enumName = {}) {
    return {name, false, true, enumName};
}

inline constexpr std::array<Param, 0> kNoParams{};

// ---- Automation types of C++ types ------------------------------------------------

/// The type-library name of a public enumeration; empty for any other type.
template <typename T>
inline constexpr std::string_view kEnumName{};
template <>
inline constexpr std::string_view kEnumName<sceReturnCode> = "sceReturnCode";
template <>
inline constexpr std::string_view kEnumName<sceEncoderState> = "sceEncoderState";
template <>
inline constexpr std::string_view kEnumName<sceCardTypes> = "sceCardTypes";
template <>
inline constexpr std::string_view kEnumName<SCBS_SecurityLevelEnum> = "SCBS_SecurityLevelEnum";
template <>
inline constexpr std::string_view kEnumName<SCSS_SecurityLevelEnum> = "SCSS_SecurityLevelEnum";
template <>
inline constexpr std::string_view kEnumName<DesfireKeySettings> = "DesfireKeySettings";
template <>
inline constexpr std::string_view kEnumName<DesfireVersionBytes> = "DesfireVersionBytes";
template <>
inline constexpr std::string_view kEnumName<DesfireCommunicationSettings> = "DesfireCommunicationSettings";
template <>
inline constexpr std::string_view kEnumName<DesfireAccessRights> = "DesfireAccessRights";
template <>
inline constexpr std::string_view kEnumName<DesfireFileSettings> = "DesfireFileSettings";
template <>
inline constexpr std::string_view kEnumName<DesfireFileTypes> = "DesfireFileTypes";

/// Every public enumeration: a Long parameter may be shown as any of them.
inline constexpr std::array kEnumNames{kEnumName<sceReturnCode>,          kEnumName<sceEncoderState>,
                                       kEnumName<sceCardTypes>,           kEnumName<SCBS_SecurityLevelEnum>,
                                       kEnumName<SCSS_SecurityLevelEnum>, kEnumName<DesfireKeySettings>,
                                       kEnumName<DesfireVersionBytes>,    kEnumName<DesfireCommunicationSettings>,
                                       kEnumName<DesfireAccessRights>,    kEnumName<DesfireFileSettings>,
                                       kEnumName<DesfireFileTypes>};

/// The automation type and type-library name of a C++ value type; `known`
/// is false for a type the dispatcher cannot carry.
template <typename T>
struct Automation {
    static constexpr bool known = std::is_enum_v<T> && !kEnumName<T>.empty();
    static constexpr ValueType type = ValueType::Long;
    static constexpr std::string_view name = kEnumName<T>;
};
template <ValueType Type, const char* Name>
struct KnownAs {
    static constexpr bool known = true;
    static constexpr ValueType type = Type;
    static constexpr std::string_view name = Name;
};
inline constexpr char kStringName[] = "String";
inline constexpr char kLongName[] = "Long";
inline constexpr char kByteName[] = "Byte";
inline constexpr char kBooleanName[] = "Boolean";
inline constexpr char kVariantName[] = "Variant";
inline constexpr char kObjectName[] = "CError";
inline constexpr char kVoidName[] = "";
template <>
struct Automation<std::string> : KnownAs<ValueType::String, kStringName> {};
template <>
struct Automation<std::int32_t> : KnownAs<ValueType::Long, kLongName> {};
template <>
struct Automation<std::uint8_t> : KnownAs<ValueType::Byte, kByteName> {};
template <>
struct Automation<bool> : KnownAs<ValueType::Boolean, kBooleanName> {};
template <>
struct Automation<Variant> : KnownAs<ValueType::Variant, kVariantName> {};
template <>
struct Automation<CError> : KnownAs<ValueType::Object, kObjectName> {};
template <>
struct Automation<void> : KnownAs<ValueType::Void, kVoidName> {};

/// A parameter the call writes back: passed by non-const reference.
template <typename A>
inline constexpr bool kWritesBack = std::is_lvalue_reference_v<A> && !std::is_const_v<std::remove_reference_t<A>>;

// ---- The member's signature -----------------------------------------------------------

template <typename M>
struct Signature;
template <typename C, typename R, typename... A>
struct Signature<R (C::*)(A...)> {
    using Class = C;
    using Result = R;
    using Args = std::tuple<A...>;
    static constexpr std::size_t arity = sizeof...(A);
};

template <auto Member, std::size_t I>
using ArgOf = std::tuple_element_t<I, typename Signature<decltype(Member)>::Args>;

/// Picks one overload of a member by its signature: Overload<void, const std::string&>(&Encoder::Parameters).
template <typename R, typename... A, typename C>
constexpr auto Overload(R (C::*member)(A...)) {
    return member;
}

// ---- Checks of a stated parameter list against the signature ---------------------------

template <auto Member, std::size_t N>
constexpr bool CountFits(const std::array<Param, N>&) {
    return Signature<decltype(Member)>::arity == N;
}

template <auto Member, std::size_t N>
constexpr bool TypesKnown(const std::array<Param, N>&) {
    return []<std::size_t... I>(std::index_sequence<I...>) {
        return (Automation<std::remove_cvref_t<ArgOf<Member, I>>>::known && ...);
    }
    (std::make_index_sequence<Signature<decltype(Member)>::arity>{});
}

template <auto Member, std::size_t N>
constexpr bool InOutFits(const std::array<Param, N>& params) {
    if (!CountFits<Member>(params)) return false;
    return [&]<std::size_t... I>(std::index_sequence<I...>) {
        return ((params[I].inOut == kWritesBack<ArgOf<Member, I>>)&&...);
    }
    (std::make_index_sequence<N>{});
}

template <typename T>
constexpr bool TypeNameFits(std::string_view stated) {
    if (stated.empty() || stated == Automation<T>::name) return true;
    if (!std::is_same_v<T, std::int32_t>) return false;
    for (std::string_view name : kEnumNames) {
        if (name == stated) return true;
    }
    return false;
}

template <auto Member, std::size_t N>
constexpr bool TypeNamesFit(const std::array<Param, N>& params) {
    if (!CountFits<Member>(params)) return false;
    return [&]<std::size_t... I>(std::index_sequence<I...>) {
        return (TypeNameFits<std::remove_cvref_t<ArgOf<Member, I>>>(params[I].typeName) && ...);
    }
    (std::make_index_sequence<N>{});
}

/// Optional parameters come last and are never written back.
template <std::size_t N>
constexpr bool OptionalsFit(const std::array<Param, N>& params) {
    bool seen = false;
    for (const Param& p : params) {
        if (p.optional && p.inOut) return false;
        if (seen && !p.optional) return false;
        seen = seen || p.optional;
    }
    return true;
}

// ---- The description and the call ----------------------------------------------------

template <auto Member, const auto& Stated>
constexpr auto DescribeParams() {
    constexpr std::size_t N = std::tuple_size_v<std::remove_cvref_t<decltype(Stated)>>;
    std::array<ParamInfo, N> out{};
    [&]<std::size_t... I>(std::index_sequence<I...>) {
        ((out[I] = ParamInfo{Stated[I].name, Automation<std::remove_cvref_t<ArgOf<Member, I>>>::type,
                             Stated[I].typeName.empty() ? Automation<std::remove_cvref_t<ArgOf<Member, I>>>::name
                                                        : Stated[I].typeName,
                             Stated[I].inOut, Stated[I].optional}),
         ...);
    }
    (std::make_index_sequence<N>{});
    return out;
}

/// The type library's description of the parameters of a row.
template <auto Member, const auto& Stated>
inline constexpr auto kParamInfo = DescribeParams<Member, Stated>();

/// The argument for a parameter of C++ type A; the dispatcher has already
/// converted the variant to the parameter's automation type.
template <typename A>
decltype(auto) Argument(Variant& value) {
    using V = std::remove_cvref_t<A>;
    if constexpr (std::is_same_v<V, Variant>) {
        return (value);
    } else if constexpr (std::is_enum_v<V>) {
        static_assert(!kWritesBack<A>, "an enumeration is passed by value; write back a std::int32_t instead");
        return static_cast<V>(std::get<std::int32_t>(value));
    } else {
        return (std::get<V>(value));
    }
}

template <typename R>
DispatchResult ToResult(R&& result) {
    using V = std::remove_cvref_t<R>;
    if constexpr (std::is_same_v<V, CError>) {
        return {{}, &result};
    } else if constexpr (std::is_enum_v<V>) {
        return {Variant{static_cast<std::int32_t>(result)}, nullptr};
    } else {
        return {Variant{std::forward<R>(result)}, nullptr};
    }
}

/// Calls `Member` on `self` with `args`, converted to its parameter types.
template <auto Member>
DispatchResult CallMember(typename Signature<decltype(Member)>::Class& self, std::vector<Variant>& args) {
    using S = Signature<decltype(Member)>;
    return [&]<std::size_t... I>(std::index_sequence<I...>) {
        if constexpr (std::is_void_v<typename S::Result>) {
            (self.*Member)(Argument<ArgOf<Member, I>>(args[I])...);
            return DispatchResult{};
        } else {
            return ToResult((self.*Member)(Argument<ArgOf<Member, I>>(args[I])...));
        }
    }
    (std::make_index_sequence<S::arity>{});
}

// ---- Rows of _Encoder ----------------------------------------------------------------

template <auto Member, const auto& Stated>
consteval MemberRow EncoderRow(MemberKind kind, std::int32_t dispId, std::string_view name, std::string_view help) {
    using S = Signature<decltype(Member)>;
    using Result = std::remove_cvref_t<typename S::Result>;
    static_assert(std::is_same_v<typename S::Class, Encoder>, "a row of _Encoder names a member of Encoder");
    static_assert(CountFits<Member>(Stated), "the row states another number of parameters than the member takes");
    static_assert(TypesKnown<Member>(Stated), "a parameter's C++ type has no automation type");
    static_assert(Automation<Result>::known, "the member's result type has no automation type");
    static_assert(InOutFits<Member>(Stated), "in/out must be exactly the parameters passed by non-const reference");
    static_assert(TypeNamesFit<Member>(Stated), "a stated enumeration does not fit the parameter's C++ type");
    static_assert(OptionalsFit(Stated), "optional parameters come last and are passed by value");
    return MemberRow{{"_Encoder", name, dispId, kind, Automation<Result>::type, Automation<Result>::name,
                      kParamInfo<Member, Stated>, help},
                     &CallMember<Member>,
                     nullptr};
}

template <auto Member, const auto& Stated = kNoParams>
consteval MemberRow Method(std::int32_t dispId, std::string_view name, std::string_view help) {
    return EncoderRow<Member, Stated>(MemberKind::Method, dispId, name, help);
}
template <auto Member>
consteval MemberRow Get(std::int32_t dispId, std::string_view name, std::string_view help) {
    return EncoderRow<Member, kNoParams>(MemberKind::PropertyGet, dispId, name, help);
}
template <auto Member, const auto& Stated>
consteval MemberRow Put(std::int32_t dispId, std::string_view name, std::string_view help) {
    return EncoderRow<Member, Stated>(MemberKind::PropertyPut, dispId, name, help);
}

// ---- Rows of _CError: its fields ---------------------------------------------------------

template <auto Field>
using FieldType = std::remove_cvref_t<decltype(std::declval<CError&>().*Field)>;

template <auto Field>
Variant GetField(CError& error, std::vector<Variant>&) {
    return Variant{error.*Field};
}
template <auto Field>
Variant PutField(CError& error, std::vector<Variant>& args) {
    error.*Field = std::get<FieldType<Field>>(args[0]);
    return {};
}

template <auto Field>
inline constexpr std::array kFieldValue{
    ParamInfo{"Value", Automation<FieldType<Field>>::type, Automation<FieldType<Field>>::name, false, false}};

template <auto Field>
consteval MemberRow FieldGet(std::int32_t dispId, std::string_view name, std::string_view help) {
    using T = FieldType<Field>;
    return MemberRow{
        {"_CError", name, dispId, MemberKind::PropertyGet, Automation<T>::type, Automation<T>::name, {}, help},
        nullptr,
        &GetField<Field>};
}
template <auto Field>
consteval MemberRow FieldPut(std::int32_t dispId, std::string_view name) {
    return MemberRow{{"_CError", name, dispId, MemberKind::PropertyPut, ValueType::Void, "", kFieldValue<Field>, ""},
                     nullptr,
                     &PutField<Field>};
}

}  // namespace elatectwn4::com
