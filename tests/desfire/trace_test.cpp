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

// ChangeKey's frame is masked by its command; the settings are masked by the member.
TEST_F(DesfireTrace, TheKeySettingsFrameShowsOnlyItsCommandByte) {
    ASSERT_TRUE(command::TraceEnabled());
    Play("54" + std::string(16, '?') + "> 00", kCard);
    test::ClearTrace();
    ASSERT_EQ(DESFireChangeKeySettings(ctx, 0x0F), sceSuccess) << Record();
    EXPECT_EQ(ShownAfter("Sending DesfireChangeKeySettings: "), "54" + std::string(16, '*'));
}

}  // namespace
}  // namespace elatectwn4::desfire
