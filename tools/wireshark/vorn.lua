-- Wireshark dissector for the two streams that the feed reads:
--
--   MDQP over TCP   the snapshot: dictionary, values and books of every instrument
--   decode buffers  one change of one instrument per UDP datagram, numbered per instrument
--
-- Everything is little-endian and packed. See README.md beside this file for installation and use.
-- It is one file because that is what one copies into a plugin folder.
--
-- Two things need memory across packets: the dictionary (number to identifier, price tick and codec
-- price) and the change numbers. Both are gathered on the first pass over the capture, in its
-- order; later passes, in any order, only look up.

local vorn = Proto("vorn", "Vorn level-2 feed")
local mdqp = Proto("vorn_mdqp", "Vorn snapshot (MDQP)")
local mirp = Proto("vorn_mirp", "Vorn decode buffer")

-- Preferences ------------------------------------------------------------------------------------

vorn.prefs.mdqp_ports = Pref.range("MDQP TCP ports", "33022,22000",
    "Ports of the exchange's snapshot servers (md2ps_snap_port, md4ps_snap_port)", 65535)
vorn.prefs.mirp_ports = Pref.range("Decode buffer UDP ports", "21000,21101,25000,25101",
    "Ports of the multicast lines", 65535)
vorn.prefs.shfe_topics = Pref.string("Topics of SHFE", "1000,1101",
    "Topic ids of the SHFE feeds (shfe2ps_topic_id, shfe4ps_topic_id)")
vorn.prefs.ine_topics = Pref.string("Topics of INE", "5000,5101",
    "Topic ids of the INE feeds (ine2ps_topic_id, ine4ps_topic_id)")
vorn.prefs.heuristics = Pref.bool("Try other ports", false,
    "Also look at TCP and UDP ports that are not listed above")

-- Fields -----------------------------------------------------------------------------------------

local kFlags = { [0x01] = "last message of the snapshot", [0x11] = "more messages follow" }
local kMessageTypes = { [0x32] = "snapshot" }
local kMdqpFields = {
    [0x0031] = "not read by the feed", [0x0032] = "not read by the feed",
    [0x0101] = "Instrument", [0x0102] = "Values", [0x0103] = "Book level",
    [0x0104] = "Order totals", [0x1001] = "Snapshot start",
    [0x1002] = "not read by the feed", [0x1003] = "not read by the feed",
    [0x1004] = "Packet number",
}
local kMirpFields = {
    [0x1001] = "Book change", [0x1002] = "Deal", [0x1011] = "Highest price",
    [0x1012] = "Lowest price", [0x1019] = "Bid totals", [0x101A] = "Ask totals",
}
local kSides = { [0] = "bid", [1] = "ask" }
local kEvents = { [1] = "insert", [2] = "overwrite", [3] = "delete" }
local kDirections = { ["0"] = "buy", ["1"] = "sell" }

local f = {
    -- of both streams
    topic = ProtoField.uint16("vorn.topic", "Topic"),
    exchange = ProtoField.string("vorn.exchange", "Exchange"),
    inst_no = ProtoField.int32("vorn.inst_no", "Instrument number"),
    inst_id = ProtoField.string("vorn.inst_id", "Instrument"),
    change_no = ProtoField.uint32("vorn.change_no", "Change number"),
    packet_no = ProtoField.int32("vorn.packet_no", "Packet number"),
    field_id = ProtoField.uint16("vorn.field_id", "Field id", base.HEX),
    field_size = ProtoField.uint16("vorn.field_size", "Field size (bytes)"),
    field_data = ProtoField.bytes("vorn.field_data", "Data"),
    reserved = ProtoField.bytes("vorn.reserved", "Reserved"),
    price = ProtoField.double("vorn.price", "Price (currency)"),
    -- message header of the snapshot
    flag = ProtoField.uint8("vorn.mdqp.flag", "Flag", base.HEX, kFlags),
    type_id = ProtoField.uint8("vorn.mdqp.type_id", "Message type", base.HEX, kMessageTypes),
    length = ProtoField.uint16("vorn.mdqp.length", "Body length (bytes)"),
    request_id = ProtoField.int32("vorn.mdqp.request_id", "Request id"),
    snap_no = ProtoField.int32("vorn.snap_no", "Snapshot number"),
    no_message = ProtoField.bytes("vorn.mdqp.no_message", "Not the begin of a message"),
    -- header of a decode buffer
    millisec = ProtoField.uint16("vorn.time_ms", "Update time, milliseconds (ms)"),
    time = ProtoField.uint32("vorn.time", "Update time (as delivered)"),
    header_field = ProtoField.uint16("vorn.mirp.field_id", "Kind of buffer"),
    -- what the dissector knows from other packets
    missing = ProtoField.uint32("vorn.missing", "Missing changes"),
    duplicate_of = ProtoField.framenum("vorn.duplicate_of", "Same change in frame", base.NONE,
        frametype and frametype.RETRANS_PREV or nil),
    amount_change = ProtoField.double("vorn.amount_change", "Amount change (currency)"),
}

