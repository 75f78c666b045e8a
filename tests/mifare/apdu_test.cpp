// The exact commands each MIFARE member sends, and the record it leaves,
// against a scripted reader.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "command/channel.h"
#include "command/error_record.h"
#include "mifare/mifare.h"
#include "support/record_text.h"
#include "support/scripted_pcsc.h"

namespace elatectwn4::mifare {
namespace {

using test::Bytes;
using test::Hex;
using test::RecordText;

const std::string kKey = "A0A1A2A3A4A5";
const std::string kKeyB = "B0B1B2B3B4B5";
const std::string kTransportTrailer = "000000000000 FF078069 FFFFFFFFFFFF";
const std::string kBlock = "00112233445566778899AABBCCDDEEFF";
const std::string kRst = "MifareReadSectorTrailer";
const std::string kWst = "MifareWriteSectorTrailer";

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
// The two reads a trailer write starts with (the raw block, then the
// decoding read), and the write.
Steps TrailerWrite(std::int32_t block, const std::string& current, const std::string& written,
                   const std::string& keyType = "60") {
    const Steps reads = Auth(block, keyType) + Read(block, current) + Auth(block, keyType) + Auth(block, keyType) +
                        Read(block, current);
    return written.empty() ? reads : reads + Auth(block, keyType) + Write(block, written);
}

// The records a member leaves, as one line each.
std::string Cleared(const std::string& comFunction) {
    return RecordText(0, "", 0, comFunction, "", "");
}
std::string Refusal(ErrorNumber number, const std::string& comFunction, const std::string& rdrCommand = "",
                    const std::string& rdrRetCode = "") {
    return RecordText(ErrorValue(number), std::string(ErrorDescription(number)), 0, comFunction, rdrCommand,
                      rdrRetCode);
}
std::string CardRefusal(const std::string& comFunction, const std::string& command, const std::string& status) {
    return Refusal(ErrorNumber::CommandFailed, comFunction, "SCardTransmit:" + command, status);
}
std::string Overflow(const std::string& comFunction) {
    return RecordText(6, "Overflow", 0, comFunction, "", "");
}

struct MifareApdu : ::testing::Test {
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
        cardChecks = 0;
        const sceReturnCode result = member();
        EXPECT_EQ(fake->Transmitted(), sent);
        return result;
    }
    // Plays, and checks the result and the record left.
    void Run(const Steps& steps, const std::function<sceReturnCode()>& member, sceReturnCode result,
             const std::string& expected) {
        EXPECT_EQ(Play(steps, member), result);
        EXPECT_EQ(RecordText(record), expected);
    }
    sceReturnCode ReadTrailer(std::int32_t sector) {
        return MifareReadSectorTrailer(ctx, sector, kKey, 0, keys, s0, s1, s2, cond, bx);
    }
    std::vector<std::int32_t> TrailerRead() const { return {keys, s0, s1, s2, cond, bx}; }
    sceReturnCode WriteTrailer(std::int32_t sector, std::uint8_t keysToUse, std::int32_t security0,
                               std::int32_t conditions) {
        return MifareWriteSectorTrailer(ctx, sector, kKey, 0, kKey, kKeyB, keysToUse, security0, -1, -1, conditions,
                                        {});
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
    // Out-arguments, set to what a member must overwrite or keep.
    std::string text;
    std::int32_t serial = 9, s0 = 9, s1 = 9, s2 = 9, cond = 9;
    std::uint8_t check = 9, keys = 9, bx = 9;
};

// ---- Blocks -------------------------------------------------------------------

TEST_F(MifareApdu, WriteDataBlocSendsThe32DigitsItWasGivenNormalisedOrNothing) {
    const std::pair<std::string, bool> rows[] = {
        {" 00 11 22 33 44 55 66 77 88 99 aa bb cc dd ee ff", true},
        {"00112233445566778899AABBCCDDEEF", false},
        {"00112233445566778899AABBCCDDEEGG", false},
    };
    for (const auto& [given, valid] : rows) {
        text = given;
        Run(
            valid ? Auth(8, "61") + Write(8, kBlock) : Steps{},
            [&] { return MifareWriteDataBloc(ctx, 8, kKey, 2, text); }, valid ? sceSuccess : sceError,
            valid ? Cleared("MifareWriteDataBloc") : Refusal(ErrorNumber::BlockMustBe32Hex, "MifareWriteDataBloc"));
        EXPECT_EQ(text, valid ? kBlock : given) << "handed back";
    }
    // Only a trailer's keys are checked; the key that opens a sector goes out as written.
    Run(
        {{"FF 82 00 01 05 A0 A1 A2 A3 A4", "67 00"}}, [&] { return MifareReadDataBloc(ctx, 4, "a0a1a2a3a4", 0, text); },
        sceError, CardRefusal("MifareAuthenticate:LoadKey", "LoadKey", "6700"));
}

TEST_F(MifareApdu, WriteValueBlocWritesValueInverseValueAndTheAddressBytesOrOverflows) {
    const std::pair<std::int32_t, std::string> rows[] = {
        {0x12345678, "7856341287A9CBED78563412FF00FF00"},
        {std::numeric_limits<std::int32_t>::max(), "FFFFFF7F00000080FFFFFF7FFF00FF00"},
        {-1, ""},
        {std::numeric_limits<std::int32_t>::min(), ""},  // its lowest byte is 00
    };
    for (const auto& [value, block] : rows) {
        Run(
            block.empty() ? Steps{} : Auth(5, "60") + Write(5, block),
            [&] { return MifareWriteValueBloc(ctx, 5, kKey, 0, value); }, block.empty() ? sceError : sceSuccess,
            block.empty() ? Overflow("MifareWriteValueBloc") : Cleared("MifareWriteValueBloc"));
    }
}

TEST_F(MifareApdu, WriteBytesInBlocSplicesTheNewBytesIntoTheBlockItRead) {
    const std::string old = "000102030405060708090A0B0C0D0E0F";
    struct Row {
        std::uint8_t from, to;
        std::string contents;
        std::string written;  // empty: nothing is written
        std::string handedBack;
        std::optional<ErrorNumber> error;
    };
    const Row rows[] = {
        {15, 15, "AB", "000102030405060708090A0B0C0D0EAB", "AB", {}},
        {13, 14, "abcd", "000102030405060708090A0B0CABCD0F", "abcd", {}},  // byte 15 kept
        {3, 4, "A", "000102A0000506070809 0A0B0C0D0E0F", "A000", {}},      // padded with zeros
        {0, 0, "1234", "120102030405060708090A0B0C0D0E0F", "12", {}},      // cut
        // Blanks count as characters when the text is cut, and make no block.
        {7, 8, "ab CD", "", "ab C", ErrorNumber::BlockMustBe32Hex},
        // Offsets are checked after the read.
        {5, 4, "1122", "", "1122", ErrorNumber::IncorrectOffsets},
        {15, 16, "1122", "", "1122", ErrorNumber::IncorrectOffsets},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE("bytes " + std::to_string(row.from) + ".." + std::to_string(row.to));
        Steps steps = Auth(6, "60") + Read(6, old);
        if (!row.written.empty()) steps = steps + Auth(6, "60") + Write(6, row.written);
        text = row.contents;
        Run(
            steps, [&] { return MifareWriteBytesInBloc(ctx, 6, kKey, 0, row.from, row.to, text); },
            row.error ? sceError : sceSuccess,
            row.error ? Refusal(*row.error, "MifareWriteBytesInBloc") : Cleared("MifareWriteBytesInBloc"));
        EXPECT_EQ(text, row.handedBack);
    }
}

// ---- Every failure of every step, for every member ----------------------------

struct Member {
    const char* name;
    Steps steps;  // the whole successful exchange
    std::function<sceReturnCode(MifareApdu&)> run;
};

std::vector<Member> AllMembers() {
    const auto own = [](std::int32_t b, const std::string& name) { return Auth(b, "60", name, name); };
    const std::string bytes = "MifareWriteBytesInBloc", value = "MifareWriteValueBloc";
    return {
        {"MifareReadDataBloc", Auth(4, "60") + Read(4, kBlock, "MifareReadDataBloc"),
         [](MifareApdu& t) { return MifareReadDataBloc(t.ctx, 4, kKey, 0, t.text); }},
        {"MifareWriteDataBloc", Auth(4, "61") + Write(4, kBlock, "MifareWriteDataBloc"),
         [](MifareApdu& t) { return MifareWriteDataBloc(t.ctx, 4, kKey, 2, t.text = kBlock); }},
        {"MifareWriteValueBloc", own(5, value) + Write(5, "01000000FEFFFFFF01000000FF00FF00", value),
         [](MifareApdu& t) { return MifareWriteValueBloc(t.ctx, 5, kKey, 0, 1); }},
        {"MifareWriteBytesInBloc",
         own(6, bytes) + Read(6, kBlock, bytes) + own(6, bytes) + Write(6, "0011EE33445566778899AABBCCDDEEFF", bytes),
         [](MifareApdu& t) { return MifareWriteBytesInBloc(t.ctx, 6, kKey, 0, 2, 2, t.text = "EE"); }},
        {"MifareReadManufacturerCode",
         own(0, "MifareReadManufacturerCode") + Read(0, kBlock, "MifareReadManufacturerCode"),
         [](MifareApdu& t) { return MifareReadManufacturerCode(t.ctx, kKey, 0, t.serial, t.check, t.text); }},
        {"MifareReadSectorTrailer", own(7, kRst) + own(7, kRst) + Read(7, kTransportTrailer, kRst),
         [](MifareApdu& t) { return t.ReadTrailer(1); }},
        {"MifareWriteSectorTrailer",
         own(7, kWst) + Read(7, kTransportTrailer, kWst) + own(7, kRst) + own(7, kRst) +
             Read(7, kTransportTrailer, kRst) + own(7, kWst) + Write(7, kKey + "FF078069" + kKeyB, kWst),
         [](MifareApdu& t) { return t.WriteTrailer(1, 0, -1, -1); }},
    };
}

// A card leaving under a member is the fault table's (tests/faults): the
// member takes the reader's failure as it takes this refusal.
TEST_F(MifareApdu, EveryMemberStopsAtTheFirstFailedCommandAndRecordsItUnderTheRightName) {
    for (const Member& member : AllMembers()) {
        for (std::size_t failing = 0; failing <= member.steps.size(); ++failing) {
            SCOPED_TRACE(std::string(member.name) + ", step " + std::to_string(failing) + " refused");
            const bool ok = failing == member.steps.size();
            Steps steps(member.steps.begin(), member.steps.begin() + std::min(failing + 1, member.steps.size()));
            if (!ok) steps.back().answer = "63 00";
            const Step& s = ok ? member.steps.back() : member.steps[failing];
            Run(
                steps, [&] { return member.run(*this); }, ok ? sceSuccess : sceError,
                ok ? Cleared(member.name) : CardRefusal(s.comFunction, s.commandName, "6300"));
        }
    }
}

// Answers of the wrong length are the command layer's and the fuzz target's;
// here the member's own findings and the out-arguments it resets.
TEST_F(MifareApdu, BlockZeroIsSplitAndAMalformedBlockFailsTheMemberAndNothingIsWritten) {
    EXPECT_EQ(Play(Auth(0, "61") + Read(0, "F1234567 89 0804006263646566676869"),
                   [&] { return MifareReadManufacturerCode(ctx, kKey, 2, serial, check, text); }),
              sceSuccess);
    EXPECT_EQ(std::to_string(serial) + " " + std::to_string(check) + " " + text,
              "-249346713 137 0804006263646566676869");
    text = "x";
    Run(
        Auth(4, "60") + Read(4, kBlock + "10"), [&] { return MifareReadDataBloc(ctx, 4, kKey, 0, text); }, sceError,
        CardRefusal("MifareReadDataBloc", "ReadBinary", "Answer of 17 data bytes, expected 16"));
    EXPECT_EQ(text, "");
    EXPECT_EQ(Play(Auth(0, "60") + Read(0, "F123"),
                   [&] { return MifareReadManufacturerCode(ctx, kKey, 0, serial, check, text); }),
              sceError);
    EXPECT_EQ(serial + check, 0);
    // A trailer whose access bits disagree with their copies, at each read.
    const std::string bad = "000000000000 FF0788 69 FFFFFFFFFFFF";
    const Steps decoding = Auth(7, "60") + Auth(7, "60") + Read(7, bad);
    const std::tuple<bool, Steps, std::string> trailers[] = {
        {false, decoding, kRst},
        {true, Auth(7, "60") + Read(7, bad), kWst},
        {true, Auth(7, "60") + Read(7, kTransportTrailer) + decoding, kRst},
    };
    for (const auto& [write, steps, name] : trailers) {
        Run(
            steps, [&] { return write ? WriteTrailer(1, 0, 0, 0) : ReadTrailer(1); }, sceError,
            CardRefusal(name, "ReadBinary", "Access bits differ from their inverted copy"));
    }
}

// ---- Sector trailers --------------------------------------------------------------

TEST_F(MifareApdu, WriteSectorTrailerComposesKeysAccessBitsAndBX) {
    struct Row {
        std::int32_t sector, block;
        bool card;  // Conformance=card
        std::uint8_t keyType, keysToUse;
        std::string current, written;  // bytes 6..9
        std::int32_t s0, s1, conditions;
        Variant bx;
    };
    const std::int32_t readWrite = scbs_A_Read | scbs_B_ReadWrite, keep = -1;
    const Row rows[] = {
        // Block 0 "110", block 1 "101", block 2 kept ("000"), trailer "011"; the card's BX.
        {1, 7, false, 0, 2, "FF078021", "6C35A921", readWrite, scbs_B_Read, scss_B_WriteKeysConditions, {}},
        // The transport trailer ("001") reads back as key A only, where "A
        // read" has a condition the key-B scheme would refuse.
        {2, 11, false, 2, 0, "FF078069", "FF069000", scbs_A_Read, keep, keep, std::int32_t{0}},
        {0, 3, false, 0, 2, "7F07885A", "7F078842", keep, keep, keep, std::string("&H42")},
        // By default sectors of four blocks are assumed throughout, even in a
        // 4K card; with Conformance=card its sectors 32..39 have 16 blocks.
        {32, 131, false, 0, 0, "FF078069", "FF078069", keep, keep, keep, {}},
        {32, 143, true, 0, 0, "FF078069", "FF078069", keep, keep, keep, {}},
        {39, 255, true, 0, 0, "FF078069", "FF078069", keep, keep, keep, {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.sector);
        ctx.cardConformance = row.card;
        Run(
            TrailerWrite(row.block, "000000000000" + row.current + "FFFFFFFFFFFF", kKey + row.written + kKeyB,
                         row.keyType == 2 ? "61" : "60"),
            [&] {
                return MifareWriteSectorTrailer(ctx, row.sector, kKey, row.keyType, "a0a1a2a3a4a5", "B0 B1 B2 B3 B4 B5",
                                                row.keysToUse, row.s0, row.s1, -1, row.conditions, row.bx);
            },
            sceSuccess, Cleared(kWst));
        EXPECT_EQ(cardChecks, 1) << "the decoding read checks the card once";
    }
    // An override replaces the built-in condition it names (block 0 "100");
    // what is no legal entry is ignored without an error.
    const std::pair<std::int32_t, const char*> ignored[] = {{5, "2"}, {5, "012"}, {5, ""}, {0, "100"}, {10, "100"}};
    for (const auto& [number, value] : ignored)
        MifareSetAccessCondition(ctx, number, value);
    EXPECT_EQ(overrides, AccessConditionTable{});
    MifareSetAccessCondition(ctx, 9, "111");
    EXPECT_EQ(overrides[8], "111");
    MifareSetAccessCondition(ctx, 5, "100");
    Run(
        TrailerWrite(3, kTransportTrailer, kKey + "FE1780 69" + kKeyB),
        [&] { return WriteTrailer(0, 2, scbs_B_Read, -1); }, sceSuccess, Cleared(kWst));
}

TEST_F(MifareApdu, WriteSectorTrailerChecksEverythingBeforeItWrites) {
    struct Row {
        std::string keyA, keyB;
        std::uint8_t keysToUse;
        std::int32_t s0, s2, conditions;
        Variant bx;
        ErrorNumber error;
        bool reads;  // refused after the two reads, not before
    };
    const std::string k = kKey;
    const ErrorNumber hex = ErrorNumber::KeyMustBe12Hex, bad = ErrorNumber::InvalidSecurityInformation;
    const Row rows[] = {
        {"A0A1A2A3A4", k, 2, 0, 0, 0, {}, hex, false},
        {k, "A0A1A2A3A4A", 2, 0, 0, 0, {}, hex, false},
        {"", k, 2, 99, 0, 0, true, hex, false},  // keys before security
        {k, k, 2, -2, 0, 0, {}, bad, false},
        {k, k, 2, 0, 0, 16, {}, bad, false},
        {k, k, 2, 0, 0, 255, std::int32_t{300}, bad, false},  // security before BX
        {k, k, 2, 0, 0, 0, std::int32_t{256}, ErrorNumber::IncorrectBX, false},
        // Combinations without a condition are found once the card's scheme is known.
        {k, k, 2, -1, 7, -1, {}, bad, true},
        {k, k, 0, -1, -1, 1, {}, bad, true},  // key B by the card's own trailer
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.keyA + " " + std::to_string(row.s0) + " " + std::to_string(row.conditions));
        const std::string current = row.keysToUse == 0 ? "000000000000 787788 00 000000000000" : kTransportTrailer;
        Run(
            row.reads ? TrailerWrite(7, current, "") : Steps{},
            [&] {
                return MifareWriteSectorTrailer(ctx, 1, kKey, 0, row.keyA, row.keyB, row.keysToUse, row.s0, -1, row.s2,
                                                row.conditions, row.bx);
            },
            sceError, Refusal(row.error, kWst));
        EXPECT_EQ(cardChecks, row.reads ? 1 : 0);
    }
    // A sector number whose trailer block overflows is a run-time error; a
    // read counts from the next sector and overflows one sector earlier.
    Run(
        {}, [&] { return WriteTrailer(0x20000000, 0, -1, -1); }, sceError, Overflow(kWst));
    Run(
        {}, [&] { return ReadTrailer(0x1FFFFFFF); }, sceError, Overflow(kRst));
}

TEST_F(MifareApdu, ReadSectorTrailerDecodesTheAccessBitsOfTheTrailerBlock) {
    // Block 0 "001", block 1 "010", block 2 "011", trailer "000".
    Run(
        Auth(11, "60") + Auth(11, "60") + Read(11, "000000000000 9F0A56 01 FFFFFFFFFFFF"),
        [&] { return ReadTrailer(2); }, sceSuccess, Cleared(kRst));
    EXPECT_EQ(TrailerRead(), (std::vector<std::int32_t>{1, 5, 5, 12, 1, 1}));
    // No card in the field: nothing is sent; KeysUsed and BX are only written on success.
    cardCheck = [this] {
        command::Fail(record, ErrorNumber::NoCard, "SelectCardInRange", "SCardConnect", "No card");
        return sceError;
    };
    keys = bx = 7;
    Run(
        {}, [&] { return ReadTrailer(2); }, sceError, Refusal(ErrorNumber::NoCard, kRst, "SCardConnect", "No card"));
    EXPECT_EQ(TrailerRead(), (std::vector<std::int32_t>{7, 0, 0, 0, 0, 7}));
}

}  // namespace
}  // namespace elatectwn4::mifare
