// Hex text to bytes for the known-answer tests.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

inline std::vector<uint8_t> hex(const std::string &text) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < text.size(); i += 2) out.push_back((uint8_t)std::stoul(text.substr(i, 2), nullptr, 16));
    return out;
}
