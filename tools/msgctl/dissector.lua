-- A packet is one record of the flight recorder; tools/traffic/pcapng.h has its layout. msgctl
-- prints the tables `types`, `kinds` and `losses` before this text.

local bus = Proto("msgapi", "Message bus")

local PACKET_HEAD, RECORD, HEADER, NAME = 96, 48, 40, 12
local ACCEPTED, DELIVERED, LOST, DESCRIPTOR = 5, 6, 7, 10
local CONNECTED, ENDED, BACKLOG, RELIEVED, HTTP_REQUEST, HTTP_ANSWER = 2, 4, 8, 9, 11, 12
local DM_MAGIC, DM_HEAD, DM_ITEM_HEAD = 0xfebf, 24, 12
local methods = {[0] = "GET", "POST", "PUT", "DELETE", "PATCH"}

local f = {
  version = ProtoField.uint16("msgapi.version", "Version"),
  masked = ProtoField.bool("msgapi.masked", "Personal data masked", 16, nil, 1),
  from = ProtoField.string("msgapi.from", "From"),
  to = ProtoField.string("msgapi.to", "To"),
  answers = ProtoField.uint64("msgapi.answers", "Answers the request of record"),
  kind = ProtoField.uint8("msgapi.kind", "Kind", base.DEC, kinds),
  loss = ProtoField.uint8("msgapi.loss", "Loss", base.DEC, losses),
  kept = ProtoField.uint16("msgapi.kept", "Bytes kept"),
  number = ProtoField.uint64("msgapi.number", "Record"),
  time = ProtoField.uint64("msgapi.time_ns", "Monotonic time, ns"),
  from_id = ProtoField.uint32("msgapi.from_id", "From client"),
  to_id = ProtoField.uint32("msgapi.to_id", "To client"),
  about = ProtoField.uint64("msgapi.about", "About"),
  a = ProtoField.uint32("msgapi.a", "a"),
  b = ProtoField.uint32("msgapi.b", "b"),
  process = ProtoField.uint32("msgapi.process", "Process"),
  user = ProtoField.uint32("msgapi.user", "User"),
  text = ProtoField.string("msgapi.text", "Text"),
  queue_bytes = ProtoField.uint32("msgapi.queue.bytes", "Bytes in the queue"),
  queue_limit = ProtoField.uint32("msgapi.queue.limit", "Limit of the queue"),
  lost = ProtoField.uint32("msgapi.lost", "Messages lost"),
  method = ProtoField.uint32("msgapi.http.method", "Method", base.DEC, methods),
  status = ProtoField.uint32("msgapi.http.status", "Status"),
  type = ProtoField.uint32("msgapi.type", "Type", base.HEX + base.RANGE_STRING, types, 0xfffff),
  in_file = ProtoField.bool("msgapi.body_in_file", "Body in a file", 32, nil, 0x10000000),
  board = ProtoField.uint32("msgapi.board", "Board", base.DEC, nil, 0xe0000000),
  sequence = ProtoField.uint32("msgapi.sequence", "Sequence number"),
  sender = ProtoField.string("msgapi.sender", "Sender"),
  receiver = ProtoField.string("msgapi.receiver", "Receiver"),
  data = ProtoField.uint32("msgapi.data", "Data"),
  data_length = ProtoField.uint32("msgapi.data_length", "Length in the header"),
  length = ProtoField.uint32("msgapi.length", "Length of the body"),
  body = ProtoField.bytes("msgapi.body", "Body"),
  body_text = ProtoField.string("msgapi.body.text", "Text"),
  dm_error = ProtoField.uint32("msgapi.dm.error", "Error code"),
  dm_user = ProtoField.uint32("msgapi.dm.user", "Configuration user"),
  dm_sub_type = ProtoField.uint32("msgapi.dm.sub_type", "Sub type"),
  item = ProtoField.bytes("msgapi.item", "Item"),
  item_name = ProtoField.string("msgapi.item.name", "Name"),
  item_value = ProtoField.string("msgapi.item.value", "Value"),
  item_bytes = ProtoField.bytes("msgapi.item.bytes", "Value"),
  response_to = ProtoField.framenum("msgapi.response_to", "Request in", base.NONE,
                                    frametype.REQUEST),
  response_in = ProtoField.framenum("msgapi.response_in", "Answer in", base.NONE,
                                    frametype.RESPONSE),
  response_time = ProtoField.relative_time("msgapi.response_time", "Response time"),
}
for _, field in pairs(f) do table.insert(bus.fields, field) end

