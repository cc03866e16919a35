-- Wireshark's view of the cameras' network traffic: the control protocol (UDP, camera port 6061),
-- images over UDP, images over TCP. docs/protocol.md describes the records; README.md beside this
-- file tells how to install it.
--
-- The ports of image streams are not fixed. They are learnt from the control traffic: the library
-- writes its UDP port to REG_STREAMPORT and reads the camera's TCP port from REG_TCP_STREAMPORT. A
-- capture that begins later needs the preferences below, or Decode As.
--
-- Every byte may be missing, because it was never sent or because the capture cuts packets off. So
-- nothing is read but through a Cursor, which stops at the end of what is there.

local CONTROL_MAGIC = 0xAB
local STREAM_MAGIC = 0xAC
local REGISTER_ADDRESS_FACTOR = 4
local MAX_MEMORY_REGISTERS = 128
local TCP_OPENING_SIZE = 2
local TCP_HEADER_SIZE = 10
local IMAGE_HEADER_SIZE = 14
-- A message that claims more is taken for nonsense, not waited for.
local TCP_MESSAGE_SIZE_MAX = 0x10000000

local COMMANDS = {
    [1] = "VC_DISCOVER_COMMAND",
    [2] = "VC_DISCOVER_REPLY",
    [3] = "VC_SETIP_COMMAND",
    [4] = "VC_READREGISTER_COMMAND",
    [5] = "VC_READREGISTER_REPLY",
    [6] = "VC_WRITEREGISTER_COMMAND",
    [7] = "VC_WRITEREGISTER_REPLY",
    [8] = "VC_READMEMORY_COMMAND",
    [9] = "VC_READMEMORY_REPLY",
    [10] = "VC_WRITEMEMORY_COMMAND",
    [11] = "VC_WRITEMEMORY_REPLY",
    [12] = "VC_EVENT_REPLY",
}
local STATUSES = {
    [1] = "VCS_SUCCESS",
    [2] = "VCS_ERROR",
    [3] = "VCS_OUT_OF_RANGE",
}
local TCP_TYPES = {
    [0] = "TCP_SYNC_MESSAGE",
    [1] = "TCP_IMAGE_MESSAGE",
}
local FIRMWARE_COMMANDS = {
    [0xFFFFFF00] = "FW_COMMAND_START",
    [0xFFFFFF01] = "FW_COMMAND_FINISH",
    [0xFFFFFF02] = "FW_COMMAND_READ_PREPARE",
}
local REGISTERS = {
    [0] = "REG_SENSORWIDTH",
    [1] = "REG_SENSORHEIGHT",
    [2] = "REG_WIDTH",
    [3] = "REG_HEIGHT",
    [4] = "REG_OFFSETX",
    [5] = "REG_OFFSETY",
    [6] = "REG_REVERSEX",
    [7] = "REG_REVERSEY",
    [8] = "REG_PIXELFORMAT",
    [16] = "REG_ACQUISITIONMODE",
    [17] = "REG_ACQUISITIONSTART",
    [18] = "REG_ACQUISITIONSTOP",
    [20] = "REG_ACQUISITIONFRAMES",
    [21] = "REG_FRAMERATE",
    [22] = "REG_TRIGGERMODE",
    [23] = "REG_TRIGGERSOFTWARE",
    [25] = "REG_EXPOSURETIME",
    [26] = "REG_HDR_ENABLE",
    [27] = "REG_HDR_SETTING",
    [28] = "REG_HDR_VLOW2",
    [29] = "REG_HDR_VLOW3",
    [30] = "REG_HDR_KP1_POS",
    [31] = "REG_HDR_KP2_POS",
    [32] = "REG_GAIN",
    [33] = "REG_SENSOR_VRAMP",
    [34] = "REG_GAIN_TUNING",
    [36] = "REG_BLACKLEVEL",
    [40] = "REG_DEVICEFIRMWAREVERSION",
    [48] = "REG_CAMERASETTINGSSLOT",
    [49] = "REG_LOADSAVESETTINGS",
    [50] = "REG_LINEFIXOFFSET",
    [51] = "REG_LINEFIXENABLE",
    [53] = "REG_MINTIME",
    [54] = "REG_SENSORREGISTERNUMBER",
    [55] = "REG_SENSORREGISTERVALUE",
    [60] = "REG_IMAGEPIPELINERESET",
    [64] = "REG_DEVICETEMPERATURE",
    [71] = "REG_SENSOR_TYPE",
    [80] = "REG_TRIGGERSELECTOR",
    [81] = "REG_TRIGGERSOURCE",
    [82] = "REG_TRIGGERACTIVATION",
    [83] = "REG_TRIGGERDELAY",
    [84] = "REG_TRIGGERDIVIDER",
    [85] = "REG_TRIGGERFREQUENCY",
    [86] = "REG_TRIGGERDEBOUNCE",
    [88] = "REG_LINE0CONFIG",
    [89] = "REG_LINE1CONFIG",
    [90] = "REG_LINE2CONFIG",
    [92] = "REG_USEROUTPUTVALUE",
    [96] = "REG_TIMERDURATION",
    [97] = "REG_TIMERDELAY",
    [98] = "REG_TIMERRESET",
    [99] = "REG_TIMERVALUE",
    [100] = "REG_TIMERSTATUS",
    [101] = "REG_TIMERTRIGGERSOURCE",
    [102] = "REG_TIMERTRIGGERACTIVATION",
    [130] = "REG_MAC_0_HIGH",
    [131] = "REG_MAC_0_LOW",
    [133] = "REG_CURR_IP_CONFIG_0",
    [137] = "REG_CURR_IP_ADDR_0",
    [141] = "REG_CURR_SUBNET_MASK_0",
    [145] = "REG_CURR_GATEWAY_0",
    [146] = "REG_MANUFACTURER_NAME",
    [154] = "REG_MODEL_NAME",
    [162] = "REG_DEVICE_VERSION",
    [182] = "REG_SERIAL_NUMBER",
    [186] = "REG_USER_DEFINED_NAME",
    [206] = "REG_HEARTBEAT_TIMEOUT",
    [207] = "REG_TIMESTAMP_TICK_FREQ_HIGH",
    [208] = "REG_TIMESTAMP_TICK_FREQ_LOW",
    [209] = "REG_TIMESTAMP_CONTROL",
    [210] = "REG_TIMESTAMP_VALUE_HIGH",
    [211] = "REG_TIMESTAMP_VALUE_LOW / REG_PERSIST_IP_ADDR_0",
    [215] = "REG_PERSIST_SUBNET_MASK_0",
    [219] = "REG_PERSIST_GATEWAY_0",
    [220] = "REG_LINK_SPEED_0",
    [256] = "REG_CONTROL",
    [257] = "REG_STREAMPORT",
    [258] = "REG_MAX_STREAMS_MASK",
    [259] = "REG_USED_STREAMS_MASK",
    [260] = "REG_TCP_STREAMPORT",
    [264] = "REG_STREAM0_FORMAT",
    [265] = "REG_STREAM0_FRAME_SIZE",
    [266] = "REG_STREAM0_HEADER_FORMAT",
    [267] = "REG_STREAM0_HEADER_SIZE",
    [268] = "REG_STREAM0_OPTIONS",
    [272] = "REG_STREAM1_FORMAT",
    [273] = "REG_STREAM1_FRAME_SIZE",
    [274] = "REG_STREAM1_HEADER_FORMAT",
    [275] = "REG_STREAM1_HEADER_SIZE",
    [276] = "REG_STREAM1_OPTIONS",
    [320] = "REG_INTER_FRAME_GAP",
    [321] = "REG_MTU",
    [322] = "REG_REBOOT",
    [323] = "REG_CAMERA_USED",
    [324] = "REG_DEVICETEMPERATURE2",
    [325] = "REG_NUM_SENSOR_CHANNELS",
    [352] = "REG_TRIGGER_FRAMES_SET",
    [353] = "REG_TRIGGER_FRAMES_GET",
    [10000] = "KELO_CMD_FIRMWARE",
    [10001] = "KELO_CMD_SAVE_PARAMS_TO_FLASH",
    [10002] = "KELO_CMD_SAVE_CALIBRATION_TO_FLASH",
    [10010] = "REG_SENSOR_IMAGES_COUNT_DROPED",
    [10011] = "REG_SENSOR_IMAGES_COUNT_PENDING",
    [10020] = "REG_INPUTS_STATUS",
    [10021] = "REG_SYS_STATUS",
    [10022] = "REG_REBOOT_WITH_FACTORY_SETTINGS",
    [10023] = "REG_IMAGING_PROBLEM_EVENT_COUNTER",
    [10100] = "REG_IO_TEST_OUTPUT / REG_HDR_SENSOR_EXP_DUAL",
    [10101] = "REG_IO_TEST_DIRIN",
    [10102] = "REG_IO_TEST_INPUT / REG_HDR_SENSOR_EXP_TIME2",
    [10103] = "REG_HDR_SENSOR_NR_SLOPES",
    [10104] = "REG_HDR_SENSOR_EXP_STEP",
    [10105] = "REG_HDR_SENSOR_EXP_SEQ",
    [10106] = "REG_HDR_SENSOR_ENABLE_EXT_EXP_TRIGGER",
    [11000] = "REG_BAD_PIXEL_LOCATIONS",
    [20000] = "REG_BINNING_XY",
    [20001] = "REG_BINNING_FRAMERATE",
    [20002] = "REG_BINNING_X",
    [20003] = "REG_BINNING_Y",
    [524288] = "REG_BUS_ACCESS",
}
-- Each stream has a block of eight registers; the first two blocks have names of their own above.
for stream = 2, 7 do  -- the last one overlaps with registers that go by their own names
    for offset, name in pairs({[0] = "FORMAT", "FRAME_SIZE", "HEADER_FORMAT", "HEADER_SIZE", "OPTIONS"}) do
        local number = 264 + 8 * stream + offset
        REGISTERS[number] = REGISTERS[number] or "REG_STREAM" .. stream .. "_" .. name
    end
