#include "support/desktop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace elatectwn4::test {

namespace {

// Spawns argv with `actions`; the pid, or -1.
pid_t Spawn(const std::vector<std::string>& argv, const posix_spawn_file_actions_t* actions) {
    std::vector<char*> args;
    for (const std::string& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    return ::posix_spawnp(&pid, args[0], actions, nullptr, args.data(), environ) == 0 ? pid : -1;
}

int Reap(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::vector<std::string> Split(const std::string& line) {
    std::vector<std::string> fields;
    std::stringstream in(line);
    for (std::string field; std::getline(in, field, '\t');)
        fields.push_back(field);
    if (!line.empty() && line.back() == '\t') fields.emplace_back();
    return fields;
}

std::string Centre(int at, int size) {
    return std::to_string(at + size / 2);
}

}  // namespace

int RunProgram(const std::vector<std::string>& argv) {
    const pid_t pid = Spawn(argv, nullptr);
    return pid > 0 ? Reap(pid) : -1;
}

Desktop::Desktop() {
    // Xvfb picks a free display number itself and writes it to -displayfd.
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "no pipe for Xvfb";
        return;
    }
    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ == 0) {
        // A test killed from outside takes its display with it.
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent) ::_exit(127);
        ::dup2(ends[1], 3);
        if (ends[1] == 3) ::fcntl(3, F_SETFD, 0);
        const int quiet = ::open("/dev/null", O_WRONLY);
        ::dup2(quiet, STDERR_FILENO);
        ::execlp("Xvfb", "Xvfb", "-displayfd", "3", "-screen", "0", "1024x768x24", "-nolisten", "tcp", nullptr);
        ::_exit(127);
    }
    ::close(ends[1]);
    std::string number;
    char c;
    while (pid_ > 0 && ::read(ends[0], &c, 1) == 1 && c != '\n')
        number += c;
    ::close(ends[0]);
    if (pid_ <= 0 || number.empty()) {
        ADD_FAILURE() << "Xvfb did not start (install it with scripts/install-deps.sh)";
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
    if (result_.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
        ADD_FAILURE() << "the dialog is still open";
        desktop_.Stop();
    }
    return result_.get();
}

const Widget* Window::Find(const std::string& kind, const std::string& text) const {
    for (const Widget& w : widgets) {
        if (w.kind == kind && w.text == text) return &w;
    }
    return nullptr;
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
        if (w.kind == "button" || (w.kind == "label" && w.name == "GtkLabel")) texts.push_back(w.text);
    }
    std::sort(texts.begin(), texts.end());
    return texts;
}

const Window* Screen::Titled(const std::string& title) const {
    for (const Window& w : windows) {
        if (w.title == title) return &w;
    }
    return nullptr;
}

Screen ReadScreen(const std::filesystem::path& dump) {
    Screen screen;
    std::ifstream in(dump);
    for (std::string line; std::getline(in, line);) {
        const std::vector<std::string> f = Split(line);
        if (f[0] == "window" && f.size() == 3) {
            screen.windows.push_back({std::stoul(f[1]), f[2], {}});
        } else if (screen.windows.empty()) {
            continue;
        } else if (f[0] == "label" && f.size() == 3) {
            screen.windows.back().widgets.push_back({f[0], f[1], f[2]});
        } else if ((f[0] == "button" || f[0] == "row") && f.size() == 7) {
            screen.windows.back().widgets.push_back(
                {f[0], "", f[6], std::stoi(f[1]), std::stoi(f[2]), std::stoi(f[3]), std::stoi(f[4]), f[5] == "1"});
        }
    }
    return screen;
}

std::optional<Screen> WaitForScreen(const std::filesystem::path& dump, const std::function<bool(const Screen&)>& ready,
                                    std::chrono::seconds patience) {
    const auto giveUp = std::chrono::steady_clock::now() + patience;
    do {
        Screen screen = ReadScreen(dump);
        if (ready(screen)) return screen;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    } while (std::chrono::steady_clock::now() < giveUp);
    return std::nullopt;
}

void Click(const Window& window, const std::string& kind, const std::string& text) {
    const Widget* found = window.Find(kind, text);
    if (found == nullptr) {
        ADD_FAILURE() << "no " << kind << " \"" << text << "\" on \"" << window.title << "\" to click";
        return;
    }
    const Widget& widget = *found;
    EXPECT_EQ(RunProgram({"xdotool", "mousemove", "--window", std::to_string(window.id), Centre(widget.x, widget.width),
                          Centre(widget.y, widget.height), "click", "1"}),
              0)
        << "xdotool could not click " << widget.text;
}

void Press(const Window& window, const std::string& keys) {
    EXPECT_EQ(RunProgram({"xdotool", "windowfocus", "--sync", std::to_string(window.id), "key", keys}), 0)
        << "xdotool could not press " << keys;
}

void CloseWindow(const Window& window) {
    EXPECT_EQ(RunProgram({"xdotool", "windowclose", std::to_string(window.id)}), 0) << "xdotool could not close";
}

bool Screenshot(const Window& window, const std::filesystem::path& file) {
    std::filesystem::create_directories(file.parent_path());
    return RunProgram({"import", "-window", std::to_string(window.id), file.string()}) == 0;
}

}  // namespace elatectwn4::test
