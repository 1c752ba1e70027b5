#include "json_memory.h"

#include <dlfcn.h>
#include <json-c/json.h>

namespace {

thread_local JsonShortage::Kind next_to_fail = JsonShortage::NONE;

json_object* make(JsonShortage::Kind kind, const char* constructor) {
    if (next_to_fail == kind) {
        next_to_fail = JsonShortage::NONE;
        return nullptr;
    }
    // The definition that this program's own one hides.
    return reinterpret_cast<json_object* (*)()>(dlsym(RTLD_NEXT, constructor))();
}

}  // namespace

extern "C" json_object* json_object_new_object() {
    return make(JsonShortage::OBJECT, "json_object_new_object");
}

extern "C" json_object* json_object_new_array() {
    return make(JsonShortage::ARRAY, "json_object_new_array");
}

JsonShortage::JsonShortage(Kind kind) {
    next_to_fail = kind;
}

JsonShortage::~JsonShortage() {
    next_to_fail = NONE;
}

bool JsonShortage::has_struck() const {
    return next_to_fail == NONE;
}
