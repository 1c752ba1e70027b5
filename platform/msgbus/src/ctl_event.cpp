#include "ctl_event.h"

#include <array>
#include <cstdio>

#include "ctl_json.h"
#include "ctl_modules.h"

namespace msgbusctl {

namespace {

constexpr long kNanosecondsInMillisecond = 1'000'000;

std::string milliseconds_of(const timespec& when) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), ".%03ld", when.tv_nsec / kNanosecondsInMillisecond);
    return text.data();
}

std::string local_time(const timespec& when) {
    tm parts{};
    localtime_r(&when.tv_sec, &parts);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%H:%M:%S", &parts);
    return text.data() + milliseconds_of(when);
}

std::string universal_time(const timespec& when) {
    tm parts{};
    gmtime_r(&when.tv_sec, &parts);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    return text.data() + milliseconds_of(when) + 'Z';
}

std::string escape_control(std::string_view payload) {
    std::string text;
    for (const char byte : payload) {
        const auto value = static_cast<unsigned char>(byte);
        std::array<char, 8> escaped{byte, '\0'};
        if (value < ' ' || value == 0x7F)
            std::snprintf(escaped.data(), escaped.size(), "\\x%02x", value);
        text += escaped.data();
    }
    return text;
}

std::string describe(const message_s& frame) {
    const message_header_s header = frame.header;
    const std::string src = describe_module(header.src);
    const std::string way = src + " -> " + describe_module(header.dst);
    const std::string seq = " #" + std::to_string(header.seq);
    const std::string text = escape_control(payload_of(frame));
    switch (header.type) {
        case MSGBUS_ATTACH:
            return src + " joins";
        case MSGBUS_DETACH:
            return src + " leaves";
        case MSGBUS_UNDELIVERABLE:
            return way + seq + " undeliverable" + (text.empty() ? "" : ": ") + text;
        default:
            return way + seq + " uid " + std::to_string(header.src_uid) + " " + text;
    }
}

const char* type_name(std::uint8_t type) {
    switch (type) {
        case MSGBUS_ATTACH:
            return "attach";
        case MSGBUS_DETACH:
            return "detach";
        case MSGBUS_UNDELIVERABLE:
            return "undeliverable";
        default:
            return "data";
    }
}

// The members that name a module.
std::string module_members(const std::string& member, int module) {
    const char* const name = name_of(module);
    const std::string number = ",\"" + member + "\":" + std::to_string(module);
    return name != nullptr ? number + ",\"" + member + "-name\":" + quote(name) : number;
}

std::string payload_member(std::string_view payload) {
    if (payload.empty())
        return "";
    if (!is_utf8(payload))
        return ",\"bytes\":\"" + hexadecimal(payload) + '"';
    const std::string json = json_line(payload);
    return json.empty() ? ",\"text\":" + quote(payload) : ",\"payload\":" + json;
}

}  // namespace

std::string_view payload_of(const message_s& frame) {
    return {reinterpret_cast<const char*>(frame.payload), frame.header.len};
}

std::string line_of(const message_s& frame, const timespec& when) {
    return local_time(when) + ' ' + describe(frame);
}

std::string json_of(const message_s& frame, const timespec& when) {
    const message_header_s header = frame.header;
    return "{\"time\":\"" + universal_time(when) + "\",\"type\":\"" + type_name(header.type) + '"' +
           module_members("src", header.src) + module_members("dst", header.dst) +
           ",\"seq\":" + std::to_string(header.seq) + ",\"uid\":" + std::to_string(header.src_uid) +
           ",\"size\":" + std::to_string(header.len) + payload_member(payload_of(frame)) + '}';
}

}  // namespace msgbusctl
