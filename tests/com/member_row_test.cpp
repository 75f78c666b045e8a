// Rows that deduce types, in/out and the call from a member's signature:
// the checks that refuse a row contradicting its member, and the call that
// writes back exactly the by-reference arguments.
#include "com/member_row.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace elatectwn4::com {
namespace {

struct Probe {
    sceReturnCode Shape(std::int32_t number, const std::string& text, std::uint8_t byte, std::string& textOut,
                        std::int32_t& numberOut, std::uint8_t& byteOut, Variant& any, DesfireKeySettings settings) {
        seen = {number, text, byte, settings};
        textOut += "!";
        numberOut = -numberOut;
        byteOut = static_cast<std::uint8_t>(byteOut + 1);
        any = std::vector<std::uint8_t>{0x04, 0xA1};
        return sceError;
    }
    Variant Bytes() { return std::vector<std::uint8_t>{0xDE, 0xAD}; }
    sceCardTypes Kind() { return sceDESFire; }
    void Nothing(std::int32_t) {}

    struct Seen {
        std::int32_t number = 0;
        std::string text;
        std::uint8_t byte = 0;
        DesfireKeySettings settings{};
    } seen;
};

constexpr std::array kShape{In("number"),       In("text"),       In("byte"),   InOut("textOut"),
                            InOut("numberOut"), InOut("byteOut"), InOut("any"), In("settings")};

// Shape's row with parameter `i` stated as `p` instead.
constexpr auto With(std::size_t i, Param p) {
    auto row = kShape;
    row[i] = p;
    return row;
}
constexpr std::array kOneShort{In("number"),       In("text"),       In("byte"),  InOut("textOut"),
                               InOut("numberOut"), InOut("byteOut"), InOut("any")};

static_assert(CountFits<&Probe::Shape>(kShape) && InOutFits<&Probe::Shape>(kShape) &&
              TypeNamesFit<&Probe::Shape>(kShape) && TypesKnown<&Probe::Shape>(kShape));
static_assert(!InOutFits<&Probe::Shape>(With(3, In("textOut"))), "a by-reference parameter stated as in");
static_assert(!InOutFits<&Probe::Shape>(With(1, InOut("text"))), "a const reference stated as in/out");
static_assert(!TypeNamesFit<&Probe::Shape>(With(2, In("byte", "DesfireKeySettings"))),
              "only a Long may be shown as an enumeration");
static_assert(TypeNamesFit<&Probe::Shape>(With(0, In("number", "DesfireFileTypes"))));
static_assert(!TypeNamesFit<&Probe::Shape>(With(0, In("number", "Integer"))), "not a public enumeration");
static_assert(!CountFits<&Probe::Shape>(kOneShort) && !InOutFits<&Probe::Shape>(kOneShort));
static_assert(!OptionalsFit(std::array{Optional("number"), In("x")}) &&
              !OptionalsFit(std::array{In("number"), Param{"x", true, true, {}}}));

TEST(MemberRow, CallsWithEveryArgumentWritesBackThroughTheReferencesAndKeepsTheResultsForm) {
    Probe probe;
    std::vector<Variant> args{std::int32_t{-7}, std::string("in"),  std::uint8_t{0xFE}, std::string("out"),
                              std::int32_t{41}, std::uint8_t{0x0F}, Variant{},          std::int32_t{0xE0}};
    const DispatchResult result = CallMember<&Probe::Shape>(probe, args);

    EXPECT_EQ(result.value, Variant{std::int32_t{sceError}});
    EXPECT_EQ(probe.seen.number, -7);
    EXPECT_EQ(probe.seen.text, "in");
    EXPECT_EQ(probe.seen.byte, 0xFE);
    EXPECT_EQ(probe.seen.settings, dfkChangeKeyWithTargetedKey);
    EXPECT_EQ(args[3], Variant{std::string("out!")});
    EXPECT_EQ(args[4], Variant{std::int32_t{-41}});
    EXPECT_EQ(args[5], Variant{std::uint8_t{0x10}});
    EXPECT_EQ(args[6], (Variant{std::vector<std::uint8_t>{0x04, 0xA1}}));

    // Results keep their Automation form.
    std::vector<Variant> none;
    EXPECT_EQ(CallMember<&Probe::Bytes>(probe, none).value, (Variant{std::vector<std::uint8_t>{0xDE, 0xAD}}));
    EXPECT_EQ(CallMember<&Probe::Kind>(probe, none).value, Variant{std::int32_t{0x31}});
    std::vector<Variant> one{std::int32_t{1}};
    EXPECT_EQ(CallMember<&Probe::Nothing>(probe, one).value, Variant{});
}

}  // namespace
}  // namespace elatectwn4::com
