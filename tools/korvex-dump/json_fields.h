// The fields of korvex-dump's JSON output, as its --help lists them (and the README repeats). One
// place, so that the text stays beside the code that writes the fields (output.cpp, probe_index.cpp).
#pragma once

// clang-format off
#define KXD_JSON_FIELDS_HELP \
    "JSON fields of a frame (--json, one object per line; a field is left out where it has no value):\n" \
    "  frame            the frame's number in the input, from 0\n" \
    "  offset           where its header begins in the input (bytes)\n" \
    "  valid            whether the 32-byte header is sound (lengths add up, within 3 MiB)\n" \
    "  frame_len, payload_len, ext_count, ext_size, frame_no, attr, info, flags\n" \
    "                   the header's fields uiFrameLen, uiPayloadLen, the extension's count and\n" \
    "                   size, uiFrameNo, the attribute byte, the info word and usFrameFlags\n" \
    "  held             bytes of the frame present in the input (less than frame_len when cut)\n" \
    "  encryption       none, plain or enhanced: how the frame is stored\n" \
    "  decrypt          ok, no key or failed, for encrypted frames\n" \
    "  key_frame        whether the clear payload holds a key picture (H.264 IDR, H.265 IRAP)\n" \
    "  error            why the frame is broken\n" \
    "  userdata         the user-data analysis; {\"analysed\": false, \"reason\": ...} where it did not\n" \
    "                   run (an encrypted frame without --key), else the fields below\n" \
    "  userdata.codec   h264 or h265: the patterns the analysis looked for\n" \
    "  userdata.result  the analysis's result code (0 done, -105 malformed, -106 fragment, ...),\n" \
    "                   with userdata.result_text saying it in words where it is not 0\n" \
    "  userdata.status  none (no user data), ok, fragment (part of a container split over frames,\n" \
    "                   joined in a later frame), malformed or error\n" \
    "  userdata.time    the absolute time: utc (ISO 8601) and seconds (since 1970)\n" \
    "  userdata.picture [width, height] of the picture in pixels, from the stream's last sequence\n" \
    "                   parameter set; left out until one is seen\n" \
    "  userdata.vca     the VCA targets, each with layout (old or new container), grid\n" \
    "                   [x1, y1, x2, y2] on the device's 176 x 144 grid, unscaled (the same in\n" \
    "                   ten-thousandths of the picture) or as_sent (coordinates the device sent\n" \
    "                   without an unscaled twin), pixels (the box in pixels of userdata.picture)\n" \
    "                   and words (the four words behind the box, as sent: id, class, ...)\n" \
    "  userdata.plates  the licence plates as UTF-8 text\n" \
    "  userdata.osd     the OSD records: subtype (7 text), text, len (the record's length in bytes as\n" \
    "                   sent: for a text a 32-byte head and the text) and hex (its first bytes,\n" \
    "                   where it holds no text)\n" \
    "  userdata.records decoded kinds without fields of their own (PTZ data, user-defined data,\n" \
    "                   ...): type, name, len (bytes) and hex (the first 16 bytes)\n" \
    "  userdata.blocks  blocks no decoder knows, passed on raw: type, type_hex, len and hex\n" \
    "  userdata.frame_rest_len\n" \
    "                   two-layout analysis: the bytes behind the new container\n" \
    "  userdata.callbacks\n" \
    "                   the type numbers of the blocks in the order the analysis reported them\n" \
    "                   to its callback (0 time, 3, 43 and 44 VCA targets, 7 plates, 8 OSD, 15 PTZ,\n" \
    "                   16777215 the end of the frame's user data, ...)\n" \
    "With --probe: bytes, h264_probe and h265_probe (the probes' results, 1 recognised), codec,\n" \
    "nal_units, access_units, key_frames, frame_header_at_start. With --index: items, item_size,\n" \
    "sign_type, matches and found, each with ordinal, word (the item's word: the frame's offset\n" \
    "in korvex-mkframe's indexes), stamp, mask (the sign bits) and restarts.\n"
// clang-format on
