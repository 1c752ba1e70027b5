#include "config_store.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <utility>

#include "config_rules.h"
#include "logsink.h"
#include "stored_file.h"
#include "text_values.h"

namespace apd {

namespace {

// The tree in a file; an empty one when there is no file; null, with the reason, when it cannot be
// used.
Json read_tree(const std::string& file, std::string& reason) {
    const std::optional<std::string> text = read_file(file);
    if (!text) {
        if (errno == ENOENT)
            return new_object();
        reason = std::strerror(errno);
        return nullptr;
    }
    Json tree = parse_json(*text);
    if (json_object_is_type(tree.get(), json_type_object) == 0) {
        reason = "no JSON object";
        return nullptr;
    }
    return tree;
}

std::string for_people(json_object* tree) {
    return std::string{json_object_to_json_string_ext(tree, JSON_C_TO_STRING_PRETTY |
                                                                JSON_C_TO_STRING_SPACED |
                                                                JSON_C_TO_STRING_NOSLASHESCAPE)} +
           '\n';
}

// Nothing that read_tree() could not take.
bool replace_tree(const std::string& file, json_object* tree) {
    const std::string text = for_people(tree);
    if (text.size() > kMaxFileBytes) {
        errno = EFBIG;
        return false;
    }
    return replace_file(file, text);
}

// Whether one path is the other or leads to it.
bool leads_to(const std::string& path, const std::string& other) {
    return other == path || other.starts_with(path + '/');
}

std::vector<std::string> differences(json_object* one, json_object* other) {
    std::set<std::string> paths;
    const auto compare = [&paths](json_object* from, json_object* to) {
        for_each_leaf(from, [&](const std::string& path, json_object* value) {
            if (json_object_equal(value, find_path(to, path)) == 0)
                paths.insert(path);
        });
    };
    compare(one, other);
    compare(other, one);
    return {paths.begin(), paths.end()};
}

}  // namespace

ConfigStore::ConfigStore(Files files, Judge judge)
    : files_(std::move(files)),
      judge_(judge),
      stored_(new_object()),
      candidate_(new_object()),
      running_(new_object()) {}

bool ConfigStore::load() {
    if (!take(files_.stored))
        return false;
    std::error_code error;
    if (!std::filesystem::exists(files_.stored, error))
        logsink_message(SINK_WARNING, "there is no %s: no access point is set up",
                        files_.stored.c_str());
    keep_copy();
    return true;
}

bool ConfigStore::load_last_good() {
    std::error_code error;
    return std::filesystem::exists(files_.last_good, error) && take(files_.last_good);
}

// Best effort: without it a broken file leaves nothing to go back to at the next start.
void ConfigStore::keep_copy() const {
    if (!files_.last_good.empty() && !replace_tree(files_.last_good, stored_.get()))
        logsink_message(SINK_WARNING, "cannot write %s: %s", files_.last_good.c_str(),
                        std::strerror(errno));
}

bool ConfigStore::take(const std::string& file) {
    std::string reason;
    Json tree = read_tree(file, reason);
    if (tree)
        reason = why_tree_refused(tree.get());
    if (tree && reason.empty())
        reason = judge_(tree.get());
    if (!tree || !reason.empty()) {
        logsink_message(SINK_ERROR, "cannot use %s: %s", file.c_str(), for_log(reason).c_str());
        return false;
    }
    stored_ = std::move(tree);
    candidate_ = copy_of(stored_.get());
    rebuild();
    fit_service();
    return true;
}

void ConfigStore::load_service() {
    if (files_.service.empty())
        return;
    std::string reason;
    const Json values = read_tree(files_.service, reason);
    if (!values) {
        logsink_message(SINK_ERROR, "cannot use %s: %s", files_.service.c_str(), reason.c_str());
        return;
    }
    for_each_member(values.get(), [this](const std::string& path, json_object* value) {
        if (const std::string why = why_refused_of_service(path, value); !why.empty())
            logsink_message(SINK_WARNING, "leaves out of %s: %s", files_.service.c_str(),
                            for_log(why).c_str());
        else
            service_[path] = copy_of(value);
    });
    rebuild();
    fit_service();
}

// What is stored is right by itself; the access points go by that.
void ConfigStore::fit_service() {
    const std::string why = judge_(running_.get());
    if (why.empty())
        return;
    logsink_message(SINK_WARNING, "forgets what the service had set: %s", for_log(why).c_str());
    std::erase_if(service_, [](const auto& entry) { return leads_to("/interface", entry.first); });
    save_service();
    rebuild();
}

json_object* ConfigStore::get(const std::string& path) const {
    return find_path(running_.get(), canonical_path(path));
}

std::string ConfigStore::set(const std::string& path, Json value) {
    const std::string where = canonical_path(path);
    if (split_path(where).empty())
        return for_log(path) + " is no path";
    if (!value && find_path(candidate_.get(), where) == nullptr)
        return "there is nothing at " + for_log(path);
    Json changed = copy_of(candidate_.get());
    put_path(changed.get(), where, std::move(value));
    if (std::string reason = why_tree_refused(changed.get()); !reason.empty())
        return reason;
    candidate_ = std::move(changed);
    return "";
}

std::string ConfigStore::commit() {
    const std::vector<std::string> paths = changes();
    if (std::string reason = judge_(candidate_.get()); !reason.empty())
        return reason;
    if (!replace_tree(files_.stored, candidate_.get()))
        return files_.stored + ": " + std::strerror(errno);
    stored_ = copy_of(candidate_.get());
    keep_copy();
    const std::size_t before = service_.size();
    for (const std::string& path : paths)
        std::erase_if(service_, [&](const auto& entry) {
            return leads_to(path, entry.first) || leads_to(entry.first, path);
        });
    if (service_.size() != before)
        save_service();
    rebuild();
    fit_service();
    return "";
}

void ConfigStore::revert() {
    candidate_ = copy_of(stored_.get());
}

std::vector<std::string> ConfigStore::changes() const {
    return differences(stored_.get(), candidate_.get());
}

void ConfigStore::set_service(const std::string& path, Json value) {
    service_[path] = std::move(value);
    save_service();
    rebuild();
}

bool ConfigStore::reset_service(const std::string& path) {
    const std::size_t gone =
        std::erase_if(service_, [&](const auto& entry) { return leads_to(path, entry.first); });
    if (gone == 0)
        return false;
    save_service();
    rebuild();
    return true;
}

json_object* ConfigStore::service_value(const std::string& path) const {
    const auto found = service_.find(path);
    return found != service_.end() ? found->second.get() : nullptr;
}

void ConfigStore::rebuild() {
    running_ = copy_of(stored_.get());
    for (const auto& [path, value] : service_)
        put_path(running_.get(), path, copy_of(value.get()));
}

void ConfigStore::save_service() const {
    if (files_.service.empty())
        return;
    const Json values = new_object();
    for (const auto& [path, value] : service_)
        json_object_object_add(values.get(), path.c_str(), copy_of(value.get()).release());
    if (!replace_tree(files_.service, values.get()))
        logsink_message(SINK_ERROR, "cannot write %s: %s", files_.service.c_str(),
                        std::strerror(errno));
}

}  // namespace apd
