// twn4-configure: the configuration dialog and the test dialog of
// Encoder::Configure, as a GTK program that the component starts as a child
// (configure/main_win32.cpp is the same program on Windows).
// It holds no card logic: it speaks the line protocol of
// encoder/dialog_protocol.h on its standard input and output, shows what the
// component sends, and answers with the person's choice.
//
// ELATECTWN4_CONFIGURE_DUMP=<file>: after every repaint the program writes
// there what its windows show, one protocol-style line per thing, so that a
// test can read the screen without reading pixels:
//   window <X window id> <title>
//   label <widget name> <text>
//   button <x> <y> <width> <height> <1 if it can be pressed, else 0> <label>
//   row <x> <y> <width> <height> <1 if selected, else 0> <text>
// Positions are in pixels from the window's top left corner.
#include <gtk/gtk.h>
#ifdef GDK_WINDOWING_X11
#include <gdk/gdkx.h>
#endif
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "configure/conversation.h"

namespace elatectwn4::configure {
namespace {

constexpr int kResponseTest = 1;

// The value labels of the test dialog, by widget name (the dump shows them).
constexpr const char* kValueNames[] = {"reader", "state", "atr", "cardtype", "serial", "message"};

struct App : Setup {
    GIOChannel* input = nullptr;
    const char* dumpPath = nullptr;
    bool finished = false;

    GtkWidget* configure = nullptr;
    GtkWidget* list = nullptr;
    GtkWidget* testButton = nullptr;

