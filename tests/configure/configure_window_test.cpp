// Configure's real window under a private Xvfb, against the in-process
// simulator: what the dialogs show in each language (read from the program's
// dump and compared with its label table), what a click, a key or closing
// the window makes of the result, and what the test dialog says of a card
// that is there and then pulled. Screenshots land in SCREENSHOT_DIR.
#include <gtest/gtest.h>

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

using configure::Of;
using configure::Text;

constexpr const char* kCardReader = "Virtual PCD 00 00";
constexpr const char* kEmptyReader = "Virtual PCD 00 01";
constexpr const char* kAtr = "3B 8F 80 01 80 4F 0C A0 00 00 03 06 03 00 01 00 00 00 00 6A";

struct Language {
    const char* argument;
    bool french;
    const char* tag;
};
constexpr Language kLanguages[] = {{"francais", true, "fr"}, {"english", false, "en"}};

std::vector<std::string> Sorted(std::vector<std::string> texts) {
    std::sort(texts.begin(), texts.end());
    return texts;
}

std::vector<std::string> LabelsOf(std::initializer_list<Text> texts, bool french) {
    std::vector<std::string> out;
    for (Text t : texts)
        out.emplace_back(Of(t, french));
    return Sorted(out);
}

class ConfigureWindow : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(desktop.ok());
        registry.WriteCardTypes("\"Classic\"=\"11;3B 8F 80 01 80 4F 0C A0 00 00 03 06 03 00 01;4\"\r\n");
        pcsc->FindReader(kCardReader)->Insert(sim::MakeCard("mifare1k", {0x5A, 0x6B, 0x7C, 0x8D}));
        encoder.Parameters(std::string("Device=") + kCardReader);
    }
    void Start(const char* language) {
        std::filesystem::remove(dumpFile);
        running.emplace(desktop, [this, language] { return encoder.Configure(language); });
    }
    sceReturnCode Result() {
        const sceReturnCode result = running->Result();
        running.reset();
        return result;
    }

    /// The window titled `title` once `ready` holds for it.
    Window Await(const std::string& title, const std::function<bool(const Window&)>& ready = {}) {
        const auto screen = WaitForScreen(dumpFile, [&](const Screen& s) {
            const Window* w = s.Titled(title);
            return w != nullptr && (!ready || ready(*w));
        });
        if (!screen) {
            ADD_FAILURE() << "no window \"" << title << "\" as expected; the screen:\n" << Describe();
            return {};
        }
        return *screen->Titled(title);
    }
    void AwaitGone(const std::string& title) {
        EXPECT_TRUE(WaitForScreen(dumpFile, [&](const Screen& s) { return s.Titled(title) == nullptr; }))
            << "\"" << title << "\" stayed open";
    }
    std::string Describe() const {
        std::string text;
        for (const Window& w : ReadScreen(dumpFile).windows) {
            text += "window " + w.title + "\n";
            for (const Widget& x : w.widgets)
                text += "  " + x.kind + " " + x.name + " " + x.text + (x.flag ? " *" : "") + "\n";
        }
        return text;
    }
    void Shoot(const Window& window, const std::string& name) {
        EXPECT_TRUE(Screenshot(window, std::filesystem::path(SCREENSHOT_DIR) / (name + ".png"))) << name;
    }
    std::string Device() {
        const std::string parameters = encoder.Parameters();
        return parameters.substr(parameters.find("Device=") + 7);
    }

    Desktop desktop;
    RegistryDir registry;
    std::filesystem::path dumpFile = registry.path() / "screen";
    ScopedEnv program{"ELATECTWN4_CONFIGURE_PROGRAM", CONFIGURE_PROGRAM};
    ScopedEnv dump{"ELATECTWN4_CONFIGURE_DUMP", dumpFile.c_str()};
    std::shared_ptr<sim::SimulatedPcsc> pcsc = std::make_shared<sim::SimulatedPcsc>();
    Encoder encoder{pcsc};
    std::optional<RunningDialog> running;  // last: it ends before what the call uses
};

