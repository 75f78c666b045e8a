// The in-process resource manager's answers, injected faults, and a card's
// contents kept across runs as JSON.
#include <gtest/gtest.h>

#include "apdu_helpers.h"
#include "sim/mifare_classic.h"
#include "sim/simulated_pcsc.h"

namespace {

using namespace elatectwn4;
using namespace elatectwn4::sim;
using namespace simtest;
using namespace pcsc_const;

constexpr const char* kReader0 = "Virtual PCD 00 00";

std::string Code(std::uint32_t code) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", code);
    return text;
}

struct Pcsc {
    SimulatedPcsc pcsc;
    PcscHandle context = 0;
    std::uint32_t protocol = 0;

    Pcsc() {
        EXPECT_EQ(pcsc.EstablishContext(ScopeSystem, context), pcsc_code::Success);
        pcsc.FindReader(kReader0)->Insert(MakeCard("mifare1k"));
    }
    std::string Connect(PcscHandle& card, std::uint32_t share = ShareExclusive, PcscHandle ctx = 0,
                        const std::string& reader = kReader0) {
        return Code(pcsc.Connect(ctx ? ctx : context, reader, share, ProtocolT1, card, protocol));
    }
    // The answer as hex, or the PC/SC code when the transmission failed.
    std::string Send(PcscHandle card, std::string_view apdu) {
        std::array<std::uint8_t, MaxAnswer> buffer{};
        std::size_t received = buffer.size();
        const auto rc = pcsc.Transmit(card, ProtocolT1, B(apdu), buffer, received);
        return rc != pcsc_code::Success ? Code(rc) : H(std::span(buffer).first(received));
    }
    std::string State(PcscHandle card) {
        PcscStatus status;
        return Code(pcsc.Status(card, status));
    }
};

TEST(SimulatedPcsc, RefusalsCarryTheResourceManagersCodes) {
    Pcsc p;
    std::vector<std::string> readers;
    ASSERT_EQ(p.pcsc.ListReaders(p.context, readers), pcsc_code::Success);
    EXPECT_EQ(readers, (std::vector<std::string>{kReader0, "Virtual PCD 00 01"}));
    PcscHandle card = 0, other = 0;
    EXPECT_EQ(Code(p.pcsc.EstablishContext(7, other)), "0x80100011");
    EXPECT_EQ(p.Connect(card, ShareExclusive, 0, "Virtual PCD 00 02"), "0x80100009");
    EXPECT_EQ(p.Connect(card, ShareExclusive, 0, "Virtual PCD 00 01"), "0x8010000C");
    EXPECT_EQ(p.Connect(card, ShareExclusive, p.context + 1000), "0x80100003");
    EXPECT_EQ(Code(p.pcsc.Connect(p.context, kReader0, 1, ProtocolT0, card, p.protocol)), "0x8010000F");
    EXPECT_EQ(p.Connect(card, 3), "0x80100011");
    EXPECT_EQ(card, 0) << "a refused connection hands out no handle";

    ASSERT_EQ(p.Connect(card), "0x00000000");
    EXPECT_EQ(p.protocol, ProtocolT1);
    const auto command = B("FF CA 00 00 00");
    std::array<std::uint8_t, 16> buffer{};
    std::size_t received = 5;  // one byte short of the answer
    EXPECT_EQ(Code(p.pcsc.Transmit(card, ProtocolT1, command, buffer, received)), "0x80100008");
    EXPECT_EQ(received, 6u) << "the length the answer needs";
    received = buffer.size();
    EXPECT_EQ(Code(p.pcsc.Transmit(card, ProtocolT0, command, buffer, received)), "0x8010000F");
    EXPECT_EQ(Code(p.pcsc.Transmit(card, ProtocolT1, {}, buffer, received)), "0x80100004");
    EXPECT_EQ(p.Send(card + 1000, "FF CA 00 00 00"), "0x80100003");

    ASSERT_EQ(p.pcsc.ReleaseContext(p.context), pcsc_code::Success);
    EXPECT_EQ(Code(p.pcsc.ReleaseContext(p.context)), "0x80100003");
    EXPECT_EQ(p.Send(card, "FF CA 00 00 00"), "0x80100003") << "the context took its cards along";
    SimulatedPcsc none{std::vector<std::string>{}};
    ASSERT_EQ(none.EstablishContext(ScopeSystem, other), pcsc_code::Success);
    EXPECT_EQ(Code(none.ListReaders(other, readers)), "0x8010002E");
}

