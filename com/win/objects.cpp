#include "com/win/objects.h"

#include <algorithm>
#include <new>
#include <optional>

#include "com/typelib.h"
#include "com/win/guid.h"
#include "com/win/module.h"
#include "com/win/variant_convert.h"

namespace elatectwn4::com::win {
namespace {

bool SameName(std::string_view a, const std::string& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
        return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
    });
}

std::string Narrow(LPOLESTR name) {
    std::string out;
    for (; name != nullptr && *name != 0; ++name)
        out += *name < 0x80 ? static_cast<char>(*name) : '?';
    return out;
}

const MemberInfo* FindMember(std::string_view interfaceName, DISPID id, MemberKind kind) {
    for (const auto& row : MemberRows()) {
        if (row.info.interfaceName == interfaceName && row.info.dispId == id && row.info.kind == kind) return &row.info;
    }
    return nullptr;
}

// Which member a call reaches: a property put, else the method, else the
// property get (scripts ask for "method or get" when they read a value).
const MemberInfo* Resolve(std::string_view interfaceName, DISPID id, WORD flags) {
    if (flags & (DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYPUTREF))
        return FindMember(interfaceName, id, MemberKind::PropertyPut);
    const MemberInfo* found = nullptr;
    if (flags & DISPATCH_METHOD) found = FindMember(interfaceName, id, MemberKind::Method);
    if (found == nullptr && (flags & DISPATCH_PROPERTYGET))
        found = FindMember(interfaceName, id, MemberKind::PropertyGet);
    return found;
}

bool IsMissing(const VARIANT& v) {
    return V_VT(&v) == VT_ERROR && V_ERROR(&v) == DISP_E_PARAMNOTFOUND;
}

// Writes an in/out argument back where the caller passed it: into its
// VARIANT or into the variable of the declared type it referenced.
void WriteBack(VARIANT& target, const Variant& value) {
    if (V_VT(&target) == (VT_BYREF | VT_VARIANT)) {
        VARIANT* inner = V_VARIANTREF(&target);
        VariantClear(inner);
        ToVariant(value, *inner);
        return;
    }
    if (const auto* s = std::get_if<std::string>(&value); s && V_VT(&target) == (VT_BYREF | VT_BSTR)) {
        if (BSTR text = ToBstr(*s)) {
            SysFreeString(*V_BSTRREF(&target));
            *V_BSTRREF(&target) = text;
        }
    } else if (const auto* l = std::get_if<std::int32_t>(&value); l && V_VT(&target) == (VT_BYREF | VT_I4)) {
        *V_I4REF(&target) = *l;
    } else if (const auto* u = std::get_if<std::uint8_t>(&value); u && V_VT(&target) == (VT_BYREF | VT_UI1)) {
        *V_UI1REF(&target) = *u;
    } else if (const auto* b = std::get_if<bool>(&value); b && V_VT(&target) == (VT_BYREF | VT_BOOL)) {
        *V_BOOLREF(&target) = *b ? VARIANT_TRUE : VARIANT_FALSE;
    }
}

HRESULT Fail(HRESULT code, UINT* argumentError, UINT count, int index) {
    if (argumentError != nullptr && index >= 0) *argumentError = count - 1 - static_cast<UINT>(index);
    return code;
}

}  // namespace

DispatchObject::DispatchObject(std::string_view interfaceName, const GUID& interfaceId)
    : interfaceName_(interfaceName), interfaceId_(interfaceId), dual_{DualVtable(interfaceName), this} {
    AddModuleRef();
}

DispatchObject::~DispatchObject() {
    ReleaseModuleRef();
}

HRESULT STDMETHODCALLTYPE DispatchObject::QueryInterface(REFIID riid, void** object) {
    if (object == nullptr) return E_POINTER;
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IDispatch)) {
        *object = static_cast<IDispatch*>(this);
        AddRef();
        return S_OK;
    }
    if (IsEqualIID(riid, interfaceId_)) {
        *object = &dual_;
        AddRef();
        return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
}

ULONG STDMETHODCALLTYPE DispatchObject::AddRef() {
    return ++references_;
}

ULONG STDMETHODCALLTYPE DispatchObject::Release() {
    const ULONG left = --references_;
    if (left == 0) delete this;
    return left;
}

HRESULT STDMETHODCALLTYPE DispatchObject::GetTypeInfoCount(UINT* count) {
    if (count == nullptr) return E_POINTER;
    *count = 1;
    return S_OK;
}

HRESULT STDMETHODCALLTYPE DispatchObject::GetTypeInfo(UINT index, LCID, ITypeInfo** info) {
    if (info == nullptr) return E_POINTER;
    *info = nullptr;
    if (index != 0) return DISP_E_BADINDEX;
    ITypeLib* library = TypeLibrary();
    if (library == nullptr) return TYPE_E_CANTLOADLIBRARY;
    const HRESULT hr = library->GetTypeInfoOfGuid(interfaceId_, info);
    library->Release();
    return hr;
}

