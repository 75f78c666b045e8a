// The public Encoder over the system's PC/SC, and the twn4 tool, against the
// simulated cards that run_e2e.sh serves through pcscd and vpcd: a DESFire
// card and a MIFARE Classic 1K card, the latter with a control socket that
// takes it out of the field and puts it back.
//
// Expected values are built here from the card's own rules (value-block
// layout, access bits, block 0) or taken from the simulator's reference
// implementation and the bridge's state file, never from the component.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <latch>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "e2e_support.h"
#include "elatectwn4/encoder.h"
#include "sim/bridge/state_file.h"
#include "sim/mifare_classic.h"
#include "sim/reader.h"

namespace {

using namespace elatectwn4;
using namespace elatectwn4::e2e;

const std::string TransportKey = "FFFFFFFFFFFF";
const std::string MifareAtrFragment = "3B 8F 80 01 80 4F 0C A0 00 00 03 06 03 00 01";
const std::string CardTypesKey =
    "[HKEY_LOCAL_MACHINE\\Software\\Brantwick Systems\\Pellucid\\7.0\\Contactless\\Card types]";

// Set by main() before any test runs.
std::filesystem::path RegistryFile;

std::int32_t Signed(std::uint32_t code) {
    return static_cast<std::int32_t>(code);
}

std::string Lower(std::string text) {
    for (auto& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

Bytes RandomBytes(std::size_t count) {
    static std::mt19937 generator{std::random_device{}()};
    Bytes bytes(count);
    for (auto& b : bytes)
        b = static_cast<std::uint8_t>(generator());
    return bytes;
}

std::string RandomBlock() {
    return Hex(RandomBytes(16));
}

// The record as one comparable text, so that a mismatch shows every field.
std::string Describe(const CError& e) {
    return "Number=" + std::to_string(e.Number) + " Description=\"" + e.Description +
           "\" LastDllError=" + std::to_string(e.LastDllError) + " ComFunction=\"" + e.ComFunction +
           "\" RdrCommand=\"" + e.RdrCommand + "\" RdrRetCode=\"" + e.RdrRetCode + "\"";
}

CError Record(ErrorNumber number, std::string comFunction, std::string rdrCommand = {}, std::string rdrRetCode = {},
              std::int32_t lastDllError = 0) {
    CError e;
    e.Number = ErrorValue(number);
    e.Description = std::string(ErrorDescription(number));
    e.LastDllError = lastDllError;
    e.ComFunction = std::move(comFunction);
    e.RdrCommand = std::move(rdrCommand);
    e.RdrRetCode = std::move(rdrRetCode);
    return e;
}

// Bytes 6 to 8 of a trailer for the conditions C1C2C3 (as C1*4+C2*2+C3) of
// blocks 0 to 3: the card's layout with the inverted copies.
std::string AccessBytes(std::array<int, 4> conditions) {
    unsigned c1 = 0, c2 = 0, c3 = 0;
    for (unsigned b = 0; b < 4; ++b) {
        c1 |= ((conditions[b] >> 2) & 1u) << b;
        c2 |= ((conditions[b] >> 1) & 1u) << b;
        c3 |= (conditions[b] & 1u) << b;
    }
    const auto b6 = static_cast<std::uint8_t>((~c1 & 0xF) | ((~c2 & 0xF) << 4));
    const auto b7 = static_cast<std::uint8_t>((~c3 & 0xF) | (c1 << 4));
    const auto b8 = static_cast<std::uint8_t>(c2 | (c3 << 4));
    return Hex({b6, b7, b8});
}

// The 16 bytes of a value block: value, inverse, value (least significant
// byte first), then the address FF, its inverse, FF, its inverse.
std::string ValueBlock(std::int32_t value) {
    const auto v = static_cast<std::uint32_t>(value);
    Bytes bytes;
    for (int i = 0; i < 4; ++i)
        bytes.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    for (int i = 0; i < 4; ++i)
        bytes.push_back(static_cast<std::uint8_t>(~(v >> (8 * i))));
    for (int i = 0; i < 4; ++i)
        bytes.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    for (const std::uint8_t b : {0xFF, 0x00, 0xFF, 0x00})
        bytes.push_back(b);
    return Hex(bytes);
}

// A block as the bridge stored it after its last change (trailers with their
// keys), read from its state file.
std::string StoredBlock(const std::string& stateFile, unsigned block) {
    const auto state = sim::bridge::ReadStateFile(stateFile);
    if (!state) return "<no state file " + stateFile + ">";
    auto card = sim::MakeCard("mifare1k");
    card->Load(*state);
    const auto* classic = dynamic_cast<const sim::MifareClassicCard*>(card.get());
    if (classic == nullptr) return "<not a MIFARE Classic card>";
    const auto& raw = classic->RawBlock(block);
    return Hex(Bytes(raw.begin(), raw.end()));
}

// Block 0 of a fresh card with `uid`, as the simulator's own reader reads it.
Bytes ReferenceBlockZero(const Bytes& uid) {
    sim::Reader reader("reference");
    reader.Insert(sim::MakeCard("mifare1k", uid));
    const Bytes loadKey{0xFF, 0x82, 0x00, 0x01, 0x06, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    const Bytes authenticate{0xFF, 0x86, 0x00, 0x00, 0x05, 0x01, 0x00, 0x00, 0x60, 0x01};
    const Bytes read{0xFF, 0xB0, 0x00, 0x00, 0x00};
    reader.Transmit(loadKey);
    reader.Transmit(authenticate);
    Bytes answer = reader.Transmit(read);
    if (answer.size() != 18) return {};
    answer.resize(16);
    return answer;
}

// Puts the MIFARE card back into the field when a test leaves early.
class PutBack {
public:
    explicit PutBack(std::string socket) : socket_(std::move(socket)) {}
    ~PutBack() { Control(socket_, "insert"); }
    PutBack(const PutBack&) = delete;
    PutBack& operator=(const PutBack&) = delete;

private:
    std::string socket_;
};

class EncoderSession : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(setup_.Complete()) << "run this program through run_e2e.sh, which starts pcscd and the bridges";
        ASSERT_TRUE(WaitForCard(setup_.mifareReader, true)) << "no card in " << setup_.mifareReader;
    }

    static std::string MifareAtr() { return SpacedHex(sim::MakeCard("mifare1k")->Atr()); }

    E2eSetup setup_;
};

TEST_F(EncoderSession, OpeningTheMifareReaderReportsTheCardsIdentity) {
    Encoder encoder(SystemPcsc());
    EXPECT_EQ(encoder.EncoderState(), sceClosed);
    encoder.Parameters("Device=" + setup_.mifareReader);

    ASSERT_EQ(encoder.OpenEncoder(), sceSuccess) << Describe(encoder.LastError());
    EXPECT_EQ(encoder.LastError().Number, 0) << Describe(encoder.LastError());
    EXPECT_EQ(encoder.EncoderState(), sceReady);
    EXPECT_EQ(encoder.LastError().Number, 0);
    EXPECT_EQ(encoder.LastError().ComFunction, "EncoderState");

    EXPECT_EQ(encoder.ATRString(), MifareAtr());
    EXPECT_EQ(encoder.ATRString().rfind(MifareAtrFragment, 0), 0u) << encoder.ATRString();
    EXPECT_EQ(encoder.CardType(), sceMifare1K);
    EXPECT_EQ(encoder.SerialNumberLength(), 4);

    std::string uid = "left over";
    ASSERT_EQ(encoder.ReadSerialNumber(uid), sceSuccess) << Describe(encoder.LastError());
    EXPECT_EQ(uid, setup_.mifareUid);
    EXPECT_EQ(encoder.LastError().Number, 0);
    EXPECT_EQ(encoder.LastError().ComFunction, "ReadSerialNumber");

    // The raw reader command comes back whole, status word included.
    std::string raw;
    ASSERT_EQ(encoder.Escape("FF CA 00 00 00", raw), sceSuccess) << Describe(encoder.LastError());
    EXPECT_EQ(raw, setup_.mifareUid + "9000");

    EXPECT_EQ(encoder.CloseEncoder(), sceSuccess);
    EXPECT_EQ(encoder.EncoderState(), sceClosed);
    // A known ATR is never recorded as a new card.
    EXPECT_EQ(ReadFile(RegistryFile).find("Unknown ("), std::string::npos) << ReadFile(RegistryFile);
}

TEST_F(EncoderSession, TheDesfireCardMatchesNoRegisteredTypeAndIsNotRecorded) {
    Encoder encoder(SystemPcsc());
    encoder.Parameters("Device=" + setup_.desfireReader);
    ASSERT_EQ(encoder.OpenEncoder(), sceSuccess) << Describe(encoder.LastError());
    EXPECT_EQ(encoder.ATRString(), SpacedHex(sim::MakeCard("desfire")->Atr()));
    EXPECT_EQ(encoder.CardType(), sceUnknownType) << "only the MIFARE Classic 1K type is registered";
    std::string uid;
    ASSERT_EQ(encoder.ReadSerialNumber(uid), sceSuccess) << Describe(encoder.LastError());
    EXPECT_EQ(uid, setup_.desfireUid);
    EXPECT_EQ(ReadFile(RegistryFile).find("Unknown ("), std::string::npos)
        << "recorded although \"Add new cards\" is absent:\n"
        << ReadFile(RegistryFile);
}

TEST_F(EncoderSession, ADesfireCardIsSecuredAndGetsAnApplicationWithKeysOfItsOwn) {
    ASSERT_TRUE(WaitForCard(setup_.desfireReader, true)) << "no card in " << setup_.desfireReader;
    const std::string factoryKey = "0000000000000000";
    const std::string piccKey = "4A1B7C3D5E6F708192A3B4C5D6E7F809";
    const std::string readKey = "0F1E2D3C4B5A69788796A5B4C3D2E1F0";
    Encoder encoder(SystemPcsc());
    encoder.Parameters("Device=" + setup_.desfireReader);
    ASSERT_EQ(encoder.OpenEncoder(), sceSuccess) << Describe(encoder.LastError());
    const auto ok = [&](sceReturnCode result) {
        EXPECT_EQ(result, sceSuccess) << Describe(encoder.LastError());
        return result == sceSuccess;
    };

    Variant uid;
    ASSERT_TRUE(ok(encoder.DESFireGetVersion(dfvUID, uid)));
    ASSERT_TRUE(std::holds_alternative<std::vector<std::uint8_t>>(uid));
    EXPECT_EQ(Hex(std::get<std::vector<std::uint8_t>>(uid)), setup_.desfireUid);

    ASSERT_TRUE(ok(encoder.DESFireSelectRoot(factoryKey)));
    ASSERT_TRUE(ok(encoder.DESFireChangeKey(0, factoryKey, piccKey)));
    EXPECT_EQ(encoder.DESFireSelectRoot(factoryKey), sceError);
    EXPECT_EQ(Describe(encoder.LastError()),
              Describe(Record(ErrorNumber::AuthenticationFailure, "DESFireSelectRoot:DESFireSelectApplication",
                              "DesfireAuthenticate3", "AE")));
    ASSERT_TRUE(ok(encoder.DESFireSelectRoot(piccKey)));
    ASSERT_TRUE(ok(encoder.DESFireCreateApplication("A1B2C3", DesfireKeySettings(0x0F), 3)));
    std::string applications;
    ASSERT_TRUE(ok(encoder.DESFireGetApplications(applications)));
    EXPECT_EQ(applications, "A1B2C3");

    // Another key than the session's: refused in the component's own frame,
    // taken in the cards' one.
    ASSERT_TRUE(ok(encoder.DESFireSelectApplication("A1B2C3", 0, factoryKey)));
    EXPECT_EQ(encoder.DESFireChangeKey(1, factoryKey, readKey), sceError);
    EXPECT_EQ(Describe(encoder.LastError()), Describe(Record(ErrorNumber::OperationFailed, "DESFireChangeKey",
                                                             "SCardTransmit:DesfireChangeKey", "7E")));
    encoder.Parameters("Conformance=card");
    ASSERT_TRUE(ok(encoder.DESFireSelectApplication("A1B2C3", 0, factoryKey)));
    ASSERT_TRUE(ok(encoder.DESFireChangeKey(1, factoryKey, readKey)));
    ASSERT_TRUE(ok(encoder.DESFireSelectApplication("A1B2C3", 1, readKey)));
    std::int32_t settings = -1, count = -1;
    ASSERT_TRUE(ok(encoder.DESFireGetKeySettings(settings, count)));
    EXPECT_EQ(settings, 0x0F);
    EXPECT_EQ(count, 3);

    // The card as it was found: no application, the factory key.
    ASSERT_TRUE(ok(encoder.DESFireSelectRoot(piccKey)));
    ASSERT_TRUE(ok(encoder.DESFireChangeKeySettings(DesfireKeySettings(0x0F))));
    ASSERT_TRUE(ok(encoder.DESFireDeleteApplication("A1B2C3")));
    ASSERT_TRUE(ok(encoder.DESFireGetApplications(applications)));
    EXPECT_EQ(applications, "");
    ASSERT_TRUE(ok(encoder.DESFireChangeKey(0, piccKey, factoryKey)));
    EXPECT_TRUE(ok(encoder.DESFireSelectRoot(factoryKey)));
}

TEST_F(EncoderSession, WithTheCardRemovedTheEncoderOpensWithoutACardAndIsReadyOnceItReturns) {
    ASSERT_EQ(Control(setup_.mifareControl, "remove"), "ok");
    PutBack putBack(setup_.mifareControl);
    ASSERT_TRUE(WaitForCard(setup_.mifareReader, false)) << "the reader still reports a card";

    Encoder encoder(SystemPcsc());
    encoder.Parameters("Device=" + setup_.mifareReader);
    ASSERT_EQ(encoder.OpenEncoder(), sceSuccess) << Describe(encoder.LastError());
    EXPECT_EQ(Describe(encoder.LastError()),
              Describe(Record(ErrorNumber::NoCard, "OpenEncoder", "SCardConnect",
                              "No Smart Card is currently in the device.", Signed(0x8010000C))));
    EXPECT_EQ(encoder.ATRString(), "");
    EXPECT_EQ(encoder.EncoderState(), sceOpened);
    EXPECT_EQ(encoder.LastError().Number, 0) << "reading the state leaves no error behind";

    std::string uid;
    EXPECT_EQ(encoder.ReadSerialNumber(uid), sceError);
    EXPECT_EQ(encoder.LastError().Number, ErrorValue(ErrorNumber::NoCard)) << Describe(encoder.LastError());

    ASSERT_EQ(Control(setup_.mifareControl, "insert"), "ok");
    ASSERT_TRUE(WaitForCard(setup_.mifareReader, true)) << "the card did not come back";
    EXPECT_EQ(encoder.EncoderState(), sceReady);
    ASSERT_EQ(encoder.ReadSerialNumber(uid), sceSuccess) << Describe(encoder.LastError());
    EXPECT_EQ(uid, setup_.mifareUid);
    EXPECT_EQ(encoder.ATRString(), MifareAtr());
    EXPECT_EQ(encoder.CardType(), sceMifare1K);

    // Taken out in the middle of a session: the next call finds no card, and
    // the state follows the card out and back in again.
    ASSERT_EQ(Control(setup_.mifareControl, "remove"), "ok");
    ASSERT_TRUE(WaitForCard(setup_.mifareReader, false)) << "the reader still reports a card";
    EXPECT_EQ(encoder.ReadSerialNumber(uid), sceError);
    EXPECT_EQ(encoder.LastError().Number, ErrorValue(ErrorNumber::NoCard)) << Describe(encoder.LastError());
    EXPECT_EQ(encoder.EncoderState(), sceOpened);
    ASSERT_EQ(Control(setup_.mifareControl, "insert"), "ok");
    ASSERT_TRUE(WaitForCard(setup_.mifareReader, true)) << "the card did not come back";
    EXPECT_EQ(encoder.EncoderState(), sceReady);
    ASSERT_EQ(encoder.ReadSerialNumber(uid), sceSuccess) << Describe(encoder.LastError());
    EXPECT_EQ(uid, setup_.mifareUid);
}

TEST_F(EncoderSession, AReaderThatDoesNotExistFailsToOpenWithTheExactRecord) {
    Encoder encoder(SystemPcsc());
    encoder.Parameters("Device=Virtual PCD 00 07 no such reader");
    EXPECT_EQ(encoder.OpenEncoder(), sceError);
    EXPECT_EQ(Describe(encoder.LastError()),
              Describe(Record(ErrorNumber::CannotOpenReader, "OpenEncoder", "SCardConnect",
                              "The specified reader name is not recognized.", Signed(0x80100009))));
    EXPECT_EQ(encoder.EncoderState(), sceClosed) << "a failed open closes the encoder again";
    std::string uid;
    EXPECT_EQ(encoder.ReadSerialNumber(uid), sceError);
    EXPECT_EQ(encoder.LastError().Number, ErrorValue(ErrorNumber::EncoderClosed)) << Describe(encoder.LastError());
}

TEST_F(EncoderSession, TheExclusiveConnectionKeepsASecondEncoderOutUntilTheFirstCloses) {
    Encoder first(SystemPcsc());
    first.Parameters("Device=" + setup_.mifareReader);
    ASSERT_EQ(first.OpenEncoder(), sceSuccess) << Describe(first.LastError());

    Encoder second(SystemPcsc());
    second.Parameters("Device=" + setup_.mifareReader);
    EXPECT_EQ(second.OpenEncoder(), sceError);
    EXPECT_EQ(Describe(second.LastError()),
              Describe(Record(ErrorNumber::CannotOpenReader, "OpenEncoder", "SCardConnect",
                              "The smart card cannot be accessed because of other connections outstanding.",
                              Signed(0x8010000B))));
    EXPECT_EQ(second.EncoderState(), sceClosed);

    EXPECT_EQ(first.CloseEncoder(), sceSuccess);
    EXPECT_EQ(first.CloseEncoder(), sceSuccess) << "closing twice is fine";
    EXPECT_EQ(first.LastError().Number, 0);
    EXPECT_EQ(first.EncoderState(), sceClosed);

    ASSERT_EQ(second.OpenEncoder(), sceSuccess)
        << "the first close did not release the card: " << Describe(second.LastError());
    std::string uid;
    ASSERT_EQ(second.ReadSerialNumber(uid), sceSuccess) << Describe(second.LastError());
    EXPECT_EQ(uid, setup_.mifareUid);
}

TEST_F(EncoderSession, TwoEncodersOnTwoReadersWorkInTwoThreadsAtOnce) {
    ASSERT_TRUE(WaitForCard(setup_.desfireReader, true)) << "no card in " << setup_.desfireReader;
    constexpr int Reads = 40;
    struct Outcome {
        bool opened = false;
        int matching = 0;
        std::string firstFailure;
    };
    std::latch bothOpen(2);
    auto work = [&](const std::string& reader, const std::string& expectedUid, Outcome& outcome) {
        Encoder encoder(SystemPcsc());
        encoder.Parameters("Device=" + reader);
        outcome.opened = encoder.OpenEncoder() == sceSuccess && encoder.LastError().Number == 0;
        if (!outcome.opened) outcome.firstFailure = Describe(encoder.LastError());
        bothOpen.arrive_and_wait();  // both connections are held from here on
        if (!outcome.opened) return;
        for (int i = 0; i < Reads; ++i) {
            std::string uid;
            if (encoder.ReadSerialNumber(uid) == sceSuccess && uid == expectedUid) {
                ++outcome.matching;
            } else if (outcome.firstFailure.empty()) {
                outcome.firstFailure =
                    "read " + std::to_string(i) + ": uid \"" + uid + "\", " + Describe(encoder.LastError());
            }
        }
    };
    Outcome desfire, mifare;
    std::thread desfireThread(work, std::cref(setup_.desfireReader), std::cref(setup_.desfireUid), std::ref(desfire));
    std::thread mifareThread(work, std::cref(setup_.mifareReader), std::cref(setup_.mifareUid), std::ref(mifare));
    desfireThread.join();
    mifareThread.join();

    EXPECT_TRUE(desfire.opened) << desfire.firstFailure;
    EXPECT_TRUE(mifare.opened) << mifare.firstFailure;
    EXPECT_EQ(desfire.matching, Reads) << desfire.firstFailure;
    EXPECT_EQ(mifare.matching, Reads) << mifare.firstFailure;
}

// ---- MIFARE Classic members -------------------------------------------------

class MifareThroughPcscd : public EncoderSession {
protected:
    void SetUp() override {
        EncoderSession::SetUp();
        if (HasFatalFailure()) return;
        encoder_.Parameters("Device=" + setup_.mifareReader);
        ASSERT_EQ(encoder_.OpenEncoder(), sceSuccess) << Describe(encoder_.LastError());
        ASSERT_EQ(encoder_.LastError().Number, 0) << Describe(encoder_.LastError());
    }

    std::string Stored(unsigned block) const { return StoredBlock(setup_.mifareState, block); }

    // Block contents read with `key`; "<error ...>" when the read fails.
    std::string Read(std::int32_t block, const std::string& key = TransportKey, std::uint8_t keyType = 0) {
        std::string contents;
        if (encoder_.ReadDataBloc(block, key, keyType, contents) != sceSuccess)
            return "<error " + Describe(encoder_.LastError()) + ">";
        return contents;
    }

    void Write(std::int32_t block, std::string contents, const std::string& key = TransportKey,
               std::uint8_t keyType = 0) {
        ASSERT_EQ(encoder_.WriteDataBloc(block, key, keyType, contents), sceSuccess)
            << "block " << block << ": " << Describe(encoder_.LastError());
    }

    Encoder encoder_{SystemPcsc()};
};

TEST_F(MifareThroughPcscd, ADataBlockWrittenIsReadBackAndStoredOnTheCard) {
    const Bytes data = RandomBytes(16);
    // Lower case with blanks is accepted and handed back normalised.
    std::string contents = Lower(SpacedHex(data));
    ASSERT_EQ(encoder_.WriteDataBloc(4, TransportKey, 0, contents), sceSuccess) << Describe(encoder_.LastError());
    EXPECT_EQ(contents, Hex(data));
    EXPECT_EQ(encoder_.LastError().Number, 0);
    EXPECT_EQ(encoder_.LastError().ComFunction, "MifareWriteDataBloc");

    EXPECT_EQ(Read(4), Hex(data));
    EXPECT_EQ(encoder_.LastError().ComFunction, "MifareReadDataBloc");
    EXPECT_EQ(Stored(4), Hex(data));
}

// In the transport trailer key B is readable, and a readable key B may not
// serve for access: the card takes the key-B authentication and then refuses
// the read. So a read that goes through proves key A was named on the wire.
TEST_F(MifareThroughPcscd, KeyTypeTwoSelectsKeyBAndEveryOtherValueKeyA) {
    const std::string data = RandomBlock();
    Write(5, data);
    for (const std::uint8_t keyType : {0, 1, 3, 65, 255}) {
        EXPECT_EQ(Read(5, TransportKey, keyType), data) << "KeyType " << int{keyType};
    }
    std::string contents = "left over";
    EXPECT_EQ(encoder_.ReadDataBloc(5, TransportKey, 2, contents), sceError);
    EXPECT_EQ(Describe(encoder_.LastError()),
              Describe(Record(ErrorNumber::CommandFailed, "MifareReadDataBloc", "SCardTransmit:ReadBinary", "6982")));
    EXPECT_EQ(contents, "");
}

TEST_F(MifareThroughPcscd, ABlockWithoutThirtyTwoHexDigitsIsRefusedAndTheCardKeepsItsBlock) {
    const std::string data = RandomBlock();
    Write(6, data);
    for (const std::string& bad : {std::string("0011"), data + "00", data.substr(0, 31) + "G", std::string()}) {
        std::string contents = bad;
        EXPECT_EQ(encoder_.WriteDataBloc(6, TransportKey, 0, contents), sceError) << bad;
        EXPECT_EQ(Describe(encoder_.LastError()),
                  Describe(Record(ErrorNumber::BlockMustBe32Hex, "MifareWriteDataBloc")))
            << bad;
    }
    EXPECT_EQ(Read(6), data);
    EXPECT_EQ(Stored(6), data);
}

TEST_F(MifareThroughPcscd, AValueBlockHoldsTheValueItsInverseAndTheAddressBytes) {
    for (const std::int32_t value : {1, 0, 0x12345678, 0x7FFFFFFF, 1000000}) {
        ASSERT_EQ(encoder_.WriteValueBloc(5, TransportKey, 0, value), sceSuccess)
            << value << ": " << Describe(encoder_.LastError());
        EXPECT_EQ(Read(5), ValueBlock(value)) << value;
        // The simulated card reads it as a value block too.
        const auto decoded = sim::DecodeValueBlock([&] {
            sim::Block block{};
            const Bytes stored = FromHex(Stored(5));
            std::copy_n(stored.begin(), std::min<std::size_t>(stored.size(), 16), block.begin());
            return block;
        }());
        ASSERT_TRUE(decoded.has_value()) << value << ": " << Stored(5);
        EXPECT_EQ(decoded->value, value);
        EXPECT_EQ(decoded->address, 0xFF);
    }
    EXPECT_EQ(ValueBlock(1), "01000000FEFFFFFF01000000FF00FF00");  // the layout helper itself

    // A negative value does not fit the byte split: nothing is written.
    const std::string before = Read(5);
    EXPECT_EQ(encoder_.WriteValueBloc(5, TransportKey, 0, -5), sceError);
    EXPECT_EQ(encoder_.LastError().Number, 6) << Describe(encoder_.LastError());
    EXPECT_EQ(encoder_.LastError().Description, "Overflow");
    EXPECT_EQ(Read(5), before);
}

TEST_F(MifareThroughPcscd, WriteBytesInBlocReplacesOnlyTheChosenBytes) {
    struct Case {
        std::uint8_t from, to;
        std::string given, handedBack;
    };
    const std::string whole = RandomBlock();
    const Case cases[] = {
        {3, 4, "A", "A000"},
        {15, 15, "5c", "5C"},
        {0, 0, "7E", "7E"},
        {0, 15, whole, whole},
        {2, 5, "0102030405060708090A", "01020304"},
    };
    for (const auto& c : cases) {
        const std::string old = RandomBlock();
        Write(6, old);
        std::string contents = c.given;
        ASSERT_EQ(encoder_.WriteBytesInBloc(6, TransportKey, 0, c.from, c.to, contents), sceSuccess)
            << int{c.from} << ".." << int{c.to} << ": " << Describe(encoder_.LastError());
        EXPECT_EQ(Lower(contents), Lower(c.handedBack)) << int{c.from} << ".." << int{c.to};
        const std::string expected = old.substr(0, 2u * c.from) + c.handedBack + old.substr(2u * c.to + 2);
        EXPECT_EQ(Read(6), expected) << int{c.from} << ".." << int{c.to};
        EXPECT_EQ(Stored(6), expected) << int{c.from} << ".." << int{c.to};
    }

    const std::string old = Read(6);
    for (const auto& [from, to] : {std::pair<std::uint8_t, std::uint8_t>{5, 4}, {16, 16}, {0, 16}}) {
        std::string contents = "00";
        EXPECT_EQ(encoder_.WriteBytesInBloc(6, TransportKey, 0, from, to, contents), sceError);
        EXPECT_EQ(Describe(encoder_.LastError()),
                  Describe(Record(ErrorNumber::IncorrectOffsets, "MifareWriteBytesInBloc")))
            << int{from} << ".." << int{to};
    }
    EXPECT_EQ(Read(6), old);
}

TEST_F(MifareThroughPcscd, TheManufacturerCodeIsTheSplitOfBlockZero) {
    const Bytes uid = FromHex(setup_.mifareUid);
    ASSERT_EQ(uid.size(), 4u);
    const Bytes block0 = ReferenceBlockZero(uid);
    ASSERT_EQ(block0.size(), 16u);
    EXPECT_EQ(Read(0), Hex(block0));

    std::int32_t serial = 1;
    std::uint8_t check = 1;
    std::string info;
    ASSERT_EQ(encoder_.ReadManufacturerCode(TransportKey, 0, serial, check, info), sceSuccess)
        << Describe(encoder_.LastError());
    const auto expectedSerial = static_cast<std::int32_t>(std::uint32_t{uid[0]} << 24 | std::uint32_t{uid[1]} << 16 |
                                                          std::uint32_t{uid[2]} << 8 | uid[3]);
    EXPECT_EQ(serial, expectedSerial);
    EXPECT_EQ(check, uid[0] ^ uid[1] ^ uid[2] ^ uid[3]) << "the check byte of a 4-byte UID";
    EXPECT_EQ(info, Hex(Bytes(block0.begin() + 5, block0.end())));
}

// One sector taken through its life: secured with two keys and a key-B
// scheme, the card then enforcing it, the trailer read back as security
// levels, and the transport trailer written back with key B.
TEST_F(MifareThroughPcscd, ASecuredSectorIsEnforcedByTheCardAndTheTransportTrailerComesBack) {
    constexpr std::int32_t Sector = 3;
    constexpr unsigned Trailer = 15;
    const std::string keyA = "A0A1A2A3A4A5";
    const std::string keyB = "B0B1B2B3B4B5";
    const std::string transport = TransportKey + "FF0780" + "69" + TransportKey;
    ASSERT_EQ(Stored(Trailer), transport);

    // A right of key A alone in the key-B scheme is refused before anything is written.
    EXPECT_EQ(encoder_.WriteSectorTrailer(Sector, TransportKey, 0, keyA, keyB, 2, scbs_A_Read, -1, -1, -1), sceError);
    EXPECT_EQ(Describe(encoder_.LastError()),
              Describe(Record(ErrorNumber::InvalidSecurityInformation, "MifareWriteSectorTrailer")));
    EXPECT_EQ(Stored(Trailer), transport);

    // Block 0: A read, B read/write (110); block 1: B read/write (011);
    // block 2: A and B read (001); trailer: B writes keys and conditions (011).
    ASSERT_EQ(encoder_.WriteSectorTrailer(Sector, TransportKey, 0, keyA, keyB, 2, scbs_A_Read + scbs_B_ReadWrite,
                                          scbs_B_ReadWrite, scbs_A_Read + scbs_B_Read, scss_B_WriteKeysConditions,
                                          Variant{std::uint8_t{0x42}}),
              sceSuccess)
        << Describe(encoder_.LastError());
    EXPECT_EQ(Stored(Trailer), keyA + AccessBytes({6, 3, 1, 3}) + "42" + keyB);
    EXPECT_EQ(AccessBytes({0, 0, 0, 1}), "FF0780");  // the helper against the transport bytes

    // The transport key no longer opens the sector.
    std::string contents;
    EXPECT_EQ(encoder_.ReadDataBloc(12, TransportKey, 0, contents), sceError);
    EXPECT_EQ(Describe(encoder_.LastError()), Describe(Record(ErrorNumber::CommandFailed, "MifareAuthenticate",
                                                              "SCardTransmit:GeneralAuthenticate", "6300")));

    // Block 12 may be written with key B only.
    const std::string data = RandomBlock();
    Write(12, data, keyB, 2);
    contents = RandomBlock();
    EXPECT_EQ(encoder_.WriteDataBloc(12, keyA, 0, contents), sceError);
    const CError refused = encoder_.LastError();
    EXPECT_EQ(Describe(refused),
              Describe(Record(ErrorNumber::CommandFailed, "MifareWriteDataBloc", "SCardTransmit:WriteBinary", "6982")));
    EXPECT_EQ(encoder_.GetResponseText(refused.RdrRetCode, refused.RdrCommand),
              "[Checking error]  Command not allowed, security status not satisfied");
    EXPECT_EQ(Read(12, keyA, 0), data);
    EXPECT_EQ(Stored(12), data);

    // Key A may no longer touch the trailer at all.
    EXPECT_EQ(encoder_.WriteSectorTrailer(Sector, keyA, 0, TransportKey, TransportKey, 1, 3, 3, 3, 3), sceError);
    EXPECT_EQ(encoder_.LastError().Number, ErrorValue(ErrorNumber::CommandFailed)) << Describe(encoder_.LastError());
    EXPECT_EQ(encoder_.LastError().RdrCommand, "SCardTransmit:WriteBinary");
    EXPECT_EQ(encoder_.LastError().RdrRetCode, "6982");
    EXPECT_EQ(Stored(Trailer), keyA + AccessBytes({6, 3, 1, 3}) + "42" + keyB);

    // Read back with either key, as the coarse security levels.
    for (const auto& [key, keyType] : {std::pair{keyA, std::uint8_t{0}}, {keyB, std::uint8_t{2}}}) {
        std::uint8_t keysUsed = 0, bx = 0;
        std::int32_t s0 = -7, s1 = -7, s2 = -7, conditions = -7;
        ASSERT_EQ(encoder_.ReadSectorTrailer(Sector, key, keyType, keysUsed, s0, s1, s2, conditions, bx), sceSuccess)
            << key << ": " << Describe(encoder_.LastError());
        EXPECT_EQ(keysUsed, 2) << key;
        EXPECT_EQ(s0, 13) << key;
        EXPECT_EQ(s1, 12) << key;
        EXPECT_EQ(s2, 5) << key;
        EXPECT_EQ(conditions, 12) << key;
        EXPECT_EQ(bx, 0x42) << key;
    }

    // Back to transport with key B: key-A scheme, A read/write everywhere,
    // A writes keys and conditions.
    ASSERT_EQ(
        encoder_.WriteSectorTrailer(Sector, keyB, 2, TransportKey, TransportKey, 1, scbs_A_ReadWrite, scbs_A_ReadWrite,
                                    scbs_A_ReadWrite, scss_A_WriteKeysConditions, Variant{std::int32_t{0x69}}),
        sceSuccess)
        << Describe(encoder_.LastError());
    EXPECT_EQ(Stored(Trailer), transport);

    // -1 keeps every condition and KeysToUse 0 the card's scheme: only BX changes.
    ASSERT_EQ(encoder_.WriteSectorTrailer(Sector, TransportKey, 0, TransportKey, TransportKey, 0, -1, -1, -1, -1,
                                          Variant{std::uint8_t{0x11}}),
              sceSuccess)
        << Describe(encoder_.LastError());
    EXPECT_EQ(Stored(Trailer), TransportKey + "FF0780" + "11" + TransportKey);
    ASSERT_EQ(encoder_.WriteSectorTrailer(Sector, TransportKey, 0, TransportKey, TransportKey, 0, -1, -1, -1, -1,
                                          Variant{std::uint8_t{0x69}}),
              sceSuccess)
        << Describe(encoder_.LastError());
    EXPECT_EQ(Stored(Trailer), transport);

    std::uint8_t keysUsed = 0, bx = 0;
    std::int32_t s0 = 0, s1 = 0, s2 = 0, conditions = 0;
    ASSERT_EQ(encoder_.ReadSectorTrailer(Sector, TransportKey, 0, keysUsed, s0, s1, s2, conditions, bx), sceSuccess)
        << Describe(encoder_.LastError());
    EXPECT_EQ(keysUsed, 1);
    EXPECT_EQ(s0, 15);
    EXPECT_EQ(s1, 15);
    EXPECT_EQ(s2, 15);
    EXPECT_EQ(conditions, 3);
    EXPECT_EQ(bx, 0x69);
    EXPECT_EQ(Read(12), data) << "the sector opens with the transport key again";
}

// ---- the twn4 tool --------------------------------------------------------------

class Twn4ThroughPcscd : public EncoderSession {
protected:
    std::vector<nlohmann::json> JsonLines(const std::string& output) {
        std::vector<nlohmann::json> lines;
        for (const auto& line : Lines(output)) {
            auto parsed = nlohmann::json::parse(line, nullptr, false);
            EXPECT_FALSE(parsed.is_discarded()) << "not JSON: " << line;
            lines.push_back(std::move(parsed));
        }
        return lines;
    }
};

TEST_F(Twn4ThroughPcscd, ReadersListsBothVirtualReaders) {
    const ToolRun plain = RunTool(setup_.twn4, {"readers"});
    ASSERT_EQ(plain.exitStatus, 0) << plain.output;
    const auto names = Lines(plain.output);
    EXPECT_NE(std::find(names.begin(), names.end(), setup_.desfireReader), names.end()) << plain.output;
    EXPECT_NE(std::find(names.begin(), names.end(), setup_.mifareReader), names.end()) << plain.output;

    const ToolRun json = RunTool(setup_.twn4, {"--json", "readers"});
    ASSERT_EQ(json.exitStatus, 0) << json.output;
    const auto list = nlohmann::json::parse(json.output, nullptr, false);
    ASSERT_TRUE(list.is_array()) << json.output;
    const auto listed = list.get<std::vector<std::string>>();
    EXPECT_EQ(listed, names) << "the JSON list and the plain list differ";
}

TEST_F(Twn4ThroughPcscd, SerialNumberAndABlockAreReadInOneSession) {
    const std::string data = RandomBlock();
    {
        Encoder encoder(SystemPcsc());
        encoder.Parameters("Device=" + setup_.mifareReader);
        ASSERT_EQ(encoder.OpenEncoder(), sceSuccess) << Describe(encoder.LastError());
        std::string contents = data;
        ASSERT_EQ(encoder.WriteDataBloc(4, TransportKey, 0, contents), sceSuccess) << Describe(encoder.LastError());
    }  // closed: the tool needs the reader to itself

    const ToolRun run = RunTool(setup_.twn4, {"--reader", setup_.mifareReader, "--json", "ReadSerialNumber", "--",
                                              "ReadDataBloc", "4", TransportKey, "0"});
    ASSERT_EQ(run.exitStatus, 0) << run.output;
    const auto lines = JsonLines(run.output);
    ASSERT_EQ(lines.size(), 2u) << run.output;

    EXPECT_EQ(lines[0].value("member", ""), "ReadSerialNumber") << lines[0];
    EXPECT_EQ(lines[0].value("result", -1), 0) << lines[0];
    EXPECT_EQ(lines[0].value("resultName", ""), "sceSuccess") << lines[0];
    EXPECT_EQ(lines[0]["out"].value("SerialNumber", ""), setup_.mifareUid) << lines[0];
    EXPECT_EQ(lines[0]["error"].value("Number", -1), 0) << lines[0];

    EXPECT_EQ(lines[1].value("member", ""), "ReadDataBloc") << lines[1];
    EXPECT_EQ(lines[1].value("result", -1), 0) << lines[1];
    EXPECT_EQ(lines[1]["out"].value("BlocContents", ""), data) << lines[1];
    EXPECT_EQ(lines[1]["error"].value("Number", -1), 0) << lines[1];
    EXPECT_EQ(lines[1]["error"].value("ComFunction", ""), "MifareReadDataBloc") << lines[1];
}

TEST_F(Twn4ThroughPcscd, TheDesfireExamplePersonalisesTheCardBehindPcscd) {
    ASSERT_TRUE(WaitForCard(setup_.desfireReader, true)) << "no card in " << setup_.desfireReader;
    const std::string factoryKey = "0000000000000000";
    const std::string piccKey = "4A1B7C3D5E6F708192A3B4C5D6E7F809";
    // Whatever happens, the card goes back to its factory state for the other tests.
    struct Restore {
        const E2eSetup& setup;
        std::string factoryKey, piccKey;
        ~Restore() {
            Encoder encoder(SystemPcsc());
            encoder.Parameters("Device=" + setup.desfireReader);
            encoder.OpenEncoder();
            if (encoder.DESFireSelectRoot(piccKey) == sceSuccess) {
                encoder.DESFireFormat();
                encoder.DESFireChangeKey(0, piccKey, factoryKey);
            } else if (encoder.DESFireSelectRoot(factoryKey) == sceSuccess) {
                encoder.DESFireFormat();
            }
            EXPECT_EQ(encoder.DESFireSelectRoot(factoryKey), sceSuccess) << Describe(encoder.LastError());
        }
    } restore{setup_, factoryKey, piccKey};

    const ToolRun run = RunTool(setup_.twn4, {"--reader", setup_.desfireReader, "--json", "--script",
                                              std::string(EXAMPLES_DIR) + "/personalise-desfire.twn4"});
    ASSERT_EQ(run.exitStatus, 0) << run.output;
    std::map<std::string, std::vector<nlohmann::json>> outs;
    for (const auto& line : JsonLines(run.output)) {
        if (!line.contains("member")) continue;
        EXPECT_EQ(line.value("result", -1), 0) << line;
        outs[line["member"].get<std::string>()].push_back(line["out"]);
    }
    EXPECT_EQ(outs["ReadSerialNumber"].at(0).value("SerialNumber", ""), setup_.desfireUid);
    const std::string holder = "Jane Doe / 12 Harbour Road / Springfield / member 0042 / valid to 2028-12-31 ###";
    const auto& reads = outs["DESFireReadData"];
    ASSERT_EQ(reads.size(), 6u) << run.output;
    for (std::size_t file = 0; file < 3; ++file)
        EXPECT_EQ(reads[file].value("DataString", ""), holder) << "file " << file + 1;
    EXPECT_EQ(reads[5].value("DataString", ""), "Issued: Nov 2026");
    const auto& values = outs["DESFireGetValue"];
    ASSERT_EQ(values.size(), 3u) << run.output;
    EXPECT_EQ(values[2].value("ValueData", -1), 120);
    EXPECT_EQ(outs["DESFireReadRecords"].at(0).value("DataString", ""), "2026-11-20 gate12026-11-21 gate3");
}

TEST_F(Twn4ThroughPcscd, AFailedCallExitsWithOneReportsTheRecordAndTracesNoKey) {
    const TempDir dir("twn4-trace");
    const auto trace = dir.path() / "trace.log";
    // A key the card does not know; its bytes in decimal are 26,43,60,77,94,111.
    const std::string wrongKey = "1A2B3C4D5E6F";
    const ToolRun run =
        RunTool(setup_.twn4, {"--reader", setup_.mifareReader, "--json", "ReadDataBloc", "4", wrongKey, "0"},
                {"ELATECTWN4_TRACE=" + trace.string()});
    EXPECT_EQ(run.exitStatus, 1) << run.output;
    const auto lines = JsonLines(run.output);
    ASSERT_EQ(lines.size(), 1u) << run.output;
    EXPECT_EQ(lines[0].value("member", ""), "ReadDataBloc");
    EXPECT_EQ(lines[0].value("result", -1), 2);
    EXPECT_EQ(lines[0].value("resultName", ""), "sceError");
    const auto& error = lines[0]["error"];
    EXPECT_EQ(error.value("Number", 0), ErrorValue(ErrorNumber::CommandFailed)) << error;
    EXPECT_EQ(error.value("Description", ""), "Encoder command failed") << error;
    EXPECT_EQ(error.value("ComFunction", ""), "MifareAuthenticate") << error;
    EXPECT_EQ(error.value("RdrCommand", ""), "SCardTransmit:GeneralAuthenticate") << error;
    EXPECT_EQ(error.value("RdrRetCode", ""), "6300") << error;

    const std::string log = ReadFile(trace);
    EXPECT_NE(log.find("Sending LoadKey"), std::string::npos) << "no trace written:\n" << log;
    EXPECT_NE(log.find("Sending GeneralAuthenticate"), std::string::npos) << log;
    EXPECT_EQ(log.find(wrongKey), std::string::npos) << "the key in clear in the trace:\n" << log;
    EXPECT_EQ(log.find("26,43,60,77,94,111"), std::string::npos) << "the key in clear in the trace:\n" << log;
}

TEST_F(Twn4ThroughPcscd, AReaderThatDoesNotExistStopsTheRunWithTheOpenRecord) {
    const ToolRun run =
        RunTool(setup_.twn4, {"--reader", "Virtual PCD 00 07 no such reader", "--json", "ReadSerialNumber"});
    EXPECT_EQ(run.exitStatus, 1) << run.output;
    const auto lines = JsonLines(run.output);
    ASSERT_EQ(lines.size(), 1u) << run.output;
    EXPECT_EQ(lines[0].value("member", ""), "OpenEncoder");
    EXPECT_EQ(lines[0].value("result", -1), 2);
    const auto& error = lines[0]["error"];
    EXPECT_EQ(error.value("Number", 0), ErrorValue(ErrorNumber::CannotOpenReader)) << error;
    EXPECT_EQ(error.value("RdrCommand", ""), "SCardConnect") << error;
    EXPECT_EQ(error.value("RdrRetCode", ""), "The specified reader name is not recognized.") << error;
}

}  // namespace

// The card-type registry every test (and the twn4 runs) reads: only the
// MIFARE Classic 1K type, and no "Add new cards", so nothing is ever added.
int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const elatectwn4::e2e::TempDir registry("e2e-registry");
    RegistryFile = registry.path() / "HKEY_LOCAL_MACHINE.reg";
    {
        std::ofstream file(RegistryFile, std::ios::binary);
        file << "Windows Registry Editor Version 5.00\r\n\r\n"
             << CardTypesKey << "\r\n"
             << "\"MIFARE Classic 1K\"=\"11;" << MifareAtrFragment << ";4\"\r\n";
    }
    ::setenv("ELATECTWN4_REGISTRY_DIR", registry.path().c_str(), 1);
    return RUN_ALL_TESTS();
}
