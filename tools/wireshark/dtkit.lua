-- dtkit protocols for Wireshark and tshark:
--   dtkit     the collection request (UDP 9099) and the collection stream (TCP)
--   dtkitcfg  the configuration query and reply (UDP 8998 and 8999)
--
-- Load with `tshark -X lua_script:dtkit.lua ...`, or copy into the personal
-- Lua plugins folder (Help > About > Folders in Wireshark).
--
-- The stream has no fixed port: the collector names it in the request. A
-- request seen in the capture adds its TCP port to the table, so the stream
-- that follows decodes by port. A capture that starts after the request still
-- decodes: a TCP stream whose first message is an identity message (length 16,
-- type 0, two zero bytes at its end) is taken heuristically.
--
-- Every malformed message is reported as an expert-info entry that says what
-- is wrong; the dissector never lets a Lua error reach the analyser.

local dtkit = Proto("dtkit", "dtkit collection protocol")
local dtcfg = Proto("dtkitcfg", "dtkit configuration query")

local REQUEST_PORT = 9099
local CONFIG_CLIENT_PORT = 8998
local CONFIG_SERVER_PORT = 8999
local HEADER = 12
local MAX_MESSAGE = 1036
local SELFTEST_SECTION = 65535

local msg_types = { [0] = "identity", [1] = "section list", [2] = "section data" }
local req_types = { [0] = "collect 0", [1] = "collect 1", [2] = "collect 2", [3] = "self test" }
local kinds = {
    [0x81] = "int", [0x82] = "long",
    [0x83] = "string, last piece", [0x03] = "string piece, more follow",
    [0x84] = "buffer, last piece", [0x04] = "buffer piece, more follow",
}
local value_kinds = { [1] = "int", [2] = "long", [3] = "string", [4] = "buffer" }

local f = {
    req_length = ProtoField.int32("dtkit.request.length", "Request length", base.DEC),
    req_type = ProtoField.uint32("dtkit.request.type", "Request type", base.DEC, req_types),
    req_sequence = ProtoField.int32("dtkit.request.sequence", "Request sequence", base.DEC),
    req_port = ProtoField.uint32("dtkit.request.port", "Port word", base.HEX),
    req_tcp_port = ProtoField.uint16("dtkit.request.tcp_port", "Collector TCP port", base.DEC),

    length = ProtoField.uint32("dtkit.length", "Message length", base.DEC),
    type = ProtoField.uint32("dtkit.type", "Message type", base.DEC, msg_types),
    sequence = ProtoField.uint32("dtkit.sequence", "Sequence", base.DEC),

    id1 = ProtoField.uint8("dtkit.identity.id1", "Identity byte 1", base.HEX),
    id2 = ProtoField.uint8("dtkit.identity.id2", "Identity byte 2", base.HEX),
    id_pad = ProtoField.uint16("dtkit.identity.pad", "Identity padding", base.HEX),

    entry = ProtoField.none("dtkit.entry", "Section"),
    entry_index = ProtoField.uint32("dtkit.entry.index", "Section index", base.DEC),
    entry_name_length = ProtoField.uint16("dtkit.entry.name_length", "Name length", base.DEC),
    entry_name = ProtoField.string("dtkit.entry.name", "Section name"),

    record = ProtoField.none("dtkit.record", "Record"),
    kind = ProtoField.uint8("dtkit.record.kind", "Kind", base.HEX, kinds),
    kind_last = ProtoField.bool("dtkit.record.kind.last", "Last piece", 8, nil, 0x80),
    kind_value = ProtoField.uint8("dtkit.record.kind.value", "Value kind", base.DEC, value_kinds, 0x7f),
    section = ProtoField.uint32("dtkit.record.section", "Section", base.DEC),
    section_name = ProtoField.string("dtkit.record.section_name", "Section name"),
    block = ProtoField.uint32("dtkit.record.block", "Block", base.DEC),
    code = ProtoField.uint32("dtkit.record.code", "Code", base.DEC),
    int = ProtoField.uint32("dtkit.record.int", "Int value", base.DEC),
    long = ProtoField.uint64("dtkit.record.long", "Long value", base.DEC),
    piece_length = ProtoField.uint16("dtkit.record.piece_length", "Piece length", base.DEC),
    piece_string = ProtoField.string("dtkit.record.string", "String piece"),
    piece_bytes = ProtoField.bytes("dtkit.record.buffer", "Buffer piece"),

    piece_number = ProtoField.uint32("dtkit.piece.number", "Piece number in its value", base.DEC),
    piece_first = ProtoField.framenum("dtkit.piece.first_frame", "Value begins in frame", base.NONE),
    value_pieces = ProtoField.uint32("dtkit.value.pieces", "Pieces in the value", base.DEC),
    value_length = ProtoField.uint32("dtkit.value.length", "Value length", base.DEC),
    value_string = ProtoField.string("dtkit.value.string", "Joined string"),
    value_bytes = ProtoField.bytes("dtkit.value.buffer", "Joined buffer"),

    ack = ProtoField.bytes("dtkit.ack", "Acknowledgement"),
}
dtkit.fields = f

