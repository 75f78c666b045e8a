// Late-bound calls: every member of the type library is reachable by name and
// by id, in/out arguments come back, and calls that cannot be made are
// refused before anything reaches the card.
#include "elatectwn4/dispatch.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <optional>
#include <set>

#include "elatectwn4/encoder.h"
#include "sim/reader.h"
#include "sim/simulated_pcsc.h"
#include "support/registry_dir.h"
#include "support/scripted_pcsc.h"

namespace elatectwn4 {
namespace {

constexpr const char* kReader = "Virtual PCD 00 00";
constexpr const char* kTransportKey = "FFFFFFFFFFFF";

constexpr const char* kDesfireFactoryKey = "0000000000000000";

struct SimulatedEncoder {
    explicit SimulatedEncoder(const std::string& kind = "mifare1k")
        : pcsc(std::make_shared<sim::SimulatedPcsc>()), encoder(pcsc) {
        pcsc->FindReader(kReader)->Insert(sim::MakeCard(kind));
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
        {"ApplicationId", std::string("A1B2C3")},
        {"KeyValue", std::string(kDesfireFactoryKey)},
        {"OldKey", std::string(kDesfireFactoryKey)},
        {"NewKey", std::string(kDesfireFactoryKey)},
        {"NumOfKeys", std::int32_t{1}},
        {"KeySettings", std::int32_t{0x0F}},
        {"FileSize", std::int32_t{32}},
        {"RecordSize", std::int32_t{4}},
        {"MaxNumOfRecords", std::int32_t{2}},
        {"DataString", std::string("00")}};
    if (auto it = byName.find(p.name); it != byName.end()) {
        if (p.type == ValueType::String && p.name == "Value") return std::string("Device=") + kReader;
        return it->second;
    }
    return DefaultOf(p.type);
}

// The file, data and value members work on file 0 of a fresh application
// A1B2C3: none for the creations, otherwise a file of the kind the member
// takes, everyone's to read, write and change, with something to commit, to
// read back or to give back.
void PrepareFileMember(Encoder& e, const std::string& member) {
    const auto ok = [&e](sceReturnCode result) { ASSERT_EQ(result, sceSuccess) << e.LastError().Description; };
    const auto all = dfaAllowAll;
    ok(e.DESFireFormat());
    ok(e.DESFireCreateApplication("A1B2C3", DesfireKeySettings(0x0F), 1));
    ok(e.DESFireSelectApplication("A1B2C3", 0, kDesfireFactoryKey));
    if (member.starts_with("DESFireCreate")) return;
    if (member.find("Record") != std::string::npos) {
        ok(e.DESFireCreateLinearRecordFile(0, dfcPlain, all, all, all, all, 4, 2));
        ok(e.DESFireWriteRecord(0, 0, 4, "01020304", true));
        ok(e.DESFireCommitTransaction());
    } else if (member.find("Value") != std::string::npos || member.ends_with("Credit") || member.ends_with("Debit")) {
        ok(e.DESFireCreateValueFile(0, dfcPlain, all, all, all, all, 0, 100, 10, true));
    } else if (member.ends_with("Transaction")) {
        ok(e.DESFireCreateBackupDataFile(0, dfcPlain, all, all, all, all, 32));
        ok(e.DESFireWriteData(0, 0, 4, "01020304", true));
    } else {
        ok(e.DESFireCreateStdDataFile(0, dfcPlain, all, all, all, all, 32));
    }
}

bool IsFileMember(const std::string& member) {
    static const std::set<std::string> kKeysAndApplications{
        "DESFireSelectApplication", "DESFireSelectRoot",      "DESFireFormat",           "DESFireCreateApplication",
        "DESFireDeleteApplication", "DESFireGetApplications", "DESFireGetVersion",       "DESFireChangeKey",
        "DESFireGetKeyVersion",     "DESFireGetKeySettings",  "DESFireChangeKeySettings"};
    return member.starts_with("DESFire") && !kKeysAndApplications.contains(member);
}

TEST(Dispatch, EveryEncoderMemberIsCallableByNameWithItsDeclaredTypes) {
    SimulatedEncoder mifare;
    // The DESFire members run in the order of the table on a card with
    // application A1B2C3, each after a fresh card-level authentication.
    SimulatedEncoder desfire("desfire");
    ASSERT_EQ(desfire.encoder.DESFireSelectRoot(kDesfireFactoryKey), sceSuccess);
    ASSERT_EQ(desfire.encoder.DESFireCreateApplication("A1B2C3", DesfireKeySettings(0x0F), 1), sceSuccess);
    // Configure's window is played by a stand-in that answers OK at once.
    test::ScopedEnv dialogProgram("ELATECTWN4_CONFIGURE_PROGRAM", FAKE_DIALOG);
    test::ScopedEnv display("DISPLAY", ":7");
    int called = 0;
    for (const auto& m : Members()) {
        if (m.interfaceName != "_Encoder") continue;
        SCOPED_TRACE(Signature(m));
        const bool isDesfire = m.name.starts_with("DESFire");
        SimulatedEncoder& sim = isDesfire ? desfire : mifare;
        if (isDesfire) {
            ASSERT_EQ(sim.encoder.DESFireSelectRoot(kDesfireFactoryKey), sceSuccess);
        }
        if (IsFileMember(std::string(m.name))) {
            ASSERT_NO_FATAL_FAILURE(PrepareFileMember(sim.encoder, std::string(m.name)));
        }
        std::vector<Variant> args;
        for (const auto& p : m.params) {
            if (!p.optional) args.push_back(SampleArgument(p));
        }
        DispatchResult r;
        ASSERT_NO_THROW(r = Invoke(sim.encoder, m.name, m.kind, args));
        for (std::size_t i = 0; i < args.size(); ++i) {
            if (m.params[i].type != ValueType::Variant) {
                EXPECT_EQ(args[i].index(), DefaultOf(m.params[i].type).index()) << "argument " << i + 1 << " retyped";
            }
        }
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

TEST(Dispatch, NamesIgnoreCaseIdsAreUniqueAndObjectsComeBackThemselves) {
    SimulatedEncoder sim;
    std::string written = "0F1E2D3C4B5A69788796A5B4C3D2E1F0";
    ASSERT_EQ(sim.encoder.WriteDataBloc(5, kTransportKey, 0, written), sceSuccess);
    std::vector<Variant> args{std::int32_t{5}, std::string(kTransportKey), std::uint8_t{0}, std::string("stale")};
    EXPECT_EQ(std::get<std::int32_t>(Invoke(sim.encoder, "readdatabloc", MemberKind::Method, args).value), sceSuccess);
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
    EXPECT_EQ(std::get<std::string>(Invoke(sim.encoder, info->dispId, MemberKind::PropertyGet, none).value),
              sim.encoder.ATRString());

    std::string shortBlock = "0011";
    EXPECT_EQ(sim.encoder.WriteDataBloc(4, kTransportKey, 0, shortBlock), sceError);
    const auto r = Invoke(sim.encoder, "LastError", MemberKind::PropertyGet, none);
    ASSERT_EQ(r.object, &sim.encoder.LastError());
    EXPECT_EQ(std::get<std::int32_t>(Invoke(*r.object, "Number", MemberKind::PropertyGet, none)),
              ErrorValue(ErrorNumber::BlockMustBe32Hex));
    std::vector<Variant> text{std::string("changed by the host")};
    Invoke(*r.object, "ComFunction", MemberKind::PropertyPut, text);
    EXPECT_EQ(sim.encoder.LastError().ComFunction, "changed by the host");
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