end
local REG_STREAMPORT = 257
local REG_TCP_STREAMPORT = 260
local REG_MTU = 321
local KELO_CMD_FIRMWARE = 10000

local control = Proto("kelo", "KELO Camera Control")
local image = Proto("kelo_image", "KELO Image Stream")
local stream = Proto("kelo_stream", "KELO TCP Image Stream")
local size_test = Proto("kelo_sizetest", "KELO Packet-Size Test")

local c = {
    magic = ProtoField.uint8("kelo.magic", "Magic", base.HEX),
    flags = ProtoField.uint8("kelo.flags", "Flags", base.HEX),
    command = ProtoField.uint32("kelo.command", "Command", base.DEC, COMMANDS),
    message = ProtoField.uint32("kelo.message_number", "Message number"),
    status = ProtoField.uint32("kelo.status", "Status", base.DEC, STATUSES),
    self_test = ProtoField.uint32("kelo.self_test", "Self-test result"),
    version_major = ProtoField.uint16("kelo.version_major", "Firmware version, major"),
    version_minor = ProtoField.uint16("kelo.version_minor", "Firmware version, minor"),
    description = ProtoField.string("kelo.description", "Hardware description"),
    address = ProtoField.ipv4("kelo.camera_ip", "Camera address"),
    mask = ProtoField.ipv4("kelo.camera_subnet", "Subnet mask"),
    mac = ProtoField.ether("kelo.camera_mac", "Camera MAC"),
    padding = ProtoField.uint16("kelo.padding", "Padding", base.HEX),
    link_speed = ProtoField.uint32("kelo.link_speed", "Link speed, Mbit/s"),
    connection = ProtoField.uint32("kelo.connection_status", "Connection status"),
    new_address = ProtoField.ipv4("kelo.new_ip", "New address"),
    new_mask = ProtoField.ipv4("kelo.new_subnet", "New subnet mask"),
    byte_address = ProtoField.uint32("kelo.address", "Byte address", base.HEX),
    register = ProtoField.uint32("kelo.register", "Register", base.DEC, REGISTERS),
    count = ProtoField.uint32("kelo.count", "Registers"),
    value = ProtoField.uint32("kelo.value", "Value", base.DEC_HEX),
    test_port = ProtoField.uint16("kelo.test_port", "Port for the test datagram"),
    packet_size = ProtoField.uint16("kelo.packet_size", "Packet size, with IP and UDP headers"),
    fw_command = ProtoField.uint32("kelo.firmware.command", "Firmware command", base.HEX,
                                   FIRMWARE_COMMANDS),
    fw_offset = ProtoField.uint32("kelo.firmware.offset", "Offset in the firmware file", base.HEX),
    fw_length = ProtoField.uint32("kelo.firmware.length", "Length of the data, bytes"),
    reply_in = ProtoField.framenum("kelo.reply_in", "Reply in", base.NONE, frametype.RESPONSE),
    request_in = ProtoField.framenum("kelo.request_in", "Request in", base.NONE, frametype.REQUEST),
    time = ProtoField.double("kelo.time", "Time since the request, ms"),
}
control.fields = c
local i = {
    magic = ProtoField.uint8("kelo_image.magic", "Magic", base.HEX),
    stream = ProtoField.uint8("kelo_image.stream", "Stream"),
    number = ProtoField.uint32("kelo_image.number", "Image number"),
    packet = ProtoField.uint16("kelo_image.packet", "Packet"),
    packets = ProtoField.uint16("kelo_image.packets", "Packets of the image"),
    width = ProtoField.uint16("kelo_image.width", "Width, pixels"),
    height = ProtoField.uint16("kelo_image.height", "Height, pixels"),
    data = ProtoField.bytes("kelo_image.data", "Image data"),
    length = ProtoField.uint32("kelo_image.length", "Bytes of image data"),
    complete = ProtoField.bool("kelo_image.complete", "All packets of the image seen"),
}
image.fields = i
local s = {
    magic = ProtoField.uint8("kelo_stream.magic", "Magic", base.HEX),
    stream = ProtoField.uint8("kelo_stream.stream", "Stream"),
    opening = ProtoField.bool("kelo_stream.opening", "Opening of the stream"),
    type = ProtoField.uint32("kelo_stream.type", "Type", base.DEC, TCP_TYPES),
    size = ProtoField.uint32("kelo_stream.size", "Bytes that follow"),
    data = ProtoField.bytes("kelo_stream.data", "Unknown data"),
}
stream.fields = s
local t = {
    size = ProtoField.uint32("kelo_sizetest.size", "Packet size, with IP and UDP headers"),
}
size_test.fields = t

