#include "requests.h"

#include <unistd.h>

#include <map>
#include <utility>

#include "config_rules.h"
#include "interface_name.h"
#include "logsink.h"
#include "text_values.h"
#include "unset_values.h"

namespace apd {

namespace {

using Request = Requests::Request;

std::string command_of(const Request& request) {
    return member_text(request->message(), "command");
}

Json answer_to(const Request& request) {
    Json answer = new_object();
    set_text(answer.get(), "command", command_of(request) + "-response");
    return answer;
}

void finish(const Request& request, const std::string& reason) {
    const Json answer = answer_to(request);
    set_text(answer.get(), "status", reason.empty() ? "ok" : "error");
    if (!reason.empty()) {
        set_text(answer.get(), "reason", reason);
        logsink_message(SINK_WARNING, "refuses %s: %s", for_log(command_of(request)).c_str(),
                        for_log(reason).c_str());
    }
    request->answer(answer);
}

// Root, and who runs this process.
bool is_trusted(const Request& request) {
    return request->uid() == 0 || request->uid() == getuid();
}

// Without what only the trusted may see.
Json without_secrets(json_object* node, const std::string& path) {
    Json shown = copy_of(node);
    for_each_leaf(node, [&](const std::string& below, json_object*) {
        if (is_secret(path + below))
            put_path(shown.get(), below, Json{json_object_new_string("********")});
    });
    return shown;
}

std::map<std::string, json_object*> vap_members(const Request& request) {
    std::map<std::string, json_object*> members;
    for_each_member(request->message(), [&](const std::string& name, json_object* value) {
        if (json_object_is_type(value, json_type_object) != 0)
            members[name] = value;
    });
    return members;
}

}  // namespace

struct Requests::Row {
    const char* command;
    Handler handler;
    Module module;
    bool changes_settings;
};

const Requests::Row Requests::kRows[] = {
    {"get", &Requests::get, kStore, false},
    {"show", &Requests::show, kStore, false},
    {"set", &Requests::set, kStore, true},
    {"changes", &Requests::changes, kStore, false},
    {"commit", &Requests::commit, kStore, true},
    {"revert", &Requests::revert, kStore, true},
    {"status", &Requests::status, kStore, false},
    {"settings", &Requests::settings, kStore, false},
    {"update-orvanta", &Requests::update_radio, kManager, false},
    {"reset-orvanta", &Requests::reset_radio, kManager, false},
    {"update-orvanta-fbt", &Requests::update_ft, kManager, false},
    {"reset-orvanta-fbt", &Requests::reset_ft, kManager, false},
    {"update-wids-mac-lists", &Requests::update_mac_lists, kManager, false},
    {"lock-scan", &Requests::lock_scan, kScan, false},
    {"unlock-scan", &Requests::unlock_scan, kScan, false},
};

void Requests::take(Module module, const Request& request) {
    // What it sets could not be read again from its file.
    if (is_deeper_than(request->message(), kDeepest)) {
        finish(request, "the request is nested too deeply");
        return;
    }
    const std::string command = command_of(request);
    for (const Row& row : kRows) {
        if (row.module != module || command != row.command)
            continue;
        if (row.changes_settings && !is_trusted(request))
            finish(request, "only root may change the settings");
        else
            (this->*row.handler)(request);
        return;
    }
    finish(request, "there is no command \"" + for_log(command) + '"');
}

void Requests::get(const Request& request) {
    const std::string path = member_text(request->message(), "path");
    const Json answer = answer_to(request);
    set_text(answer.get(), "path", path);
    json_object* const set = store_.get(path);
    const Json unset = set == nullptr ? unset_value(store_.running(), path) : nullptr;
    json_object* const value = set != nullptr ? set : unset.get();
    if (value == nullptr) {
        set_text(answer.get(), "status", "error");
        set_text(answer.get(), "reason", "not found");
    } else if (is_trusted(request)) {
        json_object_object_add(answer.get(), "value", copy_of(value).release());
    } else if (is_secret(path)) {
        set_text(answer.get(), "status", "error");
        set_text(answer.get(), "reason", "only root may see it");
    } else {
        json_object_object_add(answer.get(), "value", without_secrets(value, path).release());
    }
    request->answer(answer);
}

// All that is in force, for people: never a password.
void Requests::show(const Request& request) {
    const Json answer = answer_to(request);
    set_text(answer.get(), "status", "ok");
    const std::string which = member_text(request->message(), "which");
    json_object* const tree = which == "stored"      ? store_.stored()
                              : which == "candidate" ? store_.candidate()
                                                     : store_.running();
    json_object_object_add(answer.get(), "value", without_secrets(tree, "").release());
    request->answer(answer);
}

void Requests::set(const Request& request) {
    json_object* const value = member(request->message(), "value");
    finish(request, store_.set(member_text(request->message(), "path"),
                               value != nullptr ? copy_of(value) : nullptr));
}

void Requests::changes(const Request& request) {
    const Json answer = answer_to(request);
    set_text(answer.get(), "status", "ok");
    json_object* const list = json_object_new_array();
    for (const std::string& path : store_.changes()) {
        json_object* const change = json_object_new_object();
        set_text(change, "path", path);
        const auto add = [&](const char* name, json_object* tree) {
            if (json_object* const value = find_path(tree, path))
                set_text(change, name, is_secret(path) ? "********" : shown_text(value));
        };
        add("before", store_.stored());
        add("now", store_.candidate());
        json_object_array_add(list, change);
    }
    json_object_object_add(answer.get(), "value", list);
    request->answer(answer);
}

void Requests::commit(const Request& request) {
    finish(request, manager_.commit());
}

void Requests::revert(const Request& request) {
    store_.revert();
    finish(request, "");
}

void Requests::status(const Request& request) {
    const Json answer = answer_to(request);
    set_text(answer.get(), "status", "ok");
    json_object_object_add(answer.get(), "value", manager_.status().release());
    request->answer(answer);
}

// What may be set, for completion and for people.
void Requests::settings(const Request& request) {
    const Json answer = answer_to(request);
    set_text(answer.get(), "status", "ok");
    json_object* const list = json_object_new_array();
    for (const KnownSetting& known : known_settings()) {
        json_object* const one = json_object_new_object();
        set_text(one, "path", known.path);
        set_text(one, "takes", known.takes);
        json_object_array_add(list, one);
    }
    json_object_object_add(answer.get(), "value", list);
    request->answer(answer);
}

void Requests::update_radio(const Request& request) {
    json_object* const params = member(request->message(), "params");
    Manager::Params list;
    for_each_member(params, [&](const std::string& name, json_object* value) {
        list.emplace_back(name, scalar_text(value));
    });
    if (list.empty()) {
        finish(request, "there are no params");
        return;
    }
    manager_.update_radio(member_text(request->message(), "ifname"), list,
                          [request](const std::string& reason) { finish(request, reason); });
}

void Requests::reset_radio(const Request& request) {
    manager_.reset_radio(member_text(request->message(), "ifname"),
                         [request](const std::string& reason) { finish(request, reason); });
}

void Requests::update_ft(const Request& request) {
    std::map<std::string, json_object*> configs;
    for (const auto& [name, document] : vap_members(request)) {
        json_object* const config = member(document, "ft-config");
        if (!parse_vap(name) || json_object_is_type(config, json_type_object) == 0) {
            finish(request, for_log(name) + " is no access point with an ft-config");
            return;
        }
        if (scalar_text(store_.get("/interface/" + name + "/common/enabled")) != "true") {
            finish(request, name + " is not enabled");
            return;
        }
        configs[name] = config;
    }
    manager_.update_ft(configs, [request](const std::string& reason) { finish(request, reason); });
}

void Requests::reset_ft(const Request& request) {
    std::map<std::string, json_object*> configs;
    // The agent names all that there could be.
    for (const auto& [name, document] : vap_members(request))
        if (parse_vap(name))
            configs[name] = nullptr;
    manager_.update_ft(configs, [request](const std::string& reason) { finish(request, reason); });
}

void Requests::update_mac_lists(const Request& request) {
    const Json lists = copy_of(request->message());
    json_object_object_del(lists.get(), "command");
    manager_.set_mac_lists(lists.get());
    finish(request, "");
}

// Both get no answer.
void Requests::lock_scan(const Request& request) {
    manager_.lock_scan(member_text(request->message(), "interface"));
}

void Requests::unlock_scan(const Request& request) {
    manager_.unlock_scan(member_text(request->message(), "interface"));
}

}  // namespace apd
