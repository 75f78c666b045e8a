#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <string>

#include "com/typelib.h"

namespace elatectwn4 {

namespace {

bool SameName(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
        return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
    });
}

std::string KindText(MemberKind kind) {
    switch (kind) {
        case MemberKind::Method:
            return "method";
        case MemberKind::PropertyGet:
            return "property get";
        case MemberKind::PropertyPut:
            return "property put";
    }
    return "member";
}

std::string Describe(const Variant& v) {
    return std::visit(
        [](const auto& x) -> std::string {
            using T = std::decay_t<decltype(x)>;
            if constexpr (std::is_same_v<T, std::monostate>)
                return "nothing";
            else if constexpr (std::is_same_v<T, bool>)
                return "a Boolean";
            else if constexpr (std::is_same_v<T, std::uint8_t>)
                return "a Byte";
            else if constexpr (std::is_same_v<T, std::int32_t>)
                return "a Long";
            else if constexpr (std::is_same_v<T, double>)
                return "a Double";
            else if constexpr (std::is_same_v<T, std::string>)
                return "the text \"" + Abbreviated(x) + "\"";
            else
                return "a byte array";
        },
        v);
}

std::string Where(int index) {
    return index >= 0 ? "argument " + std::to_string(index + 1) + ": " : std::string();
}

// Whole numbers written in decimal, or in hex with "&H" or "0x" in front.
bool ParseInteger(std::string_view text, long long& out) {
    while (!text.empty() && text.front() == ' ')
        text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ')
        text.remove_suffix(1);
    bool negative = false;
    if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    int base = 10;
    if (text.size() > 2 &&
        (text.starts_with("&H") || text.starts_with("&h") || text.starts_with("0x") || text.starts_with("0X"))) {
        base = 16;
        text.remove_prefix(2);
    }
    if (text.empty()) return false;
    unsigned long long magnitude = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
    if (ec != std::errc() || end != text.data() + text.size()) return false;
    if (magnitude > static_cast<unsigned long long>(std::numeric_limits<long long>::max())) return false;
    out = negative ? -static_cast<long long>(magnitude) : static_cast<long long>(magnitude);
    return true;
}

// The integer a value stands for, as automation coerces it: Booleans are
// 0 / -1, doubles round half to even.
long long IntegerOf(const Variant& value, ValueType type, int index) {
    auto mismatch = [&]() {
        return DispatchError(DispatchError::Reason::TypeMismatch,
                             Where(index) + "expected " + std::string(TypeName(type)) + ", got " + Describe(value),
                             index);
    };
    if (const auto* b = std::get_if<bool>(&value)) return *b ? -1 : 0;
    if (const auto* u = std::get_if<std::uint8_t>(&value)) return *u;
    if (const auto* l = std::get_if<std::int32_t>(&value)) return *l;
    if (const auto* d = std::get_if<double>(&value)) {
        if (!std::isfinite(*d) || std::fabs(*d) > 9.0e18) {
            throw DispatchError(DispatchError::Reason::Overflow, Where(index) + "number out of range", index);
        }
        return static_cast<long long>(std::nearbyint(*d));
    }
    if (const auto* s = std::get_if<std::string>(&value)) {
        long long parsed = 0;
        if (ParseInteger(*s, parsed)) return parsed;
    }
    throw mismatch();
}

}  // namespace

std::uint32_t DispatchError::hresult() const noexcept {
    switch (reason_) {
        case Reason::UnknownName:
            return 0x80020006;
        case Reason::BadParamCount:
            return 0x8002000E;
        case Reason::TypeMismatch:
            return 0x80020005;
        case Reason::Overflow:
            return 0x8002000A;
    }
    return 0x80004005;
}

std::string_view TypeName(ValueType type) noexcept {
    switch (type) {
        case ValueType::Void:
            return "Void";
        case ValueType::String:
            return "String";
        case ValueType::Long:
            return "Long";
        case ValueType::Byte:
            return "Byte";
        case ValueType::Boolean:
            return "Boolean";
        case ValueType::Variant:
            return "Variant";
        case ValueType::Object:
            return "Object";
    }
    return "?";
}

