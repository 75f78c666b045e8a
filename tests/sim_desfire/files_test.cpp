// Files: their transfers, transactions, limits, rights and refusals, step by
// step with the status the card gives.
#include <optional>

#include "fixture.h"

using namespace desfire_test;

namespace {

constexpr std::uint8_t kPlain = 0x00, kMaced = 0x01, kEnciphered = 0x03;
// read = key 1, write = key 2, read&write = key 1, change = key 0
const Bytes kRights{0x10, 0x12};

Bytes Protect(const Host& host, ByteSpan data, std::uint8_t mode) {
    if (mode == kMaced) return Concat({data, host.Mac(data)});
    if (mode == kEnciphered) return host.Encipher(data);
    return Bytes(data.begin(), data.end());
}

std::optional<Bytes> Unprotect(const Host& host, ByteSpan answer, std::size_t length, std::uint8_t mode) {
    if (mode == kEnciphered) return host.Decipher(answer, length);
    if (mode == kMaced) {
        if (answer.size() != length + 4) return std::nullopt;
        const Bytes data(answer.begin(), answer.begin() + static_cast<std::ptrdiff_t>(length));
        if (ToHex(host.Mac(data)) != ToHex(answer.subspan(length))) return std::nullopt;
        return data;
    }
    if (answer.size() != length) return std::nullopt;
    return Bytes(answer.begin(), answer.end());
}

Bytes Pattern(std::size_t n, std::uint8_t seed) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i)
        b[i] = static_cast<std::uint8_t>(seed + 7 * i);
    return b;
}

Bytes CreateData(std::uint8_t command, std::uint8_t file, std::uint8_t mode, ByteSpan rights, std::uint32_t size) {
    return Concat({Bytes{command, file, mode}, rights, Le24(size)});
}
Bytes CreateValue(std::uint8_t file, std::uint8_t mode, ByteSpan rights, std::int32_t low, std::int32_t high,
                  std::int32_t value, std::uint8_t flags) {
    return Concat({Bytes{0xCC, file, mode}, rights, Le32(low), Le32(high), Le32(value), Bytes{flags}});
}
Bytes CreateRecords(std::uint8_t command, std::uint8_t file, std::uint8_t mode, ByteSpan rights, std::uint32_t size,
                    std::uint32_t count) {
    return Concat({Bytes{command, file, mode}, rights, Le24(size), Le24(count)});
}
Bytes Header(std::uint8_t command, std::uint8_t file, std::uint32_t offset, std::uint32_t length) {
    return Concat({Bytes{command, file}, Le24(offset), Le24(length)});
}

}  // namespace

class Files : public CardTest {
protected:
    void SetUp() override { ASSERT_NO_FATAL_FAILURE(CreateApplication(0x0F, 3)); }
};

TEST_F(Files, ProtectedWritesRefuseATamperedMacOrCryptogramAndEndTheSession) {
    for (std::uint8_t mode : {kMaced, kEnciphered}) {
        SCOPED_TRACE(int{mode});
        ASSERT_EQ(Is(host_.Authenticate(0, kAppMasterKey)), Is(0x00));
        ASSERT_EQ(Status(CreateData(0xCD, mode, mode, kRights, 16)), Is(0x00));
        ASSERT_EQ(Is(host_.Authenticate(1, kReadKey)), Is(0x00));
        Bytes frame = Concat({Header(0x3D, mode, 0, 16), Protect(host_, Pattern(16, 1), mode)});
        frame.back() ^= 0x01;
        EXPECT_EQ(Status(frame), Is(0x1E));
        frame.back() ^= 0x01;
        EXPECT_EQ(Status(frame), Is(0xAE)) << "the error ended the session";
        ASSERT_EQ(Is(host_.Authenticate(1, kReadKey)), Is(0x00));
        EXPECT_EQ(Status(Concat({Header(0x3D, mode, 0, 16), Protect(host_, Pattern(16, 1), mode)})), Is(0x00));
        const Answer read = host_.Exchange(Header(0xBD, mode, 0, 16));
        EXPECT_EQ(Unprotect(host_, read.data, 16, mode), Pattern(16, 1));
    }
    Bytes plain = WithCrc(Pattern(4, 9));
    plain.back() = 0x80;
    Run({Auth(0, kAppMasterKey), Send(CreateData(0xCD, 4, kEnciphered, kRights, 4), 0x00), Auth(1, kReadKey),
         Built(
             "bad padding",
             [&] {
                 return Concat({Header(0x3D, 4, 0, 4), SendMode(host_.Session(), plain)});
             },
             0x1E)});
}

