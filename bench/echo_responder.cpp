// The floor that tarvik's round trip is compared with: a minimal responder on
// the same broker that answers every request with a QoS 2 retained publish,
// doing no other work.
//
//   echo_responder PORT REQUEST_TOPIC REPLY_TOPIC
#include <mosquitto.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

struct Route {
    std::string request;
    std::string reply;
};

const char kReply[] = "{\n    \"echo\": true\n}\n";

void onConnect(mosquitto* mosq, void* userdata, int rc)
{
    if (rc != 0) {
        std::fprintf(stderr, "echo_responder: connection refused (%d)\n", rc);
        std::exit(1);
    }
    auto* route = static_cast<Route*>(userdata);
    mosquitto_subscribe(mosq, nullptr, route->request.c_str(), 0);
}

void onSubscribe(mosquitto*, void*, int, int, const int*)
{
    // The bench waits for this line before it sends requests.
    std::printf("ready\n");
    std::fflush(stdout);
}

void onMessage(mosquitto* mosq, void* userdata, const mosquitto_message*)
{
    auto* route = static_cast<Route*>(userdata);
    mosquitto_publish(mosq, nullptr, route->reply.c_str(), int(sizeof(kReply) - 1), kReply, 2, true);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s PORT REQUEST_TOPIC REPLY_TOPIC\n", argv[0]);
        return 2;
    }
    Route route{argv[2], argv[3]};

    mosquitto_lib_init();
    mosquitto* mosq = mosquitto_new(nullptr, true, &route);
    mosquitto_int_option(mosq, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_callback_set(mosq, onConnect);
    mosquitto_subscribe_callback_set(mosq, onSubscribe);
    mosquitto_message_callback_set(mosq, onMessage);
    if (mosquitto_connect(mosq, "127.0.0.1", std::atoi(argv[1]), 60) != MOSQ_ERR_SUCCESS) {
        std::fprintf(stderr, "echo_responder: cannot connect\n");
        return 1;
    }
    int rc = mosquitto_loop_forever(mosq, -1, 1);
    mosquitto_destroy(mosq);
    mosquitto_lib_cleanup();
    return rc == MOSQ_ERR_SUCCESS ? 0 : 1;
}
