#include "support/desktop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace elatectwn4::test {

namespace {

int Reap(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Runs a program found in PATH and waits for it; true when it exits with 0.
bool Run(std::vector<std::string> argv) {
    std::vector<char*> args;
    for (std::string& arg : argv)
        args.push_back(arg.data());
    args.push_back(nullptr);
    pid_t pid = -1;
    return ::posix_spawnp(&pid, args[0], nullptr, nullptr, args.data(), environ) == 0 && Reap(pid) == 0;
}

bool Xdotool(std::vector<std::string> steps) {
    steps.insert(steps.begin(), "xdotool");
    return Run(std::move(steps));
}

// Polls until `done` holds, for a minute at most.
template <typename Done>
bool Eventually(Done done) {
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!done()) {
        if (std::chrono::steady_clock::now() > giveUp) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

}  // namespace

Desktop::Desktop() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "no pipe for Xvfb";
        return;
    }
    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent) ::_exit(127);
        ::dup2(ends[1], 3);  // ends[1] is above 3: ends[0] took the lowest free number
        ::dup2(::open("/dev/null", O_WRONLY), STDERR_FILENO);
        ::execlp("Xvfb", "Xvfb", "-displayfd", "3", "-screen", "0", "1024x768x24", "-nolisten", "tcp", nullptr);
        ::_exit(127);
    }
    ::close(ends[1]);
    std::string number;
    for (char c; pid_ > 0 && ::read(ends[0], &c, 1) == 1 && c != '\n';)
        number += c;
    ::close(ends[0]);
    if (number.empty()) {
        ADD_FAILURE() << "Xvfb did not start (scripts/install-deps.sh installs it)";
        Stop();
        return;
    }
    display_.emplace("DISPLAY", (":" + number).c_str());
}

void Desktop::Stop() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    Reap(pid_);
    pid_ = -1;
}

RunningDialog::~RunningDialog() {
    if (result_.valid() && result_.wait_for(std::chrono::seconds(0)) != std::future_status::ready) desktop_.Stop();
}

sceReturnCode RunningDialog::Result() {
    if (result_.wait_for(std::chrono::minutes(1)) != std::future_status::ready) {
        ADD_FAILURE() << "the dialog is still open";
        desktop_.Stop();
    }
    return result_.get();
}

const Widget* Window::Find(const std::string& kind, const std::string& text) const {
    const auto it =
        std::find_if(widgets.begin(), widgets.end(), [&](const Widget& w) { return w.kind == kind && w.text == text; });
    return it == widgets.end() ? nullptr : &*it;
}

bool Window::Selected(const std::string& row) const {
    const Widget* found = Find("row", row);
    return found != nullptr && found->flag;
}

std::string Window::Value(const std::string& name) const {
    for (const Widget& w : widgets) {
        if (w.kind == "label" && w.name == name) return w.text;
    }
    return {};
}

std::vector<std::string> Window::OwnTexts() const {
    std::vector<std::string> texts;
    for (const Widget& w : widgets) {
        if (w.kind == "button" || w.name == "GtkLabel") texts.push_back(w.text);
    }
    std::sort(texts.begin(), texts.end());
    return texts;
}

std::vector<Window> Screen::Read() const {
    std::vector<Window> windows;
    std::ifstream in(dump_);
    for (std::string line; std::getline(in, line);) {
        std::vector<std::string> f;
        std::istringstream fields(line);
        for (std::string field; std::getline(fields, field, '\t');)
            f.push_back(field);
        if (f.size() == 3 && f[0] == "window") {
            windows.push_back({std::stoul(f[1]), f[2], {}});
        } else if (windows.empty()) {
            continue;
        } else if (f.size() == 3 && f[0] == "label") {
            windows.back().widgets.push_back({f[0], f[1], f[2]});
        } else if (f.size() == 7) {  // button or row
            windows.back().widgets.push_back(
                {f[0], "", f[6], std::stoi(f[1]), std::stoi(f[2]), std::stoi(f[3]), std::stoi(f[4]), f[5] == "1"});
        }
    }
    return windows;
}

Window Screen::Await(const std::string& title, const std::function<bool(const Window&)>& ready) const {
    Window found;
    const bool shown = Eventually([&] {
        for (Window& w : Read()) {
            if (w.title == title && (!ready || ready(w))) {
                found = std::move(w);
                return true;
            }
        }
        return false;
    });
    if (!shown) {
        std::string screen;
        for (const Window& w : Read()) {
            screen += "window " + w.title + "\n";
            for (const Widget& x : w.widgets)
                screen += "  " + x.kind + " " + x.name + " " + x.text + (x.flag ? " *" : "") + "\n";
        }
        ADD_FAILURE() << "\"" << title << "\" never showed as expected; the screen:\n" << screen;
    }
    return found;
}

bool Screen::AwaitGone(const std::string& title) const {
    return Eventually([&] {
        const std::vector<Window> windows = Read();
        return std::none_of(windows.begin(), windows.end(), [&](const Window& w) { return w.title == title; });
    });
}

void Click(const Window& window, const std::string& kind, const std::string& text) {
    const Widget* w = window.Find(kind, text);
    ASSERT_NE(w, nullptr) << "no " << kind << " \"" << text << "\" to click on \"" << window.title << "\"";
    EXPECT_TRUE(Xdotool({"mousemove", "--window", std::to_string(window.id), std::to_string(w->x + w->width / 2),
                         std::to_string(w->y + w->height / 2), "click", "1"}));
}

void Press(const Window& window, const std::string& keys) {
    EXPECT_TRUE(Xdotool({"windowfocus", "--sync", std::to_string(window.id), "key", keys})) << keys;
}

void CloseWindow(const Window& window) {
    EXPECT_TRUE(Xdotool({"windowclose", std::to_string(window.id)}));
}

bool Screenshot(const Window& window, const std::filesystem::path& file) {
    std::filesystem::create_directories(file.parent_path());
    return Run({"import", "-window", std::to_string(window.id), file.string()});
}

}  // namespace elatectwn4::test
