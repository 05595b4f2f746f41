// The scenario: the values that describe the world around the board (the bath, the sensors, the
// card, the instruments), what each key accepts, and the effects a new value has on the runtime.
#include "runtime_internal.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace sim {

namespace {

// What a scenario value may be: a number within a range (whole where it counts something), one of
// a few names, or any text.
struct KeySpec {
    const char* key;
    enum Kind { number, whole, name, text } kind;
    double lo;
    double hi;
    const char* names; // for `name`: the accepted values, separated by blanks
};

const KeySpec key_specs[] = {
    {"bath.ph", KeySpec::number, 0.0, 14.0, nullptr},
    {"bath.temp", KeySpec::number, -5.0, 60.0, nullptr},
    {"bath.sal", KeySpec::number, 0.1, 60.0, nullptr},
    {"bath.no3", KeySpec::number, 0.0, 100.0, nullptr},
    {"bath.o2", KeySpec::number, 0.0, 1000.0, nullptr},
    {"bath.light", KeySpec::number, 0.0, 1000.0, nullptr},
    {"sensor.k0int", KeySpec::number, -3.0, 3.0, nullptr},
    {"sensor.k0ext", KeySpec::number, -3.0, 3.0, nullptr},
    {"sensor.vk", KeySpec::number, -3.0, 3.0, nullptr},
    {"sensor.ik", KeySpec::number, -3.0, 3.0, nullptr},
    {"sensor.ib", KeySpec::number, -3.0, 3.0, nullptr},
    {"adc.noise_uv", KeySpec::number, 0.0, 1e6, nullptr},
    {"adc.seed", KeySpec::whole, 0.0, 4294967295.0, nullptr},
    {"adc.stuck", KeySpec::whole, 0.0, 1.0, nullptr},
    {"board.vbat", KeySpec::number, 0.0, 40.0, nullptr},
    {"board.temp", KeySpec::number, -40.0, 85.0, nullptr},
    {"board.humidity", KeySpec::number, 0.0, 100.0, nullptr},
    {"board.amps", KeySpec::number, -15.0, 15.0, nullptr},
    {"board.bme280.id", KeySpec::whole, 0.0, 255.0, nullptr},
    {"board.fram", KeySpec::whole, 0.0, 1.0, nullptr},
    {"board.ina260", KeySpec::whole, 0.0, 1.0, nullptr},
    {"board.pcal6416", KeySpec::whole, 0.0, 1.0, nullptr},
    {"board.xtal", KeySpec::whole, 0.0, 1.0, nullptr},
    {"bias.pos", KeySpec::number, 0.0, 12.0, nullptr},
    {"bias.neg", KeySpec::number, -12.0, 0.0, nullptr},
    {"hibernate.fail", KeySpec::whole, 0.0, 255.0, nullptr},
    {"card.cut_after_writes", KeySpec::whole, 0.0, 1e9, nullptr},
    {"card", KeySpec::name, 0, 0, "present absent protected"},
    {"card.type", KeySpec::name, 0, 0, "sdhc sdsc sdv1 mmc badv2"},
    {"port3", KeySpec::name, 0, 0,
     "none optode optode-silent optode-garbage optode-slow optode-short ocr ocr-silent ocr-garbage ocr-slow "
     "ocr-short brisa brisa-silent brisa-garbage brisa-slow brisa-short picoph picoph-silent picoph-garbage "
     "picoph-slow picoph-short"},
    {"port4", KeySpec::name, 0, 0,
     "none sbe37 sbe37-silent sbe37-garbage sbe37-slow sbe37-short aand5860 aand5860-silent aand5860-garbage "
     "aand5860-slow aand5860-short"},
    {"port4.reply", KeySpec::text, 0, 0, nullptr},
    {"port4.delay", KeySpec::number, 0.0, 60.0, nullptr},
    {"uvs", KeySpec::name, 0, 0, "present none silent garbage lamp-fail lamp-weak"},
    {"uvs.noise", KeySpec::number, 0.0, 1000.0, nullptr},
    {"uvs.seed", KeySpec::whole, 0.0, 4294967295.0, nullptr},
};

bool is_one_of(const std::string& value, const char* names) {
    std::istringstream words(names);
    std::string w;
    while (words >> w) {
        if (w == value) {
            return true;
        }
    }
    return false;
}

ScenarioEntry* scenario_find(const std::string& key) {
    Scenario& sc = shared().scenario;
    for (int i = 0; i < sc.count; ++i) {
        if (key == sc.entries[i].key) {
            return &sc.entries[i];
        }
    }
    return nullptr;
}

} // namespace

bool scenario_check(const std::string& key, const std::string& value, std::string& why) {
    for (const KeySpec& k : key_specs) {
        if (key != k.key) {
            continue;
        }
        if (k.kind == KeySpec::text) {
            return true;
        }
        if (k.kind == KeySpec::name) {
            if (is_one_of(value, k.names)) {
                return true;
            }
            why = std::string("not one of: ") + k.names;
            return false;
        }
        char* end = nullptr;
        double v = std::strtod(value.c_str(), &end);
        if (value.empty() || end == value.c_str() || *end != '\0' || !std::isfinite(v)) {
            why = "not a number";
            return false;
        }
        if (k.kind == KeySpec::whole && v != std::floor(v)) {
            why = "not a whole number";
            return false;
        }
        if (v < k.lo || v > k.hi) {
            char range[96];
            std::snprintf(range, sizeof range, "outside %g to %g", k.lo, k.hi);
            why = range;
            return false;
        }
        return true;
    }
    why = "no such key";
    return false;
}

bool scenario_set(const std::string& key, const std::string& value) {
    Scenario& sc = shared().scenario;
    if (key.size() >= sizeof sc.entries[0].key || value.size() >= sizeof sc.entries[0].value) {
        return false;
    }
    ScenarioEntry* e = scenario_find(key);
    if (!e) {
        if (sc.count == scenario_max) {
            return false;
        }
        e = &sc.entries[sc.count++];
        std::strcpy(e->key, key.c_str());
    }
    std::strcpy(e->value, value.c_str());
    sc.changes++;
    return true;
}

uint32_t scenario_changes() {
    return shared().scenario.changes;
}

void scenario_apply(const std::string& key) {
    Shared& s = shared();
    if (key == "hibernate.fail") {
        double n = scenario_num(key, 0);
        s.hib.fail_requests = static_cast<uint8_t>(std::clamp(n, 0.0, 255.0));
    } else if (key == "card") {
        std::string v = scenario_str("card", "present");
        if (v != "absent" && v.size() < sizeof s.card_kind) {
            std::strcpy(s.card_kind, v.c_str());
        }
        ++s.card_changes;
    }
}

double scenario_num(const std::string& key, double dflt) {
    const ScenarioEntry* e = scenario_find(key);
    if (!e) {
        return dflt;
    }
    char* end = nullptr;
    double v = std::strtod(e->value, &end);
    if (end == e->value || *end != '\0') {
        return dflt;
    }
    return v;
}

std::string scenario_str(const std::string& key, const std::string& dflt) {
    const ScenarioEntry* e = scenario_find(key);
    return e ? std::string(e->value) : dflt;
}

uint32_t card_changes() {
    return shared().card_changes;
}

} // namespace sim
