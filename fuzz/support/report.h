// What the agent says to a service.
#ifndef FUZZ_REPORT_H
#define FUZZ_REPORT_H

#include <json-c/json.h>

#include <memory>

#include "input.h"
#include "safe_queue.h"

namespace fuzz {

// One JSON object in UTF-8, as a strict peer takes it (RFC 8259, 8.1).
inline bool is_report(const char* text) {
    const std::unique_ptr<json_tokener, decltype(&json_tokener_free)> tokener(json_tokener_new(),
                                                                              json_tokener_free);
    json_tokener_set_flags(tokener.get(), JSON_TOKENER_STRICT | JSON_TOKENER_VALIDATE_UTF8);
    const std::unique_ptr<json_object, decltype(&json_object_put)> object(
        json_tokener_parse_ex(tokener.get(), text, -1), json_object_put);
    return json_object_is_type(object.get(), json_type_object) != 0;
}

inline void check_reports(safe_queue& to_service) {
    while (to_service.dequeue(
        [](const buffer_info_ptr& report) { require(is_report(report->c_str())); })) {
    }
}

}  // namespace fuzz

#endif
