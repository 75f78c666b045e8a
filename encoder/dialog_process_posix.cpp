// The dialog program as a POSIX child process on a socket pair.
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <system_error>
#include <utility>

#include "encoder/dialog.h"
#include "encoder/dialog_protocol.h"

extern char** environ;

namespace elatectwn4::dialog {

namespace {

std::system_error SystemError(int code, const char* what) {
    return std::system_error(code, std::generic_category(), what);
}

// posix_spawn's attributes and file actions, released however the start ends.
struct SpawnSettings {
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t actions;

    explicit SpawnSettings(int childEnd) {
        posix_spawnattr_init(&attributes);
        posix_spawn_file_actions_init(&actions);
        // The host may block or catch signals; the window must not inherit that.
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &all);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        posix_spawn_file_actions_adddup2(&actions, childEnd, STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, childEnd, STDOUT_FILENO);
        // Whatever else the host has open (lock files, sockets) stays with the host.
        posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    }
    ~SpawnSettings() {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;
};

bool IsSet(const char* variable) {
    const char* value = std::getenv(variable);
    return value != nullptr && *value != '\0';
}

}  // namespace

struct ChildProcess::System {
    int socket = -1;
    pid_t pid = -1;
};

// The build tree and tests name the program in the environment; installed,
// it sits in the library's libexec folder.
std::string ProgramPath() {
    if (const char* program = std::getenv("ELATECTWN4_CONFIGURE_PROGRAM"); program != nullptr && *program != '\0')
        return program;
    return ELATECTWN4_CONFIGURE_PROGRAM_PATH;
}

// Why the dialog cannot be shown before anything is started; "" when it can.
std::string WhyNoDialog(const std::string& program) {
    if (::access(program.c_str(), X_OK) != 0) {
        if (errno == ENOENT) return "The dialog program is not installed";
        return std::string("Cannot run the dialog program: ") + std::strerror(errno);
    }
    if (!IsSet("DISPLAY") && !IsSet("WAYLAND_DISPLAY")) return "No display: neither DISPLAY nor WAYLAND_DISPLAY is set";
    return {};
}

ChildProcess::ChildProcess(const std::string& program) : system_(std::make_unique<System>()) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) throw SystemError(errno, "socketpair");
    const SpawnSettings settings(ends[1]);
    char* const argv[] = {const_cast<char*>(program.c_str()), nullptr};
    const int code =
        ::posix_spawn(&system_->pid, program.c_str(), &settings.actions, &settings.attributes, argv, environ);
    ::close(ends[1]);
    if (code != 0) {
        ::close(ends[0]);
        system_->pid = -1;
        throw SystemError(code, "posix_spawn");
    }
    system_->socket = ends[0];
}

ChildProcess::~ChildProcess() {
    if (system_->pid > 0) ::kill(system_->pid, SIGTERM);
    Wait();
}

void ChildProcess::Send(std::string_view text) noexcept {
    while (system_->socket >= 0 && !text.empty()) {
        const ssize_t sent = ::send(system_->socket, text.data(), text.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return;
        text.remove_prefix(static_cast<std::size_t>(sent));
    }
}

std::optional<std::string> ChildProcess::Receive() {
    return NextLine(pending_, [this](char* buffer, std::size_t size) {
        for (;;) {
            const ssize_t got = system_->socket < 0 ? 0 : ::recv(system_->socket, buffer, size, 0);
            if (got >= 0 || errno != EINTR) return got;
        }
    });
}

std::string ChildProcess::Wait() {
    int& socket = system_->socket;
    pid_t& pid = system_->pid;
    if (socket >= 0) ::close(socket);
    socket = -1;
    if (pid <= 0) return {};
    int status = 0;
    pid_t reaped;
    do {
        reaped = ::waitpid(pid, &status, 0);
    } while (reaped < 0 && errno == EINTR);
    pid = -1;
    // A host that ignores SIGCHLD has its children reaped for it: the
    // status is then unknown.
    if (reaped < 0) return "The dialog program ended without an answer";
    if (WIFSIGNALED(status)) return "The dialog program was stopped by signal " + std::to_string(WTERMSIG(status));
    if (WEXITSTATUS(status) != 0) return "The dialog program ended with status " + std::to_string(WEXITSTATUS(status));
    return {};
}

}  // namespace elatectwn4::dialog
