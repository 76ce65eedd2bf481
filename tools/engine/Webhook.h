// Posts each alarm to the user's web servers.
#ifndef TOOLS_ENGINE_WEBHOOK_H
#define TOOLS_ENGINE_WEBHOOK_H

#include <chrono>
#include <memory>
#include <string>
#include <vector>

// Each URL gets its alarms one after the other, and no URL waits for another. What a server does
// not take is tried again a few times, then dropped; so is what does not fit the queue of its URL.
//
// Owns a thread from the first alarm on. libcurl is loaded by then and not before: with the
// libraries that it needs, it would take several times the memory of a stream, and most processes
// post nothing.
//
// Thread safety: one thread uses it.
class Webhook {
  public:
    Webhook();
    ~Webhook();
    Webhook(const Webhook&) = delete;
    Webhook& operator=(const Webhook&) = delete;

    // Throws Failure where nothing can be posted, whatever the URL. Any thread may call it.
    static void require();

    // The body is JSON.
    void add(const std::string& url, std::string body);

    // What has gone wrong since the last call, and what works again, for the user to know.
    std::vector<std::string> takeEvents();

    // Gives what is under way so much time, and ends; what is left is told by takeEvents().
    void finish(std::chrono::milliseconds patience);

  private:
    class Poster;
    std::unique_ptr<Poster> poster_;
};

#endif
