/// The browser view's login sessions. A session is its cookie: a random id, the time it
/// expires and an HMAC-SHA256 of both, keyed by a key derived from the admin token. Every
/// service holding the same admin token verifies it without any shared state, so a login on
/// one service behind a load balancer is good on all of them, and a restart logs nobody out.
/// Without an admin token the key is random per process (sessions then stay with it).
///
/// Logging out revokes the id on the service that answered only (kept until the session
/// would have expired, bounded in number): a copy of the cookie stays good on the others
/// until its expiry.
///
/// Thread-safe: every call may come from any thread.
#ifndef VEXO_CLOUD_UI_SESSIONS_H
#define VEXO_CLOUD_UI_SESSIONS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace vexo_cloud {

class UiSessions {
  public:
    /// admin_token: what the key is derived from (empty: a random key); lifetime_s: how long
    /// a session lasts after its login; max_revoked: how many logged-out ids are remembered
    /// (beyond it the one that expires first is forgotten).
    explicit UiSessions(const std::string &admin_token = "", uint64_t lifetime_s = 12 * 3600,
                        size_t max_revoked = 4096);

    /// A new session at now (seconds since the epoch): its cookie value,
    /// "<64 hex id>.<expiry>.<64 hex HMAC>"; empty when the random source failed.
    std::string create(uint64_t now);
    /// True when value is a session of this key that has not expired or been ended here.
    bool valid(const std::string &value, uint64_t now);
    /// Ends a session on this service; anything not a valid session is ignored.
    void end(const std::string &value, uint64_t now);
    /// How many ended sessions are remembered.
    size_t revoked() const;

    uint64_t lifetime() const { return lifetime_; }

  private:
    /// The id and expiry of a well-formed value whose HMAC matches; false otherwise.
    bool parse(const std::string &value, std::string *id, uint64_t *expiry) const;
    std::string sign(const std::string &text) const;

    std::string key_;
    const uint64_t lifetime_;
    const size_t max_revoked_;
    mutable std::mutex mutex_;
    std::map<std::string, uint64_t> revoked_; ///< id -> expiry
};

/// Seconds since the epoch, for the calls above (services compare expiries on it).
uint64_t wall_seconds();

} // namespace vexo_cloud

#endif
