// What only a C++ host sees of the COM server: the type library embedded in
// the DLL against the member table (vtable slots included), the HRESULT and
// argument position Invoke gives for calls that cannot be made, a byte array
// as a SAFEARRAY, and the dual interfaces' vtables (through the header widl
// writes) against IDispatch. Usage: com_check DLL [DESFIRE-READER
// MIFARE-READER]. Prints one line per failure; exits with their count.
// clang-format off
#include <windows.h>
#include <oleauto.h>
// clang-format on

#include <algorithm>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "ElatecTWN4.h"
#include "com/typelib.h"
#include "com/win/guid.h"
#include "com/win/variant_convert.h"

using namespace elatectwn4;
using namespace elatectwn4::com;

namespace {

int failures = 0;

void Expect(bool ok, const std::string& what) {
    if (!ok) {
        ++failures;
        std::printf("FAIL %s\n", what.c_str());
    }
}

std::string Narrow(const wchar_t* text) {
    std::string out;
    for (; text != nullptr && *text != 0; ++text)
        out += static_cast<char>(*text);
    return out;
}

const char* KindName(MemberKind kind) {
    return kind == MemberKind::Method ? "method" : kind == MemberKind::PropertyGet ? "get" : "put";
}

// "name id kind (param:vt:flags ...)": the same line for a row of the table
// and for a function of the type library.
std::string RowLine(const MemberInfo& m) {
    std::string line = std::string(m.name) + " " + std::to_string(m.dispId) + " " + KindName(m.kind) + " (";
    for (const auto& p : m.params) {
        // Enumerations are 32-bit user types; the library shows them as such.
        const bool isEnum = p.type == ValueType::Long && p.typeName != "Long";
        line += std::string(p.name) + ":" + (isEnum ? "enum" : std::to_string(win::VarTypeOf(p.type))) +
                (p.inOut ? ":inout" : ":in") + (p.optional ? ":opt" : "") + " ";
    }
    return line + ")";
}

std::string FunctionLine(ITypeInfo* info, const FUNCDESC* f) {
    BSTR names[32] = {};
    UINT count = 0;
    info->GetNames(f->memid, names, 32, &count);
    const MemberKind kind = f->invkind == INVOKE_PROPERTYGET   ? MemberKind::PropertyGet
                            : f->invkind == INVOKE_PROPERTYPUT ? MemberKind::PropertyPut
                                                               : MemberKind::Method;
    std::string line = Narrow(names[0]) + " " + std::to_string(f->memid) + " " + KindName(kind) + " (";
    for (SHORT i = 0; i < f->cParams; ++i) {
        const ELEMDESC& e = f->lprgelemdescParam[i];
        const USHORT flags = e.paramdesc.wParamFlags;
        if (flags & PARAMFLAG_FRETVAL) continue;
        // Names are looked up by id, which a put shares with its get: a put's
        // value is called by its role, as the table calls it.
        const std::string name = kind == MemberKind::PropertyPut    ? "Value"
                                 : static_cast<UINT>(i + 1) < count ? Narrow(names[i + 1])
                                                                    : "?";
        const TYPEDESC* t = &e.tdesc;
        const bool inOut = (flags & PARAMFLAG_FOUT) != 0;
        if (inOut && t->vt == VT_PTR) t = t->lptdesc;
        const std::string type = t->vt == VT_USERDEFINED ? "enum" : std::to_string(t->vt);
        const bool optional = (flags & (PARAMFLAG_FOPT | PARAMFLAG_FHASDEFAULT)) != 0;
        line += name + ":" + type + (inOut ? ":inout" : ":in") + (optional ? ":opt" : "") + " ";
    }
    for (UINT i = 0; i < count; ++i)
        SysFreeString(names[i]);
    return line + ")";
}

void CheckTypeLibrary(const std::wstring& dll) {
    ITypeLib* library = nullptr;
    Expect(SUCCEEDED(LoadTypeLibEx(dll.c_str(), REGKIND_NONE, &library)), "the DLL carries a type library");
    if (library == nullptr) return;
    for (const auto& [name, guid] :
         {std::pair{"_Encoder", win::kEncoderInterfaceGuid}, std::pair{"_CError", win::kErrorInterfaceGuid}}) {
        std::vector<std::string> rows;  // in table order, which is the vtable's
        for (const auto& row : MemberRows()) {
            if (row.info.interfaceName == name) rows.push_back(RowLine(row.info));
        }
        ITypeInfo* dispatch = nullptr;
        ITypeInfo* info = nullptr;
        HREFTYPE vtable = 0;
        // The dual interface's own functions, without those of IDispatch.
        if (FAILED(library->GetTypeInfoOfGuid(guid, &dispatch)) ||
            FAILED(dispatch->GetRefTypeOfImplType(-1, &vtable)) || FAILED(dispatch->GetRefTypeInfo(vtable, &info))) {
            Expect(false, std::string(name) + " is a dual interface of the library");
            continue;
        }
        TYPEATTR* attributes = nullptr;
        info->GetTypeAttr(&attributes);
        std::set<std::string> found;
        for (WORD i = 0; i < attributes->cFuncs; ++i) {
            FUNCDESC* f = nullptr;
            info->GetFuncDesc(i, &f);
            const std::string line = FunctionLine(info, f);
            found.insert(line);
            // IDispatch's seven slots come first, then one per row.
            const auto slot = std::find(rows.begin(), rows.end(), line) - rows.begin() + 7;
            Expect(f->oVft == static_cast<SHORT>(slot * sizeof(void*)),
                   std::string(name) + ": vtable slot of " + line + " at byte " + std::to_string(f->oVft));
            info->ReleaseFuncDesc(f);
        }
        info->ReleaseTypeAttr(attributes);
        Expect(found == std::set<std::string>(rows.begin(), rows.end()),
               std::string(name) + ": the library's functions are not the table's rows");
        info->Release();
        dispatch->Release();
    }
    library->Release();
}

VARIANT Of(VARTYPE type, LONG number = 0, const wchar_t* text = nullptr, void* reference = nullptr) {
    VARIANT v;
    VariantInit(&v);
    V_VT(&v) = type;
    if (type == VT_BSTR) V_BSTR(&v) = SysAllocString(text);
    if (type == VT_I4) V_I4(&v) = number;
    if (type == VT_ERROR) V_ERROR(&v) = DISP_E_PARAMNOTFOUND;  // an argument left out
    if (type & VT_BYREF) V_BYREF(&v) = reference;
    if (type == VT_DISPATCH) V_DISPATCH(&v) = static_cast<IDispatch*>(reference);
    return v;
}
VARIANT Text(const wchar_t* text) {
    return Of(VT_BSTR, 0, text);
}
VARIANT Long(LONG value) {
    return Of(VT_I4, value);
}

// Calls a member through IDispatch::Invoke, arguments in the member's order.
HRESULT Dispatch(IDispatch* object, const wchar_t* member, WORD flags, std::vector<VARIANT> args, VARIANT* result,
                 UINT* argumentError = nullptr) {
    LPOLESTR name = const_cast<LPOLESTR>(member);
    DISPID id = DISPID_UNKNOWN;
    object->GetIDsOfNames(IID_NULL, &name, 1, 0, &id);
    std::reverse(args.begin(), args.end());
    DISPID put = DISPID_PROPERTYPUT;
    const bool isPut = flags == DISPATCH_PROPERTYPUT;
    DISPPARAMS params{args.data(), isPut ? &put : nullptr, static_cast<UINT>(args.size()), isPut ? 1u : 0u};
    VariantInit(result);
    return object->Invoke(id, IID_NULL, 0, flags, &params, result, nullptr, argumentError);
}

// The text of a value, for comparing the two bindings' results.
std::string Shown(VARIANT value) {
    VARIANT text;
    VariantInit(&text);
    const bool ok = SUCCEEDED(VariantChangeType(&text, &value, 0, VT_BSTR));
    const std::string out = ok ? Narrow(V_BSTR(&text)) : "(vt " + std::to_string(V_VT(&value)) + ")";
    VariantClear(&text);
    return out;
}
std::string Shown(LONG value) {
    return std::to_string(value);
}

// What IDispatch gives for a call, as text.
std::string DispatchText(IDispatch* object, const wchar_t* member, std::vector<VARIANT> args = {},
                         WORD flags = DISPATCH_METHOD | DISPATCH_PROPERTYGET) {
    VARIANT result;
    const HRESULT hr = Dispatch(object, member, flags, std::move(args), &result);
    std::string text = SUCCEEDED(hr) ? Shown(result) : "(failed)";
    VariantClear(&result);
    return text;
}

void CheckInvoke(IDispatch* encoder) {
    LPOLESTR names[] = {const_cast<LPOLESTR>(L"readdatabloc"), const_cast<LPOLESTR>(L"NoSuchMember")};
    DISPID ids[2] = {};
    Expect(encoder->GetIDsOfNames(IID_NULL, &names[0], 1, 0, &ids[0]) == S_OK && ids[0] == 30,
           "GetIDsOfNames ignores case");
    Expect(encoder->GetIDsOfNames(IID_NULL, &names[1], 1, 0, &ids[1]) == DISP_E_UNKNOWNNAME && ids[1] == DISPID_UNKNOWN,
           "GetIDsOfNames of an unknown name");

    BSTR contents = SysAllocString(L"untouched");
    LONG wrongReference = 0;
    const VARIANT block = Of(VT_BYREF | VT_BSTR, 0, nullptr, &contents);
    const VARIANT key = Text(L"FFFFFFFFFFFF");
    // Arguments in the member's order; the position as Invoke counts it, from the last argument.
    const struct {
        const char* what;
        const wchar_t* member;
        std::vector<VARIANT> args;
        HRESULT expected;
        UINT argumentError;
    } calls[] = {
        {"too few arguments", L"ReadDataBloc", {Long(4)}, DISP_E_BADPARAMCOUNT, ~0u},
        {"text for a Byte", L"ReadDataBloc", {Long(4), key, Text(L"x"), block}, DISP_E_TYPEMISMATCH, 1},
        {"an object for a Long",
         L"ReadDataBloc",
         {Of(VT_DISPATCH, 0, nullptr, encoder), key, Long(0), block},
         DISP_E_TYPEMISMATCH,
         3},
        {"a Byte out of range", L"ReadDataBloc", {Long(4), key, Long(256), block}, DISP_E_OVERFLOW, 1},
        {"a reference to a Long for a String",
         L"ReadDataBloc",
         {Long(4), key, Long(0), Of(VT_BYREF | VT_I4, 0, nullptr, &wrongReference)},
         DISP_E_TYPEMISMATCH,
         0},
        {"a required argument left out",
         L"ReadDataBloc",
         {Long(4), Of(VT_ERROR), Long(0), block},
         DISP_E_PARAMNOTOPTIONAL,
         2},
        {"an optional argument left out", L"OpenEncoder", {Of(VT_ERROR)}, S_OK, ~0u},
        {"a member's own failure", L"ReadDataBloc", {Long(4), Text(L"FFFF"), Long(0), block}, S_OK, ~0u},
    };
    for (const auto& call : calls) {
        VARIANT result;
        UINT argumentError = ~0u;
        const HRESULT hr = Dispatch(encoder, call.member, DISPATCH_METHOD, call.args, &result, &argumentError);
        char text[160];
        std::snprintf(text, sizeof text, "%s: HRESULT %08lX (expected %08lX), argument %u (expected %u)", call.what,
                      static_cast<unsigned long>(hr), static_cast<unsigned long>(call.expected), argumentError,
                      call.argumentError);
        Expect(hr == call.expected && argumentError == call.argumentError, text);
        // A refused call runs nothing, so nothing is written back.
        if (hr != S_OK) Expect(Narrow(contents) == "untouched", std::string(call.what) + ": in/out text changed");
        VariantClear(&result);
    }
    // The member's own failure (on a closed encoder) empties the block through the reference.
    Expect(Narrow(contents).empty(), "in/out text written back: " + Narrow(contents));
    SysFreeString(contents);
}

// DESFireGetVersion -2 into a VARIANT by reference: the whole version record
// as a SAFEARRAY of bytes, which scripts under Wine cannot read.
void CheckByteArray(IDispatch* encoder, const wchar_t* reader) {
    // One at a time: the operands of + are evaluated in no fixed order.
    std::string opened =
        DispatchText(encoder, L"Parameters", {Text((L"Device=" + std::wstring(reader)).c_str())}, DISPATCH_PROPERTYPUT);
    opened += DispatchText(encoder, L"OpenEncoder");
    opened += DispatchText(encoder, L"DESFireSelectRoot", {Text(L"0000000000000000")});
    VARIANT information;
    VariantInit(&information);
    opened +=
        DispatchText(encoder, L"DESFireGetVersion", {Long(-2), Of(VT_BYREF | VT_VARIANT, 0, nullptr, &information)});
    std::string hex;
    if (V_VT(&information) == (VT_ARRAY | VT_UI1)) {
        unsigned char* bytes = nullptr;
        SafeArrayAccessData(V_ARRAY(&information), reinterpret_cast<void**>(&bytes));
        for (ULONG i = 0; i < V_ARRAY(&information)->rgsabound[0].cElements; ++i) {
            char pair[3];
            std::snprintf(pair, sizeof pair, "%02X", bytes[i]);
            hex += pair;
        }
        SafeArrayUnaccessData(V_ARRAY(&information));
    }
    Expect(
        opened == "000" && hex == "0401010100180504010101041805045A3B2C1D0E80BA451260302C13",
        "DESFireGetVersion -2 as VT_ARRAY | VT_UI1: " + opened + " " + std::to_string(V_VT(&information)) + " " + hex);
    VariantClear(&information);
}

// The dual interfaces called through their vtables, as an early-bound host
// calls them, against IDispatch on the same object: an optional argument
// left out, in/out arguments of several types, and LastError's record read
// and written through _CError's vtable. On the reader of a simulated MIFARE
// card sector 1 gets a trailer and reads it back; without, the calls fail.
void CheckEarlyBinding(IClassFactory* factory, const wchar_t* reader) {
    _Encoder* early = nullptr;
    Expect(SUCCEEDED(factory->CreateInstance(nullptr, win::kEncoderInterfaceGuid, reinterpret_cast<void**>(&early))),
           "an Encoder through _Encoder");
    if (early == nullptr) return;
    IDispatch* late = nullptr;
    early->QueryInterface(IID_IDispatch, reinterpret_cast<void**>(&late));
    BSTR device = SysAllocString((L"Device=" + std::wstring(reader ? reader : L"Virtual PCD 00 09")).c_str());
    early->put_Parameters(device);
    ::sceReturnCode result = ::sceCanceled;
    early->OpenEncoder(0, &result);
    Expect(result == (reader ? ::sceSuccess : ::sceError), "OpenEncoder through the vtable: " + Shown(result));

    BSTR keys[] = {SysAllocString(L"FFFFFFFFFFFF"), SysAllocString(L"A0A1A2A3A4A5"), SysAllocString(L"B0B1B2B3B4B5"),
                   SysAllocString(L"FFFF")};
    if (reader != nullptr) {
        const auto level = ::SCBS_SecurityLevelEnum(13);
        early->WriteSectorTrailer(1, keys[0], 0, keys[1], keys[2], 2, level, level, level, ::SCSS_SecurityLevelEnum(12),
                                  Of(VT_ERROR), &result);
        Expect(result == ::sceSuccess, "WriteSectorTrailer with BX left out: " + Shown(result));
    }
    // Every out-argument starts as 99, so that one left unwritten shows.
    unsigned char keysUsed = 99;
    unsigned char bx = 99;
    ::SCBS_SecurityLevelEnum s[3] = {::SCBS_SecurityLevelEnum(99), ::SCBS_SecurityLevelEnum(99),
                                     ::SCBS_SecurityLevelEnum(99)};
    ::SCSS_SecurityLevelEnum conditions = ::SCSS_SecurityLevelEnum(99);
    early->ReadSectorTrailer(1, keys[2], 2, &keysUsed, &s[0], &s[1], &s[2], &conditions, &bx, &result);
    const std::string vtableOuts = Shown(result) + " " + Shown(keysUsed) + " " + Shown(s[0]) + " " + Shown(s[1]) + " " +
                                   Shown(s[2]) + " " + Shown(conditions) + " " + Shown(bx);
    VARIANT outs[6];
    std::vector<VARIANT> args{Long(1), Text(L"B0B1B2B3B4B5"), Long(2)};
    for (auto& out : outs) {
        out = Long(99);
        args.push_back(Of(VT_BYREF | VT_VARIANT, 0, nullptr, &out));
    }
    std::string dispatchOuts = DispatchText(late, L"ReadSectorTrailer", args);
    for (auto& out : outs)
        dispatchOuts.append(" ").append(Shown(out));
    Expect(vtableOuts == dispatchOuts && (reader == nullptr || vtableOuts == "0 2 13 13 13 12 105"),
           "ReadSectorTrailer: vtable " + vtableOuts + ", IDispatch " + dispatchOuts);

    // A failure (a key of the wrong length) empties the block and fills the record.
    BSTR block = SysAllocString(L"untouched");
    early->ReadDataBloc(4, keys[3], 0, &block, &result);
    _CError* error = nullptr;
    early->get_LastError(&error);
    Expect(result == ::sceError && SysStringLen(block) == 0 && error != nullptr,
           "ReadDataBloc with a short key, then LastError as a _CError");
    BSTR function = nullptr;
    if (error != nullptr) {
        IDispatch* record = nullptr;
        error->QueryInterface(IID_IDispatch, reinterpret_cast<void**>(&record));
        error->get_ComFunction(&function);
        Expect(Narrow(function) == "MifareAuthenticate:LoadKey" &&
                   DispatchText(record, L"ComFunction") == Narrow(function),
               "ComFunction through the vtable: " + Narrow(function));
        error->put_Number(7);
        Expect(DispatchText(record, L"Number") == "7", "Number put through the vtable");
        record->Release();
        error->Release();
    }
    for (BSTR text : {device, keys[0], keys[1], keys[2], keys[3], block, function})
        SysFreeString(text);
    late->Release();
    early->Release();
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc != 2 && argc != 4) {
        std::printf("usage: com_check DLL [DESFIRE-READER MIFARE-READER]\n");
        return 2;
    }
    CoInitialize(nullptr);
    CheckTypeLibrary(argv[1]);

