-- SPDX-License-Identifier: ISC
-- Wireshark dissector for TAV: EtherType 0x2386 and UDP port 62976, as
-- deciphered with the lab's substitute cipher (sim/cipher), and the manager
-- capture records of link type USER0 (147) that carry the plaintext beside
-- the ciphered message (README.md here). Lua 5.2 (bit32), Wireshark 4.0.
--
--   tshark -X lua_script:tools/wireshark/tav.lua -r lab.pcap -V
--
-- Tag names, kinds, op codes and result meanings come from tav_tables.lua,
-- generated from proto/ (cmake --build BUILD --target docs).

local script_dir = (debug.getinfo(1, "S").source:match("^@(.*[/\\])") or "./")
local T = dofile(script_dir .. "tav_tables.lua")

local tav = Proto("tav", "TAV discovery and management")
local rec = Proto("tav_record", "TAV manager capture record")

local band, bxor, lshift, rshift = bit32.band, bit32.bxor, bit32.lshift, bit32.rshift

-- ---- fields ----------------------------------------------------------------

local msg_names, op_names = {}, {}
for v, m in pairs(T.msg_types) do msg_names[v] = m[1] end
for v, h in pairs(T.ops) do op_names[v] = h end

local F = {
    selector = ProtoField.uint16("tav.selector", "Cipher selector", base.HEX),
    ciphertext = ProtoField.bytes("tav.ciphertext", "Ciphertext (with its check)"),
    deciphered = ProtoField.bool("tav.deciphered", "Deciphered"),
    msg_type = ProtoField.uint16("tav.msg_type", "Message type", base.HEX, msg_names),
    sequence = ProtoField.uint16("tav.sequence", "Sequence", base.HEX),
    op = ProtoField.uint16("tav.op", "Op code", base.HEX, op_names),
    target_mac = ProtoField.ether("tav.target_mac", "Target MAC"),
    target_ip = ProtoField.ipv4("tav.target_ip", "Target IPv4"),
    result = ProtoField.uint16("tav.result", "Result", base.HEX_DEC),
    result_meaning = ProtoField.string("tav.result_meaning", "Result meaning"),
    version = ProtoField.uint16("tav.version", "Version"),
    body_length = ProtoField.uint16("tav.body_length", "Body length"),
    tlv = ProtoField.none("tav.tlv", "TLV"),
    tag = ProtoField.uint16("tav.tlv.tag", "Tag"),
    name = ProtoField.string("tav.tlv.name", "Name"),
    kind = ProtoField.string("tav.tlv.kind", "Kind"),
    length = ProtoField.uint16("tav.tlv.length", "Length"),
    value = ProtoField.bytes("tav.tlv.value", "Value"),
    rest = ProtoField.bytes("tav.rest", "Bytes after the last record"),
}

local kind_ftype = {
    text = { ftypes.STRING }, u8 = { ftypes.UINT8, base.DEC }, u16 = { ftypes.UINT16, base.DEC },
    u32 = { ftypes.UINT32, base.DEC }, u32le = { ftypes.UINT32, base.DEC },
    i32 = { ftypes.INT32, base.DEC }, u64 = { ftypes.UINT64, base.DEC },
    mac = { ftypes.ETHER }, ipv4 = { ftypes.IPv4 }, bytes = { ftypes.BYTES },
}
local kind_size = { u8 = 1, u16 = 2, u32 = 4, u32le = 4, i32 = 4, u64 = 8, mac = 6, ipv4 = 4 }

-- One field per tag name (tav.tag.ssid_name ...), typed by its kind.
local by_name = {}
local function tag_field(info)
    local key = info[1] .. "/" .. info[2]
    if by_name[key] == nil then
        local abbrev = "tav.tag." .. info[1]:lower()
        for k in pairs(by_name) do
            if k:match("^[^/]+") == info[1] then abbrev = abbrev .. "_" .. info[2] end
        end
        local t = kind_ftype[info[2]] or kind_ftype.bytes
        by_name[key] = ProtoField.new(info[1], abbrev, t[1], nil, t[2], nil, info[3])
        F[key] = by_name[key]
    end
    return by_name[key]