std::string Signature(const MemberInfo& m) {
    std::string out(m.name);
    out += '(';
    for (std::size_t i = 0; i < m.params.size(); ++i) {
        const auto& p = m.params[i];
        if (i) out += ", ";
        if (p.optional) out += '[';
        if (p.inOut) out += "in/out ";
        out += p.name;
        out += " As ";
        out += p.typeName;
        if (p.optional) out += ']';
    }
    out += ')';
    if (m.result != ValueType::Void) {
        out += " As ";
        out += m.resultTypeName;
    }
    return out;
}

std::span<const MemberInfo> Members() {
    static const std::vector<MemberInfo> members = [] {
        std::vector<MemberInfo> out;
        for (const auto& row : com::MemberRows())
            out.push_back(row.info);
        return out;
    }();
    return members;
}

const MemberInfo* FindMember(std::string_view interfaceName, std::string_view name, MemberKind kind) {
    for (const auto& row : com::MemberRows()) {
        if (row.info.interfaceName == interfaceName && row.info.kind == kind && SameName(row.info.name, name)) {
            return &row.info;
        }
    }
    return nullptr;
}

Variant ConvertArgument(const Variant& value, ValueType type, int index) {
    switch (type) {
        case ValueType::Variant:
            return value;
        case ValueType::String:
            if (std::holds_alternative<std::string>(value)) return value;
            throw DispatchError(DispatchError::Reason::TypeMismatch,
                                Where(index) + "expected String, got " + Describe(value), index);
        case ValueType::Long: {
            const long long n = IntegerOf(value, type, index);
            if (n < std::numeric_limits<std::int32_t>::min() || n > std::numeric_limits<std::int32_t>::max()) {
                throw DispatchError(DispatchError::Reason::Overflow,
                                    Where(index) + std::to_string(n) + " does not fit a Long (-2147483648..2147483647)",
                                    index);
            }
            return Variant{static_cast<std::int32_t>(n)};
        }
        case ValueType::Byte: {
            const long long n = IntegerOf(value, type, index);
            if (n < 0 || n > 255) {
                throw DispatchError(DispatchError::Reason::Overflow,
                                    Where(index) + std::to_string(n) + " does not fit a Byte (0..255)", index);
            }
            return Variant{static_cast<std::uint8_t>(n)};
        }
        case ValueType::Boolean: {
            if (const auto* s = std::get_if<std::string>(&value)) {
                if (SameName(*s, "true")) return Variant{true};
                if (SameName(*s, "false")) return Variant{false};
            }
            return Variant{IntegerOf(value, type, index) != 0};
        }
        case ValueType::Void:
        case ValueType::Object:
            break;
    }
    throw DispatchError(DispatchError::Reason::TypeMismatch, Where(index) + "cannot be passed", index);
}

std::string Abbreviated(std::string_view text) {
    constexpr std::size_t kLongest = 40;
    if (text.size() <= kLongest) return std::string(text);
    std::size_t cut = kLongest;
    // Back to the first byte of a character: continuation bytes are 10xxxxxx.
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80)
        --cut;
    return std::string(text.substr(0, cut)) + "...";
}

Variant DefaultOf(ValueType type) {
    switch (type) {
        case ValueType::String:
            return std::string();
        case ValueType::Long:
            return std::int32_t{0};
        case ValueType::Byte:
            return std::uint8_t{0};
        case ValueType::Boolean:
            return false;
        default:
            return {};
    }
}

