#include "engine/Webhook.h"

#include "base/Errors.h"

#ifndef QXV_LIBCURL

class Webhook::Poster {};

void Webhook::require() {
    throw Failure("this qxvrtp was built without libcurl, which a webhook needs");
}
void Webhook::add(const std::string&, std::string) {}
std::vector<std::string> Webhook::takeEvents() {
    return {};
}
void Webhook::finish(std::chrono::milliseconds) {}

#else

#include <curl/curl.h>
#include <dlfcn.h>
#include <fmt/format.h>
#include <signal.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <list>
#include <mutex>
#include <thread>
#include <utility>

#include "base/Quantity.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr size_t kMostWaiting = 512;  // of one URL
constexpr int kMostAttempts = 5;
constexpr auto kFirstWait = 1s;  // before the second attempt; doubles
constexpr long kLongestConnect_s = 5;
constexpr long kLongest_s = 10;

struct Curl {
    Curl();

    void* const library = dlopen(QXV_LIBCURL, RTLD_NOW | RTLD_LOCAL);
// NOLINTNEXTLINE(bugprone-macro-parentheses): the name is declared
#define TOOLS_CURL(name) const decltype(&curl_##name) name = resolve<decltype(name)>("curl_" #name)
    TOOLS_CURL(global_init);
    TOOLS_CURL(easy_cleanup);
    TOOLS_CURL(easy_getinfo);
    TOOLS_CURL(easy_init);
    TOOLS_CURL(easy_setopt);
    TOOLS_CURL(easy_strerror);
    TOOLS_CURL(multi_add_handle);
    TOOLS_CURL(multi_cleanup);
    TOOLS_CURL(multi_info_read);
    TOOLS_CURL(multi_init);
    TOOLS_CURL(multi_perform);
    TOOLS_CURL(multi_poll);
    TOOLS_CURL(multi_remove_handle);
    TOOLS_CURL(multi_wakeup);
    TOOLS_CURL(slist_append);
    TOOLS_CURL(slist_free_all);
#undef TOOLS_CURL

  private:
    template <typename Function>
    Function resolve(const char* name) {
        void* const address = library == nullptr ? nullptr : dlsym(library, name);
        if (address == nullptr)
            throw Failure(fmt::format("a webhook needs libcurl: {}", dlerror()));
        return reinterpret_cast<Function>(address);
    }
};

Curl::Curl() {
    if (global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK)
        throw Failure("libcurl does not start");
}

const Curl& curl() {
    static const Curl loaded;
    return loaded;
}

// The scheme and the host: what is behind them is often a secret.
std::string shown(std::string_view url) {
    const size_t begin = url.find("://") + std::strlen("://");
    const std::string_view authority = url.substr(begin, url.find_first_of("/?#", begin) - begin);
    return fmt::format("{}{}", url.substr(0, begin), authority.substr(authority.rfind('@') + 1));
}

// The status says all; an answer that is long, or has no end, is cut off.
size_t discard(char*, size_t, size_t size, void* answered) {
    constexpr size_t kMost = 65536;
    size_t& sum = *static_cast<size_t*>(answered);
    sum += size;
    return sum <= kMost ? size : 0;
}

struct Target {
    std::string url;
    CURL* const handle;               // the thread's
    std::deque<std::string> posts{};  // the first one is under way if `busy`
    bool busy = false;
    size_t answered = 0;  // bytes of body, to the first one
    int attempts = 0;     // of the first one
    Clock::time_point due{};
    bool failing = false;  // and told
    uint64_t dropped = 0;  // and not told
};

}  // namespace

class Webhook::Poster {
  public:
    Poster();
    ~Poster();
    Poster(const Poster&) = delete;
    Poster& operator=(const Poster&) = delete;

    void add(const std::string& url, std::string body);
    std::vector<std::string> takeEvents();
    void finish(std::chrono::milliseconds patience);

