#include "sim/bridge/vpcd_link.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace elatectwn4::sim::bridge {
namespace {

// A control line longer than this is not a command; the client is dropped.
constexpr std::size_t MaxControlLine = 256;

[[noreturn]] void ThrowErrno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

void CloseFd(int& fd) noexcept {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

bool SendAll(int fd, std::span<const std::uint8_t> bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

bool SendText(int fd, const std::string& text) {
    return SendAll(fd, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

int OpenControlSocket(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path))
        throw std::system_error(ENAMETOOLONG, std::generic_category(), "control socket path " + path);
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);

    // A socket file left by an earlier run would make bind fail; anything
    // else at that path is not ours to delete.
    struct stat info {};
    if (::lstat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode)) ::unlink(path.c_str());

    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) ThrowErrno("control socket");
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 || ::listen(fd, 4) != 0) {
        const int error = errno;
        ::close(fd);
        throw std::system_error(error, std::generic_category(), "control socket " + path);
    }
    return fd;
}

std::string Trim(const std::string& text) {
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) return {};
    const auto last = text.find_last_not_of(" \t\r");
    return text.substr(first, last - first + 1);
}

}  // namespace

bool ConfigureLowLatency(int fd) noexcept {
    const int on = 1;
    const bool noDelay = ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) == 0;
    const bool quickAck = ::setsockopt(fd, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof(on)) == 0;
    return noDelay && quickAck;
}

VpcdLink::VpcdLink(LinkSettings settings, CardSlot& slot, Logger log)
    : settings_(std::move(settings)), slot_(slot), log_(std::move(log)) {
    std::array<int, 2> pipeFds{};
    if (::pipe2(pipeFds.data(), O_CLOEXEC | O_NONBLOCK) != 0) ThrowErrno("wake-up pipe");
    wakeRead_ = pipeFds[0];
    wakeWrite_ = pipeFds[1];
    if (!settings_.controlPath.empty()) {
        try {
            controlListener_ = OpenControlSocket(settings_.controlPath);
        } catch (...) {
            CloseFd(wakeRead_);
            CloseFd(wakeWrite_);
            throw;
        }
    }
}

VpcdLink::~VpcdLink() {
    CloseFd(vpcd_);
    for (auto& client : controlClients_)
        CloseFd(client.fd);
    if (controlListener_ >= 0) {
        CloseFd(controlListener_);
        ::unlink(settings_.controlPath.c_str());
    }
    CloseFd(wakeRead_);
    CloseFd(wakeWrite_);
}

void VpcdLink::Request(LinkRequest request) noexcept {
    const char code = static_cast<char>(request);
    // The pipe holds thousands of requests; if it is ever full, the ones
    // already queued will wake Run anyway.
    [[maybe_unused]] const ssize_t n = ::write(wakeWrite_, &code, 1);
}

void VpcdLink::Log(const std::string& line) const {
    if (log_) log_(line);
}

void VpcdLink::Run() {
    quit_ = false;
    if (!settings_.startRemoved) Apply(LinkRequest::Insert);
    while (!quit_) {
        const auto now = std::chrono::steady_clock::now();
        if (inserted_ && vpcd_ < 0 && now >= nextAttempt_) TryConnect();

        std::vector<pollfd> fds;
        fds.push_back({wakeRead_, POLLIN, 0});
        if (controlListener_ >= 0) fds.push_back({controlListener_, POLLIN, 0});
        const std::size_t firstClient = fds.size();
        for (const auto& client : controlClients_)
            fds.push_back({client.fd, POLLIN, 0});
        const std::size_t vpcdIndex = fds.size();
        if (vpcd_ >= 0) fds.push_back({vpcd_, POLLIN, 0});

        int timeout = -1;
        if (inserted_ && vpcd_ < 0) {
            const auto wait = std::chrono::ceil<std::chrono::milliseconds>(nextAttempt_ - now);
            timeout = static_cast<int>(std::max<std::chrono::milliseconds::rep>(wait.count(), 0));
        }
        if (::poll(fds.data(), fds.size(), timeout) < 0) {
            if (errno == EINTR) continue;  // a signal handler has queued a request
            ThrowErrno("poll");
        }

        if (vpcd_ >= 0 && vpcdIndex < fds.size() && fds[vpcdIndex].revents != 0) ServeVpcd();

        // Clients are served from the back so that dropping one keeps the
        // indexes of those not yet visited.
        for (std::size_t i = controlClients_.size(); i-- > 0;) {
            if (fds[firstClient + i].revents == 0) continue;
            if (!ServeControlClient(controlClients_[i])) {
                CloseFd(controlClients_[i].fd);
                controlClients_.erase(controlClients_.begin() + static_cast<std::ptrdiff_t>(i));
            }
        }
        if (controlListener_ >= 0 && fds[1].revents != 0) AcceptControlClient();

        if (fds[0].revents != 0) {
            std::array<char, 64> codes{};
            ssize_t n;
            while ((n = ::read(wakeRead_, codes.data(), codes.size())) > 0) {
                for (ssize_t i = 0; i < n; ++i)
                    Apply(static_cast<LinkRequest>(codes[static_cast<std::size_t>(i)]));
            }
        }
    }
    CloseFd(vpcd_);
    decoder_.Clear();
}

