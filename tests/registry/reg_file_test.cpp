// The store's file format: what regedit exports must parse, what is damaged
// must be reported with its line, and what we write is in regedit's format.
// That what we write reads back equal is the formats fuzz target's promise.
#include "registry/reg_file.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace elatectwn4::registry {
namespace {

constexpr std::string_view kLocalMachine = "HKEY_LOCAL_MACHINE";

std::string Describe(const StoredData& data) {
    if (const auto* text = std::get_if<std::string>(&data)) return "text:" + *text;
    if (const auto* number = std::get_if<std::uint32_t>(&data)) return "number:" + std::to_string(*number);
    const auto& raw = std::get<RawData>(data);
    std::string out = "hex(" + std::to_string(raw.type) + "):";
    for (std::size_t i = 0; i < raw.bytes.size(); ++i) {
        char byte[4];
        std::snprintf(byte, sizeof byte, "%02x", raw.bytes[i]);
        out += (i ? "," : "") + std::string(byte);
    }
    return out;
}

// One line per key ("[path]") and per value ("name=kind:data"), in file order.
std::vector<std::string> Flatten(const Hive& hive) {
    std::vector<std::string> lines;
    for (const auto& key : hive.keys) {
        lines.push_back("[" + key.path + "]");
        for (const auto& value : key.values) {
            lines.push_back((value.name.empty() ? "@" : value.name) + "=" + Describe(value.data));
        }
    }
    return lines;
}

std::string Utf16LeWithBom(std::string_view ascii) {
    std::string out = "\xFF\xFE";
    for (const char c : ascii) {
        out += c;
        out += '\0';
    }
    return out;
}

TEST(HiveFile, RegeditExportsParseToExactlyTheirKeysAndValues) {
    const std::string v5 = "Windows Registry Editor Version 5.00\n\n";
    const std::string a = v5 + "[HKEY_LOCAL_MACHINE\\A]\n";
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {a + "\"Name\"=\"Text\"\n\"Count\"=dword:0000001f\n", {"[A]", "Name=text:Text", "Count=number:31"}},
        {"Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\A]\r\n\"x\"=\"y\"\r\n", {"[A]", "x=text:y"}},
        {"\xEF\xBB\xBF" + a + "\"x\"=\"caf\xC3\xA9\"\n", {"[A]", "x=text:caf\xC3\xA9"}},
        {Utf16LeWithBom(v5 + "[HKEY_LOCAL_MACHINE\\A]\r\n\"x\"=\"y\"\r\n[HKLM]\r\n\"z\"=\"\xE9\"\r\n"),
         {"[A]", "x=text:y", "[]", "z=text:\xC3\xA9"}},
        {"REGEDIT4\n\n[HKEY_LOCAL_MACHINE\\A]\n\"x\"=dword:1\n", {"[A]", "x=number:1"}},
        {v5 + "; by hand\n\n  [HKLM\\A]  \n\t; a note\n  \"x\" = \"1\"  \n@=\"d\"\n\n;end\n",
         {"[A]", "x=text:1", "@=text:d"}},
        {a + "\"a\\\\b\\\"c\"=\"C:\\\\dir\\\\\\\"q\\\"\"\n", {"[A]", "a\\b\"c=text:C:\\dir\\\"q\""}},
        {a + "\"bin\"=hex:01,AB,\\\n  ff,\\\n  00\n\"exp\"=hex(2):41,00,00,00\n\"multi\"=hex(7):61,00,00,00\n"
             "\"qword\"=hex(b):01,00,00,00,00,00,00,00\n\"empty\"=hex:\n\"none\"=hex(0):\n",
         {"[A]", "bin=hex(3):01,ab,ff,00", "exp=hex(2):41,00,00,00", "multi=hex(7):61,00,00,00",
          "qword=hex(11):01,00,00,00,00,00,00,00", "empty=hex(3):", "none=hex(0):"}},
        {a + "\"x\"=DWORD:FFFFFFFF\n\"y\"=dword:0\n", {"[A]", "x=number:4294967295", "y=number:0"}},
        // A repeated section merges; a repeated value keeps its place with the later data.
        {a + "\"x\"=\"1\"\n\"y\"=\"2\"\n[HKEY_LOCAL_MACHINE\\B]\n[HKEY_LOCAL_MACHINE\\a]\n\"X\"=\"3\"\n\"z\"=\"4\"\n",
         {"[A]", "x=text:3", "y=text:2", "z=text:4", "[B]"}},
        // Deleted keys and values are gone, lines under a deleted key ignored.
        {a + "\"keep\"=\"1\"\n\"drop\"=\"2\"\n[HKEY_LOCAL_MACHINE\\A\\B]\n[HKEY_LOCAL_MACHINE\\A\\B\\C]\n"
             "[HKEY_LOCAL_MACHINE\\A]\n\"drop\"=-\n[-HKEY_LOCAL_MACHINE\\A\\B]\n\"ignored\"=\"3\"\n",
         {"[A]", "keep=text:1"}},
        {"", {}},
        {" \r\n\n\t\n", {}},
    };
    for (const auto& [file, expected] : cases) {
        const auto parsed = ParseHive(file, kLocalMachine);
        ASSERT_TRUE(parsed.hive.has_value()) << file << "\nrejected at line " << parsed.badLine;
        EXPECT_EQ(Flatten(*parsed.hive), expected) << file;
    }
}

