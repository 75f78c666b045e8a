// The store's file format: what regedit exports must parse, what is damaged
// must be reported with its line, and what we write is in regedit's format.
// That what we write reads back equal is the registry fuzz target's promise.
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

struct TolerantCase {
    const char* description;
    std::string file;
    std::vector<std::string> expected;
};

void PrintTo(const TolerantCase& c, std::ostream* os) {
    *os << c.description;
}

const std::string kV5 = "Windows Registry Editor Version 5.00";

class TolerantFile : public ::testing::TestWithParam<TolerantCase> {};

TEST_P(TolerantFile, ParsesToExactlyTheExpectedKeysAndValues) {
    const auto& c = GetParam();
    const auto parsed = ParseHive(c.file, kLocalMachine);
    ASSERT_TRUE(parsed.hive.has_value()) << c.description << ": rejected at line " << parsed.badLine;
    EXPECT_EQ(Flatten(*parsed.hive), c.expected) << c.description;
}

INSTANTIATE_TEST_SUITE_P(
    RegeditExports, TolerantFile,
    ::testing::Values(
        TolerantCase{"LF line ends",
                     kV5 + "\n\n[HKEY_LOCAL_MACHINE\\Software\\A]\n\"Name\"=\"Text\"\n\"Count\"=dword:0000001f\n",
                     {"[Software\\A]", "Name=text:Text", "Count=number:31"}},
        TolerantCase{"CRLF line ends",
                     kV5 + "\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\A]\r\n\"Name\"=\"Text\"\r\n",
                     {"[Software\\A]", "Name=text:Text"}},
        TolerantCase{"UTF-8 byte order mark",
                     "\xEF\xBB\xBF" + kV5 + "\n[HKEY_LOCAL_MACHINE\\A]\n\"x\"=\"caf\xC3\xA9\"\n",
                     {"[A]", "x=text:caf\xC3\xA9"}},
        TolerantCase{
            "UTF-16LE export with BOM",
            Utf16LeWithBom(kV5 + "\r\n\r\n[HKEY_LOCAL_MACHINE\\A]\r\n\"x\"=\"y\"\r\n[HKLM]\r\n\"z\"=\"\xE9\"\r\n"),
            {"[A]", "x=text:y", "[]", "z=text:\xC3\xA9"}},
        TolerantCase{"REGEDIT4 header", "REGEDIT4\n\n[HKEY_LOCAL_MACHINE\\A]\n\"x\"=dword:1\n", {"[A]", "x=number:1"}},
        TolerantCase{
            "comments, blank lines and indentation",
            kV5 + "\n; exported by hand\n\n  [HKEY_LOCAL_MACHINE\\A]  \n\t; a note\n  \"x\" = \"1\"  \n\n;end\n",
            {"[A]", "x=text:1"}},
        TolerantCase{
            "default value and short root name", kV5 + "\n[HKLM\\A]\n@=\"default\"\n", {"[A]", "@=text:default"}},
        TolerantCase{"escaped quotes and backslashes in names and data",
                     kV5 + "\n[HKEY_LOCAL_MACHINE\\A]\n\"a\\\\b\\\"c\"=\"C:\\\\dir\\\\\\\"q\\\"\"\n",
                     {"[A]", "a\\b\"c=text:C:\\dir\\\"q\""}},
        TolerantCase{"hex values of every form, continued over lines",
                     kV5 +
                         "\n[HKEY_LOCAL_MACHINE\\A]\n\"bin\"=hex:01,AB,\\\n  ff,\\\n  00\n\"exp\"=hex(2):41,00,00,00\n"
                         "\"multi\"=hex(7):61,00,00,00,00,00\n\"qword\"=hex(b):01,00,00,00,00,00,00,00\n"
                         "\"empty\"=hex:\n\"none\"=hex(0):\n",
                     {"[A]", "bin=hex(3):01,ab,ff,00", "exp=hex(2):41,00,00,00", "multi=hex(7):61,00,00,00,00,00",
                      "qword=hex(11):01,00,00,00,00,00,00,00", "empty=hex(3):", "none=hex(0):"}},
        TolerantCase{"short and upper-case dword digits",
                     kV5 + "\n[HKEY_LOCAL_MACHINE\\A]\n\"x\"=DWORD:FFFFFFFF\n\"y\"=dword:0\n",
                     {"[A]", "x=number:4294967295", "y=number:0"}},
        TolerantCase{"a repeated section merges; a repeated value keeps its place with the later data",
                     kV5 + "\n[HKEY_LOCAL_MACHINE\\A]\n\"x\"=\"1\"\n\"y\"=\"2\"\n[HKEY_LOCAL_MACHINE\\B]\n"
                           "[HKEY_LOCAL_MACHINE\\a]\n\"X\"=\"3\"\n\"z\"=\"4\"\n",
                     {"[A]", "x=text:3", "y=text:2", "z=text:4", "[B]"}},
        TolerantCase{"deleted keys and values are gone, lines under a deleted key ignored",
                     kV5 + "\n[HKEY_LOCAL_MACHINE\\A]\n\"keep\"=\"1\"\n\"drop\"=\"2\"\n[HKEY_LOCAL_MACHINE\\A\\B]\n"
                           "[HKEY_LOCAL_MACHINE\\A\\B\\C]\n[HKEY_LOCAL_MACHINE\\A]\n\"drop\"=-\n"
                           "[-HKEY_LOCAL_MACHINE\\A\\B]\n\"ignored\"=\"3\"\n",
                     {"[A]", "keep=text:1"}},
        TolerantCase{"an empty file is an empty root", "", {}},
        TolerantCase{"a blank file is an empty root", " \r\n\n\t\n", {}}));