  private:
    void run();
    // With the lock held.
    Target& target(const std::string& url);
    Clock::time_point begin(Clock::time_point now);
    void begin(Target& target);
    void conclude(Target& target, CURLcode result);
    void retryOrDrop(Target& target, const std::string& why, bool mayHelp);
    void drop(Target& target, const std::string& why);
    void tell(Target& target, const std::string& why);
    bool isDone() const;

    CURLM* const multi_ = curl().multi_init();
    curl_slist* const headers_ = curl().slist_append(nullptr, "Content-Type: application/json");
    std::mutex mutex_;  // guards all below
    std::condition_variable done_;
    std::list<Target> targets_;
    std::vector<std::string> events_;
    bool finishing_ = false;  // nothing is tried again
    bool ending_ = false;
    std::thread thread_;
};

Webhook::Poster::Poster() {
    if (multi_ == nullptr || headers_ == nullptr)
        throw std::bad_alloc();
    thread_ = std::thread([this] { run(); });
}

Webhook::Poster::~Poster() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    curl().multi_wakeup(multi_);
    thread_.join();
    for (const Target& target : targets_) {
        curl().multi_remove_handle(multi_, target.handle);
        curl().easy_cleanup(target.handle);
    }
    curl().multi_cleanup(multi_);
    curl().slist_free_all(headers_);
}

void Webhook::Poster::add(const std::string& url, std::string body) {
    {
        const std::lock_guard lock(mutex_);
        Target& to = target(url);
        if (to.posts.size() < kMostWaiting)
            to.posts.push_back(std::move(body));
        else
            drop(to, fmt::format("{} wait already", kMostWaiting));
    }
    curl().multi_wakeup(multi_);
}

std::vector<std::string> Webhook::Poster::takeEvents() {
    const std::lock_guard lock(mutex_);
    return std::exchange(events_, {});
}

void Webhook::Poster::finish(std::chrono::milliseconds patience) {
    std::unique_lock lock(mutex_);
    finishing_ = true;
    curl().multi_wakeup(multi_);
    done_.wait_for(lock, patience, [this] { return isDone(); });
    for (const Target& target : targets_)
        if (const uint64_t lost = target.dropped + target.posts.size(); lost > 0)
            events_.push_back(fmt::format("{} could not be posted to {}", counted(lost, "alarm"),
                                          shown(target.url)));
}

bool Webhook::Poster::isDone() const {
    return std::all_of(targets_.begin(), targets_.end(),
                       [](const Target& target) { return target.posts.empty(); });
}

void Webhook::Poster::run() {
    // Those of the process go to the thread that waits for them; and a connection that breaks while
    // TLS writes to it must end nothing.
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    std::unique_lock lock(mutex_);
    while (!ending_) {
        const auto next = begin(Clock::now());
        lock.unlock();
        int count = 0;
        curl().multi_perform(multi_, &count);
        lock.lock();
        bool concluded = false;
        while (const CURLMsg* const message = curl().multi_info_read(multi_, &count)) {
            char* target = nullptr;
            curl().easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &target);
            conclude(*reinterpret_cast<Target*>(target), message->data.result);
            concluded = true;
        }
        if (isDone())
            done_.notify_all();
        if (concluded)
            continue;
        lock.unlock();
        const auto wait = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
        curl().multi_poll(multi_, nullptr, 0, static_cast<int>(std::max(wait, 0ms).count()),
                          nullptr);
        lock.lock();
    }
}