TEST_F(Files, DataTravelsInFramesOfAtMost59BytesAndAnySplitButNotOneByteTooMany) {
    ASSERT_EQ(Status(CreateData(0xCD, 1, kPlain, Bytes{0xEE, 0xEE}, 200)), Is(0x00));
    ASSERT_EQ(Is(host_.SendChained(Concat({Header(0x3D, 1, 0, 200), Pattern(200, 3)})).status), Is(0x00));
    std::vector<std::size_t> sizes;
    Bytes all;
    Answer a = host_.Send(Header(0xBD, 1, 0, 0));
    for (;;) {
        sizes.push_back(a.data.size());
        all.insert(all.end(), a.data.begin(), a.data.end());
        if (a.status != 0xAF) break;
        a = host_.Send(Bytes{0xAF});
    }
    EXPECT_EQ(Is(a.status), Is(0x00));
    EXPECT_EQ(sizes, (std::vector<std::size_t>{59, 59, 59, 23}));
    EXPECT_EQ(all, Pattern(200, 3));

    const Bytes frame = Concat({Header(0x3D, 1, 0, 64), Pattern(64, 5)});
    EXPECT_EQ(Is(host_.SendChained(frame, 9, 10).status), Is(0x00));
    EXPECT_EQ(host_.Exchange(Header(0xBD, 1, 0, 64)).data, Pattern(64, 5));
    EXPECT_EQ(Is(host_.SendChained(Concat({frame, Bytes{0x00}}), 53, 59).status), Is(0x7E));
    EXPECT_EQ(Status(Concat({Header(0x3D, 1, 0, 4), Pattern(5, 1)})), Is(0x7E));
}

TEST_F(Files, TransactionsCommitAbortAndDropAsDocumented) {
    const Bytes readAll = Header(0xBD, 1, 0, 0);
    const auto value = [](std::uint8_t command, std::uint8_t file, std::int32_t amount) {
        return Concat({Bytes{command, file}, Le32(amount)});
    };
    Run({Send(CreateData(0xCB, 1, kPlain, Bytes{0xEE, 0xEE}, 8), 0x00),
         Send(Concat({Header(0x3D, 1, 0, 4), Hex("01020304")}), 0x00), Reads(readAll, "0000000000000000"),
         Send({0xA7}, 0x00), Send({0xA7}, 0x0C, "nothing left to abort"), Reads(readAll, "0000000000000000"),
         Send(Concat({Header(0x3D, 1, 2, 4), Hex("0A0B0C0D")}), 0x00), Send({0xC7}, 0x00),
         Send({0xC7}, 0x0C, "nothing left to commit"), Reads(readAll, "00000A0B0C0D0000"),
         // A select drops what was pending.
         Send(Concat({Header(0x3D, 1, 0, 1), Hex("FF")}), 0x00), Select(kAid), Send({0xC7}, 0x0C),
         Reads(readAll, "00000A0B0C0D0000"),
         // Values: the upper limit counts the pending credit, which a refusal leaves in place.
         Auth(0, kAppMasterKey), Send(CreateValue(2, kPlain, Bytes{0xEE, 0xEE}, -10, 100, 0, 0x01), 0x00),
         Send(CreateValue(3, kPlain, Bytes{0xEE, 0xEE}, 0, 50, 50, 0x00), 0x00), Send(value(0x0C, 2, 100), 0x00),
         Send(value(0x0C, 2, 1), 0xBE), Reads({0x6C, 2}, ToHex(Le32(0))), Send({0xC7}, 0x00),
         Reads({0x6C, 2}, ToHex(Le32(100))), Send(value(0x0C, 2, -1), 0x9E, "a negative amount"),
         Send(value(0x1C, 3, 1), 0x9D, "limited credit not enabled"),
         Send(value(0x0C, 3, 1), 0xBE, "free file at its upper limit"),
         Send(value(0x0C, 3, 0), 0x00, "zero is an amount"),
         // Credit needs the read&write key, debit any of the three.
         Auth(0, kAppMasterKey), Send(CreateValue(4, kPlain, Bytes{0x10, 0x22}, 0, 100, 50, 0x00), 0x00),
         Auth(2, kWriteKey), Send(value(0xDC, 4, 5), 0x00), Send(value(0x0C, 4, 5), 0xAE), Auth(1, kReadKey),
         Send(value(0x0C, 4, 5), 0x00)});
}

