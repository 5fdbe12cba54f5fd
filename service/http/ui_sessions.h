/// The browser view's login sessions: random ids handed out as a cookie once the admin token
/// was given, kept in memory only (a restart logs everyone out), each with an expiry, and
/// bounded in number so that repeated logins cannot grow the service's memory.
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
    /// lifetime_s: how long a session lasts after its login; max_sessions: how many are kept
    /// (a new one beyond it replaces the one that would expire first).
    explicit UiSessions(uint64_t lifetime_s = 12 * 3600, size_t max_sessions = 256);

    /// A new session at now (seconds on any steady clock): its id, 64 hexadecimal digits of
    /// 32 random bytes; empty when the system's random source failed.
    std::string create(uint64_t now);
    /// True when id names a session that has not expired at now.
    bool valid(const std::string &id, uint64_t now);
    /// Ends a session; an unknown id is ignored.
    void end(const std::string &id);
    size_t size() const;

    uint64_t lifetime() const { return lifetime_; }

  private:
    void drop_expired(uint64_t now);

    const uint64_t lifetime_;
    const size_t max_sessions_;
    mutable std::mutex mutex_;
    std::map<std::string, uint64_t> expiry_; ///< id -> expiry time
};

/// Seconds on the steady clock, for the calls above.
uint64_t steady_seconds();

} // namespace vexo_cloud

#endif
