// Identifying a card from its ATR through the card-type table, and
// recording ATRs nobody has named yet, exactly once.
#include "registry/card_types.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <optional>
#include <thread>

#include "registry/registry.h"
#include "support/registry_dir.h"

namespace elatectwn4::registry {
namespace {

using test::CardTypesFile;
using test::RegistryDir;

std::vector<std::string> TableNames() {
    std::vector<std::string> names;
    EnumRegValueNames(Root::LocalMachine, kCardTypesKey, names);
    return names;
}

std::string TableText(const std::string& name) {
    const auto value = ReadRegValue(Root::LocalMachine, kCardTypesKey, name, RegValue{std::string("<absent>")});
    return std::holds_alternative<std::string>(value) ? std::get<std::string>(value) : "<number>";
}

// Values added since `before`, as (name, text).
std::vector<std::pair<std::string, std::string>> AddedSince(const std::vector<std::string>& before) {
    std::vector<std::pair<std::string, std::string>> added;
    for (const auto& name : TableNames()) {
        if (std::find(before.begin(), before.end(), name) == before.end()) added.emplace_back(name, TableText(name));
    }
    return added;
}

// "Unknown (yyyy-mm-dd hh:mm:ss)", each letter of the pattern a digit.
bool IsRecordName(std::string_view name) {
    constexpr std::string_view kPattern = "Unknown (9999-99-99 99:99:99)";
    if (name.size() != kPattern.size()) return false;
    for (std::size_t i = 0; i < name.size(); ++i) {
        const bool ok = kPattern[i] == '9' ? (name[i] >= '0' && name[i] <= '9') : name[i] == kPattern[i];
        if (!ok) return false;
    }
    return true;
}

struct IdentifyCase {
    const char* description;
    std::optional<std::string> table;  ///< value lines of the card-type key; nullopt = no file at all
    std::string atr;
    std::string expectedAtr;
    std::int32_t type;
    std::optional<std::int32_t> serial;
    bool records;
};

void PrintTo(const IdentifyCase& c, std::ostream* os) {
    *os << c.description;
}

const std::string kAddNew = "\"Add new cards\"=dword:00000001\r\n";

class Identify : public ::testing::TestWithParam<IdentifyCase> {};

TEST_P(Identify, FindsTheTypeAndRecordsOnlyWhatItMust) {
    const auto& c = GetParam();
    RegistryDir store;
    if (c.table) store.Put(CardTypesFile(*c.table));
    const auto contentsBefore = store.Contents();
    const auto namesBefore = TableNames();

    const auto identity = IdentifyCardType(c.atr);

    EXPECT_EQ(identity.atr, c.expectedAtr);
    EXPECT_EQ(identity.cardType, c.type);
    EXPECT_EQ(identity.serialLength, c.serial);
    if (c.records) {
        const auto added = AddedSince(namesBefore);
        ASSERT_EQ(added.size(), 1u);
        EXPECT_TRUE(IsRecordName(added[0].first)) << added[0].first;
        EXPECT_EQ(added[0].second, c.expectedAtr);
    } else {
        EXPECT_EQ(store.Contents(), contentsBefore) << "nothing may be written";
    }
}

INSTANTIATE_TEST_SUITE_P(
    CardTypeTable, Identify,
    ::testing::Values(
        IdentifyCase{"an entry matches every ATR containing its fragment", "\"DESFire\"=\"31;3B8180;7\"\r\n" + kAddNew,
                     "3B8180AABB", "3B8180AABB", 0x31, 7, false},
        IdentifyCase{"ATR and fragment compare in upper case, the ATR trimmed", "\"M1K\"=\"11;3b8f80;4\"\r\n",
                     "  3b8f8001  ", "3B8F8001", 0x11, 4, false},
        IdentifyCase{"a fragment with blanks matches an ATR with blanks", "\"M4K\"=\"12;3B 8F 80 01 80;7\"\r\n",
                     "3B 8F 80 01 80 4F", "3B 8F 80 01 80 4F", 0x12, 7, false},
        IdentifyCase{"blanks between bytes do not matter to the match", "\"DESFire\"=\"31;3B8180;7\"\r\n",
                     "3B 81 80 01", "3B 81 80 01", 0x31, 7, false},
        IdentifyCase{"a fragment written with blanks matches a compact ATR", "\"DESFire\"=\"31;3B 81 80;7\"\r\n",
                     "3B818001", "3B818001", 0x31, 7, false},
        IdentifyCase{"the first matching entry in file order wins",
                     "\"Generic\"=\"41;3B;4\"\r\n\"DESFire\"=\"31;3B8180;7\"\r\n", "3B8180", "3B8180", 0x41, 4, false},
        IdentifyCase{"the first matching entry in file order wins, reversed",
                     "\"DESFire\"=\"31;3B8180;7\"\r\n\"Generic\"=\"41;3B;4\"\r\n", "3B8180", "3B8180", 0x31, 7, false},
        IdentifyCase{"only values of exactly three fields with a fragment are entries",
                     "\"Short\"=\"31;3B81\"\r\n\"Long\"=\"31;3B81;7;x\"\r\n\"NoFragment\"=\"31;;7\"\r\n"
                     "\"Real\"=\"21;3B;A\"\r\n",
                     "3B8180", "3B8180", 0x21, 10, false},
        IdentifyCase{"type and length are hexadecimal", "\"X\"=\"1a;3B;ff\"\r\n", "3B00", "3B00", 0x1A, 0xFF, false},
        IdentifyCase{"a length that is not hexadecimal is left unset", "\"X\"=\"31;3B;zz\"\r\n", "3B00", "3B00", 0x31,
                     std::nullopt, false},
        IdentifyCase{"a type that is not hexadecimal leaves the card unknown, so it is recorded",
                     "\"Bad\"=\"ZZ;3B;7\"\r\n" + kAddNew, "3B8180", "3B8180", 1, 7, true},
        IdentifyCase{"an unknown ATR is recorded when Add new cards is set", kAddNew, "3b 81 80 01", "3B 81 80 01", 1,
                     std::nullopt, true},
        IdentifyCase{"Add new cards as a text", "\"Add new cards\"=\"1\"\r\n", "3B01", "3B01", 1, std::nullopt, true},
        IdentifyCase{"no recording without Add new cards", "\"DESFire\"=\"31;3B8180;7\"\r\n", "3B0000", "3B0000", 1,
                     std::nullopt, false},
        IdentifyCase{"no recording with Add new cards 0", "\"Add new cards\"=dword:00000000\r\n", "3B0000", "3B0000", 1,
                     std::nullopt, false},
        IdentifyCase{"an ATR recorded before is not recorded again",
                     kAddNew + "\"Unknown (2023-01-02 03:04:05)\"=\"3b 81 80 01\"\r\n", "3B 81 80 01", "3B 81 80 01", 1,
                     std::nullopt, false},
        IdentifyCase{"any value whose first field is the ATR counts as a record",
                     kAddNew + "\"Note\"=\"3B0102;x;y;z\"\r\n", "3B0102", "3B0102", 1, std::nullopt, false},
        IdentifyCase{"a first field that merely contains the ATR does not", kAddNew + "\"Note\"=\"3B010299\"\r\n",
                     "3B0102", "3B0102", 1, std::nullopt, true},
        IdentifyCase{"numbers are seen as their decimal text", kAddNew + "\"Num\"=dword:00000031\r\n", "49", "49", 1,
                     std::nullopt, false},
        IdentifyCase{"an empty ATR stops before the table", kAddNew + "\"Any\"=\"31;;7\"\r\n\"All\"=\"31; ;7\"\r\n",
                     "   ", "", 1, std::nullopt, false},
        // An administrator named a recorded ATR but left the record in place.
        IdentifyCase{"a named type wins over an earlier record of the same ATR",
                     kAddNew + "\"Unknown (2023-01-02 03:04:05)\"=\"3B8180\"\r\n\"DESFire\"=\"31;3B8180;7\"\r\n",
                     "3B8180", "3B8180", 0x31, 7, false},
        IdentifyCase{"no table at all", std::nullopt, "3B8180", "3B8180", 1, std::nullopt, false}));

TEST(IdentifyRecording, TheNameCarriesTheLocalTimeOfRecording) {
    RegistryDir store;
    store.Put(CardTypesFile(kAddNew));
    const auto before = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
    IdentifyCardType("3B 00 11");
    const auto after = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());

