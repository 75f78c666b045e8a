// Late-bound calls: every member of the type library is reachable by name and
// by id, in/out arguments come back, and calls that cannot be made are
// refused before anything reaches the card.
#include "elatectwn4/dispatch.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>

#include "elatectwn4/elatectwn4.h"
#include "elatectwn4/encoder.h"
#include "sim/reader.h"
#include "sim/simulated_pcsc.h"
#include "support/scripted_pcsc.h"

namespace elatectwn4 {
namespace {

constexpr const char* kReader = "Virtual PCD 00 00";
constexpr const char* kTransportKey = "FFFFFFFFFFFF";

struct SimulatedEncoder {
    SimulatedEncoder() : pcsc(std::make_shared<sim::SimulatedPcsc>()), encoder(pcsc) {
        pcsc->FindReader(kReader)->Insert(sim::MakeCard("mifare1k"));
        encoder.Parameters(std::string("Device=") + kReader);
        EXPECT_EQ(encoder.OpenEncoder(), sceSuccess);
    }
    std::shared_ptr<sim::SimulatedPcsc> pcsc;
    Encoder encoder;
};

// A plausible argument for a parameter, chosen by name so that the call does
// real work on a transport-state card.
Variant SampleArgument(const ParamInfo& p) {
    static const std::map<std::string_view, Variant> byName{
        {"BlocNumber", std::int32_t{4}},
        {"SectorNumber", std::int32_t{1}},
        {"Key", std::string(kTransportKey)},
        {"KeyA", std::string(kTransportKey)},
        {"KeyB", std::string(kTransportKey)},
        {"BlocContents", std::string("00112233445566778899AABBCCDDEEFF")},
        {"Security0", std::int32_t{-1}},
        {"Security1", std::int32_t{-1}},
        {"Security2", std::int32_t{-1}},
        {"Conditions", std::int32_t{-1}},
        {"ToByte", std::uint8_t{15}},
        {"AccessConditionNumber", std::int32_t{5}},
        {"NewValue", std::string("101")},
        {"sw1sw2", std::string("9000")},
        {"sCommand", std::string("FF CA 00 00 00")},
        {"Value", std::int32_t{7}},
    };
    if (auto it = byName.find(p.name); it != byName.end()) {
        if (p.type == ValueType::String && p.name == "Value") return std::string("Device=") + kReader;
        return it->second;
    }
    return DefaultOf(p.type);
}

TEST(Dispatch, EveryEncoderMemberIsCallableByName) {
    SimulatedEncoder sim;
    int called = 0;
    for (const auto& m : Members()) {
        if (m.interfaceName != "_Encoder") continue;
        SCOPED_TRACE(Signature(m));
        std::vector<Variant> args;
        for (const auto& p : m.params) {
            if (!p.optional) args.push_back(SampleArgument(p));
        }
        DispatchResult r;
        ASSERT_NO_THROW(r = Invoke(sim.encoder, m.name, m.kind, args));
        if (m.resultTypeName == "sceReturnCode") {
            ASSERT_TRUE(std::holds_alternative<std::int32_t>(r.value));
            EXPECT_EQ(std::get<std::int32_t>(r.value), sceSuccess) << sim.encoder.LastError().Description;
        }
        ++called;
        // CloseEncoder leaves the reader closed: open it again for the next member.
        if (sim.encoder.EncoderState() == sceClosed) {
            ASSERT_EQ(sim.encoder.OpenEncoder(), sceSuccess);
        }
    }
    EXPECT_GT(called, 25);
}

TEST(Dispatch, OnlyInOutArgumentsComeBackAndCarryWhatTheDirectCallReturns) {
    SimulatedEncoder sim;
    std::string written = "0F1E2D3C4B5A69788796A5B4C3D2E1F0";
    ASSERT_EQ(sim.encoder.WriteDataBloc(5, kTransportKey, 0, written), sceSuccess);
    // The block number as text: converted for the call, left as it was for the caller.
    std::vector<Variant> args{std::string("5"), std::string(kTransportKey), std::uint8_t{0}, std::string("stale")};
    const auto r = Invoke(sim.encoder, "readdatabloc", MemberKind::Method, args);
    EXPECT_EQ(r.value, Variant{std::int32_t{sceSuccess}});
    EXPECT_EQ(args, (std::vector<Variant>{std::string("5"), std::string(kTransportKey), std::uint8_t{0}, written}));
}

TEST(Dispatch, ByIdReachesTheMemberOfThatKind) {
    SimulatedEncoder sim;
    std::set<std::pair<std::int32_t, int>> seen;
    for (const auto& m : Members()) {
        if (m.interfaceName != "_Encoder") continue;
        EXPECT_TRUE(seen.insert({m.dispId, static_cast<int>(m.kind)}).second) << "dispatch id reused: " << m.name;
    }
    // Parameters is one id for its get and its put; setting it keeps the open session.
    const auto* get = FindMember("_Encoder", "Parameters", MemberKind::PropertyGet);
    ASSERT_NE(get, nullptr);
    std::vector<Variant> text{std::string("Device=Elsewhere;Conformance=card")}, none;
    EXPECT_EQ(Invoke(sim.encoder, get->dispId, MemberKind::PropertyPut, text).value, Variant{});
    EXPECT_EQ(std::get<std::string>(Invoke(sim.encoder, get->dispId, MemberKind::PropertyGet, none).value),
              sim.encoder.Parameters());
    EXPECT_TRUE(sim.encoder.Parameters().ends_with("Device=Elsewhere"));
    EXPECT_EQ(sim.encoder.EncoderState(), sceReady);
}

TEST(Dispatch, SignaturesShowEnumerationsInOutAndOptionalParameters) {
    const auto* write = FindMember("_Encoder", "WriteSectorTrailer", MemberKind::Method);
    const auto* read = FindMember("_Encoder", "ReadSectorTrailer", MemberKind::Method);
    ASSERT_TRUE(write && read);
    EXPECT_EQ(
        Signature(*write),
        "WriteSectorTrailer(SectorNumber As Long, Key As String, KeyType As Byte, KeyA As String, KeyB As String, "
        "KeysToUse As Byte, Security0 As SCBS_SecurityLevelEnum, Security1 As SCBS_SecurityLevelEnum, "
        "Security2 As SCBS_SecurityLevelEnum, Conditions As SCSS_SecurityLevelEnum, [BX As Variant]) "
        "As sceReturnCode");
    EXPECT_EQ(Signature(*read),
              "ReadSectorTrailer(SectorNumber As Long, Key As String, KeyType As Byte, in/out KeysUsed As Byte, "
              "in/out Security0 As SCBS_SecurityLevelEnum, in/out Security1 As SCBS_SecurityLevelEnum, "
              "in/out Security2 As SCBS_SecurityLevelEnum, in/out Conditions As SCSS_SecurityLevelEnum, "
              "in/out BX As Byte) As sceReturnCode");
}

TEST(Dispatch, LastErrorHandsOutTheRecordItselfAndItsMembersAreReachable) {
    SimulatedEncoder sim;
    std::string shortBlock = "0011";
    EXPECT_EQ(sim.encoder.WriteDataBloc(4, kTransportKey, 0, shortBlock), sceError);
    std::vector<Variant> none;
    const auto r = Invoke(sim.encoder, "LastError", MemberKind::PropertyGet, none);
    ASSERT_EQ(r.object, &sim.encoder.LastError());
    EXPECT_EQ(std::get<std::int32_t>(Invoke(*r.object, "Number", MemberKind::PropertyGet, none)),
              ErrorValue(ErrorNumber::BlockMustBe32Hex));
    std::vector<Variant> text{std::string("changed by the host")};
    Invoke(*r.object, "ComFunction", MemberKind::PropertyPut, text);
    EXPECT_EQ(sim.encoder.LastError().ComFunction, "changed by the host");
}

struct RefusedCall {
    const char* member;
    std::vector<Variant> args;
    DispatchError::Reason reason;
    int argument;
};

TEST(Dispatch, CallsThatCannotBeMadeAreRefusedBeforeAnythingIsSent) {
    const std::vector<RefusedCall> cases{
        {"NoSuchMember", {}, DispatchError::Reason::UnknownName, -1},
        {"ReadDataBloc", {std::int32_t{4}}, DispatchError::Reason::BadParamCount, -1},
        {"GetInformation", {std::int32_t{1}}, DispatchError::Reason::BadParamCount, -1},
        {"ReadDataBloc",
         {std::string("four"), std::string(kTransportKey), std::uint8_t{0}, std::string()},
         DispatchError::Reason::TypeMismatch,
         0},
        {"ReadDataBloc",
         {std::int32_t{4}, std::string(kTransportKey), std::int32_t{256}, std::string()},
         DispatchError::Reason::Overflow,
         2},
    };
    auto fake = std::make_shared<test::ScriptedPcsc>();  // no exchange expected: any transmission fails the test
    Encoder encoder(fake);
    encoder.Parameters("Device=Virtual PCD 00 00");
    ASSERT_EQ(encoder.OpenEncoder(), sceSuccess);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.member);
        auto args = c.args;
        try {
            Invoke(encoder, c.member, MemberKind::Method, args);
            ADD_FAILURE() << "the call was made";
        } catch (const DispatchError& e) {
            EXPECT_EQ(e.reason(), c.reason) << e.what();
            EXPECT_EQ(e.argumentIndex(), c.argument) << e.what();
            EXPECT_NE(std::string(e.what()), "");
        }
    }
    EXPECT_TRUE(fake->Transmitted().empty());
}

