// Tests and changes of the encryption state in a frame header's flag word. Each state is a two-bit
// field in which only the value 2 means yes.
#pragma once

#include "korvex/korvex.h"

// Bits 0-1 of usFrameFlags equal 2: the payload is enciphered.
bool IsEncryptFrameHeader(const __S_FrameHeader *header);
// Bits 6-7 of usFrameFlags equal 2: the enhanced cipher was used.
bool IsEncryptEnhanced(const __S_FrameHeader *header);
// Marks the frame as clear: bits 0-1 become 0, bits 6-7 keep their value. A null header is ignored.
void ResetEncryptFrmHeader(__S_FrameHeader *header);
