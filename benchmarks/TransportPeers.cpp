#include "benchmarks/TransportPeers.h"

#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>
#include <uv.h>

#include <algorithm>
#include <asio.hpp>
#include <cstring>
#include <map>
#include <thread>
#include <utility>

namespace {

constexpr std::size_t kRoom = 65536;
constexpr int kBacklog = 128;

// ---- libuv

class UvServer : public Server {
public:
    UvServer(Service wanted, int packetSize)
        : service(wanted), packet(static_cast<std::size_t>(packetSize), 'p') {
        uv_loop_init(&loop);
        uv_async_init(&loop, &ending, [](uv_async_t* handle) {
            uv_walk(
                handle->loop,
                [](uv_handle_t* each, void*) {
                    if (!uv_is_closing(each)) uv_close(each, each->data == nullptr ? nullptr : freed);
                },
                nullptr);
        });
        ending.data = nullptr;
        uv_tcp_init(&loop, &listener);
        listener.data = nullptr;
        loop.data = this;
        sockaddr_in address{};
        uv_ip4_addr("127.0.0.1", 0, &address);
        uv_tcp_bind(&listener, reinterpret_cast<const sockaddr*>(&address), 0);
        uv_listen(reinterpret_cast<uv_stream_t*>(&listener), kBacklog, connected);
        int size = sizeof address;
        uv_tcp_getsockname(&listener, reinterpret_cast<sockaddr*>(&address), &size);
        port = ntohs(address.sin_port);
        thread = std::thread([this] { uv_run(&loop, UV_RUN_DEFAULT); });
    }
    ~UvServer() override {
        uv_async_send(&ending);
        thread.join();
        uv_loop_close(&loop);
    }
    int Port() const override { return port; }

private:
    struct Connection {
        uv_tcp_t tcp;
        UvServer* server;
        std::uint32_t left = 0;
        int underWay = 0;
        std::vector<uv_write_t*> spare;
        char room[kRoom];
    };
    static void freed(uv_handle_t* handle) {
        auto* const connection = static_cast<Connection*>(handle->data);
        for (uv_write_t* request : connection->spare)
            delete request;
        delete connection;
    }
    static void connected(uv_stream_t* listening, int) {
        auto* const connection = new Connection;
        connection->server = static_cast<UvServer*>(listening->loop->data);
        uv_tcp_init(listening->loop, &connection->tcp);
        connection->tcp.data = connection;
        auto* const stream = reinterpret_cast<uv_stream_t*>(&connection->tcp);
        uv_accept(listening, stream);
        if (connection->server->service == Service::Close) {
            uv_close(reinterpret_cast<uv_handle_t*>(stream), freed);
            return;
        }
        uv_read_start(
            stream,
            [](uv_handle_t* handle, std::size_t, uv_buf_t* buffer) {
                *buffer = uv_buf_init(static_cast<Connection*>(handle->data)->room, kRoom);
            },
            [](uv_stream_t* from, ssize_t count, const uv_buf_t* buffer) {
                auto* const own = static_cast<Connection*>(from->data);
                if (count < 0) {
                    uv_close(reinterpret_cast<uv_handle_t*>(from), freed);
                } else if (own->server->service == Service::Echo) {
                    const uv_buf_t data = uv_buf_init(buffer->base, static_cast<unsigned>(count));
                    uv_try_write(from, &data, 1);  // what is measured always fits
                } else if (count == sizeof own->left) {
                    std::memcpy(&own->left, buffer->base, sizeof own->left);
                    pump(*own);
                }
            });
    }
    static void pump(Connection& connection) {
        for (; connection.left > 0 && connection.underWay < kStreamWindow; --connection.left) {
            if (connection.spare.empty()) connection.spare.push_back(new uv_write_t);
            uv_write_t* const request = connection.spare.back();
            connection.spare.pop_back();
            std::vector<char>& packet = connection.server->packet;
            const uv_buf_t data = uv_buf_init(packet.data(), static_cast<unsigned>(packet.size()));
            ++connection.underWay;
            uv_write(request, reinterpret_cast<uv_stream_t*>(&connection.tcp), &data, 1,
                     [](uv_write_t* done, int) {
                         auto* const own = static_cast<Connection*>(done->handle->data);
                         own->spare.push_back(done);
                         --own->underWay;
                         if (!uv_is_closing(reinterpret_cast<uv_handle_t*>(done->handle))) pump(*own);
                     });
        }
    }

