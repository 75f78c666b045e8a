// The exact commands each MIFARE member sends, and the record it leaves,
// against a scripted reader.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "command/channel.h"
#include "command/error_record.h"
#include "command/pcsc_error_text.h"
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
const std::string kOk = "90 00";

std::string Spaced(const std::string& digits) {
    return Hex(Bytes(digits));
}

// The block number goes out as two bytes, high byte first.
std::string BlockBytes(std::int32_t block) {
    const auto value = static_cast<std::uint16_t>(block);
    return Hex(std::vector<std::uint8_t>{static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)});
}
std::string LoadKeyApdu(const std::string& key) {
    return "FF 82 00 01 " + Hex(std::vector<std::uint8_t>{static_cast<std::uint8_t>(key.size() / 2)}) + " " +
           Spaced(key);
}
std::string AuthApdu(std::int32_t block, const std::string& keyType) {
    return "FF 86 00 00 05 01 " + BlockBytes(block) + " " + keyType + " 01";
}
std::string ReadApdu(std::int32_t block) {
    return "FF B0 " + BlockBytes(block) + " 00";
}
std::string WriteApdu(std::int32_t block, const std::string& data) {
    return "FF D6 " + BlockBytes(block) + " 10 " + Spaced(data);
}

// One exchange of a member: the command, the card's good answer, and the
// names a refusal of it is recorded under.
struct Step {
    std::string apdu;
    std::string answer;
    std::string commandName;
    std::string comFunction;
};

std::vector<Step> AuthSteps(std::int32_t block, const std::string& keyType, const std::string& key,
                            const std::string& loadKeyName = "MifareAuthenticate:LoadKey",
                            const std::string& authName = "MifareAuthenticate") {
    return {{LoadKeyApdu(key), kOk, "LoadKey", loadKeyName},
            {AuthApdu(block, keyType), kOk, "GeneralAuthenticate", authName}};
}