local e = {
    bad_request = ProtoExpert.new("dtkit.request.malformed", "Malformed collection request",
        expert.group.MALFORMED, expert.severity.ERROR),
    bad_header = ProtoExpert.new("dtkit.header.malformed", "Malformed message header",
        expert.group.MALFORMED, expert.severity.ERROR),
    bad_payload = ProtoExpert.new("dtkit.payload.malformed", "Malformed message payload",
        expert.group.MALFORMED, expert.severity.ERROR),
    bad_piece = ProtoExpert.new("dtkit.piece.broken", "Broken sequence of pieces",
        expert.group.SEQUENCE, expert.severity.WARN),
    lua = ProtoExpert.new("dtkit.dissector", "Dissector fault", expert.group.MALFORMED, expert.severity.ERROR),
}
dtkit.experts = { e.bad_request, e.bad_header, e.bad_payload, e.bad_piece, e.lua }

local cf = {
    query = ProtoField.string("dtkitcfg.query", "Query"),
    section = ProtoField.string("dtkitcfg.section", "Section"),
    key = ProtoField.string("dtkitcfg.key", "Key"),
    default = ProtoField.string("dtkitcfg.default", "Default"),
    reply = ProtoField.string("dtkitcfg.reply", "Value"),
    reply_length = ProtoField.uint32("dtkitcfg.reply.length", "Value length", base.DEC),
}
dtcfg.fields = cf
local ce = {
    bad_query = ProtoExpert.new("dtkitcfg.query.malformed", "Malformed configuration query",
        expert.group.MALFORMED, expert.severity.ERROR),
    lua = ProtoExpert.new("dtkitcfg.dissector", "Dissector fault", expert.group.MALFORMED, expert.severity.ERROR),
}
dtcfg.experts = { ce.bad_query, ce.lua }

-- State learnt in the first pass, by collector TCP port. Each message's
-- results are kept by frame and position, so that a second pass (the GUI,
-- tshark -2) shows the same thing without re-running the state.
local collector_ports = {}  -- TCP port -> true: the agent's stream goes to it
local streams = {}           -- "addr:port>addr:port" -> per-stream state
local cache = {}             -- "frame:tvblen:offset:record" -> what a record showed

local tcp_table = DissectorTable.get("tcp.port")

function dtkit.init()
    collector_ports = {}
    streams = {}
    cache = {}
end

local function hex(bytes)
    return (bytes:gsub(".", function(c) return string.format("%02x", c:byte()) end))
end

---------------------------------------------------------------- request