std::string ToText(const Variant& value) {
    return std::visit(
        [](const auto& x) -> std::string {
            using T = std::decay_t<decltype(x)>;
            if constexpr (std::is_same_v<T, std::monostate>)
                return "";
            else if constexpr (std::is_same_v<T, bool>)
                return x ? "True" : "False";
            else if constexpr (std::is_same_v<T, std::uint8_t> || std::is_same_v<T, std::int32_t>) {
                return std::to_string(x);
            } else if constexpr (std::is_same_v<T, double>) {
                char buffer[32];
                const auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, x);
                return std::string(buffer, ec == std::errc() ? end : buffer);
            } else if constexpr (std::is_same_v<T, std::string>)
                return x;
            else {
                static constexpr char digits[] = "0123456789ABCDEF";
                std::string out;
                for (std::uint8_t b : x) {
                    if (!out.empty()) out += ' ';
                    out += digits[b >> 4];
                    out += digits[b & 15];
                }
                return out;
            }
        },
        value);
}

namespace {

template <typename Call>
auto InvokeRow(const com::MemberRow& row, std::vector<Variant>& args, Call call) {
    const auto& params = row.info.params;
    const auto required = static_cast<std::size_t>(
        std::count_if(params.begin(), params.end(), [](const ParamInfo& p) { return !p.optional; }));
    if (args.size() < required || args.size() > params.size()) {
        const std::string expected = required == params.size()
                                         ? std::to_string(required)
                                         : std::to_string(required) + " to " + std::to_string(params.size());
        throw DispatchError(DispatchError::Reason::BadParamCount, std::string(row.info.name) + " takes " + expected +
                                                                      " argument(s), " + std::to_string(args.size()) +
                                                                      " given");
    }
    std::vector<Variant> working;
    working.reserve(params.size());
    for (std::size_t i = 0; i < params.size(); ++i) {
        if (i < args.size()) {
            working.push_back(ConvertArgument(args[i], params[i].type, static_cast<int>(i)));
        } else {
            working.push_back(DefaultOf(params[i].type));
        }
    }
    auto result = call(working);
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (params[i].inOut) args[i] = std::move(working[i]);
    }
    return result;
}

const com::MemberRow* FindRow(std::string_view interfaceName, auto matches) {
    for (const auto& row : com::MemberRows()) {
        if (row.info.interfaceName == interfaceName && matches(row.info)) return &row;
    }
    return nullptr;
}

}  // namespace

DispatchResult Invoke(Encoder& encoder, std::string_view name, MemberKind kind, std::vector<Variant>& args) {
    const auto* row =
        FindRow("_Encoder", [&](const MemberInfo& m) { return m.kind == kind && SameName(m.name, name); });
    if (row == nullptr) {
        throw DispatchError(DispatchError::Reason::UnknownName,
                            "_Encoder has no " + KindText(kind) + " named \"" + Abbreviated(name) + "\"");
    }
    return InvokeRow(*row, args, [&](std::vector<Variant>& a) { return row->onEncoder(encoder, a); });
}

DispatchResult Invoke(Encoder& encoder, std::int32_t dispId, MemberKind kind, std::vector<Variant>& args) {
    const auto* row = FindRow("_Encoder", [&](const MemberInfo& m) { return m.kind == kind && m.dispId == dispId; });
    if (row == nullptr) {
        throw DispatchError(DispatchError::Reason::UnknownName,
                            "_Encoder has no " + KindText(kind) + " with dispatch id " + std::to_string(dispId));
    }
    return InvokeRow(*row, args, [&](std::vector<Variant>& a) { return row->onEncoder(encoder, a); });
}

Variant Invoke(CError& error, std::string_view name, MemberKind kind, std::vector<Variant>& args) {
    const auto* row = FindRow("_CError", [&](const MemberInfo& m) { return m.kind == kind && SameName(m.name, name); });
    if (row == nullptr) {
        throw DispatchError(DispatchError::Reason::UnknownName,
                            "_CError has no " + KindText(kind) + " named \"" + Abbreviated(name) + "\"");
    }
    return InvokeRow(*row, args, [&](std::vector<Variant>& a) { return row->onError(error, a); });
}

}  // namespace elatectwn4
