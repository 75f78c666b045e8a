// With the trace on, the frames that carry keys or enciphered key material
// show their command byte and nothing of the rest.
#include "command/trace.h"

#include <gtest/gtest.h>

#include <string>

#include "apdu_fixture.h"
#include "support/trace_file.h"

namespace elatectwn4::desfire {
namespace {

const Key kSession = desfire_test::MakeKey("4A1B7C3D5E6F708192A3B4C5D6E7F809");

// The hex part of the first trace line that starts with `prefix`; "" if none.
std::string ShownAfter(const std::string& prefix) {
    for (const std::string& line : test::TraceLines()) {
        if (line.rfind(prefix, 0) == 0) return line.substr(prefix.size(), line.find(" (") - prefix.size());
    }
    return "";
}

class DesfireTrace : public DesfireApdu {};

TEST_F(DesfireTrace, KeyFramesShowOnlyTheirCommandByte) {
    ASSERT_TRUE(command::TraceEnabled());
    struct Row {
        const char* name;
        std::function<sceReturnCode(Context&)> call;
        std::string sent;    // the expected frame ("??" any byte)
        std::string answer;  // the card's answer
        std::string line;    // the trace line's start
        std::string shown;   // what the line shows
    };
    const std::string any24 = "?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ?? ??";
    const Row rows[] = {
        {"ChangeKeySettings", [](Context& c) { return DESFireChangeKeySettings(c, 0x0F); },
         "54 ?? ?? ?? ?? ?? ?? ?? ??", "00", "Sending DesfireChangeKeySettings: ", "54" + std::string(16, '*')},
        {"ChangeKey",
         [](Context& c) {
             return DESFireChangeKey(c, 0, "00112233445566778899AABBCCDDEEFF", "A0B1C2D3E4F5A6B7C8D9EAFB0C1D2E3F");
         },
         "C4 00 " + any24, "00", "Sending DesfireChangeKey: ", "C400" + std::string(48, '*')},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        OpenSession(kSession, 0, std::string(kCardLevel));
        fake = std::make_shared<test::ScriptedPcsc>();
        channel.pcsc = fake.get();
        fake->Expect(row.sent).Reply(row.answer);
        test::ClearTrace();
        ASSERT_EQ(row.call(ctx), sceSuccess) << Record();
        EXPECT_EQ(ShownAfter(row.line), row.shown);
    }
}

}  // namespace
}  // namespace elatectwn4::desfire