local function dissect_request(tvb, pinfo, tree)
    pinfo.cols.protocol = "DTKIT"
    local t = tree:add(dtkit, tvb(), "dtkit collection request")
    local n = tvb:len()
    if n < 16 then
        t:add_proto_expert_info(e.bad_request, "request of " .. n .. " bytes; a full request has 16")
        pinfo.cols.info = "Collection request (short, " .. n .. " bytes)"
        if n >= 4 then t:add(f.req_length, tvb(0, 4)) end
        return n
    end
    local length = tvb(0, 4):int()
    local rtype = tvb(4, 4):uint()
    local seq = tvb(8, 4):int()
    local port = tvb(14, 2):uint()
    local li = t:add(f.req_length, tvb(0, 4))
    local ti = t:add(f.req_type, tvb(4, 4))
    local si = t:add(f.req_sequence, tvb(8, 4))
    t:add(f.req_port, tvb(12, 4))
    t:add(f.req_tcp_port, tvb(14, 2))
    -- The agent reads 16 bytes and compares the length word with them.
    local read = math.min(n, 16)
    if length ~= read then
        li:add_proto_expert_info(e.bad_request, "length word " .. length .. " differs from the " .. read ..
            " bytes read; the agent ignores this request")
    end
    if rtype > 3 then
        ti:add_proto_expert_info(e.bad_request, "type " .. rtype .. " is above 3; the agent ignores this request")
    end
    if seq < 0 then
        si:add_proto_expert_info(e.bad_request, "negative sequence; the agent ignores this request")
    end
    if port ~= 0 and not collector_ports[port] then
        collector_ports[port] = true
        tcp_table:add(port, dtkit)
    end
    pinfo.cols.info = string.format("Collection request: %s, sequence %d, TCP port %d",
        req_types[rtype] or ("type " .. rtype), seq, port)
    return n
end

---------------------------------------------------------------- stream

local function stream_state(key)
    local s = streams[key]
    if not s then
        s = { names = {}, pending = nil, selftest_name = nil }
        streams[key] = s
    end
    return s
end

local function section_label(s, section)
    if section == SELFTEST_SECTION then return "self test name" end
    local name = s.names[section]
    if name then return name end
    if s.selftest_name then return s.selftest_name end
    return nil
end