TEST(HiveFile, ADamagedFileIsRefusedAtTheLineWhereItGoesWrong) {
    const std::string v5 = "Windows Registry Editor Version 5.00\n\n";
    const std::string a = v5 + "[HKEY_LOCAL_MACHINE\\A]\n";
    const std::pair<std::string, std::size_t> cases[] = {
        {"[HKEY_LOCAL_MACHINE\\A]\n\"x\"=\"1\"\n", 1},
        {"Windows Registry Editor Version 4.00\n", 1},
        {Utf16LeWithBom(v5) + "x", 1},  // UTF-16 of odd length
        {v5 + "\"x\"=\"1\"\n", 3},
        {v5 + "[HKEY_LOCAL_MACHINE\\A\n", 3},
        {v5 + "[HKEY_CURRENT_USER\\A]\n", 3},
        {v5 + "[HKEY_NOWHERE\\A]\n", 3},
        {v5 + "[HKEY_LOCAL_MACHINE\\A\\\\B]\n", 3},
        {v5 + "[HKEY_LOCAL_MACHINE\\" + std::string(256, 'k') + "]\n", 3},
        {a + "\"x\"=\"abc\n", 4},
        {a + "\"x\"=\"a\\nb\"\n", 4},
        {a + "\"x=\"1\"\n", 4},
        {a + "\"x\" \"1\"\n", 4},
        {a + "\"x\"=\n", 4},
        {a + "\"x\"=\"1\" 2\n", 4},
        {a + "\"x\"=dword:000000001\n", 4},
        {a + "\"x\"=dword:12g4\n", 4},
        {a + "\"x\"=dword:\n", 4},
        {a + "\"x\"=hex:123\n", 4},
        {a + "\"x\"=hex:0g\n", 4},
        {a + "\"x\"=hex:01,,02\n", 4},
        {a + "\"x\"=hex(zz):01\n", 4},
        {a + "\"x\"=hex:01,\\", 4},
        {a + "\"x\"=hex:01,\\\n  zz\n", 5},
        {a + "\"x\"=qword:1\n", 4},
        {a + "x=1\n", 4},
    };
    for (const auto& [file, badLine] : cases) {
        const auto parsed = ParseHive(file, kLocalMachine);
        EXPECT_FALSE(parsed.hive.has_value()) << file;
        EXPECT_EQ(parsed.badLine, badLine) << file;
    }
}

TEST(HiveFile, IsWrittenInRegeditFormat) {
    Hive hive;
    hive.keys.push_back(StoredKey{"Software\\A",
                                  {StoredValue{"Add new cards", StoredData{std::uint32_t{0x1F}}, {}},
                                   StoredValue{"", StoredData{std::string("d")}, {}},
                                   StoredValue{"DESFire", StoredData{std::string("31;3B8180;7")}, {"; from site B"}},
                                   StoredValue{"raw", StoredData{RawData{kTypeExpandText, {0x0A, 0xFF}}}, {}}},
                                  {}});
    EXPECT_EQ(SerializeHive(hive, kLocalMachine),
              "Windows Registry Editor Version 5.00\n"
              "\n"
              "[HKEY_LOCAL_MACHINE\\Software\\A]\n"
              "\"Add new cards\"=dword:0000001f\n"
              "@=\"d\"\n"
              "; from site B\n"
              "\"DESFire\"=\"31;3B8180;7\"\n"
              "\"raw\"=hex(2):0a,ff\n"
              "\n");
    hive.crlf = true;
    hive.format = FileFormat::Version4;
    hive.keys[0].values.resize(1);
    EXPECT_EQ(SerializeHive(hive, kLocalMachine),
              "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\A]\r\n\"Add new cards\"=dword:0000001f\r\n\r\n");
}

