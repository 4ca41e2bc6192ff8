-- korvex_link.lua: Wireshark dissector for the korvex link protocol.
--
-- The link carries packets over one TCP connection with no outer framing: each packet opens with one
-- of four heads, and the receiver finds the next head by scanning. This dissector scans the same way:
--   command head  F1 F5 EA F5, u16 seq, u16 package_len, remote and local address, u16 data_len
--   data head     F1 F5 EA F9, u32 seq, local address, u16 package_len, u32 constant 1
--   ODNS head     the word 225 (E1 00 00 00), i32 length 1 to 2048
--   mobile head   the 20 bytes "MOBILEDEVICEIRRIHEAD", the packet runs to the end of what is buffered
-- Every length counts from the first byte of the head. Bytes that are no acceptable head are noise,
-- which the link passes over one byte at a time; a magic head whose length is above 1460 is noise too.
-- A command body is a package of text commands, each ending in "\n\n\n", with tab-separated words.
--
-- Load it with `wireshark -X lua_script:korvex_link.lua` or copy it into the personal Lua plugins
-- folder (Help > About Wireshark > Folders). Found heuristically on any TCP port; a fixed port can be
-- set in the preferences (Protocols > KORVEX).

local korvex = Proto("korvex", "korvex link protocol")

local HEAD_SIZE = 20
local MAX_PACKAGE_LEN = 1460     -- largest length of a command or data head, head included
local ODNS_MAX_LEN = 2048        -- largest length of an ODNS_DATAPACKHEAD packet
local MAX_WORDS, MAX_WORD_LEN, MAX_KEYS = 376, 256, 16

local CMD_MAGIC = "\241\245\234\245"     -- F1 F5 EA F5
local DATA_MAGIC = "\241\245\234\249"    -- F1 F5 EA F9
local ODNS_MAGIC = "\225\0\0\0"          -- E1 00 00 00
local MOBILE_HEAD = "MOBILEDEVICEIRRIHEAD"

local HEAD_CMD, HEAD_DATA, HEAD_ODNS, HEAD_MOBILE = 0, 1, 2, 3
local HEADS = {                          -- what the scan looks for, in the order it tests them
    { text = CMD_MAGIC, type = HEAD_CMD },
    { text = DATA_MAGIC, type = HEAD_DATA },
    { text = ODNS_MAGIC, type = HEAD_ODNS },
    { text = MOBILE_HEAD, type = HEAD_MOBILE },
}
local HEAD_NAMES = { [0] = "Command", [1] = "Data", [2] = "ODNS_DATAPACKHEAD", [3] = "Mobile" }
local MAGIC_NAMES = { [0xF5EAF5F1] = "command head", [0xF9EAF5F1] = "data head", [225] = "ODNS_DATAPACKHEAD" }
local SECTION_WORDS = { "INNER", "USER", "CMD", "PARASET" }  -- searched in this order, as the engine does

local f = {
    type = ProtoField.uint8("korvex.type", "Head type", base.DEC, HEAD_NAMES),
    magic = ProtoField.uint32("korvex.magic", "Magic", base.HEX, MAGIC_NAMES),
    seq = ProtoField.uint32("korvex.seq", "Sequence number", base.DEC),
    package_len = ProtoField.uint16("korvex.package_len", "Package length", base.DEC),
    remote_ip = ProtoField.ipv4("korvex.remote_ip", "Remote address"),
    local_ip = ProtoField.ipv4("korvex.local_ip", "Local address"),
    reserved = ProtoField.uint16("korvex.reserved", "Reserved", base.HEX),
    data_len = ProtoField.uint16("korvex.data_len", "Body length", base.DEC),
    constant = ProtoField.uint32("korvex.constant", "Constant", base.DEC),
    odns_len = ProtoField.int32("korvex.odns_len", "Length", base.DEC),
    mobile = ProtoField.string("korvex.mobile", "Mobile head"),
    body = ProtoField.bytes("korvex.body", "Body"),
    command = ProtoField.string("korvex.command", "Command text"),
    cmd = ProtoField.string("korvex.cmd", "Command"),
    section = ProtoField.string("korvex.section", "Section word"),
    key = ProtoField.string("korvex.key", "Key"),
    param = ProtoField.string("korvex.param", "Parameter"),
    skipped = ProtoField.bytes("korvex.skipped", "Passed over by the command engine"),
    noise = ProtoField.bytes("korvex.noise", "Noise"),
    stalled = ProtoField.bytes("korvex.stalled", "Behind a head that never completes"),
}
korvex.fields = f