-- Fields of the dictionary and the values, in the order of the wire: key, width, kind. Kinds: i32,
-- f64, price (f64 that may say "no value"), char, text.
local function wire(name, width, kind, label, value_strings)
    local abbr = "vorn." .. name
    local field
    if kind == "i32" then
        field = ProtoField.int32(abbr, label)
    elseif kind == "f64" or kind == "price" then
        field = ProtoField.double(abbr, label)
    else
        field = ProtoField.string(abbr, label)
    end
    f[name] = f[name] or field
    return { name = name, width = width, kind = kind, label = label, values = value_strings }
end

local kInstrument = {
    { name = "inst_id", width = 31, kind = "text" },
    wire("underlying_inst_id", 31, "text", "Underlying instrument"),
    wire("product_class", 1, "char", "Product class"),
    wire("strike_price", 8, "price", "Strike price (currency)"),
    wire("options_type", 1, "char", "Type of option"),
    wire("volume_multiple", 4, "i32", "Volume multiple (units per lot)"),
    wire("underlying_multiple", 8, "f64", "Underlying multiple"),
    wire("is_trading", 4, "i32", "Is trading"),
    wire("currency_id", 4, "text", "Currency"),
    wire("price_tick", 8, "f64", "Price tick (currency)"),
    wire("codec_price", 8, "price", "Codec price (currency)"),
    { name = "inst_no", width = 4, kind = "i32" },
}
local kValues = {
    { name = "inst_no", width = 4, kind = "i32" },
    wire("last_price", 8, "price", "Last price (currency)"),
    wire("volume", 4, "i32", "Volume (lots)"),
    wire("turnover", 8, "price", "Turnover (currency)"),
    wire("open_interest", 8, "price", "Open interest (lots)"),
    wire("highest_price", 8, "price", "Highest price (currency)"),
    wire("lowest_price", 8, "price", "Lowest price (currency)"),
    wire("open_price", 8, "price", "Open price (currency)"),
    wire("close_price", 8, "price", "Close price (currency)"),
    wire("settlement_price", 8, "price", "Settlement price (currency)"),
    wire("upper_limit_price", 8, "price", "Upper limit price (currency)"),
    wire("lower_limit_price", 8, "price", "Lower limit price (currency)"),
    wire("pre_settlement_price", 8, "price", "Previous settlement price (currency)"),
    wire("pre_close_price", 8, "price", "Previous close price (currency)"),
    wire("pre_open_interest", 8, "price", "Previous open interest (lots)"),
    wire("pre_delta", 8, "price", "Previous delta"),
    wire("curr_delta", 8, "price", "Delta"),
    wire("action_day", 9, "text", "Day"),
    wire("update_time", 9, "text", "Update time"),
    wire("update_mill_sec", 4, "i32", "Update time, milliseconds (ms)"),
    { name = "change_no", width = 4, kind = "u32" },
}
local kBookLevel = {
    { name = "inst_no", width = 4, kind = "i32" },
    wire("direction", 1, "char", "Direction", kDirections),
    { name = "price", width = 8, kind = "price" },
    { name = "volume", width = 4, kind = "i32" },
}
local kOrderTotals = {
    { name = "inst_no", width = 4, kind = "i32" },
    wire("bid_totvol", 4, "i32", "Bid volume, total (lots)"),
    wire("bid_totamount", 8, "price", "Bid amount, total (currency)"),
    wire("ask_totvol", 4, "i32", "Ask volume, total (lots)"),
    wire("ask_totamount", 8, "price", "Ask amount, total (currency)"),
}