TEST(RawText, EncodesAsUtf16LittleEndianAndEveryByteStringSurvives) {
    const std::pair<std::string, std::vector<std::uint8_t>> cases[] = {
        {"A", {0x41, 0x00, 0x00, 0x00}},
        {"\xC3\xA9", {0xE9, 0x00, 0x00, 0x00}},
        {"\xE2\x82\xAC", {0xAC, 0x20, 0x00, 0x00}},
        {"\xF0\x9F\x98\x80", {0x3D, 0xD8, 0x00, 0xDE, 0x00, 0x00}},  // a surrogate pair
        // Bytes that are no UTF-8 travel as lone low surrogates.
        {"\xFF", {0xFF, 0xDC, 0x00, 0x00}},
        {"\x80\x61", {0x80, 0xDC, 0x61, 0x00, 0x00, 0x00}},
        {"\xE2\x82", {0xE2, 0xDC, 0x82, 0xDC, 0x00, 0x00}},
        {"\xC0\xAF", {0xC0, 0xDC, 0xAF, 0xDC, 0x00, 0x00}},
        {"\xED\xB2\x80", {0xED, 0xDC, 0xB2, 0xDC, 0x80, 0xDC, 0x00, 0x00}},
    };
    for (const auto& [text, utf16le] : cases) {
        const auto raw = EncodeRawText(text, FileFormat::Version5);
        EXPECT_EQ(raw.type, kTypeText);
        EXPECT_EQ(raw.bytes, utf16le) << text;
        EXPECT_EQ(DecodeRawText(raw, FileFormat::Version5), text);
        const auto narrow = EncodeRawText(text, FileFormat::Version4);
        EXPECT_EQ(narrow.bytes.size(), text.size() + 1) << text;
        EXPECT_EQ(DecodeRawText(narrow, FileFormat::Version4), text);
    }
    // Cut at the first NUL; an odd tail byte is ignored.
    EXPECT_EQ(DecodeRawText(RawData{kTypeMultiText, {'a', 0, 0, 0, 'b', 0, 0, 0}}, FileFormat::Version5), "a");
    EXPECT_EQ(DecodeRawText(RawData{kTypeMultiText, {'a', 'b', 0, 'c', 0, 0}}, FileFormat::Version4), "ab");
    EXPECT_EQ(DecodeRawText(RawData{kTypeText, {'x', 0, 'y'}}, FileFormat::Version5), "x");
}

TEST(KeyPath, SplitsIntoComponentsAndRefusesEmptyOnes) {
    using Components = std::vector<std::string>;
    EXPECT_EQ(SplitKeyPath(""), Components{});
    EXPECT_EQ(SplitKeyPath("\\"), Components{});
    EXPECT_EQ(SplitKeyPath("Software\\A b\\C"), (Components{"Software", "A b", "C"}));
    EXPECT_EQ(SplitKeyPath("Software\\"), Components{"Software"});
    EXPECT_EQ(SplitKeyPath(std::string(255, 'k')), Components{std::string(255, 'k')});
    using namespace std::string_literals;
    for (const auto& bad : {"\\Software"s, "Software\\\\A"s, "Software\\\\"s, "A\\\\"s, "A\\B\nC"s, "A\rB"s, "A\0B"s}) {
        EXPECT_FALSE(SplitKeyPath(bad).has_value()) << bad;
    }
    EXPECT_FALSE(SplitKeyPath("A\\" + std::string(256, 'k')).has_value());
}

TEST(HiveKeys, AncestorsExistSubkeysListInFileOrderAndNewKeysTakeTheExistingSpelling) {
    Hive hive;
    for (const char* path : {"Software\\Zeta\\Deep", "Software\\alpha", "SOFTWARE\\ZETA\\Other", "System\\Only"})
        hive.keys.push_back(StoredKey{path, {}, {}});
    EXPECT_TRUE(hive.KeyExists("software\\zeta"));
    EXPECT_FALSE(hive.KeyExists("Software\\Zet"));
    EXPECT_EQ(hive.SubkeyNames(""), (std::vector<std::string>{"Software", "System"}));
    EXPECT_EQ(hive.SubkeyNames("software\\zeta"), (std::vector<std::string>{"Deep", "Other"}));

    hive.CreateKey("software\\zeta\\New\\Leaf");
    EXPECT_EQ(hive.keys.back().path, "Software\\Zeta\\New\\Leaf");
    EXPECT_EQ(hive.keys[hive.keys.size() - 2].path, "Software\\Zeta\\New");
    EXPECT_EQ(&hive.CreateKey("SOFTWARE\\ZETA\\NEW\\LEAF"), &hive.keys.back());
    hive.RemoveKey("system\\only");  // the only section below System: System stays, in its place
    EXPECT_EQ(hive.keys[3].path, "System");
    EXPECT_EQ(hive.SubkeyNames(""), (std::vector<std::string>{"Software", "System"}));
}

}  // namespace
}  // namespace elatectwn4::registry
