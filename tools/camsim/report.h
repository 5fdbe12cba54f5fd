// What the simulator tells its user: the progress line, the lines on changes of the module's
// store mode and of the MQTT connection, and the summary at the end.
#ifndef VEXO_CAMSIM_REPORT_H
#define VEXO_CAMSIM_REPORT_H

#include <cstdint>
#include <string>

#include "cloud_control.h"
#include "feeder.h"
#include "host_kit.h"
#include "options.h"

namespace camsim {

/// What the schedule did.
struct Tally {
    int motion_started = 0;
    int motion_refused = 0;
    int triggers = 0;
};

/// "alltime", "event", or "no order" for any other value of the module's store mode.
const char *mode_name(int32_t mode);
std::string human_bytes(uint64_t n);

/// spool: the kit keeps an outage spool, whose state the line shows.
void show_progress(double elapsed_s, double total_s, const Feeder &feeder, const Tally &tally,
                   bool tty, bool spool);
/// "spool 3 items, 1.2 MB, oldest 12 s; 40 sent, 0 dropped" (ages in kit seconds).
std::string spool_text(const hostkit::Counters &c);

/// Prints a line to stderr when the module's store mode or the kit's MQTT connection changes:
///   "[camsim] %6.1fs store mode <old> -> <new>"
///   "[camsim] mqtt connected to <host:port>" / "[camsim] mqtt disconnected"
/// (a move to another broker between two polls shows as a connected line naming it)
/// A mode is a mode_name(), or "not configured" until the module has its first configuration
/// (its store mode reads as none then, too), so the first configuration is told apart from
/// the cloud taking the order away.
class StateLines {
  public:
    /// Starts from the module's state now and an MQTT client not connected.
    StateLines();
    /// Checks both and prints what changed; elapsed_s is kit seconds since the start.
    void poll(double elapsed_s);

  private:
    static const char *store_state();
    const char *state_;
    bool mqtt_connected_ = false;
    std::string mqtt_broker_;
};

struct RunTimes {
    double ran_s = 0;  // kit seconds the camera ran
    double real_s = 0; // real seconds
};

/// The summary on stdout; its last line is "store mode at end: <mode_name(end_mode)>".
void summarise(const Options &o, CloudControl &cloud, const Feeder &feeder, const Tally &tally,
               const RunTimes &times, int32_t end_mode);

} // namespace camsim

#endif
