// An HTTP(S) ingest point that takes the stream's files by PUT at
// <url>/<name>, as live-streaming ingest points do.
//
// put() queues the file and returns at once: one uploader thread sends the
// files in the order they were put, each with a time-out and a few tries
// with growing pauses between them, so a slow or failing server never holds
// up the broadcast. The queue is bounded in files and bytes: a segment that
// finds it full, or that fails every try, is dropped and counted (players
// skip a segment the server does not have); a newer playlist replaces one
// still waiting and goes out after the segments it names.
//
// Threads: put, fetch, flush and stats are called from one thread at a time
// (the extension's request thread); the uploads run on the destination's
// own thread, which the destructor ends, abandoning what is still queued.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "hls_publisher.h"

namespace hls {

struct HttpOptions {
    std::chrono::milliseconds connectTimeout{3000};
    std::chrono::milliseconds requestTimeout{10000};  // one try, whole
    int attempts = 6;
    // The pause after the first failed try; it doubles after every further
    // one, up to maxBackoff.
    std::chrono::milliseconds firstBackoff{250};
    std::chrono::milliseconds maxBackoff{4000};
    size_t maxQueuedFiles = 16;
    size_t maxQueuedBytes = size_t(64) << 20;
};

// Whether `url` names an ingest point this destination serves (http:// or
// https://).
bool isHttpUrl(const std::string& url);

// Uploads to `url` (a directory: the files go below it). libcurl must have
// been initialised (curl_global_init) before.
std::unique_ptr<Destination> makeHttpDestination(const std::string& url, HttpOptions options = {});

}  // namespace hls
