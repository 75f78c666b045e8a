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

// The record's name for a moment, in local time.
std::string RecordName(std::chrono::system_clock::time_point when) {
    const std::time_t t = std::chrono::system_clock::to_time_t(when);
    char name[64];
    std::strftime(name, sizeof name, "Unknown (%Y-%m-%d %H:%M:%S)", std::localtime(&t));
    return name;
}

const std::string kAddNew = "\"Add new cards\"=dword:00000001\r\n";
const std::string kDesfire = "\"DESFire\"=\"31;3B8180;7\"\r\n";

TEST(Identify, FindsTheTypeAndRecordsOnlyWhatItMust) {
    struct Case {
        std::optional<std::string> table;  ///< value lines of the card-type key; nullopt = no file at all
        std::string atr;
        std::string expectedAtr;
        std::int32_t type;
        std::optional<std::int32_t> serial;
        bool records;
    };
    const std::optional<std::int32_t> none;
    const Case cases[] = {
        {kDesfire + kAddNew, "3B8180AABB", "3B8180AABB", 0x31, 7, false},
        // Upper case, the ATR trimmed; blanks between bytes do not matter on either side.
        {"\"M1K\"=\"11;3b8f80;4\"\r\n", "  3b8f8001  ", "3B8F8001", 0x11, 4, false},
        {kDesfire, "3B 81 80 01", "3B 81 80 01", 0x31, 7, false},
        {"\"DESFire\"=\"31;3B 81 80;7\"\r\n", "3B818001", "3B818001", 0x31, 7, false},
        // The first matching entry in file order wins.
        {"\"Generic\"=\"41;3B;4\"\r\n" + kDesfire, "3B8180", "3B8180", 0x41, 4, false},
        {kDesfire + "\"Generic\"=\"41;3B;4\"\r\n", "3B8180", "3B8180", 0x31, 7, false},
        // Only values of exactly three fields with a fragment are entries; the numbers are hex.
        {"\"Short\"=\"31;3B81\"\r\n\"Long\"=\"31;3B81;7;x\"\r\n\"None\"=\"31;;7\"\r\n\"Real\"=\"21;3B;A\"\r\n",
         "3B8180", "3B8180", 0x21, 10, false},
        {"\"X\"=\"1a;3B;ff\"\r\n", "3B00", "3B00", 0x1A, 0xFF, false},
        {"\"X\"=\"31;3B;zz\"\r\n", "3B00", "3B00", 0x31, none, false},
        {"\"Bad\"=\"ZZ;3B;7\"\r\n" + kAddNew, "3B8180", "3B8180", 1, 7, true},  // no type: still unknown
        // Recording: only with Add new cards set, and only once.
        {kAddNew, "3b 81 80 01", "3B 81 80 01", 1, none, true},
        {"\"Add new cards\"=\"1\"\r\n", "3B01", "3B01", 1, none, true},
        {kDesfire, "3B0000", "3B0000", 1, none, false},
        {"\"Add new cards\"=dword:00000000\r\n", "3B0000", "3B0000", 1, none, false},
        {kAddNew + "\"Unknown (2023-01-02 03:04:05)\"=\"3b 81 80 01\"\r\n", "3B 81 80 01", "3B 81 80 01", 1, none,
         false},
        {kAddNew + "\"Note\"=\"3B0102;x;y;z\"\r\n", "3B0102", "3B0102", 1, none, false},  // the first field counts
        {kAddNew + "\"Note\"=\"3B010299\"\r\n", "3B0102", "3B0102", 1, none, true},       // not one containing it
        {kAddNew + "\"Num\"=dword:00000031\r\n", "49", "49", 1, none, false},             // numbers as decimal text
        {kAddNew + "\"Any\"=\"31;;7\"\r\n\"All\"=\"31; ;7\"\r\n", "   ", "", 1, none, false},  // no ATR, no table
        // An administrator named a recorded ATR but left the record in place.
        {kAddNew + "\"Unknown (2023-01-02 03:04:05)\"=\"3B8180\"\r\n" + kDesfire, "3B8180", "3B8180", 0x31, 7, false},
        {std::nullopt, "3B8180", "3B8180", 1, none, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.table.value_or("no table") + " with " + c.atr);
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
            EXPECT_EQ(added[0].second, c.expectedAtr);
        } else {
            EXPECT_EQ(store.Contents(), contentsBefore) << "nothing may be written";
        }
    }
}

TEST(IdentifyRecording, TheNameIsTheLocalTimeAndTwoNewAtrsInOneSecondAreBothKept) {
    RegistryDir store;
    store.Put(CardTypesFile(kAddNew));
    // Start just after a second begins, so that both land in the same second.
    using namespace std::chrono;
    std::this_thread::sleep_until(ceil<seconds>(system_clock::now()) + milliseconds{5});
    const auto before = floor<seconds>(system_clock::now());
    IdentifyCardType("3B 01");
    IdentifyCardType("3B 02");
    const auto after = floor<seconds>(system_clock::now());
    const auto added = AddedSince({"Add new cards"});
    ASSERT_EQ(added.size(), 2u);
    EXPECT_EQ(added[0].second, "3B 01");
    EXPECT_EQ(added[1].second, "3B 02");
    EXPECT_NE(added[0].first, added[1].first);
    for (const auto& [name, atr] : added) {
        bool named = false;
        for (auto second = before; second <= after; second += seconds{1})
            named = named || name == RecordName(second);
        EXPECT_TRUE(named) << name;
    }
}

}  // namespace
}  // namespace elatectwn4::registry
