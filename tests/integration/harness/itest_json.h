// itest_json.h - reading what the sandbox's programs answer in JSON (json-c): an owning
// pointer, parsing, and members by path. Tests that include it link json-c.
#pragma once

#include <json-c/json.h>

#include <initializer_list>
#include <memory>
#include <string>

namespace itest {

struct JsonPut {
    void operator()(json_object *o) const { json_object_put(o); }
};
using JsonPtr = std::unique_ptr<json_object, JsonPut>;

// Null when the text is not JSON.
inline JsonPtr parse(const std::string &text) { return JsonPtr(json_tokener_parse(text.c_str())); }

// Member by a path of keys and array indexes ("devEventList", "0", ...); null when absent.
inline json_object *at(json_object *o, std::initializer_list<const char *> path)
{
    for (const char *k : path) {
        if (!o)
            return nullptr;
        if (json_object_is_type(o, json_type_array))
            o = json_object_array_get_idx(o, std::stoul(k));
        else if (!json_object_object_get_ex(o, k, &o))
            return nullptr;
    }
    return o;
}

}  // namespace itest