TEST_F(Files, RecordsAreWrittenOnePerTransactionAndReadOldestFirst) {
    Run({Send(CreateRecords(0xC1, 1, kPlain, Bytes{0xEE, 0xEE}, 2, 5), 0x00),
         Send(Header(0xBB, 1, 0, 0), 0xBE, "no record yet")});
    for (std::uint8_t r = 1; r <= 4; ++r)
        Run({Send(Concat({Header(0x3B, 1, 0, 2), Bytes{r, r}}), 0x00), Send({0xC7}, 0x00)});
    Run({Reads(Header(0xBB, 1, 0, 0), "0101020203030404"),
         Reads(Header(0xBB, 1, 0, 1), "0404"),
         Reads(Header(0xBB, 1, 1, 2), "02020303"),
         Reads(Header(0xBB, 1, 3, 0), "0101"),
         Reads(Header(0xBB, 1, 2, 2), "01010202"),
         Send(Header(0xBB, 1, 4, 0), 0xBE),
         Send(Header(0xBB, 1, 1, 4), 0xBE),

         Send(CreateRecords(0xC1, 2, kPlain, Bytes{0xEE, 0xEE}, 4, 2), 0x00),
         Send(Concat({Header(0x3B, 2, 0, 2), Hex("AAAA")}), 0x00),
         Send(Concat({Header(0x3B, 2, 3, 1), Hex("BB")}), 0x00),
         Send(Concat({Header(0x3B, 2, 3, 2), Hex("CCCC")}), 0xBE, "past the record's end"),
         Send(Header(0x3B, 2, 0, 0), 0x7E),
         Send({0xC7}, 0x00),
         Reads(Header(0xBB, 2, 0, 0), "AAAA00BB"),
         Send(Concat({Header(0x3B, 2, 0, 1), Hex("01")}), 0x00),
         Send({0xC7}, 0x00),
         Send(Concat({Header(0x3B, 2, 0, 1), Hex("02")}), 0xBE, "a full linear file"),
         Send({0xEB, 2}, 0x00),
         Send(Concat({Header(0x3B, 2, 0, 1), Hex("03")}), 0x9D, "cleared in this transaction"),
         Reads(Header(0xBB, 2, 0, 0), "AAAA00BB01000000"),
         Send({0xC7}, 0x00),
         Send(Header(0xBB, 2, 0, 0), 0xBE, "empty after the commit")});
}

TEST_F(Files, AccessRightsDecideWhoMayDoWhatAndHowItTravels) {
    const auto maced = [this](ByteSpan head, Bytes data) {
        return [this, head = Bytes(head.begin(), head.end()), data] { return Concat({head, data, host_.Mac(data)}); };
    };
    Run({// file 1: maced, read free, write key 2, read&write never, change key 0; file 2: every right never
         Send(CreateData(0xCD, 1, kMaced, Bytes{0xF0, 0xE2}, 8), 0x00),
         Send(CreateData(0xCD, 2, kPlain, Bytes{0xFF, 0xFF}, 8), 0x00), Auth(1, kReadKey),
         Reads(Header(0xBD, 1, 0, 0), "0000000000000000"),  // free read answers plain, even to a session
         Built("key 1 cannot write", maced(Header(0x3D, 1, 0, 1), Hex("01")), 0xAE), Auth(2, kWriteKey),
         Built("key 2 writes", maced(Header(0x3D, 1, 0, 1), Hex("01")), 0x00),
         Send(Concat({Header(0x3D, 1, 0, 1), Hex("01")}), 0xAF, "a maced file waits for its MAC"),
         Send(Concat({Bytes{0xAF}, Bytes(4, 0x00)}), 0x1E),
         Send(Concat({Header(0x3D, 1, 0, 1), Hex("01"), Bytes(4, 0x00)}), 0xAE, "no session"),
         Send(Header(0xBD, 2, 0, 0), 0x9D), Send(Concat({Header(0x3D, 2, 0, 1), Hex("01")}), 0x9D)});
}