local malformed = ProtoExpert.new("msgapi.malformed", "Malformed", expert.group.MALFORMED,
                                  expert.severity.ERROR)
local lost = ProtoExpert.new("msgapi.message_lost", "Lost", expert.group.SEQUENCE,
                             expert.severity.WARN)
local not_kept = ProtoExpert.new("msgapi.not_kept", "The rest of the body was not recorded",
                                 expert.group.UNDECODED, expert.severity.NOTE)
bus.experts = {malformed, lost, not_kept}

-- Record numbers begin anew with each server. So what belongs together is found while the packets
-- are first read, in order, and is then kept by the number of the frame.
local requests, link, answered = {}, {}, {}
local last_number, last_section = UInt64(0), nil
function bus.init()
  requests, link, answered = {}, {}, {}
  last_number, last_section = UInt64(0), nil
end

-- The section of the file tells servers apart. An older analyser does not know it: then numbers
-- that begin anew tell of another server.
local known, section_field = pcall(Field.new, "frame.section_number")

local function type_name(number)
  for _, each in ipairs(types) do
    if number >= each[1] and number <= each[2] then
      return string.format("%s (0x%x)", each[3], number)
    end
  end
  return string.format("0x%x", number)
end

-- The bytes before the first NUL, or all of them.
local function text_of(range) return range:raw():match("^[^\0]*") end

-- Whether these are characters, with at most one NUL, at the end.
local function is_text(range)
  local bytes = range:bytes()
  local last = bytes:len() - 1
  if last >= 0 and bytes:get_index(last) == 0 then last = last - 1 end
  for i = 0, last do
    local byte = bytes:get_index(i)
    if (byte < 32 and byte ~= 9 and byte ~= 10 and byte ~= 13) or byte == 127 then return false end
  end
  return last >= 0
end

local function add_items(body, whole, tree)
  tree:add_le(f.dm_error, body(12, 4))
  tree:add_le(f.dm_user, body(16, 4))
  tree:add_le(f.dm_sub_type, body(20, 4))
  local at, size, shown = DM_HEAD, body:len(), {}
  while size - at >= DM_ITEM_HEAD do
    local name_size, value_size = body(at + 4, 4):le_uint(), body(at + 8, 4):le_uint()
    if name_size > size - at - DM_ITEM_HEAD then
      if whole then tree:add_proto_expert_info(malformed, "An item's name goes beyond the body") end
      break
    end
    local value_at = at + DM_ITEM_HEAD + name_size
    local there = math.min(value_size, size - value_at)
    -- Senders have always been allowed to let the last value end a little beyond.
    if whole and value_size > there + DM_ITEM_HEAD then
      tree:add_proto_expert_info(malformed, "An item's value goes beyond the body")
    end
    local item = tree:add(f.item, body(at, DM_ITEM_HEAD + name_size + there))
    local name = ""
    if name_size > 0 then
      name = text_of(body(at + DM_ITEM_HEAD, name_size))
      item:add(f.item_name, body(at + DM_ITEM_HEAD, name_size), name)
    end
    local value = ""
    if there > 0 then
      local range = body(value_at, there)
      if is_text(range) then
        value = text_of(range)
        item:add(f.item_value, range, value)
      else
        value = tostring(range:bytes())
        item:add(f.item_bytes, range)
      end
    end
    item:set_text("Item " .. name .. " = " .. value)
    table.insert(shown, name .. "=" .. value)
    at = value_at + there
  end
  return table.concat(shown, " ")