    const Service service;
    std::vector<char> packet;
    uv_loop_t loop{};
    uv_async_t ending{};
    uv_tcp_t listener{};
    int port = 0;
    std::thread thread;
};

// ---- Asio

class AsioServer : public Server {
public:
    AsioServer(Service wanted, int packetSize)
        : service(wanted), packet(static_cast<std::size_t>(packetSize), 'p') {
        accept();
        thread = std::thread([this] { context.run(); });
    }
    ~AsioServer() override {
        context.stop();
        thread.join();
    }
    int Port() const override { return acceptor.local_endpoint().port(); }

private:
    struct Connection : std::enable_shared_from_this<Connection> {
        Connection(asio::ip::tcp::socket&& accepted, AsioServer& owner)
            : socket(std::move(accepted)), server(owner), room(kRoom) {}
        void Read() {
            socket.async_read_some(asio::buffer(room),
                                   [self = shared_from_this()](asio::error_code error, std::size_t count) {
                                       if (!error) self->come(count);
                                   });
        }

    private:
        void come(std::size_t count) {
            if (server.service == Service::Echo) {
                asio::async_write(socket, asio::buffer(room, count),
                                  [self = shared_from_this()](asio::error_code error, std::size_t) {
                                      if (!error) self->Read();
                                  });
                return;
            }
            if (count == sizeof left) std::memcpy(&left, room.data(), sizeof left);
            pump();
        }
        void pump() {
            if (left == 0) return Read();
            --left;
            asio::async_write(socket, asio::buffer(server.packet),
                              [self = shared_from_this()](asio::error_code error, std::size_t) {
                                  if (!error) self->pump();
                              });
        }

        asio::ip::tcp::socket socket;
        AsioServer& server;
        std::vector<char> room;
        std::uint32_t left = 0;
    };
    void accept() {
        acceptor.async_accept([this](asio::error_code error, asio::ip::tcp::socket accepted) {
            if (error) return;
            if (service != Service::Close) std::make_shared<Connection>(std::move(accepted), *this)->Read();
            accept();
        });
    }

    const Service service;
    std::vector<char> packet;
    asio::io_context context{1};
    asio::ip::tcp::acceptor acceptor{context, {asio::ip::address_v4::loopback(), 0}};
    std::thread thread;
};

// ---- Loops by hand

class EpollPoller {
public:
    EpollPoller() : descriptor(::epoll_create1(EPOLL_CLOEXEC)) {}
    ~EpollPoller() { ::close(descriptor); }
    void Add(int fd) { control(EPOLL_CTL_ADD, fd, EPOLLIN); }
    void Watch(int fd, bool write) { control(EPOLL_CTL_MOD, fd, write ? EPOLLIN | EPOLLOUT : EPOLLIN); }
    void Remove(int fd) { control(EPOLL_CTL_DEL, fd, 0); }
    template <typename Visit>
    void Wait(Visit visit) {
        epoll_event events[128];
        const int count = ::epoll_wait(descriptor, events, 128, -1);
        for (int i = 0; i < count; ++i)
            visit(events[i].data.fd, (events[i].events & ~unsigned{EPOLLOUT}) != 0,
                  (events[i].events & EPOLLOUT) != 0);
    }

private:
    void control(int operation, int fd, unsigned events) {
        epoll_event event{.events = events, .data = {.fd = fd}};
        ::epoll_ctl(descriptor, operation, fd, &event);
    }
    const int descriptor;
};

class SelectPoller {
public:
    SelectPoller() {
        FD_ZERO(&read);
        FD_ZERO(&write);
    }
    void Add(int fd) {
        FD_SET(fd, &read);
        highest = std::max(highest, fd);
    }
    void Watch(int fd, bool writing) { writing ? FD_SET(fd, &write) : FD_CLR(fd, &write); }
    void Remove(int fd) {
        FD_CLR(fd, &read);
        FD_CLR(fd, &write);
    }
    template <typename Visit>
    void Wait(Visit visit) {
        fd_set readable = read;
        fd_set writable = write;
        int left = ::select(highest + 1, &readable, &writable, nullptr, nullptr);
        for (int fd = 0; fd <= highest && left > 0; ++fd) {
            const bool in = FD_ISSET(fd, &readable);
            const bool out = FD_ISSET(fd, &writable);
            left -= in + out;
            if (in || out) visit(fd, in, out);
        }
    }

private:
    fd_set read{};
    fd_set write{};
    int highest = 0;
};

template <typename Poller>
class LoopServer : public Server {
public:
    LoopServer(Service wanted, int packetSize)
        : service(wanted),
          packet(static_cast<std::size_t>(packetSize), 'p'),
          room(kRoom),
          listener(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)),
          ending(::eventfd(0, EFD_CLOEXEC)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        ::listen(listener, kBacklog);
        socklen_t size = sizeof address;
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
        port = ntohs(address.sin_port);
        poller.Add(listener);
        poller.Add(ending);
        thread = std::thread([this] { run(); });
    }
    ~LoopServer() override {
        const std::uint64_t one = 1;
        static_cast<void>(::write(ending, &one, sizeof one));
        thread.join();
        for (const auto& [fd, connection] : connections)
            ::close(fd);
        ::close(listener);
        ::close(ending);
    }
    int Port() const override { return port; }

private:
    struct Connection {
        std::uint32_t left = 0;
        std::size_t sent = 0;  // of the packet that is under way
        bool watched = false;
    };