std::vector<Step> operator+(std::vector<Step> a, const std::vector<Step>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

std::vector<std::string> Apdus(const std::vector<Step>& steps) {
    std::vector<std::string> out;
    for (const auto& s : steps)
        out.push_back(s.apdu);
    return out;
}

class MifareApdu : public ::testing::Test {
protected:
    std::shared_ptr<test::ScriptedPcsc> fake = std::make_shared<test::ScriptedPcsc>();
    CError record;
    command::Channel channel{fake.get(), 0x1001, 0x2001, pcsc_const::ProtocolT1};
    AccessConditionTable overrides{};
    int cardChecks = 0;
    std::function<sceReturnCode()> cardCheck = [this] {
        ++cardChecks;
        return sceSuccess;
    };
    Context ctx{channel, record, overrides, [this] { return cardCheck(); }};

    void Script(const std::vector<Step>& steps) {
        for (const auto& s : steps)
            fake->Expect(s.apdu).Reply(s.answer);
    }
    // A new reader playing `steps`, for one row of a table.
    std::shared_ptr<test::ScriptedPcsc> Fresh(const std::vector<Step>& steps) {
        auto next = std::make_shared<test::ScriptedPcsc>();
        for (const auto& s : steps)
            next->Expect(s.apdu).Reply(s.answer);
        channel.pcsc = next.get();
        return next;
    }
};

// ---- Reading and writing blocks --------------------------------------------

TEST_F(MifareApdu, TheKeyIsLoadedAgainBeforeEveryAuthentication) {
    const auto read = std::vector<Step>{{ReadApdu(4), "000102030405060708090A0B0C0D0E0F 9000", "", ""}};
    const auto steps = AuthSteps(4, "60", kKey) + read + AuthSteps(4, "60", kKey) + read;
    Script(steps);
    std::string contents;
    ASSERT_EQ(MifareReadDataBloc(ctx, 4, kKey, 0, contents), sceSuccess);
    ASSERT_EQ(MifareReadDataBloc(ctx, 4, kKey, 0, contents), sceSuccess);
    EXPECT_EQ(fake->Transmitted(), Apdus(steps));
}

TEST_F(MifareApdu, TheAuthenticationKeyGoesOutAsGivenAndTheReaderJudgesIt) {
    // Only the keys of a trailer are checked by the component; the key that
    // opens a sector reaches the reader as the host wrote it.
    Script({{"FF 82 00 01 05 A0 A1 A2 A3 A4", "67 00", "", ""}});
    std::string contents;
    EXPECT_EQ(MifareReadDataBloc(ctx, 4, "a0a1a2a3a4", 0, contents), sceError);
    EXPECT_EQ(record, CardRefusal("MifareAuthenticate:LoadKey", "LoadKey", "6700"));
}

TEST_F(MifareApdu, WriteDataBlocSendsTheNormalisedBlockAndHandsItBack) {
    const std::string data = "00112233445566778899AABBCCDDEEFF";
    const auto steps = AuthSteps(8, "61", kKey) + std::vector<Step>{{WriteApdu(8, data), kOk, "", ""}};
    Script(steps);
    std::string contents = " 00 11 22 33 44 55 66 77 88 99 aa bb cc dd ee ff";
    EXPECT_EQ(MifareWriteDataBloc(ctx, 8, kKey, 2, contents), sceSuccess);
    EXPECT_EQ(contents, data);
    EXPECT_EQ(record, Cleared("MifareWriteDataBloc"));
    EXPECT_EQ(fake->Transmitted(), Apdus(steps));
}

TEST_F(MifareApdu, WriteDataBlocRefusesABlockThatIsNot32HexDigitsBeforeSendingAnything) {
    const std::string bad[] = {"",
                               "00112233445566778899AABBCCDDEEF",
                               "00112233445566778899AABBCCDDEEFF0",
                               "00112233445566778899AABBCCDDEEFF00",
                               "00112233445566778899AABBCCDDEEGG",
                               "0x112233445566778899AABBCCDDEEFF",
                               "00-11-22-33-44-55-66-77-88-99-AA-BB-CC-DD-EE-FF"};
    for (const auto& text : bad) {
        std::string contents = text;
        EXPECT_EQ(MifareWriteDataBloc(ctx, 8, kKey, 0, contents), sceError) << text;
        EXPECT_EQ(record, Refusal(ErrorNumber::BlockMustBe32Hex, "MifareWriteDataBloc")) << text;
        EXPECT_EQ(contents, text) << "a refused text is handed back unchanged";
    }
    EXPECT_TRUE(fake->Transmitted().empty());
}

TEST_F(MifareApdu, WriteValueBlocWritesValueInverseValueAndTheAddressBytes) {
    struct Row {
        std::int32_t value;
        std::string block;
    };
    const Row rows[] = {
        {1, "01000000FEFFFFFF01000000FF00FF00"},
        {0, "00000000FFFFFFFF00000000FF00FF00"},
        {0x12345678, "7856341287A9CBED78563412FF00FF00"},
        {std::numeric_limits<std::int32_t>::max(), "FFFFFF7F00000080FFFFFF7FFF00FF00"},
    };
    for (const Row& row : rows) {
        const auto steps = AuthSteps(5, "60", kKey) + std::vector<Step>{{WriteApdu(5, row.block), kOk, "", ""}};
        const auto fake2 = Fresh(steps);
        EXPECT_EQ(MifareWriteValueBloc(ctx, 5, kKey, 0, row.value), sceSuccess) << row.value;
        EXPECT_EQ(record, Cleared("MifareWriteValueBloc"));
        EXPECT_EQ(fake2->Transmitted(), Apdus(steps));
    }
}

TEST_F(MifareApdu, WriteValueBlocReportsANegativeValueAsAnOverflowWithoutWriting) {
    for (const std::int32_t value : {-1, -256, std::numeric_limits<std::int32_t>::min()}) {
        EXPECT_EQ(MifareWriteValueBloc(ctx, 5, kKey, 0, value), sceError);
        CError overflow;
        overflow.Number = 6;
        overflow.Description = "Overflow";
        overflow.ComFunction = "MifareWriteValueBloc";
        EXPECT_EQ(record, overflow) << value;
    }
    EXPECT_TRUE(fake->Transmitted().empty());
}

TEST_F(MifareApdu, WriteBytesInBlocSplicesTheNewBytesIntoTheBlockItRead) {
    const std::string old = "000102030405060708090A0B0C0D0E0F";
    struct Row {
        std::uint8_t from, to;
        std::string contents;
        std::string written;  // empty: the spliced text is no block and nothing is written
        std::string handedBack;
    };
    const Row rows[] = {
        {15, 15, "AB", "000102030405060708090A0B0C0D0EAB", "AB"},
        {0, 15, "FFEEDDCCBBAA99887766554433221100", "FFEEDDCCBBAA99887766554433221100",
         "FFEEDDCCBBAA99887766554433221100"},
        {3, 4, "A", "000102 A000 0506070809 0A0B0C0D0E0F", "A000"},
        {0, 0, "1234", "12 0102030405060708090A0B0C0D0E0F", "12"},
        {2, 5, "", "0001 00000000 06070809 0A0B0C0D0E0F", "00000000"},
        {3, 3, "ee", "000102 EE 0405060708090A0B0C0D0E0F", "ee"},
        // Blanks count as characters when the text is cut to length.
        {7, 8, "ab CD", "", "ab C"},
    };
    for (const Row& row : rows) {
        const bool writable = !row.written.empty();
        const std::string written = Hex(Bytes(row.written));
        auto steps = AuthSteps(6, "60", kKey) + std::vector<Step>{{ReadApdu(6), Spaced(old) + " 90 00", "", ""}};
        if (writable)
            steps = steps + AuthSteps(6, "60", kKey) + std::vector<Step>{{"FF D6 00 06 10 " + written, kOk, "", ""}};
        const auto fake2 = Fresh(steps);
        std::string contents = row.contents;
        SCOPED_TRACE("bytes " + std::to_string(row.from) + ".." + std::to_string(row.to));
        if (writable) {
            EXPECT_EQ(MifareWriteBytesInBloc(ctx, 6, kKey, 0, row.from, row.to, contents), sceSuccess);
            EXPECT_EQ(record, Cleared("MifareWriteBytesInBloc"));
        } else {
            EXPECT_EQ(MifareWriteBytesInBloc(ctx, 6, kKey, 0, row.from, row.to, contents), sceError);
            EXPECT_EQ(record, Refusal(ErrorNumber::BlockMustBe32Hex, "MifareWriteBytesInBloc"));
        }
        EXPECT_EQ(contents, row.handedBack);
        EXPECT_EQ(fake2->Transmitted(), Apdus(steps));
    }
}

TEST_F(MifareApdu, WriteBytesInBlocChecksTheOffsetsOnlyAfterReadingTheBlock) {
    const std::pair<std::uint8_t, std::uint8_t> rows[] = {{5, 4}, {16, 16}, {0, 16}, {16, 0}, {255, 255}, {15, 14}};
    for (const auto& [from, to] : rows) {
        const auto steps = AuthSteps(6, "60", kKey) +
                           std::vector<Step>{{ReadApdu(6), "000102030405060708090A0B0C0D0E0F 9000", "", ""}};
        const auto fake2 = Fresh(steps);
        std::string contents = "1122";
        EXPECT_EQ(MifareWriteBytesInBloc(ctx, 6, kKey, 0, from, to, contents), sceError);
        EXPECT_EQ(record, Refusal(ErrorNumber::IncorrectOffsets, "MifareWriteBytesInBloc"))
            << int(from) << ".." << int(to);
        EXPECT_EQ(contents, "1122") << "refused offsets leave the argument alone";
        EXPECT_EQ(fake2->Transmitted(), Apdus(steps));
    }
}

TEST_F(MifareApdu, WriteBytesInBlocReportsAReadThatGaveNoWholeBlockAsAReadError) {
    for (const std::string answer : {"9000", "0001020304050607 9000", "000102030405060708090A0B0C0D0E0F10 9000"}) {
        const auto steps = AuthSteps(6, "60", kKey) + std::vector<Step>{{ReadApdu(6), answer, "", ""}};
        const auto fake2 = Fresh(steps);
        std::string contents = "11";
        EXPECT_EQ(MifareWriteBytesInBloc(ctx, 6, kKey, 0, 0, 0, contents), sceError);
        EXPECT_EQ(record, Refusal(ErrorNumber::ReadError, "MifareWriteBytesInBloc")) << answer;
        EXPECT_EQ(fake2->Transmitted(), Apdus(steps));
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
        {"80000000 80 0000000000000000000000", std::numeric_limits<std::int32_t>::min(), 0x80,
         "0000000000000000000000"},
    };
    for (const Row& row : rows) {
        const auto steps = AuthSteps(0, "61", kKey) + std::vector<Step>{{ReadApdu(0), row.block + " 9000", "", ""}};
        const auto fake2 = Fresh(steps);
        std::int32_t serial = 1;
        std::uint8_t check = 1;
        std::string info;
        EXPECT_EQ(MifareReadManufacturerCode(ctx, kKey, 2, serial, check, info), sceSuccess);
        EXPECT_EQ(serial, row.serial);
        EXPECT_EQ(check, row.check);
        EXPECT_EQ(info, row.info);
        EXPECT_EQ(record, Cleared("MifareReadManufacturerCode"));
        EXPECT_EQ(fake2->Transmitted(), Apdus(steps));
    }
}

// ---- Every refusal of every step, for every member ---------------------------

struct Member {
    const char* name;
    std::vector<Step> steps;  // the whole successful exchange
    std::function<sceReturnCode(Context&)> run;
};

std::vector<Member> AllMembers() {
    const std::string block = "00112233445566778899AABBCCDDEEFF";
    const std::string trailer = "000000000000 FF078069 FFFFFFFFFFFF 9000";
    const auto read = [](std::int32_t b, const std::string& answer, const std::string& name) {
        return std::vector<Step>{{ReadApdu(b), answer, "ReadBinary", name}};
    };
    const auto write = [](std::int32_t b, const std::string& data, const std::string& name) {
        return std::vector<Step>{{WriteApdu(b, data), "90 00", "WriteBinary", name}};
    };
    const std::string wst = "MifareWriteSectorTrailer";
    const std::string rst = "MifareReadSectorTrailer";
    return {
        {"MifareReadDataBloc", AuthSteps(4, "60", kKey) + read(4, block + " 9000", "MifareReadDataBloc"),
         [](Context& c) {
             std::string s;
             return MifareReadDataBloc(c, 4, kKey, 0, s);
         }},
        {"MifareWriteDataBloc", AuthSteps(4, "61", kKey) + write(4, block, "MifareWriteDataBloc"),
         [block](Context& c) {
             std::string s = block;
             return MifareWriteDataBloc(c, 4, kKey, 2, s);
         }},
        {"MifareWriteValueBloc",
         AuthSteps(5, "60", kKey, "MifareWriteValueBloc", "MifareWriteValueBloc") +
             write(5, "01000000FEFFFFFF01000000FF00FF00", "MifareWriteValueBloc"),
         [](Context& c) { return MifareWriteValueBloc(c, 5, kKey, 0, 1); }},
        {"MifareWriteBytesInBloc",
         AuthSteps(6, "60", kKey, "MifareWriteBytesInBloc", "MifareWriteBytesInBloc") +
             read(6, block + " 9000", "MifareWriteBytesInBloc") +
             AuthSteps(6, "60", kKey, "MifareWriteBytesInBloc", "MifareWriteBytesInBloc") +
             write(6, "0011EE33445566778899AABBCCDDEEFF", "MifareWriteBytesInBloc"),
         [](Context& c) {
             std::string s = "EE";
             return MifareWriteBytesInBloc(c, 6, kKey, 0, 2, 2, s);
         }},
        {"MifareReadManufacturerCode",
         AuthSteps(0, "60", kKey, "MifareReadManufacturerCode", "MifareReadManufacturerCode") +
             read(0, block + " 9000", "MifareReadManufacturerCode"),
         [](Context& c) {
             std::int32_t serial;
             std::uint8_t check;
             std::string info;
             return MifareReadManufacturerCode(c, kKey, 0, serial, check, info);
         }},
        {"MifareReadSectorTrailer",
         AuthSteps(7, "60", kKey, rst, rst) + AuthSteps(7, "60", kKey, rst, rst) + read(7, trailer, rst),
         [](Context& c) {
             std::uint8_t keys, bx;
             std::int32_t s0, s1, s2, cond;
             return MifareReadSectorTrailer(c, 1, kKey, 0, keys, s0, s1, s2, cond, bx);
         }},
        {"MifareWriteSectorTrailer",
         AuthSteps(7, "60", kKey, wst, wst) + read(7, trailer, wst) + AuthSteps(7, "60", kKey, rst, rst) +
             AuthSteps(7, "60", kKey, rst, rst) + read(7, trailer, rst) + AuthSteps(7, "60", kKey, wst, wst) +
             write(7, "B0B1B2B3B4B5 FF078069 C0C1C2C3C4C5", wst),
         [](Context& c) {
             return MifareWriteSectorTrailer(c, 1, kKey, 0, "B0B1B2B3B4B5", "C0C1C2C3C4C5", 0, -1, -1, -1, -1, {});
         }},
    };
}

TEST(MifareRefusals, EveryMemberStopsAtTheFirstRefusedCommandAndRecordsItUnderTheRightName) {
    for (const Member& member : AllMembers()) {
        for (std::size_t failing = 0; failing <= member.steps.size(); ++failing) {
            for (const std::string status : {"6300", "6982"}) {
                SCOPED_TRACE(std::string(member.name) + ", step " + std::to_string(failing) + " answers " + status);
                auto fake = std::make_shared<test::ScriptedPcsc>();
                CError record;
                command::Channel channel{fake.get(), 0x1001, 0x2001, pcsc_const::ProtocolT1};
                AccessConditionTable overrides{};
                Context ctx{channel, record, overrides, [] { return sceSuccess; }};
                std::vector<std::string> expected;
                for (std::size_t i = 0; i < member.steps.size() && i <= failing; ++i) {
                    const Step& s = member.steps[i];
                    fake->Expect(s.apdu).Reply(i == failing ? status : s.answer);
                    expected.push_back(s.apdu);
                }
                const sceReturnCode result = member.run(ctx);
                EXPECT_EQ(fake->Transmitted(), expected);
                if (failing == member.steps.size()) {
                    EXPECT_EQ(result, sceSuccess);
                    EXPECT_EQ(record, Cleared(member.name));
                } else {
                    const Step& s = member.steps[failing];
                    EXPECT_EQ(result, sceError);
                    EXPECT_EQ(record, CardRefusal(s.comFunction, s.commandName, status));
                }
            }
        }
    }
}

TEST_F(MifareApdu, AReaderThatFailsTheTransmissionIsReportedWithThePcscText) {
    fake->Expect(LoadKeyApdu(kKey)).Reply(kOk);
    fake->Expect(AuthApdu(4, "60")).Reply(kOk);
    fake->Expect(ReadApdu(4)).Fail(pcsc_code::RemovedCard);
    std::string contents;
    EXPECT_EQ(MifareReadDataBloc(ctx, 4, kKey, 0, contents), sceError);
    EXPECT_EQ(record, CardRefusal("MifareReadDataBloc", "ReadBinary", command::PCSCErrorText(pcsc_code::RemovedCard)));
    EXPECT_EQ(contents, "");
}

TEST_F(MifareApdu, AClosedEncoderIsReportedByTheCommandLayerUnderTheKeyLoadingStep) {
    channel.context = 0;
    std::string contents = "x";
    EXPECT_EQ(MifareReadDataBloc(ctx, 4, kKey, 0, contents), sceError);
    EXPECT_EQ(record, Refusal(ErrorNumber::EncoderClosed, "MifareAuthenticate:LoadKey"));
    EXPECT_EQ(contents, "");
}

// ---- Sector trailers ---------------------------------------------------------

const std::string kTransportTrailer = "000000000000 FF078069 FFFFFFFFFFFF";

class SectorTrailerApdu : public MifareApdu {
protected:
    // The two reads a trailer write starts with: the raw block, then the decoding read.
    std::vector<Step> TrailerReads(std::int32_t block, const std::string& trailer, const std::string& keyType = "60") {
        const Step read{ReadApdu(block), Spaced(trailer) + " 90 00", "", ""};
        return AuthSteps(block, keyType, kKey) + std::vector<Step>{read} + AuthSteps(block, keyType, kKey) +
               AuthSteps(block, keyType, kKey) + std::vector<Step>{read};
    }
    std::vector<Step> TrailerWrite(std::int32_t block, const std::string& trailer, const std::string& keyType = "60") {
        return AuthSteps(block, keyType, kKey) + std::vector<Step>{{WriteApdu(block, trailer), kOk, "", ""}};
    }
};

TEST_F(SectorTrailerApdu, WritesKeysAccessBitsAndTheCardsOwnBX) {
    // Block 0 A read + B read/write ("110"), block 1 B read ("101"), block 2
    // kept ("000"), trailer B writes keys and conditions ("011").
    const auto steps = TrailerReads(7, kTransportTrailer) + TrailerWrite(7, "A0A1A2A3A4A5 6C35A9 69 B0B1B2B3B4B5");
    Script(steps);
    EXPECT_EQ(MifareWriteSectorTrailer(ctx, 1, kKey, 0, "a0a1a2a3a4a5", "B0 B1 B2 B3 B4 B5", 2,
                                       scbs_A_Read | scbs_B_ReadWrite, scbs_B_Read, -1, scss_B_WriteKeysConditions, {}),
              sceSuccess);
    EXPECT_EQ(record, Cleared("MifareWriteSectorTrailer"));
    EXPECT_EQ(fake->Transmitted(), Apdus(steps));
    EXPECT_EQ(cardChecks, 1) << "the decoding read checks the card once";
}

TEST_F(SectorTrailerApdu, TheTrailerBlockIsFourTimesTheSectorPlusThreeEvenInTheLargeSectorsOfA4K) {
    for (const std::int32_t sector : {0, 15, 31, 32, 39}) {
        const std::int32_t block = 4 * sector + 3;
        const auto steps =
            TrailerReads(block, kTransportTrailer) + TrailerWrite(block, "A0A1A2A3A4A5 FF078069 B0B1B2B3B4B5");
        const auto fake2 = Fresh(steps);
        EXPECT_EQ(MifareWriteSectorTrailer(ctx, sector, kKey, 0, "A0A1A2A3A4A5", "B0B1B2B3B4B5", 0, -1, -1, -1, -1, {}),
                  sceSuccess);
        EXPECT_EQ(fake2->Transmitted(), Apdus(steps)) << "sector " << sector;
    }
}

TEST_F(SectorTrailerApdu, KeysToUseZeroKeepsTheKeyASchemeOfTheCard) {
    // The transport trailer ("001") reads back as key A only, where "A read"
    // has a condition ("001") that the key-B scheme would refuse.
    const auto steps =
        TrailerReads(11, kTransportTrailer, "61") + TrailerWrite(11, "A0A1A2A3A4A5 FF0690 00 B0B1B2B3B4B5", "61");
    Script(steps);
    EXPECT_EQ(MifareWriteSectorTrailer(ctx, 2, kKey, 2, "A0A1A2A3A4A5", "B0B1B2B3B4B5", 0, scbs_A_Read, -1, -1, -1,
                                       std::int32_t{0}),
              sceSuccess)
        << testing::PrintToString(record);
    EXPECT_EQ(fake->Transmitted(), Apdus(steps));
}

TEST_F(SectorTrailerApdu, ACombinationWithoutAConditionIsRefusedAfterTheReadsAndNothingIsWritten) {
    struct Row {
        std::uint8_t keysToUse;
        std::int32_t s0, s1, s2, conditions;
    };
    const Row rows[] = {
        {2, scbs_A_Read, -1, -1, -1},
        {2, -1, scbs_A_ReadWrite, -1, -1},
        {2, -1, -1, 7, -1},
        {2, -1, -1, -1, scss_A_WriteKeys},
        {2, -1, -1, -1, 5},
        {0x10, 6, 0, 0, 0},
        // Key B in use because the card's trailer says so.
        {0, -1, -1, -1, 1},
    };
    const std::string keyBTrailer = "000000000000 787788 00 000000000000";
    for (const Row& row : rows) {
        const auto steps = TrailerReads(3, row.keysToUse == 0 ? keyBTrailer : kTransportTrailer);
        const auto fake2 = Fresh(steps);
        EXPECT_EQ(MifareWriteSectorTrailer(ctx, 0, kKey, 0, kKey, kKey, row.keysToUse, row.s0, row.s1, row.s2,
                                           row.conditions, {}),
                  sceError);
        EXPECT_EQ(record, Refusal(ErrorNumber::InvalidSecurityInformation, "MifareWriteSectorTrailer"));
        EXPECT_EQ(fake2->Transmitted(), Apdus(steps));
    }
}

TEST_F(SectorTrailerApdu, AllSecuritiesKeptChangesOnlyKeysAndBXEvenOnInconsistentAccessBytes) {
    struct Row {
        Variant bx;
        std::string bxByte;
    };
    const Row rows[] = {{{}, "5A"},  {std::uint8_t{0x42}, "42"}, {std::int32_t{255}, "FF"},
                        {2.5, "02"}, {std::string("200"), "C8"}, {false, "00"}};
    for (const Row& row : rows) {
        const auto steps = TrailerReads(3, "000000000000 123456 5A 000000000000") +
                           TrailerWrite(3, "A0A1A2A3A4A5 123456 " + row.bxByte + " B0B1B2B3B4B5");
        const auto fake2 = Fresh(steps);
        EXPECT_EQ(MifareWriteSectorTrailer(ctx, 0, kKey, 0, "A0A1A2A3A4A5", "B0B1B2B3B4B5", 2, -1, -1, -1, -1, row.bx),
                  sceSuccess);
        EXPECT_EQ(fake2->Transmitted(), Apdus(steps)) << "BX " << row.bxByte;
    }
}

TEST_F(SectorTrailerApdu, AnOverrideReplacesTheBuiltInConditionItNames) {
    MifareSetAccessCondition(ctx, 5, "100");
    // Block 0 "100", blocks 1 and 2 kept at "000", trailer kept at "001".
    const auto steps = TrailerReads(3, kTransportTrailer) + TrailerWrite(3, "A0A1A2A3A4A5 FE1780 69 B0B1B2B3B4B5");
    Script(steps);
    EXPECT_EQ(MifareWriteSectorTrailer(ctx, 0, kKey, 0, "A0A1A2A3A4A5", "B0B1B2B3B4B5", 2, scbs_B_Read, -1, -1, -1, {}),
              sceSuccess);
    EXPECT_EQ(fake->Transmitted(), Apdus(steps));
}

TEST_F(SectorTrailerApdu, SetAccessConditionIgnoresWhatIsNotALegalEntry) {
    struct Row {
        std::int32_t number;
        std::string value;
    };
    const Row ignored[] = {{5, "2"},   {5, "0000"}, {5, "012"},  {5, ""},
                           {5, " 10"}, {0, "100"},  {10, "100"}, {-1, "100"}};
    record.ComFunction = "before";
    for (const Row& row : ignored)
        MifareSetAccessCondition(ctx, row.number, row.value);
    EXPECT_EQ(overrides, AccessConditionTable{});
    EXPECT_EQ(record, Cleared("before")) << "an ignored entry raises no error";

    MifareSetAccessCondition(ctx, 1, "010");
    MifareSetAccessCondition(ctx, 9, "111");
    MifareSetAccessCondition(ctx, 9, "");  // can never be emptied again
    AccessConditionTable expected{};
    expected[0] = "010";
    expected[8] = "111";
    EXPECT_EQ(overrides, expected);
}

TEST_F(SectorTrailerApdu, ArgumentsAreCheckedInOrderBeforeAnythingIsSent) {
    struct Row {
        const char* what;
        std::string keyA, keyB;
        std::int32_t s0, s1, s2, conditions;
        Variant bx;
        ErrorNumber error;
    };
    const std::string k = "A0A1A2A3A4A5";
    const Row rows[] = {
        {"short key A", "A0A1A2A3A4", k, 0, 0, 0, 0, {}, ErrorNumber::KeyMustBe12Hex},
        {"long key A", k + "A6", k, 0, 0, 0, 0, {}, ErrorNumber::KeyMustBe12Hex},
        {"non-hex key A", "A0A1A2A3A4AZ", k, 0, 0, 0, 0, {}, ErrorNumber::KeyMustBe12Hex},
        {"empty key B", k, "", 0, 0, 0, 0, {}, ErrorNumber::KeyMustBe12Hex},
        {"odd key B", k, "A0A1A2A3A4A", 0, 0, 0, 0, {}, ErrorNumber::KeyMustBe12Hex},
        {"key before security", "", k, 99, 0, 0, 0, true, ErrorNumber::KeyMustBe12Hex},
        {"security0 -2", k, k, -2, 0, 0, 0, {}, ErrorNumber::InvalidSecurityInformation},
        {"security1 16", k, k, 0, 16, 0, 0, {}, ErrorNumber::InvalidSecurityInformation},
        {"security2 -100", k, k, 0, 0, -100, 0, {}, ErrorNumber::InvalidSecurityInformation},
        {"conditions 16", k, k, 0, 0, 0, 16, {}, ErrorNumber::InvalidSecurityInformation},
        {"security before BX", k, k, 0, 0, 0, 255, std::int32_t{300}, ErrorNumber::InvalidSecurityInformation},
        {"BX True", k, k, 0, 0, 0, 0, true, ErrorNumber::IncorrectBX},
        {"BX 256", k, k, 0, 0, 0, 0, std::int32_t{256}, ErrorNumber::IncorrectBX},
        {"BX -1", k, k, 0, 0, 0, 0, std::int32_t{-1}, ErrorNumber::IncorrectBX},
        {"BX 255.5", k, k, 0, 0, 0, 0, 255.5, ErrorNumber::IncorrectBX},
        {"BX text", k, k, 0, 0, 0, 0, std::string("x"), ErrorNumber::IncorrectBX},
        {"BX bytes", k, k, 0, 0, 0, 0, std::vector<std::uint8_t>{1}, ErrorNumber::IncorrectBX},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(MifareWriteSectorTrailer(ctx, 1, kKey, 0, row.keyA, row.keyB, 2, row.s0, row.s1, row.s2,
                                           row.conditions, row.bx),
                  sceError)
            << row.what;
        EXPECT_EQ(record, Refusal(row.error, "MifareWriteSectorTrailer")) << row.what;
    }
    EXPECT_TRUE(fake->Transmitted().empty());
    EXPECT_EQ(cardChecks, 0);
}

TEST_F(SectorTrailerApdu, ASectorNumberWhoseTrailerBlockOverflowsIsARunTimeError) {
    CError overflow;
    overflow.Number = 6;
    overflow.Description = "Overflow";
    overflow.ComFunction = "MifareWriteSectorTrailer";
    EXPECT_EQ(MifareWriteSectorTrailer(ctx, 0x20000000, kKey, 0, kKey, kKey, 0, -1, -1, -1, -1, {}), sceError);
    EXPECT_EQ(record, overflow);

    std::uint8_t keys = 9, bx = 9;
    std::int32_t s0 = 9, s1 = 9, s2 = 9, cond = 9;
    // (sector + 1) * 4 overflows one sector earlier than 4 * sector + 3.
    EXPECT_EQ(MifareReadSectorTrailer(ctx, 0x1FFFFFFF, kKey, 0, keys, s0, s1, s2, cond, bx), sceError);
    overflow.ComFunction = "MifareReadSectorTrailer";
    EXPECT_EQ(record, overflow);
    EXPECT_TRUE(fake->Transmitted().empty());
}

TEST_F(SectorTrailerApdu, ReadSectorTrailerReportsTheCoarseReadingOfBytesSevenToNine) {
    struct Row {
        std::string accessAndBx;  // trailer bytes 6..9
        std::uint8_t keysUsed;
        std::int32_t s0, s1, s2, conditions;
        std::uint8_t bx;
    };
    const Row rows[] = {
        {"FF078069", 1, 15, 15, 15, 3, 0x69},  // transport configuration
        {"787788 00", 2, 13, 13, 13, 12, 0x00},
        {"6C35A9 5A", 2, 13, 12, 15, 12, 0x5A},
        {"00F0FF FF", 2, 0, 0, 0, 0, 0xFF},  // everything "111"
        // Byte 6 never consulted: an inconsistent inverted copy reads the same.
        {"000780 69", 1, 15, 15, 15, 3, 0x69},
        // Block 0 "001", block 1 "010", block 2 "011", trailer "000".
        {"9F0A56 01", 1, 5, 5, 12, 1, 0x01},
        // Block 0 "100", block 1 "101", block 2 "110", trailer "010".
        {"387D2C 02", 1, 13, 12, 13, 0, 0x02},
    };
    for (const Row& row : rows) {
        const auto steps =
            AuthSteps(11, "60", kKey) + AuthSteps(11, "60", kKey) +
            std::vector<Step>{{ReadApdu(11), "000000000000" + row.accessAndBx + "FFFFFFFFFFFF 9000", "", ""}};
        const auto fake2 = Fresh(steps);
        std::uint8_t keys = 0, bx = 0;
        std::int32_t s0 = -9, s1 = -9, s2 = -9, cond = -9;
        SCOPED_TRACE(row.accessAndBx);
        EXPECT_EQ(MifareReadSectorTrailer(ctx, 2, kKey, 0, keys, s0, s1, s2, cond, bx), sceSuccess);
        EXPECT_EQ(keys, row.keysUsed);
        EXPECT_EQ(s0, row.s0);
        EXPECT_EQ(s1, row.s1);
        EXPECT_EQ(s2, row.s2);
        EXPECT_EQ(cond, row.conditions);
        EXPECT_EQ(bx, row.bx);
        EXPECT_EQ(record, Cleared("MifareReadSectorTrailer"));
        EXPECT_EQ(fake2->Transmitted(), Apdus(steps));
    }
}

TEST_F(SectorTrailerApdu, ReadSectorTrailerStopsWhenNoCardIsInTheField) {
    cardCheck = [this] {
        command::Fail(record, ErrorNumber::NoCard, "SelectCardInRange", "SCardConnect", "No card");
        return sceError;
    };
    std::uint8_t keys = 7, bx = 7;
    std::int32_t s0 = 7, s1 = 7, s2 = 7, cond = 7;
    EXPECT_EQ(MifareReadSectorTrailer(ctx, 2, kKey, 0, keys, s0, s1, s2, cond, bx), sceError);
    CError expected = Refusal(ErrorNumber::NoCard, "MifareReadSectorTrailer");
    expected.RdrCommand = "SCardConnect";
    expected.RdrRetCode = "No card";
    EXPECT_EQ(record, expected);
    EXPECT_EQ((std::vector<std::int32_t>{s0, s1, s2, cond}), (std::vector<std::int32_t>{0, 0, 0, 0}));
    EXPECT_EQ(keys, 7) << "KeysUsed and BX are only written on success";
    EXPECT_TRUE(fake->Transmitted().empty());
}

}  // namespace
}  // namespace elatectwn4::mifare