local e = {
    cut = ProtoExpert.new("kelo.cut", "The capture cuts this packet off", expert.group.UNDECODED,
                 expert.severity.NOTE),
    short = ProtoExpert.new("kelo.short", "Shorter than its record", expert.group.PROTOCOL,
                   expert.severity.WARN),
    refused = ProtoExpert.new("kelo.refused", "The camera refuses", expert.group.RESPONSE_CODE,
                     expert.severity.NOTE),
    count = ProtoExpert.new("kelo.bad_count", "More registers than a transfer may have",
                   expert.group.PROTOCOL, expert.severity.WARN),
}
control.experts = e
local ie = {
    cut = ProtoExpert.new("kelo_image.cut", "The capture cuts this packet off", expert.group.UNDECODED,
                 expert.severity.NOTE),
    short = ProtoExpert.new("kelo_image.short", "Shorter than an image header", expert.group.PROTOCOL,
                   expert.severity.WARN),
    packet = ProtoExpert.new("kelo_image.bad_packet", "Packet number beyond the image's end",
                    expert.group.PROTOCOL, expert.severity.WARN),
    missing = ProtoExpert.new("kelo_image.missing", "Packets of the image before are missing",
                     expert.group.SEQUENCE, expert.severity.WARN),
}
image.experts = ie
local se = {
    cut = ProtoExpert.new("kelo_stream.cut", "The capture cuts this message off", expert.group.UNDECODED,
                 expert.severity.NOTE),
    short = ProtoExpert.new("kelo_stream.short", "Shorter than its record", expert.group.PROTOCOL,
                   expert.severity.WARN),
    magic = ProtoExpert.new("kelo_stream.bad_magic", "No stream message", expert.group.PROTOCOL,
                   expert.severity.WARN),
}
stream.experts = se

