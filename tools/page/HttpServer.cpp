#include "page/HttpServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <httplib.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string_view>
#include <thread>
#include <utility>

#include "base/Errors.h"
#include "base/FileDescriptor.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kRequestTime = 5s;  // for the whole of it
constexpr size_t kRequestBytes = 16384;
constexpr auto kAnswerTime = 10s;  // for each of its parts
constexpr auto kRetry = 1s;        // when listening has failed

// Set while the accepting thread itself takes a client, for whom there is no room.
thread_local bool crowded = false;

// A client's socket. All waiting ends at a deadline, or when the server stops.
class Connection : public httplib::Stream {
  public:
    Connection(int socket, int stop) : socket_(socket), stop_(stop) {}

    bool is_readable() const override { return true; }
    bool is_writable() const override { return !broken_; }
    socket_t socket() const override { return socket_; }
    void get_remote_ip_and_port(std::string&, int&) const override {}
    void get_local_ip_and_port(std::string&, int&) const override {}

    // The library asks for single bytes.
    ssize_t read(char* bytes, size_t size) override {
        if (begin_ == end_ && !fill())
            return -1;
        const size_t count = std::min(size, end_ - begin_);
        std::copy_n(buffer_.begin() + static_cast<std::ptrdiff_t>(begin_), count, bytes);
        begin_ += count;
        return static_cast<ssize_t>(count);
    }

    // All or nothing.
    ssize_t write(const char* bytes, size_t size) override {
        const auto deadline = Clock::now() + kAnswerTime;
        size_t done = 0;
        while (!broken_ && done < size) {
            const ssize_t count =
                send(socket_, bytes + done, size - done, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (count > 0)
                done += static_cast<size_t>(count);
            else if ((errno != EAGAIN && errno != EINTR) || !await(POLLOUT, deadline))
                broken_ = true;
        }
        return broken_ ? -1 : static_cast<ssize_t>(size);
    }

  private:
    bool fill() {
        while (received_ < kRequestBytes && await(POLLIN, requestEnd_)) {
            const ssize_t count = recv(socket_, buffer_.data(), buffer_.size(), MSG_DONTWAIT);
            if (count < 0 && (errno == EAGAIN || errno == EINTR))
                continue;
            begin_ = 0;
            end_ = static_cast<size_t>(std::max<ssize_t>(count, 0));
            received_ += end_;
            return end_ > 0;
        }
        return false;
    }

    bool await(short events, Clock::time_point deadline) const {
        pollfd wanted[] = {{socket_, events, 0}, {stop_, POLLIN, 0}};
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0)
            return false;
        const int ready = poll(wanted, 2, static_cast<int>(left.count()));
        return (ready > 0 && wanted[1].revents == 0) || (ready < 0 && errno == EINTR);
    }

    const int socket_;
    const int stop_;
    const Clock::time_point requestEnd_ = Clock::now() + kRequestTime;
    std::array<char, 4096> buffer_{};
    size_t begin_ = 0, end_ = 0;
    size_t received_ = 0;
    bool broken_ = false;
};

// A thread for each client that is there.
class Clients : public httplib::TaskQueue {
  public:
    void enqueue(std::function<void()> serve) override {
        {
            const std::lock_guard lock(mutex_);
            crowded = count_ == HttpServer::kMostClients;
            count_ += crowded ? 0 : 1;
        }
        if (!crowded) {
            try {
                std::thread([this, serve] {
                    serve();
                    leave();
                }).detach();
                return;
            } catch (const std::system_error&) {
                leave();
                crowded = true;
            }
        }
        serve();
        crowded = false;
    }

    void shutdown() override {
        std::unique_lock lock(mutex_);
        left_.wait(lock, [this] { return count_ == 0; });
    }

  private:
    void leave() {
        const std::lock_guard lock(mutex_);
        --count_;
        left_.notify_all();  // under the lock: the object may go right behind it
    }

    std::mutex mutex_;
    std::condition_variable left_;
    size_t count_ = 0;  // guarded by the mutex
};

struct Literal {
    bool valid = false, loopback = false, any = false;
};

Literal literal(const std::string& text) {
    in_addr v4{};
    in6_addr v6{};
    if (inet_pton(AF_INET, text.c_str(), &v4) == 1)
        return {true, ntohl(v4.s_addr) >> 24 == IN_LOOPBACKNET, v4.s_addr == INADDR_ANY};
    if (inet_pton(AF_INET6, text.c_str(), &v6) == 1)
        return {true, IN6_IS_ADDR_LOOPBACK(&v6) != 0, IN6_IS_ADDR_UNSPECIFIED(&v6) != 0};
    return {};
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return text;
}

// The name in a Host header, without its port.
std::string hostOf(const std::string& header) {
    const bool bracketed = header.starts_with('[');
    const size_t end = header.find(bracketed ? ']' : ':');
    return lower(
        header.substr(bracketed ? 1 : 0, end == std::string::npos ? end : end - bracketed));
}

// Nothing from elsewhere, no script but the page's own, and no other site around or inside it.
httplib::Headers headers() {
    return {{"Content-Security-Policy",
             "default-src 'none'; script-src 'self'; style-src 'self'; "
             "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
            {"X-Content-Type-Options", "nosniff"},
            {"X-Frame-Options", "DENY"},
            {"Referrer-Policy", "no-referrer"},
            {"Cross-Origin-Resource-Policy", "same-origin"},
            {"Cross-Origin-Opener-Policy", "same-origin"},
            {"Cache-Control", "no-store"}};
}

}  // namespace

