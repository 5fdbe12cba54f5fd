/// Orders: what storage/config and storage/restriction answer for each order state, which
/// orders an admin may set, and the MQTT messages the admin calls publish.
#include "service_fixture.h"

namespace service_test {
namespace {

using vexo_cloud::OrderChange;

class ServiceOrdersTest : public ServiceTest {};

TEST_F(ServiceOrdersTest, ConfigFollowsStoreModeAbortAndExpiry) {
    auto service = start_cam1();
    EXPECT_EQ(body_of(get_config(*service, "cam1")),
              Json::parse(R"({"cloudType":"local","addressPrefix":"media",
        "addressSuffix":"embedded","storeMode":"event","eventDuration":30,"sliceDuration":10,
        "silenceInterval":60,"countLeft":20})"));
    std::string error;
    OrderChange alltime;
    alltime.store_mode = "alltime";
    alltime.slice_duration = 5;
    ASSERT_TRUE(service->set_order("cam1", alltime, &error)) << error;
    ASSERT_TRUE(service->abort_order("cam1", &error)) << error;
    EXPECT_EQ(body_of(get_config(*service, "cam1"))["storeMode"], "none");
    // Any order change lifts the abort.
    ASSERT_TRUE(service->set_order("cam1", OrderChange{}, &error)) << error;
    EXPECT_EQ(body_of(get_config(*service, "cam1"))["storeMode"], "alltime");

    OrderChange expire;
    expire.expired = true;
    ASSERT_TRUE(service->set_order("cam1", expire, &error)) << error;
    const vexo_cloud::Response expired = get_config(*service, "cam1");
    EXPECT_EQ(expired.status, 410);
    EXPECT_EQ(body_of(expired), Json::parse(R"({"error":"order expired"})"));
    // The restriction still answers for an expired order.
    const vexo_cloud::Response restriction =
        service->handle(request("GET", "/v1/devices/cam1/storage/restriction", "cam1"));
    EXPECT_EQ(restriction.status, 200);
    EXPECT_EQ(body_of(restriction), Json::parse(R"({"eventDuration":30,"sliceDuration":5})"));
}

TEST_F(ServiceOrdersTest, OutOfRangeOrderIsRefusedAndChangesNothing) {
    auto service = start_cam1();
    const auto before = snapshot();
    const size_t published_before = published().size();
    auto change = [](std::optional<int32_t> OrderChange::*member, int32_t value) {
        OrderChange c;
        c.*member = value;
        return c;
    };
    OrderChange not_utf8;
    not_utf8.store_mode = std::string("ev\xff");
    const OrderChange refused[] = {
        change(&OrderChange::slice_duration, 2),
        change(&OrderChange::slice_duration, 61),
        change(&OrderChange::event_duration, 0),
        change(&OrderChange::event_duration, 1801),
        change(&OrderChange::silence_interval, -1),
        change(&OrderChange::daily_events, 100001),
        not_utf8,
    };
    std::string error;
    for (const OrderChange &c : refused) {
        EXPECT_FALSE(service->set_order("cam1", c, &error));
    }
    EXPECT_FALSE(service->set_order("../cam", OrderChange{}, &error));
    EXPECT_EQ(snapshot(), before);
    EXPECT_EQ(published().size(), published_before);

    // The edges of each range are accepted.
    OrderChange edges;
    edges.slice_duration = 60;
    edges.event_duration = 1800;
    edges.silence_interval = 0;
    edges.daily_events = 0;
    EXPECT_TRUE(service->set_order("cam1", edges, &error)) << error;
    EXPECT_EQ(body_of(get_config(*service, "cam1"))["countLeft"], 0);
}

TEST_F(ServiceOrdersTest, TriggersArePublishedInTheirProtocolFormOrRefused) {
    auto service = start_cam1();
    std::string error;
    ASSERT_TRUE(service->trigger("cam1", "record", 30, R"({"user":"u1"})", &error)) << error;
    ASSERT_TRUE(service->trigger("cam1", "pic", 99999, "[1,2]", &error)) << error;
    const auto messages = published();
    ASSERT_EQ(messages.size(), 3u); // the order that made the device, then the triggers
    EXPECT_EQ(Json::parse(messages[1].second),
              Json::parse(R"({"protocol":307,"data":{"action":"record","duration":30,
                              "ext":{"user":"u1"}}})"));
    EXPECT_EQ(Json::parse(messages[2].second),
              Json::parse(R"({"protocol":307,"data":{"action":"pic","duration":0,"ext":[1,2]}})"));

    const struct {
        const char *device, *action;
        int32_t duration;
        const char *ext;
    } refused[] = {
        {"cam1", "PIC", 10, "{}"},      {"cam1", "record", 0, "{}"}, {"cam1", "pic_v", 1801, "{}"},
        {"cam1", "record", 10, "{bad"}, {"ghost", "pic", 10, "{}"},
    };
    for (const auto &c : refused) {
        EXPECT_FALSE(service->trigger(c.device, c.action, c.duration, c.ext, &error))
            << c.device << " " << c.action << " " << c.duration << " " << c.ext;
    }
    EXPECT_EQ(published().size(), 3u);
}

TEST_F(ServiceOrdersTest, PublishRunsOutsideTheServiceLock) {
    // A publish callback that calls back into the service would deadlock under the lock.
    vexo_cloud::Options opts = options();
    vexo_cloud::Service *self = nullptr;
    std::vector<std::string> modes_seen;
    opts.publish = [&](const std::string &device, const std::string &) {
        modes_seen.push_back(self->order(device)->store_mode);
    };
    auto service = start_service(std::move(opts));
    self = service.get();
    OrderChange change;
    change.store_mode = "alltime";
    std::string error;
    ASSERT_TRUE(service->set_order("cam1", change, &error));
    ASSERT_TRUE(service->trigger("cam1", "pic", 0, "{}", &error));
    EXPECT_EQ(modes_seen, (std::vector<std::string>{"alltime", "alltime"}));
}

} // namespace
} // namespace service_test