-- Fields of a decode buffer's changes.
f.side = ProtoField.uint8("vorn.side", "Side", base.DEC, kSides)
f.level = ProtoField.uint8("vorn.level", "Level (1 is best)")
f.event = ProtoField.uint8("vorn.event", "Event", base.DEC, kEvents)
f.price_offset = ProtoField.int32("vorn.price_offset", "Price offset (ticks from the codec price)")
f.level_volume = ProtoField.uint32("vorn.level_volume", "Volume of the level (lots)")
f.volume_change = ProtoField.int32("vorn.volume_change", "Volume change (lots)")
f.amount_offset = ProtoField.int64("vorn.amount_offset", "Amount offset (lots times ticks)")
f.open_interest_change = ProtoField.int64("vorn.open_interest_change",
    "Open interest change (lots)")

vorn.fields = f

local x = {
    gap = ProtoExpert.new("vorn.gap", "Change numbers are missing", expert.group.SEQUENCE,
        expert.severity.WARN),
    duplicate = ProtoExpert.new("vorn.duplicate",
        "Change that has been seen before: the feed ignores it", expert.group.SEQUENCE,
        expert.severity.NOTE),
    late = ProtoExpert.new("vorn.late", "Change that was missing", expert.group.SEQUENCE,
        expert.severity.NOTE),
    line_gap = ProtoExpert.new("vorn.line_gap", "Changes are missing on this line only",
        expert.group.SEQUENCE, expert.severity.NOTE),
    unknown_field = ProtoExpert.new("vorn.unknown_field", "Unknown field",
        expert.group.UNDECODED, expert.severity.WARN),
    truncated = ProtoExpert.new("vorn.truncated", "Field is cut off", expert.group.PROTOCOL,
        expert.severity.WARN),
    not_a_message = ProtoExpert.new("vorn.not_a_message",
        "Not the begin of a message: the feed drops the segment", expert.group.SEQUENCE,
        expert.severity.NOTE),
    not_incremental = ProtoExpert.new("vorn.not_incremental",
        "No incremental buffer: the feed applies nothing of it", expert.group.PROTOCOL,
        expert.severity.NOTE),
    bad_value = ProtoExpert.new("vorn.bad_value", "Value that the feed does not know",
        expert.group.PROTOCOL, expert.severity.WARN),
    other_topic = ProtoExpert.new("vorn.other_topic", "Topic of no feed", expert.group.PROTOCOL,
        expert.severity.NOTE),
}
vorn.experts = x

-- State ------------------------------------------------------------------------------------------

local dictionary      -- by exchange, then number: { id, tick, codec, multiple }
local stream_topics   -- by connection and direction: list of { frame, topic }
local sequences       -- by exchange and number: { last, lines, changes and frames (rings) }
local frame_gap       -- frame -> first missing change
local frame_duplicate -- frame -> frame that had the change first
local frame_late      -- frame -> true
local frame_line_gap  -- frame -> first change missing on its line
local exchange_of_topic

-- A change is known again among so many of its instrument: the lines are never further apart.
local kRemembered = 256

local function read_topics()
    exchange_of_topic = {}
    for _, exchange in ipairs({ "INE", "SHFE" }) do -- SHFE last: it wins, as in the feed
        local text = exchange == "SHFE" and vorn.prefs.shfe_topics or vorn.prefs.ine_topics
        for number in tostring(text):gmatch("%d+") do
            exchange_of_topic[tonumber(number)] = exchange
        end
    end
end

function vorn.init()
    dictionary, stream_topics, sequences = {}, {}, {}
    frame_gap, frame_duplicate, frame_late, frame_line_gap = {}, {}, {}, {}
    read_topics()
end

local function exchange_name(topic)
    return exchange_of_topic[topic] or string.format("topic %d", topic)
end

local function instrument(exchange, number)
    local numbers = dictionary[exchange]
    return numbers and numbers[number]
end

-- "cu2603 (17)", or "17" as long as the capture has not named it.
local function instrument_text(exchange, number)
    local known = instrument(exchange, number)
    return known and string.format("%s (%d)", known.id, number) or string.format("%d", number)