Target& Webhook::Poster::target(const std::string& url) {
    for (Target& target : targets_)
        if (target.url == url)
            return target;
    CURL* const handle = curl().easy_init();
    if (handle == nullptr)
        throw std::bad_alloc();
    Target& target = targets_.emplace_back(Target{url, handle});
    const auto set = [handle](CURLoption option, auto value) {
        curl().easy_setopt(handle, option, value);
    };
    set(CURLOPT_URL, target.url.c_str());
    set(CURLOPT_PRIVATE, &target);
    set(CURLOPT_HTTPHEADER, headers_);
    set(CURLOPT_USERAGENT, "qxvrtp/" QXV_VERSION);
    // Redirections are not followed either: they lead where nobody has said that alarms may go.
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_CONNECTTIMEOUT, kLongestConnect_s);
    set(CURLOPT_TIMEOUT, kLongest_s);
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_QUICK_EXIT, 1L);  // a name server that does not answer does not hold up the end
    set(CURLOPT_WRITEFUNCTION, discard);
    set(CURLOPT_WRITEDATA, &target.answered);
    return target;
}

// Returns when the next one is due.
Clock::time_point Webhook::Poster::begin(Clock::time_point now) {
    auto next = now + std::chrono::hours(1);
    for (Target& target : targets_) {
        if (target.busy || target.posts.empty())
            continue;
        if (finishing_ || now >= target.due)
            begin(target);
        else
            next = std::min(next, target.due);
    }
    return next;
}

void Webhook::Poster::begin(Target& target) {
    const std::string& body = target.posts.front();
    curl().easy_setopt(target.handle, CURLOPT_POSTFIELDSIZE_LARGE,
                       static_cast<curl_off_t>(body.size()));
    curl().easy_setopt(target.handle, CURLOPT_POSTFIELDS, body.c_str());  // it is not copied
    curl().multi_add_handle(multi_, target.handle);
    target.busy = true;
    target.answered = 0;
    ++target.attempts;
}

void Webhook::Poster::conclude(Target& target, CURLcode result) {
    constexpr long kFirstAnswer = 200;  // below, it is still to come
    constexpr long kTimeout = 408;
    constexpr long kTooMany = 429;
    long status = 0;
    curl().easy_getinfo(target.handle, CURLINFO_RESPONSE_CODE, &status);
    curl().multi_remove_handle(multi_, target.handle);
    target.busy = false;
    // Whoever has said that it took the alarm must not get it again, even if the answer broke off.
    if (result != CURLE_OK && status < kFirstAnswer)
        return retryOrDrop(target, curl().easy_strerror(result), true);
    if (status / 100 != 2)
        return retryOrDrop(target, fmt::format("its answer is {}", status),
                           status / 100 == 5 || status == kTimeout || status == kTooMany);
    target.posts.pop_front();
    target.attempts = 0;
    target.due = {};
    if (std::exchange(target.failing, false))
        events_.push_back(
            fmt::format("alarms can be posted to {} again{}", shown(target.url),
                        target.dropped == 0 ? "" : fmt::format("; {} could not", target.dropped)));
    target.dropped = 0;
}

void Webhook::Poster::retryOrDrop(Target& target, const std::string& why, bool mayHelp) {
    target.due = Clock::now() + kFirstWait * (1 << (target.attempts - 1));
    if (mayHelp && !finishing_ && target.attempts < kMostAttempts)
        return tell(target, why);
    target.posts.pop_front();
    target.attempts = 0;
    drop(target, why);
}

void Webhook::Poster::drop(Target& target, const std::string& why) {
    ++target.dropped;
    tell(target, why);
}

void Webhook::Poster::tell(Target& target, const std::string& why) {
    if (!std::exchange(target.failing, true))
        events_.push_back(fmt::format("no alarm can be posted to {}: {}", shown(target.url), why));
}

void Webhook::require() {
    curl();
}

void Webhook::add(const std::string& url, std::string body) {
    if (!poster_)
        poster_ = std::make_unique<Poster>();
    poster_->add(url, std::move(body));
}

std::vector<std::string> Webhook::takeEvents() {
    return poster_ ? poster_->takeEvents() : std::vector<std::string>();
}

void Webhook::finish(std::chrono::milliseconds patience) {
    if (poster_)
        poster_->finish(patience);
}

#endif

Webhook::Webhook() = default;
Webhook::~Webhook() = default;
