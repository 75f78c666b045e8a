// Files of every kind in every communication mode, with their transfers,
// transactions, limits and refusals.
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

    std::string Write(std::uint8_t command, std::uint8_t file, std::uint32_t offset, ByteSpan data, std::uint8_t mode) {
        const Bytes frame = Concat(
            {Header(command, file, offset, static_cast<std::uint32_t>(data.size())), Protect(host_, data, mode)});
        return Is(host_.SendChained(frame).status);
    }
    std::optional<Bytes> Read(std::uint8_t command, std::uint8_t file, std::uint32_t offset, std::uint32_t length,
                              std::size_t expected, std::uint8_t mode) {
        const Answer answer = host_.Exchange(Header(command, file, offset, length));
        EXPECT_EQ(Is(answer.status), Is(0x00));
        return Unprotect(host_, answer.data, expected, mode);
    }
    std::optional<std::int32_t> Value(std::uint8_t file, std::uint8_t mode) {
        const Answer answer = host_.Send(Bytes{0x6C, file});
        EXPECT_EQ(Is(answer.status), Is(0x00));
        auto bytes = Unprotect(host_, answer.data, 4, mode);
        if (!bytes) return std::nullopt;
        return static_cast<std::int32_t>((*bytes)[0] | (*bytes)[1] << 8 | (*bytes)[2] << 16 |
                                         static_cast<std::uint32_t>((*bytes)[3]) << 24);
    }
    std::string ChangeValue(std::uint8_t command, std::uint8_t file, std::int32_t amount, std::uint8_t mode) {
        return Status(Concat({Bytes{command, file}, Protect(host_, Le32(amount), mode)}));
    }
    std::string Commit() { return Status(Bytes{0xC7}); }
};

TEST_F(Files, EveryKindTravelsInEveryCommunicationMode) {
    struct Mode {
        const char* name;
        std::uint8_t comm;
    } const modes[] = {{"plain", kPlain}, {"maced", kMaced}, {"enciphered", kEnciphered}};
    std::uint8_t file = 0;
    for (const Mode& m : modes) {
        SCOPED_TRACE(m.name);
        ASSERT_EQ(Is(host_.Authenticate(0, kAppMasterKey)), Is(0x00));
        const std::uint8_t std = file++, backup = file++, value = file++, linear = file++, cyclic = file++;
        ASSERT_EQ(Status(CreateData(0xCD, std, m.comm, kRights, 100)), Is(0x00));
        ASSERT_EQ(Status(CreateData(0xCB, backup, m.comm, kRights, 70)), Is(0x00));
        ASSERT_EQ(Status(CreateValue(value, m.comm, kRights, -100, 1000, 10, 0x01)), Is(0x00));
        ASSERT_EQ(Status(CreateRecords(0xC1, linear, m.comm, kRights, 20, 4)), Is(0x00));
        ASSERT_EQ(Status(CreateRecords(0xC0, cyclic, m.comm, kRights, 20, 3)), Is(0x00));

        ASSERT_EQ(Is(host_.Authenticate(1, kReadKey)), Is(0x00));
        const Bytes data = Pattern(100, m.comm);
        EXPECT_EQ(Write(0x3D, std, 0, data, m.comm), Is(0x00));
        EXPECT_EQ(Read(0xBD, std, 0, 0, 100, m.comm), data);
        EXPECT_EQ(Read(0xBD, std, 10, 5, 5, m.comm), Bytes(data.begin() + 10, data.begin() + 15));

        EXPECT_EQ(Write(0x3D, backup, 3, Pattern(60, 0x40), m.comm), Is(0x00));
        EXPECT_EQ(Commit(), Is(0x00));
        EXPECT_EQ(Read(0xBD, backup, 3, 60, 60, m.comm), Pattern(60, 0x40));

        EXPECT_EQ(ChangeValue(0x0C, value, 300, m.comm), Is(0x00));
        EXPECT_EQ(ChangeValue(0xDC, value, 25, m.comm), Is(0x00));
        EXPECT_EQ(Commit(), Is(0x00));
        EXPECT_EQ(Value(value, m.comm), 285);

        for (std::uint8_t r = 0; r < 3; ++r) {
            EXPECT_EQ(Write(0x3B, linear, 0, Pattern(20, r), m.comm), Is(0x00));
            EXPECT_EQ(Write(0x3B, cyclic, 0, Pattern(20, r), m.comm), Is(0x00));
            EXPECT_EQ(Commit(), Is(0x00));
        }
        EXPECT_EQ(Read(0xBB, linear, 0, 0, 60, m.comm), Concat({Pattern(20, 0), Pattern(20, 1), Pattern(20, 2)}));
        // Three records in a cyclic file of three: the oldest made way.
        EXPECT_EQ(Read(0xBB, cyclic, 0, 0, 40, m.comm), Concat({Pattern(20, 1), Pattern(20, 2)}));
    }
}