control.prefs.port = Pref.uint("Control port", 6061, "UDP port of the cameras' control channel")
control.prefs.image_ports = Pref.range("UDP image ports", "",
    "UDP ports at which images arrive, for captures without the session's beginning", 65535)
control.prefs.tcp_ports = Pref.range("TCP image ports", "",
    "TCP ports of cameras that send images, for captures without the session's beginning", 65535)

local udp_ports = DissectorTable.get("udp.port")
local tcp_ports = DissectorTable.get("tcp.port")

-- Reading -----------------------------------------------------------------------------------------

local Cursor = {}
Cursor.__index = Cursor

-- offset: where to begin in tvb.
local function cursor(tvb, tree, offset)
    return setmetatable({tvb = tvb, tree = tree, offset = offset or 0, whole = true}, Cursor)
end

-- Adds the next field and returns its range, or nil where it, or one before it, is not there whole.
function Cursor:take(field, size, little_endian)
    if not self.whole or self.offset + size > self.tvb:len() then
        self.whole = false
        return nil
    end
    local range = self.tvb(self.offset, size)
    self.offset = self.offset + size
    if little_endian then
        self.item = self.tree:add_le(field, range)
    else
        self.item = self.tree:add(field, range)
    end
    return range
end

function Cursor:number(field, size)
    local range = self:take(field, size)
    return range and range:uint()