end

-- Parts of both ----------------------------------------------------------------------------------

local kNoValue = 1.7976931348623157e308

local function text_of(range)
    local text = range:string()
    local zero = text:find("\0", 1, true)
    return zero and text:sub(1, zero - 1) or text
end

-- Adds one value of a wire table; returns it as a number or string.
local function add_value(tree, part, range)
    local field = f[part.name]
    if part.kind == "i32" then
        tree:add_le(field, range)
        return range:le_int()
    elseif part.kind == "u32" then
        tree:add_le(field, range)
        return range:le_uint()
    elseif part.kind == "f64" or part.kind == "price" then
        local item = tree:add_le(field, range)
        local value = range:le_float()
        if value == kNoValue then
            item:set_text((part.label or "Price (currency)") .. ": no value")
        end
        return value
    end
    local text = text_of(range)
    local item = tree:add(field, range, text)
    if part.values and part.values[text] then
        item:append_text(" (" .. part.values[text] .. ")")
    end
    return text
end

local function size_of(parts)
    local size = 0
    for _, part in ipairs(parts) do
        size = size + part.width
    end
    return size
end

-- Adds the parts one after another; returns their values by name.
local function add_parts(tree, parts, range)
    local values, at = {}, 0
    for _, part in ipairs(parts) do
        values[part.name] = add_value(tree, part, range(at, part.width))
        at = at + part.width
    end
    return values
end

local function add_known(tree, exchange, number)
    local known = instrument(exchange, number)
    if known then
        tree:add(f.inst_id, known.id):set_generated()
    end
    return known
end

-- Snapshot ---------------------------------------------------------------------------------------

-- One direction of a connection.
local function stream_key(pinfo)
    return string.format("%s:%d>%s:%d", tostring(pinfo.src), pinfo.src_port, tostring(pinfo.dst),
        pinfo.dst_port)
end

local function begins_message(tvb, offset)
    if tvb:len() - offset < 2 then
        return false
    end
    local flag = tvb(offset, 1):uint()
    return (flag == 0x01 or flag == 0x11) and tvb(offset + 1, 1):uint() == 0x32
end