TEST_F(Files, ProtectedTransfersRefuseATamperedMacOrCryptogram) {
    for (std::uint8_t mode : {kMaced, kEnciphered}) {
        SCOPED_TRACE(int{mode});
        ASSERT_EQ(Is(host_.Authenticate(0, kAppMasterKey)), Is(0x00));
        ASSERT_EQ(Status(CreateData(0xCD, mode, mode, kRights, 16)), Is(0x00));
        ASSERT_EQ(Is(host_.Authenticate(1, kReadKey)), Is(0x00));
        Bytes frame = Concat({Header(0x3D, mode, 0, 16), Protect(host_, Pattern(16, 1), mode)});
        frame.back() ^= 0x01;
        EXPECT_EQ(Status(frame), Is(0x1E));
        // The error ended the session: even a correct frame is refused now.
        frame.back() ^= 0x01;
        EXPECT_EQ(Status(frame), Is(0xAE));
        ASSERT_EQ(Is(host_.Authenticate(1, kReadKey)), Is(0x00));
        EXPECT_EQ(Status(Concat({Header(0x3D, mode, 0, 16), Protect(host_, Pattern(16, 1), mode)})), Is(0x00));
        EXPECT_EQ(Read(0xBD, mode, 0, 16, 16, mode), Pattern(16, 1));
    }
}

TEST_F(Files, EncipheredWritesCheckThePaddingToo) {
    ASSERT_EQ(Status(CreateData(0xCD, 1, kEnciphered, kRights, 4)), Is(0x00));
    ASSERT_EQ(Is(host_.Authenticate(1, kReadKey)), Is(0x00));
    Bytes plain = WithCrc(Pattern(4, 9));
    plain.back() = 0x80;
    EXPECT_EQ(Status(Concat({Header(0x3D, 1, 0, 4), SendMode(host_.Session(), plain)})), Is(0x1E));
}

TEST_F(Files, AnswersComeInFramesOfAtMost59Bytes) {
    ASSERT_EQ(Status(CreateData(0xCD, 1, kPlain, Bytes{0xEE, 0xEE}, 200)), Is(0x00));
    const Bytes data = Pattern(200, 3);
    std::size_t sent = 45;
    EXPECT_EQ(Status(Concat({Header(0x3D, 1, 0, 200), ByteSpan(data).first(sent)})), Is(0xAF));
    while (sent < data.size()) {
        const std::size_t n = std::min<std::size_t>(59, data.size() - sent);
        const Answer a = host_.Send(Concat({Bytes{0xAF}, ByteSpan(data).subspan(sent, n)}));
        sent += n;
        EXPECT_EQ(Is(a.status), Is(sent < data.size() ? 0xAF : 0x00));
    }
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
}

TEST_F(Files, WritesAcceptAnySplitButNotOneByteTooMany) {
    ASSERT_EQ(Status(CreateData(0xCD, 1, kPlain, Bytes{0xEE, 0xEE}, 64)), Is(0x00));
    const Bytes frame = Concat({Header(0x3D, 1, 0, 64), Pattern(64, 5)});
    EXPECT_EQ(Is(host_.SendChained(frame, 9, 10).status), Is(0x00));
    EXPECT_EQ(host_.Exchange(Header(0xBD, 1, 0, 0)).data, Pattern(64, 5));

    EXPECT_EQ(Is(host_.SendChained(Concat({frame, Bytes{0x00}}), 53, 59).status), Is(0x7E));
    EXPECT_EQ(Status(Concat({Header(0x3D, 1, 0, 4), Pattern(5, 1)})), Is(0x7E));
}

