#include "krds.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>

#include "datafile.h"
#include "logsink.h"

namespace KRDS {

namespace {

struct Radio {
    std::string ifname;
    RadioDescription description;
};
using Registry = std::vector<Radio>;

struct ReleaseTree {
    void operator()(cfgtree_node* node) const { cfgtree_release(node); }
};

template <typename Value>
struct Name {
    std::string_view text;
    Value value;
};

constexpr Name<Driver> kDrivers[] = {
    {"rtl8192cd", Driver::RTL8192CD},
    {"g6", Driver::G6},
#ifdef LUMD_NL80211
    {"nl80211", Driver::NL80211},
#endif
};
constexpr Name<Band> kBands[] = {
    {"2.4GHz", Band::BAND_24G}, {"5GHz", Band::BAND_5G}, {"6GHz", Band::BAND_6G}};
constexpr Name<AntennaGainType> kGainTypes[] = {{"fixed", AntennaGainType::FIXED},
                                                {"configurable", AntennaGainType::CONFIGURABLE},
                                                {"none", AntennaGainType::NONE}};

// The value that `text` (null allowed) names; an error line when there is none.
template <typename Value, std::size_t count>
std::optional<Value> find_name(const Name<Value> (&names)[count], const char* text,
                               const std::string& ifname, const char* what) {
    for (const Name<Value>& name : names)
        if (text && name.text == text)
            return name.value;
    logsink_message(SINK_ERROR, "radios.json: %s has no known %s (%s)", ifname.c_str(), what,
                    text ? text : "none given");
    return std::nullopt;
}

void read_bands(const cfgtree_node* bands, Radio& radio) {
    for (std::size_t i = 0; i < cfgtree_array_length(bands); i++) {
        const cfgtree_node* entry = cfgtree_array_at(bands, i);
        const bool text = cfgtree_get_type(entry) == CFGTREE_STRING;
        const auto band =
            find_name(kBands, text ? cfgtree_serialize(entry) : nullptr, radio.ifname, "band");
        if (band)
            radio.description.bands.push_back(*band);
    }
}

void read_antenna_gain(const cfgtree_node* gain, Radio& radio) {
    if (!gain)
        return;
    const auto type =
        find_name(kGainTypes, cfgtree_get_param(gain, "type"), radio.ifname, "antenna gain");
    radio.description.antenna_gain_type = type.value_or(AntennaGainType::NONE);
    if (datafile_get_int(gain, "value", &radio.description.fixed_antenna_gain) != 0)
        logsink_message(SINK_ERROR, "radios.json: antenna gain of %s is no integer",
                        radio.ifname.c_str());
}

// Empty, with an error line, for an entry without which name or driver it is.
std::optional<Radio> read_radio(const cfgtree_node* entry) {
    const char* ifname = cfgtree_get_param(entry, "ifname");
    if (!ifname || !*ifname) {
        logsink_message(SINK_ERROR, "radios.json: radio without an ifname skipped");
        return std::nullopt;
    }
    Radio radio{ifname, {}};
    const auto driver =
        find_name(kDrivers, cfgtree_get_param(entry, "driver"), radio.ifname, "driver");
    if (!driver)
        return std::nullopt;
    radio.description.driver = *driver;
    read_bands(cfgtree_get_child(entry, "bands"), radio);
    read_antenna_gain(cfgtree_get_child(entry, "antenna-gain"), radio);
    return radio;
}

const Radio* find(const Registry& registry, const std::string& ifname) {
    const auto found = std::find_if(registry.begin(), registry.end(),
                                    [&](const Radio& radio) { return radio.ifname == ifname; });
    return found == registry.end() ? nullptr : &*found;
}

Registry read_registry() {
    Registry registry;
    const std::unique_ptr<cfgtree_node, ReleaseTree> file{datafile_load("radios.json")};
    const cfgtree_node* radios = cfgtree_get_child(file.get(), "radios");
    if (file && cfgtree_get_type(radios) != CFGTREE_ARRAY)
        logsink_message(SINK_ERROR, "radios.json: there is no list of radios");
    for (std::size_t i = 0; i < cfgtree_array_length(radios); i++) {
        std::optional<Radio> radio = read_radio(cfgtree_array_at(radios, i));
        if (radio && find(registry, radio->ifname))
            logsink_message(SINK_ERROR, "radios.json: second entry of %s skipped",
                            radio->ifname.c_str());
        else if (radio)
            registry.push_back(std::move(*radio));
    }
    return registry;
}

std::mutex registry_mutex;
std::shared_ptr<const Registry> current;  // null until the first question

std::shared_ptr<const Registry> registry_now() {
    const std::lock_guard lock{registry_mutex};
    if (!current)
        current = std::make_shared<const Registry>(read_registry());
    return current;
}

}  // namespace

Band RadioDescription::band() const {
    const auto supported =
        std::find_if(bands.begin(), bands.end(), [](Band b) { return b != Band::UNSUPPORTED; });
    return supported == bands.end() ? Band::UNSUPPORTED : *supported;
}

void for_each_radio(const RadioCallback& callback) {
    const std::shared_ptr<const Registry> registry = registry_now();
    for (const Radio& radio : *registry)
        if (callback(radio.ifname, radio.description))
            return;
}

std::optional<RadioDescription> find_radio(const std::string& ifname) {
    const std::shared_ptr<const Registry> registry = registry_now();
    const Radio* radio = find(*registry, ifname);
    return radio ? std::optional{radio->description} : std::nullopt;
}

void reload() {
    const std::lock_guard lock{registry_mutex};
    current.reset();
}

}  // namespace KRDS