TEST_F(Files, RefusalsCarryTheCardsStatus) {
    Run({Send(CreateData(0xCD, 1, kPlain, Bytes{0xEE, 0xEE}, 32), 0x00),
         Send(CreateValue(2, kPlain, Bytes{0xEE, 0xEE}, 0, 10, 5, 0x00), 0x00),
         Send(CreateRecords(0xC1, 3, kPlain, Bytes{0xEE, 0xEE}, 4, 2), 0x00)});
    const Bytes free{0xEE, 0xEE};
    Run(EachAfter(Auth(0, kAppMasterKey),
                  {
                      Send(Header(0xBD, 9, 0, 1), 0xF0, "no such file"),
                      Send({0xDF, 9}, 0xF0, "delete of a missing file"),
                      Send({0xF5, 9}, 0xF0, "settings of a missing file"),
                      Send(Header(0xBD, 1, 30, 3), 0xBE, "read past the end"),
                      Send(Header(0xBD, 1, 32, 0), 0xBE, "read from the end"),
                      Send(Concat({Header(0x3D, 1, 31, 2), Hex("0102")}), 0xBE, "write past the end"),
                      Send(Header(0xBD, 2, 0, 1), 0x9E, "data read of a value file"),
                      Send({0x6C, 1}, 0x9E, "value of a data file"),
                      Send(Header(0xBB, 1, 0, 0), 0x9E, "records of a data file"),
                      Send({0xEB, 2}, 0x9E, "clear of a value file"),
                      Send({0xBD, 1, 0, 0, 0, 1, 0}, 0x7E, "short read frame"),
                      Send(CreateData(0xCD, 1, kPlain, free, 8), 0xDE, "duplicate file"),
                      Send(CreateData(0xCD, 32, kPlain, free, 8), 0x9E, "file number 32"),
                      Send(CreateData(0xCD, 4, kPlain, free, 0), 0x9E, "size zero"),
                      Send(CreateData(0xCD, 4, 0x04, free, 8), 0x9E, "reserved communication bits"),
                      Send(CreateValue(4, kPlain, free, 10, 0, 5, 0), 0x9E, "limits upside down"),
                      Send(CreateValue(4, kPlain, free, 0, 10, 11, 0), 0x9E, "value outside the limits"),
                      Send(CreateRecords(0xC0, 4, kPlain, free, 4, 1), 0x9E, "cyclic file of one record"),
                      Send(CreateRecords(0xC1, 4, kPlain, free, 0, 3), 0x9E, "record size zero"),
                      Send(CreateData(0xCD, 4, kPlain, free, 5000), 0x0E, "more than the card holds"),
                      Send(CreateData(0xCB, 4, kPlain, free, 2000), 0x0E, "backup twice the memory"),
                  }));
}

TEST_F(Files, SettingsAndListsDescribeTheFilesExactlyAndChangeUnderTheirRights) {
    Run({Send(CreateRecords(0xC0, 5, kEnciphered, Bytes{0x10, 0x12}, 0x23, 0x10), 0x00),
         Send(CreateData(0xCD, 1, kPlain, Bytes{0x30, 0x12}, 0x20), 0x00),
         Send(CreateValue(3, kMaced, Bytes{0xEE, 0xEE}, -10, 100, 0, 0x01), 0x00),
         Send(CreateData(0xCB, 2, 0x02, Bytes{0xEE, 0xEE}, 0x1FF), 0x00),
         Reads({0x6F}, "05010302"),  // in order of creation
         Reads({0xF5, 5}, "04 03 1012 230000 100000 000000"), Reads({0xF5, 1}, "00 00 3012 200000"),
         Reads({0xF5, 3}, "02 01 EEEE F6FFFFFF 64000000 00000000 01"), Reads({0xF5, 2}, "01 02 EEEE FF0100"),
         Send({0xDF, 3}, 0x00), Reads({0x6F}, "050102"),

         Send(CreateData(0xCD, 6, kPlain, Bytes{0xEE, 0xEE}, 8), 0x00),  // change free
         Send(CreateData(0xCD, 7, kPlain, Bytes{0x11, 0x22}, 8), 0x00),  // change key 1
         Send(CreateData(0xCD, 8, kPlain, Bytes{0x1F, 0x22}, 8), 0x00),  // change never
         Send(Hex("5F 06 01 E1 22"), 0x00), Reads({0xF5, 6}, "0001E122080000"), Auth(1, kReadKey),
         Built(
             "bad CRC",
             [&] {
                 return Concat({Hex("5F 07"), SendMode(host_.Session(), Hex("0311220000000000"))});
             },
             0x1E),
         Auth(1, kReadKey), Sealed(Hex("5F 07"), Hex("03 11 22"), 0x00), Reads({0xF5, 7}, "00031122080000"),
         // The plain form under a change key is a length error, which ends the session.
         Auth(1, kReadKey), Send(Hex("5F 07 00 11 22"), 0x7E), Sealed(Hex("5F 07"), Hex("00 11 22"), 0xAE),
         Auth(2, kWriteKey), Sealed(Hex("5F 07"), Hex("00 10 22"), 0xAE, "not the change key"),
         Send(Hex("5F 08 00 EE EE"), 0x9D)});
}