TEST_F(Files, BackupDataChangesOnlyOnCommit) {
    ASSERT_EQ(Status(CreateData(0xCB, 1, kPlain, Bytes{0xEE, 0xEE}, 8)), Is(0x00));
    const Bytes readAll = Header(0xBD, 1, 0, 0);
    EXPECT_EQ(Status(Concat({Header(0x3D, 1, 0, 4), Hex("01020304")})), Is(0x00));
    EXPECT_EQ(host_.Exchange(readAll).data, Bytes(8, 0x00)) << "not committed yet";
    EXPECT_EQ(Status(Bytes{0xA7}), Is(0x00));
    EXPECT_EQ(Status(Bytes{0xA7}), Is(0x0C)) << "nothing left to abort";
    EXPECT_EQ(host_.Exchange(readAll).data, Bytes(8, 0x00));

    EXPECT_EQ(Status(Concat({Header(0x3D, 1, 2, 4), Hex("0A0B0C0D")})), Is(0x00));
    EXPECT_EQ(Commit(), Is(0x00));
    EXPECT_EQ(Commit(), Is(0x0C)) << "nothing left to commit";
    EXPECT_EQ(host_.Exchange(readAll).data, Hex("00000A0B0C0D0000"));

    // A select drops what was pending.
    EXPECT_EQ(Status(Concat({Header(0x3D, 1, 0, 1), Hex("FF")})), Is(0x00));
    ASSERT_EQ(Is(host_.Select(kAid)), Is(0x00));
    EXPECT_EQ(Commit(), Is(0x0C));
    EXPECT_EQ(host_.Exchange(readAll).data, Hex("00000A0B0C0D0000"));
}

TEST_F(Files, ValueFilesKeepTheirLimitsAndLimitedCredit) {
    ASSERT_EQ(Status(CreateValue(1, kMaced, kRights, -10, 100, 0, 0x01)), Is(0x00));
    ASSERT_EQ(Status(CreateValue(2, kPlain, Bytes{0xEE, 0xEE}, 0, 50, 50, 0x00)), Is(0x00));
    ASSERT_EQ(Is(host_.Authenticate(1, kReadKey)), Is(0x00));

    EXPECT_EQ(ChangeValue(0x0C, 1, 100, kMaced), Is(0x00));
    EXPECT_EQ(ChangeValue(0x0C, 1, 1, kMaced), Is(0xBE)) << "above the upper limit, counting the pending credit";
    ASSERT_EQ(Is(host_.Authenticate(1, kReadKey)), Is(0x00));
    EXPECT_EQ(Value(1, kMaced), 0) << "the refused credit left the pending one in place";
    EXPECT_EQ(Commit(), Is(0x00));
    EXPECT_EQ(Value(1, kMaced), 100);

    EXPECT_EQ(ChangeValue(0xDC, 1, 110, kMaced), Is(0x00));
    EXPECT_EQ(Value(1, kMaced), 100) << "a debit shows only after the commit";
    EXPECT_EQ(Status(Bytes{0xA7}), Is(0x00));
    EXPECT_EQ(Value(1, kMaced), 100);
    EXPECT_EQ(ChangeValue(0xDC, 1, 111, kMaced), Is(0xBE)) << "below the lower limit";
    ASSERT_EQ(Is(host_.Authenticate(1, kReadKey)), Is(0x00));

    // A limited credit may give back what the last transaction debited, once.
    EXPECT_EQ(ChangeValue(0x1C, 1, 1, kMaced), Is(0xBE)) << "nothing debited yet";
    ASSERT_EQ(Is(host_.Authenticate(1, kReadKey)), Is(0x00));
    EXPECT_EQ(ChangeValue(0xDC, 1, 30, kMaced), Is(0x00));
    EXPECT_EQ(Commit(), Is(0x00));
    EXPECT_EQ(ChangeValue(0x1C, 1, 31, kMaced), Is(0xBE));
    ASSERT_EQ(Is(host_.Authenticate(1, kReadKey)), Is(0x00));
    EXPECT_EQ(ChangeValue(0x1C, 1, 30, kMaced), Is(0x00));
    EXPECT_EQ(Commit(), Is(0x00));
    EXPECT_EQ(Value(1, kMaced), 100);
    EXPECT_EQ(ChangeValue(0x1C, 1, 1, kMaced), Is(0xBE)) << "already used";
    ASSERT_EQ(Is(host_.Authenticate(1, kReadKey)), Is(0x00));

    EXPECT_EQ(ChangeValue(0x0C, 1, -1, kMaced), Is(0x9E)) << "a negative amount";
    EXPECT_EQ(Status(Concat({Bytes{0x1C, 2}, Le32(1)})), Is(0x9D)) << "limited credit not enabled";
    EXPECT_EQ(Status(Concat({Bytes{0x0C, 2}, Le32(1)})), Is(0xBE)) << "free file at its upper limit";
    EXPECT_EQ(Status(Concat({Bytes{0x0C, 2}, Le32(0)})), Is(0x00)) << "zero is an amount";
}

