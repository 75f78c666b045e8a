// With the trace on, the frames that carry keys or enciphered key material
// show their command byte and nothing of the rest.
#include "command/trace.h"

#include <gtest/gtest.h>

#include <string>

#include "apdu_fixture.h"
#include "support/trace_file.h"

namespace elatectwn4::desfire {
namespace {

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
    const std::string key = "00112233445566778899AABBCCDDEEFF";
    const struct {
        Call call;
        const char* member;
        std::string sent;   // the expected frame
        std::string shown;  // what the trace line shows
    } rows[] = {
        {CALL(DESFireChangeKeySettings, 0x0F), "54" + std::string(16, '?'), "54" + std::string(16, '*')},
        {CALL(DESFireChangeKey, 0, key, "A0B1C2D3E4F5A6B7C8D9EAFB0C1D2E3F"), "C400" + std::string(48, '?'),
         "C400" + std::string(48, '*')},
    };
    for (const auto& row : rows) {
        Play({{row.sent, "00"}}, kCard);
        test::ClearTrace();
        ASSERT_EQ(row.call(ctx), sceSuccess) << Record();
        EXPECT_EQ(ShownAfter("Sending " + std::string(row.member).replace(0, 7, "Desfire") + ": "), row.shown);
    }
}

}  // namespace
}  // namespace elatectwn4::desfire