end

-- Says why the end was not reached, if it was not.
function Cursor:finish(experts)
    if self.whole then return end
    local cut = self.tvb:len() < self.tvb:reported_len()
    self.tree:add_proto_expert_info(cut and experts.cut or experts.short)
end

local function name_of(register)
    return string.format("%s (%d)", REGISTERS[register] or "register", register)
end

-- What was learnt from earlier packets --------------------------------------------------------------

local learnt_udp = {}  -- port: the protocol there
local learnt_tcp = {}
local requests = {}       -- conversation and message number: the request in flight
local exchanges = {}      -- frame of a request or reply: what is known of both
local images = {}         -- stream: the image that is coming
local image_notes = {}    -- frame: what its packet told about its image

local function learn(table_of_ports, learnt, port, protocol)
    if port == 0 or learnt[port] == protocol then return end
    if learnt[port] then table_of_ports:remove(port, learnt[port]) end
    learnt[port] = protocol
    table_of_ports:add(port, protocol)
end

function control.init()
    for port, protocol in pairs(learnt_udp) do udp_ports:remove(port, protocol) end
    for port, protocol in pairs(learnt_tcp) do tcp_ports:remove(port, protocol) end
    learnt_udp, learnt_tcp, requests, exchanges, images, image_notes = {}, {}, {}, {}, {}, {}
end

-- A reply carries its request's message number. A retry has a number of its own.
local function note_request(pinfo, message, register)
    if pinfo.visited then return exchanges[pinfo.number] end
    local exchange = {request = pinfo.number, time = pinfo.rel_ts, register = register}
    requests[string.format("%s %s %d %d", pinfo.dst, pinfo.src, pinfo.src_port, message)] = exchange
    exchanges[pinfo.number] = exchange
    return exchange
end

local function note_reply(pinfo, message)
    if pinfo.visited then return exchanges[pinfo.number] end
    local key = string.format("%s %s %d %d", pinfo.src, pinfo.dst, pinfo.dst_port, message)
    local exchange = requests[key]
    if exchange then
        exchange.reply = exchange.reply or pinfo.number
        exchanges[pinfo.number] = exchange
    end
    return exchange
end

local function add_generated(tree, field, value)
    tree:add(field, value):set_generated()
end

-- Control -----------------------------------------------------------------------------------------

-- The packet-size register says in one word where a test datagram is wanted, and of what size.
local function add_packet_size(at, range, value)
    local port = math.floor(value / 65536)
    if port ~= 0 then at.tree:add(c.test_port, range(0, 2)) end
    at.tree:add(c.packet_size, range(2, 2))
    return port
end

-- Firmware payloads are bytes that travel as register values, lowest byte first.
local function add_firmware_words(at, first, is_reply)
    if first + 4 > at.tvb:len() then return nil end
    local word = at.tvb(first, 4)
    local value = word:le_uint()
    if is_reply then
        at.tree:add_le(c.fw_offset, word)
        if first + 8 <= at.tvb:len() then at.tree:add_le(c.fw_length, at.tvb(first + 4, 4)) end
        return string.format("firmware read back at 0x%X", value)
    elseif FIRMWARE_COMMANDS[value] then
        at.tree:add_le(c.fw_command, word)
        return FIRMWARE_COMMANDS[value]
    end
    at.tree:add_le(c.fw_offset, word)
    return string.format("firmware data at 0x%X", value)
end

local function add_values(at, register, count)
    for index = 0, math.min(count, MAX_MEMORY_REGISTERS) - 1 do
        local range = at:take(c.value, 4)
        if not range then return end
        at.item:prepend_text(name_of(register + index) .. ": ")
    end