end

-- Returns the text for the list of packets.
local function add_body(body, length, pinfo, tree)
  local whole = body:len() >= length
  local branch = tree:add(f.body, body)
  if not whole then branch:add_proto_expert_info(not_kept) end
  if body:len() >= DM_HEAD and body(0, 4):le_uint() == DM_MAGIC then
    return add_items(body, whole, branch)
  end
  if not is_text(body) then return "" end
  local text = text_of(body())
  branch:add(f.body_text, body, text)
  local first = text:sub(1, 1)
  if whole and (first == "{" or first == "[") then
    local json = Dissector.get("json")
    local size = body:len()
    if body(size - 1, 1):uint() == 0 then size = size - 1 end
    if json and size > 0 then json:call(body(0, size):tvb(), pinfo, branch) end
  end
  return text
end

local function link_frames(pinfo, number, answers, time)
  if pinfo.visited then return end
  local section = known and section_field() and section_field().value or nil
  if section ~= last_section or number < last_number then requests = {} end
  last_number, last_section = number, section
  requests[tostring(number)] = {frame = pinfo.number, time = time}
  local request = requests[tostring(answers)]
  if answers ~= UInt64(0) and request and request.time <= time then
    link[pinfo.number] = {frame = request.frame, took = time - request.time}
    answered[request.frame] = pinfo.number
  end
end

