#include "e2e_support.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace elatectwn4::e2e {

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

}  // namespace elatectwn4::e2e