struct DamagedCase {
    const char* description;
    std::string file;
    std::size_t badLine;
};

void PrintTo(const DamagedCase& c, std::ostream* os) {
    *os << c.description;
}

class DamagedFile : public ::testing::TestWithParam<DamagedCase> {};

TEST_P(DamagedFile, IsRefusedAtTheLineWhereItGoesWrong) {
    const auto& c = GetParam();
    const auto parsed = ParseHive(c.file, kLocalMachine);
    EXPECT_FALSE(parsed.hive.has_value()) << c.description;
    EXPECT_EQ(parsed.badLine, c.badLine) << c.description;
}

const std::string kSection = "\n[HKEY_LOCAL_MACHINE\\A]\n";

INSTANTIATE_TEST_SUITE_P(
    Malformed, DamagedFile,
    ::testing::Values(DamagedCase{"no header", "[HKEY_LOCAL_MACHINE\\A]\n\"x\"=\"1\"\n", 1},
                      DamagedCase{"another header", "Windows Registry Editor Version 4.00\n", 1},
                      DamagedCase{"value before any section", kV5 + "\n\"x\"=\"1\"\n", 2},
                      DamagedCase{"section without its bracket", kV5 + "\n[HKEY_LOCAL_MACHINE\\A\n", 2},
                      DamagedCase{"section of another root", kV5 + "\n[HKEY_CURRENT_USER\\A]\n", 2},
                      DamagedCase{"section of no root", kV5 + "\n[HKEY_NOWHERE\\A]\n", 2},
                      DamagedCase{"empty key name", kV5 + "\n[HKEY_LOCAL_MACHINE\\A\\\\B]\n", 2},
                      DamagedCase{"key name beyond 255 characters",
                                  kV5 + "\n[HKEY_LOCAL_MACHINE\\" + std::string(256, 'k') + "]\n", 2},
                      DamagedCase{"unterminated text", kV5 + kSection + "\"x\"=\"abc\n", 3},
                      DamagedCase{"unknown escape", kV5 + kSection + "\"x\"=\"a\\nb\"\n", 3},
                      DamagedCase{"unterminated name", kV5 + kSection + "\"x=\"1\"\n", 3},
                      DamagedCase{"no equals sign", kV5 + kSection + "\"x\" \"1\"\n", 3},
                      DamagedCase{"no data", kV5 + kSection + "\"x\"=\n", 3},
                      DamagedCase{"text followed by more", kV5 + kSection + "\"x\"=\"1\" 2\n", 3},
                      DamagedCase{"nine dword digits", kV5 + kSection + "\"x\"=dword:000000001\n", 3},
                      DamagedCase{"dword that is not hex", kV5 + kSection + "\"x\"=dword:12g4\n", 3},
                      DamagedCase{"empty dword", kV5 + kSection + "\"x\"=dword:\n", 3},
                      DamagedCase{"three-digit hex byte", kV5 + kSection + "\"x\"=hex:123\n", 3},
                      DamagedCase{"hex byte that is not hex", kV5 + kSection + "\"x\"=hex:0g\n", 3},
                      DamagedCase{"doubled comma", kV5 + kSection + "\"x\"=hex:01,,02\n", 3},
                      DamagedCase{"bad hex type", kV5 + kSection + "\"x\"=hex(zz):01\n", 3},
                      DamagedCase{"continuation at the end of the file", kV5 + kSection + "\"x\"=hex:01,\\", 3},
                      DamagedCase{"bad byte on a continuation line", kV5 + kSection + "\"x\"=hex:01,\\\n  zz\n", 4},
                      DamagedCase{"unknown data kind", kV5 + kSection + "\"x\"=qword:1\n", 3},
                      DamagedCase{"a line that is nothing", kV5 + kSection + "x=1\n", 3},
                      DamagedCase{"UTF-16 file of odd length", Utf16LeWithBom(kV5) + "x", 1}));

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