end
for _, info in pairs(T.tags) do tag_field(info) end
for _, rows in pairs(T.overrides) do
    for _, info in pairs(rows) do tag_field(info) end
end

tav.fields = F

local R = {
    magic = ProtoField.string("tav_record.magic", "Magic"),
    version = ProtoField.uint8("tav_record.version", "Format version"),
    received = ProtoField.bool("tav_record.received", "Received by the manager", 8, nil, 0x01),
    masked = ProtoField.bool("tav_record.masked", "Secrets masked", 8, nil, 0x02),
    path = ProtoField.uint8("tav_record.path", "Path", base.DEC, { [1] = "raw Ethernet", [2] = "UDP" }),
    src_ip = ProtoField.ipv4("tav_record.src_ip", "Source IPv4"),
    src_port = ProtoField.uint16("tav_record.src_port", "Source port"),
    dst_ip = ProtoField.ipv4("tav_record.dst_ip", "Destination IPv4"),
    dst_port = ProtoField.uint16("tav_record.dst_port", "Destination port"),
    wire_length = ProtoField.uint16("tav_record.wire_length", "Wire length"),
    plain_length = ProtoField.uint16("tav_record.plain_length", "Plaintext length"),
    eth_dst = ProtoField.ether("tav_record.eth_dst", "Destination MAC"),
    eth_src = ProtoField.ether("tav_record.eth_src", "Source MAC"),
    eth_type = ProtoField.uint16("tav_record.eth_type", "EtherType", base.HEX),
    wire = ProtoField.bytes("tav_record.wire", "Wire bytes"),
}
rec.fields = R

local E = {
    cipher = ProtoExpert.new("tav.cipher", "Not deciphered: not the lab's cipher, or altered",
        expert.group.DECRYPTION, expert.severity.NOTE),
    short = ProtoExpert.new("tav.short", "Shorter than its header or body length",
        expert.group.MALFORMED, expert.severity.WARN),
    size = ProtoExpert.new("tav.size", "Value size differs from its kind's",
        expert.group.PROTOCOL, expert.severity.WARN),
}
tav.experts = E

tav.prefs.lab_cipher = Pref.bool("Decipher with the lab's cipher", true,
    "Undo the lab's substitute cipher (a device's real cipher cannot be undone here)")

-- ---- the lab's cipher --------------------------------------------------------
-- Keystream and check as sim/cipher/tav_auth.c: xorshift32 seeded by the
-- selector, CRC-16/CCITT of the plaintext seeded by it, masked likewise.

local function decipher(selector, cipher)
    local n = cipher:len() - 2
    if n < 0 then return nil end
    local state = band(selector * 0x9E3779B1, 0xFFFFFFFF)
    state = bxor(state, 0xA5C31D27)
    if state == 0 then state = 0x6D2B79F5 end
    local function next_byte()
        state = bxor(state, lshift(state, 13))
        state = bxor(state, rshift(state, 17))
        state = bxor(state, lshift(state, 5))
        return rshift(state, 24)
    end
    local crc = bxor(selector, 0x1D0F)
    local plain = ByteArray.new()
    plain:set_size(n)
    for i = 0, n - 1 do
        local p = bxor(cipher:get_index(i), next_byte())
        plain:set_index(i, p)
        crc = bxor(crc, lshift(p, 8))
        for _ = 1, 8 do
            if band(crc, 0x8000) ~= 0 then
                crc = band(bxor(lshift(crc, 1), 0x1021), 0xFFFF)
            else
                crc = band(lshift(crc, 1), 0xFFFF)
            end
        end
    end
    local hi = bxor(cipher:get_index(n), next_byte())
    local lo = bxor(cipher:get_index(n + 1), next_byte())
    if hi ~= rshift(crc, 8) or lo ~= band(crc, 0xFF) then return nil end
    return plain
end

-- ---- plaintext: header and records -----------------------------------------

local function tag_info(tag, op)
    local o = T.overrides[op]
    return (o and o[tag]) or T.tags[tag]
end

