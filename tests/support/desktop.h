// Using the dialog program as a person would: a private X display (Xvfb picks
// a free display number itself), the screen as the program's dump describes
// it (twn4-configure with ELATECTWN4_CONFIGURE_DUMP), hands through xdotool
// and screenshots through ImageMagick's import.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <vector>

#include "elatectwn4/types.h"
#include "support/registry_dir.h"

namespace elatectwn4::test {

/// An Xvfb of this test's own, named by DISPLAY while the object lives; it
/// also ends when the test process dies. Only that process is ever stopped.
class Desktop {
public:
    Desktop();
    ~Desktop() { Stop(); }
    Desktop(const Desktop&) = delete;
    Desktop& operator=(const Desktop&) = delete;

    bool ok() const { return pid_ > 0; }
    /// Ends the display, and every window on it.
    void Stop();

private:
    pid_t pid_ = -1;
    std::optional<ScopedEnv> display_;
    // No accessibility bus to look for; no client-side decorations, so a
    // widget's position in the dump is its position in the X window.
    ScopedEnv noBridge_{"NO_AT_BRIDGE", "1"};
    ScopedEnv noCsd_{"GTK_CSD", "0"};
};

/// A call that shows a dialog, on a thread of its own as a host's would be
/// while its person uses the window.
class RunningDialog {
public:
    RunningDialog(Desktop& desktop, std::function<sceReturnCode()> call)
        : desktop_(desktop), result_(std::async(std::launch::async, std::move(call))) {}
    /// A dialog still open then ends with the display, which ends the call.
    ~RunningDialog();
    RunningDialog(const RunningDialog&) = delete;
    RunningDialog& operator=(const RunningDialog&) = delete;
    /// The call's result; a dialog still open a minute on fails the test and
    /// is ended with the display (a backstop, not a measurement).
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
    unsigned long id = 0;  ///< the X window; 0 for none
    std::string title;
    std::vector<Widget> widgets;

    const Widget* Find(const std::string& kind, const std::string& text) const;
    bool Selected(const std::string& row) const;
    /// The text of the label named `name` ("" when there is none).
    std::string Value(const std::string& name) const;
    /// The window's own words, sorted: buttons and unnamed labels.
    std::vector<std::string> OwnTexts() const;
};

/// The program's windows, read from its dump file.
class Screen {
public:
    explicit Screen(std::filesystem::path dump) : dump_(std::move(dump)) {}
    /// The window titled `title` once `ready` holds for it; when it never
    /// does within a minute, a test failure and a window of id 0.
    Window Await(const std::string& title, const std::function<bool(const Window&)>& ready = {}) const;
    /// Whether the window titled `title` went within a minute.
    bool AwaitGone(const std::string& title) const;

private:
    std::vector<Window> Read() const;
    std::filesystem::path dump_;
};

/// A click in the middle of the window's widget of that kind and text.
void Click(const Window& window, const std::string& kind, const std::string& text);
/// Keys pressed with the window focused ("Escape", "Return").
void Press(const Window& window, const std::string& keys);
/// Destroys the window as another client would.
void CloseWindow(const Window& window);
/// A PNG of the window; false when it could not be taken.
bool Screenshot(const Window& window, const std::filesystem::path& file);

}  // namespace elatectwn4::test
