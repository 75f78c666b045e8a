// twn4-configure.exe: the configuration dialog and the test dialog of
// Encoder::Configure on Windows, plain Win32 (configure/main_gtk.cpp is the
// same program on POSIX). The component starts it with pipes as its standard
// input and output and speaks the line protocol of
// encoder/dialog_protocol.h; the program holds no card logic.
//
// A thread reads the component's lines and posts each to the configuration
// window, so the windows never wait for the component.
#include <windows.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "configure/conversation.h"

namespace elatectwn4::configure {
namespace {

constexpr UINT kLineMessage = WM_APP;     // lParam: a std::string* the window takes over
constexpr UINT kEndMessage = WM_APP + 1;  // the component's input ended
constexpr int kTestId = 100;
constexpr int kListId = 101;
constexpr int kValueId = 200;  // + Value: the test dialog's value labels
constexpr UINT_PTR kTickTimer = 1;
constexpr UINT kTickMilliseconds = 1000;

constexpr wchar_t kConfigureClass[] = L"ElatecTWN4Configure";
constexpr wchar_t kTestClass[] = L"ElatecTWN4Test";

std::wstring Wide(std::string_view text) {
    const int length = ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(length), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(), length);
    return wide;
}

// A button's label: the labels mark the access key with "_", Windows with "&".
std::wstring ButtonText(std::string_view label) {
    std::wstring text = Wide(label);
    for (wchar_t& c : text)
        if (c == L'_') c = L'&';
    return text;
}

// A static label shows "\n" as a line break only after a CR.
std::wstring StaticText(std::string_view label) {
    std::wstring text;
    for (wchar_t c : Wide(label)) {
        if (c == L'\n') text += L'\r';
        text += c;
    }
    return text;
}

void Send(const std::string& line) {
    const HANDLE output = ::GetStdHandle(STD_OUTPUT_HANDLE);
    std::string_view rest = line;
    while (!rest.empty()) {
        DWORD written = 0;
        if (!::WriteFile(output, rest.data(), static_cast<DWORD>(rest.size()), &written, nullptr) || written == 0)
            return;  // the component is gone; its end of input follows
        rest.remove_prefix(written);
    }
}

// The component's lines from standard input.
class LineReader {
public:
    std::optional<std::string> Next() {
        return dialog::NextLine(pending_, [this](char* buffer, std::size_t size) {
            DWORD got = 0;
            if (!::ReadFile(input_, buffer, static_cast<DWORD>(size), &got, nullptr)) return 0L;
            return static_cast<long>(got);
        });
    }

private:
    HANDLE input_ = ::GetStdHandle(STD_INPUT_HANDLE);
    std::string pending_;
};

struct App : Setup {
    LineReader input;
    HFONT font = nullptr;
    bool finished = false;

    HWND configure = nullptr;
    HWND list = nullptr;
    HWND testButton = nullptr;