struct TextEncodingCase {
    const char* description;
    std::string text;
    std::vector<std::uint8_t> utf16le;  // expected hex(1) bytes of a version 5 file
};

TEST(RawText, EncodesAsUtf16LittleEndianAndEveryByteStringSurvives) {
    const std::vector<TextEncodingCase> cases = {
        {"ASCII", "A", {0x41, 0x00, 0x00, 0x00}},
        {"two-byte UTF-8", "\xC3\xA9", {0xE9, 0x00, 0x00, 0x00}},
        {"euro sign", "\xE2\x82\xAC", {0xAC, 0x20, 0x00, 0x00}},
        {"outside the basic plane: a surrogate pair", "\xF0\x9F\x98\x80", {0x3D, 0xD8, 0x00, 0xDE, 0x00, 0x00}},
        {"a byte that is not UTF-8", "\xFF", {0xFF, 0xDC, 0x00, 0x00}},
        {"a stray continuation byte",
         "\x80"
         "a",
         {0x80, 0xDC, 0x61, 0x00, 0x00, 0x00}},
        {"a truncated sequence", "\xE2\x82", {0xE2, 0xDC, 0x82, 0xDC, 0x00, 0x00}},
        {"an overlong encoding", "\xC0\xAF", {0xC0, 0xDC, 0xAF, 0xDC, 0x00, 0x00}},
        {"an encoded surrogate", "\xED\xB2\x80", {0xED, 0xDC, 0xB2, 0xDC, 0x80, 0xDC, 0x00, 0x00}},
    };
    for (const auto& c : cases) {
        const auto raw = EncodeRawText(c.text, FileFormat::Version5);
        EXPECT_EQ(raw.type, kTypeText) << c.description;
        EXPECT_EQ(raw.bytes, c.utf16le) << c.description;
        EXPECT_EQ(DecodeRawText(raw, FileFormat::Version5), c.text) << c.description;
        const auto narrow = EncodeRawText(c.text, FileFormat::Version4);
        EXPECT_EQ(narrow.bytes.size(), c.text.size() + 1) << c.description;
        EXPECT_EQ(DecodeRawText(narrow, FileFormat::Version4), c.text) << c.description;
    }
}

