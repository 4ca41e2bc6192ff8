// Hex text to bytes for the known-answer tests.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

typedef std::vector<uint8_t> Bytes;

inline Bytes hex(const std::string &text) {
    Bytes out;
    for (size_t i = 0; i + 1 < text.size(); i += 2) out.push_back((uint8_t)std::stoul(text.substr(i, 2), nullptr, 16));
    return out;
}
