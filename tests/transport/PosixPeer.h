#pragma once

// The other end of a connection in the tests: plain blocking sockets on loopback. Every wait ends after 5 s.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <utility>

namespace Mivra::Test {

inline sockaddr_in Loopback(int port, const char* address = "127.0.0.1") {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(static_cast<std::uint16_t>(port));
    ::inet_pton(AF_INET, address, &result.sin_addr);
    return result;
}

class PosixPeer {
public:
    static constexpr int Wait = 5000;  // milliseconds

    explicit PosixPeer(int descriptor = -1) : fd(descriptor) {}
    PosixPeer(PosixPeer&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    PosixPeer& operator=(PosixPeer&& other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    ~PosixPeer() { Close(); }

    /// Connected to a port of this machine; `receiveBuffer` above 0 bounds what the kernel takes for it.
    static PosixPeer Connect(int port, int receiveBuffer = 0) {
        PosixPeer peer(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (receiveBuffer > 0) peer.SetOption(SO_RCVBUF, receiveBuffer);
        EXPECT_TRUE(peer.ConnectTo(port));
        return peer;
    }
    bool ConnectTo(int port) const {
        const sockaddr_in address = Loopback(port);
        return ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    /// Bound to a free port, or to the given one; streams listen.
    static PosixPeer Bind(int type, const char* address = "127.0.0.1", int port = 0) {
        PosixPeer peer(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
        peer.SetOption(SO_REUSEADDR, 1);
        const sockaddr_in local = Loopback(port, address);
        EXPECT_EQ(::bind(peer.fd, reinterpret_cast<const sockaddr*>(&local), sizeof local), 0);
        if (type == SOCK_STREAM) {
            EXPECT_EQ(::listen(peer.fd, 128), 0);
        }
        return peer;
    }
    static int FreePort(int type = SOCK_STREAM) { return Bind(type).Port(); }

    PosixPeer Accept() { return PosixPeer(IsReady() ? ::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC) : -1); }

    bool Send(const std::string& text) {
        return ::send(fd, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
    }
    bool SendTo(const std::string& text, const sockaddr_in& address) {
        return ::sendto(fd, text.data(), text.size(), MSG_NOSIGNAL,
                        reinterpret_cast<const sockaddr*>(&address),
                        sizeof address) == static_cast<ssize_t>(text.size());
    }
    /// Exactly so many bytes, or what came before the end.
    std::string Receive(std::size_t size) {
        std::string text(size, '\0');
        std::size_t have = 0;
        while (have < size && IsReady()) {
            const ssize_t count = ::recv(fd, text.data() + have, size - have, 0);
            if (count <= 0) break;
            have += static_cast<std::size_t>(count);
        }
        text.resize(have);
        return text;
    }
    /// One datagram.
    std::string ReceiveDatagram() {
        std::string text(65536, '\0');
        const ssize_t count = IsReady() ? ::recv(fd, text.data(), text.size(), 0) : -1;
        EXPECT_GE(count, 0) << "no datagram came";
        text.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        return text;
    }
    /// What recv() answers at the end: 0 for an orderly one, else errno.
    int ReceiveEnd() const {
        char byte;
        if (!IsReady()) return -1;
        return ::recv(fd, &byte, 1, 0) == 0 ? 0 : errno;
    }
    bool IsReady(int milliseconds = Wait) const {
        pollfd one{fd, POLLIN, 0};
        return ::poll(&one, 1, milliseconds) == 1;
    }
    void EndSending() { ::shutdown(fd, SHUT_WR); }
    void SetOption(int name, int value, int level = SOL_SOCKET) {
        EXPECT_EQ(::setsockopt(fd, level, name, &value, sizeof value), 0);
    }
    int Port() const {
        sockaddr_in address{};
        socklen_t size = sizeof address;
        EXPECT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size), 0);
        return ntohs(address.sin_port);
    }
    void Close() {
        if (fd != -1) ::close(std::exchange(fd, -1));
    }
    /// Closes so that the other end sees the connection reset.
    void Reset() {
        const linger atOnce{1, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        Close();
    }
    int Descriptor() const { return fd; }

private:
    int fd;
};

}  // namespace Mivra::Test
