// Late-bound calls: members are reachable by name and by id, in/out
// arguments come back, and calls that cannot be made are refused before
// anything reaches the card.
#include "elatectwn4/dispatch.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <set>

#include "elatectwn4/encoder.h"
#include "sim/reader.h"
#include "sim/simulated_pcsc.h"
#include "support/scripted_pcsc.h"

namespace elatectwn4 {
namespace {

constexpr const char* kReader = "Virtual PCD 00 00";
constexpr const char* kTransportKey = "FFFFFFFFFFFF";

TEST(Dispatch, NamesIgnoreCaseIdsAreUniqueAndObjectsComeBackThemselves) {
    auto pcsc = std::make_shared<sim::SimulatedPcsc>();
    pcsc->FindReader(kReader)->Insert(sim::MakeCard("mifare1k"));
    Encoder encoder(pcsc);
    encoder.Parameters(std::string("Device=") + kReader);
    ASSERT_EQ(encoder.OpenEncoder(), sceSuccess);
    std::string written = "0F1E2D3C4B5A69788796A5B4C3D2E1F0";
    ASSERT_EQ(encoder.WriteDataBloc(5, kTransportKey, 0, written), sceSuccess);
    std::vector<Variant> args{std::int32_t{5}, std::string(kTransportKey), std::uint8_t{0}, std::string("stale")};
    EXPECT_EQ(std::get<std::int32_t>(Invoke(encoder, "readdatabloc", MemberKind::Method, args).value), sceSuccess);
    EXPECT_EQ(std::get<std::string>(args[3]), written);

    std::set<std::pair<std::int32_t, int>> seen;
    for (const auto& m : Members()) {
        if (m.interfaceName == "_Encoder") {
            EXPECT_TRUE(seen.insert({m.dispId, static_cast<int>(m.kind)}).second) << "dispatch id reused: " << m.name;
        }
    }
    const auto* info = FindMember("_Encoder", "ATRString", MemberKind::PropertyGet);
    ASSERT_NE(info, nullptr);
    std::vector<Variant> none;
    EXPECT_EQ(std::get<std::string>(Invoke(encoder, info->dispId, MemberKind::PropertyGet, none).value),
              encoder.ATRString());

    std::string shortBlock = "0011";
    EXPECT_EQ(encoder.WriteDataBloc(4, kTransportKey, 0, shortBlock), sceError);
    const auto r = Invoke(encoder, "LastError", MemberKind::PropertyGet, none);
    ASSERT_EQ(r.object, &encoder.LastError());
    EXPECT_EQ(std::get<std::int32_t>(Invoke(*r.object, "Number", MemberKind::PropertyGet, none)),
              ErrorValue(ErrorNumber::BlockMustBe32Hex));
    std::vector<Variant> text{std::string("changed by the host")};
    Invoke(*r.object, "ComFunction", MemberKind::PropertyPut, text);
    EXPECT_EQ(encoder.LastError().ComFunction, "changed by the host");
}

TEST(Dispatch, CallsThatCannotBeMadeAreRefusedBeforeAnythingIsSent) {
    using enum DispatchError::Reason;
    // ReadDataBloc's arguments, the first `count` of them, argument `at` replaced by `value`.
    const struct {
        const char* member;
        std::size_t count;
        int at;
        Variant value;
        DispatchError::Reason reason;
    } cases[] = {
        {"NoSuchMember", 0, -1, {}, UnknownName},
        {"ReadDataBloc", 1, -1, {}, BadParamCount},
        {"GetInformation", 1, -1, {}, BadParamCount},
        {"ReadDataBloc", 4, 0, std::string("four"), TypeMismatch},
        {"ReadDataBloc", 4, 1, std::int32_t{12}, TypeMismatch},
        {"ReadDataBloc", 4, 2, std::int32_t{256}, Overflow},
        {"ReadDataBloc", 4, 0, 3.0e10, Overflow},
    };
    auto fake = std::make_shared<test::ScriptedPcsc>();  // no exchange expected: any transmission fails the test
    Encoder encoder(fake);
    encoder.Parameters("Device=Virtual PCD 00 00");
    ASSERT_EQ(encoder.OpenEncoder(), sceSuccess);
    for (const auto& c : cases) {
        std::vector<Variant> args{std::int32_t{4}, std::string(kTransportKey), std::uint8_t{0}, std::string()};
        args.resize(c.count);
        if (c.at >= 0) args[static_cast<std::size_t>(c.at)] = c.value;
        try {
            Invoke(encoder, c.member, MemberKind::Method, args);
            ADD_FAILURE() << c.member << ": the call was made";
        } catch (const DispatchError& e) {
            EXPECT_EQ(e.reason(), c.reason) << e.what();
            EXPECT_EQ(e.argumentIndex(), c.at) << e.what();
            EXPECT_NE(std::string(e.what()), "");
        }
    }
    EXPECT_TRUE(fake->Transmitted().empty());
}

TEST(Dispatch, ArgumentsConvertAsAutomationCoercesThem) {
    struct Case {
        Variant in;
        ValueType to;
        std::optional<Variant> out;
    };
    const std::optional<Variant> refused;
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
        {std::string("2147483648"), ValueType::Long, refused},
        {std::string("12abc"), ValueType::Long, refused},
        {true, ValueType::Byte, refused},  // True is -1
    };
    for (const auto& c : cases) {
        std::optional<Variant> out;
        try {
            out = ConvertArgument(c.in, c.to);
        } catch (const DispatchError&) {
        }
        EXPECT_EQ(out, c.out) << ToText(c.in) << " to " << TypeName(c.to);
    }
}

}  // namespace
}  // namespace elatectwn4