TEST_F(ConfigureWindow, SpeaksTheLanguageAskedForAndOkTakesTheReaderClicked) {
    for (const Language& language : kLanguages) {
        SCOPED_TRACE(language.argument);
        Start(language.argument);
        const std::string title(Of(Text::ConfigureTitle, language.french));
        Window w = Await(title);
        EXPECT_EQ(w.OwnTexts(), LabelsOf({Text::Readers, Text::Test, Text::Cancel, Text::Ok}, language.french));
        EXPECT_NE(w.Find("row", kEmptyReader), nullptr) << Describe();
        EXPECT_TRUE(w.Selected(kCardReader)) << "the reader of Parameters is not selected\n" << Describe();
        Shoot(w, std::string("configure-") + language.tag);

        Click(w, "row", kEmptyReader);
        w = Await(title, [](const Window& x) { return x.Selected(kEmptyReader); });
        Click(w, "button", std::string(Of(Text::Ok, language.french)));
        EXPECT_EQ(Result(), sceSuccess) << RecordText(encoder.LastError());
        EXPECT_EQ(Device(), kEmptyReader);
        encoder.Parameters(std::string("Device=") + kCardReader);
    }
}

TEST_F(ConfigureWindow, ReturnIsOkAndEscapeCancelOrClosingTheWindowCancel) {
    const std::string title(Of(Text::ConfigureTitle, false));
    struct Case {
        const char* name;
        std::function<void(const Window&)> act;
        sceReturnCode result;
    };
    const Case cases[] = {
        {"Return", [](const Window& w) { Press(w, "Return"); }, sceSuccess},
        {"Escape", [](const Window& w) { Press(w, "Escape"); }, sceCanceled},
        {"Cancel", [](const Window& w) { Click(w, "button", std::string(Of(Text::Cancel, false))); }, sceCanceled},
        {"closed", [](const Window& w) { CloseWindow(w); }, sceCanceled},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        encoder.Parameters(std::string("Device=") + kEmptyReader);
        Start("english");
        c.act(Await(title));
        EXPECT_EQ(Result(), c.result) << RecordText(encoder.LastError());
        EXPECT_EQ(RecordText(encoder.LastError()), RecordText(0, "", 0, "Configure", "", ""));
        EXPECT_EQ(Device(), kEmptyReader);
    }
}

TEST_F(ConfigureWindow, TheTestDialogShowsTheCardThenNoCardOnceItIsPulled) {
    for (const Language& language : kLanguages) {
        SCOPED_TRACE(language.argument);
        pcsc->FindReader(kCardReader)->Insert(sim::MakeCard("mifare1k", {0x5A, 0x6B, 0x7C, 0x8D}));
        Start(language.argument);
        const std::string title(Of(Text::TestTitle, language.french));
        const std::string ready(Of(Text::Ready, language.french));
        const std::string noCard(Of(Text::NoCard, language.french));
        const Window configure = Await(std::string(Of(Text::ConfigureTitle, language.french)));
        Click(configure, "button", std::string(Of(Text::Test, language.french)));

        Window test = Await(title, [&](const Window& w) { return w.Value("state") == ready; });
        EXPECT_EQ(test.OwnTexts(), LabelsOf({Text::Reader, Text::State, Text::Atr, Text::CardType, Text::SerialNumber,
                                             Text::Message, Text::Close},
                                            language.french));
        EXPECT_EQ(test.Value("reader"), kCardReader);
        EXPECT_EQ(test.Value("atr"), kAtr);
        EXPECT_EQ(test.Value("cardtype"), "MIFARE Classic 1K (17)");
        EXPECT_EQ(test.Value("serial"), "5A6B7C8D");
        EXPECT_EQ(test.Value("message"), "");
        Shoot(test, std::string("test-") + language.tag);

        pcsc->FindReader(kCardReader)->Remove();
        test = Await(title, [&](const Window& w) { return w.Value("state") == noCard; });
        EXPECT_EQ(test.Value("atr"), "");
        EXPECT_EQ(test.Value("serial"), "");
        EXPECT_EQ(test.Value("message"), "No card in encoder: No Smart Card is currently in the device.");
        Shoot(test, std::string("test-nocard-") + language.tag);

        Press(test, "Escape");
        AwaitGone(title);
        Press(configure, "Escape");
        EXPECT_EQ(Result(), sceCanceled);
        EXPECT_EQ(Device(), kCardReader);
    }
}

}  // namespace
}  // namespace elatectwn4::test