end

-- Address and register number. A reply's address is not to be relied on: its request's is used.
local function register_of(at, exchange)
    local address = at:number(c.byte_address, 4)
    local register = address and math.floor(address / REGISTER_ADDRESS_FACTOR)
    if exchange and exchange.register then register = exchange.register end
    if register then add_generated(at.tree, c.register, register) end
    return register
end

local function dissect_discovery_reply(at, pinfo)
    at:number(c.self_test, 4)
    at:number(c.version_major, 2)
    at:number(c.version_minor, 2)
    local description = at:take(c.description, 32)
    local address = at:take(c.address, 4)
    at:take(c.mask, 4)
    at:take(c.mac, 6)
    at:take(c.padding, 2)
    at:take(c.link_speed, 4)
    at:take(c.connection, 4)
    if description and address then
        return string.format("Camera %s: %s", address:ipv4(), (description:string():match("^[^\0]*")))
    end
    return "Camera"
end

local function dissect_set_ip(at, pinfo)
    local mac = at:take(c.mac, 6)
    at:take(c.padding, 2)
    at:take(c.address, 4)
    local address = at:take(c.new_address, 4)
    at:take(c.new_mask, 4)
    return string.format("Camera %s takes address %s", mac and mac:ether() or "?",
                         address and address:ipv4() or "?")
end

local function dissect_register_request(at, pinfo, message, command)
    local register = register_of(at, nil)
    note_request(pinfo, message, register)
    local value = at:take(c.value, 4)
    if not register then return "Register" end
    if command == 4 then return "Read " .. name_of(register) end
    if not value then return "Write " .. name_of(register) end
    if register == REG_STREAMPORT then
        learn(udp_ports, learnt_udp, value:uint() % 65536, image)
    elseif register == REG_MTU then
        learn(udp_ports, learnt_udp, add_packet_size(at, value, value:uint()), size_test)
    end
    return string.format("Write %s = %d", name_of(register), value:uint())
end

local function dissect_register_reply(at, pinfo, message, command, status)
    local exchange = note_reply(pinfo, message)
    local register = register_of(at, exchange)
    local value = at:take(c.value, 4)
    local verb = command == 5 and "Read" or "Written"
    if not register then return verb end
    if status ~= 1 then
        return string.format("%s %s: %s", verb, name_of(register), STATUSES[status] or "error")
    end
    if not value then return verb .. " " .. name_of(register) end
    if register == REG_TCP_STREAMPORT and command == 5 then
        learn(tcp_ports, learnt_tcp, value:uint() % 65536, stream)
    end
    return string.format("%s %s = %d", verb, name_of(register), value:uint())
end

local function dissect_memory(at, pinfo, message, command, status)
    local is_reply = command % 2 == 1
    local has_values = command == 9 or command == 10
    local exchange = is_reply and note_reply(pinfo, message) or nil
    local register = register_of(at, exchange)
    if not is_reply then note_request(pinfo, message, register) end
    local count = at:number(c.count, 4)
    local verb = command < 10 and "memory read" or "memory write"
    local info = (is_reply and "Reply: " or "") .. verb
    if not register or not count then return info end
    info = string.format("%s from %s on, %d", info, name_of(register), count)
    if count > MAX_MEMORY_REGISTERS then at.item:add_proto_expert_info(e.count) end
    if is_reply and status ~= 1 then return info .. ": " .. (STATUSES[status] or "error") end
    if not has_values then return info end
    if register == KELO_CMD_FIRMWARE then
        local what = add_firmware_words(at, at.offset, is_reply)
        if what then info = info .. ": " .. what end
    end
    add_values(at, register, count)
    return info
end

local BODIES = {
    [1] = function() return "Discovery" end,
    [2] = dissect_discovery_reply,
    [3] = dissect_set_ip,
    [4] = dissect_register_request,
    [5] = dissect_register_reply,
    [6] = dissect_register_request,
    [7] = dissect_register_reply,
    [8] = dissect_memory,
    [9] = dissect_memory,
    [10] = dissect_memory,
    [11] = dissect_memory,
    [12] = function() return "Event" end,
}