local function dissect(packet, pinfo, tree)
  local branch = tree:add(bus, packet())
  if packet:len() < PACKET_HEAD then
    branch:add_proto_expert_info(malformed, "Shorter than a packet's head")
    return
  end
  branch:add_le(f.version, packet(0, 2))
  if packet(0, 2):le_uint() ~= 1 then
    branch:add_proto_expert_info(malformed, "A version that this dissector does not know")
    return
  end
  local flags = packet(2, 2):le_uint()
  branch:add_le(f.masked, packet(2, 2))
  local from, to = text_of(packet(8, 16)), text_of(packet(24, 16))
  branch:add(f.from, packet(8, 16), from)
  branch:add(f.to, packet(24, 16), to)
  local answers = packet(40, 8):le_uint64()
  if answers ~= UInt64(0) then branch:add_le(f.answers, packet(40, 8)) end

  local record = branch:add(packet(48, RECORD), "Record")
  local kind, loss = packet(52, 1):uint(), packet(53, 1):uint()
  local kept = packet(54, 2):le_uint()
  local number, time = packet(56, 8):le_uint64(), packet(64, 8):le_uint64()
  local about, a, b = packet(80, 8):le_uint64(), packet(88, 4):le_uint(), packet(92, 4):le_uint()
  record:add_le(f.kind, packet(52, 1))
  record:add_le(f.loss, packet(53, 1))
  record:add_le(f.kept, packet(54, 2))
  record:add_le(f.number, packet(56, 8))
  record:add_le(f.time, packet(64, 8))
  record:add_le(f.from_id, packet(72, 4))
  record:add_le(f.to_id, packet(76, 4))
  record:add_le(f.about, packet(80, 8))
  record:add_le(f.a, packet(88, 4))
  record:add_le(f.b, packet(92, 4))
  if not kinds[kind] or not losses[loss] then
    branch:add_proto_expert_info(malformed, "A kind of record or of loss that does not exist")
  end
  pinfo.cols.src:set(from)
  pinfo.cols.dst:set(to)

  local at, info, type = PACKET_HEAD, kinds[kind] or "?", nil
  if bit.band(flags, 2) ~= 0 then
    if packet:len() - at < HEADER then
      branch:add_proto_expert_info(malformed, "The message's header is cut")
      return
    end
    local header = branch:add(packet(at, HEADER), "Message header")
    header:add_le(f.type, packet(at, 4))
    header:add_le(f.in_file, packet(at, 4))
    header:add_le(f.board, packet(at, 4))
    header:add_le(f.sequence, packet(at + 4, 4))
    header:add(f.sender, packet(at + 8, NAME), text_of(packet(at + 8, NAME)))
    header:add(f.receiver, packet(at + 20, NAME), text_of(packet(at + 20, NAME)))
    header:add_le(f.data, packet(at + 32, 4))
    header:add_le(f.data_length, packet(at + 36, 4))
    for _, name_at in ipairs({at + 8, at + 20}) do
      if packet(name_at + NAME - 1, 1):uint() ~= 0 then
        header:add_proto_expert_info(malformed, "A name without its NUL")
      end
    end
    type = string.format("%s #%d = %d", type_name(bit.band(packet(at, 4):le_uint(), 0xfffff)),
                         packet(at + 4, 4):le_uint(), packet(at + 32, 4):le_uint())
    at = at + HEADER
  end
  if packet:len() - at < kept then
    branch:add_proto_expert_info(malformed, "What was kept is cut")
    kept = packet:len() - at
  end

  if kind == ACCEPTED then
    record:add_le(f.length, packet(88, 4))
    info = type or info
    if type == nil then
      branch:add_proto_expert_info(malformed, "A message without its header")
    end
    link_frames(pinfo, number, answers, time)
    local mine = link[pinfo.number]
    if mine then
      branch:add(f.response_to, mine.frame):set_generated()
      local second = UInt64(1000000000)
      local took = NSTime.new((mine.took / second):tonumber(), (mine.took % second):tonumber())
      branch:add(f.response_time, took):set_generated()
      info = info .. string.format("  [answer after %.6f s]", mine.took:tonumber() / 1e9)
    end
    if answered[pinfo.number] then
      branch:add(f.response_in, answered[pinfo.number]):set_generated()
    end
    if kept > 0 then
      info = info .. "  " .. add_body(packet(at, kept), a, pinfo, branch)
    elseif a > 0 then
      branch:add_proto_expert_info(not_kept)
    end
  elseif kind == DELIVERED or kind == DESCRIPTOR then
    info = info .. " " .. (type or type_name(bit.band(a, 0xfffff)))
  elseif kind == LOST then
    info = "lost (" .. (losses[loss] or "?") .. ") " .. (type or type_name(bit.band(a, 0xfffff)))
    branch:add_proto_expert_info(lost, "Lost: " .. (losses[loss] or "?"))
  else
    if kept > 0 then
      local text = text_of(packet(at, kept))
      branch:add(f.text, packet(at, kept), text)
      info = info .. ": " .. text
    end
    if kind == CONNECTED then
      record:add_le(f.process, packet(88, 4))
      record:add_le(f.user, packet(92, 4))
    elseif kind == ENDED or kind == RELIEVED then
      record:add_le(f.lost, packet(88, 4))
    elseif kind == BACKLOG then
      record:add_le(f.queue_bytes, packet(88, 4))
      record:add_le(f.queue_limit, packet(92, 4))
      info = info .. string.format(": %d of %d bytes", a, b)
    elseif kind == HTTP_REQUEST then
      record:add_le(f.method, packet(88, 4))
      record:add_le(f.length, packet(92, 4))
    elseif kind == HTTP_ANSWER then
      record:add_le(f.status, packet(88, 4))
      record:add_le(f.length, packet(92, 4))
      info = info .. ": " .. a
    end
  end
  pinfo.cols.protocol:set("MSGAPI")
  pinfo.cols.info:set(info)
end

-- If reading fails all the same, Wireshark shows what has been read of the packet.
function bus.dissector(packet, pinfo, tree)
  pinfo.cols.protocol:set("MSGAPI")
  dissect(packet, pinfo, tree)
  return packet:len()
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, bus)