TEST_F(Files, CreditNeedsTheReadWriteKeyAndDebitAnyOfTheThree) {
    // read = key 2, write = key 2, read&write = key 1
    ASSERT_EQ(Status(CreateValue(1, kPlain, Bytes{0x10, 0x22}, 0, 100, 50, 0x00)), Is(0x00));
    ASSERT_EQ(Is(host_.Authenticate(2, kWriteKey)), Is(0x00));
    EXPECT_EQ(Status(Concat({Bytes{0xDC, 1}, Le32(5)})), Is(0x00));
    EXPECT_EQ(Status(Concat({Bytes{0x0C, 1}, Le32(5)})), Is(0xAE));
    ASSERT_EQ(Is(host_.Authenticate(1, kReadKey)), Is(0x00));
    EXPECT_EQ(Status(Concat({Bytes{0x0C, 1}, Le32(5)})), Is(0x00));
}

TEST_F(Files, RecordsComeOldestFirstFromTheRequestedWindow) {
    ASSERT_EQ(Status(CreateRecords(0xC1, 1, kPlain, Bytes{0xEE, 0xEE}, 2, 5)), Is(0x00));
    EXPECT_EQ(Status(Header(0xBB, 1, 0, 0)), Is(0xBE)) << "no record yet";
    for (std::uint8_t r = 1; r <= 4; ++r) {
        EXPECT_EQ(Status(Concat({Header(0x3B, 1, 0, 2), Bytes{r, r}})), Is(0x00));
        EXPECT_EQ(Commit(), Is(0x00));
    }
    struct Case {
        std::uint32_t offset, count;
        const char* records;
    } const cases[] = {
        {0, 0, "01010202030304 04"}, {0, 1, "0404"}, {1, 2, "02020303"}, {3, 0, "0101"}, {2, 2, "01010202"},
    };
    for (const auto& c : cases) {
        const Answer a = host_.Exchange(Header(0xBB, 1, c.offset, c.count));
        EXPECT_EQ(Is(a.status), Is(0x00));
        EXPECT_EQ(ToHex(a.data), ToHex(Hex(c.records))) << c.offset << "/" << c.count;
    }
    EXPECT_EQ(Status(Header(0xBB, 1, 4, 0)), Is(0xBE));
    EXPECT_EQ(Status(Header(0xBB, 1, 1, 4)), Is(0xBE));
}

TEST_F(Files, RecordWritesFillOneRecordPerTransaction) {
    ASSERT_EQ(Status(CreateRecords(0xC1, 1, kPlain, Bytes{0xEE, 0xEE}, 4, 2)), Is(0x00));
    EXPECT_EQ(Status(Concat({Header(0x3B, 1, 0, 2), Hex("AAAA")})), Is(0x00));
    EXPECT_EQ(Status(Concat({Header(0x3B, 1, 3, 1), Hex("BB")})), Is(0x00));
    EXPECT_EQ(Status(Concat({Header(0x3B, 1, 3, 2), Hex("CCCC")})), Is(0xBE)) << "past the record's end";
    EXPECT_EQ(Status(Concat({Header(0x3B, 1, 0, 0)})), Is(0x7E));
    EXPECT_EQ(Commit(), Is(0x00));
    EXPECT_EQ(ToHex(host_.Exchange(Header(0xBB, 1, 0, 0)).data), "AAAA00BB");
    EXPECT_EQ(Status(Concat({Header(0x3B, 1, 0, 1), Hex("01")})), Is(0x00));
    EXPECT_EQ(Commit(), Is(0x00));
    EXPECT_EQ(Status(Concat({Header(0x3B, 1, 0, 1), Hex("02")})), Is(0xBE)) << "a full linear file";

    EXPECT_EQ(Status(Bytes{0xEB, 1}), Is(0x00));
    EXPECT_EQ(Status(Concat({Header(0x3B, 1, 0, 1), Hex("03")})), Is(0x9D)) << "cleared in this transaction";
    EXPECT_EQ(host_.Exchange(Header(0xBB, 1, 0, 0)).data.size(), 8u) << "the clear waits for the commit";
    EXPECT_EQ(Commit(), Is(0x00));
    EXPECT_EQ(Status(Header(0xBB, 1, 0, 0)), Is(0xBE)) << "empty after the commit";
}