TEST(RawText, IsCutAtTheFirstNul) {
    EXPECT_EQ(DecodeRawText(RawData{kTypeMultiText, {'a', 0, 0, 0, 'b', 0, 0, 0}}, FileFormat::Version5), "a");
    EXPECT_EQ(DecodeRawText(RawData{kTypeMultiText, {'a', 'b', 0, 'c', 0, 0}}, FileFormat::Version4), "ab");
    EXPECT_EQ(DecodeRawText(RawData{kTypeText, {'x', 0, 'y'}}, FileFormat::Version5), "x");  // odd tail byte ignored
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

TEST(HiveKeys, AncestorsExistAndSubkeysListOnceInFileOrder) {
    const auto parsed =
        ParseHive(kV5 +
                      "\n[HKEY_LOCAL_MACHINE\\Software\\Zeta\\Deep]\n[HKEY_LOCAL_MACHINE\\Software\\alpha]\n"
                      "[HKEY_LOCAL_MACHINE\\SOFTWARE\\ZETA\\Other]\n[HKEY_LOCAL_MACHINE\\System]\n",
                  kLocalMachine);
    ASSERT_TRUE(parsed.hive.has_value());
    const Hive& hive = *parsed.hive;
    EXPECT_TRUE(hive.KeyExists(""));
    EXPECT_TRUE(hive.KeyExists("software"));
    EXPECT_TRUE(hive.KeyExists("Software\\zeta"));
    EXPECT_FALSE(hive.KeyExists("Software\\Zet"));
    EXPECT_FALSE(hive.KeyExists("Software\\Zeta\\Deep\\More"));
    EXPECT_EQ(hive.SubkeyNames(""), (std::vector<std::string>{"Software", "System"}));
    EXPECT_EQ(hive.SubkeyNames("SOFTWARE"), (std::vector<std::string>{"Zeta", "alpha"}));
    EXPECT_EQ(hive.SubkeyNames("software\\zeta"), (std::vector<std::string>{"Deep", "Other"}));
    EXPECT_TRUE(hive.SubkeyNames("System").empty());
}

TEST(HiveKeys, CreatingAKeyWritesItsAncestorsInTheirExistingSpelling) {
    Hive hive;
    hive.keys.push_back(StoredKey{"SOFTWARE\\Vendor\\Old", {}, {}});
    hive.CreateKey("software\\vendor\\New\\Leaf");
    std::vector<std::string> paths;
    for (const auto& k : hive.keys)
        paths.push_back(k.path);
    EXPECT_EQ(paths, (std::vector<std::string>{"SOFTWARE\\Vendor\\Old", "SOFTWARE", "SOFTWARE\\Vendor",
                                               "SOFTWARE\\Vendor\\New", "SOFTWARE\\Vendor\\New\\Leaf"}));
    EXPECT_EQ(&hive.CreateKey("SOFTWARE\\VENDOR\\NEW\\LEAF"), &hive.keys.back());
}

TEST(HiveKeys, RemovingTheOnlySectionBelowAParentKeepsTheParent) {
    Hive hive;
    hive.keys.push_back(StoredKey{"A\\B\\C", {StoredValue{"v", StoredData{std::uint32_t{1}}, {}}}, {}});
    hive.keys.push_back(StoredKey{"Z", {}, {}});
    hive.RemoveKey("a\\b\\c");
    EXPECT_FALSE(hive.KeyExists("A\\B\\C"));
    EXPECT_TRUE(hive.KeyExists("A\\B"));
    ASSERT_EQ(hive.keys.size(), 2u);
    EXPECT_EQ(hive.keys[0].path, "A\\B");
    EXPECT_TRUE(hive.keys[0].values.empty());
}

}  // namespace
}  // namespace elatectwn4::registry
