// Data, record and value transfer byte for byte: the frames of a write, the
// MAC and the enciphered form of the data checked against OpenSSL, and what
// the read engine accepts or refuses of the card's answers.
#include "desfire/transfer.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "apdu_fixture.h"
#include "cipher/des_error.h"
#include "desfire/values.h"

namespace elatectwn4::desfire {
namespace {

using desfire_test::Concat;
using desfire_test::Hex;
using desfire_test::Le24;
using desfire_test::Le32;
using desfire_test::MakeKey;
using desfire_test::SendMode;
using desfire_test::WithCrc;

const Key kSession = MakeKey("4A1B7C3D5E6F708192A3B4C5D6E7F809");  // Triple-DES: the halves differ
const Key kDesSession = MakeKey("7C3D5E6F4A1B8192");               // single DES: equal halves

using Call = std::function<sceReturnCode(Context&)>;
using Script = std::vector<std::pair<std::string, std::string>>;

// How the card enciphers what it sends: CBC from the zero vector.
Bytes CardEncipher(const Key& key, const Bytes& plain) {
    Bytes out;
    Bytes chain(8, 0);
    for (std::size_t at = 0; at < plain.size(); at += 8) {
        Bytes block(plain.begin() + static_cast<std::ptrdiff_t>(at),
                    plain.begin() + static_cast<std::ptrdiff_t>(at + 8));
        for (std::size_t i = 0; i < 8; ++i)
            block[i] ^= chain[i];
        chain = desfire_test::Cipher(key, block, true);
        out.insert(out.end(), chain.begin(), chain.end());
    }
    return out;
}

Bytes Crc(const Bytes& data) {
    const std::uint16_t c = desfire_test::CrcA(data);
    return {static_cast<std::uint8_t>(c), static_cast<std::uint8_t>(c >> 8)};
}

Bytes Payload(std::size_t size) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<std::uint8_t>(i * 7 + 1);
    return bytes;
}

// `prefix` and four bytes whose CRC ends in a zero byte. That happens when
// the last byte equals the low byte of the CRC of the bytes in front of it,
// and then that byte and the CRC's first are a valid CRC of the rest: the
// padding scan reads such data one byte short, and the check passes.
Bytes DataWithCrcEndingInZero(const Bytes& prefix = {}) {
    for (unsigned i = 1; i < 0x10000; ++i) {
        const Bytes data =
            Concat({prefix, Bytes{0, 0, static_cast<std::uint8_t>(i >> 8), static_cast<std::uint8_t>(i | 1)}});
        if ((desfire_test::CrcA(data) >> 8) == 0) return data;
    }
    ADD_FAILURE() << "no such data";
    return {};
}

// The answers to GetFileSettings: type, settings, rights (all key 0), then
// the size, or record size, maximum and present records, or the limits.
std::string DataSettings(std::uint8_t communication, std::uint32_t size = 0x200) {
    return "00 00" + ToHex(Bytes{communication}) + "0000" + ToHex(Le24(size));
}
std::string RecordSettings(std::uint8_t communication, std::uint32_t recordSize, std::uint32_t present) {
    return "00 03" + ToHex(Bytes{communication}) + "0000" + ToHex(Le24(recordSize)) + "0A0000" + ToHex(Le24(present));
}
std::string ValueSettings(std::uint8_t communication) {
    return "00 02" + ToHex(Bytes{communication}) + "0000 00000000 E8030000 00000000 01";
}

class DesfireTransfer : public DesfireApdu {
protected:
    void Play(const Script& exchanges, const Key& key = kSession) {
        ScriptExchanges(exchanges);
        session.Reset();
        OpenSession(key, 0);
    }
};

TEST(DesfireWriteFrames, FirstFrameCarries52BytesAndEveryOther59) {
    struct Row {
        std::size_t size;
        std::vector<std::string> counts;
        std::vector<std::size_t> sizes;
    };
    const Row rows[] = {
        {7, {"07"}, {7}},
        {52, {"34"}, {52}},
        {53, {"34", "01"}, {52, 1}},
        {111, {"34", "3B"}, {52, 59}},
        {112, {"34", "3B", "01"}, {52, 59, 1}},
        {207, {"34", "3B", "3B", "25"}, {52, 59, 59, 37}},
    };
    for (const Row& row : rows) {
        const Bytes text = Payload(row.size);
        std::vector<std::string> counts;
        std::vector<std::size_t> sizes;
        Bytes joined;
        for (const WriteFrame& frame : SplitWriteFrames(text)) {
            counts.push_back(frame.byteCount);
            sizes.push_back(frame.bytes.size());
            joined.insert(joined.end(), frame.bytes.begin(), frame.bytes.end());
        }
        EXPECT_EQ(counts, row.counts) << row.size;
        EXPECT_EQ(sizes, row.sizes) << row.size;
        EXPECT_EQ(joined, text);
    }
}

TEST_F(DesfireTransfer, WritesGoInFramesWithTheDataProtectedByTheFilesSettings) {
    struct Row {
        std::string what;
        bool record;
        std::uint8_t communication;
        Key key;
        std::size_t size;
        std::function<Bytes(const Key&, const Bytes&)> protect;
        std::vector<std::size_t> frames;  // bytes after the command byte
    };
    const auto plain = [](const Key&, const Bytes& data) { return data; };
    const auto maced = [](const Key& key, const Bytes& data) {
        return Concat({data, desfire_test::LegacyMac(key, data)});
    };
    const auto enciphered = [](const Key& key, const Bytes& data) { return SendMode(key, WithCrc(data)); };
    const Row rows[] = {
        {"7 + 45 in one frame", false, dfcPlain, kSession, 45, plain, {52}},
        {"7 + 60 as 52 + 15", false, dfcPlain, kSession, 60, plain, {52, 15}},
        {"7 + 200 as 52 + 59 + 59 + 37", false, dfcPlain, kSession, 200, plain, {52, 59, 59, 37}},
        {"MAC under Triple-DES", false, dfcPlainMac, kSession, 20, maced, {31}},
        {"MAC under single DES", false, dfcPlainMac, kDesSession, 13, maced, {24}},
        {"MAC over several blocks and frames", true, dfcPlainMac, kSession, 61, maced, {52, 20}},
        {"enciphered under Triple-DES", false, dfcCiphered, kSession, 60, enciphered, {52, 19}},
        {"enciphered under single DES", true, dfcCiphered, kDesSession, 6, enciphered, {15}},
        // Any other settings byte travels plain.
        {"settings 2", true, 2, kSession, 5, plain, {12}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        const Bytes data = Payload(row.size);
        const Bytes header = Concat({Bytes{0x05}, Le24(0x000102), Le24(static_cast<std::uint32_t>(row.size))});
        const Bytes text = Concat({header, row.protect(row.key, data)});
        Script script{
            {"F5 05", row.record ? RecordSettings(row.communication, 100, 0) : DataSettings(row.communication)}};
        std::size_t at = 0;
        for (std::size_t i = 0; i < row.frames.size(); ++i) {
            const std::string command = i == 0 ? (row.record ? "3B" : "3D") : "AF";
            const Bytes frame(text.begin() + static_cast<std::ptrdiff_t>(at),
                              text.begin() + static_cast<std::ptrdiff_t>(at + row.frames[i]));
            at += row.frames[i];
            script.push_back({command + ToHex(frame), i + 1 == row.frames.size() ? "00" : "AF"});
        }
        ASSERT_EQ(at, text.size()) << "the row's frames cover the text";
        Play(script, row.key);
        const auto length = static_cast<std::int32_t>(row.size);
        const sceReturnCode result = row.record ? DESFireWriteRecord(ctx, 5, 0x102, length, ToHex(data), true)
                                                : DESFireWriteData(ctx, 5, 0x102, length, ToHex(data), true);
        EXPECT_EQ(result, sceSuccess) << Record();
        // The settings were read through their own member, which named itself last.
        EXPECT_EQ(Record(), Cleared("DESFireGetFileSettings"));
    }
}

TEST_F(DesfireTransfer, WrittenDataIsConvertedAndFittedToTheLength) {
    struct Row {
        std::int32_t length;
        std::string dataString;
        bool isHex;
        std::string written;
    };
    const Row rows[] = {
        {4, "ABCDEFG", false, "41424344"},
        // Length 0: the number of characters as given, blanks included.
        {0, "01 02", true, "0102000000"},
        {0, "h\xE9", false, "68E9"},
        {2, "ABC", true, "0ABC"},
        {3, "0a0b0c0d", true, "0A0B0C"},
    };
    for (const Row& row : rows) {
        const Bytes written = Hex(row.written);
        Play({{"F5 01", DataSettings(dfcPlain)},
              {"3D 01 000000" + ToHex(Le24(static_cast<std::uint32_t>(written.size()))) + row.written, "00"}});
        EXPECT_EQ(DESFireWriteData(ctx, 1, 0, row.length, row.dataString, row.isHex), sceSuccess) << Record();
    }
    // Text that is not hex where hex is announced: the engine's own error,
    // which the Encoder records; nothing is sent.
    Play({});
    EXPECT_THROW(DESFireWriteData(ctx, 1, 0, 2, "0G", true), cipher::DesError);
}

TEST_F(DesfireTransfer, ChecksComeFirstInTheirOrderAndNothingIsSent) {
    std::string data = "unchanged";
    std::int32_t value = -7;
    struct Row {
        bool authenticated;
        Call call;
        ErrorNumber number;
        std::string comFunction;
    };
    const Row rows[] = {
        {false, [](Context& c) { return DESFireWriteData(c, 16, -1, -1, "", true); }, ErrorNumber::NotAuthenticated,
         "DESFireWriteData"},
        {true, [](Context& c) { return DESFireWriteData(c, 16, -1, -1, "", true); }, ErrorNumber::InvalidFileNumber,
         "DESFireWriteData"},
        {true, [](Context& c) { return DESFireWriteRecord(c, -1, 0, 1, "00", true); }, ErrorNumber::InvalidFileNumber,
         "DESFireWriteRecord"},
        {true, [](Context& c) { return DESFireWriteData(c, 15, -1, -1, "", true); }, ErrorNumber::InvalidOffset,
         "DESFireWriteData"},
        {true, [&](Context& c) { return DESFireReadData(c, 15, 0x1000000, 0, data, true); }, ErrorNumber::InvalidOffset,
         "DESFireReadData"},
        {true, [](Context& c) { return DESFireWriteRecord(c, 15, 0xFFFFFF, -1, "", true); }, ErrorNumber::InvalidLength,
         "DESFireWriteRecord"},
        {true, [](Context& c) { return DESFireWriteData(c, 15, 0, 0x1000000, "", true); }, ErrorNumber::InvalidLength,
         "DESFireWriteData"},
        // A length taken from the text must fit its three bytes as well.
        {true, [](Context& c) { return DESFireWriteData(c, 0, 0, 0, std::string(0x1000000, '0'), true); },
         ErrorNumber::InvalidLength, "DESFireWriteData"},
        {true, [&](Context& c) { return DESFireReadRecords(c, 0, 0, -1, data, true); }, ErrorNumber::InvalidLength,
         "DESFireReadRecords"},
        {false, [&](Context& c) { return DESFireGetValue(c, 8, value); }, ErrorNumber::NotAuthenticated,
         "DESFireGetValue"},
        {true, [&](Context& c) { return DESFireGetValue(c, 8, value); }, ErrorNumber::InvalidFileNumber,
         "DESFireGetValue"},
        {true, [](Context& c) { return DESFireDebit(c, 8, -1); }, ErrorNumber::InvalidFileNumber, "DESFireDebit"},
        {true, [](Context& c) { return DESFireDebit(c, 7, -1); }, ErrorNumber::InvalidAmount, "DESFireDebit"},
        {true, [](Context& c) { return DESFireCredit(c, -1, 0); }, ErrorNumber::InvalidFileNumber, "DESFireCredit"},
        {false, [](Context& c) { return DESFireClearRecordFile(c, 1); }, ErrorNumber::NotAuthenticated,
         "DESFireClearRecordFile"},
    };
    for (const Row& row : rows) {
        Play({});
        if (!row.authenticated) session.Reset();
        EXPECT_EQ(row.call(ctx), sceError) << row.comFunction;
        EXPECT_EQ(Record(), Line(row.number, row.comFunction));
    }
    EXPECT_TRUE(fake->Transmitted().empty());
    EXPECT_EQ(data, "unchanged");
    EXPECT_EQ(value, -7);
}

TEST_F(DesfireTransfer, AWriteThatFailsSaysWhichCommandAndStatus) {
    const Bytes data = Payload(60);
    const std::string first = "3D 02 000000 3C0000" + ToHex(Bytes(data.begin(), data.begin() + 45));
    const std::string rest = "AF" + ToHex(Bytes(data.begin() + 45, data.end()));
    struct Row {
        Script script;
        std::string expected;
    };
    const auto failed = [](const std::string& rdrCommand, const std::string& status) {
        return Line(ErrorNumber::OperationFailed, "DESFireWriteData", rdrCommand, status);
    };
    const Row rows[] = {
        // A missing file: "File not found" from the engine, then the member's own text.
        {{{"F5 02", "F0"}}, failed("SCardTransmit:DesfireGetFileSettings", "F0")},
        {{{"F5 02", ValueSettings(dfcPlain)}}, failed("", "")},
        {{{"F5 02", RecordSettings(dfcPlain, 4, 0)}}, failed("", "")},
        {{{"F5 02", DataSettings(dfcPlain)}, {first, "00"}}, failed("SCardTransmit:DesfireWriteData", "00")},
        {{{"F5 02", DataSettings(dfcPlain)}, {first, "BE"}}, failed("SCardTransmit:DesfireWriteData", "BE")},
        // The continuation carries the member's command name.
        {{{"F5 02", DataSettings(dfcPlain)}, {first, "AF"}, {rest, "1E"}},
         failed("SCardTransmit:DesfireWriteData", "1E")},
        {{{"F5 02", DataSettings(dfcPlain)}, {first, "AF"}, {rest, "AF"}},
         failed("SCardTransmit:DesfireWriteData", "AF")},
        {{{"F5 02", DataSettings(dfcPlain)}, {first, "AF"}, {rest, ""}},
         failed("SCardTransmit:DesfireWriteData", "FFFF")},
    };
    for (const Row& row : rows) {
        Play(row.script);
        EXPECT_EQ(DESFireWriteData(ctx, 2, 0, 60, ToHex(data), true), sceError);
        EXPECT_EQ(Record(), row.expected);
        EXPECT_EQ(fake->Pending(), 0u);
    }
}

TEST_F(DesfireTransfer, ReadsCheckTheAnswerByTheFilesSettings) {
    const Bytes data = Payload(5);
    const Bytes zeroCrc = DataWithCrcEndingInZero();
    const Bytes records = DataWithCrcEndingInZero(Hex("0102 0000"));  // two records of 4 bytes
    std::string out;
    struct Row {
        std::string what;
        bool cardConformance;
        Call call;
        Script script;
        std::string expected;  // DataString after the read
    };
    const auto read = [&out](std::int32_t offset, std::int32_t length, bool hex = true) {
        return [&out, offset, length, hex](Context& c) { return DESFireReadData(c, 1, offset, length, out, hex); };
    };
    const std::string readAll = "BD 01 000000 000000";
    const Row rows[] = {
        {"plain, as text",
         false,
         read(0, 0, false),
         {{"F5 01", DataSettings(dfcPlain, 3)}, {readAll, "00 414243"}},
         "ABC"},
        {"plain, as hex, over two frames",
         false,
         read(0x10203, 4),
         {{"F5 01", DataSettings(dfcPlain)}, {"BD 01 030201 040000", "AF 4142"}, {"AF", "00 4344"}},
         "41424344"},
        {"MAC",
         false,
         read(0, 5),
         {{"F5 01", DataSettings(dfcPlainMac)},
          {"BD 01 000000 050000", "00" + ToHex(Concat({data, desfire_test::LegacyMac(kSession, data)}))}},
         ToHex(data)},
        {"enciphered, length known",
         false,
         read(0, 5),
         {{"F5 01", DataSettings(dfcCiphered)},
          {"BD 01 000000 050000", "00" + ToHex(CardEncipher(kSession, WithCrc(data)))}},
         ToHex(data)},
        {"enciphered, data ending in zero bytes found by the padding",
         false,
         read(0, 0),
         {{"F5 01", DataSettings(dfcCiphered)},
          {readAll, "00" + ToHex(CardEncipher(kSession, WithCrc(Hex("0A0B 0C00 0000"))))}},
         "0A0B0C000000"},
        {"enciphered, ended by a marker 80",
         false,
         read(0, 0),
         {{"F5 01", DataSettings(dfcCiphered)},
          {readAll, "00" + ToHex(CardEncipher(kSession, Concat({data, Crc(data), Hex("80")})))}},
         ToHex(data)},
        // Kept on purpose: without a known length a CRC ending in zero takes
        // the data's last byte with it.
        {"enciphered, a CRC ending in zero",
         false,
         read(0, 0),
         {{"F5 01", DataSettings(dfcCiphered)}, {readAll, "00" + ToHex(CardEncipher(kSession, WithCrc(zeroCrc)))}},
         ToHex(Bytes(zeroCrc.begin(), zeroCrc.end() - 1))},
        {"enciphered, length from the settings",
         true,
         read(2, 0),
         {{"F5 01", DataSettings(dfcCiphered, 6)},
          {"BD 01 020000 000000", "00" + ToHex(CardEncipher(kSession, WithCrc(zeroCrc)))}},
         ToHex(zeroCrc)},
        {"enciphered records, their length from the settings",
         true,
         [&out](Context& c) { return DESFireReadRecords(c, 1, 1, 0, out, true); },
         {{"F5 01", RecordSettings(dfcCiphered, 4, 3)},
          {"BB 01 010000 000000", "00" + ToHex(CardEncipher(kSession, WithCrc(records)))}},
         ToHex(records)},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        Play(row.script);
        ctx.cardConformance = row.cardConformance;
        out = "unchanged";
        EXPECT_EQ(row.call(ctx), sceSuccess) << Record();
        EXPECT_EQ(Record(), Cleared("DESFireGetFileSettings"));
        EXPECT_EQ(out, row.expected);
    }
}

TEST_F(DesfireTransfer, AnAnswerThatDoesNotCheckOutFails) {
    const Bytes data = Payload(5);
    Bytes badMac = Concat({data, desfire_test::LegacyMac(kSession, data)});
    badMac.back() ^= 0x01;
    Bytes badBlock = CardEncipher(kSession, WithCrc(data));
    badBlock[3] ^= 0x40;
    std::string out = "unchanged";
    struct Row {
        std::string what;
        Call call;
        Script script;
        std::string expected;
    };
    const auto read = [&out](std::int32_t length) {
        return [&out, length](Context& c) { return DESFireReadData(c, 1, 0, length, out, true); };
    };
    const auto failed = [](ErrorNumber number, const std::string& rdrCommand = {}, const std::string& status = {}) {
        return Line(number, "DESFireReadData", rdrCommand, status);
    };
    const std::string readFive = "BD 01 000000 050000";
    const std::string readAll = "BD 01 000000 000000";
    const Row rows[] = {
        {"a MAC byte changed",
         read(5),
         {{"F5 01", DataSettings(dfcPlainMac)}, {readFive, "00" + ToHex(badMac)}},
         failed(ErrorNumber::InvalidMac)},
        {"shorter than a MAC",
         read(0),
         {{"F5 01", DataSettings(dfcPlainMac)}, {readAll, "00 A1B2C3"}},
         failed(ErrorNumber::InvalidMac)},
        {"a MAC alone",
         read(0),
         {{"F5 01", DataSettings(dfcPlainMac)}, {readAll, "00 A1B2C3D4"}},
         failed(ErrorNumber::InvalidMac)},
        {"an enciphered block changed",
         read(5),
         {{"F5 01", DataSettings(dfcCiphered)}, {readFive, "00" + ToHex(badBlock)}},
         failed(ErrorNumber::InvalidCrc)},
        {"not whole blocks",
         read(0),
         {{"F5 01", DataSettings(dfcCiphered)}, {readAll, "00" + ToHex(CardEncipher(kSession, WithCrc(data))) + "00"}},
         failed(ErrorNumber::InvalidCrc)},
        {"more data announced than came",
         read(9),
         {{"F5 01", DataSettings(dfcCiphered)},
          {"BD 01 000000 090000", "00" + ToHex(CardEncipher(kSession, WithCrc(data)))}},
         failed(ErrorNumber::InvalidCrc)},
        {"nothing but padding",
         read(0),
         {{"F5 01", DataSettings(dfcCiphered)}, {readAll, "00" + ToHex(CardEncipher(kSession, Bytes(8, 0)))}},
         failed(ErrorNumber::InvalidCrc)},
        {"plain, fewer bytes than asked for",
         read(4),
         {{"F5 01", DataSettings(dfcPlain)}, {"BD 01 000000 040000", "00 414243"}},
         failed(ErrorNumber::OperationFailed, "SCardTransmit:DesfireReadData", "00")},
        // A plain answer is as long as the settings say: the rest of the
        // file, or of its records.
        {"plain, less than the rest of the file",
         read(0),
         {{"F5 01", DataSettings(dfcPlain, 4)}, {readAll, "00 414243"}},
         failed(ErrorNumber::OperationFailed, "SCardTransmit:DesfireReadData", "00")},
        {"plain, part of a record",
         [&out](Context& c) { return DESFireReadRecords(c, 1, 0, 2, out, true); },
         {{"F5 01", RecordSettings(dfcPlain, 4, 3)}, {"BB 01 000000 020000", "00 01020304 050607"}},
         Line(ErrorNumber::OperationFailed, "DESFireReadRecords", "SCardTransmit:DesfireReadRecords", "00")},
        {"refused",
         read(0),
         {{"F5 01", DataSettings(dfcPlain)}, {readAll, "BE"}},
         failed(ErrorNumber::OperationFailed, "SCardTransmit:DesfireReadData", "BE")},
        // A read keeps the engine's own text.
        {"no such file",
         read(0),
         {{"F5 01", "F0"}},
         failed(ErrorNumber::FileNotFound, "SCardTransmit:DesfireGetFileSettings", "F0")},
        {"settings refused otherwise",
         read(0),
         {{"F5 01", "AE"}},
         failed(ErrorNumber::OperationFailed, "SCardTransmit:DesfireGetFileSettings", "AE")},
        {"a record file", read(0), {{"F5 01", RecordSettings(dfcPlain, 4, 1)}}, failed(ErrorNumber::WrongFileType)},
        {"records from a data file",
         [&out](Context& c) { return DESFireReadRecords(c, 1, 0, 0, out, true); },
         {{"F5 01", DataSettings(dfcPlain)}},
         Line(ErrorNumber::WrongFileType, "DESFireReadRecords")},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        Play(row.script);
        EXPECT_EQ(row.call(ctx), sceError);
        EXPECT_EQ(Record(), row.expected);
        EXPECT_EQ(fake->Pending(), 0u);
    }
    EXPECT_EQ(out, "unchanged");
}

TEST_F(DesfireTransfer, ValuesTravelAsFourBytesProtectedLikeData) {
    std::int32_t value = -7;
    const Bytes amount = Le32(300);
    struct Row {
        Call call;
        Script script;
        std::string comFunction;
        std::int32_t value;  // after the call
    };
    const Row rows[] = {
        {[](Context& c) { return DESFireCredit(c, 1, 300); },
         {{"F5 01", ValueSettings(dfcPlain)}, {"0C 01 2C010000", "00"}},
         "DESFireGetFileSettings",
         -7},
        {[](Context& c) { return DESFireDebit(c, 7, 0); },
         {{"F5 07", ValueSettings(dfcPlain)}, {"DC 07 00000000", "00"}},
         "DESFireGetFileSettings",
         -7},
        {[](Context& c) { return DESFireLimitedCredit(c, 1, 300); },
         {{"F5 01", ValueSettings(dfcPlainMac)},
          {"1C 01" + ToHex(Concat({amount, desfire_test::LegacyMac(kSession, amount)})), "00"}},
         "DESFireGetFileSettings",
         -7},
        {[](Context& c) { return DESFireCredit(c, 1, 300); },
         {{"F5 01", ValueSettings(dfcCiphered)}, {"0C 01" + ToHex(SendMode(kSession, WithCrc(amount))), "00"}},
         "DESFireGetFileSettings",
         -7},
        {[&value](Context& c) { return DESFireGetValue(c, 1, value); },
         {{"F5 01", ValueSettings(dfcPlain)}, {"6C 01", "00 FBFFFFFF"}},
         "DESFireGetFileSettings",
         -5},
        {[&value](Context& c) { return DESFireGetValue(c, 1, value); },
         {{"F5 01", ValueSettings(dfcPlainMac)},
          {"6C 01", "00" + ToHex(Concat({amount, desfire_test::LegacyMac(kSession, amount)}))}},
         "DESFireGetFileSettings",
         300},
        {[&value](Context& c) { return DESFireGetValue(c, 1, value); },
         {{"F5 01", ValueSettings(dfcCiphered)}, {"6C 01", "00" + ToHex(CardEncipher(kSession, WithCrc(Le32(-2))))}},
         "DESFireGetFileSettings",
         -2},
        // No file-number check: the low byte goes out as it is.
        {[](Context& c) { return DESFireClearRecordFile(c, 257); }, {{"EB 01", "00"}}, "DESFireClearRecordFile", -2},
        {[](Context& c) { return DESFireClearRecordFile(c, -1); }, {{"EB FF", "00"}}, "DESFireClearRecordFile", -2},
    };
    for (const Row& row : rows) {
        Play(row.script);
        EXPECT_EQ(row.call(ctx), sceSuccess) << Record();
        EXPECT_EQ(Record(), Cleared(row.comFunction));
        EXPECT_EQ(value, row.value);
    }
}

TEST_F(DesfireTransfer, AValueBeyondTheLimitsHasATextOfItsOwn) {
    std::int32_t value = -7;
    struct Row {
        Call call;
        Script script;
        std::string expected;
    };
    const Row rows[] = {
        {[](Context& c) { return DESFireDebit(c, 1, 5); },
         {{"F5 01", ValueSettings(dfcPlain)}, {"DC 01 05000000", "BE"}},
         Line(ErrorNumber::ValueExceedsLimits, "DESFireDebit")},
        {[](Context& c) { return DESFireCredit(c, 1, 5); },
         {{"F5 01", ValueSettings(dfcPlain)}, {"0C 01 05000000", "BE"}},
         Line(ErrorNumber::ValueExceedsLimits, "DESFireCredit")},
        {[](Context& c) { return DESFireLimitedCredit(c, 1, 5); },
         {{"F5 01", ValueSettings(dfcPlain)}, {"1C 01 05000000", "BE"}},
         Line(ErrorNumber::CreditExceedsLimit, "DESFireLimitedCredit")},
        {[](Context& c) { return DESFireCredit(c, 1, 5); },
         {{"F5 01", ValueSettings(dfcPlain)}, {"0C 01 05000000", "9D"}},
         Line(ErrorNumber::OperationFailed, "DESFireCredit", "SCardTransmit:DesfireCredit", "9D")},
        {[](Context& c) { return DESFireDebit(c, 1, 5); },
         {{"F5 01", DataSettings(dfcPlain)}},
         Line(ErrorNumber::OperationFailed, "DESFireDebit")},
        {[](Context& c) { return DESFireDebit(c, 1, 5); },
         {{"F5 01", "F0"}},
         Line(ErrorNumber::OperationFailed, "DESFireDebit", "SCardTransmit:DesfireGetFileSettings", "F0")},
        {[&value](Context& c) { return DESFireGetValue(c, 1, value); },
         {{"F5 01", DataSettings(dfcPlain)}},
         Line(ErrorNumber::WrongFileType, "DESFireGetValue")},
        {[&value](Context& c) { return DESFireGetValue(c, 1, value); },
         {{"F5 01", ValueSettings(dfcPlain)}, {"6C 01", "00 FBFFFF"}},
         Line(ErrorNumber::OperationFailed, "DESFireGetValue", "SCardTransmit:DesfireGetValue", "00")},
        {[](Context& c) { return DESFireClearRecordFile(c, 3); },
         {{"EB 03", "9D"}},
         Line(ErrorNumber::OperationFailed, "DESFireClearRecordFile", "SCardTransmit:DesfireClearRecordFile", "9D")},
    };
    for (const Row& row : rows) {
        Play(row.script);
        EXPECT_EQ(row.call(ctx), sceError);
        EXPECT_EQ(Record(), row.expected);
        EXPECT_EQ(fake->Pending(), 0u);
    }
    EXPECT_EQ(value, -7);
}

}  // namespace
}  // namespace elatectwn4::desfire