    HWND test = nullptr;
    HWND values[kValueCount] = {};
    std::string testedReader;
    bool asking = false;  ///< a "test" line is out, its "probe" not yet back
};

// The window keeps the App given to CreateWindowExW from its first message on.
App* TheApp(HWND window, UINT message, LPARAM lParam) {
    if (message == WM_NCCREATE) {
        auto* app = static_cast<App*>(reinterpret_cast<CREATESTRUCTW*>(lParam)->lpCreateParams);
        ::SetWindowLongPtrW(window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(app));
    }
    return reinterpret_cast<App*>(::GetWindowLongPtrW(window, GWLP_USERDATA));
}

std::wstring T(const App& app, Text text) {
    return Wide(Of(text, app.french));
}

HWND Control(App& app, HWND parent, const wchar_t* kind, const std::wstring& text, DWORD style, RECT box, int id) {
    HWND control = ::CreateWindowExW(0, kind, text.c_str(), WS_CHILD | WS_VISIBLE | style, box.left, box.top,
                                     box.right - box.left, box.bottom - box.top, parent,
                                     reinterpret_cast<HMENU>(static_cast<INT_PTR>(id)), nullptr, nullptr);
    ::SendMessageW(control, WM_SETFONT, reinterpret_cast<WPARAM>(app.font), FALSE);
    return control;
}

HWND Label(App& app, HWND parent, const std::wstring& text, RECT box, int id = -1) {
    return Control(app, parent, L"STATIC", text, SS_LEFT | SS_NOPREFIX, box, id);
}

HWND Button(App& app, HWND parent, Text text, RECT box, int id, bool isDefault = false) {
    return Control(app, parent, L"BUTTON", ButtonText(Of(text, app.french)),
                   WS_TABSTOP | (isDefault ? BS_DEFPUSHBUTTON : BS_PUSHBUTTON), box, id);
}

// A top-level window whose client area is `width` x `height`, centred on the screen.
HWND Window(App& app, const wchar_t* windowClass, Text title, int width, int height, HWND owner) {
    constexpr DWORD style = WS_POPUP | WS_CAPTION | WS_SYSMENU;
    constexpr DWORD extended = WS_EX_DLGMODALFRAME | WS_EX_CONTROLPARENT;
    RECT frame{0, 0, width, height};
    ::AdjustWindowRectEx(&frame, style, FALSE, extended);
    const int outerWidth = frame.right - frame.left;
    const int outerHeight = frame.bottom - frame.top;
    HWND window = ::CreateWindowExW(
        extended, windowClass, T(app, title).c_str(), style, (::GetSystemMetrics(SM_CXSCREEN) - outerWidth) / 2,
        (::GetSystemMetrics(SM_CYSCREEN) - outerHeight) / 2, outerWidth, outerHeight, owner, nullptr, nullptr, &app);
    return window;
}

// ---- The end ---------------------------------------------------------------------

void Finish(App& app, const std::string& line) {
    if (app.finished) return;
    app.finished = true;
    Send(line);
    ::PostQuitMessage(0);
}

// ---- The test dialog ---------------------------------------------------------------

void Ask(App& app) {
    if (app.test == nullptr || app.asking) return;
    app.asking = true;
    Send(dialog::Line({dialog::kTest, app.testedReader}));
}

void ShowProbe(App& app, const std::vector<std::string>& fields) {
    app.asking = false;
    if (app.test == nullptr) return;  // the answer to a test dialog already closed
    const std::vector<std::string> texts = ProbeTexts(app.french, fields);
    for (int row = kStateValue; row < kValueCount; ++row)
        ::SetWindowTextW(app.values[row], StaticText(texts[row]).c_str());
    ::SetTimer(app.configure, kTickTimer, kTickMilliseconds, nullptr);
}

LRESULT CALLBACK TestProcedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    App* app = TheApp(window, message, lParam);
    switch (message) {
        case WM_COMMAND:
            if (LOWORD(wParam) == IDOK || LOWORD(wParam) == IDCANCEL) ::DestroyWindow(window);
            return 0;
        case WM_CLOSE:
            ::DestroyWindow(window);
            return 0;
        case WM_DESTROY:
            app->test = nullptr;
            ::KillTimer(app->configure, kTickTimer);
            ::EnableWindow(app->configure, TRUE);
            ::SetActiveWindow(app->configure);
            return 0;
        default:
            return ::DefWindowProcW(window, message, wParam, lParam);
    }
}