local function is_bare(tag, op)
    for _, b in ipairs(T.bare_texts) do
        if b[2] == tag and (b[1] == 0 or b[1] == op) then return true end
    end
    return false
end

local function add_value(tree, info, range, tag, op)
    local field, kind = tag_field(info), info[2]
    local len = range:len()
    local want = kind_size[kind]
    if kind == "text" then
        if len == 0 then return tree:add(field, range, ""), "" end
        local s = is_bare(tag, op) and range:string() or range:stringz()
        return tree:add(field, range, s), string.format("%q", s)
    elseif want == nil then
        local item = tree:add(field, range)
        return item, tostring(range:bytes())
    elseif len ~= want then
        local item = tree:add(F.value, range)
        item:add_proto_expert_info(E.size, string.format("%s value of %d bytes", kind, len))
        return item, tostring(range:bytes())
    end
    local v
    if kind == "u32le" then
        return tree:add_le(field, range), tostring(range:le_uint())
    elseif kind == "i32" then v = range:int()
    elseif kind == "u64" then v = range:uint64()
    elseif kind == "mac" then v = range:ether()
    elseif kind == "ipv4" then v = range:ipv4()
    else v = range:uint() end
    return tree:add(field, range), tostring(v)
end

local function op_label(op)
    local h = T.ops[op]
    return h and h:gsub("^tav_", "") or string.format("op 0x%04X", op)
end

-- Decodes a plaintext; returns a short summary for the info column.
local function dissect_plain(buf, pinfo, tree)
    if buf:len() < 2 then
        tree:add_proto_expert_info(E.short)
        return "short message"
    end
    local mt = buf(0, 2):uint()
    local m = T.msg_types[mt]
    local ipv4 = m ~= nil and m[2]
    local hlen = ipv4 and 22 or 18
    tree:add(F.msg_type, buf(0, 2))
    if buf:len() < hlen then
        tree:add_proto_expert_info(E.short)
        return "short message"
    end
    local op = buf(4, 2):uint()
    tree:add(F.sequence, buf(2, 2))
    tree:add(F.op, buf(4, 2))
    tree:add(F.target_mac, buf(6, 6))
    local o = 12
    if ipv4 then
        tree:add(F.target_ip, buf(12, 4))
        o = 16
    end
    local result = buf(o, 2):uint()
    local meaning = (T.op_results[op] or {})[result] or T.results[result]
    tree:add(F.result, buf(o, 2))
    local is_reply = m ~= nil and m[1] == "reply"
    if is_reply and meaning then tree:add(F.result_meaning, buf(o, 2), meaning):set_generated() end
    tree:add(F.version, buf(o + 2, 2))
    local blen = buf(o + 4, 2):uint()
    local blen_item = tree:add(F.body_length, buf(o + 4, 2))
    local avail = buf:len() - hlen
    if blen > avail then
        blen_item:add_proto_expert_info(E.short)
        blen = avail
    end
    local at, stop = hlen, hlen + blen
    while stop - at >= 4 do
        local tag, len = buf(at, 2):uint(), buf(at + 2, 2):uint()
        if at + 4 + len > stop then break end
        local info = tag_info(tag, op) or { string.format("UNKNOWN_%d", tag), "bytes", "not a known tag" }
        local sub = tree:add(F.tlv, buf(at, 4 + len))
        sub:add(F.tag, buf(at, 2))
        sub:add(F.name, buf(at, 2), info[1]):set_generated()
        sub:add(F.kind, buf(at, 2), info[2]):set_generated()
        sub:add(F.length, buf(at + 2, 2))
        local shown = ""
        if len > 0 then
            local _, s = add_value(sub, info, buf(at + 4, len), tag, op)
            shown = ": " .. s
        end
        sub:set_text(string.format("%s (%d, %s)%s", info[1], tag, info[2], shown))
        at = at + 4 + len
    end
    if at < stop then tree:add(F.rest, buf(at, stop - at)) end
    local what = m and m[1] or string.format("type 0x%04X", mt)
    local s = string.format("%s %s, seq 0x%04X", op_label(op), what, buf(2, 2):uint())
    if is_reply then
        s = s .. string.format(", result %d%s", result, meaning and (" (" .. meaning .. ")") or "")
    end
    return s
