// A cloud transport for the kit's tests: it records every request and gives the set answer.
#ifndef VEXO_TESTS_HOST_RECORDING_CLOUD_H
#define VEXO_TESTS_HOST_RECORDING_CLOUD_H

#include <mutex>
#include <vector>

#include "cloud_transport.h"

namespace vexo_test {

class RecordingCloud : public hostkit::CloudTransport {
  public:
    hostkit::CloudResponse exchange(const hostkit::CloudRequest &request) override {
        std::lock_guard<std::mutex> lock(mu);
        requests.push_back(request);
        return answer;
    }
    std::mutex mu;
    std::vector<hostkit::CloudRequest> requests;
    hostkit::CloudResponse answer;
};

} // namespace vexo_test

#endif
