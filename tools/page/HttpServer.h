// An HTTP server that only answers questions.
#ifndef TOOLS_PAGE_HTTPSERVER_H
#define TOOLS_PAGE_HTTPSERVER_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct HttpRequest {
    std::string path;
    std::map<std::string, std::string> parameters;
};

struct HttpAnswer {
    int status = 200;
    std::string type = "text/plain; charset=utf-8";
    std::string body;
};

// Takes GET and HEAD only, and only for the names that the settings give: a page of another site
// whose name somebody has made to lead here (DNS rebinding) gets nothing. Each client has a thread,
// of which there are so many at most; one that sends or takes too slowly is cut off, and delays
// nobody else.
//
// Thread safety: the functions that it is given are called on any thread.
class HttpServer {
  public:
    struct Settings {
        std::string address;
        uint16_t port;
        std::vector<std::string> names;  // by which it is reached, besides localhost and addresses
    };
    using Answerer = std::function<HttpAnswer(const HttpRequest& request)>;
    // Waits for what comes behind number `seen`, which it sets; none at the end.
    using EventSource = std::function<std::optional<std::string>(uint64_t& seen)>;

    static constexpr const char* kEventsPath = "/api/v1/events";
    static constexpr size_t kMostClients = 128;
    static constexpr size_t kMostListeners = 64;  // to events; the others always have room

    // Begins to serve. Throws Failure when the address cannot be listened on.
    HttpServer(Settings settings, Answerer answer, EventSource events);
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;
    // Ends all connections. The event source has to have come to its end.
    ~HttpServer();

  private:
    class Server;
    std::unique_ptr<Server> server_;
};

#endif
