// The one edge of every public member (what it does to the record on entry,
// and what an exception becomes), the Parameters text, the GetInformation
// text and the reader version shown by ReaderType.
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "elatectwn4/encoder.h"
#include "elatectwn4/version.h"
#include "encoder/encoder_impl.h"
#include "encoder_test_util.h"
#include "support/registry_dir.h"
#include "support/scripted_pcsc.h"

namespace elatectwn4::test {
namespace {

const CError kBefore{7, "before", 9, "Previous", "SCardTransmit:ReadBinary", "6982"};

// Which record each kind of exception leaves is the command layer's; here
// the rule of each member and that nothing escapes.
TEST(Guard, AppliesItsRuleAndNeverThrows) {
    const std::tuple<RecordRule, bool, Record> cases[] = {
        {RecordRule::Clear, false, Cleared("Member")},
        {RecordRule::Keep, false, Of(kBefore)},
        {RecordRule::Untouched, true, Of(kBefore)},
        {RecordRule::Keep, true, Failure(5, "Unexpected error: index 9", "Member")},
        {RecordRule::Clear, true, Failure(5, "Unexpected error: index 9", "Member")},
    };
    for (const auto& [rule, raises, after] : cases) {
        Encoder::Impl impl(std::make_shared<ScriptedPcsc>());
        impl.error = kBefore;
        const auto run = [raises] {
            if (raises) throw std::out_of_range("index 9");
            return sceSuccess;
        };
        EXPECT_EQ(impl.Guard("Member", run, rule), raises ? sceError : sceSuccess);
        EXPECT_EQ(Of(impl.error), after);
        // A member with a text result answers "" when cut short.
        EXPECT_EQ(impl.Guard(
                      "Text", []() -> std::string { throw std::bad_alloc(); }, rule),
                  "");
    }
}

// A driver that throws where it should answer a code.
class ThrowingPcsc : public ScriptedPcsc {
public:
    std::uint32_t Status(PcscHandle, PcscStatus&) override { throw std::bad_alloc(); }
};

TEST(EncoderEdge, AProbeCutShortByTheDriverLeavesAnOpenEncoderReady) {
    RegistryDir registry;
    Encoder encoder(std::make_shared<ThrowingPcsc>());
    ASSERT_EQ(encoder.OpenEncoder(), sceSuccess);
    EXPECT_EQ(encoder.EncoderState(), sceReady);
    EXPECT_EQ(Of(encoder.LastError()), Cleared("EncoderState"));
}

const std::string kCapabilities = "Encoding capabilities=Mifare Classic, Mifare Ultralight, Mifare DESFire\r\nDevice=";

struct EntriesCase {
    const char* text;
    std::optional<std::string> device;
    std::optional<bool> cardConformance = std::nullopt;
};

TEST(ParametersText, YieldsTheEntriesByTheParsingRules) {
    const EntriesCase cases[] = {
        {"Device=Reader 1;Protocol=1", "Reader 1"},
        {"DEVICE = Reader 2", "Reader 2"},
        {"  dEvIcE   =   Virtual PCD 00 00   ;", "Virtual PCD 00 00"},
        // Lines: a ";" stays in the value.
        {"Device=A;B\r\nProtocol=1", "A;B"},
        {"Protocol=1\r\nDevice=Reader;01\r\n", "Reader;01"},
        // A key alone is an empty value; a text without the key leaves it out.
        {"Device", ""},
        {"Device=", ""},
        {"Protocol=1;Speed=9600", std::nullopt},
        {"", std::nullopt},
        {"Devices=X;Dev=Y; =Z;=W", std::nullopt},
        // The later entry wins; the value keeps everything after the first "=".
        {"Device=X;device=Y", "Y"},
        {"Device=a=b", "a=b"},
        {"Device=A\r\nDevice=B;C", "B;C"},
        // Only blanks are trimmed; a lone LF does not separate entries.
        {"Device=\tR\t", "\tR\t"},
        {"Device=R1\nProtocol=1", "R1\nProtocol=1"},
        // Conformance: "card" in any case, any other value is the default.
        {"Conformance=card", std::nullopt, true},
        {" CONFORMANCE = Card ;Device=R", "R", true},
        {"Conformance=cards", std::nullopt, false},
        {"Conformance", std::nullopt, false},
        {"Conformance=card;conformance=spec", std::nullopt, false},
        {"Conformance=card\r\nDevice=R;Conformance=x", "R;Conformance=x", true},
    };
    for (const auto& c : cases) {
        const ParameterEntries entries = ParseParameters(c.text);
        EXPECT_EQ(entries.device, c.device) << c.text;
        EXPECT_EQ(entries.cardConformance, c.cardConformance) << c.text;
    }
}

TEST(ParametersText, AnEntryLeftOutKeepsItsValueAndTheTextShowsTheReader) {
    Encoder::Impl impl(std::make_shared<ScriptedPcsc>());
    EXPECT_FALSE(impl.CardConformance());
    impl.ApplyParameters("Conformance=card;Device=A");
    impl.ApplyParameters("Device=B");
    EXPECT_TRUE(impl.CardConformance());
    impl.ApplyParameters("Conformance=none");
    EXPECT_FALSE(impl.CardConformance());
    EXPECT_EQ(impl.deviceName, "B");

    RegistryDir registry;
    Encoder encoder(std::make_shared<ScriptedPcsc>());
    EXPECT_EQ(encoder.Parameters(), kCapabilities + "<unknown>");
    encoder.LastError().Number = 99;
    encoder.Parameters("Device=Reader 9;Conformance=card");
    EXPECT_EQ(encoder.Parameters(), kCapabilities + "Reader 9");
    EXPECT_EQ(Of(encoder.LastError()), Cleared("Parameters"));
}

TEST(Information, ShowsTheVersionAndAFreshInstanceNumberPerEncoder) {
    EXPECT_EQ(InformationText(10, 0, 27, 4711),
              "Pellucid|Elatec TWN4|10.0.27|1|4711|Mifare Classic, Mifare Ultralight, Mifare DESFire");
    RegistryDir registry;
    Encoder first(std::make_shared<ScriptedPcsc>());
    Encoder second(std::make_shared<ScriptedPcsc>());
    std::vector<std::string> a, b;
    for (int i = 0; i < 10; ++i) {
        first.LastError().Number = 5;
        a.push_back(first.GetInformation());
        b.push_back(second.GetInformation());
    }
    EXPECT_EQ(Of(first.LastError()), Cleared("GetInformation"));
    const int number = std::stoi(a[0].substr(a[0].find("|1|") + 3));
    EXPECT_EQ(a[0],
              InformationText(ELATECTWN4_VERSION_MAJOR, ELATECTWN4_VERSION_MINOR, ELATECTWN4_VERSION_PATCH, number));
    // Ten draws from 100000 values all equal would mean the draw is not fresh.
    EXPECT_GT(std::set<std::string>(a.begin(), a.end()).size(), 1u);
    EXPECT_NE(a, b);
}

TEST(ReaderVersion, IsShownAsFourDottedPartsMostSignificantFirst) {
    const std::pair<std::vector<std::uint8_t>, const char*> cases[] = {
        {{0x04, 0x03, 0x02, 0x01}, "1.2.3.4"},
        {{0x00, 0x00, 0x00, 0x00}, "0.0.0.0"},
        {{0x01}, "0.0.0.1"},
        {{0xFF, 0xFE, 0xFD, 0xFC}, "252.253.254.255"},
        {{0x10, 0x27}, "0.0.39.16"},                  // a short value is the low bytes
        {{0x04, 0x03, 0x02, 0x01, 0x99}, "1.2.3.4"},  // bytes beyond a DWORD are not part of it
        {{}, ""},
    };
    for (const auto& [bytes, text] : cases)
        EXPECT_EQ(VersionText(bytes), text) << Hex(bytes);
}

}  // namespace
}  // namespace elatectwn4::test
