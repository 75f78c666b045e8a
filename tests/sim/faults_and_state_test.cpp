// Injected faults, and a card's contents kept across runs as JSON.
#include <gtest/gtest.h>

#include "apdu_helpers.h"
#include "sim/mifare_classic.h"
#include "sim/simulated_pcsc.h"

namespace {

using namespace elatectwn4;
using namespace elatectwn4::sim;
using namespace simtest;

Faults Garbage() {
    Faults f;
    f.garbageAnswers = true;
    return f;
}

TEST(Faults, DistortAnswersButNotWhatTheCardDid) {
    Faults truncated, delayed;
    truncated.truncatedAnswers = true;
    delayed.delay = std::chrono::milliseconds(5);
    struct Row {
        const char* name;
        Faults faults;
        // Checks the answer to a block write and to GET DATA.
        void (*check)(const Bytes& write, const Bytes& uid);
    } rows[] = {
        {"garbage", Garbage(),
         [](const Bytes& write, const Bytes& uid) {
             EXPECT_EQ(write.size(), 2u);
             EXPECT_NE(H(write), "9000");
             EXPECT_EQ(uid.size(), 6u);
             EXPECT_NE(H(uid), "CF1E2D3C9000");
         }},
        {"truncated", truncated,
         [](const Bytes& write, const Bytes& uid) {
             EXPECT_EQ(H(write), "90");
             EXPECT_EQ(H(uid), "CF");
         }},
        {"delayed", delayed,
         [](const Bytes& write, const Bytes& uid) {
             EXPECT_EQ(H(write), "9000");
             EXPECT_EQ(H(uid), "CF1E2D3C9000");
         }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        auto card = std::make_shared<MifareClassicCard>(false, B("CF1E2D3C"));
        Reader reader{"test"};
        reader.Insert(card);
        ASSERT_EQ(Open(reader, 4, 'A', "FFFFFFFFFFFF"), "9000");
        reader.SetFaults(row.faults);
        const Bytes write = reader.Transmit(B(Write(4, "0123456789ABCDEF0123456789ABCDEF")));
        const Bytes uid = reader.Transmit(B("FF CA 00 00 00"));
        row.check(write, uid);
        EXPECT_EQ(H(card->RawBlock(4)), "0123456789ABCDEF0123456789ABCDEF") << "the write reached the card";
    }
}

TEST(Faults, GarbageReplaysIdenticallyOnAFreshReader) {
    auto run = [] {
        Reader reader{"test"};
        reader.Insert(MakeCard("mifare1k"));
        reader.SetFaults(Garbage());
        std::string answers;
        for (int i = 0; i < 4; ++i)
            answers += H(reader.Transmit(B("FF CA 00 00 00"))) + " ";
        return answers;
    };
    const std::string first = run();
    EXPECT_EQ(first, run());
    EXPECT_EQ(first.find("CF1E2D3C9000"), std::string::npos);
}

TEST(Faults, EndlessMoreFramesAnswersEveryDesfireFrameAndSparesReaderCommands) {
    Reader reader{"test"};
    reader.Insert(MakeCard("mifare1k"));
    Faults endless;
    endless.endlessMoreFrames = true;
    reader.SetFaults(endless);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Answer(reader, "AF"), "AF");
        EXPECT_EQ(Answer(reader, "90 AF 00 00 00"), "91AF");
    }
    EXPECT_EQ(Answer(reader, "60"), "AF");
    EXPECT_EQ(Answer(reader, "FF CA 00 00 00"), "CF1E2D3C9000");
}

TEST(Faults, ACorruptedCommandLosesTheLastByteOfItsAnswersDataAndNothingElse) {
    Reader reader{"test"};
    reader.Insert(MakeCard("desfire"));
    Faults corrupt;
    corrupt.corruptAnswersTo = 0x60;
    reader.SetFaults(corrupt);
    EXPECT_EQ(Answer(reader, "60"), "AF040101010018FA");
    EXPECT_EQ(Answer(reader, "AF"), "AF04010101041805") << "the continuation is another command";
    EXPECT_EQ(Answer(reader, "AF").substr(0, 16), "00045A3B2C1D0E80");
    EXPECT_EQ(Answer(reader, "6A"), "00");
    EXPECT_EQ(Answer(reader, "90 60 00 00 00"), "040101010018FA91AF");
    EXPECT_EQ(Answer(reader, "FF CA 00 00 07"), "045A3B2C1D0E809000");
}