    void run() {
        bool ended = false;
        while (!ended) {
            poller.Wait([&](int fd, bool in, bool out) {
                if (fd == ending) {
                    ended = true;
                } else if (fd == listener) {
                    accept();
                } else {
                    if (out) pump(fd);
                    if (in) receive(fd);
                }
            });
        }
    }
    void accept() {
        for (;;) {
            const int fd = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd == -1) return;
            if (service == Service::Close) {
                ::close(fd);
                continue;
            }
            connections[fd] = {};
            poller.Add(fd);
        }
    }
    void receive(int fd) {
        const ssize_t count = ::recv(fd, room.data(), room.size(), 0);
        if (count <= 0) {
            poller.Remove(fd);
            connections.erase(fd);
            ::close(fd);
        } else if (service == Service::Echo) {
            ::send(fd, room.data(), static_cast<std::size_t>(count), MSG_NOSIGNAL);
        } else if (count == sizeof(std::uint32_t)) {
            std::memcpy(&connections[fd].left, room.data(), sizeof(std::uint32_t));
            pump(fd);
        }
    }
    void pump(int fd) {
        Connection& connection = connections[fd];
        bool blocked = false;
        while (connection.left > 0 && !blocked) {
            const std::size_t rest = packet.size() - connection.sent;
            const ssize_t count = ::send(fd, packet.data() + connection.sent, rest, MSG_NOSIGNAL);
            if (count > 0) connection.sent += static_cast<std::size_t>(count);
            blocked = count < static_cast<ssize_t>(rest);
            if (blocked) break;
            connection.sent = 0;
            --connection.left;
        }
        if (blocked == connection.watched) return;
        connection.watched = blocked;
        poller.Watch(fd, blocked);
    }

    const Service service;
    std::vector<char> packet;
    std::vector<char> room;
    const int listener;
    const int ending;
    int port = 0;
    Poller poller;
    std::map<int, Connection> connections;
    std::thread thread;
};

}  // namespace

std::unique_ptr<Server> MakeUvServer(Service service, int packetSize) {
    return std::make_unique<UvServer>(service, packetSize);
}
std::unique_ptr<Server> MakeAsioServer(Service service, int packetSize) {
    return std::make_unique<AsioServer>(service, packetSize);
}
std::unique_ptr<Server> MakeEpollServer(Service service, int packetSize) {
    return std::make_unique<LoopServer<EpollPoller>>(service, packetSize);
}
std::unique_ptr<Server> MakeSelectServer(Service service, int packetSize) {
    return std::make_unique<LoopServer<SelectPoller>>(service, packetSize);
}