class HttpServer::Server : public httplib::Server {
  public:
    Server(Settings settings, Answerer answer, EventSource events)
        : settings_(std::move(settings)),
          listensEverywhere_(literal(settings_.address).any),
          answer_(std::move(answer)),
          events_(std::move(events)),
          stop_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        settings_.names.emplace_back("localhost");
        settings_.names.push_back(settings_.address);
        for (std::string& name : settings_.names)
            name = lower(name);
        new_task_queue = [] { return new Clients; };
        set_default_headers(headers());
        // Not also SO_REUSEPORT, by which two of them would share the clients.
        set_socket_options([](socket_t socket) {
            const int on = 1;
            setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        });
        set_pre_routing_handler(
            [this](const httplib::Request& request, httplib::Response& response) {
                respond(request, response);
                return HandlerResponse::Handled;
            });
        set_exception_handler(
            [](const auto&, httplib::Response& response, const auto&) { response.status = 500; });
        if (!open())
            throw Failure(fmt::format("cannot listen on {} port {}: {}", settings_.address,
                                      settings_.port, std::strerror(errno)));
        thread_ = std::thread([this] { serve(); });
    }

    ~Server() override {
        stopping_ = true;
        eventfd_write(stop_.get(), 1);
        while (!ended_) {
            stop();
            std::this_thread::sleep_for(1ms);
        }
        thread_.join();
    }

  private:
    bool open() {
        if (!bind_to_port(settings_.address, settings_.port))
            return false;
        // The library's own queue is of five clients.
        return ::listen(svr_sock_, static_cast<int>(kMostClients)) == 0;
    }

    // The library gives up when it cannot accept a client.
    void serve() {
        for (bool opened = true; !stopping_; opened = open()) {
            if (opened)
                listen_after_bind();
            pollfd stop{stop_.get(), POLLIN, 0};
            poll(&stop, 1, std::chrono::milliseconds(kRetry).count());
        }
        ended_ = true;
    }

    bool process_and_close_socket(socket_t socket) override {
        // Closed by its end, unlike a standard stream.
        const FileDescriptor owner(socket);
        if (crowded) {
            constexpr std::string_view kFull =
                "HTTP/1.1 503 Service Unavailable\r\nRetry-After: 5\r\nContent-Length: 0\r\n"
                "Connection: close\r\n\r\n";
            static_cast<void>(
                send(socket, kFull.data(), kFull.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
        } else {
            Connection connection(socket, stop_.get());
            bool closed = false;
            process_request(connection, true, closed, [](httplib::Request& request) {
                // A text could be asked for many times in one request; and to compress it takes
                // more time than it saves on this machine.
                request.ranges.clear();
                request.headers.erase("Accept-Encoding");
            });
        }
        shutdown(socket, SHUT_RDWR);
        return true;
    }

    bool isKnown(const std::string& header) const {
        const std::string host = hostOf(header);
        const Literal address = literal(host);
        // A name may be made to lead anywhere, an address leads where it says.
        return address.loopback || (address.valid && listensEverywhere_) ||
               std::find(settings_.names.begin(), settings_.names.end(), host) !=
                   settings_.names.end();
    }

    // 0, or the status by which it is refused.
    int refusal(const httplib::Request& request) const {
        if (request.method != "GET" && request.method != "HEAD")
            return 405;
        if (request.get_header_value_count("Host") != 1 || request.has_header("Content-Length") ||
            request.has_header("Transfer-Encoding"))
            return 400;
        if (!isKnown(request.get_header_value("Host")))
            return 421;
        // Another site may lead here, but not make its visitors ask.
        if (request.path != "/" && request.get_header_value("Sec-Fetch-Site") == "cross-site")
            return 403;
        return 0;
    }

    void respond(const httplib::Request& request, httplib::Response& response) {
        if (const int status = refusal(request); status != 0) {
            response.status = status;
            if (status == 405)
                response.set_header("Allow", "GET, HEAD");
            if (status == 421)
                response.set_content("This name is not known here; see --host.\n", "text/plain");
            return;
        }
        if (request.path == kEventsPath && request.method == "GET")
            return tell(response);
        const HttpAnswer answer =
            request.path == kEventsPath
                ? HttpAnswer{200, "text/event-stream", {}}
                : answer_({request.path, {request.params.begin(), request.params.end()}});
        response.status = answer.status;
        response.set_content(answer.body, answer.type);
    }

    // Events, for as long as the client takes them.
    void tell(httplib::Response& response) {
        const std::shared_ptr<void> listener(nullptr, [this](void*) { --listeners_; });
        if (++listeners_ > kMostListeners) {
            response.status = 503;
            response.set_header("Retry-After", "5");
            return;
        }
        response.set_chunked_content_provider(
            "text/event-stream",
            [this, listener, seen = uint64_t{0}](size_t, httplib::DataSink& sink) mutable {
                const auto event = events_(seen);
                if (!event)
                    return false;
                const std::string text = fmt::format("data: {}\n\n", *event);
                return sink.write(text.data(), text.size());
            });
    }

    // Fixed after the start.
    Settings settings_;
    const bool listensEverywhere_;
    const Answerer answer_;
    const EventSource events_;
    const FileDescriptor stop_;
    std::thread thread_;

    // Of any thread.
    std::atomic<size_t> listeners_{0};
    std::atomic<bool> stopping_{false};
    std::atomic<bool> ended_{false};
};

HttpServer::HttpServer(Settings settings, Answerer answer, EventSource events)
    : server_(std::make_unique<Server>(std::move(settings), std::move(answer), std::move(events))) {
}

HttpServer::~HttpServer() = default;
