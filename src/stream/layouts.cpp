// Record layouts that cross the library's boundary are fixed: a change here breaks every caller and
// every stored frame.
#include <stddef.h>

#include "korvex/korvex.h"

static_assert(sizeof(__S_FrameHeader) == 32, "frame header is 32 bytes");
static_assert(offsetof(__S_FrameHeader, uiFrameLen) == 4, "uiFrameLen at 4");
static_assert(offsetof(__S_FrameHeader, ucFrameAttr) == 8, "ucFrameAttr at 8");
static_assert(offsetof(__S_FrameHeader, uiFrameNo) == 12, "uiFrameNo at 12");
static_assert(offsetof(__S_FrameHeader, uiFrameInfo) == 16, "uiFrameInfo at 16");
static_assert(offsetof(__S_FrameHeader, uiPayloadLen) == 20, "uiPayloadLen at 20");
static_assert(offsetof(__S_FrameHeader, usExtCount) == 24, "usExtCount at 24");
static_assert(offsetof(__S_FrameHeader, usExtSize) == 26, "usExtSize at 26");
static_assert(offsetof(__S_FrameHeader, usFrameFlags) == 30, "usFrameFlags at 30");