TEST(SimulatedPcsc, ExclusiveShareExcludesEveryOtherConnectionUntilItEnds) {
    const std::uint32_t rows[][3] = {{ShareExclusive, ShareExclusive, 0x8010000B},
                                     {ShareExclusive, ShareShared, 0x8010000B},
                                     {ShareShared, ShareExclusive, 0x8010000B},
                                     {ShareShared, ShareShared, 0}};
    for (const auto& [first, second, result] : rows) {
        Pcsc p;
        PcscHandle other = 0, a = 0, b = 0;
        ASSERT_EQ(p.pcsc.EstablishContext(ScopeSystem, other), pcsc_code::Success);
        EXPECT_NE(other, p.context);
        ASSERT_EQ(p.Connect(a, first), "0x00000000");
        EXPECT_EQ(p.Connect(b, second, other), Code(result));
        EXPECT_EQ(p.pcsc.Disconnect(a, LeaveCard), pcsc_code::Success);
        if (b) {
            EXPECT_EQ(p.pcsc.Disconnect(b, LeaveCard), pcsc_code::Success);
        }
        EXPECT_EQ(p.Connect(b, second, other), "0x00000000");
    }
}

TEST(SimulatedPcsc, StatusAndAttributesDescribeTheReaderAndCard) {
    Pcsc p;
    p.pcsc.FindReader(kReader0)->Insert(MakeCard("mifare4k"));
    PcscHandle card = 0;
    ASSERT_EQ(p.Connect(card), "0x00000000");
    PcscStatus status;
    ASSERT_EQ(p.pcsc.Status(card, status), pcsc_code::Success);
    EXPECT_EQ(status.readerName, kReader0);
    EXPECT_EQ(status.state, 0x34u);  // present, powered, negotiable
    EXPECT_EQ(status.protocol, ProtocolT1);
    EXPECT_EQ(H(status.atr), "3B8F8001804F0CA0000003060300020000000069");
    const std::pair<std::uint32_t, std::string> rows[] = {
        {AttrAtrString, "3B8F8001804F0CA0000003060300020000000069"},
        {AttrDeviceFriendlyName, "5669727475616C2050434420303020303000"},  // the name, NUL-terminated
        {AttrVendorIfdVersion, "00000001"},
        {AttrVendorIfdSerialNo, "53494D303030303000"},  // "SIM00000"
        {AttrVendorName,
         H(std::span(reinterpret_cast<const std::uint8_t*>(kSimVendorName.data()), kSimVendorName.size() + 1))},
        {0x00010104, "0x8010001F"},
    };
    for (const auto& [attribute, expected] : rows) {
        std::vector<std::uint8_t> value;
        const auto rc = p.pcsc.GetAttrib(card, attribute, value);
        EXPECT_EQ(rc == pcsc_code::Success ? H(value) : Code(rc), expected) << Code(attribute);
    }
    p.pcsc.SetAtrAttributeSupported(false);
    std::vector<std::uint8_t> atr;
    EXPECT_EQ(Code(p.pcsc.GetAttrib(card, AttrAtrString, atr)), "0x8010001F");
    EXPECT_EQ(Code(p.pcsc.GetAttrib(card + 1000, AttrVendorName, atr)), "0x80100003");
}

TEST(SimulatedPcsc, RemovalOrResetFailsTheHandleUntilItReconnectsToAFreshlyPoweredCard) {
    for (const bool removal : {true, false}) {
        SCOPED_TRACE(removal ? "removal" : "reset");
        Pcsc p;
        auto reader = p.pcsc.FindReader(kReader0);
        PcscHandle card = 0, other = 0;
        ASSERT_EQ(p.Connect(card, ShareShared), "0x00000000");
        ASSERT_EQ(p.Connect(other, ShareShared), "0x00000000");
        EXPECT_EQ(p.Send(card, LoadKey(1, "FFFFFFFFFFFF")), "9000");
        EXPECT_EQ(p.Send(card, Auth(4, 'A')), "9000");
        if (removal) reader->Insert(reader->CurrentCard());  // out and back in
        ASSERT_EQ(p.pcsc.Disconnect(other, removal ? LeaveCard : ResetCard), pcsc_code::Success);
        const char* code = removal ? "0x80100069" : "0x80100068";
        EXPECT_EQ(p.Send(card, Read(4)), code);
        EXPECT_EQ(p.State(card), code);
        ASSERT_EQ(p.pcsc.Disconnect(card, LeaveCard), pcsc_code::Success);
        ASSERT_EQ(p.Connect(card), "0x00000000");
        EXPECT_EQ(p.Send(card, Read(4)), "6982") << "the authentication ended with the field";
        EXPECT_EQ(p.Send(card, Auth(4, 'A')), "9000") << "the key slot is the reader's";
    }
}

