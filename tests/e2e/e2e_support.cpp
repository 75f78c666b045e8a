#include "e2e_support.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <winscard.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace elatectwn4::e2e {

std::string Env(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

std::string Control(const std::string& socketPath, const std::string& command) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return "<no socket>";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath.c_str(), sizeof(address.sun_path) - 1);
    std::string answer = "<no connection to " + socketPath + ">";
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
        const std::string line = command + "\n";
        answer.clear();
        if (::send(fd, line.data(), line.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(line.size())) {
            char c;
            while (::recv(fd, &c, 1, 0) == 1 && c != '\n')
                answer.push_back(c);
        }
    }
    ::close(fd);
    return answer;
}

bool WaitForCard(const std::string& reader, bool present, std::chrono::milliseconds patience) {
    SCARDCONTEXT context = 0;
    if (SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context) != SCARD_S_SUCCESS) return false;
    SCARD_READERSTATE state{};
    state.szReader = reader.c_str();
    state.dwCurrentState = SCARD_STATE_UNAWARE;
    const DWORD wanted = present ? SCARD_STATE_PRESENT : SCARD_STATE_EMPTY;
    const auto deadline = std::chrono::steady_clock::now() + patience;
    bool reached = false;
    while (!reached && std::chrono::steady_clock::now() < deadline) {
        const LONG rc = SCardGetStatusChange(context, 250, &state, 1);
        if (rc != SCARD_S_SUCCESS && rc != SCARD_E_TIMEOUT) break;
        reached = (state.dwEventState & wanted) != 0;
        state.dwCurrentState = state.dwEventState & ~SCARD_STATE_CHANGED;
    }
    SCardReleaseContext(context);
    return reached;
}

ToolRun RunTool(const std::string& program, const std::vector<std::string>& args) {
    // Through the shell, every word quoted: 'it'\''s' for it's.
    const auto quoted = [](const std::string& word) {
        std::string out = "'";
        for (char c : word)
            out += c == '\'' ? std::string("'\\''") : std::string(1, c);
        return out + "'";
    };
    std::string command = quoted(program);
    for (const auto& arg : args)
        command += " " + quoted(arg);
    ToolRun run;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) return run;
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        run.output.append(buffer, n);
    const int status = ::pclose(pipe);
    if (status != -1 && WIFEXITED(status)) run.exitStatus = WEXITSTATUS(status);
    return run;
}

TempDir::TempDir(const std::string& prefix) {
    std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot create a temporary directory");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace elatectwn4::e2e