    const auto added = AddedSince({"Add new cards"});
    ASSERT_EQ(added.size(), 1u);
    std::tm parsed{};
    ASSERT_EQ(std::sscanf(added[0].first.c_str(), "Unknown (%d-%d-%d %d:%d:%d)", &parsed.tm_year, &parsed.tm_mon,
                          &parsed.tm_mday, &parsed.tm_hour, &parsed.tm_min, &parsed.tm_sec),
              6);
    parsed.tm_year -= 1900;
    parsed.tm_mon -= 1;
    parsed.tm_isdst = -1;
    const auto recorded = std::chrono::system_clock::from_time_t(std::mktime(&parsed));
    EXPECT_GE(recorded, before);
    EXPECT_LE(recorded, after);
}

TEST(IdentifyRecording, TwoNewAtrsInOneSecondAreBothKept) {
    RegistryDir store;
    store.Put(CardTypesFile(kAddNew));
    // Start just after a second begins, so that both land in the same second.
    std::this_thread::sleep_until(std::chrono::ceil<std::chrono::seconds>(std::chrono::system_clock::now()) +
                                  std::chrono::milliseconds{5});
    IdentifyCardType("3B 01");
    IdentifyCardType("3B 02");
    auto added = AddedSince({"Add new cards"});
    ASSERT_EQ(added.size(), 2u);
    EXPECT_NE(added[0].first, added[1].first);
    EXPECT_EQ(added[0].second, "3B 01");
    EXPECT_EQ(added[1].second, "3B 02");
}

}  // namespace
}  // namespace elatectwn4::registry
