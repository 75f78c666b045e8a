// Driving the dialog program as a person would: a private X display (Xvfb on
// a display number it picks itself), the screen as the program's dump
// describes it (twn4-configure, ELATECTWN4_CONFIGURE_DUMP), and hands
// through xdotool; screenshots through ImageMagick's import.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <vector>

#include "elatectwn4/types.h"
#include "support/registry_dir.h"

namespace elatectwn4::test {

/// Runs a program (searched in PATH) and waits for it: its exit status, -1
/// when it could not be run or did not exit.
int RunProgram(const std::vector<std::string>& argv);

/// An Xvfb of this test's own; DISPLAY names it while the object lives. Only
/// the process it started is ever stopped.
class Desktop {
public:
    Desktop();
    ~Desktop() { Stop(); }
    Desktop(const Desktop&) = delete;
    Desktop& operator=(const Desktop&) = delete;

    /// False when Xvfb could not be started (the test has already failed).
    bool ok() const { return pid_ > 0; }
    /// Ends the display: every window on it goes with it.
    void Stop();

private:
    pid_t pid_ = -1;
    std::optional<ScopedEnv> display_;
    // Quiet toolkit: no accessibility bus to look for, decorations left to
    // the (absent) window manager, so positions are the window's own.
    ScopedEnv noBridge_{"NO_AT_BRIDGE", "1"};
    ScopedEnv noCsd_{"GTK_CSD", "0"};
};

/// A call that shows a dialog (Configure), running on a thread of its own as
/// a host's would while its person uses the window.
class RunningDialog {
public:
    RunningDialog(Desktop& desktop, std::function<sceReturnCode()> call)
        : desktop_(desktop), result_(std::async(std::launch::async, std::move(call))) {}
    /// A dialog still open ends with the display, which ends the call.
    ~RunningDialog();
    RunningDialog(const RunningDialog&) = delete;
    RunningDialog& operator=(const RunningDialog&) = delete;

    /// What the call returned. Still running a minute after the last step, it
    /// fails the test and is ended with the display (a backstop, not a measurement).
    sceReturnCode Result();

private:
    Desktop& desktop_;
    std::future<sceReturnCode> result_;
};

/// One thing on a window, as the dump lists it.
struct Widget {
    std::string kind;  ///< "label", "button" or "row"
    std::string name;  ///< a label's widget name ("GtkLabel" unless named)
    std::string text;
    int x = 0, y = 0, width = 0, height = 0;
    bool flag = false;  ///< a button can be pressed; a row is selected
};

struct Window {
    unsigned long id = 0;  ///< the X window
    std::string title;
    std::vector<Widget> widgets;

    /// The widget of that kind and text, or null.
    const Widget* Find(const std::string& kind, const std::string& text) const;
    /// Whether the row of that text is there and selected.
    bool Selected(const std::string& row) const;
    /// The text of the label named `name` ("" when there is none).
    std::string Value(const std::string& name) const;
    /// The texts of the window's own words: unnamed labels and buttons, sorted.
    std::vector<std::string> OwnTexts() const;
};

struct Screen {
    std::vector<Window> windows;
    const Window* Titled(const std::string& title) const;
};

/// The dump as it stands (no windows when there is none).
Screen ReadScreen(const std::filesystem::path& dump);

/// Reads the dump until `ready` holds for it; nullopt when it never did
/// within `patience`, a backstop against a hang, not a measurement.
std::optional<Screen> WaitForScreen(const std::filesystem::path& dump, const std::function<bool(const Screen&)>& ready,
                                    std::chrono::seconds patience = std::chrono::seconds(60));

/// A click in the middle of the window's widget of that kind and text.
void Click(const Window& window, const std::string& kind, const std::string& text);
/// Keys pressed with the window focused ("Escape", "Return", "alt+t").
void Press(const Window& window, const std::string& keys);
/// Destroys the window as another client would.
void CloseWindow(const Window& window);
/// A PNG of the window; false when it could not be taken.
bool Screenshot(const Window& window, const std::filesystem::path& file);

}  // namespace elatectwn4::test
