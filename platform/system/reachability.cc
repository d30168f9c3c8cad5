#include "platform/system/reachability.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/unique_fd.h"

namespace sv {
namespace {

struct ResolvedAddress {
    int family;
    sockaddr_storage addr;
    socklen_t len;
};

// Shared between the waiting caller and the resolver thread; the thread owns
// a reference so a caller that gave up can return at once.
struct Resolution {
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
    bool resolved = false;
    std::vector<ResolvedAddress> addresses;
};

// getaddrinfo cannot be cancelled; a lookup that hangs keeps its thread
// until the resolver gives up. Bound how many may be stuck at once.
constexpr int kMaxOutstandingResolutions = 4;
std::atomic<int> gOutstanding{0};

void resolve(const std::string& host, const std::shared_ptr<Resolution>& state) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    // No AI_ADDRCONFIG: on a host with only loopback configured it hides
    // "localhost"; the route check below rejects unusable families anyway.
    addrinfo* list = nullptr;
    int rc = getaddrinfo(host.c_str(), "443", &hints, &list);
    std::vector<ResolvedAddress> addresses;
    if (rc == 0) {
        for (addrinfo* ai = list; ai; ai = ai->ai_next) {
            if (ai->ai_addrlen > sizeof(sockaddr_storage)) continue;
            ResolvedAddress a{ai->ai_family, {}, static_cast<socklen_t>(ai->ai_addrlen)};
            std::memcpy(&a.addr, ai->ai_addr, ai->ai_addrlen);
            addresses.push_back(a);
        }
        freeaddrinfo(list);
    }
    std::lock_guard lock(state->mutex);
    state->done = true;
    state->resolved = rc == 0;
    state->addresses = std::move(addresses);
    state->cv.notify_all();
}

bool routeExists(const ResolvedAddress& a) {
    UniqueFd fd(socket(a.family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) return false;
    // connect() on a datagram socket only selects a route and a source
    // address; it fails with ENETUNREACH when the routing table has none.
    return connect(fd.get(), reinterpret_cast<const sockaddr*>(&a.addr), a.len) == 0;
}

}  // namespace

std::shared_ptr<ReachabilityQuery> ReachabilityQuery::createWithName(std::string host) {
    if (host.empty()) return nullptr;
    return std::shared_ptr<ReachabilityQuery>(new ReachabilityQuery(std::move(host)));
}

std::optional<uint32_t> ReachabilityQuery::getFlags() const {
    if (gOutstanding.fetch_add(1) >= kMaxOutstandingResolutions) {
        gOutstanding.fetch_sub(1);
        return std::nullopt;
    }
    auto state = std::make_shared<Resolution>();
    try {
        std::thread([host = host_, state] {
            resolve(host, state);
            gOutstanding.fetch_sub(1);
        }).detach();
    } catch (const std::system_error&) {
        gOutstanding.fetch_sub(1);
        return std::nullopt;
    }
    std::vector<ResolvedAddress> addresses;
    {
        std::unique_lock lock(state->mutex);
        if (!state->cv.wait_for(lock, kResolveTimeout, [&] { return state->done; }))
            return std::nullopt;
        if (!state->resolved) return 0u;
        addresses = std::move(state->addresses);
    }
    for (const auto& a : addresses)
        if (routeExists(a)) return uint32_t{kReachabilityReachable};
    return 0u;
}

}  // namespace sv