TEST(Faults, ACardLostBeforeAnExchangeNeverSeesItAndOneLostAfterItDidTheWork) {
    for (const bool afterAnswer : {false, true}) {
        SCOPED_TRACE(afterAnswer ? "after" : "before");
        auto card = std::make_shared<MifareClassicCard>(false, B("CF1E2D3C"));
        Reader reader{"test"};
        reader.Insert(card);
        ASSERT_EQ(Open(reader, 4, 'A', "FFFFFFFFFFFF"), "9000");
        const std::uint64_t before = reader.ExchangeCount();
        Faults loss;
        loss.cardLoss = CardLoss{1, afterAnswer};
        reader.SetFaults(loss);
        EXPECT_EQ(Answer(reader, "FF CA 00 00 00"), "CF1E2D3C9000") << "exchange 0 is not the one";
        const FieldSession session = reader.CurrentSession();
        Bytes answer{0x55};
        EXPECT_EQ(reader.TransmitIn(session, B(Write(4, "0123456789ABCDEF0123456789ABCDEF")), answer),
                  Reader::Delivery::CardGone);
        EXPECT_TRUE(answer.empty());
        EXPECT_FALSE(reader.HasCard());
        EXPECT_EQ(H(card->RawBlock(4)), afterAnswer ? "0123456789ABCDEF0123456789ABCDEF" : std::string(32, '0'));
        EXPECT_EQ(reader.ExchangeCount(), before + 2);

        reader.Insert(card);  // one shot: back in the field, the card answers again
        EXPECT_EQ(Answer(reader, "FF CA 00 00 00"), "CF1E2D3C9000");
        EXPECT_EQ(reader.ExchangeCount(), before + 3);
    }
}

// Sector 1 with its own keys and data, as a test personalises it.
void Personalise(Reader& reader) {
    ASSERT_EQ(Open(reader, 4, 'A', "FFFFFFFFFFFF"), "9000");
    ASSERT_EQ(Answer(reader, Write(5, "00112233445566778899AABBCCDDEEFF")), "9000");
    ASSERT_EQ(Answer(reader, Write(7,
                                   "A0A1A2A3A4A5"
                                   "787788"
                                   "42"
                                   "B0B1B2B3B4B5")),
              "9000");
}

TEST(CardState, SavedContentsComeBackInAnotherCard) {
    for (const char* kind : {"mifare1k", "mifare4k"}) {
        SCOPED_TRACE(kind);
        Reader reader{"first"};
        auto original = MakeCard(kind, B("11223344"));
        reader.Insert(original);
        Personalise(reader);
        const nlohmann::json saved = original->Save();
        EXPECT_EQ(saved.at("kind"), kind);
        EXPECT_EQ(saved.at("uid"), "11223344");
        EXPECT_EQ(saved.at("blocks").size(), std::string(kind) == "mifare1k" ? 64u : 256u);
        EXPECT_EQ(saved.at("blocks").at(7), "A0A1A2A3A4A578778842B0B1B2B3B4B5") << "keys are kept in the state";

        auto restored = MakeCard(kind);  // another UID: the state brings its own
        restored->Load(nlohmann::json::parse(saved.dump()));
        EXPECT_EQ(restored->Save(), saved);
        Reader later{"second"};
        later.Insert(restored);
        EXPECT_EQ(Answer(later, "FF CA 00 00 00"), "112233449000");
        EXPECT_EQ(Open(later, 5, 'A', "FFFFFFFFFFFF"), "6300");
        ASSERT_EQ(Open(later, 5, 'B', "B0B1B2B3B4B5"), "9000");
        EXPECT_EQ(Answer(later, Read(5)), "00112233445566778899AABBCCDDEEFF9000");
    }
}

TEST(CardState, MalformedDocumentsAreRefusedAndLeaveTheCardAsItWas) {
    const nlohmann::json good = MakeCard("mifare1k")->Save();
    auto with = [&](const char* key, nlohmann::json value) {
        nlohmann::json doc = good;
        doc[key] = std::move(value);
        return doc;
    };
    auto withBlock = [&](std::size_t index, nlohmann::json value) {
        nlohmann::json doc = good;
        doc["blocks"][index] = std::move(value);
        return doc;
    };
    nlohmann::json shortList = good;
    shortList["blocks"].erase(shortList["blocks"].begin());
    nlohmann::json noUid = good;
    noUid.erase("uid");
    const nlohmann::json rows[] = {
        nlohmann::json::array(),
        with("kind", "mifare4k"),
        with("kind", 1),
        noUid,
        with("uid", "CF1E2D3"),
        with("uid", "CF1E2D3C00"),
        with("uid", "11223344"),  // block 0 holds another UID
        shortList,
        withBlock(4, "0011"),
        withBlock(4, "G0000000000000000000000000000000"),
        withBlock(4, 16),
    };
    for (const auto& doc : rows) {
        auto card = MakeCard("mifare1k");
        Reader reader{"test"};
        reader.Insert(card);
        Personalise(reader);
        const nlohmann::json before = card->Save();
        EXPECT_THROW(card->Load(doc), std::runtime_error) << doc.dump().substr(0, 80);
        EXPECT_EQ(card->Save(), before);
    }
}

TEST(CardState, LoadingEndsTheCurrentAuthentication) {
    auto card = MakeCard("mifare1k");
    Reader reader{"test"};
    reader.Insert(card);
    ASSERT_EQ(Open(reader, 4, 'A', "FFFFFFFFFFFF"), "9000");
    card->Load(card->Save());
    EXPECT_EQ(Answer(reader, Read(4)), "6982");
}

}  // namespace
