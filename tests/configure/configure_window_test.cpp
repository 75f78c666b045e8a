// Configure's real window under a private Xvfb, against the in-process
// simulator: the words of both dialogs (from the program's dump, against its
// label table), the test dialog following a card that is there and then
// pulled, and what a click, a key or closing the window makes of the result.
// Screenshots land in SCREENSHOT_DIR.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "configure/labels.h"
#include "elatectwn4/encoder.h"
#include "sim/reader.h"
#include "sim/simulated_pcsc.h"
#include "support/desktop.h"
#include "support/record_text.h"
#include "support/registry_dir.h"

namespace elatectwn4::test {
namespace {

using configure::Text;

constexpr const char* kCardReader = "Virtual PCD 00 00";
constexpr const char* kEmptyReader = "Virtual PCD 00 01";

class ConfigureWindow : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(desktop.ok());
        registry.WriteCardTypes("\"Classic\"=\"11;3B 8F 80 01 80 4F 0C A0 00 00 03 06 03 00 01;4\"\r\n");
    }
    void Start(const char* device, const char* language) {
        encoder.Parameters(std::string("Device=") + device);
        std::filesystem::remove(dumpFile);  // the last run's program was waited for: nothing writes it now
        running.emplace(desktop, [this, language] { return encoder.Configure(language); });
    }
    sceReturnCode Result() {
        const sceReturnCode result = running->Result();
        running.reset();
        return result;
    }
    std::string Device() {
        const std::string parameters = encoder.Parameters();
        return parameters.substr(parameters.find("Device=") + 7);
    }

    Desktop desktop;
    RegistryDir registry;
    std::filesystem::path dumpFile = registry.path() / "screen";
    Screen screen{dumpFile};
    ScopedEnv program{"ELATECTWN4_CONFIGURE_PROGRAM", CONFIGURE_PROGRAM};
    ScopedEnv dump{"ELATECTWN4_CONFIGURE_DUMP", dumpFile.c_str()};
    std::shared_ptr<sim::SimulatedPcsc> pcsc = std::make_shared<sim::SimulatedPcsc>();
    Encoder encoder{pcsc};
    std::optional<RunningDialog> running;  // last: it ends before what the call uses
};

// In French: English is the other test's, and the language the component
// asks for is the dialog protocol's.
TEST_F(ConfigureWindow, TheTestDialogFollowsTheCardAndOkTakesTheReaderClicked) {
    const auto say = [](Text t) { return std::string(configure::Of(t, true)); };
    const auto says = [&](std::vector<std::string> words) {
        std::sort(words.begin(), words.end());
        return words;
    };
    pcsc->FindReader(kCardReader)->Insert(sim::MakeCard("mifare1k", {0x5A, 0x6B, 0x7C, 0x8D}));
    Start(kCardReader, "francais");

    Window configure = screen.Await(say(Text::ConfigureTitle));
    EXPECT_EQ(configure.OwnTexts(), says({say(Text::Readers), say(Text::Test), say(Text::Cancel), say(Text::Ok)}));
    EXPECT_TRUE(configure.Selected(kCardReader)) << "the reader of Parameters is not selected";
    EXPECT_TRUE(Screenshot(configure, std::filesystem::path(SCREENSHOT_DIR) / "configure-fr.png"));
    Click(configure, "button", say(Text::Test));

    Window test =
        screen.Await(say(Text::TestTitle), [&](const Window& w) { return w.Value("state") == say(Text::Ready); });
    EXPECT_EQ(test.OwnTexts(), says({say(Text::Reader), say(Text::State), say(Text::Atr), say(Text::CardType),
                                     say(Text::SerialNumber), say(Text::Message), say(Text::Close)}));
    EXPECT_EQ(test.Value("reader"), kCardReader);
    EXPECT_EQ(test.Value("atr"), "3B 8F 80 01 80 4F 0C A0 00 00 03 06 03 00 01 00 00 00 00 6A");
    EXPECT_EQ(test.Value("cardtype"), "MIFARE Classic 1K (17)");
    EXPECT_EQ(test.Value("serial"), "5A6B7C8D");
    EXPECT_TRUE(Screenshot(test, std::filesystem::path(SCREENSHOT_DIR) / "test-fr.png"));

    pcsc->FindReader(kCardReader)->Remove();
    test = screen.Await(say(Text::TestTitle), [&](const Window& w) { return w.Value("state") == say(Text::NoCard); });
    EXPECT_EQ(test.Value("atr") + test.Value("serial"), "");
    EXPECT_EQ(test.Value("message"), "No card in encoder: No Smart Card is currently in the device.");
    Press(test, "Escape");
    EXPECT_TRUE(screen.AwaitGone(say(Text::TestTitle)));

    Click(configure, "row", kEmptyReader);
    configure = screen.Await(say(Text::ConfigureTitle), [](const Window& w) { return w.Selected(kEmptyReader); });
    Click(configure, "button", say(Text::Ok));
    EXPECT_EQ(Result(), sceSuccess) << RecordText(encoder.LastError());
    EXPECT_EQ(Device(), kEmptyReader);
}

TEST_F(ConfigureWindow, ReturnIsOkAndEscapeCancelOrClosingTheWindowCancel) {
    const std::string title(configure::Of(Text::ConfigureTitle, false));
    struct Case {
        const char* name;
        void (*act)(const Window&);
        sceReturnCode result;
    };
    const Case cases[] = {
        {"Return", [](const Window& w) { Press(w, "Return"); }, sceSuccess},
        {"Escape", [](const Window& w) { Press(w, "Escape"); }, sceCanceled},
        {"Cancel", [](const Window& w) { Click(w, "button", "_Cancel"); }, sceCanceled},
        {"closed", [](const Window& w) { CloseWindow(w); }, sceCanceled},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Start(kEmptyReader, "english");
        c.act(screen.Await(title));
        EXPECT_EQ(Result(), c.result);
        EXPECT_EQ(RecordText(encoder.LastError()), RecordText(0, "", 0, "Configure", "", ""));
        EXPECT_EQ(Device(), kEmptyReader);
    }
}

}  // namespace
}  // namespace elatectwn4::test
