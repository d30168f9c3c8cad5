// Network reachability of a host.
//
// A query resolves the host name (bounded to kResolveTimeout) and asks the
// kernel's routing table whether a route to one of its addresses exists, by
// connecting an unbound UDP socket: no packet is sent anywhere. The host is
// reachable when a route exists. Linux has no on-demand links, so the
// connection-required flag is never set by this backend.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace sv {

enum ReachabilityFlag : uint32_t {
    kReachabilityReachable = 1u << 1,           // 2
    kReachabilityConnectionRequired = 1u << 2,  // 4
};

class ReachabilityQuery {
  public:
    static constexpr std::chrono::milliseconds kResolveTimeout{2000};

    static std::shared_ptr<ReachabilityQuery> createWithName(std::string host);

    // Synchronous; blocks the calling thread for at most about
    // kResolveTimeout. The flags (0 when the name does not resolve or no
    // route exists), or nullopt when they cannot be read (resolution timed
    // out, too many resolutions still outstanding, no socket).
    std::optional<uint32_t> getFlags() const;

    const std::string& host() const { return host_; }

  private:
    explicit ReachabilityQuery(std::string host) : host_(std::move(host)) {}
    std::string host_;
};

}  // namespace sv