local e = {
    noise = ProtoExpert.new("korvex.noise.expert", "Noise: the link passes over these bytes",
        expert.group.SEQUENCE, expert.severity.WARN),
    bad_size = ProtoExpert.new("korvex.bad_size", "Length above the limit: the link treats this head as noise",
        expert.group.MALFORMED, expert.severity.ERROR),
    stall = ProtoExpert.new("korvex.stall", "Head that never completes: the link stops here",
        expert.group.MALFORMED, expert.severity.ERROR),
    short = ProtoExpert.new("korvex.short", "Packet shorter than its head",
        expert.group.MALFORMED, expert.severity.WARN),
    len_mismatch = ProtoExpert.new("korvex.len_mismatch", "Body length and package length disagree",
        expert.group.PROTOCOL, expert.severity.WARN),
    incomplete = ProtoExpert.new("korvex.incomplete", "Head or packet cut by the end of the segment, not reassembled",
        expert.group.REASSEMBLE, expert.severity.NOTE),
    mobile = ProtoExpert.new("korvex.mobile.end", "A mobile packet runs to the end of what was buffered",
        expert.group.PROTOCOL, expert.severity.NOTE),
}
korvex.experts = { e.noise, e.bad_size, e.stall, e.short, e.len_mismatch, e.incomplete, e.mobile }

korvex.prefs.port = Pref.uint("TCP port", 0, "Decode this TCP port as the link, heuristic or not (0: none)")

-- ---- helpers on the raw bytes of a tvb, kept as a Lua string s (offsets are 0-based) ----

local function u16(s, o) local a, b = s:byte(o + 1, o + 2); return a + b * 256 end
local function u32(s, o) local a, b, c, d = s:byte(o + 1, o + 4); return a + b * 256 + c * 65536 + d * 16777216 end
local function i32(s, o) local v = u32(s, o); if v >= 2147483648 then v = v - 4294967296 end; return v end

