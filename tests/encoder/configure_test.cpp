// Configure against the simulated reader, with a stand-in dialog program
// (support/fake_dialog.sh) that speaks the dialog protocol as each case
// tells it: what the component sends, and what each answer or ending does
// to the result, the record and Parameters.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "elatectwn4/dispatch.h"
#include "elatectwn4/encoder.h"
#include "sim/reader.h"
#include "sim/simulated_pcsc.h"
#include "support/record_text.h"
#include "support/registry_dir.h"

namespace elatectwn4::test {
namespace {

constexpr const char* kCardReader = "Virtual PCD 00 00";
constexpr const char* kEmptyReader = "Virtual PCD 00 01";
constexpr const char* kAtr = "3B 8F 80 01 80 4F 0C A0 00 00 03 06 03 00 01 00 00 00 00 6A";
constexpr const char* kUnavailable = "Configuration dialog unavailable";

std::string Opening(const std::string& language) {
    return "language\t" + language + "|reader\tVirtual PCD 00 00|reader\tVirtual PCD 00 01|current\t" + kCardReader +
           "|show";
}

class Configure : public ::testing::Test {
protected:
    void SetUp() override {
        registry.WriteCardTypes("\"Classic\"=\"11;3B 8F 80 01 80 4F 0C A0 00 00 03 06 03 00 01;4\"\r\n");
        pcsc->FindReader(kCardReader)->Insert(sim::MakeCard("mifare1k", {0x5A, 0x6B, 0x7C, 0x8D}));
        encoder.Parameters(std::string("Device=") + kCardReader);
    }

    sceReturnCode Run(const char* actions, const std::string& language = "english") {
        ScopedEnv steps("FAKE_DIALOG_ACTIONS", actions);
        return encoder.Configure(language);
    }
    /// What the component sent, "|" between lines.
    std::string Sent() const {
        std::ifstream in(log);
        std::string text;
        for (std::string line; std::getline(in, line);)
            text += (text.empty() ? "" : "|") + line;
        return text;
    }
    std::string Device() {
        const std::string parameters = encoder.Parameters();
        return parameters.substr(parameters.find("Device=") + 7);
    }

