// The platform's JSON files: a byte for which of them, then its content.
#include <cstdlib>
#include <cstring>

#include "antcfg.h"
#include "factorydata.h"
#include "file.h"
#include "input.h"
#include "krds.h"
#include "owned.h"
#include "temporary_folder.h"

namespace {

// The files of $LUMD_PLATFORM_DIR.
struct Files {
    Files() { setenv("LUMD_PLATFORM_DIR", folder.path().c_str(), 1); }

    TemporaryFolder folder;
    fuzz::File factory{folder / "factory.json"};
    fuzz::File radios{folder / "radios.json"};
    fuzz::File antennas{folder / "antennas.json"};
};

void ask_factory() {
    factorydata_record record;
    factorydata_load(&record);
    for (const auto& text : {record.board, record.hw, record.serial, record.mac})
        fuzz::require(std::memchr(text, '\0', FACTORYDATA_TEXT_BYTES) != nullptr);
}

void ask_radios() {
    KRDS::reload();
    KRDS::for_each_radio([](const std::string& ifname, const KRDS::RadioDescription& radio) {
        fuzz::require(!ifname.empty() && KRDS::find_radio(ifname).has_value());
        static_cast<void>(radio.band());
        return false;
    });
}

void ask_antenna(std::string_view configuration) {
    const cfgtree_ptr tree{cfgtree_parse_buffer(configuration.data(), configuration.size())};
    antcfg_record record{};
    std::memcpy(record.name, "roof", sizeof "roof");
    antcfg_get("wlan0", tree.get(), &record);
    fuzz::require(std::memchr(record.name, '\0', sizeof record.name) != nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Files files;
    fuzz::Reader input{fuzz::as_text(data, size)};
    switch (input.byte() % 4) {
        case 0:
            files.factory.set(input.rest());
            ask_factory();
            break;
        case 1:
            files.radios.set(input.rest());
            ask_radios();
            break;
        case 2:
            files.antennas.set(input.rest());
            ask_antenna("{}");
            break;
        default:
            files.antennas.set(R"({"antennas":[{"name":"wall","antenna-gain":25}]})");
            ask_antenna(input.rest());
            break;
    }
    return 0;
}