local function add_exchange(pinfo, tree)
    local exchange = exchanges[pinfo.number]
    if not exchange then return end
    if exchange.request == pinfo.number then
        if exchange.reply then add_generated(tree, c.reply_in, exchange.reply) end
        return
    end
    add_generated(tree, c.request_in, exchange.request)
    add_generated(tree, c.time, (pinfo.rel_ts - exchange.time) * 1000)
end

function control.dissector(tvb, pinfo, root)
    if tvb:len() == 0 or tvb(0, 1):uint() ~= CONTROL_MAGIC then return 0 end
    pinfo.cols.protocol = "KELO"
    local tree = root:add(control, tvb())
    local at = cursor(tvb, tree)
    at:take(c.magic, 1)
    at:take(c.flags, 1)
    local command = at:number(c.command, 4)
    local message = at:number(c.message, 4)
    local status = at:number(c.status, 4)
    local info = "Control"
    if status then
        if status ~= 1 then at.item:add_proto_expert_info(e.refused) end
        local body = BODIES[command]
        info = body and body(at, pinfo, message, command, status) or "Unknown command " .. command
        add_exchange(pinfo, tree)
    end
    pinfo.cols.info = info
    tree:append_text(", " .. info)
    at:finish(e)
    return tvb:len()
end

-- Images ------------------------------------------------------------------------------------------

-- Follows the images of one stream as they come. Packets of two images never mix on a network that
-- keeps the order; where it does not, an image may be called incomplete that is completed later.
local function note_image(pinfo, number_of_stream, number, packet, packets)
    if pinfo.visited then return image_notes[pinfo.number] end
    local key = string.format("%s %s %d %d", pinfo.src, pinfo.dst, pinfo.dst_port, number_of_stream)
    local current = images[key]
    local note = {}
    if not current or current.number ~= number then
        if current and current.seen < current.packets then
            note.missing = string.format("Image %d: %d of %d packets seen", current.number,
                                         current.seen, current.packets)
        end
        current = {number = number, packets = packets, seen = 0, had = {}}
        images[key] = current
    end
    if packet < packets and not current.had[packet] then
        current.had[packet] = true
        current.seen = current.seen + 1
        note.complete = current.seen == packets
    end
    image_notes[pinfo.number] = note
    return note
end

-- The header in front of image data, on UDP and on TCP. Returns what the packet is.
local function add_image_header(at, pinfo, over_udp)
    at:take(i.magic, 1)
    local number_of_stream = at:number(i.stream, 1)
    local number = at:number(i.number, 4)
    local packet = at:number(i.packet, 2)
    local packet_item = at.item
    local packets = at:number(i.packets, 2)
    local width = at:number(i.width, 2)
    local height = at:number(i.height, 2)
    if not height then return "Image" end
    if not over_udp then
        return string.format("Stream %d, image %d, %d x %d", number_of_stream, number, width, height)
    end
    if packet >= packets then packet_item:add_proto_expert_info(ie.packet) end
    local note = note_image(pinfo, number_of_stream, number, packet, packets) or {}
    if note.complete then add_generated(at.tree, i.complete, true) end
    if note.missing then at.tree:add_proto_expert_info(ie.missing, note.missing) end
    return string.format("Stream %d, image %d, packet %d of %d, %d x %d", number_of_stream, number,
                         packet, packets, width, height)
end

-- size: the bytes that were sent, of which the capture may hold fewer.
local function add_image_data(at, size)
    add_generated(at.tree, i.length, size)
    local there = math.min(size, at.tvb:len() - at.offset)
    if there > 0 then at:take(i.data, there) end
    if there < size then at.whole = false end
end

function image.dissector(tvb, pinfo, root)
    if tvb:len() == 0 or tvb(0, 1):uint() ~= STREAM_MAGIC then return 0 end
    pinfo.cols.protocol = "KELO image"
    local at = cursor(tvb, root:add(image, tvb()))
    local info = add_image_header(at, pinfo, true)
    pinfo.cols.info = info
    at.tree:append_text(", " .. info)
    if at.whole then add_image_data(at, tvb:reported_len() - IMAGE_HEADER_SIZE) end
    at:finish(ie)
    return tvb:len()
end

function size_test.dissector(tvb, pinfo, root)
    local size = tvb:reported_len() + 28
    pinfo.cols.protocol = "KELO test"
    pinfo.cols.info = string.format("Packet-size test, %d bytes", size)
    local tree = root:add(size_test, tvb())
    add_generated(tree, t.size, size)
    return tvb:len()