TEST_F(Files, AccessRightsDecideWhoMayDoWhatAndHowItTravels) {
    // file 1: maced, read free, write key 2, read&write never, change key 0
    ASSERT_EQ(Status(CreateData(0xCD, 1, kMaced, Bytes{0xF0, 0xE2}, 8)), Is(0x00));
    // file 2: plain, every right never
    ASSERT_EQ(Status(CreateData(0xCD, 2, kPlain, Bytes{0xFF, 0xFF}, 8)), Is(0x00));

    // Free read access answers plain, without a MAC, even to a session.
    ASSERT_EQ(Is(host_.Authenticate(1, kReadKey)), Is(0x00));
    EXPECT_EQ(host_.Exchange(Header(0xBD, 1, 0, 0)).data, Bytes(8, 0x00));
    EXPECT_EQ(Status(Concat({Header(0x3D, 1, 0, 1), Hex("01"), host_.Mac(Hex("01"))})), Is(0xAE))
        << "key 1 cannot write";
    ASSERT_EQ(Is(host_.Authenticate(2, kWriteKey)), Is(0x00));
    EXPECT_EQ(Status(Concat({Header(0x3D, 1, 0, 1), Hex("01"), host_.Mac(Hex("01"))})), Is(0x00));
    EXPECT_EQ(Status(Concat({Header(0x3D, 1, 0, 1), Hex("01")})), Is(0xAF)) << "a maced file waits for its MAC";
    EXPECT_EQ(Status(Concat({Bytes{0xAF}, Bytes(4, 0x00)})), Is(0x1E));
    EXPECT_EQ(Status(Concat({Header(0x3D, 1, 0, 1), Hex("01"), Bytes(4, 0x00)})), Is(0xAE)) << "no session";

    EXPECT_EQ(Status(Header(0xBD, 2, 0, 0)), Is(0x9D));
    EXPECT_EQ(Status(Concat({Header(0x3D, 2, 0, 1), Hex("01")})), Is(0x9D));
}

TEST_F(Files, RefusalsCarryTheCardsStatus) {
    ASSERT_EQ(Status(CreateData(0xCD, 1, kPlain, Bytes{0xEE, 0xEE}, 32)), Is(0x00));
    ASSERT_EQ(Status(CreateValue(2, kPlain, Bytes{0xEE, 0xEE}, 0, 10, 5, 0x00)), Is(0x00));
    ASSERT_EQ(Status(CreateRecords(0xC1, 3, kPlain, Bytes{0xEE, 0xEE}, 4, 2)), Is(0x00));
    struct Case {
        const char* what;
        Bytes frame;
        std::uint8_t status;
    } const cases[] = {
        {"no such file", Header(0xBD, 9, 0, 1), 0xF0},
        {"delete of a missing file", {0xDF, 9}, 0xF0},
        {"settings of a missing file", {0xF5, 9}, 0xF0},
        {"read past the end", Header(0xBD, 1, 30, 3), 0xBE},
        {"read from the end", Header(0xBD, 1, 32, 0), 0xBE},
        {"write past the end", Concat({Header(0x3D, 1, 31, 2), Hex("0102")}), 0xBE},
        {"data read of a value file", Header(0xBD, 2, 0, 1), 0x9E},
        {"value of a data file", {0x6C, 1}, 0x9E},
        {"records of a data file", Header(0xBB, 1, 0, 0), 0x9E},
        {"clear of a value file", {0xEB, 2}, 0x9E},
        {"short read frame", {0xBD, 1, 0, 0, 0, 1, 0}, 0x7E},
        {"duplicate file", CreateData(0xCD, 1, kPlain, Bytes{0xEE, 0xEE}, 8), 0xDE},
        {"file number 32", CreateData(0xCD, 32, kPlain, Bytes{0xEE, 0xEE}, 8), 0x9E},
        {"size zero", CreateData(0xCD, 4, kPlain, Bytes{0xEE, 0xEE}, 0), 0x9E},
        {"reserved communication bits", CreateData(0xCD, 4, 0x04, Bytes{0xEE, 0xEE}, 8), 0x9E},
        {"limits upside down", CreateValue(4, kPlain, Bytes{0xEE, 0xEE}, 10, 0, 5, 0), 0x9E},
        {"value outside the limits", CreateValue(4, kPlain, Bytes{0xEE, 0xEE}, 0, 10, 11, 0), 0x9E},
        {"cyclic file of one record", CreateRecords(0xC0, 4, kPlain, Bytes{0xEE, 0xEE}, 4, 1), 0x9E},
        {"record size zero", CreateRecords(0xC1, 4, kPlain, Bytes{0xEE, 0xEE}, 0, 3), 0x9E},
        {"more than the card holds", CreateData(0xCD, 4, kPlain, Bytes{0xEE, 0xEE}, 5000), 0x0E},
        {"backup twice the memory", CreateData(0xCB, 4, kPlain, Bytes{0xEE, 0xEE}, 2000), 0x0E},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(Is(host_.Authenticate(0, kAppMasterKey)), Is(0x00));
        EXPECT_EQ(Status(c.frame), Is(c.status)) << c.what;
    }
}

