#include "http_destination.h"

#include <curl/curl.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace hls {
namespace {

struct EasyFree {
    void operator()(CURL* c) const { curl_easy_cleanup(c); }
};
using Easy = std::unique_ptr<CURL, EasyFree>;
struct ListFree {
    void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};
using HeaderList = std::unique_ptr<curl_slist, ListFree>;

bool endsWith(const std::string& s, const char* tail) {
    const size_t n = std::strlen(tail);
    return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}

// The body of a PUT, read by libcurl as it sends.
struct Body {
    const std::string& data;
    size_t offset = 0;
    static size_t read(char* buffer, size_t size, size_t count, void* opaque) {
        auto* body = static_cast<Body*>(opaque);
        const size_t n = std::min(size * count, body->data.size() - body->offset);
        std::memcpy(buffer, body->data.data() + body->offset, n);
        body->offset += n;
        return n;
    }
};

size_t collect(char* data, size_t size, size_t count, void* opaque) {
    auto* text = static_cast<std::string*>(opaque);
    // A playlist is small; anything far larger is not one.
    if (text->size() + size * count > (size_t(4) << 20)) return 0;
    text->append(data, size * count);
    return size * count;
}

size_t discard(char*, size_t size, size_t count, void*) {
    return size * count;
}

class HttpDestination : public Destination {
  public:
    HttpDestination(std::string url, HttpOptions options)
        : base_(endsWith(url, "/") ? url : url + "/"), options_(options) {
        thread_ = std::thread([this] { run(); });
    }
    ~HttpDestination() override {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }

    std::optional<std::string> put(const std::string& name, std::string contents) override {
        {
            std::lock_guard lock(mutex_);
            const bool playlist = endsWith(name, ".m3u8");
            auto waiting = std::find_if(queue_.begin(), queue_.end(),
                                        [&](const Item& i) { return i.name == name; });
            // A newer playlist replaces a waiting one, and goes after the
            // segments it names.
            if (playlist && waiting != queue_.end()) {
                queuedBytes_ -= waiting->contents.size();
                queue_.erase(waiting);
            }
            if (!playlist && (queue_.size() >= options_.maxQueuedFiles ||
                              queuedBytes_ + contents.size() > options_.maxQueuedBytes)) {
                std::fprintf(stderr, "hls-upload-extension: upload queue full: %s dropped\n",
                             name.c_str());
                dropLocked(name);
                return std::nullopt;
            }
            queuedBytes_ += contents.size();
            queue_.push_back({name, std::move(contents)});
        }
        wake_.notify_all();
        return std::nullopt;
    }

    std::string locationOf(const std::string& name) const override { return base_ + name; }

    std::optional<std::string> fetch(const std::string& name) const override {
        Easy easy(curl_easy_init());
        if (!easy) return std::nullopt;
        std::string text;
        CURL* c = easy.get();
        const std::string url = base_ + name;
        curl_easy_setopt(c, CURLOPT_URL, url.c_str());
        setTimeouts(c);
        curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, &collect);
        curl_easy_setopt(c, CURLOPT_WRITEDATA, &text);
        long status = 0;
        if (curl_easy_perform(c) != CURLE_OK ||
            curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status) != CURLE_OK || status != 200)
            return std::nullopt;
        return text;
    }

    void flush(std::chrono::milliseconds limit) override {
        std::unique_lock lock(mutex_);
        idle_.wait_for(lock, limit, [&] { return queue_.empty() && !uploading_; });
    }

    Stats stats() const override {
        std::lock_guard lock(mutex_);
        Stats s = stats_;
        s.pending = queue_.size() + (uploading_ ? 1 : 0);
        return s;
    }

  private:
    struct Item {
        std::string name;
        std::string contents;
    };

    void setTimeouts(CURL* c) const {
        curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, long(options_.connectTimeout.count()));
        curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, long(options_.requestTimeout.count()));
    }

    void dropLocked(const std::string& name) {
        ++stats_.dropped;
        // The latest few, for the service information.
        if (stats_.droppedNames.size() == 8) stats_.droppedNames.erase(stats_.droppedNames.begin());
        stats_.droppedNames.push_back(name);
    }

    // The uploader thread.
    void run() {
        std::unique_lock lock(mutex_);
        for (;;) {
            wake_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
            if (stopping_) return;
            Item item = std::move(queue_.front());
            queue_.pop_front();
            queuedBytes_ -= item.contents.size();
            uploading_ = true;
            lock.unlock();
            const bool sent = upload(item);
            lock.lock();
            uploading_ = false;
            if (!sent) dropLocked(item.name);
            idle_.notify_all();
        }
    }

    // Tries `item` until it is taken, the tries run out or the destination
    // ends; uploader thread.
    bool upload(const Item& item) {
        auto pause = options_.firstBackoff;
        for (int attempt = 1;; ++attempt) {
            auto failure = putOnce(item);
            if (!failure) return true;
            std::fprintf(stderr, "hls-upload-extension: PUT %s%s failed (%s), try %d of %d\n",
                         base_.c_str(), item.name.c_str(), failure->c_str(), attempt,
                         options_.attempts);
            if (attempt >= options_.attempts) return false;
            std::unique_lock lock(mutex_);
            ++stats_.retries;
            if (wake_.wait_for(lock, pause, [&] { return stopping_; })) return false;
            pause = std::min(pause * 2, options_.maxBackoff);
        }
    }

    // One PUT on the uploader's connection; why it failed, or nothing.
    std::optional<std::string> putOnce(const Item& item) {
        if (!easy_) easy_.reset(curl_easy_init());
        if (!easy_) return "libcurl cannot make a request";
        CURL* c = easy_.get();
        curl_easy_reset(c);
        const std::string url = base_ + item.name;
        const char* type = endsWith(item.name, ".m3u8")
                               ? "Content-Type: application/vnd.apple.mpegurl"
                               : "Content-Type: video/mp2t";
        // No "Expect: 100-continue" round trip before every segment.
        HeaderList headers(curl_slist_append(nullptr, type));
        if (!headers || !curl_slist_append(headers.get(), "Expect:")) return "out of memory";
        Body body{item.contents};
        curl_easy_setopt(c, CURLOPT_URL, url.c_str());
        curl_easy_setopt(c, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(c, CURLOPT_READFUNCTION, &Body::read);
        curl_easy_setopt(c, CURLOPT_READDATA, &body);
        curl_easy_setopt(c, CURLOPT_INFILESIZE_LARGE, curl_off_t(item.contents.size()));
        curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers.get());
        curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, &discard);
        setTimeouts(c);
        const CURLcode r = curl_easy_perform(c);
        if (r != CURLE_OK) return curl_easy_strerror(r);
        long status = 0;
        curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
        if (status < 200 || status >= 300) return "HTTP status " + std::to_string(status);
        return std::nullopt;
    }

    const std::string base_;
    const HttpOptions options_;
    Easy easy_;  // uploader thread only

    mutable std::mutex mutex_;
    std::condition_variable wake_;  // a file queued, or stopping
    std::condition_variable idle_;  // the queue ran empty
    std::deque<Item> queue_;
    size_t queuedBytes_ = 0;
    bool uploading_ = false;
    bool stopping_ = false;
    Stats stats_;
    std::thread thread_;  // last: starts once everything above is made
};

}  // namespace

bool isHttpUrl(const std::string& url) {
    return url.rfind("http://", 0) == 0 || url.rfind("https://", 0) == 0;
}

std::unique_ptr<Destination> makeHttpDestination(const std::string& url, HttpOptions options) {
    return std::make_unique<HttpDestination>(url, options);
}

}  // namespace hls