void OpenTest(App& app, const std::string& reader) {
    if (app.test != nullptr) return;
    app.testedReader = reader;
    constexpr int kWidth = 560;
    constexpr int kKeyWidth = 120;
    constexpr int kRow = 24;
    constexpr int kMessageRows = 3;  // a PC/SC text may take more than a line
    const int height = 12 + kRow * (kValueCount - 1 + kMessageRows) + 12 + 26 + 12;
    app.test = Window(app, kTestClass, Text::TestTitle, kWidth, height, app.configure);
    int top = 12;
    for (int row = 0; row < kValueCount; ++row) {
        const int rowHeight = row == kMessageValue ? kRow * kMessageRows : kRow;
        const std::wstring key = T(app, kValueKeys[row]);
        Control(app, app.test, L"STATIC", key, SS_RIGHT | SS_NOPREFIX, {12, top, 12 + kKeyWidth, top + 20}, -1);
        app.values[row] =
            Label(app, app.test, L"", {24 + kKeyWidth, top, kWidth - 12, top + rowHeight}, kValueId + row);
        top += rowHeight;
    }
    ::SetWindowTextW(app.values[kReaderValue], Wide(reader).c_str());
    ::SetWindowTextW(app.values[kStateValue], T(app, Text::Waiting).c_str());
    HWND close = Button(app, app.test, Text::Close, {kWidth - 100, top + 12, kWidth - 12, top + 38}, IDOK, true);
    ::EnableWindow(app.configure, FALSE);  // modal, as the configuration dialog's child
    ::ShowWindow(app.test, SW_SHOW);
    ::SetFocus(close);
    Ask(app);
}

// ---- The configuration dialog ---------------------------------------------------------

std::string SelectedReader(const App& app) {
    const LRESULT index = ::SendMessageW(app.list, LB_GETCURSEL, 0, 0);
    if (index == LB_ERR || static_cast<std::size_t>(index) >= app.readers.size()) return {};
    return app.readers[static_cast<std::size_t>(index)];
}

void OnCommand(App& app, int id, int event) {
    if (id == IDOK) {
        Finish(app, dialog::Line({dialog::kOk, SelectedReader(app)}));
    } else if (id == IDCANCEL) {
        Finish(app, dialog::Line({dialog::kCancel}));  // Cancel or Escape
    } else if (id == kTestId) {
        if (const std::string reader = SelectedReader(app); !reader.empty()) OpenTest(app, reader);
    } else if (id == kListId && event == LBN_SELCHANGE) {
        ::EnableWindow(app.testButton, !SelectedReader(app).empty());
    } else if (id == kListId && event == LBN_DBLCLK) {
        OnCommand(app, IDOK, BN_CLICKED);  // a double click on a reader is OK
    }
}

LRESULT CALLBACK ConfigureProcedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    App* app = TheApp(window, message, lParam);
    switch (message) {
        case WM_COMMAND:
            OnCommand(*app, LOWORD(wParam), HIWORD(wParam));
            return 0;
        case WM_CLOSE:
            Finish(*app, dialog::Line({dialog::kCancel}));  // the window closed
            return 0;
        case WM_TIMER:
            ::KillTimer(window, kTickTimer);
            Ask(*app);
            return 0;
        case kLineMessage: {
            const std::unique_ptr<std::string> line(reinterpret_cast<std::string*>(lParam));
            const std::vector<std::string> fields = dialog::Fields(*line);
            if (fields.front() == dialog::kProbe) ShowProbe(*app, fields);
            return 0;
        }
        case kEndMessage:
            // The component went away: nobody is left to answer.
            app->finished = true;
            ::PostQuitMessage(0);
            return 0;
        default:
            return ::DefWindowProcW(window, message, wParam, lParam);
    }
}

