// Shared by the programs that measure the path between two sites.
#pragma once

#include <mosquitto.h>

#include <cstddef>
#include <stdexcept>
#include <string>

const char* const BROKER = "10.78.0.1";  // the hub of tests/tools/mqtt/world.sh

// A payload as the bridge publishes it.
const std::string PAYLOAD =
    R"({"level":"L","state":"told","since":1795591380.336593,"host":"10.77.2.1","pin":"1:2:in1"})";
const size_t LEVEL_AT = PAYLOAD.find('L');

inline mosquitto* ConnectToBroker() {
    mosquitto* const client = mosquitto_new(nullptr, true, nullptr);
    mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
    if (mosquitto_connect(client, BROKER, 1883, 60) != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error("no broker");
    }
    return client;
}