-- One record; returns its size, or nil with a reason when the message cannot hold it.
local function dissect_record(tvb, pinfo, tree, at, stop, s, ckey)
    local left = stop - at
    if left < 13 then
        return nil, string.format("%d bytes left in the message; a record header needs 13", left)
    end
    local kind = tvb(at, 1):uint()
    local size
    if kind == 0x81 then size = 17
    elseif kind == 0x82 then size = 21
    elseif kind == 0x83 or kind == 0x03 or kind == 0x84 or kind == 0x04 then
        if left < 15 then
            return nil, string.format("%d bytes left in the message; a piece header needs 15", left)
        end
        size = 15 + tvb(at + 13, 2):uint()
    else
        return nil, string.format("unknown record kind 0x%02x", kind)
    end
    if size > left then
        return nil, string.format("%s record needs %d bytes but the message holds %d more",
            value_kinds[kind % 128] or "?", size, left)
    end

    local section = tvb(at + 1, 4):uint()
    local block = tvb(at + 5, 4):uint()
    local code = tvb(at + 9, 4):uint()
    local r = tree:add(f.record, tvb(at, size))
    local ki = r:add(f.kind, tvb(at, 1))
    ki:add(f.kind_last, tvb(at, 1))
    ki:add(f.kind_value, tvb(at, 1))
    r:add(f.section, tvb(at + 1, 4))
    r:add(f.block, tvb(at + 5, 4))
    r:add(f.code, tvb(at + 9, 4))

    -- What the first pass learnt about this record, replayed on later passes.
    local c = cache[ckey]
    if not c then
        c = { label = section_label(s, section) }
        cache[ckey] = c
        local vkind = kind % 128
        if vkind == 3 or vkind == 4 then
            local data = tvb(at + 15, size - 15):bytes():raw()
            local p = s.pending
            if p and (p.kind ~= vkind or p.section ~= section or p.block ~= block or p.code ~= code) then
                c.broken = string.format("this %s piece interrupts the %s value begun in frame %d",
                    value_kinds[vkind], value_kinds[p.kind], p.first)
                p = nil
            end
            if not p then
                p = { kind = vkind, section = section, block = block, code = code, first = pinfo.number, parts = {} }
            end
            p.parts[#p.parts + 1] = data
            c.number = #p.parts
            c.first = p.first
            if kind >= 0x80 then
                c.joined = table.concat(p.parts)
                c.pieces = #p.parts
                s.pending = nil
            else
                s.pending = p
            end
        else
            if s.pending then
                c.broken = string.format("this %s record interrupts the %s value begun in frame %d",
                    value_kinds[vkind], value_kinds[s.pending.kind], s.pending.first)
                s.pending = nil
            end
        end
        if section == SELFTEST_SECTION and kind == 0x83 then
            s.selftest_name = tvb(at + 15, size - 15):string()
        end
    end
    if c.label then r:add(f.section_name, c.label):set_generated() end
    if c.broken then r:add_proto_expert_info(e.bad_piece, c.broken) end

    local summary
    if kind == 0x81 then
        r:add(f.int, tvb(at + 13, 4))
        summary = "int " .. tvb(at + 13, 4):uint()
    elseif kind == 0x82 then
        r:add(f.long, tvb(at + 13, 8))
        summary = "long " .. tostring(tvb(at + 13, 8):uint64())
    else
        r:add(f.piece_length, tvb(at + 13, 2))
        local plen = size - 15
        local vkind = kind % 128
        if plen > 0 then
            if vkind == 3 then r:add(f.piece_string, tvb(at + 15, plen))
            else r:add(f.piece_bytes, tvb(at + 15, plen)) end
        elseif vkind == 3 then
            r:add(f.piece_string, "")
        end
        r:add(f.piece_number, c.number):set_generated()
        r:add(f.piece_first, c.first):set_generated()
        summary = string.format("%s piece %d (%d bytes)", value_kinds[vkind], c.number, plen)
        if c.joined then
            local v = r:add(f.value_length, #c.joined)
            v:set_generated()
            r:add(f.value_pieces, c.pieces):set_generated()
            if c.pieces > 1 and #c.joined > 0 then
                -- The joined value gets a data source of its own, so that it can be
                -- viewed and exported whole.
                local joined = ByteArray.new(hex(c.joined)):tvb("Joined value")
                if vkind == 3 then r:add(f.value_string, joined()) else r:add(f.value_bytes, joined()) end
            elseif vkind == 3 then
                r:add(f.value_string, c.joined):set_generated()
            elseif #c.joined > 0 then
                r:add(f.value_bytes, tvb(at + 15, plen)):set_generated()
            end
            summary = string.format("%s of %d bytes in %d piece%s", value_kinds[vkind], #c.joined, c.pieces,
                c.pieces == 1 and "" or "s")
        end
    end
    r:append_text(string.format(": section %d%s, block %d, code %d, %s", section,
        c.label and (" (" .. c.label .. ")") or "", block, code, summary))
    return size
end

local function dissect_identity(tvb, tree, at, stop)
    if stop - at ~= 4 then
        tree:add_proto_expert_info(e.bad_payload, string.format(
            "identity message carries %d bytes; it must carry 4", stop - at))
        return
    end
    tree:add(f.id1, tvb(at, 1))
    tree:add(f.id2, tvb(at + 1, 1))
    local pad = tree:add(f.id_pad, tvb(at + 2, 2))
    if tvb(at + 2, 2):uint() ~= 0 then
        pad:add_proto_expert_info(e.bad_payload, "identity padding is not zero")
    end
end

local function dissect_list(tvb, pinfo, tree, at, stop, s)
    local body = at
    while at < stop do
        if stop - at < 6 then
            tree:add_proto_expert_info(e.bad_payload, string.format(
                "section list entry at payload byte %d is cut: %d bytes left, 6 needed for its head", at - body, stop - at))
            return
        end
        local index = tvb(at, 4):uint()
        local nlen = tvb(at + 4, 2):uint()
        if 6 + nlen > stop - at then
            tree:add_proto_expert_info(e.bad_payload, string.format(
                "section list entry %d's name of %d bytes overruns the message", index, nlen))
            return
        end
        local t = tree:add(f.entry, tvb(at, 6 + nlen))
        t:add(f.entry_index, tvb(at, 4))
        t:add(f.entry_name_length, tvb(at + 4, 2))
        local name = ""
        if nlen > 0 then
            t:add(f.entry_name, tvb(at + 6, nlen))
            name = tvb(at + 6, nlen):string()
        else
            t:add(f.entry_name, "")
        end
        if not pinfo.visited then s.names[index] = name end
        t:append_text(string.format(" %d: %s", index, name))
        at = at + 6 + nlen
    end
end

-- One whole message from `at`, `length` bytes long.
local function dissect_message(tvb, pinfo, tree, at, length, s, skey)
    local t = tree:add(dtkit, tvb(at, length))
    t:add(f.length, tvb(at, 4))
    local ti = t:add(f.type, tvb(at + 4, 4))
    t:add(f.sequence, tvb(at + 8, 4))
    local mtype = tvb(at + 4, 4):uint()
    local stop = at + length
    local body = at + HEADER
    local what = msg_types[mtype] or ("type " .. mtype)
    t:append_text(string.format(", %s, sequence %d, %d bytes", what, tvb(at + 8, 4):uint(), length))
    if mtype == 0 then
        dissect_identity(tvb, t, body, stop)
    elseif mtype == 1 then
        dissect_list(tvb, pinfo, t, body, stop, s)
    elseif mtype == 2 then
        local n = 0
        while body < stop do
            local size, why = dissect_record(tvb, pinfo, t, body, stop, s, skey .. ":" .. n)
            if not size then
                t:add_proto_expert_info(e.bad_payload, why)
                break
            end
            body = body + size
            n = n + 1
        end
    else
        ti:add_proto_expert_info(e.bad_header, string.format("unknown message type %d", mtype))
    end
    return what
end

local function stream_key(pinfo)
    return tostring(pinfo.src) .. ":" .. pinfo.src_port .. ">" .. tostring(pinfo.dst) .. ":" .. pinfo.dst_port
end

local function dissect_stream(tvb, pinfo, tree)
    local n = tvb:len()
    pinfo.cols.protocol = "DTKIT"
    if collector_ports[pinfo.src_port] and not collector_ports[pinfo.dst_port] then
        -- The collector's side carries nothing but acknowledgements.
        local t = tree:add(dtkit, tvb(), "dtkit acknowledgement")
        t:add(f.ack, tvb())
        pinfo.cols.info = string.format("Acknowledgement (%d bytes)", n)
        return n
    end
    local s = stream_state(stream_key(pinfo))
    local at = 0
    local shown = {}
    while at < n do
        local left = n - at
        if left < HEADER then
            pinfo.desegment_offset = at
            pinfo.desegment_len = DESEGMENT_ONE_MORE_SEGMENT
            break
        end
        local length = tvb(at, 4):uint()
        if length < HEADER or length > MAX_MESSAGE then
            local t = tree:add(dtkit, tvb(at, left))
            local li = t:add(f.length, tvb(at, 4))
            t:add(f.type, tvb(at + 4, 4))
            t:add(f.sequence, tvb(at + 8, 4))
            li:add_proto_expert_info(e.bad_header, string.format(
                "message length %d is outside 12 to 1036; the rest of the stream cannot be framed", length))
            shown[#shown + 1] = "malformed header"
            at = n
            break
        end
        if length > left then
            pinfo.desegment_offset = at
            pinfo.desegment_len = length - left
            break
        end
        shown[#shown + 1] = dissect_message(tvb, pinfo, tree, at, length, s,
            pinfo.number .. ":" .. n .. ":" .. at)
        at = at + length
    end
    if #shown > 0 then pinfo.cols.info = "Collection: " .. table.concat(shown, ", ") end
    return at
end

local function guarded(fn, expert_field, proto)
    return function(tvb, pinfo, tree)
        local ok, res = pcall(fn, tvb, pinfo, tree)
        if ok then return res end
        local why = "cannot decode: " .. tostring(res)
        -- Even the report must not raise: fall back to the bare tree.
        if not pcall(function() tree:add(proto, tvb()):add_proto_expert_info(expert_field, why) end) then
            pcall(function() tree:add_proto_expert_info(expert_field, why) end)
        end
        return tvb:len()
    end
end

local guarded_stream = guarded(dissect_stream, e.lua, dtkit)
local guarded_request = guarded(dissect_request, e.lua, dtkit)

function dtkit.dissector(tvb, pinfo, tree)
    if pinfo.dst_port == REQUEST_PORT and pinfo.port_type == 3 then
        return guarded_request(tvb, pinfo, tree)
    end
    return guarded_stream(tvb, pinfo, tree)
end

-- A stream that starts with an identity message: 16 bytes, type 0, zero padding.
local function heuristic(tvb, pinfo, tree)
    if tvb:len() < 16 then return false end
    if tvb(0, 4):uint() ~= 16 or tvb(4, 4):uint() ~= 0 or tvb(14, 2):uint() ~= 0 then return false end
    if not collector_ports[pinfo.dst_port] then
        collector_ports[pinfo.dst_port] = true
        tcp_table:add(pinfo.dst_port, dtkit)
    end
    guarded_stream(tvb, pinfo, tree)
    return true
end

DissectorTable.get("udp.port"):add(REQUEST_PORT, dtkit)
dtkit:register_heuristic("tcp", heuristic)

---------------------------------------------------------------- configuration

local function dissect_config(tvb, pinfo, tree)
    pinfo.cols.protocol = "DTKITCFG"
    local n = tvb:len()
    local t = tree:add(dtcfg, tvb())
    local prefix = "=>config "
    local text = n > 0 and tvb():raw() or ""
    if text:sub(1, #prefix) == prefix then
        t:add(cf.query, tvb())
        local rest = text:sub(#prefix + 1)
        local section, key, default = rest:match("^([^ ]*) ([^ ]*) (.*)$")
        if not section then
            t:add_proto_expert_info(ce.bad_query, "query lacks the section, key or default (3 words after =>config)")
            pinfo.cols.info = "Configuration query (malformed)"
            return n
        end
        local o = #prefix
        t:add(cf.section, tvb(o, #section > 0 and #section or 0))
        o = o + #section + 1
        t:add(cf.key, tvb(o, #key))
        o = o + #key + 1
        if #default > 0 then t:add(cf.default, tvb(o, #default)) else t:add(cf.default, "") end
        pinfo.cols.info = string.format("Configuration query: [%s] %s, default %s", section, key, default)
        return n
    end
    if pinfo.dst_port == CONFIG_SERVER_PORT then
        t:add_proto_expert_info(ce.bad_query, "datagram to the server port does not begin with =>config")
        pinfo.cols.info = "Configuration query (malformed)"
        return n
    end
    -- A reply's value is its bytes up to the first zero byte.
    local stop = text:find("\0", 1, true)
    local vlen = stop and stop - 1 or n
    if vlen > 0 then t:add(cf.reply, tvb(0, vlen)) else t:add(cf.reply, "") end
    t:add(cf.reply_length, vlen):set_generated()
    pinfo.cols.info = "Configuration reply: " .. text:sub(1, vlen)
    return n
end

local guarded_config = guarded(dissect_config, ce.lua, dtcfg)
function dtcfg.dissector(tvb, pinfo, tree)
    return guarded_config(tvb, pinfo, tree)
end

local udp_table = DissectorTable.get("udp.port")
udp_table:add(CONFIG_CLIENT_PORT, dtcfg)
udp_table:add(CONFIG_SERVER_PORT, dtcfg)