end

-- Images over TCP ---------------------------------------------------------------------------------

local function from_library(pinfo)
    return pinfo.dst_port == pinfo.match_uint
end

-- The library's first two bytes open the stream; what it sends later are whole headers.
local function is_opening(tvb, offset)
    local left = tvb:len() - offset
    return left == TCP_OPENING_SIZE or tvb(offset + 2, 1):uint() == STREAM_MAGIC
end

local function message_length(tvb, pinfo, offset)
    local left = tvb:len() - offset
    if left < TCP_OPENING_SIZE or tvb(offset, 1):uint() ~= STREAM_MAGIC then return left end
    if from_library(pinfo) then
        return is_opening(tvb, offset) and TCP_OPENING_SIZE or TCP_HEADER_SIZE
    end
    if left < TCP_HEADER_SIZE then return TCP_HEADER_SIZE end
    local size = tvb(offset + 6, 4):uint()
    if size > TCP_MESSAGE_SIZE_MAX then return left end
    return TCP_HEADER_SIZE + size
end

local function add_opening(at)
    at:take(s.magic, 1)
    local number = at:number(s.stream, 1)
    add_generated(at.tree, s.opening, true)
    return string.format("Opening of stream %d", number or 0)
end

local function add_message(at, pinfo, root)
    at:take(s.magic, 1)
    local number = at:number(s.stream, 1)
    local kind = at:number(s.type, 4)
    local size = at:number(s.size, 4)
    if not size then return "Message" end
    if kind == 1 and size >= IMAGE_HEADER_SIZE then
        local picture = cursor(at.tvb, root:add(image, at.tvb(at.offset)), at.offset)
        local info = add_image_header(picture, pinfo, false)
        if picture.whole then add_image_data(picture, size - IMAGE_HEADER_SIZE) end
        picture.tree:append_text(", " .. info)
        picture:finish(ie)
        return info
    end
    local rest = at.tvb:len() - at.offset
    if rest > 0 then at:take(s.data, rest) end
    if kind == 0 then return string.format("Sync of stream %d", number) end
    return string.format("Stream %d, message of type %d", number, kind)
end

local function dissect_message(tvb, pinfo, root)
    pinfo.cols.protocol = "KELO stream"
    local at = cursor(tvb, root:add(stream, tvb()))
    local info
    if tvb:len() < TCP_OPENING_SIZE or tvb(0, 1):uint() ~= STREAM_MAGIC then
        local cut = tvb:len() < tvb:reported_len()
        at.tree:add_proto_expert_info(cut and se.cut or se.magic)
        info = cut and "Part of a message" or "No stream message"
    elseif from_library(pinfo) and is_opening(tvb, 0) then
        info = add_opening(at)
    else
        info = add_message(at, pinfo, root)
    end
    at.tree:append_text(", " .. info)
    pinfo.cols.info = info
    at:finish(se)
    return tvb:len()
end

function stream.dissector(tvb, pinfo, root)
    if tvb:len() == 0 then return 0 end
    -- Messages cannot be put together from segments that the capture cuts off.
    if tvb:len() < tvb:reported_len() then return dissect_message(tvb, pinfo, root) end
    local header = from_library(pinfo) and TCP_OPENING_SIZE or TCP_HEADER_SIZE
    dissect_tcp_pdus(tvb, root, header, message_length, dissect_message)
    return tvb:len()
end

-- Ports -------------------------------------------------------------------------------------------

local registered = {}

local function register_ports(table_of_ports, ports, protocol)
    if ports == "" or ports == 0 then return end
    table_of_ports:add(ports, protocol)
    registered[#registered + 1] = {table_of_ports, ports, protocol}
end

local function register_all()
    for _, entry in ipairs(registered) do entry[1]:remove(entry[2], entry[3]) end
    registered = {}
    register_ports(udp_ports, control.prefs.port, control)
    register_ports(udp_ports, control.prefs.image_ports, image)
    register_ports(tcp_ports, control.prefs.tcp_ports, stream)
end

control.prefs_changed = register_all
register_all()
udp_ports:add_for_decode_as(control)
udp_ports:add_for_decode_as(image)
tcp_ports:add_for_decode_as(stream)