    GtkWidget* test = nullptr;
    GtkWidget* values[kValueCount] = {};
    std::string testedReader;
    bool asking = false;  ///< a "test" line is out, its "probe" not yet back
    guint timer = 0;
};

const char* T(const App& app, Text text) {
    return Of(text, app.french).data();  // the table's literals end in NUL
}

void Send(const std::string& line) {
    std::string_view rest = line;
    while (!rest.empty()) {
        const ssize_t written = ::write(STDOUT_FILENO, rest.data(), rest.size());
        if (written <= 0) return;  // the component is gone; its end of input follows
        rest.remove_prefix(static_cast<std::size_t>(written));
    }
}

// ---- What the windows show, for tests ---------------------------------------------

// One dump line: the kind, the widget's box in the window, a flag and a text.
std::string BoxLine(std::string_view kind, GtkWidget* widget, GtkWidget* top, bool flag, std::string_view text) {
    int x = 0;
    int y = 0;
    gtk_widget_translate_coordinates(widget, top, 0, 0, &x, &y);
    GtkAllocation box;
    gtk_widget_get_allocation(widget, &box);
    return dialog::Line({kind, std::to_string(x), std::to_string(y), std::to_string(box.width),
                         std::to_string(box.height), flag ? "1" : "0", text});
}

std::string RowText(GtkWidget* row) {
    GtkWidget* child = gtk_bin_get_child(GTK_BIN(row));
    return child && GTK_IS_LABEL(child) ? gtk_label_get_text(GTK_LABEL(child)) : "";
}

void Walk(GtkWidget* widget, GtkWidget* top, std::string& out) {
    if (!gtk_widget_get_mapped(widget)) return;
    if (GTK_IS_BUTTON(widget)) {
        const char* label = gtk_button_get_label(GTK_BUTTON(widget));
        out += BoxLine("button", widget, top, gtk_widget_is_sensitive(widget), label ? label : "");
    } else if (GTK_IS_LIST_BOX_ROW(widget)) {
        out += BoxLine("row", widget, top, gtk_list_box_row_is_selected(GTK_LIST_BOX_ROW(widget)), RowText(widget));
    } else if (GTK_IS_LABEL(widget)) {
        out += dialog::Line({"label", gtk_widget_get_name(widget), gtk_label_get_text(GTK_LABEL(widget))});
    } else if (GTK_IS_CONTAINER(widget)) {
        // forall, not foreach: a dialog's content and button areas are internal children.
        struct Visit {
            GtkWidget* top;
            std::string* out;
        } visit{top, &out};
        gtk_container_forall(
            GTK_CONTAINER(widget),
            [](GtkWidget* child, gpointer data) {
                auto* v = static_cast<Visit*>(data);
                Walk(child, v->top, *v->out);
            },
            &visit);
    }
}

void Dump(App& app) {
    if (app.dumpPath == nullptr) return;
    std::string text;
    for (GtkWidget* window : {app.configure, app.test}) {
        if (window == nullptr || !gtk_widget_get_mapped(window)) continue;
        unsigned long id = 0;
#ifdef GDK_WINDOWING_X11
        if (GdkWindow* native = gtk_widget_get_window(window); GDK_IS_X11_WINDOW(native)) id = GDK_WINDOW_XID(native);
#endif
        text += dialog::Line({"window", std::to_string(id), gtk_window_get_title(GTK_WINDOW(window))});
        Walk(window, window, text);
    }
    // Whole or not at all: a reader never sees half a dump.
    const std::string partial = std::string(app.dumpPath) + ".part";
    std::ofstream(partial, std::ios::binary) << text;
    std::rename(partial.c_str(), app.dumpPath);
}

void OnPainted(GdkFrameClock*, gpointer data) {
    Dump(*static_cast<App*>(data));
}

void DumpAfterEveryPaint(App& app, GtkWidget* window) {
    // The clock goes with its window, and its handlers with it; the App outlives both.
    if (app.dumpPath != nullptr)
        g_signal_connect(gtk_widget_get_frame_clock(window), "after-paint", G_CALLBACK(OnPainted), &app);
}

// ---- The end ---------------------------------------------------------------------

void Finish(App& app, const std::string& line) {
    if (app.finished) return;
    app.finished = true;
    Send(line);
    gtk_main_quit();
}

// ---- The test dialog ---------------------------------------------------------------

void Ask(App& app) {
    if (app.test == nullptr || app.asking) return;
    app.asking = true;
    Send(dialog::Line({dialog::kTest, app.testedReader}));
}

gboolean OnTick(gpointer data) {
    App& app = *static_cast<App*>(data);
    app.timer = 0;
    Ask(app);
    return G_SOURCE_REMOVE;
}

void ShowProbe(App& app, const std::vector<std::string>& fields) {
    app.asking = false;
    if (app.test == nullptr) return;  // the answer to a test dialog already closed
    const std::vector<std::string> texts = ProbeTexts(app.french, fields);
    for (int row = kStateValue; row < kValueCount; ++row)
        gtk_label_set_text(GTK_LABEL(app.values[row]), texts[row].c_str());
    app.timer = g_timeout_add_seconds(1, OnTick, &app);
}

void OnTestGone(GtkWidget*, gpointer data) {
    App& app = *static_cast<App*>(data);
    app.test = nullptr;
    if (app.timer != 0) g_source_remove(app.timer);
    app.timer = 0;
    Dump(app);
}

void OnTestResponse(GtkDialog* dialog, gint, gpointer) {
    gtk_widget_destroy(GTK_WIDGET(dialog));
}

void OpenTest(App& app, const std::string& reader) {
    if (app.test != nullptr) return;
    app.testedReader = reader;
    app.test = gtk_dialog_new_with_buttons(T(app, Text::TestTitle), GTK_WINDOW(app.configure),
                                           GtkDialogFlags(GTK_DIALOG_MODAL | GTK_DIALOG_DESTROY_WITH_PARENT),
                                           T(app, Text::Close), GTK_RESPONSE_CLOSE, nullptr);
    gtk_window_set_default_size(GTK_WINDOW(app.test), 560, -1);
    GtkWidget* grid = gtk_grid_new();
    gtk_grid_set_row_spacing(GTK_GRID(grid), 6);
    gtk_grid_set_column_spacing(GTK_GRID(grid), 12);
    gtk_container_set_border_width(GTK_CONTAINER(grid), 12);
    for (int row = 0; row < kValueCount; ++row) {
        GtkWidget* key = gtk_label_new(T(app, kValueKeys[row]));
        gtk_widget_set_halign(key, GTK_ALIGN_END);
        gtk_widget_set_valign(key, GTK_ALIGN_START);
        GtkWidget* value = gtk_label_new("");
        gtk_widget_set_name(value, kValueNames[row]);
        gtk_widget_set_halign(value, GTK_ALIGN_START);
        gtk_label_set_xalign(GTK_LABEL(value), 0);
        gtk_label_set_line_wrap(GTK_LABEL(value), TRUE);
        gtk_label_set_max_width_chars(GTK_LABEL(value), 64);  // an ATR on one line
        gtk_grid_attach(GTK_GRID(grid), key, 0, row, 1, 1);
        gtk_grid_attach(GTK_GRID(grid), value, 1, row, 1, 1);
        app.values[row] = value;
    }
    gtk_label_set_text(GTK_LABEL(app.values[kReaderValue]), reader.c_str());
    gtk_label_set_text(GTK_LABEL(app.values[kStateValue]), T(app, Text::Waiting));
    gtk_container_add(GTK_CONTAINER(gtk_dialog_get_content_area(GTK_DIALOG(app.test))), grid);
    g_signal_connect(app.test, "response", G_CALLBACK(OnTestResponse), nullptr);
    g_signal_connect(app.test, "destroy", G_CALLBACK(OnTestGone), &app);
    gtk_widget_show_all(app.test);
    DumpAfterEveryPaint(app, app.test);
    Ask(app);
}

// ---- The configuration dialog ---------------------------------------------------------

std::string SelectedReader(const App& app) {
    GtkListBoxRow* row = gtk_list_box_get_selected_row(GTK_LIST_BOX(app.list));
    return row ? RowText(GTK_WIDGET(row)) : std::string();
}

void OnConfigureResponse(GtkDialog*, gint response, gpointer data) {
    App& app = *static_cast<App*>(data);
    if (response == kResponseTest) {
        OpenTest(app, SelectedReader(app));
    } else if (response == GTK_RESPONSE_OK) {
        Finish(app, dialog::Line({dialog::kOk, SelectedReader(app)}));
    } else {
        Finish(app, dialog::Line({dialog::kCancel}));  // Cancel, Escape, the window closed
    }
}

void OnConfigureGone(GtkWidget*, gpointer data) {
    App& app = *static_cast<App*>(data);
    app.configure = nullptr;
    Finish(app, dialog::Line({dialog::kCancel}));
}

void OnRowSelected(GtkListBox*, GtkListBoxRow* row, gpointer data) {
    gtk_widget_set_sensitive(static_cast<App*>(data)->testButton, row != nullptr);
}

void OnRowActivated(GtkListBox*, GtkListBoxRow*, gpointer data) {
    gtk_dialog_response(GTK_DIALOG(static_cast<App*>(data)->configure), GTK_RESPONSE_OK);
}

void OpenConfigure(App& app) {
    app.configure = gtk_dialog_new();
    GtkWindow* window = GTK_WINDOW(app.configure);
    gtk_window_set_title(window, T(app, Text::ConfigureTitle));
    gtk_window_set_default_size(window, 400, 300);
    GtkWidget* content = gtk_dialog_get_content_area(GTK_DIALOG(app.configure));
    gtk_container_set_border_width(GTK_CONTAINER(content), 12);
    gtk_box_set_spacing(GTK_BOX(content), 6);

    GtkWidget* heading = gtk_label_new(T(app, Text::Readers));
    gtk_label_set_xalign(GTK_LABEL(heading), 0);
    gtk_box_pack_start(GTK_BOX(content), heading, FALSE, FALSE, 0);

    app.list = gtk_list_box_new();
    // A click chooses a reader; a double click or Return on it is OK.
    gtk_list_box_set_activate_on_single_click(GTK_LIST_BOX(app.list), FALSE);
    GtkListBoxRow* selected = nullptr;
    for (const std::string& reader : app.readers) {
        GtkWidget* label = gtk_label_new(reader.c_str());
        gtk_label_set_xalign(GTK_LABEL(label), 0);
        gtk_widget_set_margin_start(label, 6);
        gtk_widget_set_margin_top(label, 4);
        gtk_widget_set_margin_bottom(label, 4);
        gtk_list_box_insert(GTK_LIST_BOX(app.list), label, -1);
        if (reader == app.current) selected = GTK_LIST_BOX_ROW(gtk_widget_get_parent(label));
    }
    GtkWidget* scrolled = gtk_scrolled_window_new(nullptr, nullptr);
    gtk_scrolled_window_set_shadow_type(GTK_SCROLLED_WINDOW(scrolled), GTK_SHADOW_IN);
    gtk_container_add(GTK_CONTAINER(scrolled), app.list);
    gtk_box_pack_start(GTK_BOX(content), scrolled, TRUE, TRUE, 0);
    if (app.readers.empty()) {
        GtkWidget* none = gtk_label_new(NoReaderText(app).c_str());
        gtk_widget_set_name(none, "notice");
        gtk_label_set_xalign(GTK_LABEL(none), 0);
        gtk_box_pack_start(GTK_BOX(content), none, FALSE, FALSE, 0);
    }

    app.testButton = gtk_dialog_add_button(GTK_DIALOG(app.configure), T(app, Text::Test), kResponseTest);
    gtk_button_box_set_child_secondary(GTK_BUTTON_BOX(gtk_widget_get_parent(app.testButton)), app.testButton, TRUE);
    gtk_dialog_add_button(GTK_DIALOG(app.configure), T(app, Text::Cancel), GTK_RESPONSE_CANCEL);
    GtkWidget* ok = gtk_dialog_add_button(GTK_DIALOG(app.configure), T(app, Text::Ok), GTK_RESPONSE_OK);
    gtk_dialog_set_default_response(GTK_DIALOG(app.configure), GTK_RESPONSE_OK);

    g_signal_connect(app.list, "row-selected", G_CALLBACK(OnRowSelected), &app);
    g_signal_connect(app.list, "row-activated", G_CALLBACK(OnRowActivated), &app);
    g_signal_connect(app.configure, "response", G_CALLBACK(OnConfigureResponse), &app);
    g_signal_connect(app.configure, "destroy", G_CALLBACK(OnConfigureGone), &app);

    gtk_widget_show_all(app.configure);
    gtk_list_box_select_row(GTK_LIST_BOX(app.list), selected);
    gtk_widget_set_sensitive(app.testButton, selected != nullptr);
    // Return means OK: on the selected reader it activates that row, which is OK.
    gtk_widget_grab_focus(selected ? GTK_WIDGET(selected) : ok);
    DumpAfterEveryPaint(app, app.configure);
}

// ---- The component's lines ---------------------------------------------------------------

// Reads the setup up to "show"; false when the input ends before.
bool ReadSetup(App& app) {
    for (;;) {
        gchar* raw = nullptr;
        const GIOStatus status = g_io_channel_read_line(app.input, &raw, nullptr, nullptr, nullptr);
        if (status != G_IO_STATUS_NORMAL) return false;
        const bool shown = TakeSetupLine(app, raw);
        g_free(raw);
        if (shown) return true;
    }
}

gboolean OnInput(GIOChannel* channel, GIOCondition, gpointer data) {
    App& app = *static_cast<App*>(data);
    for (;;) {
        gchar* raw = nullptr;
        const GIOStatus status = g_io_channel_read_line(channel, &raw, nullptr, nullptr, nullptr);
        if (status == G_IO_STATUS_AGAIN) return G_SOURCE_CONTINUE;
        if (status != G_IO_STATUS_NORMAL) {
            // The component went away: nobody is left to answer.
            app.finished = true;
            gtk_main_quit();
            return G_SOURCE_REMOVE;
        }
        const std::vector<std::string> fields = dialog::Fields(raw);
        g_free(raw);
        if (fields.front() == dialog::kProbe) ShowProbe(app, fields);
    }
}

}  // namespace
}  // namespace elatectwn4::configure

int main(int argc, char** argv) {
    using namespace elatectwn4;
    using namespace elatectwn4::configure;
    std::signal(SIGPIPE, SIG_IGN);  // a component gone is seen as the end of input
    App app;
    app.dumpPath = std::getenv("ELATECTWN4_CONFIGURE_DUMP");
    app.input = g_io_channel_unix_new(STDIN_FILENO);
    g_io_channel_set_encoding(app.input, nullptr, nullptr);
    if (!ReadSetup(app)) return 1;

    if (!gtk_init_check(&argc, &argv)) {
        const char* display = std::getenv("DISPLAY");
        Send(dialog::Line({dialog::kError, std::string("Cannot open the display ") + (display ? display : "")}));
        return 2;
    }
    OpenConfigure(app);
    g_io_channel_set_flags(app.input, G_IO_FLAG_NONBLOCK, nullptr);
    g_io_add_watch(app.input, GIOCondition(G_IO_IN | G_IO_HUP | G_IO_ERR), OnInput, &app);
    gtk_main();
    return 0;
}