TEST(Faults, DistortAnswersButNotWhatTheCardDid) {
    Faults garbage, truncated, delayed;
    garbage.garbageAnswers = true;
    truncated.truncatedAnswers = true;
    delayed.delay = std::chrono::milliseconds(5);
    const std::tuple<Faults, const char*, const char*> rows[] = {
        {garbage, "6088", "4376C35B7D83"}, {truncated, "90", "CF"}, {delayed, "9000", "CF1E2D3C9000"}};
    for (const auto& [faults, write, uid] : rows) {
        auto card = std::make_shared<MifareClassicCard>(false, B("CF1E2D3C"));
        Reader reader{"test"};
        reader.Insert(card);
        ASSERT_EQ(Open(reader, 4, 'A', "FFFFFFFFFFFF"), "9000");
        reader.SetFaults(faults);
        EXPECT_EQ(Answer(reader, Write(4, "0123456789ABCDEF0123456789ABCDEF")), write);
        EXPECT_EQ(Answer(reader, "FF CA 00 00 00"), uid);
        EXPECT_EQ(H(card->RawBlock(4)), "0123456789ABCDEF0123456789ABCDEF") << "the write reached the card";
    }
}

TEST(Faults, DesfireFramesGetEndlessMoreFramesOrLoseTheLastDataByteOfOneCommand) {
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
    Faults endless;
    endless.endlessMoreFrames = true;
    reader.SetFaults(endless);
    EXPECT_EQ(Answer(reader, "AF"), "AF");
    EXPECT_EQ(Answer(reader, "90 AF 00 00 00"), "91AF");
    EXPECT_EQ(Answer(reader, "FF CA 00 00 07"), "045A3B2C1D0E809000");
}

// Sector 1 with its own keys and data, as a test personalises it.
void Personalise(Reader& reader) {
    ASSERT_EQ(Open(reader, 4, 'A', "FFFFFFFFFFFF"), "9000");
    ASSERT_EQ(Answer(reader, Write(5, "00112233445566778899AABBCCDDEEFF")), "9000");
    ASSERT_EQ(Answer(reader, Write(7,
                                   "A0A1A2A3A4A5787788"
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
        EXPECT_EQ(saved.at("blocks").size(), std::string(kind) == "mifare1k" ? 64u : 256u);
        EXPECT_EQ(saved.at("blocks").at(7), "A0A1A2A3A4A578778842B0B1B2B3B4B5") << "keys are kept in the state";

        auto restored = MakeCard(kind);  // another UID: the state brings its own
        Reader later{"second"};
        later.Insert(restored);
        ASSERT_EQ(Open(later, 4, 'A', "FFFFFFFFFFFF"), "9000");
        restored->Load(nlohmann::json::parse(saved.dump()));
        EXPECT_EQ(Answer(later, Read(4)), "6982") << "loading ends the authentication";
        EXPECT_EQ(restored->Save(), saved);
        EXPECT_EQ(Answer(later, "FF CA 00 00 00"), "112233449000");
        ASSERT_EQ(Open(later, 5, 'B', "B0B1B2B3B4B5"), "9000");
        EXPECT_EQ(Answer(later, Read(5)), "00112233445566778899AABBCCDDEEFF9000");
    }
}

TEST(CardState, MalformedDocumentsAreRefusedAndLeaveTheCardAsItWas) {
    const nlohmann::json good = MakeCard("mifare1k")->Save();
    // Each a JSON Patch operation on a good document.
    const char* const rows[] = {
        R"({"op": "replace", "path": "", "value": []})",
        R"({"op": "remove", "path": "/uid"})",
        R"({"op": "replace", "path": "/kind", "value": "mifare4k"})",
        R"({"op": "replace", "path": "/kind", "value": 1})",
        R"({"op": "replace", "path": "/uid", "value": "CF1E2D3"})",
        R"({"op": "replace", "path": "/uid", "value": "CF1E2D3C00"})",
        R"({"op": "replace", "path": "/uid", "value": "11223344"})",  // block 0 holds another UID
        R"({"op": "remove", "path": "/blocks/0"})",
        R"({"op": "replace", "path": "/blocks/4", "value": "0011"})",
        R"({"op": "replace", "path": "/blocks/4", "value": "G0000000000000000000000000000000"})",
        R"({"op": "replace", "path": "/blocks/4", "value": 16})",
    };
    for (const char* patch : rows) {
        const nlohmann::json doc = good.patch(nlohmann::json::array({nlohmann::json::parse(patch)}));
        auto card = MakeCard("mifare1k");
        Reader reader{"test"};
        reader.Insert(card);
        Personalise(reader);
        const nlohmann::json before = card->Save();
        EXPECT_THROW(card->Load(doc), std::runtime_error) << patch;
        EXPECT_EQ(card->Save(), before);
    }
}

}  // namespace