HRESULT STDMETHODCALLTYPE DispatchObject::GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID, DISPID* ids) {
    if (!IsEqualIID(riid, IID_NULL)) return DISP_E_UNKNOWNINTERFACE;
    if (names == nullptr || ids == nullptr || count == 0) return E_INVALIDARG;
    std::fill(ids, ids + count, DISPID_UNKNOWN);
    const std::string name = Narrow(names[0]);
    const MemberInfo* member = nullptr;
    for (const auto& row : MemberRows()) {
        if (row.info.interfaceName == interfaceName_ && SameName(row.info.name, name)) {
            member = &row.info;
            break;
        }
    }
    if (member == nullptr) return DISP_E_UNKNOWNNAME;
    ids[0] = member->dispId;
    bool allKnown = true;
    for (UINT i = 1; i < count; ++i) {
        const std::string param = Narrow(names[i]);
        const auto found = std::find_if(member->params.begin(), member->params.end(),
                                        [&](const ParamInfo& p) { return SameName(p.name, param); });
        if (found != member->params.end()) {
            ids[i] = static_cast<DISPID>(found - member->params.begin());
        } else {
            allKnown = false;
        }
    }
    return allKnown ? S_OK : DISP_E_UNKNOWNNAME;
}

HRESULT STDMETHODCALLTYPE DispatchObject::Invoke(DISPID id, REFIID riid, LCID, WORD flags, DISPPARAMS* params,
                                                 VARIANT* result, EXCEPINFO*, UINT* argumentError) {
    if (!IsEqualIID(riid, IID_NULL)) return DISP_E_UNKNOWNINTERFACE;
    if (params == nullptr) return E_INVALIDARG;
    const MemberInfo* member = Resolve(interfaceName_, id, flags);
    if (member == nullptr) return DISP_E_MEMBERNOTFOUND;
    const bool put = member->kind == MemberKind::PropertyPut;
    // Arguments come by position; the only name accepted is a put's value.
    if (put ? (params->cNamedArgs != 1 || params->rgdispidNamedArgs[0] != DISPID_PROPERTYPUT)
            : params->cNamedArgs != 0) {
        return DISP_E_NONAMEDARGS;
    }
    const UINT count = params->cArgs;
    const auto& declared = member->params;
    const auto required = static_cast<UINT>(
        std::count_if(declared.begin(), declared.end(), [](const ParamInfo& p) { return !p.optional; }));
    if (count < required || count > declared.size()) return DISP_E_BADPARAMCOUNT;

    try {
        std::vector<Variant> args;
        std::vector<VARIANT*> writeBack;
        for (UINT i = 0; i < count; ++i) {
            VARIANT& given = params->rgvarg[count - 1 - i];
            const ParamInfo& p = declared[i];
            if (IsMissing(given)) {
                if (!p.optional) return Fail(DISP_E_PARAMNOTOPTIONAL, argumentError, count, static_cast<int>(i));
                args.push_back(DefaultOf(p.type));
                writeBack.push_back(nullptr);
                continue;
            }
            const bool byReference = (V_VT(&given) & VT_BYREF) != 0;
            if (byReference && V_VT(&given) != (VT_BYREF | VT_VARIANT) &&
                V_VT(&given) != (VT_BYREF | VarTypeOf(p.type))) {
                return Fail(DISP_E_TYPEMISMATCH, argumentError, count, static_cast<int>(i));
            }
            auto value = FromVariant(given);
            if (!value) return Fail(DISP_E_TYPEMISMATCH, argumentError, count, static_cast<int>(i));
            // An uninitialised script variable stands for the parameter type's zero.
            if (IsEmpty(*value)) value = DefaultOf(p.type);
            args.push_back(std::move(*value));
            writeBack.push_back(p.inOut && byReference ? &given : nullptr);
        }
        DispatchResult outcome;
        try {
            outcome = Call(*member, args);
        } catch (const DispatchError& e) {
            return Fail(static_cast<HRESULT>(e.hresult()), argumentError, count, e.argumentIndex());
        }
        for (UINT i = 0; i < count; ++i) {
            if (writeBack[i] != nullptr) WriteBack(*writeBack[i], args[i]);
        }
        if (result != nullptr) {
            VariantInit(result);
            if (outcome.object != nullptr) {
                V_VT(result) = VT_DISPATCH;
                V_DISPATCH(result) = ErrorObjectFor(*outcome.object);
            } else if (!ToVariant(outcome.value, *result)) {
                return E_OUTOFMEMORY;
            }
        }
        return S_OK;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_UNEXPECTED;
    }
}

EncoderObject::EncoderObject() : DispatchObject("_Encoder", kEncoderInterfaceGuid), encoder_(ServerPcsc()) {}

DispatchResult EncoderObject::Call(const MemberInfo& member, std::vector<Variant>& args) {
    return elatectwn4::Invoke(encoder_, member.dispId, member.kind, args);
}

IDispatch* EncoderObject::ErrorObjectFor(CError& record) {
    return new ErrorObject(this, record);
}

ErrorObject::ErrorObject(IDispatch* owner, CError& record)
    : DispatchObject("_CError", kErrorInterfaceGuid), owner_(owner), record_(record) {
    owner_->AddRef();
}

ErrorObject::~ErrorObject() {
    owner_->Release();
}

DispatchResult ErrorObject::Call(const MemberInfo& member, std::vector<Variant>& args) {
    return {elatectwn4::Invoke(record_, member.name, member.kind, args), nullptr};
}

IDispatch* ErrorObject::ErrorObjectFor(CError& record) {
    return new ErrorObject(owner_, record);
}

}  // namespace elatectwn4::com::win
