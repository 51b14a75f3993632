// Registry values: reading, writing, and their forms as text and JSON.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "session.h"

namespace osalctl {

using Json = nlohmann::ordered_json;

struct Value {
    UINT32 type = KX_REG_BINARY;
    UINT64 number = 0;                 // of the 32-bit and 64-bit types
    std::string bytes;                 // of KX_REG_BINARY
    std::vector<std::string> strings;  // UTF-8; KX_REG_SZ has exactly one
};

struct NamedValue {
    std::string name;
    Value value;
};

const char* type_name(UINT32 type);
UINT32 type_of_name(const std::string& name);

// From the words of a command line; throws what is wrong with them.
Value parse_value(const std::string& type, const std::vector<std::string>& words);
std::string to_text(const Value& value);

Json to_json(const Value& value);
Value from_json(const Json& json, const std::string& where);

std::optional<Value> read_value(const Session& session, const Key& key, const std::string& name);
void write_value(const Session& session, const Key& key, const std::string& name,
                 const Value& value);
std::vector<NamedValue> read_values(const Session& session, const Key& key);
std::vector<std::string> read_sub_keys(const Session& session, const Key& key);

}  // namespace osalctl
