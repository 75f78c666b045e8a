// Configure's window over a real pcscd, under run_e2e.sh: the reader list is
// what pcscd lists (the vpcd readers), and the test dialog follows the
// bridge's MIFARE card out of the reader and back in.
#include <gtest/gtest.h>

#include <string>

#include "configure/labels.h"
#include "e2e/e2e_support.h"
#include "elatectwn4/encoder.h"
#include "support/desktop.h"
#include "support/registry_dir.h"

namespace {

using namespace elatectwn4;
using namespace elatectwn4::test;
using configure::Text;

std::string Say(Text text) {
    return std::string(configure::Of(text, false));
}

class ConfigureThroughPcscd : public e2e::ServedCards {};

TEST_F(ConfigureThroughPcscd, ListsTheVpcdReadersAndFollowsTheBridgesCard) {
    struct PutBack {
        std::string socket;
        ~PutBack() { e2e::Control(socket, "insert"); }
    } putBack{setup_.mifareControl};
    RegistryDir registry;
    registry.WriteCardTypes("\"Classic\"=\"11;3B 8F 80 01 80 4F 0C A0 00 00 03 06 03 00 01;4\"\r\n");
    Encoder encoder;
    encoder.Parameters("Device=" + setup_.mifareReader);
    ASSERT_EQ(encoder.OpenEncoder(), sceSuccess);
    const std::string atr = encoder.ATRString();
    ASSERT_EQ(encoder.CloseEncoder(), sceSuccess);

    Desktop desktop;
    ASSERT_TRUE(desktop.ok());
    const Screen screen(registry.path() / "screen");
    ScopedEnv program("ELATECTWN4_CONFIGURE_PROGRAM", CONFIGURE_PROGRAM);
    ScopedEnv dump("ELATECTWN4_CONFIGURE_DUMP", (registry.path() / "screen").c_str());
    RunningDialog running(desktop, [&] { return encoder.Configure("english"); });

    const Window configure = screen.Await(Say(Text::ConfigureTitle));
    EXPECT_TRUE(configure.Selected(setup_.mifareReader));
    EXPECT_NE(configure.Find("row", setup_.desfireReader), nullptr);
    Click(configure, "button", Say(Text::Test));
    const auto showing = [&](const char* name, const std::string& value) {
        return screen.Await(Say(Text::TestTitle), [&](const Window& w) { return w.Value(name) == value; });
    };
    Window test = showing("serial", setup_.mifareUid);
    EXPECT_EQ(test.Value("atr"), atr);
    EXPECT_EQ(test.Value("cardtype"), "MIFARE Classic 1K (17)");

    ASSERT_EQ(e2e::Control(setup_.mifareControl, "remove"), "ok");
    test = showing("state", Say(Text::NoCard));
    EXPECT_EQ(test.Value("message"), "No card in encoder: No Smart Card is currently in the device.");
    ASSERT_EQ(e2e::Control(setup_.mifareControl, "insert"), "ok");
    test = showing("serial", setup_.mifareUid);
    Press(test, "Escape");
    EXPECT_TRUE(screen.AwaitGone(Say(Text::TestTitle)));
    Press(configure, "Escape");
    EXPECT_EQ(running.Result(), sceCanceled);
}

}  // namespace
