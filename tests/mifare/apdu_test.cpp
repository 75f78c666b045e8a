// The exact commands each MIFARE member sends, and the record it leaves,
// against a scripted reader.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "command/channel.h"
#include "command/error_record.h"
#include "mifare/mifare.h"
#include "record_matchers.h"
#include "support/scripted_pcsc.h"

namespace elatectwn4::mifare {
namespace {

using mifare_test::CardRefusal;
using mifare_test::Cleared;
using mifare_test::Refusal;
using test::Bytes;
using test::Hex;

const std::string kKey = "A0A1A2A3A4A5";
const std::string kKeyB = "B0B1B2B3B4B5";
const std::string kTransportTrailer = "000000000000 FF078069 FFFFFFFFFFFF";

// One exchange of a member: the command, the card's good answer, and the
// names a refusal is recorded under.
struct Step {
    std::string apdu;
    std::string answer;
    std::string commandName = {};
    std::string comFunction = {};
};
using Steps = std::vector<Step>;

Steps operator+(Steps a, const Steps& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// The block number goes out as two bytes, high byte first.
std::string BlockBytes(std::int32_t block) {
    return Hex(std::vector<std::uint8_t>{static_cast<std::uint8_t>(block >> 8), static_cast<std::uint8_t>(block)});
}
Steps Auth(std::int32_t block, const std::string& keyType,
           const std::string& loadKeyName = "MifareAuthenticate:LoadKey",
           const std::string& authName = "MifareAuthenticate") {
    return {
        {"FF 82 00 01 06 " + Hex(Bytes(kKey)), "90 00", "LoadKey", loadKeyName},
        {"FF 86 00 00 05 01 " + BlockBytes(block) + " " + keyType + " 01", "90 00", "GeneralAuthenticate", authName}};
}
Steps Read(std::int32_t block, const std::string& data, const std::string& name = {}) {
    return {{"FF B0 " + BlockBytes(block) + " 00", data + " 90 00", "ReadBinary", name}};
}
Steps Write(std::int32_t block, const std::string& data, const std::string& name = {}) {
    return {{"FF D6 " + BlockBytes(block) + " 10 " + Hex(Bytes(data)), "90 00", "WriteBinary", name}};
}

class MifareApdu : public ::testing::Test {
protected:
    // Plays `steps` on a fresh reader, runs `member`, and checks that exactly
    // the steps' commands went out.
    sceReturnCode Play(const Steps& steps, const std::function<sceReturnCode()>& member) {
        fake = std::make_shared<test::ScriptedPcsc>();
        channel.pcsc = fake.get();
        std::vector<std::string> sent;
        for (const Step& s : steps) {
            fake->Expect(s.apdu).Reply(s.answer);
            sent.push_back(s.apdu);
        }
        const sceReturnCode result = member();
        EXPECT_EQ(fake->Transmitted(), sent);
        return result;
    }

    std::shared_ptr<test::ScriptedPcsc> fake;
    CError record;
    command::Channel channel{nullptr, 0x1001, 0x2001, pcsc_const::ProtocolT1};
    AccessConditionTable overrides{};
    int cardChecks = 0;
    std::function<sceReturnCode()> cardCheck = [this] {
        ++cardChecks;
        return sceSuccess;
    };
    Context ctx{channel, record, overrides, [this] { return cardCheck(); }};
};

// ---- Blocks -------------------------------------------------------------------

TEST_F(MifareApdu, TheAuthenticationKeyGoesOutAsGivenAndTheReaderJudgesIt) {
    // Only a trailer's keys are checked; the key that opens a sector is sent as written.
    std::string contents;
    EXPECT_EQ(Play({{"FF 82 00 01 05 A0 A1 A2 A3 A4", "67 00"}},
                   [&] { return MifareReadDataBloc(ctx, 4, "a0a1a2a3a4", 0, contents); }),
              sceError);
    EXPECT_EQ(record, CardRefusal("MifareAuthenticate:LoadKey", "LoadKey", "6700"));
}

TEST_F(MifareApdu, WriteDataBlocSendsThe32DigitsItWasGivenNormalisedOrNothing) {
    const std::string block = "00112233445566778899AABBCCDDEEFF";
    const std::pair<std::string, bool> rows[] = {
        {" 00 11 22 33 44 55 66 77 88 99 aa bb cc dd ee ff", true},
        {"00112233445566778899AABBCCDDEEF", false},
        {"00112233445566778899AABBCCDDEEFF0", false},
        {"00112233445566778899AABBCCDDEEGG", false},
        {"00-11-22-33-44-55-66-77-88-99-AA-BB-CC-DD-EE-FF", false},
    };
    for (const auto& [text, valid] : rows) {
        std::string contents = text;
        const Steps steps = valid ? Auth(8, "61") + Write(8, block) : Steps{};
        EXPECT_EQ(Play(steps, [&] { return MifareWriteDataBloc(ctx, 8, kKey, 2, contents); }),
                  valid ? sceSuccess : sceError);
        EXPECT_EQ(record, valid ? Cleared("MifareWriteDataBloc")
                                : Refusal(ErrorNumber::BlockMustBe32Hex, "MifareWriteDataBloc"));
        EXPECT_EQ(contents, valid ? block : text) << "handed back";
    }
}

TEST_F(MifareApdu, WriteValueBlocWritesValueInverseValueAndTheAddressBytesOrOverflows) {
    const std::pair<std::int32_t, std::string> rows[] = {
        {1, "01000000FEFFFFFF01000000FF00FF00"},
        {0x12345678, "7856341287A9CBED78563412FF00FF00"},
        {std::numeric_limits<std::int32_t>::max(), "FFFFFF7F00000080FFFFFF7FFF00FF00"},
        {-1, ""},
        {std::numeric_limits<std::int32_t>::min(), ""},
    };
    for (const auto& [value, block] : rows) {
        const Steps steps = block.empty() ? Steps{} : Auth(5, "60") + Write(5, block);
        EXPECT_EQ(Play(steps, [&] { return MifareWriteValueBloc(ctx, 5, kKey, 0, value); }),
                  block.empty() ? sceError : sceSuccess);
        CError expected = Cleared("MifareWriteValueBloc");
        if (block.empty()) {
            expected.Number = 6;
            expected.Description = "Overflow";
        }
        EXPECT_EQ(record, expected) << value;
    }
}

TEST_F(MifareApdu, WriteBytesInBlocSplicesTheNewBytesIntoTheBlockItRead) {
    const std::string old = "000102030405060708090A0B0C0D0E0F";
    struct Row {
        std::string read;  // the data the card answers
        std::uint8_t from, to;
        std::string contents;
        std::string written;  // empty: nothing is written
        std::string handedBack;
        std::optional<ErrorNumber> error;
    };
    const Row rows[] = {
        {old, 15, 15, "AB", "000102030405060708090A0B0C0D0EAB", "AB", {}},
        {old,
         0,
         15,
         "FFEEDDCCBBAA99887766554433221100",
         "FFEEDDCCBBAA99887766554433221100",
         "FFEEDDCCBBAA99887766554433221100",
         {}},
        {old, 3, 4, "A", "000102A0000506070809 0A0B0C0D0E0F", "A000", {}},  // padded with zeros
        {old, 0, 0, "1234", "120102030405060708090A0B0C0D0E0F", "12", {}},  // cut
        {old, 3, 3, "ee", "000102EE0405060708090A0B0C0D0E0F", "ee", {}},
        // Blanks count as characters when the text is cut, and make no block.
        {old, 7, 8, "ab CD", "", "ab C", ErrorNumber::BlockMustBe32Hex},
        {old, 7, 7, "ZZ", "", "ZZ", ErrorNumber::BlockMustBe32Hex},
        // Offsets are checked after the read.
        {old, 5, 4, "1122", "", "1122", ErrorNumber::IncorrectOffsets},
        {old, 16, 16, "1122", "", "1122", ErrorNumber::IncorrectOffsets},
        {old, 15, 16, "1122", "", "1122", ErrorNumber::IncorrectOffsets},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.read + " bytes " + std::to_string(row.from) + ".." + std::to_string(row.to));
        Steps steps = Auth(6, "60") + Read(6, row.read);
        if (!row.written.empty()) steps = steps + Auth(6, "60") + Write(6, row.written);
        std::string contents = row.contents;
        EXPECT_EQ(Play(steps, [&] { return MifareWriteBytesInBloc(ctx, 6, kKey, 0, row.from, row.to, contents); }),
                  row.error ? sceError : sceSuccess);
        EXPECT_EQ(record,
                  row.error ? Refusal(*row.error, "MifareWriteBytesInBloc") : Cleared("MifareWriteBytesInBloc"));
        EXPECT_EQ(contents, row.handedBack);
    }
}

TEST_F(MifareApdu, ReadManufacturerCodeSplitsBlockZero) {
    struct Row {
        std::string block;
        std::int32_t serial;
        std::uint8_t check;
        std::string info;
    };
    const Row rows[] = {
        {"F1234567 89 0804006263646566676869", static_cast<std::int32_t>(0xF1234567u), 0x89, "0804006263646566676869"},
        {"7A1B2C3D 70 88040047C1234D57103112", 0x7A1B2C3D, 0x70, "88040047C1234D57103112"},
    };
    for (const Row& row : rows) {
        std::int32_t serial = 1;
        std::uint8_t check = 1;
        std::string info;
        EXPECT_EQ(Play(Auth(0, "61") + Read(0, row.block),
                       [&] { return MifareReadManufacturerCode(ctx, kKey, 2, serial, check, info); }),
                  sceSuccess);
        EXPECT_EQ(serial, row.serial) << row.block;
        EXPECT_EQ(check, row.check) << row.block;
        EXPECT_EQ(info, row.info) << row.block;
        EXPECT_EQ(record, Cleared("MifareReadManufacturerCode"));
    }
}

// ---- Every failure of every step, for every member ----------------------------

struct Member {
    const char* name;
    Steps steps;  // the whole successful exchange
    std::function<sceReturnCode(Context&)> run;
};

std::vector<Member> AllMembers() {
    const std::string block = "00112233445566778899AABBCCDDEEFF";
    const std::string wst = "MifareWriteSectorTrailer";
    const std::string rst = "MifareReadSectorTrailer";
    const auto own = [](std::int32_t b, const std::string& name) { return Auth(b, "60", name, name); };
    return {
        {"MifareReadDataBloc", Auth(4, "60") + Read(4, block, "MifareReadDataBloc"),
         [](Context& c) {
             std::string s;
             return MifareReadDataBloc(c, 4, kKey, 0, s);
         }},
        {"MifareWriteDataBloc", Auth(4, "61") + Write(4, block, "MifareWriteDataBloc"),
         [block](Context& c) {
             std::string s = block;
             return MifareWriteDataBloc(c, 4, kKey, 2, s);
         }},
        {"MifareWriteValueBloc",
         own(5, "MifareWriteValueBloc") + Write(5, "01000000FEFFFFFF01000000FF00FF00", "MifareWriteValueBloc"),
         [](Context& c) { return MifareWriteValueBloc(c, 5, kKey, 0, 1); }},
        {"MifareWriteBytesInBloc",
         own(6, "MifareWriteBytesInBloc") + Read(6, block, "MifareWriteBytesInBloc") +
             own(6, "MifareWriteBytesInBloc") + Write(6, "0011EE33445566778899AABBCCDDEEFF", "MifareWriteBytesInBloc"),
         [](Context& c) {
             std::string s = "EE";
             return MifareWriteBytesInBloc(c, 6, kKey, 0, 2, 2, s);
         }},
        {"MifareReadManufacturerCode",
         own(0, "MifareReadManufacturerCode") + Read(0, block, "MifareReadManufacturerCode"),
         [](Context& c) {
             std::int32_t serial;
             std::uint8_t check;
             std::string info;
             return MifareReadManufacturerCode(c, kKey, 0, serial, check, info);
         }},
        {"MifareReadSectorTrailer", own(7, rst) + own(7, rst) + Read(7, kTransportTrailer, rst),
         [](Context& c) {
             std::uint8_t keys, bx;
             std::int32_t s0, s1, s2, cond;
             return MifareReadSectorTrailer(c, 1, kKey, 0, keys, s0, s1, s2, cond, bx);
         }},
        {"MifareWriteSectorTrailer",
         own(7, wst) + Read(7, kTransportTrailer, wst) + own(7, rst) + own(7, rst) + Read(7, kTransportTrailer, rst) +
             own(7, wst) + Write(7, "B0B1B2B3B4B5 FF078069 C0C1C2C3C4C5", wst),
         [](Context& c) {
             return MifareWriteSectorTrailer(c, 1, kKey, 0, "B0B1B2B3B4B5", "C0C1C2C3C4C5", 0, -1, -1, -1, -1, {});
         }},
    };
}

// A card leaving under a member is the fault table's (tests/faults): the
// member takes the reader's failure as it takes this refusal.
TEST_F(MifareApdu, EveryMemberStopsAtTheFirstFailedCommandAndRecordsItUnderTheRightName) {
    for (const Member& member : AllMembers()) {
        for (std::size_t failing = 0; failing <= member.steps.size(); ++failing) {
            SCOPED_TRACE(std::string(member.name) + ", step " + std::to_string(failing) + " refused");
            Steps steps(member.steps.begin(), member.steps.begin() + std::min(failing + 1, member.steps.size()));
            if (failing < member.steps.size()) steps.back().answer = "63 00";
            const sceReturnCode result = Play(steps, [&] { return member.run(ctx); });
            if (failing == member.steps.size()) {
                EXPECT_EQ(result, sceSuccess);
                EXPECT_EQ(record, Cleared(member.name));
            } else {
                const Step& s = member.steps[failing];
                EXPECT_EQ(result, sceError);
                EXPECT_EQ(record, CardRefusal(s.comFunction, s.commandName, "6300"));
            }
        }
    }
}

TEST_F(MifareApdu, AnAnswerOfTheWrongShapeFailsTheMemberAndNothingIsWritten) {
    const std::string block = "00112233445566778899AABBCCDDEEFF";
    const std::string wst = "MifareWriteSectorTrailer";
    const std::string rst = "MifareReadSectorTrailer";
    const std::string mixedCopies = "Access bits differ from their inverted copy";
    struct Row {
        std::string member;
        Steps steps;  // up to the malformed answer, the last step
        std::string retCode;
        std::string comFunction = {};  // empty: the member's
    };
    const Row rows[] = {
        {"MifareReadDataBloc", Auth(4, "60") + Read(4, ""), "Answer of 0 data bytes, expected 16"},
        {"MifareReadDataBloc", Auth(4, "60") + Read(4, block + "10"), "Answer of 17 data bytes, expected 16"},
        {"MifareReadDataBloc", Auth(4, "60") + Steps{{"FF B0 00 04 00", "90"}},
         "No status word in the answer: received 90"},
        {"MifareReadManufacturerCode", Auth(0, "60") + Read(0, "F123"), "Answer of 2 data bytes, expected 16"},
        {"MifareWriteBytesInBloc", Auth(6, "60") + Read(6, "0001020304050607"), "Answer of 8 data bytes, expected 16"},
        {rst, Auth(7, "60") + Auth(7, "60") + Read(7, "000000000000 000A56 01 FFFFFFFFFFFF"), mixedCopies},
        {rst, Auth(7, "60") + Auth(7, "60") + Read(7, "000000000000 FF0789"), "Answer of 9 data bytes, expected 16"},
        {wst, Auth(7, "60") + Read(7, "000000000000 FF0788 69 FFFFFFFFFFFF"), mixedCopies},
        {wst, Auth(7, "60") + Read(7, kTransportTrailer) + Auth(7, "60") + Auth(7, "60") + Read(7, block), mixedCopies,
         rst},
    };
    const std::map<std::string, std::function<sceReturnCode()>> members = {
        {"MifareReadDataBloc",
         [&] {
             std::string contents = "x";
             const sceReturnCode result = MifareReadDataBloc(ctx, 4, kKey, 0, contents);
             EXPECT_EQ(contents, "");
             return result;
         }},
        {"MifareReadManufacturerCode",
         [&] {
             std::int32_t serial = 9;
             std::uint8_t check = 9;
             std::string info;
             const sceReturnCode result = MifareReadManufacturerCode(ctx, kKey, 0, serial, check, info);
             EXPECT_EQ(serial, 0);
             EXPECT_EQ(check, 0);
             return result;
         }},
        {"MifareWriteBytesInBloc",
         [&] {
             std::string contents = "EE";
             return MifareWriteBytesInBloc(ctx, 6, kKey, 0, 2, 2, contents);
         }},
        {rst,
         [&] {
             std::uint8_t keys = 9, bx = 9;
             std::int32_t s0 = 9, s1 = 9, s2 = 9, cond = 9;
             return MifareReadSectorTrailer(ctx, 1, kKey, 0, keys, s0, s1, s2, cond, bx);
         }},
        {wst, [&] { return MifareWriteSectorTrailer(ctx, 1, kKey, 0, kKeyB, kKeyB, 0, 0, 0, 0, 0, {}); }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.member + ": " + row.retCode);
        EXPECT_EQ(Play(row.steps, members.at(row.member)), sceError);
        EXPECT_EQ(record,
                  CardRefusal(row.comFunction.empty() ? row.member : row.comFunction, "ReadBinary", row.retCode));
    }
}

// ---- Sector trailers --------------------------------------------------------------

// The two reads a trailer write starts with (the raw block, then the decoding
// read), and the write.
Steps TrailerWrite(std::int32_t block, const std::string& current, const std::string& written,
                   const std::string& keyType = "60") {
    return Auth(block, keyType) + Read(block, current) + Auth(block, keyType) + Auth(block, keyType) +
           Read(block, current) + Auth(block, keyType) + Write(block, written);
}

TEST_F(MifareApdu, WriteSectorTrailerComposesKeysAccessBitsAndBX) {
    struct Row {
        const char* what;
        std::int32_t sector;
        std::uint8_t keyType;
        std::string current;
        std::uint8_t keysToUse;
        std::int32_t s0, s1, s2, conditions;
        Variant bx;
        std::string written;     // bytes 6..9
        std::int32_t block = 0;  // 0: 4 * sector + 3
        bool card = false;       // Conformance=card
    };
    const Row rows[] = {
        // Block 0 "110", block 1 "101", block 2 kept ("000"), trailer "011"; the card's BX.
        {"key-B scheme",
         1,
         0,
         kTransportTrailer,
         2,
         scbs_A_Read | scbs_B_ReadWrite,
         scbs_B_Read,
         -1,
         scss_B_WriteKeysConditions,
         {},
         "6C35A9 69"},
        // The transport trailer ("001") reads back as key A only, where "A
        // read" has a condition the key-B scheme would refuse.
        {"the card's scheme", 2, 2, kTransportTrailer, 0, scbs_A_Read, -1, -1, -1, std::int32_t{0}, "FF0690 00"},
        {"all kept, BX given", 0, 0, "000000000000 7F0788 5A 000000000000", 2, -1, -1, -1, -1, std::string("&H42"),
         "7F0788 42"},
        // By default sectors of four blocks are assumed throughout, even in a
        // 4K card; with Conformance=card its sectors 32..39 have 16 blocks.
        {"sector 31", 31, 0, kTransportTrailer, 0, -1, -1, -1, -1, {}, "FF078069", 127},
        {"sector 32", 32, 0, kTransportTrailer, 0, -1, -1, -1, -1, {}, "FF078069", 131},
        {"sector 39", 39, 0, kTransportTrailer, 0, -1, -1, -1, -1, {}, "FF078069", 159},
        {"card: sector 31", 31, 0, kTransportTrailer, 0, -1, -1, -1, -1, {}, "FF078069", 127, true},
        {"card: sector 32", 32, 0, kTransportTrailer, 0, -1, -1, -1, -1, {}, "FF078069", 143, true},
        {"card: sector 39", 39, 0, kTransportTrailer, 0, -1, -1, -1, -1, {}, "FF078069", 255, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        ctx.cardConformance = row.card;
        const std::int32_t block = row.block != 0 ? row.block : 4 * row.sector + 3;
        const std::string keyType = row.keyType == 2 ? "61" : "60";
        const Steps steps = TrailerWrite(block, row.current, kKey + row.written + kKeyB, keyType);
        cardChecks = 0;
        EXPECT_EQ(Play(steps,
                       [&] {
                           return MifareWriteSectorTrailer(ctx, row.sector, kKey, row.keyType, "a0a1a2a3a4a5",
                                                           "B0 B1 B2 B3 B4 B5", row.keysToUse, row.s0, row.s1, row.s2,
                                                           row.conditions, row.bx);
                       }),
                  sceSuccess);
        EXPECT_EQ(record, Cleared("MifareWriteSectorTrailer"));
        EXPECT_EQ(cardChecks, 1) << "the decoding read checks the card once";
    }
}

TEST_F(MifareApdu, AnOverrideReplacesTheBuiltInConditionItNames) {
    MifareSetAccessCondition(ctx, 5, "100");
    // Block 0 "100", blocks 1 and 2 kept at "000", trailer kept at "001".
    EXPECT_EQ(
        Play(TrailerWrite(3, kTransportTrailer, kKey + "FE1780 69" + kKeyB),
             [&] { return MifareWriteSectorTrailer(ctx, 0, kKey, 0, kKey, kKeyB, 2, scbs_B_Read, -1, -1, -1, {}); }),
        sceSuccess);
}

TEST_F(MifareApdu, SetAccessConditionIgnoresWhatIsNotALegalEntry) {
    record.ComFunction = "before";
    const std::pair<std::int32_t, const char*> ignored[] = {{5, "2"}, {5, "012"}, {5, ""}, {0, "100"}, {10, "100"}};
    for (const auto& [number, value] : ignored)
        MifareSetAccessCondition(ctx, number, value);
    EXPECT_EQ(overrides, AccessConditionTable{});
    EXPECT_EQ(record, Cleared("before")) << "an ignored entry raises no error";
    MifareSetAccessCondition(ctx, 9, "111");
    MifareSetAccessCondition(ctx, 9, "");  // can never be emptied again
    EXPECT_EQ(overrides[8], "111");
}

TEST_F(MifareApdu, WriteSectorTrailerChecksEverythingBeforeItWrites) {
    struct Row {
        const char* what;
        std::string keyA, keyB;
        std::uint8_t keysToUse;
        std::int32_t s0, s1, s2, conditions;
        Variant bx;
        ErrorNumber error;
        bool reads;  // refused after the two reads, not before
    };
    const std::string k = kKey;
    const Row rows[] = {
        {"short key A", "A0A1A2A3A4", k, 2, 0, 0, 0, 0, {}, ErrorNumber::KeyMustBe12Hex, false},
        {"non-hex key A", "A0A1A2A3A4AZ", k, 2, 0, 0, 0, 0, {}, ErrorNumber::KeyMustBe12Hex, false},
        {"odd key B", k, "A0A1A2A3A4A", 2, 0, 0, 0, 0, {}, ErrorNumber::KeyMustBe12Hex, false},
        {"key before security", "", k, 2, 99, 0, 0, 0, true, ErrorNumber::KeyMustBe12Hex, false},
        {"security0 -2", k, k, 2, -2, 0, 0, 0, {}, ErrorNumber::InvalidSecurityInformation, false},
        {"conditions 16", k, k, 2, 0, 0, 0, 16, {}, ErrorNumber::InvalidSecurityInformation, false},
        {"security before BX", k, k, 2, 0, 0, 0, 255, std::int32_t{300}, ErrorNumber::InvalidSecurityInformation,
         false},
        {"BX 256", k, k, 2, 0, 0, 0, 0, std::int32_t{256}, ErrorNumber::IncorrectBX, false},
        {"BX text", k, k, 2, 0, 0, 0, 0, std::string("x"), ErrorNumber::IncorrectBX, false},
        // Combinations without a condition are found once the card's scheme is known.
        {"A read under key B", k, k, 2, scbs_A_Read, -1, -1, -1, {}, ErrorNumber::InvalidSecurityInformation, true},
        {"7 under key B", k, k, 2, -1, -1, 7, -1, {}, ErrorNumber::InvalidSecurityInformation, true},
        {"trailer A writes keys under key B",
         k,
         k,
         2,
         -1,
         -1,
         -1,
         scss_A_WriteKeys,
         {},
         ErrorNumber::InvalidSecurityInformation,
         true},
        {"key B by the card's own trailer", k, k, 0, -1, -1, -1, 1, {}, ErrorNumber::InvalidSecurityInformation, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        const std::string current = row.keysToUse == 0 ? "000000000000 787788 00 000000000000" : kTransportTrailer;
        const Steps reads = Auth(7, "60") + Read(7, current) + Auth(7, "60") + Auth(7, "60") + Read(7, current);
        cardChecks = 0;
        EXPECT_EQ(Play(row.reads ? reads : Steps{},
                       [&] {
                           return MifareWriteSectorTrailer(ctx, 1, kKey, 0, row.keyA, row.keyB, row.keysToUse, row.s0,
                                                           row.s1, row.s2, row.conditions, row.bx);
                       }),
                  sceError);
        EXPECT_EQ(record, Refusal(row.error, "MifareWriteSectorTrailer"));
        EXPECT_EQ(cardChecks, row.reads ? 1 : 0);
    }
}

TEST_F(MifareApdu, ASectorNumberWhoseTrailerBlockOverflowsIsARunTimeError) {
    CError overflow = Cleared("MifareWriteSectorTrailer");
    overflow.Number = 6;
    overflow.Description = "Overflow";
    EXPECT_EQ(
        Play({}, [&] { return MifareWriteSectorTrailer(ctx, 0x20000000, kKey, 0, kKey, kKey, 0, -1, -1, -1, -1, {}); }),
        sceError);
    EXPECT_EQ(record, overflow);
    std::uint8_t keys = 9, bx = 9;
    std::int32_t s0 = 9, s1 = 9, s2 = 9, cond = 9;
    // (sector + 1) * 4 overflows one sector earlier than 4 * sector + 3.
    EXPECT_EQ(Play({}, [&] { return MifareReadSectorTrailer(ctx, 0x1FFFFFFF, kKey, 0, keys, s0, s1, s2, cond, bx); }),
              sceError);
    overflow.ComFunction = "MifareReadSectorTrailer";
    EXPECT_EQ(record, overflow);
}

TEST_F(MifareApdu, ReadSectorTrailerDecodesTheAccessBitsOfTheTrailerBlock) {
    // Block 0 "001", block 1 "010", block 2 "011", trailer "000".
    const std::string trailer = "000000000000 9F0A56 01 FFFFFFFFFFFF";
    const std::tuple<std::int32_t, std::int32_t, bool> rows[] = {
        {2, 11, false}, {32, 131, false}, {32, 143, true}, {39, 255, true}, {31, 127, true}};
    for (const auto& [sector, block, card] : rows) {
        SCOPED_TRACE(sector);
        ctx.cardConformance = card;
        std::uint8_t keys = 0, bx = 0;
        std::int32_t s0 = -9, s1 = -9, s2 = -9, cond = -9;
        EXPECT_EQ(Play(Auth(block, "60") + Auth(block, "60") + Read(block, trailer),
                       [&] { return MifareReadSectorTrailer(ctx, sector, kKey, 0, keys, s0, s1, s2, cond, bx); }),
                  sceSuccess);
        EXPECT_EQ((std::vector<std::int32_t>{keys, s0, s1, s2, cond, bx}),
                  (std::vector<std::int32_t>{1, 5, 5, 12, 1, 1}));
        EXPECT_EQ(record, Cleared("MifareReadSectorTrailer"));
    }
}

TEST_F(MifareApdu, ReadSectorTrailerStopsWhenNoCardIsInTheField) {
    cardCheck = [this] {
        command::Fail(record, ErrorNumber::NoCard, "SelectCardInRange", "SCardConnect", "No card");
        return sceError;
    };
    std::uint8_t keys = 7, bx = 7;
    std::int32_t s0 = 7, s1 = 7, s2 = 7, cond = 7;
    EXPECT_EQ(Play({}, [&] { return MifareReadSectorTrailer(ctx, 2, kKey, 0, keys, s0, s1, s2, cond, bx); }), sceError);
    CError expected = Refusal(ErrorNumber::NoCard, "MifareReadSectorTrailer");
    expected.RdrCommand = "SCardConnect";
    expected.RdrRetCode = "No card";
    EXPECT_EQ(record, expected);
    EXPECT_EQ((std::vector<std::int32_t>{s0, s1, s2, cond, keys}), (std::vector<std::int32_t>{0, 0, 0, 0, 7}))
        << "KeysUsed and BX are only written on success";
}

}  // namespace
}  // namespace elatectwn4::mifare