-- A scanner over the bytes s: next(from) gives the offset and type of the next head at or after
-- from, or nil. A head cut by the end of the bytes (a proper prefix of a head at the very end) gives
-- its offset and the type "partial". Each head is searched for once per stretch: where it was found
-- stays known until the scan passes that place, so a run of bad heads costs no quadratic rescan.
local function scanner(s)
    local at = {}  -- per head: the 0-based offset of its next occurrence, or false when none is left
    return function(from)
        local best, best_type
        for i, h in ipairs(HEADS) do
            local a = at[i]
            if a == nil or (a and a < from) then
                local p = s:find(h.text, from + 1, true)
                a = p and p - 1 or false
                at[i] = a
            end
            if a and (not best or a < best) then best, best_type = a, h.type end
        end
        if best then return best, best_type end
        for t = math.max(from, #s - #MOBILE_HEAD + 1), #s - 1 do
            local tail = s:sub(t + 1)
            for _, h in ipairs(HEADS) do
                if #tail < #h.text and h.text:sub(1, #tail) == tail then return t, "partial" end
            end
        end
        return nil
    end
end

-- Adds a text of the tvb as a string field; an empty text has no bytes to point at.
local function add_text(tree, field, tvb, off, len, value)
    if len <= 0 then return tree:add(field, value or "") end
    if value == nil then return tree:add(field, tvb(off, len)) end
    return tree:add(field, tvb(off, len), value)
end

-- ---- the body of a command packet: a package of text commands ----

-- The words of one command text: only the tab separates words, leading white space is skipped, at
-- most 376 words of at most 256 characters each. Gives {start, stop} pairs, 1-based and inclusive.
local function split_words(text)
    local words = {}
    local i = #text:match("^[ \t\n\v\f\r]*") + 1
    while #words < MAX_WORDS do
        local tab = text:find("\t", i, true)
        local stop = tab and tab - 1 or #text
        if stop - i + 1 > MAX_WORD_LEN then break end
        words[#words + 1] = { i, stop }
        if not tab then break end
        i = tab + 1
    end
    return words
end

-- One command text at offset off of the tvb: its keys (leading upper-case words) and parameters.
local function add_command(tree, tvb, off, text, section)
    local words = split_words(text)
    local keys, nkeys = {}, 0
    for _, w in ipairs(words) do
        local word = text:sub(w[1], w[2])
        if nkeys >= MAX_KEYS or not word:match("^[A-Z][A-Z0-9_]*$") then break end
        nkeys = nkeys + 1
        keys[nkeys] = word
    end
    local name = table.concat(keys, " ")
    local shown = text:gsub("\t", " | "):gsub("[^\32-\126]", function(c) return string.format("\\x%02x", c:byte()) end)
    local ct = add_text(tree, f.command, tvb, off, #text, shown)
    add_text(ct, f.cmd, tvb, off, #text, name)
    if section then add_text(ct, f.section, tvb, off, #section) end
    for k, w in ipairs(words) do
        add_text(ct, k <= nkeys and f.key or f.param, tvb, off + w[1] - 1, w[2] - w[1] + 1)
    end
    if name == "" then name = '"' .. (#shown > 40 and shown:sub(1, 37) .. "..." or shown) .. '"' end
    return name
end

-- Cuts a package the way the command engine does: from the current position, find the start of the
-- command (the first "INNER" anywhere in the rest, else "USER", "CMD", "PARASET", else the position
-- itself), then its terminator "\n\n\n". A body without any terminator is one command.
local function add_package(tree, tvb, off, body)
    local zero = body:find("\0", 1, true)
    if zero then body = body:sub(1, zero - 1) end  -- the engine reads the text up to a zero byte
    local names, pos = {}, 1
    if not body:find("\n\n\n", 1, true) then
        if #body > 0 then names[1] = add_command(tree, tvb, off, body) end
        return names
    end
    while pos <= #body do
        local start, section
        for _, w in ipairs(SECTION_WORDS) do
            start = body:find(w, pos, true)
            if start then section = w; break end
        end
        start = start or pos
        local term = body:find("\n\n\n", start, true)
        if not term then break end
        if start > pos then add_text(tree, f.skipped, tvb, off + pos - 1, start - pos) end
        names[#names + 1] = add_command(tree, tvb, off + start - 1, body:sub(start, term - 1),
            section and body:sub(start, start + #section - 1) == section and section or nil)
        pos = term + 3
    end
    if pos <= #body then add_text(tree, f.skipped, tvb, off + pos - 1, #body - pos + 1) end
    return names
end

-- ---- the four heads ----

-- The fields of a packet of plen bytes at h (plen > 0, all of them in the tvb). Gives the info text.
local function add_packet_fields(t, tvb, s, h, plen, htype)
    t:add(f.type, htype):set_generated()
    local head_len = math.min(plen, htype == HEAD_ODNS and 8 or HEAD_SIZE)
    if htype == HEAD_MOBILE then
        t:add(f.mobile, tvb(h, HEAD_SIZE))
    else
        t:add(f.magic, tvb(h, 4), u32(s, h))
    end
    local info
    if htype == HEAD_CMD or htype == HEAD_DATA then
        -- The head is read whole even for a packet shorter than it, as the link reads the length there.
        if htype == HEAD_CMD then
            t:add(f.seq, tvb(h + 4, 2), u16(s, h + 4))
            t:add(f.package_len, tvb(h + 6, 2), plen)
            t:add_le(f.remote_ip, tvb(h + 8, 4))
            t:add_le(f.local_ip, tvb(h + 12, 4))
            t:add(f.reserved, tvb(h + 16, 2), u16(s, h + 16))
            local dl = t:add(f.data_len, tvb(h + 18, 2), u16(s, h + 18))
            info = string.format("Command seq=%d", u16(s, h + 4))
            if plen >= HEAD_SIZE and u16(s, h + 18) ~= plen - HEAD_SIZE then dl:add_proto_expert_info(e.len_mismatch) end
        else
            t:add(f.seq, tvb(h + 4, 4), u32(s, h + 4))
            t:add(f.local_ip, tvb(h + 8, 4))
            t:add(f.reserved, tvb(h + 12, 2), u16(s, h + 12))
            t:add(f.package_len, tvb(h + 14, 2), plen)
            t:add(f.constant, tvb(h + 16, 4), u32(s, h + 16))
            info = string.format("Data seq=%d len=%d", u32(s, h + 4), plen - HEAD_SIZE)
        end
        if plen < HEAD_SIZE then
            t:add_proto_expert_info(e.short, string.format(
                "Package length %d is shorter than the %d-byte head: the link goes on inside the head", plen, HEAD_SIZE))
            return info .. " (short)"
        end
    elseif htype == HEAD_ODNS then
        if plen >= 8 then t:add_le(f.odns_len, tvb(h + 4, 4)) end
        info = string.format("ODNS_DATAPACKHEAD len=%d", plen)
        if plen < 8 then
            t:add_proto_expert_info(e.short, string.format("Length %d is shorter than the 8-byte head", plen))
            return info .. " (short)"
        end
    else
        t:add_proto_expert_info(e.mobile)
        info = string.format("Mobile len=%d", plen)
    end
    local body_off, body_len = h + head_len, plen - head_len
    if body_len <= 0 then return info end
    if htype == HEAD_CMD then
        local bt = t:add(f.body, tvb(body_off, body_len))
        local names = add_package(bt, tvb, body_off, s:sub(body_off + 1, body_off + body_len))
        if #names > 0 then info = info .. " " .. table.concat(names, "; ") end
    else
        t:add(f.body, tvb(body_off, body_len))
    end
    return info
end

local function add_packet(tree, tvb, s, h, plen, htype)
    local t = tree:add(korvex, tvb(h, plen))
    local info = add_packet_fields(t, tvb, s, h, plen, htype)
    t:append_text(", " .. info)
    return info
end

-- A head at h that the link can never pass: the rest of the bytes are never delivered.
local function add_stall(tree, tvb, s, h, htype, text)
    local n = #s
    local hl = math.min(n - h, htype == HEAD_ODNS and 8 or HEAD_SIZE)
    local t = tree:add(korvex, tvb(h, n - h))
    t:append_text(", " .. HEAD_NAMES[htype] .. " head that never completes")
    t:add(f.type, htype):set_generated()
    t:add(f.magic, tvb(h, 4), u32(s, h))
    if htype == HEAD_ODNS then
        t:add_le(f.odns_len, tvb(h + 4, 4))
    else
        t:add(f.package_len, tvb(h + (htype == HEAD_CMD and 6 or 14), 2), 0)
    end
    if n - h > hl then t:add(f.stalled, tvb(h + hl, n - h - hl)) end
    t:add_proto_expert_info(e.stall, text)
end

-- ---- the dissector ----

local function dissect(tvb, pinfo, tree)
    local n = tvb:len()
    if n == 0 then return 0 end
    local s = tvb:raw(0, n)
    local infos = {}
    local noise_from, bad_heads = nil, {}

    local function flush_noise(to)
        if noise_from and to > noise_from then
            local t = tree:add(korvex, tvb(noise_from, to - noise_from))
            t:append_text(string.format(", noise of %d bytes", to - noise_from))
            t = t:add(f.noise, tvb(noise_from, to - noise_from))
            t:add_proto_expert_info(e.noise, string.format("Noise: the link passes over %d bytes", to - noise_from))
            for _, b in ipairs(bad_heads) do
                local bt = t:add(f.package_len, tvb(b[1], 2), b[2])
                bt:add_proto_expert_info(e.bad_size, string.format(
                    "Length %d above %d: the link treats this head as noise", b[2], MAX_PACKAGE_LEN))
            end
            infos[#infos + 1] = string.format("Noise %d bytes", to - noise_from)
        end
        noise_from, bad_heads = nil, {}
    end
    local function finish()
        pinfo.cols.protocol = "korvex"
        if #infos > 0 then pinfo.cols.info:set(table.concat(infos, ", ")) end
    end
    -- The bytes from at on wait for more: TCP's reassembly, or shown as they are where there is none
    -- (a truncated frame, reassembly switched off in the TCP preferences).
    local function desegment(at, more)
        flush_noise(at)
        if pinfo.can_desegment == 0 then
            tree:add(korvex, tvb(at, n - at)):append_text(", incomplete"):add_proto_expert_info(e.incomplete)
            infos[#infos + 1] = "Incomplete"
            finish()
            return n
        end
        finish()
        pinfo.desegment_offset = at
        pinfo.desegment_len = more
        return n
    end

    local find_head = scanner(s)
    local off = 0
    while off < n do
        local h, htype = find_head(off)
        if not h then
            noise_from = noise_from or off
            break
        end
        if h > off then noise_from = noise_from or off end
        local avail = n - h
        if htype == "partial" then
            return desegment(h, DESEGMENT_ONE_MORE_SEGMENT)
        elseif htype == HEAD_CMD or htype == HEAD_DATA then
            if avail < HEAD_SIZE then return desegment(h, HEAD_SIZE - avail) end
            local len_off = h + (htype == HEAD_CMD and 6 or 14)
            local plen = u16(s, len_off)
            if plen > MAX_PACKAGE_LEN then
                noise_from = noise_from or h
                bad_heads[#bad_heads + 1] = { len_off, plen }
                off = h + 1
            elseif plen == 0 then
                flush_noise(h)
                add_stall(tree, tvb, s, h, htype, "Package length 0: the head never completes, the link stops here")
                infos[#infos + 1] = HEAD_NAMES[htype] .. " head of length 0"
                off = n
            elseif avail < plen then
                return desegment(h, plen - avail)
            else
                flush_noise(h)
                infos[#infos + 1] = add_packet(tree, tvb, s, h, plen, htype)
                off = h + plen
            end
        elseif htype == HEAD_ODNS then
            if avail < 8 then return desegment(h, 8 - avail) end
            local plen = i32(s, h + 4)
            if plen < 1 or plen > ODNS_MAX_LEN then
                flush_noise(h)
                add_stall(tree, tvb, s, h, htype, string.format(
                    "Length %d outside 1 to %d: the head never completes, the link stops here", plen, ODNS_MAX_LEN))
                infos[#infos + 1] = string.format("ODNS_DATAPACKHEAD of length %d", plen)
                off = n
            elseif avail < plen then
                return desegment(h, plen - avail)
            else
                flush_noise(h)
                infos[#infos + 1] = add_packet(tree, tvb, s, h, plen, htype)
                off = h + plen
            end
        else
            flush_noise(h)
            infos[#infos + 1] = add_packet(tree, tvb, s, h, avail, htype)
            off = n
        end
    end
    flush_noise(n)
    finish()
    return n
end

function korvex.dissector(tvb, pinfo, tree)
    return dissect(tvb, pinfo, tree)
end

-- Heuristic: a command or data magic anywhere in the segment, or a segment that opens with an ODNS
-- head of a valid length or with the mobile head. A match holds for the rest of the connection.
local function heuristic(tvb, pinfo, tree)
    local n = tvb:len()
    if n < 4 then return false end
    local s = tvb:raw(0, n)
    local found = s:find(CMD_MAGIC, 1, true) or s:find(DATA_MAGIC, 1, true)
        or s:sub(1, #MOBILE_HEAD) == MOBILE_HEAD
        or (n >= 8 and s:sub(1, 4) == ODNS_MAGIC and i32(s, 4) >= 8 and i32(s, 4) <= ODNS_MAX_LEN)
    if not found then return false end
    pinfo.conversation = korvex
    dissect(tvb, pinfo, tree)
    return true
end
korvex:register_heuristic("tcp", heuristic)

local registered_port = 0
function korvex.prefs_changed()
    local tcp_port = DissectorTable.get("tcp.port")
    if registered_port ~= 0 then tcp_port:remove(registered_port, korvex) end
    registered_port = korvex.prefs.port
    if registered_port ~= 0 then tcp_port:add(registered_port, korvex) end
end
