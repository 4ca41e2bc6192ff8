// The JSON object that korvex-dump --json prints for a frame; the Python module builds its user data from
// the same object.
#pragma once

#include <nlohmann/json.hpp>

#include "core/core.h"

namespace kxc {

nlohmann::ordered_json frame_json(const FrameReport &r);

}  // namespace kxc