end

-- ---- the wire: selector and ciphertext ---------------------------------------

function tav.dissector(tvb, pinfo, tree)
    if tvb:len() < 4 then return 0 end
    pinfo.cols.protocol = "TAV"
    local t = tree:add(tav, tvb())
    local selector = tvb(0, 2):uint()
    t:add(F.selector, tvb(0, 2))
    t:add(F.ciphertext, tvb(2))
    local plain = tav.prefs.lab_cipher and decipher(selector, tvb:bytes(2)) or nil
    t:add(F.deciphered, tvb(0, 2), plain ~= nil):set_generated()
    if plain == nil then
        t:add_proto_expert_info(E.cipher)
        pinfo.cols.info = "TAV, not deciphered"
        return tvb:len()
    end
    local buf = plain:tvb("Deciphered TAV")
    pinfo.cols.info = "TAV " .. dissect_plain(buf, pinfo, t)
    return tvb:len()
end

DissectorTable.get("ethertype"):add(T.ethertype, tav)
DissectorTable.get("udp.port"):add(T.udp_port, tav)

-- ---- manager capture records (link type USER0) --------------------------------
-- "TAVP", version 1, flags, path, 0, source and destination IPv4 address and
-- port, wire length W, plaintext length P (all big-endian), W wire bytes, P
-- plaintext bytes. See README.md.

local HEAD = 24

function rec.dissector(tvb, pinfo, tree)
    if tvb:len() < HEAD or tvb(0, 4):string() ~= "TAVP" or tvb(4, 1):uint() ~= 1 then return 0 end
    local wlen, plen = tvb(20, 2):uint(), tvb(22, 2):uint()
    if tvb:len() < HEAD + wlen + plen then return 0 end
    pinfo.cols.protocol = "TAV"
    local r = tree:add(rec, tvb(0, HEAD + wlen + plen))
    r:add(R.magic, tvb(0, 4))
    r:add(R.version, tvb(4, 1))
    r:add(R.received, tvb(5, 1))
    r:add(R.masked, tvb(5, 1))
    local path = tvb(6, 1):uint()
    r:add(R.path, tvb(6, 1))
    r:add(R.wire_length, tvb(20, 2))
    r:add(R.plain_length, tvb(22, 2))
    local wire = tvb(HEAD, wlen)
    r:add(R.wire, wire)
    local dir = band(tvb(5, 1):uint(), 1) == 1 and "received" or "sent"
    local payload = wire
    if path == 2 then
        r:add(R.src_ip, tvb(8, 4))
        r:add(R.src_port, tvb(12, 2))
        r:add(R.dst_ip, tvb(14, 4))
        r:add(R.dst_port, tvb(18, 2))
        pinfo.cols.src = tostring(tvb(8, 4):ipv4())
        pinfo.cols.dst = tostring(tvb(14, 4):ipv4())
    elseif path == 1 and wlen >= 14 then
        r:add(R.eth_dst, tvb(HEAD, 6))
        r:add(R.eth_src, tvb(HEAD + 6, 6))
        r:add(R.eth_type, tvb(HEAD + 12, 2))
        pinfo.cols.src = tostring(tvb(HEAD + 6, 6):ether())
        pinfo.cols.dst = tostring(tvb(HEAD, 6):ether())
        payload = tvb(HEAD + 14, wlen - 14)
    end
    local t = tree:add(tav, tvb(HEAD, wlen + plen))
    if payload:len() >= 2 then
        t:add(F.selector, payload:range(0, 2))
        t:add(F.ciphertext, payload:range(2))
    end
    t:add(F.deciphered, tvb(22, 2), plen > 0):set_generated()
    if plen == 0 then
        pinfo.cols.info = "TAV " .. dir .. ", not deciphered"
        return tvb:len()
    end
    local buf = tvb(HEAD + wlen, plen):tvb()
    pinfo.cols.info = "TAV " .. dir .. ": " .. dissect_plain(buf, pinfo, t)
    return tvb:len()
end

DissectorTable.get("wtap_encap"):add(wtap_encaps.USER0, rec)
