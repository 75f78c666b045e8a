#include "com/win/dual_vtable.h"

#include <array>
#include <cstddef>
#include <tuple>
#include <type_traits>
#include <utility>

#include "com/member_table.h"
#include "com/win/guid.h"
#include "com/win/variant_convert.h"

namespace elatectwn4::com::win {
namespace {

template <typename F>
VtableEntry AsEntry(F function) {
    return reinterpret_cast<VtableEntry>(function);
}

// ---- IDispatch's slots: the object's own -----------------------------------------------

HRESULT STDMETHODCALLTYPE QueryInterfaceSlot(DualFace* face, REFIID riid, void** object) {
    return face->object->QueryInterface(riid, object);
}
ULONG STDMETHODCALLTYPE AddRefSlot(DualFace* face) {
    return face->object->AddRef();
}
ULONG STDMETHODCALLTYPE ReleaseSlot(DualFace* face) {
    return face->object->Release();
}
HRESULT STDMETHODCALLTYPE GetTypeInfoCountSlot(DualFace* face, UINT* count) {
    return face->object->GetTypeInfoCount(count);
}
HRESULT STDMETHODCALLTYPE GetTypeInfoSlot(DualFace* face, UINT index, LCID locale, ITypeInfo** info) {
    return face->object->GetTypeInfo(index, locale, info);
}
HRESULT STDMETHODCALLTYPE GetIDsOfNamesSlot(DualFace* face, REFIID riid, LPOLESTR* names, UINT count, LCID locale,
                                            DISPID* ids) {
    return face->object->GetIDsOfNames(riid, names, count, locale, ids);
}
HRESULT STDMETHODCALLTYPE InvokeSlot(DualFace* face, DISPID id, REFIID riid, LCID locale, WORD flags,
                                     DISPPARAMS* params, VARIANT* result, EXCEPINFO* exception, UINT* argumentError) {
    return face->object->Invoke(id, riid, locale, flags, params, result, exception, argumentError);
}

// ---- The wire type of each automation type ----------------------------------------------
// In(): an [in] argument into a VARIANT that borrows it (never cleared).
// Out(): moves an Invoke result, already changed to the type, into a [retval].

template <ValueType Type>
struct Wire;

template <>
struct Wire<ValueType::String> {
    using type = BSTR;
    static void In(VARIANT& v, BSTR x) { V_BSTR(&v) = x; }
    static void Out(VARIANT& v, BSTR* out) { *out = V_BSTR(&v); }
};
template <>
struct Wire<ValueType::Long> {
    using type = LONG;
    static void In(VARIANT& v, LONG x) { V_I4(&v) = x; }
    static void Out(VARIANT& v, LONG* out) { *out = V_I4(&v); }
};
template <>
struct Wire<ValueType::Byte> {
    using type = BYTE;
    static void In(VARIANT& v, BYTE x) { V_UI1(&v) = x; }
    static void Out(VARIANT& v, BYTE* out) { *out = V_UI1(&v); }
};
template <>
struct Wire<ValueType::Boolean> {
    using type = VARIANT_BOOL;
    static void In(VARIANT& v, VARIANT_BOOL x) { V_BOOL(&v) = x; }
    static void Out(VARIANT& v, VARIANT_BOOL* out) { *out = V_BOOL(&v); }
};
template <>
struct Wire<ValueType::Variant> {
    using type = VARIANT;
    static void In(VARIANT& v, const VARIANT& x) { v = x; }
    static void Out(VARIANT& v, VARIANT* out) { *out = v; }
};
// The only object a member returns is the error record: the caller gets its _CError face.
template <>
struct Wire<ValueType::Object> {
    using type = IDispatch*;
    static void Out(VARIANT& v, IDispatch** out) {
        *out = nullptr;
        if (V_DISPATCH(&v) != nullptr)
            V_DISPATCH(&v)->QueryInterface(kErrorInterfaceGuid, reinterpret_cast<void**>(out));
        VariantClear(&v);
    }
};

// ---- One slot per member row ---------------------------------------------------------------

constexpr const MemberInfo& Row(std::size_t row) {
    return kMemberRows[row].info;
}

template <std::size_t R, std::size_t I>
using ParamWire = Wire<Row(R).params[I].type>;

template <std::size_t R, std::size_t I>
using ParamType =
    std::conditional_t<Row(R).params[I].inOut, typename ParamWire<R, I>::type*, typename ParamWire<R, I>::type>;

// The slot's parameters after `this`: the member's, then a pointer to its result if it has one.
template <std::size_t R, std::size_t... I>
auto SlotParams(std::index_sequence<I...>) {
    if constexpr (Row(R).result == ValueType::Void) {
        return std::type_identity<std::tuple<ParamType<R, I>...>>{};
    } else {
        return std::type_identity<std::tuple<ParamType<R, I>..., typename Wire<Row(R).result>::type*>>{};
    }
}
template <std::size_t R>
using SlotParamsOf = typename decltype(SlotParams<R>(std::make_index_sequence<Row(R).params.size()>{}))::type;

constexpr WORD InvokeFlags(MemberKind kind) {
    return kind == MemberKind::PropertyGet   ? DISPATCH_PROPERTYGET
           : kind == MemberKind::PropertyPut ? DISPATCH_PROPERTYPUT
                                             : DISPATCH_METHOD;
}

template <std::size_t R, typename Params>
struct Slot;

template <std::size_t R, typename... A>
struct Slot<R, std::tuple<A...>> {
    static HRESULT STDMETHODCALLTYPE Call(DualFace* face, A... given) {
        constexpr const MemberInfo& member = Row(R);
        constexpr std::size_t count = member.params.size();
        std::tuple<A...> args{given...};
        if constexpr (member.result != ValueType::Void) {
            if (std::get<count>(args) == nullptr) return E_POINTER;
        }
        // Invoke takes the arguments last first.
        std::array<VARIANT, count> variants{};
        [&]<std::size_t... I>(std::index_sequence<I...>) {
            (Pack<I>(variants[count - 1 - I], std::get<I>(args)), ...);
        }
        (std::make_index_sequence<count>{});
        DISPID put = DISPID_PROPERTYPUT;
        const bool isPut = member.kind == MemberKind::PropertyPut;
        DISPPARAMS params{variants.data(), isPut ? &put : nullptr, static_cast<UINT>(count), isPut ? 1u : 0u};
        VARIANT result;
        VariantInit(&result);
        HRESULT hr = face->object->Invoke(member.dispId, IID_NULL, LOCALE_USER_DEFAULT, InvokeFlags(member.kind),
                                          &params, &result, nullptr, nullptr);
        if constexpr (member.result != ValueType::Void) {
            using W = Wire<member.result>;
            constexpr VARTYPE vt = VarTypeOf(member.result);
            if (SUCCEEDED(hr) && vt != VT_VARIANT) hr = VariantChangeType(&result, &result, 0, vt);
            if (SUCCEEDED(hr)) {
                W::Out(result, std::get<count>(args));
                return hr;
            }
        }
        VariantClear(&result);
        return hr;
    }