    HMODULE dll = LoadLibraryW(argv[1]);
    using GetClassObject = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);
    using CanUnloadNow = HRESULT(STDAPICALLTYPE*)();
    // Through a function type without parameters: the one cast between function types that is clean.
    using Untyped = void (*)();
    auto getClassObject =
        reinterpret_cast<GetClassObject>(reinterpret_cast<Untyped>(GetProcAddress(dll, "DllGetClassObject")));
    auto canUnloadNow =
        reinterpret_cast<CanUnloadNow>(reinterpret_cast<Untyped>(GetProcAddress(dll, "DllCanUnloadNow")));
    IClassFactory* factory = nullptr;
    IDispatch* encoder = nullptr;
    Expect(getClassObject != nullptr && canUnloadNow != nullptr, "the DLL exports its entry points");
    if (getClassObject != nullptr && canUnloadNow != nullptr) {
        Expect(SUCCEEDED(getClassObject(win::kEncoderClassGuid, IID_IClassFactory, reinterpret_cast<void**>(&factory))),
               "class factory of Encoder");
        Expect(getClassObject(win::kErrorInterfaceGuid, IID_IClassFactory, reinterpret_cast<void**>(&encoder)) ==
                   CLASS_E_CLASSNOTAVAILABLE,
               "no factory for another class");
        if (factory != nullptr) {
            Expect(SUCCEEDED(factory->CreateInstance(nullptr, IID_IDispatch, reinterpret_cast<void**>(&encoder))),
                   "an Encoder through IDispatch");
            CheckEarlyBinding(factory, argc == 4 ? argv[3] : nullptr);
            factory->Release();
        }
        if (encoder != nullptr) {
            Expect(canUnloadNow() == S_FALSE, "the DLL stays while an Encoder lives");
            CheckInvoke(encoder);
            if (argc == 4) CheckByteArray(encoder, argv[2]);
            encoder->Release();
        }
        Expect(canUnloadNow() == S_OK, "the DLL may unload once every object is gone");
    }
    std::printf("com_check: %d failed\n", failures);
    CoUninitialize();
    return failures;
}
