// The run's schedule: the actions of the command line in time order, and what each does to
// the module or the cloud.
#ifndef VEXO_CAMSIM_SCHEDULE_H
#define VEXO_CAMSIM_SCHEDULE_H

#include <vector>

#include "cloud_control.h"
#include "options.h"
#include "report.h"

namespace camsim {

/// One moment of the schedule; a motion with a length has a second step for its end.
struct Step {
    double at_s;
    Action action;
    bool motion_end;
};

/// The actions as a time-ordered list, with motion ends as steps of their own.
std::vector<Step> make_steps(const std::vector<Action> &actions);

/// Does one step (module call or cloud request), prints its line and counts it in *tally.
void perform(const Step &step, CloudControl &cloud, Tally *tally);

} // namespace camsim

#endif