    template <std::size_t I, typename T>
    static void Pack(VARIANT& v, T value) {
        constexpr VARTYPE vt = VarTypeOf(Row(R).params[I].type);
        if constexpr (Row(R).params[I].inOut) {
            V_VT(&v) = VT_BYREF | vt;
            V_BYREF(&v) = value;
        } else {
            V_VT(&v) = vt;
            ParamWire<R, I>::In(v, value);
        }
    }
};

// ---- The vtables ---------------------------------------------------------------------------------

constexpr std::size_t CountOf(std::string_view name) {
    std::size_t n = 0;
    for (const auto& row : kMemberRows)
        n += row.info.interfaceName == name ? 1 : 0;
    return n;
}

// The table index of the k-th row of `name`.
constexpr std::size_t NthRowOf(std::string_view name, std::size_t k) {
    for (std::size_t i = 0; i < kMemberRows.size(); ++i) {
        if (kMemberRows[i].info.interfaceName == name && k-- == 0) return i;
    }
    return kMemberRows.size();
}

template <const char* Name, std::size_t... K>
const VtableEntry* Vtable(std::index_sequence<K...>) {
    static const VtableEntry table[] = {
        AsEntry(&QueryInterfaceSlot), AsEntry(&AddRefSlot),
        AsEntry(&ReleaseSlot),        AsEntry(&GetTypeInfoCountSlot),
        AsEntry(&GetTypeInfoSlot),    AsEntry(&GetIDsOfNamesSlot),
        AsEntry(&InvokeSlot),         AsEntry(&Slot<NthRowOf(Name, K), SlotParamsOf<NthRowOf(Name, K)>>::Call)...};
    return table;
}

constexpr char kEncoderName[] = "_Encoder";
constexpr char kErrorName[] = "_CError";

}  // namespace

const VtableEntry* DualVtable(std::string_view interfaceName) {
    if (interfaceName == kEncoderName) return Vtable<kEncoderName>(std::make_index_sequence<CountOf(kEncoderName)>{});
    return Vtable<kErrorName>(std::make_index_sequence<CountOf(kErrorName)>{});
}

}  // namespace elatectwn4::com::win
