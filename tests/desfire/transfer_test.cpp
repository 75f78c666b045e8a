// Data, record and value transfer byte for byte: the frames of a write, the
// MAC and the enciphered form of the data checked against OpenSSL, and what
// the read engine accepts or refuses of the card's answers.
#include "desfire/transfer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "apdu_fixture.h"
#include "cipher/des_error.h"
#include "desfire/values.h"

namespace elatectwn4::desfire {
namespace {

using desfire_test::Le24;
using desfire_test::Le32;
using desfire_test::LegacyMac;
using E = ErrorNumber;

const Key kDesSession = MakeKey("7C3D5E6F4A1B8192");  // single DES: equal halves

// How the card enciphers what it sends: CBC from the zero vector.
Bytes CardEncipher(const Bytes& plain) {
    Bytes out, chain(8, 0);
    for (std::size_t at = 0; at < plain.size(); at += 8) {
        for (std::size_t i = 0; i < 8; ++i)
            chain[i] ^= plain[at + i];
        chain = desfire_test::Cipher(kSession, chain, true);
        out.insert(out.end(), chain.begin(), chain.end());
    }
    return out;
}
std::string Answer(const Bytes& plain) {
    return "00" + ToHex(CardEncipher(plain));
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

class DesfireTransfer : public DesfireApdu {};

TEST_F(DesfireTransfer, WritesGoInFramesOf52Then59WithTheDataProtectedByTheFilesSettings) {
    using Protect = Bytes (*)(const Key&, const Bytes&);
    const Protect plain = [](const Key&, const Bytes& data) { return data; };
    const Protect maced = [](const Key& key, const Bytes& data) { return Concat({data, LegacyMac(key, data)}); };
    const Protect enciphered = [](const Key& key, const Bytes& data) { return SendMode(key, WithCrc(data)); };
    const struct {
        bool record;
        std::uint8_t communication;
        Key key;
        std::size_t size;
        Protect protect;
        std::vector<std::size_t> frames;  // bytes after the command byte
    } rows[] = {
        {false, dfcPlain, kSession, 200, plain, {52, 59, 59, 37}},
        {false, dfcPlainMac, kDesSession, 13, maced, {24}},
        {true, dfcPlainMac, kSession, 61, maced, {52, 20}},
        {false, dfcCiphered, kSession, 60, enciphered, {52, 19}},
        {true, dfcCiphered, kDesSession, 6, enciphered, {15}},
        // Any other settings byte travels plain.
        {true, 2, kSession, 5, plain, {12}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.size);
        const Bytes data = Payload(row.size);
        const Bytes text = Concat(
            {Bytes{0x05}, Le24(0x000102), Le24(static_cast<std::uint32_t>(row.size)), row.protect(row.key, data)});
        std::string script =
            "F5 05 >" + (row.record ? RecordSettings(row.communication, 100, 0) : DataSettings(row.communication));
        std::size_t at = 0;
        for (std::size_t i = 0; i < row.frames.size(); ++i) {
            script += std::string(i == 0 ? (row.record ? "; 3B" : "; 3D") : "; AF") +
                      ToHex(desfire_test::ByteSpan(text).subspan(at, row.frames[i])) +
                      (i + 1 == row.frames.size() ? "> 00" : "> AF");
            at += row.frames[i];
        }
        ASSERT_EQ(at, text.size()) << "the row's frames cover the text";
        Play(script, kApp, 0, row.key);
        const auto length = static_cast<std::int32_t>(row.size);
        EXPECT_EQ(row.record ? DESFireWriteRecord(ctx, 5, 0x102, length, ToHex(data), true)
                             : DESFireWriteData(ctx, 5, 0x102, length, ToHex(data), true),
                  sceSuccess)
            << Record();
        // The settings were read through their own member, which named itself last.
        EXPECT_EQ(Record(), Cleared("DESFireGetFileSettings"));
    }
}

TEST_F(DesfireTransfer, WrittenDataIsConvertedAndFittedToTheLength) {
    const struct {
        std::int32_t length;
        std::string dataString;
        bool isHex;
        std::string written;
    } rows[] = {
        {4, "ABCDEFG", false, "41424344"},
        // Length 0: the number of characters as given, blanks included.
        {0, "01 02", true, "0102000000"},
        {3, "0a0b0c0d", true, "0A0B0C"},
    };
    for (const auto& row : rows) {
        const std::string size = ToHex(Le24(static_cast<std::uint32_t>(Hex(row.written).size())));
        Play("F5 01 >" + DataSettings(dfcPlain) + "; 3D 01 000000" + size + row.written + "> 00");
        EXPECT_EQ(DESFireWriteData(ctx, 1, 0, row.length, row.dataString, row.isHex), sceSuccess) << Record();
    }
    // Text that is not hex where hex is announced: the engine's own error,
    // which the Encoder records; nothing is sent.
    Play("");
    EXPECT_THROW(DESFireWriteData(ctx, 1, 0, 2, "0G", true), cipher::DesError);
}

TEST_F(DesfireTransfer, AWriteThatFailsSaysWhichCommandAndStatus) {
    const Bytes data = Payload(60);
    const std::string settings = "F5 02 >" + DataSettings(dfcPlain);
    const std::string first = "; 3D 02 000000 3C0000" + ToHex(Bytes(data.begin(), data.begin() + 45));
    const std::string rest = "; AF" + ToHex(Bytes(data.begin() + 45, data.end()));
    const auto failed = [](const std::string& command, const std::string& status) {
        return Failed("DESFireWriteData", command, status);
    };
    const struct {
        std::string script;
        std::string expected;
    } rows[] = {
        {"F5 02 > F0", failed("DesfireGetFileSettings", "F0")},
        {"F5 02 >" + ValueSettings(dfcPlain), Line(E::OperationFailed, "DESFireWriteData")},
        {settings + first + "> 00", failed("DesfireWriteData", "00")},
        // The continuation carries the member's command name.
        {settings + first + "> AF" + rest + "> 1E", failed("DesfireWriteData", "1E")},
        {settings + first + "> AF" + rest + ">", failed("DesfireWriteData", "FFFF")},
    };
    for (const auto& row : rows) {
        Play(row.script);
        EXPECT_EQ(DESFireWriteData(ctx, 2, 0, 60, ToHex(data), true), sceError);
        EXPECT_EQ(Record(), row.expected);
        EXPECT_EQ(fake->Pending(), 0u);
    }
}

TEST_F(DesfireTransfer, ReadsCheckTheAnswerByTheFilesSettings) {
    const Bytes data = Payload(5), zeroCrc = DataWithCrcEndingInZero();
    const Bytes records = DataWithCrcEndingInZero(Hex("0102 0000"));  // two records of 4 bytes
    Bytes badMac = Concat({data, LegacyMac(kSession, data)}), badBlock = CardEncipher(WithCrc(data));
    badMac.back() ^= 0x01;
    badBlock[3] ^= 0x40;
    std::string out;
    const auto read = [&out](std::int32_t offset, std::int32_t length, bool hex = true) {
        return [&out, offset, length, hex](Context& c) { return DESFireReadData(c, 1, offset, length, out, hex); };
    };
    const auto readRecords = [&out](std::int32_t first, std::int32_t count) {
        return [&out, first, count](Context& c) { return DESFireReadRecords(c, 1, first, count, out, true); };
    };
    const std::string all = "; BD 01 000000 000000 >", five = "; BD 01 000000 050000 >";
    const std::string enc = "F5 01 >" + DataSettings(dfcCiphered), plain = "F5 01 >" + DataSettings(dfcPlain);
    const std::string mac = "F5 01 >" + DataSettings(dfcPlainMac), invalidCrc = Line(E::InvalidCrc, "DESFireReadData");
    const struct {
        bool cardConformance;
        Call call;
        std::string script;
        std::string expected;  // DataString after a read that succeeds, else the record
    } rows[] = {
        {false, read(0, 0, false), "F5 01 >" + DataSettings(dfcPlain, 3) + all + "00 414243", "ABC"},
        {false, read(0x10203, 4), plain + "; BD 01 030201 040000 > AF 4142; AF > 00 4344", "41424344"},
        {false, read(0, 5), mac + five + "00" + ToHex(Concat({data, LegacyMac(kSession, data)})), ToHex(data)},
        {false, read(0, 5), enc + five + Answer(WithCrc(data)), ToHex(data)},
        // Without a known length the padding finds the end: zero bytes of the data stay.
        {false, read(0, 0), enc + all + Answer(WithCrc(Hex("0A0B 0C00 0000"))), "0A0B0C000000"},
        // Kept on purpose: without a known length a CRC ending in zero takes
        // the data's last byte with it.
        {false, read(0, 0), enc + all + Answer(WithCrc(zeroCrc)), ToHex(Bytes(zeroCrc.begin(), zeroCrc.end() - 1))},
        {true, read(2, 0),
         "F5 01 >" + DataSettings(dfcCiphered, 6) + "; BD 01 020000 000000 >" + Answer(WithCrc(zeroCrc)),
         ToHex(zeroCrc)},
        {true, readRecords(1, 0),
         "F5 01 >" + RecordSettings(dfcCiphered, 4, 3) + "; BB 01 010000 000000 >" + Answer(WithCrc(records)),
         ToHex(records)},
        {false, read(0, 5), mac + five + "00" + ToHex(badMac), Line(E::InvalidMac, "DESFireReadData")},
        {false, read(0, 5), enc + five + "00" + ToHex(badBlock), invalidCrc},
        {false, read(0, 9), enc + "; BD 01 000000 090000 >" + Answer(WithCrc(data)), invalidCrc},
        {false, read(0, 0), enc + all + Answer(Bytes(8, 0)), invalidCrc},
        // A plain answer is as long as asked, or as the rest of the file or of its records.
        {false, read(0, 4), plain + "; BD 01 000000 040000 > 00 414243",
         Failed("DESFireReadData", "DesfireReadData", "00")},
        {false, readRecords(0, 2),
         "F5 01 >" + RecordSettings(dfcPlain, 4, 3) + "; BB 01 000000 020000 > 00 01020304 050607",
         Failed("DESFireReadRecords", "DesfireReadRecords", "00")},
        {false, read(0, 0), plain + all + "BE", Failed("DESFireReadData", "DesfireReadData", "BE")},
        // A read keeps the engine's own text.
        {false, read(0, 0), "F5 01 > F0",
         Line(E::FileNotFound, "DESFireReadData", "SCardTransmit:DesfireGetFileSettings", "F0")},
        {false, read(0, 0), "F5 01 >" + RecordSettings(dfcPlain, 4, 1), Line(E::WrongFileType, "DESFireReadData")},
        {false, readRecords(0, 2), plain, Line(E::WrongFileType, "DESFireReadRecords")},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.expected);
        Play(row.script);
        ctx.cardConformance = row.cardConformance;
        out = "unchanged";
        const bool fails = row.expected.find('|') != std::string::npos;  // a record line
        EXPECT_EQ(row.call(ctx), fails ? sceError : sceSuccess) << Record();
        EXPECT_EQ(Record(), fails ? row.expected : Cleared("DESFireGetFileSettings"));
        EXPECT_EQ(out, fails ? "unchanged" : row.expected);
        EXPECT_EQ(fake->Pending(), 0u);
    }
}

TEST_F(DesfireTransfer, ValuesTravelAsFourBytesProtectedLikeDataAndBeyondTheLimitsHaveTheirOwnText) {
    std::int32_t value = -7;
    const Bytes amount = Le32(300);
    const std::string maced = ToHex(Concat({amount, LegacyMac(kSession, amount)}));
    const std::string plain = "F5 01 >" + ValueSettings(dfcPlain), mac = "F5 01 >" + ValueSettings(dfcPlainMac);
    const std::string enc = "F5 01 >" + ValueSettings(dfcCiphered), data = "F5 01 >" + DataSettings(dfcPlain);
    const struct {
        Call call;
        const char* member;
        std::string script;
        std::string expected;  // "" = success
        std::int32_t value;    // after the call
    } rows[] = {
        {CALL(DESFireCredit, 1, 300), plain + "; 0C 01 2C010000 > 00", "", -7},
        {CALL(DESFireLimitedCredit, 1, 300), mac + "; 1C 01" + maced + "> 00", "", -7},
        {CALL(DESFireCredit, 1, 300), enc + "; 0C 01" + ToHex(SendMode(kSession, WithCrc(amount))) + "> 00", "", -7},
        {CALL(DESFireGetValue, 1, value), plain + "; 6C 01 > 00 FBFFFFFF", "", -5},
        {CALL(DESFireGetValue, 1, value), mac + "; 6C 01 > 00" + maced, "", 300},
        {CALL(DESFireGetValue, 1, value), enc + "; 6C 01 >" + Answer(WithCrc(Le32(-2))), "", -2},
        {CALL(DESFireDebit, 1, 5), plain + "; DC 01 05000000 > BE", Line(E::ValueExceedsLimits, "DESFireDebit"), -2},
        {CALL(DESFireLimitedCredit, 1, 5), plain + "; 1C 01 05000000 > BE",
         Line(E::CreditExceedsLimit, "DESFireLimitedCredit"), -2},
        {CALL(DESFireCredit, 1, 5), plain + "; 0C 01 05000000 > 9D", Failed("DESFireCredit", "DesfireCredit", "9D"),
         -2},
        {CALL(DESFireDebit, 1, 5), data, Line(E::OperationFailed, "DESFireDebit"), -2},
        {CALL(DESFireGetValue, 1, value), data, Line(E::WrongFileType, "DESFireGetValue"), -2},
        {CALL(DESFireGetValue, 1, value), plain + "; 6C 01 > 00 FBFFFF",
         Failed("DESFireGetValue", "DesfireGetValue", "00"), -2},
    };
    for (const auto& row : rows) {
        Play(row.script);
        EXPECT_EQ(row.call(ctx), row.expected.empty() ? sceSuccess : sceError) << Record();
        EXPECT_EQ(Record(), row.expected.empty() ? Cleared("DESFireGetFileSettings") : row.expected);
        EXPECT_EQ(value, row.value) << row.member;
        EXPECT_EQ(fake->Pending(), 0u);
    }
}

}  // namespace
}  // namespace elatectwn4::desfire
