// docs/vectors.json: packets, messages, lines and sources, and what becomes of them.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/support/Hex.h"

inline nlohmann::json ReadVectors() {
    std::ifstream file(ORVEX_VECTORS);
    return nlohmann::json::parse(file);
}

// The bytes of the packet of that name. Fails the test if there is none.
inline std::string ReadPacket(const std::string& name) {
    const nlohmann::json vectors = ReadVectors();
    for (const char* const list : {"packets", "sent"}) {
        for (const auto& packet : vectors[list]) {
            if (packet["name"] == name) {
                return Hex(packet["hex"]);
            }
        }
    }
    ADD_FAILURE() << "no packet " << name;
    return {};
}
