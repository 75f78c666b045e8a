#include "com/win/variant_convert.h"

#include <cstring>
#include <limits>
#include <vector>

namespace elatectwn4::com::win {

std::string FromBstr(BSTR text) {
    const int length = static_cast<int>(SysStringLen(text));
    if (length == 0) return {};
    const int size = WideCharToMultiByte(CP_ACP, 0, text, length, nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_ACP, 0, text, length, out.data(), size, nullptr, nullptr);
    return out;
}

BSTR ToBstr(const std::string& text) {
    const int length = static_cast<int>(text.size());
    const int size = length == 0 ? 0 : MultiByteToWideChar(CP_ACP, 0, text.data(), length, nullptr, 0);
    BSTR out = SysAllocStringLen(nullptr, static_cast<UINT>(size));
    if (out != nullptr && size > 0) MultiByteToWideChar(CP_ACP, 0, text.data(), length, out, size);
    return out;
}

namespace {

std::optional<Variant> FromByteArray(SAFEARRAY* array) {
    if (array == nullptr || SafeArrayGetDim(array) != 1) return std::nullopt;
    LONG low = 0;
    LONG high = -1;
    SafeArrayGetLBound(array, 1, &low);
    SafeArrayGetUBound(array, 1, &high);
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(high - low + 1));
    void* data = nullptr;
    if (!bytes.empty()) {
        if (FAILED(SafeArrayAccessData(array, &data))) return std::nullopt;
        std::memcpy(bytes.data(), data, bytes.size());
        SafeArrayUnaccessData(array);
    }
    return Variant{std::move(bytes)};
}

// A number the component's Long cannot hold travels as a Double; the
// dispatcher then reports the overflow for the parameter it was given to.
Variant Integer(long long value) {
    if (value >= std::numeric_limits<std::int32_t>::min() && value <= std::numeric_limits<std::int32_t>::max())
        return Variant{static_cast<std::int32_t>(value)};
    return Variant{static_cast<double>(value)};
}

}  // namespace

std::optional<Variant> FromVariant(const VARIANT& value) {
    VARIANT plain;
    VariantInit(&plain);
    if (FAILED(VariantCopyInd(&plain, const_cast<VARIANT*>(&value)))) return std::nullopt;
    std::optional<Variant> out;
    switch (V_VT(&plain)) {
        case VT_EMPTY:
            out = Variant{};
            break;
        case VT_BOOL:
            out = Variant{V_BOOL(&plain) != VARIANT_FALSE};
            break;
        case VT_UI1:
            out = Variant{static_cast<std::uint8_t>(V_UI1(&plain))};
            break;
        case VT_I1:
            out = Integer(V_I1(&plain));
            break;
        case VT_I2:
            out = Integer(V_I2(&plain));
            break;
        case VT_UI2:
            out = Integer(V_UI2(&plain));
            break;
        case VT_I4:
            out = Integer(V_I4(&plain));
            break;
        case VT_UI4:
            out = Integer(V_UI4(&plain));
            break;
        case VT_INT:
            out = Integer(V_INT(&plain));
            break;
        case VT_UINT:
            out = Integer(V_UINT(&plain));
            break;
        case VT_I8:
            out = Integer(V_I8(&plain));
            break;
        case VT_R4:
            out = Variant{static_cast<double>(V_R4(&plain))};
            break;
        case VT_R8:
            out = Variant{V_R8(&plain)};
            break;
        case VT_CY:
        case VT_DECIMAL: {
            VARIANT number;
            VariantInit(&number);
            if (SUCCEEDED(VariantChangeType(&number, &plain, 0, VT_R8))) out = Variant{V_R8(&number)};
            break;
        }
        case VT_BSTR:
            out = Variant{FromBstr(V_BSTR(&plain))};
            break;
        case VT_ARRAY | VT_UI1:
            out = FromByteArray(V_ARRAY(&plain));
            break;
        default:
            break;
    }
    VariantClear(&plain);
    return out;
}

bool ToVariant(const Variant& value, VARIANT& out) {
    VariantInit(&out);
    if (const auto* b = std::get_if<bool>(&value)) {
        V_VT(&out) = VT_BOOL;
        V_BOOL(&out) = *b ? VARIANT_TRUE : VARIANT_FALSE;
    } else if (const auto* u = std::get_if<std::uint8_t>(&value)) {
        V_VT(&out) = VT_UI1;
        V_UI1(&out) = *u;
    } else if (const auto* l = std::get_if<std::int32_t>(&value)) {
        V_VT(&out) = VT_I4;
        V_I4(&out) = *l;
    } else if (const auto* d = std::get_if<double>(&value)) {
        V_VT(&out) = VT_R8;
        V_R8(&out) = *d;
    } else if (const auto* s = std::get_if<std::string>(&value)) {
        BSTR text = ToBstr(*s);
        if (text == nullptr) return false;
        V_VT(&out) = VT_BSTR;
        V_BSTR(&out) = text;
    } else if (const auto* bytes = std::get_if<std::vector<std::uint8_t>>(&value)) {
        SAFEARRAY* array = SafeArrayCreateVector(VT_UI1, 0, static_cast<ULONG>(bytes->size()));
        if (array == nullptr) return false;
        void* data = nullptr;
        if (!bytes->empty() && SUCCEEDED(SafeArrayAccessData(array, &data))) {
            std::memcpy(data, bytes->data(), bytes->size());
            SafeArrayUnaccessData(array);
        }
        V_VT(&out) = VT_ARRAY | VT_UI1;
        V_ARRAY(&out) = array;
    }
    return true;
}

}  // namespace elatectwn4::com::win