bool OpenConfigure(App& app) {
    constexpr int kWidth = 400;
    constexpr int kHeight = 300;
    app.configure = Window(app, kConfigureClass, Text::ConfigureTitle, kWidth, kHeight, nullptr);
    if (app.configure == nullptr) return false;
    Label(app, app.configure, StaticText(Of(Text::Readers, app.french)), {12, 12, kWidth - 12, 30});
    const int listBottom = app.readers.empty() ? kHeight - 110 : kHeight - 50;
    app.list = Control(app, app.configure, L"LISTBOX", L"",
                       WS_BORDER | WS_VSCROLL | WS_TABSTOP | LBS_NOTIFY | LBS_NOINTEGRALHEIGHT,
                       {12, 34, kWidth - 12, listBottom}, kListId);
    LRESULT selected = LB_ERR;
    for (const std::string& reader : app.readers) {
        const LRESULT index = ::SendMessageW(app.list, LB_ADDSTRING, 0, reinterpret_cast<LPARAM>(Wide(reader).c_str()));
        if (reader == app.current) selected = index;
    }
    if (app.readers.empty())
        Label(app, app.configure, StaticText(NoReaderText(app)), {12, listBottom + 8, kWidth - 12, kHeight - 50});

    const int top = kHeight - 38;
    app.testButton = Button(app, app.configure, Text::Test, {12, top, 100, top + 26}, kTestId);
    Button(app, app.configure, Text::Cancel, {kWidth - 188, top, kWidth - 100, top + 26}, IDCANCEL);
    HWND ok = Button(app, app.configure, Text::Ok, {kWidth - 100 + 6, top, kWidth - 12, top + 26}, IDOK, true);

    if (selected != LB_ERR) ::SendMessageW(app.list, LB_SETCURSEL, static_cast<WPARAM>(selected), 0);
    ::EnableWindow(app.testButton, selected != LB_ERR);
    ::ShowWindow(app.configure, SW_SHOW);
    ::SetForegroundWindow(app.configure);
    // Return means OK wherever the focus is: on the list it is the selected reader.
    ::SetFocus(selected != LB_ERR ? app.list : ok);
    return true;
}

DWORD WINAPI ReadLines(void* data) {
    App& app = *static_cast<App*>(data);
    while (std::optional<std::string> line = app.input.Next())
        ::PostMessageW(app.configure, kLineMessage, 0, reinterpret_cast<LPARAM>(new std::string(std::move(*line))));
    ::PostMessageW(app.configure, kEndMessage, 0, 0);
    return 0;
}

void RegisterClasses(HINSTANCE instance) {
    for (const auto& [name, procedure] :
         {std::pair{kConfigureClass, &ConfigureProcedure}, std::pair{kTestClass, &TestProcedure}}) {
        WNDCLASSEXW windowClass{};
        windowClass.cbSize = sizeof windowClass;
        windowClass.lpfnWndProc = procedure;
        windowClass.hInstance = instance;
        windowClass.hCursor = ::LoadCursorW(nullptr, reinterpret_cast<LPCWSTR>(IDC_ARROW));
        windowClass.hbrBackground = reinterpret_cast<HBRUSH>(COLOR_BTNFACE + 1);
        windowClass.lpszClassName = name;
        ::RegisterClassExW(&windowClass);
    }
}

HFONT MessageFont() {
    NONCLIENTMETRICSW metrics{};
    metrics.cbSize = sizeof metrics;
    if (!::SystemParametersInfoW(SPI_GETNONCLIENTMETRICS, sizeof metrics, &metrics, 0))
        return static_cast<HFONT>(::GetStockObject(DEFAULT_GUI_FONT));
    return ::CreateFontIndirectW(&metrics.lfMessageFont);
}

int Run(HINSTANCE instance) {
    App app;
    for (;;) {
        const std::optional<std::string> line = app.input.Next();
        if (!line) return 1;  // the component went away before "show"
        if (TakeSetupLine(app, *line)) break;
    }
    RegisterClasses(instance);
    app.font = MessageFont();
    if (!OpenConfigure(app)) {
        Send(dialog::Line({dialog::kError, "Cannot create the dialog window"}));
        return 2;
    }
    if (HANDLE reader = ::CreateThread(nullptr, 0, ReadLines, &app, 0, nullptr)) ::CloseHandle(reader);

    MSG message;
    while (::GetMessageW(&message, nullptr, 0, 0) > 0) {
        // Tab, Return, Escape and the access keys, as in any dialog.
        if (HWND active = app.test != nullptr ? app.test : app.configure; ::IsDialogMessageW(active, &message))
            continue;
        ::TranslateMessage(&message);
        ::DispatchMessageW(&message);
    }
    // The reader thread may still wait for input: the process ends it.
    return 0;
}

}  // namespace
}  // namespace elatectwn4::configure

int WINAPI WinMain(HINSTANCE instance, HINSTANCE, LPSTR, int) {
    return elatectwn4::configure::Run(instance);
}