TEST(Dispatch, ArgumentsConvertAsAutomationCoercesThem) {
    struct Case {
        Variant in;
        ValueType to;
        Variant out;
    };
    const std::vector<Case> cases{
        {std::string("&H1F"), ValueType::Long, std::int32_t{31}},
        {std::string("0x1f"), ValueType::Byte, std::uint8_t{31}},
        {std::string("-2147483648"), ValueType::Long, std::int32_t{INT32_MIN}},
        {true, ValueType::Long, std::int32_t{-1}},
        {2.5, ValueType::Long, std::int32_t{2}},  // half to even
        {3.5, ValueType::Byte, std::uint8_t{4}},
        {std::uint8_t{200}, ValueType::Long, std::int32_t{200}},
        {std::string("false"), ValueType::Boolean, false},
        {std::int32_t{0}, ValueType::Boolean, false},
        {std::string("text"), ValueType::Variant, std::string("text")},
        {std::vector<std::uint8_t>{0x04, 0xA1}, ValueType::Variant, std::vector<std::uint8_t>{0x04, 0xA1}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ConvertArgument(c.in, c.to), c.out) << ToText(c.in) << " to " << TypeName(c.to);
    }
    EXPECT_THROW(ConvertArgument(std::string("2147483648"), ValueType::Long), DispatchError);
    EXPECT_THROW(ConvertArgument(std::string("12abc"), ValueType::Long), DispatchError);
    EXPECT_THROW(ConvertArgument(true, ValueType::Byte), DispatchError);  // True is -1
    EXPECT_THROW(ConvertArgument(1.0e300, ValueType::Long), DispatchError);
    EXPECT_EQ(ToText(std::vector<std::uint8_t>{0x04, 0xA1, 0x0F}), "04 A1 0F");
}

TEST(CInterface, CallByNameSetsAndReadsParameters) {
    elatectwn4_encoder* encoder = elatectwn4_create();
    ASSERT_NE(encoder, nullptr);
    std::string text = "Device=Reader 7;Conformance=card";
    elatectwn4_value value{};
    value.type = ELATECTWN4_STRING;
    value.text = text.data();
    value.length = text.size();
    EXPECT_EQ(elatectwn4_call(encoder, "parameters", ELATECTWN4_PROPERTY_PUT, &value, 1, nullptr, nullptr),
              ELATECTWN4_CALL_OK);
    elatectwn4_value result{};
    EXPECT_EQ(elatectwn4_call(encoder, "Parameters", ELATECTWN4_PROPERTY_GET, nullptr, 0, &result, nullptr),
              ELATECTWN4_CALL_OK);
    ASSERT_EQ(result.type, ELATECTWN4_STRING);
    EXPECT_EQ(std::string(result.text, result.length),
              "Encoding capabilities=Mifare Classic, Mifare Ultralight, Mifare DESFire\r\nDevice=Reader 7");
    elatectwn4_value_clear(&result);
    elatectwn4_destroy(encoder);
}

}  // namespace
}  // namespace elatectwn4
