// The JSON object that korvex-dump --json prints for a frame; the Python module builds its user data from
// the same object.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "core/core.h"

namespace kxc {

nlohmann::ordered_json frame_json(const FrameReport &r);

// A device time as ISO 8601 UTC text, and a block type as 0xHHHH: the text report writes them too.
std::string time_text(const __S_AbsoluteTime &t);
std::string hex4(int type);

}  // namespace kxc
