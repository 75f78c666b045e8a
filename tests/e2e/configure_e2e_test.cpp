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
using configure::Of;
using configure::Text;

TEST(ConfigureThroughPcscd, ListsTheVpcdReadersAndFollowsTheBridgesCard) {
    const e2e::E2eSetup setup;
    ASSERT_TRUE(setup.Complete()) << "run this program through run_e2e.sh, which starts pcscd and the bridges";
    ASSERT_TRUE(e2e::WaitForCard(setup.mifareReader, true)) << "no card in " << setup.mifareReader;
    struct PutBack {
        std::string socket;
        ~PutBack() { e2e::Control(socket, "insert"); }
    } putBack{setup.mifareControl};

    RegistryDir registry;
    registry.WriteCardTypes("\"Classic\"=\"11;3B 8F 80 01 80 4F 0C A0 00 00 03 06 03 00 01;4\"\r\n");
    std::string atr;
    {
        Encoder reading;
        reading.Parameters("Device=" + setup.mifareReader);
        ASSERT_EQ(reading.OpenEncoder(), sceSuccess);
        atr = reading.ATRString();
    }
    Desktop desktop;
    ASSERT_TRUE(desktop.ok());
    const std::filesystem::path dump = registry.path() / "screen";
    ScopedEnv program("ELATECTWN4_CONFIGURE_PROGRAM", CONFIGURE_PROGRAM);
    ScopedEnv dumpTo("ELATECTWN4_CONFIGURE_DUMP", dump.c_str());

    Encoder encoder;
    encoder.Parameters("Device=" + setup.mifareReader);
    RunningDialog running(desktop, [&] { return encoder.Configure("english"); });

    const auto await = [&](Text title, const std::function<bool(const Window&)>& ready) {
        const auto screen = WaitForScreen(dump, [&](const Screen& s) {
            const Window* w = s.Titled(std::string(Of(title, false)));
            return w != nullptr && ready(*w);
        });
        return screen ? *screen->Titled(std::string(Of(title, false))) : Window{};
    };
    const Window configure =
        await(Text::ConfigureTitle, [&](const Window& w) { return w.Selected(setup.mifareReader); });
    ASSERT_NE(configure.id, 0u) << "the configuration dialog did not show the MIFARE reader selected";
    EXPECT_NE(configure.Find("row", setup.desfireReader), nullptr);
    EXPECT_TRUE(Screenshot(configure, std::filesystem::path(SCREENSHOT_DIR) / "configure-pcscd.png"));
    Click(configure, "button", std::string(Of(Text::Test, false)));

    const std::string ready(Of(Text::Ready, false));
    Window test = await(Text::TestTitle, [&](const Window& w) { return w.Value("state") == ready; });
    EXPECT_EQ(test.Value("serial"), setup.mifareUid);
    EXPECT_EQ(test.Value("atr"), atr);
    EXPECT_EQ(test.Value("cardtype"), "MIFARE Classic 1K (17)");
    EXPECT_TRUE(Screenshot(test, std::filesystem::path(SCREENSHOT_DIR) / "test-pcscd.png"));

    ASSERT_EQ(e2e::Control(setup.mifareControl, "remove"), "ok");
    const std::string noCard(Of(Text::NoCard, false));
    test = await(Text::TestTitle, [&](const Window& w) { return w.Value("state") == noCard; });
    EXPECT_EQ(test.Value("message"), "No card in encoder: No Smart Card is currently in the device.");
    ASSERT_EQ(e2e::Control(setup.mifareControl, "insert"), "ok");
    test = await(Text::TestTitle, [&](const Window& w) { return w.Value("serial") == setup.mifareUid; });
    EXPECT_EQ(test.Value("state"), ready);

    Press(test, "Escape");
    EXPECT_TRUE(WaitForScreen(
        dump, [](const Screen& s) { return s.Titled(std::string(Of(Text::TestTitle, false))) == nullptr; }));
    Press(configure, "Escape");
    EXPECT_EQ(running.Result(), sceCanceled);
}

}  // namespace