    RegistryDir registry;
    std::filesystem::path log = registry.path() / "dialog.log";
    ScopedEnv program{"ELATECTWN4_CONFIGURE_PROGRAM", FAKE_DIALOG};
    ScopedEnv logTo{"FAKE_DIALOG_LOG", log.c_str()};
    ScopedEnv display{"DISPLAY", ":7"};
    ScopedEnv wayland{"WAYLAND_DISPLAY", nullptr};
    std::shared_ptr<sim::SimulatedPcsc> pcsc = std::make_shared<sim::SimulatedPcsc>();
    Encoder encoder{pcsc};
};

TEST_F(Configure, OpensWithTheLanguageTheListedReadersAndTheConfiguredOneThroughDispatchToo) {
    struct Case {
        std::vector<Variant> args;
        const char* language;
    };
    const Case cases[] = {
        {{std::string("francais")}, "fr"}, {{std::string("english")}, "en"},  {{}, "en"},  // the language left out
        {{std::string("Francais")}, "en"}, {{std::string("français")}, "en"}, {{std::string(" francais")}, "en"},
    };
    for (Case c : cases) {
        SCOPED_TRACE(c.language);
        std::filesystem::remove(log);
        const auto result = Invoke(encoder, "Configure", MemberKind::Method, c.args);
        EXPECT_EQ(std::get<std::int32_t>(result.value), sceSuccess) << RecordText(encoder.LastError());
        EXPECT_EQ(Sent(), Opening(c.language));
    }
}

TEST_F(Configure, TheProgramsAnswerOrEndingIsTheResult) {
    const std::string failed = std::string("90010F07 | ") + kUnavailable + " | 0 | Configure | " + FAKE_DIALOG + " | ";
    const std::string cleared = "00000000 |  | 0 | Configure |  | ";
    struct Case {
        const char* actions;
        sceReturnCode result;
        const char* device;
        std::string record;
    };
    const Case cases[] = {
        {"say:ok\\tVirtual PCD 00 01", sceSuccess, kEmptyReader, cleared},
        {"say:ok\\tNew reader;exit:5", sceSuccess, "New reader", cleared},  // the answer stands
        {"say:ok\\t", sceSuccess, kCardReader, cleared},                    // nothing chosen
        {"say:cancel", sceCanceled, kCardReader, cleared},
        {"say:hello\\tthere;say:cancel", sceCanceled, kCardReader, cleared},
        {"exit:3", sceError, kCardReader, failed + "The dialog program ended with status 3"},
        {"kill", sceError, kCardReader, failed + "The dialog program was stopped by signal 9"},
        {"exit:0", sceError, kCardReader, failed + "The dialog program ended without an answer"},
        {"say:error\\tCannot open the display :7;exit:2", sceError, kCardReader, failed + "Cannot open the display :7"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.actions);
        EXPECT_EQ(Run(c.actions), c.result);
        EXPECT_EQ(RecordText(encoder.LastError()), c.record);
        EXPECT_EQ(Device(), c.device);
        encoder.Parameters(std::string("Device=") + kCardReader);
    }
}

TEST_F(Configure, EachTestOpensTheEncoderOnTheReaderAskedAndAnswersWhatItFound) {
    struct Case {
        const char* actions;
        const char* probe;
    };
    const Case cases[] = {
        {"say:test\\tVirtual PCD 00 00;read;say:cancel",
         "probe\tready\t3B 8F 80 01 80 4F 0C A0 00 00 03 06 03 00 01 00 00 00 00 6A\t17\t5A6B7C8D\t"},
        {"say:test\\tVirtual PCD 00 01;read;say:cancel",
         "probe\tnocard\t\t0\t\tNo card in encoder: No Smart Card is currently in the device."},
        {"say:test\\tNowhere;read;say:cancel",
         "probe\tunavailable\t\t0\t\tCannot open encoder: The specified reader name is not recognized."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.actions);
        std::filesystem::remove(log);
        EXPECT_EQ(Run(c.actions), sceCanceled);
        EXPECT_EQ(Sent(), Opening("en") + "|" + c.probe);
        // Back on the reader Parameters names, with its card.
        EXPECT_EQ(Device(), kCardReader);
        EXPECT_EQ(encoder.ATRString(), kAtr);
    }
}

TEST_F(Configure, WithoutAReaderListedTheDialogSaysWhy) {
    auto none = std::make_shared<sim::SimulatedPcsc>(std::vector<std::string>{});
    Encoder bare(none);
    bare.Parameters("Device=Gone");
    EXPECT_EQ(bare.Configure("francais"), sceSuccess);
    EXPECT_EQ(Sent(), "language\tfr|notice\tCannot find a smart card reader.|current\tGone|show");
}

TEST_F(Configure, FailsAtOnceWhenTheDialogCannotBeShown) {
    std::ofstream(registry.path() / "not-a-program") << "#!/bin/sh\n";
    const std::string notExecutable = (registry.path() / "not-a-program").string();
    struct Case {
        const char* program;
        const char* display;
        const char* wayland;
        std::string record;
    };
    const std::string prefix = std::string("90010F07 | ") + kUnavailable + " | 0 | Configure | ";
    const Case cases[] = {
        {FAKE_DIALOG, nullptr, nullptr,
         prefix + FAKE_DIALOG + " | No display: neither DISPLAY nor WAYLAND_DISPLAY is set"},
        {FAKE_DIALOG, "", "", prefix + FAKE_DIALOG + " | No display: neither DISPLAY nor WAYLAND_DISPLAY is set"},
        {"/nonexistent/twn4-configure", ":7", nullptr,
         prefix + "/nonexistent/twn4-configure | The dialog program is not installed"},
        {notExecutable.c_str(), ":7", nullptr,
         prefix + notExecutable + " | Cannot run the dialog program: Permission denied"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.record);
        ScopedEnv program("ELATECTWN4_CONFIGURE_PROGRAM", c.program);
        ScopedEnv display("DISPLAY", c.display);
        ScopedEnv wayland("WAYLAND_DISPLAY", c.wayland);
        EXPECT_EQ(encoder.Configure("english"), sceError);
        EXPECT_EQ(RecordText(encoder.LastError()), c.record);
        EXPECT_FALSE(std::filesystem::exists(log)) << "the dialog program was started";
    }
    // A Wayland session is a display too.
    ScopedEnv display("DISPLAY", nullptr);
    ScopedEnv wayland("WAYLAND_DISPLAY", "wayland-0");
    EXPECT_EQ(encoder.Configure("english"), sceSuccess);
}

TEST_F(Configure, WithoutAResourceManagerFailsAsTheOpenDoesUnderItsOwnName) {
    Encoder unreachable(nullptr);
    EXPECT_EQ(unreachable.Configure("english"), sceError);
    EXPECT_EQ(RecordText(unreachable.LastError()),
              RecordText(0x90010F02, "Cannot open encoder", 0x8010001D, "Configure", "SCardEstablishContext",
                         "The Smart card resource manager is not running."));
    EXPECT_FALSE(std::filesystem::exists(log)) << "the dialog program was started";
}

}  // namespace
}  // namespace elatectwn4::test