local function set_stream_topic(pinfo, topic)
    if pinfo.visited then
        return
    end
    local stream = stream_key(pinfo)
    local topics = stream_topics[stream] or {}
    if #topics == 0 or topics[#topics].topic ~= topic then
        topics[#topics + 1] = { frame = pinfo.number, topic = topic }
    end
    stream_topics[stream] = topics
end

-- The feed is named once per round, in its first message.
local function stream_topic(pinfo)
    local topic
    for _, entry in ipairs(stream_topics[stream_key(pinfo)] or {}) do
        if entry.frame <= pinfo.number then
            topic = entry.topic
        end
    end
    return topic
end

local mdqp_fields = {}

mdqp_fields[0x0101] = { parts = kInstrument, size = size_of(kInstrument),
    handle = function(values, context)
        context.instruments = context.instruments + 1
        local codec = values.codec_price == kNoValue and 0 or values.codec_price
        local numbers = dictionary[context.exchange] or {}
        dictionary[context.exchange] = numbers
        numbers[values.inst_no] = { id = values.inst_id, tick = values.price_tick, codec = codec,
            multiple = values.volume_multiple }
        context.item:append_text(": " .. instrument_text(context.exchange, values.inst_no))
    end }
mdqp_fields[0x0102] = { parts = kValues, size = size_of(kValues),
    handle = function(values, context)
        add_known(context.item, context.exchange, values.inst_no)
        local text = instrument_text(context.exchange, values.inst_no)
        context.item:append_text(string.format(": %s, change %d", text, values.change_no))
        context.changes[#context.changes + 1] = string.format("%s change %d", text,
            values.change_no)
    end }
mdqp_fields[0x0103] = { parts = kBookLevel, size = size_of(kBookLevel),
    handle = function(values, context)
        add_known(context.item, context.exchange, values.inst_no)
        context.levels = context.levels + 1
        local price = values.price == kNoValue and "no value" or
            string.format("%.14g", values.price)
        context.item:append_text(string.format(": %s, %s %d at %s",
            instrument_text(context.exchange, values.inst_no),
            kDirections[values.direction] or "?", values.volume, price))
        if not kDirections[values.direction] then
            context.item:add_proto_expert_info(x.bad_value,
                "Direction is neither '0' (buy) nor '1' (sell): the feed ignores the level")
        end
    end }
mdqp_fields[0x0104] = { parts = kOrderTotals, size = size_of(kOrderTotals),
    handle = function(values, context)
        add_known(context.item, context.exchange, values.inst_no)
        context.item:append_text(": " .. instrument_text(context.exchange, values.inst_no))
    end }
mdqp_fields[0x1004] = { parts = { { name = "packet_no", width = 4, kind = "i32" } }, size = 4,
    handle = function(values, context)
        context.item:append_text(string.format(": %d", values.packet_no))
    end }

local function dissect_snap(item, range, pinfo, context)
    item:add_le(f.topic, range(0, 2))
    item:add_le(f.snap_no, range(2, 4))
    local topic = range(0, 2):le_uint()
    set_stream_topic(pinfo, topic)
    context.exchange = exchange_name(topic)
    context.snap_no = range(2, 4):le_int()
    item:add(f.exchange, context.exchange):set_generated()
    item:append_text(string.format(": %s, number %d", context.exchange, context.snap_no))
    if not exchange_of_topic[topic] then
        item:add_proto_expert_info(x.other_topic)
    end
end

-- The fields of a body. The feed does not decode a field that begins in the last 8 bytes.
local function dissect_mdqp_fields(tvb, pinfo, tree, context)
    local at, size = 8, tvb:len()
    while at < size do
        if size - at < 4 then
            tree:add(f.field_data, tvb(at, size - at)):add_proto_expert_info(x.truncated)
            return
        end
        local id, data_size = tvb(at, 2):le_uint(), tvb(at + 2, 2):le_uint()
        local there = math.min(data_size, size - at - 4)
        local item = tree:add(vorn, tvb(at, 4 + there), kMdqpFields[id] or "Unknown field")
        item:add_le(f.field_id, tvb(at, 2))
        item:add_le(f.field_size, tvb(at + 2, 2))
        local known = mdqp_fields[id]
        local wanted = id == 0x1001 and 6 or (known and known.size) or 0
        context.item = item
        if there < data_size or there < wanted then
            item:add_proto_expert_info(x.truncated, string.format(
                "Field of %d bytes has %d; the feed reads on into what follows",
                math.max(wanted, data_size), there))
        end
        if there >= wanted and there > 0 then
            local range = tvb(at + 4, there)
            if id == 0x1001 then
                dissect_snap(item, range, pinfo, context)
            elseif known then
                known.handle(add_parts(item, known.parts, range), context)
            else
                item:add(f.field_data, range)
            end
            if wanted > 0 and there > wanted then
                item:add(f.field_data, tvb(at + 4 + wanted, there - wanted))
            end
        elseif there > 0 then
            item:add(f.field_data, tvb(at + 4, there))
        end
        if not kMdqpFields[id] then
            item:append_text(string.format(" 0x%04x", id))
            item:add_proto_expert_info(x.unknown_field)
        end
        if at + 8 >= size then
            item:append_text(" (in the last 8 bytes: not read by the feed)")
        end
        at = at + 4 + data_size
    end
end

local function mdqp_info(context, flag)
    local parts = {}
    if context.snap_no then
        parts[1] = string.format("snapshot %d", context.snap_no)
    end
    if context.instruments > 0 then
        parts[#parts + 1] = string.format("%d instruments", context.instruments)
    end
    for i = 1, math.min(#context.changes, 3) do
        parts[#parts + 1] = context.changes[i]
    end
    if #context.changes > 3 then
        parts[#parts + 1] = string.format("%d more", #context.changes - 3)
    end
    if context.levels > 0 then
        parts[#parts + 1] = string.format("%d levels", context.levels)
    end
    if flag == 0x01 then
        parts[#parts + 1] = "end of snapshot"
    end
    return context.exchange .. " " ..
        (#parts > 0 and table.concat(parts, ", ") or "snapshot message")
end

local function dissect_mdqp_message(tvb, pinfo, tree)
    pinfo.cols.protocol = "MDQP"
    local top = tree:add(vorn, tvb(), "Snapshot message (MDQP)")
    if tvb:len() < 8 or not begins_message(tvb, 0) then
        top:add(f.no_message, tvb()):add_proto_expert_info(x.not_a_message)
        return "not the begin of a message"
    end
    top:add_le(f.flag, tvb(0, 1))
    top:add_le(f.type_id, tvb(1, 1))
    top:add_le(f.length, tvb(2, 2))
    top:add_le(f.request_id, tvb(4, 4))
    local topic = stream_topic(pinfo)
    local context = { exchange = topic and exchange_name(topic) or "?", instruments = 0, levels = 0,
        changes = {} }
    dissect_mdqp_fields(tvb, pinfo, top, context)
    local info = mdqp_info(context, tvb(0, 1):uint())
    top:append_text(", " .. info)
    return info
end

-- `length` counts the body; the header adds 8. What does not begin as a message is taken as a
-- whole: without a begin there is no length to go by.
local function mdqp_length(tvb, _, offset)
    local left = tvb:len() - offset
    if left < 4 or not begins_message(tvb, offset) then
        return left
    end
    return tvb(offset + 2, 2):le_uint() + 8
end

local function dissect_mdqp(tvb, pinfo, tree)
    dissect_tcp_pdus(tvb, tree, 8, mdqp_length, function(message, info, message_tree)
        local text = dissect_mdqp_message(message, info, message_tree)
        -- A frame that ends one message and holds more is dissected in several calls; what was said
        -- before stays in the column.
        info.cols.info:set((info.private.vorn_info and "; " or "") .. text)
        info.cols.info:fence()
        info.private.vorn_info = "1"
        return message:len()
    end, true)
    return tvb:len()
end

-- Decode buffers ---------------------------------------------------------------------------------

local kMirpHeader = 24

-- First pass: what this change is to those before it. The feed takes whichever line is first, so a
-- gap is one when no line has brought the change.
local function track(pinfo, key, change, line)
    local sequence = sequences[key]
    if not sequence then
        sequence = { last = change - 1, lines = {}, changes = {}, frames = {} }
        sequences[key] = sequence
    end
    local number = pinfo.number
    local place = change % kRemembered + 1
    local before = sequence.lines[line]
    if before and change > before + 1 then
        frame_line_gap[number] = before + 1
    end
    sequence.lines[line] = math.max(before or 0, change)
    if change > sequence.last then
        if change > sequence.last + 1 then
            frame_gap[number] = sequence.last + 1
        end
        sequence.last = change
    elseif sequence.changes[place] == change then
        frame_duplicate[number] = sequence.frames[place]
        return
    else
        frame_late[number] = true
    end
    sequence.changes[place], sequence.frames[place] = change, number
end

local function changes_text(first, last)
    return first == last and string.format("change %d", first) or
        string.format("changes %d to %d", first, last)
end

local function add_sequence_notes(item, tree, pinfo, change, who)
    local number = pinfo.number
    local gap = frame_gap[number]
    if gap then
        tree:add(f.missing, change - gap):set_generated()
        item:add_proto_expert_info(x.gap, string.format(
            "%s of instrument %s missing: the feed takes a fresh snapshot",
            changes_text(gap, change - 1), who))
    elseif frame_line_gap[number] then
        item:add_proto_expert_info(x.line_gap, string.format(
            "%s of instrument %s missing on this line only",
            changes_text(frame_line_gap[number], change - 1), who))
    end
    if frame_duplicate[number] then
        tree:add(f.duplicate_of, frame_duplicate[number]):set_generated()
        item:add_proto_expert_info(x.duplicate) -- one text for all, so that they are counted
    elseif frame_late[number] then
        item:add_proto_expert_info(x.late,
            "Change that a later one has overtaken: the feed ignores it")
    end
end

-- Returns the price as text, or the ticks as long as the dictionary has not come.
local function add_price(tree, range, known)
    tree:add_le(f.price_offset, range)
    local ticks = range:le_int()
    if known then
        local price = ticks * known.tick + known.codec
        tree:add(f.price, price):set_generated()
        return string.format("%.14g", price)
    end
    return string.format("%d ticks", ticks)
end

local function add_amount(tree, volume, offset, known)
    tree:add_le(f.volume_change, volume)
    tree:add_le(f.amount_offset, offset)
    if known then
        local change = (volume:le_int() * known.codec + offset:le_int64():tonumber() * known.tick) *
            known.multiple
        tree:add(f.amount_change, change):set_generated()
    end
end

local mirp_fields = {}

mirp_fields[0x1001] = { size = 16, dissect = function(tree, range, known)
    tree:add_le(f.side, range(2, 1))
    tree:add_le(f.level, range(3, 1))
    local price = add_price(tree, range(4, 4), known)
    tree:add_le(f.level_volume, range(8, 4))
    tree:add_le(f.event, range(12, 1))
    tree:add(f.reserved, range(13, 3))
    local side, level, event = range(2, 1):uint(), range(3, 1):uint(), range(12, 1):uint()
    if not kSides[side] or not kEvents[event] or level < 1 or level > 10 then
        tree:add_proto_expert_info(x.bad_value,
            "Side, level or event that the feed does not know: it skips the field")
    end
    local text = string.format("%s %s %d", kEvents[event] or "?", kSides[side] or "?", level)
    tree:append_text(": " .. text)
    if event ~= 3 then
        tree:append_text(string.format(", %d at %s", range(8, 4):le_uint(), price))
    end
    return text
end }
mirp_fields[0x1002] = { size = 32, dissect = function(tree, range, known)
    local price = add_price(tree, range(2, 4), known)
    add_amount(tree, range(6, 4), range(10, 8), known)
    tree:add_le(f.open_interest_change, range(18, 8))
    tree:add(f.reserved, range(26, 6))
    tree:append_text(string.format(": %d at %s", range(6, 4):le_int(), price))
    return "deal"
end }
for id, name in pairs({ [0x1011] = "high", [0x1012] = "low" }) do
    mirp_fields[id] = { size = 8, dissect = function(tree, range, known)
        tree:append_text(": " .. add_price(tree, range(2, 4), known))
        tree:add(f.reserved, range(6, 2))
        return name
    end }
end
for id, name in pairs({ [0x1019] = "bid totals", [0x101A] = "ask totals" }) do
    mirp_fields[id] = { size = 16, dissect = function(tree, range, known)
        add_amount(tree, range(2, 4), range(6, 8), known)
        tree:add(f.reserved, range(14, 2))
        tree:append_text(string.format(": %+d lots", range(2, 4):le_int()))
        return name
    end }
end

-- The feed stops at a field that it does not know or that is cut off.
local function dissect_mirp_fields(tvb, tree, known)
    local at, size, names = kMirpHeader, tvb:len(), {}
    while size - at >= 3 do
        local id_range = tvb(at, 2)
        local id = id_range:le_uint()
        local field = mirp_fields[id]
        local left = size - at
        if not field or left < field.size then
            local item = tree:add(vorn, tvb(at, left), kMirpFields[id] or
                string.format("Unknown field 0x%04x", id))
            item:add_le(f.field_id, id_range)
            item:add(f.field_data, tvb(at + 2, left - 2))
            if field then
                item:add_proto_expert_info(x.truncated, string.format(
                    "Field of %d bytes has %d: the feed stops here", field.size, left))
            else
                item:add_proto_expert_info(x.unknown_field,
                    "Unknown field: the feed stops here and leaves the rest unread")
            end
            return names
        end
        local range = tvb(at, field.size)
        local item = tree:add(vorn, range, kMirpFields[id])
        item:add_le(f.field_id, id_range)
        names[#names + 1] = field.dissect(item, range, known)
        at = at + field.size
    end
    if at < size then
        tree:add(f.field_data, tvb(at, size - at))
    end
    return names
end

local function dissect_mirp(tvb, pinfo, tree)
    pinfo.cols.protocol = "MIRP"
    if tvb:len() < kMirpHeader then
        local text = string.format("%d bytes, too short for a decode buffer", tvb:len())
        local item = tree:add(vorn, tvb(), "Decode buffer, " .. text)
        item:add(f.field_data, tvb())
        item:add_proto_expert_info(x.truncated, "Shorter than a header: the feed drops it")
        pinfo.cols.info:set(text)
        return tvb:len()
    end
    local topic_range, kind_range = tvb(0, 2), tvb(12, 2)
    local number_range, change_range = tvb(14, 4), tvb(18, 4)
    local topic, number = topic_range:le_uint(), number_range:le_int()
    local change = change_range:le_uint()
    local exchange = exchange_name(topic)
    local who = instrument_text(exchange, number)
    local top = tree:add(vorn, tvb(),
        string.format("Decode buffer, %s %s, change %d", exchange, who, change))

    local topic_item = top:add_le(f.topic, topic_range)
    if not exchange_of_topic[topic] then
        topic_item:add_proto_expert_info(x.other_topic,
            "Topic of no feed: the feed ends its cycle here")
    end
    top:add(f.exchange, exchange):set_generated()
    top:add_le(f.millisec, tvb(2, 2))
    top:add_le(f.time, tvb(4, 4))
    top:add_le(f.packet_no, tvb(8, 4))
    local kind = top:add_le(f.header_field, kind_range)
    top:add_le(f.inst_no, number_range)
    local known = add_known(top, exchange, number)
    local change_item = top:add_le(f.change_no, change_range)
    top:add(f.reserved, tvb(22, 2))

    local names = {}
    if kind_range:le_uint() == 3 then
        if not pinfo.visited then
            track(pinfo, string.format("%s %d", exchange, number), change,
                string.format("%s:%d", tostring(pinfo.dst), pinfo.dst_port))
        end
        add_sequence_notes(change_item, top, pinfo, change, who)
        names = dissect_mirp_fields(tvb, top, known)
    else
        kind:add_proto_expert_info(x.not_incremental)
        if tvb:len() > kMirpHeader then
            top:add(f.field_data, tvb(kMirpHeader))
        end
    end
    local info = string.format("%s %s change %d", exchange, who, change)
    if #names > 0 then
        info = info .. ": " .. table.concat(names, ", ")
    end
    if frame_gap[pinfo.number] then
        info = info .. string.format(" [%d missing]", change - frame_gap[pinfo.number])
    elseif frame_duplicate[pinfo.number] then
        info = info .. " [duplicate]"
    end
    pinfo.cols.info:set(info)
    return tvb:len()
end

-- Registration -----------------------------------------------------------------------------------

mdqp.dissector = dissect_mdqp
mirp.dissector = dissect_mirp

local registered = {}

-- Moves a dissector to other ports; an empty list removes it.
local function register(table_name, ports, dissector)
    local ports_table = DissectorTable.get(table_name)
    if registered[table_name] then
        ports_table:remove(registered[table_name], dissector)
        registered[table_name] = nil
    end
    if ports ~= "" then
        ports_table:add(ports, dissector)
        registered[table_name] = ports
    end
end

function vorn.prefs_changed()
    read_topics()
    register("tcp.port", tostring(vorn.prefs.mdqp_ports), mdqp)
    register("udp.port", tostring(vorn.prefs.mirp_ports), mirp)
end

read_topics()
register("tcp.port", "33022,22000", mdqp)
register("udp.port", "21000,21101,25000,25101", mirp)

-- On other ports: only what can hardly be anything else. The functions are called directly: a call
-- through the protocol would forbid joining segments.
mdqp:register_heuristic("tcp", function(tvb, pinfo, tree)
    if not vorn.prefs.heuristics or tvb:len() < 18 or not begins_message(tvb, 0) or
        tvb(8, 2):le_uint() ~= 0x1001 or tvb(10, 2):le_uint() ~= 6 then
        return false
    end
    dissect_mdqp(tvb, pinfo, tree)
    pinfo.conversation = mdqp
    return true
end)
mirp:register_heuristic("udp", function(tvb, pinfo, tree)
    if not vorn.prefs.heuristics or tvb:len() < kMirpHeader or tvb(12, 2):le_uint() ~= 3 or
        not exchange_of_topic[tvb(0, 2):le_uint()] or
        (tvb:len() >= kMirpHeader + 2 and not mirp_fields[tvb(kMirpHeader, 2):le_uint()]) then
        return false
    end
    dissect_mirp(tvb, pinfo, tree)
    return true
end)
