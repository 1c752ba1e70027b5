// vexor_command: the record that vendor commands exchange with the radio driver through the
// private wireless ioctl, in host byte order. Layouts and numbers are the kernel's.
#ifndef LUMD_VEXOR_COMMAND_H
#define LUMD_VEXOR_COMMAND_H

#include <cstddef>
#include <cstdint>
#include <cstring>

// Request numbers of the private wireless ioctls.
inline constexpr unsigned long rtl8192cd_vexor_request = 0x8BBF;
inline constexpr unsigned long rtl8192cd_bsstrans_request = 0x8BA6;
inline constexpr unsigned long rtl8192cd_set_mib_request = 0x89F1;
inline constexpr unsigned long rtl8192cd_get_mib_request = 0x89F2;
inline constexpr unsigned long g6_vexor_request = 0x89F4;
inline constexpr unsigned long g6_bsstrans_request = 0x89F6;

enum vexor_cmd_s : std::uint32_t {
    VEXOR_CMD_CUSTOM_SCAN = 0,
    VEXOR_CMD_CUSTOM_SCAN_STOP = 1,
    VEXOR_CMD_CUSTOM_SCAN_RESULTS = 2,
    VEXOR_CMD_RRM_SCAN_RESULTS = 3,
    VEXOR_CMD_GET_ASSOC_STAS = 4,
    VEXOR_CMD_GET_AVAILABLE_CHANNELS = 5,
    VEXOR_CMD_GET_DETAILS_PMKID = 6,
    VEXOR_CMD_MAX = 7
};

// Name of a command for the log; "UNKNOWN" for a code that is none.
const char* vexor_cmd_name(vexor_cmd_s code);

// One access point of a scan result.
struct ap_info_s {
    std::uint8_t bssid[6];
    std::uint8_t padding_1[2];
    std::int32_t signal;  // dBm
    std::int32_t channel;
    std::int32_t bw;        // MHz
    std::int32_t tx_power;  // quarter dBm
    std::uint16_t chanspec;
    std::uint8_t padding_2[2];
};
static_assert(sizeof(ap_info_s) == 28 && offsetof(ap_info_s, signal) == 8 &&
              offsetof(ap_info_s, channel) == 12 && offsetof(ap_info_s, bw) == 16 &&
              offsetof(ap_info_s, tx_power) == 20 && offsetof(ap_info_s, chanspec) == 24);

// One associated station. The flags are kernel bools, kept as bytes: any value may come.
struct sta_info_s {
    std::uint8_t mac[6];
    std::uint8_t padding_1[2];
    std::int32_t rssi[4];  // dBm + 100, one per receive chain
    std::uint8_t roam_attempt;
    std::uint8_t is_no_balance;
    std::uint8_t padding_2[2];
};
static_assert(sizeof(sta_info_s) == 28 && offsetof(sta_info_s, rssi) == 8 &&
              offsetof(sta_info_s, roam_attempt) == 24 &&
              offsetof(sta_info_s, is_no_balance) == 25);

// The buffer that a record lives in. Its size does not fit the 16 bits of iw_point.length, which
// carries the low ones; the kernel knows the size by contract.
inline constexpr std::size_t vexor_buffer_size = 0x1FFFE;
inline constexpr std::uint16_t vexor_buffer_length = 0xFFFE;
inline constexpr std::size_t vexor_head_size = 16;  // of a record without its entries
// Handed to each filler: the kernel expects twice the room of the buffer to be announced, and
// never fills more than the buffer.
inline constexpr int vexor_capacity_factor = 2;

// The array that ends a payload: entries of one kind, which begin `Offset` bytes into the record.
template <typename Entry, std::size_t Offset>
struct vexor_list {
    static constexpr std::size_t offset = Offset;

    // Entries that a buffer really holds; a 16-bit index counts them.
    static constexpr std::size_t room = (vexor_buffer_size - Offset) / sizeof(Entry);
    static_assert(room <= UINT16_MAX);

    // Entries that the kernel is told there is room for in `size` bytes.
    static constexpr std::uint32_t capacity(int factor, unsigned size) {
        return static_cast<std::uint32_t>((size - vexor_head_size) / sizeof(Entry)) *
               static_cast<std::uint32_t>(factor);
    }

    // `index` below room.
    static Entry at(const void* record, std::uint16_t index) {
        Entry entry;
        std::memcpy(&entry, static_cast<const std::byte*>(record) + Offset + index * sizeof(Entry),
                    sizeof(Entry));
        return entry;
    }
};

// The payloads. A `size` is the room that the caller announces and the number of entries that the
// kernel returns.
struct array_s {
    std::uint32_t size;
    using array = vexor_list<std::int32_t, 8>;
};
struct vexor_custom_scan_s {
    std::uint32_t count;
    using channels = vexor_list<std::uint16_t, 8>;
};
struct scan_result_s {
    std::uint32_t size;
    using aps = vexor_list<ap_info_s, 8>;
};
struct assoc_stas_s {
    std::uint8_t channel;
    std::uint8_t padding[3];
    std::uint32_t size;
    using stas = vexor_list<sta_info_s, 12>;
};
struct details_pmkid_s {
    std::uint8_t sta_addr[6];
    std::uint8_t padding[2];
    std::int32_t details_invalid_pmkid;
};

struct vexor_command {
    std::uint32_t cmd;
    union {
        array_s array;
        vexor_custom_scan_s custom_scan;
        scan_result_s scan_result;
        assoc_stas_s assoc_stas;
        details_pmkid_s details_pmkid;
    };
};
static_assert(sizeof(vexor_command) == 16 && sizeof(vexor_command) == vexor_head_size &&
              offsetof(vexor_command, array.size) == 4 &&
              offsetof(vexor_command, custom_scan.count) == 4 &&
              offsetof(vexor_command, scan_result.size) == 4 &&
              offsetof(vexor_command, assoc_stas.channel) == 4 &&
              offsetof(vexor_command, assoc_stas.size) == 8 &&
              offsetof(vexor_command, details_pmkid.sta_addr) == 4 &&
              offsetof(vexor_command, details_pmkid.details_invalid_pmkid) == 12);

#endif
