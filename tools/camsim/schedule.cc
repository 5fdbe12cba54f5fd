// Performing the schedule's steps on the module and the cloud.
#include "schedule.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include "vexo_ipc_cloud_storage.h"

namespace camsim {

std::vector<Step> make_steps(const std::vector<Action> &actions) {
    std::vector<Step> steps;
    for (const Action &a : actions) {
        steps.push_back({a.at_s, a, false});
        if (a.kind == Action::Kind::kMotion && a.length_s > 0) {
            steps.push_back({a.at_s + a.length_s, a, true});
        }
    }
    std::stable_sort(steps.begin(), steps.end(),
                     [](const Step &x, const Step &y) { return x.at_s < y.at_s; });
    return steps;
}

void perform(const Step &step, CloudControl &cloud, Tally *tally) {
    const Action &a = step.action;
    std::string error;
    switch (a.kind) {
    case Action::Kind::kMotion:
        if (step.motion_end) {
            vexo_ipc_cloud_storage_event_stop_async();
            std::fprintf(stderr, "\n[camsim] %6.1fs motion ends\n", step.at_s);
        } else {
            const int32_t ret = vexo_ipc_cloud_storage_event_start();
            (ret == 0 ? tally->motion_started : tally->motion_refused)++;
            std::fprintf(stderr, "\n[camsim] %6.1fs motion event: %s (%d)\n", step.at_s,
                         ret == 0 ? "recording" : "refused by the module", static_cast<int>(ret));
        }
        break;
    case Action::Kind::kTrigger:
        ++tally->triggers;
        if (!cloud.trigger(a.trigger_action, a.duration_s, &error)) {
            std::fprintf(stderr, "\n[camsim] trigger refused by the cloud: %s\n", error.c_str());
        } else {
            std::fprintf(stderr, "\n[camsim] %6.1fs cloud sends remote trigger \"%s\" (%d s)\n",
                         step.at_s, a.trigger_action.c_str(), static_cast<int>(a.duration_s));
        }
        break;
    case Action::Kind::kPause:
        vexo_ipc_cloud_storage_pause();
        std::fprintf(stderr, "\n[camsim] %6.1fs pause\n", step.at_s);
        break;
    case Action::Kind::kResume:
        vexo_ipc_cloud_storage_resume();
        std::fprintf(stderr, "\n[camsim] %6.1fs resume\n", step.at_s);
        break;
    case Action::Kind::kAbort:
        if (!cloud.abort_order(&error)) {
            std::fprintf(stderr, "\n[camsim] abort refused: %s\n", error.c_str());
        } else {
            std::fprintf(stderr, "\n[camsim] %6.1fs cloud aborts the order\n", step.at_s);
        }
        break;
    case Action::Kind::kOrder: {
        vexo_cloud::OrderChange change;
        change.store_mode = a.store_mode;
        if (!cloud.set_order(change, &error)) {
            std::fprintf(stderr, "\n[camsim] order refused: %s\n", error.c_str());
        } else {
            std::fprintf(stderr, "\n[camsim] %6.1fs cloud sets store mode \"%s\"\n", step.at_s,
                         a.store_mode.c_str());
        }
        break;
    }
    }
}

} // namespace camsim
