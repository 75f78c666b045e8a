// The registry file format: whatever a file holds, a hive that parses writes
// out to a text that parses back to the same hive, and a hive built from any
// names and data survives the trip through its file.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "fuzz_support.h"
#include "registry/reg_file.h"

namespace {

using namespace elatectwn4::registry;
using elatectwn4::fuzz::Check;
using elatectwn4::fuzz::Input;

constexpr std::string_view kRoot = "HKEY_LOCAL_MACHINE";

// What a write then a read gives back: text that a quoted string cannot
// carry travels as hex(1) bytes.
Hive AsReadBack(Hive hive) {
    for (auto& key : hive.keys) {
        for (auto& value : key.values) {
            const auto* text = std::get_if<std::string>(&value.data);
            if (text != nullptr && text->find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos) {
                value.data = EncodeRawText(*text, hive.format);
            }
        }
    }
    return hive;
}

void CheckRoundTrip(const Hive& hive) {
    const std::string text = SerializeHive(hive, kRoot);
    const ParseResult again = ParseHive(text, kRoot);
    // The text goes with a failure's record: it is what to look at.
    if (!again.hive || *again.hive != AsReadBack(hive)) std::fprintf(stderr, "written:\n%s\n", text.c_str());
    Check(again.hive.has_value(), "a written hive parses");
    Check(*again.hive == AsReadBack(hive), "a written hive reads back equal");
    Check(SerializeHive(*again.hive, kRoot) == text, "writing the read-back hive gives the same text");
}

// A hive made of whatever names and data the input holds.
Hive BuildHive(Input& in) {
    Hive hive;
    hive.format = in.Byte() % 2 == 0 ? FileFormat::Version5 : FileFormat::Version4;
    hive.crlf = in.Byte() % 2 == 0;
    const int keys = in.Byte() % 4;
    for (int k = 0; k < keys && !in.empty(); ++k) {
        const auto components = SplitKeyPath(in.Text(24));
        if (!components) continue;  // a path no file can name
        std::string path;
        for (const auto& component : *components)
            path += (path.empty() ? "" : "\\") + component;
        StoredKey& key = hive.CreateKey(path);
        const int values = in.Byte() % 5;
        for (int v = 0; v < values && !in.empty(); ++v) {
            std::string name = in.Text(16);
            if (!IsValueName(name)) continue;  // refused before it reaches a hive
            switch (in.Byte() % 3) {
                case 0:
                    key.SetValue(name, in.Text());
                    break;
                case 1:
                    key.SetValue(name, in.Number());
                    break;
                default: {
                    RawData raw{in.Byte() % 12u, {}};
                    for (char c : in.Text(80))
                        raw.bytes.push_back(static_cast<std::uint8_t>(c));
                    key.SetValue(name, std::move(raw));
                }
            }
        }
    }
    return hive;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    Input in(data + 1, size - 1);
    if (data[0] % 2 == 0) {
        // The rest of the input is a file.
        const ParseResult parsed = ParseHive(in.rest(), kRoot);
        Check(parsed.hive.has_value() != (parsed.badLine != 0), "a file parses or names its bad line");
        if (parsed.hive) CheckRoundTrip(*parsed.hive);
    } else {
        CheckRoundTrip(BuildHive(in));
    }
    return 0;
}