void VpcdLink::Apply(LinkRequest request) {
    switch (request) {
        case LinkRequest::Remove:
            if (!inserted_) return;
            inserted_ = false;
            CloseFd(vpcd_);
            decoder_.Clear();
            slot_.Leave();
            Log("card removed");
            return;
        case LinkRequest::Insert:
            if (inserted_) return;
            inserted_ = true;
            slot_.Enter();
            nextAttempt_ = {};
            waitingReported_ = false;
            Log("card inserted");
            return;
        case LinkRequest::Quit:
            quit_ = true;
            return;
    }
}

void VpcdLink::TryConnect() {
    nextAttempt_ = std::chrono::steady_clock::now() + settings_.retryInterval;
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const std::string service = std::to_string(settings_.port);
    if (const int rc = ::getaddrinfo(settings_.host.c_str(), service.c_str(), &hints, &found); rc != 0) {
        if (!waitingReported_) Log("cannot resolve " + settings_.host + ": " + ::gai_strerror(rc));
        waitingReported_ = true;
        return;
    }
    int lastError = 0;
    for (addrinfo* candidate = found; candidate != nullptr && vpcd_ < 0; candidate = candidate->ai_next) {
        const int fd = ::socket(candidate->ai_family, candidate->ai_socktype | SOCK_CLOEXEC, candidate->ai_protocol);
        if (fd < 0) {
            lastError = errno;
            continue;
        }
        // The kernel may give this connection a port that vpcd listens on
        // when pcscd next starts; vpcd binds once and gives up, so the
        // connection's TIME_WAIT after a close must not hold the port.
        const int on = 1;
        ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        if (::connect(fd, candidate->ai_addr, candidate->ai_addrlen) == 0) {
            vpcd_ = fd;
        } else {
            lastError = errno;
            ::close(fd);
        }
    }
    ::freeaddrinfo(found);

    const std::string where = settings_.host + ":" + service;
    if (vpcd_ < 0) {
        if (!waitingReported_) Log("waiting for vpcd at " + where + " (" + std::strerror(lastError) + ")");
        waitingReported_ = true;
        return;
    }
    if (!ConfigureLowLatency(vpcd_)) Log("cannot turn off delayed acknowledgements; every APDU will be slow");
    decoder_.Clear();
    waitingReported_ = false;
    Log("connected to vpcd at " + where);
}

void VpcdLink::Disconnect(const std::string& reason) {
    CloseFd(vpcd_);
    decoder_.Clear();
    nextAttempt_ = std::chrono::steady_clock::now() + settings_.retryInterval;
    Log(reason + "; reconnecting");
}

void VpcdLink::ServeVpcd() {
    std::array<std::uint8_t, 4096> buffer{};
    const ssize_t n = ::recv(vpcd_, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (n == 0) return Disconnect("vpcd closed the connection");
    if (n < 0) {
        if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) return;
        return Disconnect(std::string("vpcd connection failed: ") + std::strerror(errno));
    }
    // The kernel turns delayed ACKs back on after receiving; switch them off
    // again before vpcd's next two-part write.
    const int on = 1;
    ::setsockopt(vpcd_, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof(on));

    decoder_.Feed({buffer.data(), static_cast<std::size_t>(n)});
    while (auto message = decoder_.Next()) {
        const auto answer = AnswerVpcd(slot_, *message);
        if (!answer) continue;
        std::vector<std::uint8_t> frame;
        try {
            frame = EncodeFrame(*answer);
        } catch (const std::length_error&) {
            // Cannot happen with a 4096-byte reader, but never send a frame
            // whose prefix lies about its length.
            frame = EncodeFrame({});
        }
        if (!SendAll(vpcd_, frame)) return Disconnect(std::string("cannot answer vpcd: ") + std::strerror(errno));
    }
}

void VpcdLink::AcceptControlClient() {
    const int fd = ::accept4(controlListener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) return;  // the client gave up already
    controlClients_.push_back({fd, {}});
}

bool VpcdLink::ServeControlClient(ControlClient& client) {
    std::array<char, 512> buffer{};
    const ssize_t n = ::recv(client.fd, buffer.data(), buffer.size(), 0);
    if (n == 0) return false;
    if (n < 0) return errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK;
    client.pending.append(buffer.data(), static_cast<std::size_t>(n));
    std::size_t end;
    while ((end = client.pending.find('\n')) != std::string::npos) {
        const std::string line = Trim(client.pending.substr(0, end));
        client.pending.erase(0, end + 1);
        if (line.empty()) continue;
        if (!SendText(client.fd, Execute(line) + "\n")) return false;
    }
    if (client.pending.size() > MaxControlLine) {
        SendText(client.fd, "error line too long\n");
        return false;
    }
    return true;
}

// Answers only after the request has been carried out, so a client that has
// read "ok" for "remove" knows the vpcd connection is already closed.
std::string VpcdLink::Execute(const std::string& command) {
    if (command == "remove") {
        Apply(LinkRequest::Remove);
    } else if (command == "insert") {
        Apply(LinkRequest::Insert);
        if (vpcd_ < 0) TryConnect();
    } else if (command == "quit") {
        Apply(LinkRequest::Quit);
    } else if (command == "status") {
        if (!inserted_) return "removed";
        return vpcd_ >= 0 ? "inserted connected" : "inserted connecting";
    } else {
        return "error unknown command \"" + command + "\"";
    }
    return "ok";
}

}  // namespace elatectwn4::sim::bridge
