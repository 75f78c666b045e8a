// The card as the reader sees it, and what survives Save and Load.
#include <functional>
#include <stdexcept>

#include "fixture.h"
#include "sim/desfire/desfire_card.h"

using namespace desfire_test;
using elatectwn4::sim::desfire::DesfireCard;

TEST(DesfireCardFactory, MakesAFactoryFreshCardWithASevenByteUid) {
    auto card = elatectwn4::sim::MakeDesfireCard({});
    EXPECT_EQ(card->Kind(), "desfire");
    EXPECT_EQ(ToHex(card->Atr()), "3B8180018080");
    ASSERT_EQ(card->Uid().size(), 7u);
    EXPECT_EQ(card->Uid()[0], 0x04);

    auto chosen = elatectwn4::sim::MakeDesfireCard(Hex("04112233445566"));
    EXPECT_EQ(ToHex(chosen->Uid()), "04112233445566");

    // Factory state: the all-zero DES master key, settings 0F, no applications.
    Host host(*chosen);
    EXPECT_EQ(ToHex(host.Send(Bytes{0x45}).data), "0F01");
    EXPECT_EQ(host.Send(Bytes{0x6A}).data.size(), 0u);
    // An EV1 of 4 KB: hardware and software versions, then the UID leading the production data.
    const Answer version = host.Exchange(Bytes{0x60});
    ASSERT_EQ(version.data.size(), 28u);
    EXPECT_EQ(ToHex(ByteSpan(version.data).first(21)),
              "04010101001805" + std::string("04010101041805") + "04112233445566");
    EXPECT_EQ(host.Authenticate(0, kZeroKey), 0x00);
    elatectwn4::sim::Block block{};
    EXPECT_EQ(chosen->MifareRead(4, block), elatectwn4::sim::sw::FunctionNotSupported) << "not a MIFARE Classic card";
}

class State : public CardTest {};

TEST_F(State, SaveAndLoadKeepEverythingCommittedAndNothingPending) {
    ASSERT_NO_FATAL_FAILURE(CreateApplication(0x0B, 3));
    ASSERT_EQ(Status(Hex("CD 01 03 1012 280000")), Is(0x00));  // enciphered, 40 bytes
    ASSERT_EQ(Status(Hex("CB 02 00 EEEE 080000")), Is(0x00));
    ASSERT_EQ(Status(Concat({Hex("CC 03 01 1012"), Le32(-50), Le32(500), Le32(-7), Bytes{0x03}})), Is(0x00));
    ASSERT_EQ(Status(Hex("C0 04 00 EEEE 030000 030000")), Is(0x00));
    ASSERT_EQ(Is(host_.Authenticate(1, kReadKey)), Is(0x00));
    Bytes data(40);
    for (int i = 0; i < 40; ++i)
        data[i] = static_cast<std::uint8_t>(0xC0 ^ i);
    ASSERT_EQ(Is(host_.SendChained(Concat({Hex("3D 01 000000 280000"), host_.Encipher(data)})).status), Is(0x00));
    ASSERT_EQ(Status(Concat({Hex("3D 02 000000 040000 11223344")})), Is(0x00));
    ASSERT_EQ(Status(Concat({Hex("DC 03"), Le32(3), host_.Mac(Le32(3))})), Is(0x00));
    ASSERT_EQ(Status(Hex("3B 04 000000 030000 AABBCC")), Is(0x00));
    ASSERT_EQ(Status(Bytes{0xC7}), Is(0x00));
    ASSERT_EQ(Status(Hex("3D 02 000000 040000 55667788")), Is(0x00));  // left pending

    const nlohmann::json saved = card_.Save();
    DesfireCard other(Hex("04A0A1A2A3A4A5"));
    other.Load(saved);
    EXPECT_EQ(other.Save(), saved) << "a loaded card saves the same document";

    Host h(other);
    ASSERT_EQ(Is(h.Select(kAid)), Is(0x00));
    ASSERT_EQ(Is(h.Authenticate(1, kReadKey)), Is(0x00));
    const Answer enciphered = h.Exchange(Hex("BD 01 000000 000000"));
    EXPECT_EQ(h.Decipher(enciphered.data, 40), data);
    EXPECT_EQ(ToHex(h.Exchange(Hex("BD 02 000000 000000")).data), "1122334400000000") << "the pending write is gone";
    const Answer value = h.Send(Hex("6C 03"));
    EXPECT_EQ(ToHex(value.data), ToHex(Concat({Le32(-10), h.Mac(Le32(-10))})));
    EXPECT_EQ(ToHex(h.Exchange(Hex("BB 04 000000 000000")).data), "AABBCC");
    EXPECT_EQ(ToHex(h.Send(Hex("F5 03")).data),
              ToHex(Concat({Hex("02 01 1012"), Le32(-50), Le32(500), Le32(3), Hex("03")})))
        << "limits, the limited credit earned by the debit, and the flags";
    EXPECT_EQ(Is(h.Authenticate(0, kAppMasterKey)), Is(0x00));
    EXPECT_EQ(ToHex(h.Send(Bytes{0x45}).data), "0B03");
}

TEST_F(State, LoadEndsTheSessionAndTheSelection) {
    ASSERT_NO_FATAL_FAILURE(CreateApplication(0x0D, 2));
    ASSERT_EQ(Status(Bytes{0x45}), Is(0x00));
    card_.Load(card_.Save());
    EXPECT_EQ(Status(Bytes{0x6F}), Is(0x9D)) << "card level again";
    ASSERT_EQ(Is(host_.Select(kAid)), Is(0x00));
    EXPECT_EQ(Status(Bytes{0x45}), Is(0xAE));
}

TEST_F(State, LoadRefusesMalformedDocumentsAndKeepsTheCard) {
    ASSERT_NO_FATAL_FAILURE(CreateApplication(0x0F, 2));
    ASSERT_EQ(Status(Hex("C1 01 00 EEEE 020000 020000")), Is(0x00));
    ASSERT_EQ(Status(Hex("3B 01 000000 020000 0102")), Is(0x00));
    ASSERT_EQ(Status(Bytes{0xC7}), Is(0x00));
    ASSERT_EQ(Status(Concat({Hex("CC 02 00 EEEE"), Le32(0), Le32(10), Le32(5), Bytes{0x00}})), Is(0x00));
    const nlohmann::json good = card_.Save();
    struct Case {
        const char* what;
        std::function<void(nlohmann::json&)> spoil;
    } const cases[] = {
        {"another kind", [](nlohmann::json& j) { j["kind"] = "mifare1k"; }},
        {"key of 15 bytes", [](nlohmann::json& j) { j["piccKey"] = std::string(30, '0'); }},
        {"application id zero", [](nlohmann::json& j) { j["applications"][0]["aid"] = "000000"; }},
        {"repeated application", [](nlohmann::json& j) { j["applications"].push_back(j["applications"][0]); }},
        {"unknown file type", [](nlohmann::json& j) { j["applications"][0]["files"][0]["type"] = "folder"; }},
        {"record of the wrong size", [](nlohmann::json& j) { j["applications"][0]["files"][0]["records"][0] = "01"; }},
        {"value outside its limits", [](nlohmann::json& j) { j["applications"][0]["files"][1]["value"] = 11; }},
    };
    for (const auto& c : cases) {
        nlohmann::json doc = good;
        c.spoil(doc);
        EXPECT_THROW(card_.Load(doc), std::runtime_error) << c.what;
    }
    EXPECT_EQ(card_.Save(), good) << "a refused document changes nothing";
}