TEST_F(Files, SettingsAndListsDescribeTheFilesExactly) {
    ASSERT_EQ(Status(CreateRecords(0xC0, 5, kEnciphered, Bytes{0x10, 0x12}, 0x23, 0x10)), Is(0x00));
    ASSERT_EQ(Status(CreateData(0xCD, 1, kPlain, Bytes{0x30, 0x12}, 0x20)), Is(0x00));
    ASSERT_EQ(Status(CreateValue(3, kMaced, Bytes{0xEE, 0xEE}, -10, 100, 0, 0x01)), Is(0x00));
    ASSERT_EQ(Status(CreateData(0xCB, 2, 0x02, Bytes{0xEE, 0xEE}, 0x1FF)), Is(0x00));
    EXPECT_EQ(ToHex(host_.Send(Bytes{0x6F}).data), "05010302") << "in order of creation";
    struct Case {
        std::uint8_t file;
        const char* settings;
    } const cases[] = {
        {5, "04 03 1012 230000 100000 000000"},
        {1, "00 00 3012 200000"},
        {3, "02 01 EEEE F6FFFFFF 64000000 00000000 01"},
        {2, "01 02 EEEE FF0100"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ToHex(host_.Send(Bytes{0xF5, c.file}).data), ToHex(Hex(c.settings)));
    EXPECT_EQ(Status(Bytes{0xDF, 3}), Is(0x00));
    EXPECT_EQ(ToHex(host_.Send(Bytes{0x6F}).data), "050102");
}

TEST_F(Files, FileSettingsChangePlainWhenFreeAndEncipheredUnderTheChangeKey) {
    ASSERT_EQ(Status(CreateData(0xCD, 1, kPlain, Bytes{0xEE, 0xEE}, 8)), Is(0x00));  // change free
    ASSERT_EQ(Status(CreateData(0xCD, 2, kPlain, Bytes{0x11, 0x22}, 8)), Is(0x00));  // change key 1
    ASSERT_EQ(Status(CreateData(0xCD, 3, kPlain, Bytes{0x1F, 0x22}, 8)), Is(0x00));  // change never

    EXPECT_EQ(Status(Hex("5F 01 01 E1 22")), Is(0x00));
    EXPECT_EQ(ToHex(host_.Send(Bytes{0xF5, 1}).data), "0001E122080000");

    ASSERT_EQ(Is(host_.Authenticate(1, kReadKey)), Is(0x00));
    EXPECT_EQ(Status(Concat({Hex("5F 02"), SendMode(host_.Session(), Hex("0311220000000000"))})), Is(0x1E));
    ASSERT_EQ(Is(host_.Authenticate(1, kReadKey)), Is(0x00));
    EXPECT_EQ(Status(Concat({Hex("5F 02"), host_.Encipher(Hex("03 11 22"))})), Is(0x00));
    EXPECT_EQ(ToHex(host_.Send(Bytes{0xF5, 2}).data), "00031122080000");

    // A host that tries the plain form first under a change key gets a length
    // error, which ends its session, so its enciphered retry is refused too.
    ASSERT_EQ(Is(host_.Authenticate(1, kReadKey)), Is(0x00));
    const Bytes retry = Concat({Hex("5F 02"), host_.Encipher(Hex("00 11 22"))});
    EXPECT_EQ(Status(Hex("5F 02 00 11 22")), Is(0x7E));
    EXPECT_EQ(Status(retry), Is(0xAE));

    ASSERT_EQ(Is(host_.Authenticate(2, kWriteKey)), Is(0x00));
    EXPECT_EQ(Status(Concat({Hex("5F 02"), host_.Encipher(Hex("00 10 22"))})), Is(0xAE)) << "not the change key";
    EXPECT_EQ(Status(Hex("5F 03 00 EE EE")), Is(0x9D));
}
