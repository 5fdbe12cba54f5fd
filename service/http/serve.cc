/// Starting and stopping the service. The stop signals are blocked in every thread and
/// taken by one thread of their own, which stops the HTTP server: it takes nothing new and
/// finishes the requests under way; the MQTT publisher stops after the server, so that
/// nothing publishes into a closed client.
#include "serve.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <thread>

#include "mqtt_publisher.h"

namespace vexo_cloud {

int serve(const ServeOptions &options) {
    // Before any thread starts, so that every thread inherits the mask.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

    std::string error;
    std::unique_ptr<MqttPublisher> mqtt;
    if (!options.mqtt_url.empty()) {
        mqtt = MqttPublisher::start(options.mqtt_url, options.mqtt_security, &error);
        if (!mqtt) {
            std::fprintf(stderr, "vexo-cloud: %s\n", error.c_str());
            return 2;
        }
    }
    // Bound first: the service tells devices the port it got.
    const std::unique_ptr<HttpServer> server = HttpServer::bind(options.http, &error);
    if (!server) {
        std::fprintf(stderr, "vexo-cloud: %s\n", error.c_str());
        return 2;
    }
    Options service_options;
    service_options.data_dir = options.data_dir;
    service_options.media_url = options.media_url;
    service_options.metadata_url = options.db_url;
    service_options.tokens = options.tokens;
    service_options.max_body = options.http.max_body;
    service_options.default_limits = options.default_limits;
    service_options.max_devices = options.max_devices;
    service_options.retention_interval = options.retention_interval;
    service_options.address_suffix = options.http.host + ":" + std::to_string(server->port());
    MqttPublisher *publisher = mqtt.get();
    service_options.publish = [publisher](const std::string &device, const std::string &payload) {
        if (publisher == nullptr) {
            std::fprintf(stderr, "vexo-cloud: no MQTT broker given: %s not sent to %s\n",
                         payload.c_str(), device.c_str());
            return;
        }
        publisher->publish(device, payload);
    };
    std::unique_ptr<Service> service;
    try {
        service = std::make_unique<Service>(service_options);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "vexo-cloud: cannot open %s: %s\n", options.data_dir.c_str(),
                     e.what());
        return 2;
    }
    const bool tls = !options.http.tls_cert.empty();
    std::printf("vexo-cloud: listening on %s://%s:%u (data %s%s%s)\n", tls ? "https" : "http",
                options.http.host.c_str(), static_cast<unsigned>(server->port()),
                options.data_dir.c_str(), mqtt ? ", mqtt " : "",
                mqtt ? options.mqtt_url.c_str() : "");
    std::fflush(stdout);

    std::atomic<bool> stopping_by_itself{false};
    std::thread stopper([&stop_signals, &server, &stopping_by_itself] {
        int signal_number = 0;
        sigwait(&stop_signals, &signal_number);
        if (!stopping_by_itself) {
            std::fprintf(stderr,
                         "vexo-cloud: stopping: no new requests, finishing those under way\n");
        }
        server->stop();
    });
    const bool served = server->run(*service);
    if (!served) {
        std::fprintf(stderr, "vexo-cloud: the server stopped with an error\n");
    }
    // Wake the stopper if the server ended by itself.
    stopping_by_itself = true;
    pthread_kill(stopper.native_handle(), SIGTERM);
    stopper.join();
    std::fprintf(stderr, "vexo-cloud: stopped\n");
    return served ? 0 : 2;
}

} // namespace vexo_cloud
