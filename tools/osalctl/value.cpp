#include "value.h"

#include <cstdlib>
#include <cstring>

namespace osalctl {
namespace {

constexpr const char* kTypeNames[] = {"binary", "uint32", "string", "strings", "uint64"};
constexpr const char* kTypeList = "binary, uint32, uint64, string or strings";
constexpr UINT32 kFirstRoom = 4096;
constexpr UINT32 kMostRoom = 1u << 30;

bool is_number(UINT32 type) {
    return type == KX_REG_UINT32 || type == KX_REG_UINT64;
}

UINT64 parse_number(const std::string& text, UINT32 type) {
    char* end = nullptr;
    errno = 0;
    const UINT64 number = std::strtoull(text.c_str(), &end, 0);
    const bool fits = type == KX_REG_UINT64 || number <= UINT32_MAX;
    if (text.empty() || text.front() == '-' || *end != '\0' || errno != 0 || !fits)
        throw Failure("\"" + text + "\" is no " + type_name(type), kUsage);
    return number;
}

int digit(char text) {
    constexpr const char* kDigits = "0123456789abcdef";
    const char* found =
        text != '\0' ? std::strchr(kDigits, text | ('A' <= text ? 0x20 : 0)) : nullptr;
    return found != nullptr ? static_cast<int>(found - kDigits) : -1;
}

std::string parse_hex(const std::string& text) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < text.size() && digit(text[i]) >= 0 && digit(text[i + 1]) >= 0;
         i += 2)
        bytes.push_back(static_cast<char>(digit(text[i]) * 16 + digit(text[i + 1])));
    if (bytes.size() * 2 != text.size())
        throw Failure("\"" + text + "\" is no even number of hexadecimal digits", kUsage);
    return bytes;
}

std::string to_hex(const std::string& bytes) {
    constexpr const char* kDigits = "0123456789abcdef";
    std::string text;
    for (const char byte : bytes) {
        text.push_back(kDigits[static_cast<unsigned char>(byte) >> 4]);
        text.push_back(kDigits[byte & 15]);
    }
    return text;
}

void check_strings(const Value& value) {
    for (const std::string& text : value.strings)
        if (value.type == KX_REG_MULTI_SZ && text.empty())
            throw Failure("a list of strings cannot hold an empty one", kUsage);
}

// A record of the services with a name and data behind it.
struct Record {
    std::vector<UINT64> words;
    std::vector<UINT64>::size_type room() const { return words.size() * sizeof(UINT64); }
    char* bytes() { return reinterpret_cast<char*>(words.data()); }
    template <class Type>
    Type* as() {
        return reinterpret_cast<Type*>(words.data());
    }
    std::string text(const Session& session, std::size_t offset, std::size_t size) {
        std::u16string units(size / 2, u'\0');
        std::memcpy(units.data(), bytes() + offset, units.size() * 2);
        return session.utf8(units.data(), std::u16string(units.c_str()).size());
    }
};

// Calls a service with more and more room until the record fits.
template <class Service>
KCSTATUS with_room(Record& record, Service service) {
    for (UINT32 room = kFirstRoom;; room *= 4) {
        record.words.resize(room / sizeof(UINT64));
        UINT32 result = 0;
        const KCSTATUS status = service(record.bytes(), room, &result);
        if (KC_CODE(status) != KC_CODE_BUFFER_TOO_SMALL || room >= kMostRoom) return status;
    }
}

std::vector<std::string> split(const Session& session, const char* data, std::size_t size) {
    std::u16string text(size / 2, u'\0');
    std::memcpy(text.data(), data, text.size() * 2);
    std::vector<std::string> strings;
    for (std::size_t start = 0; start < text.size() && text[start] != 0;) {
        const std::size_t end = std::min(text.find(u'\0', start), text.size());
        strings.push_back(session.utf8(text.data() + start, end - start));
        start = end + 1;
    }
    return strings;
}

Value value_of(const Session& session, Record& record) {
    const auto* information = record.as<KX_KEY_VALUE_INFORMATION>();
    const char* data = record.bytes() + information->ValueOffset;
    const std::size_t size = information->ValueLength;
    Value value;
    value.type = information->ValueType;
    if (is_number(value.type))
        std::memcpy(&value.number, data, std::min(size, sizeof value.number));
    else if (value.type == KX_REG_MULTI_SZ)
        value.strings = split(session, data, size);
    else if (value.type == KX_REG_SZ)
        value.strings = {record.text(session, information->ValueOffset, size)};
    else
        value.bytes.assign(data, size);
    return value;
}

Json scalar_or_list(const Value& value) {
    if (is_number(value.type)) return value.number;
    if (value.type == KX_REG_MULTI_SZ) return value.strings;
    return value.type == KX_REG_SZ ? value.strings.front() : to_hex(value.bytes);
}

std::u16string wide_strings(const Session& session, const Value& value) {
    std::u16string text;
    for (const std::string& part : value.strings)
        text.append(session.wide(part)).push_back(u'\0');
    if (value.type == KX_REG_MULTI_SZ) text.push_back(u'\0');
    return text;
}

}  // namespace

const char* type_name(UINT32 type) {
    return type < std::size(kTypeNames) ? kTypeNames[type] : "unknown";
}

UINT32 type_of_name(const std::string& name) {
    for (UINT32 type = 0; type < std::size(kTypeNames); ++type)
        if (name == kTypeNames[type]) return type;
    throw Failure("\"" + name + "\" is no type: use " + kTypeList, kUsage);
}

Value parse_value(const std::string& type, const std::vector<std::string>& words) {
    Value value;
    value.type = type_of_name(type);
    if (value.type != KX_REG_MULTI_SZ && words.size() != 1)
        throw Failure("a value of type " + type + " takes exactly one word", kUsage);
    if (is_number(value.type))
        value.number = parse_number(words[0], value.type);
    else if (value.type == KX_REG_BINARY)
        value.bytes = parse_hex(words[0]);
    else
        value.strings = words;
    check_strings(value);
    return value;
}

std::string to_text(const Value& value) {
    if (value.type != KX_REG_MULTI_SZ) {
        const Json json = scalar_or_list(value);
        return json.is_string() ? json.get<std::string>() : json.dump();
    }
    std::string text;
    for (const std::string& part : value.strings)
        text.append(text.empty() ? "" : " ").append(Json(part).dump());
    return text;
}

Json to_json(const Value& value) {
    return {{"type", type_name(value.type)}, {"value", scalar_or_list(value)}};
}

Value from_json(const Json& json, const std::string& where) try {
    Value value;
    value.type = type_of_name(json.at("type"));
    const Json& content = json.at("value");
    if (is_number(value.type)) {
        if (!content.is_number_unsigned()) throw Failure("\"value\" is no whole number", kUsage);
        value.number = parse_number(content.dump(), value.type);
    } else if (value.type == KX_REG_MULTI_SZ) {
        value.strings = content.get<std::vector<std::string>>();
    } else if (value.type == KX_REG_SZ) {
        value.strings = {content.get<std::string>()};
    } else {
        value.bytes = parse_hex(content.get<std::string>());
    }
    check_strings(value);
    return value;
} catch (const Json::exception&) {
    throw Failure(where + R"(: a value looks like {"type": "uint32", "value": 1})", kUsage);
} catch (const Failure& problem) {
    throw Failure(where + ": " + problem.what(), problem.exit);
}

std::optional<Value> read_value(const Session& session, const Key& key, const std::string& name) {
    const auto wide = session.wide(name);
    Record record;
    const KCSTATUS status = with_room(record, [&](PVOID bytes, UINT32 room, PUINT32 result) {
        return session->KxQueryValueKey(session.self(), key.handle(), units(wide), bytes, room,
                                        result);
    });
    if (status == KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_REGISTRY, KC_CODE_INVALID_HANDLE))
        return std::nullopt;
    auto* information = record.as<KX_KEY_VALUE_INFORMATION>();
    // A list without strings cannot be queried, but its type is known by then.
    const bool empty_list =
        KC_CODE(status) == KC_CODE_INVALID_ARGUMENT && information->ValueType == KX_REG_MULTI_SZ;
    if (empty_list)
        information->ValueLength = 0;
    else
        check("cannot read value '" + name + "'", status);
    return value_of(session, record);
}

void write_value(const Session& session, const Key& key, const std::string& name,
                 const Value& value) {
    const auto wide = session.wide(name);
    const auto write = [&](const void* data, std::size_t size) {
        check("cannot set value '" + name + "'",
              session->KxSetValueKey(session.self(), key.handle(), units(wide), value.type, data,
                                     static_cast<UINT32>(size)));
    };
    if (is_number(value.type)) return write(&value.number, value.type == KX_REG_UINT32 ? 4 : 8);
    if (value.type == KX_REG_BINARY) return write(value.bytes.data(), value.bytes.size());
    const auto text = wide_strings(session, value);
    write(text.data(), text.size() * 2);
}

std::vector<NamedValue> read_values(const Session& session, const Key& key) {
    std::vector<NamedValue> values;
    Record record;
    for (UINT32 index = 0;; ++index) {
        const KCSTATUS status = with_room(record, [&](PVOID bytes, UINT32 room, PUINT32 result) {
            return session->KxEnumerateValueKey(session.self(), key.handle(), index, bytes, room,
                                                result);
        });
        if (KC_CODE(status) == KC_CODE_NO_MORE_ENTRIES) return values;
        check("cannot list the values", status);
        const UINT32 size = record.as<KX_KEY_VALUE_INFORMATION>()->KeyValueNameLength;
        values.push_back(
            {record.text(session, offsetof(KX_KEY_VALUE_INFORMATION, KeyValueName), size),
             value_of(session, record)});
    }
}

std::vector<std::string> read_sub_keys(const Session& session, const Key& key) {
    std::vector<std::string> names;
    Record record;
    for (UINT32 index = 0;; ++index) {
        const KCSTATUS status = with_room(record, [&](PVOID bytes, UINT32 room, PUINT32 result) {
            return session->KxEnumerateKey(session.self(), key.handle(), index, bytes, room,
                                           result);
        });
        if (KC_CODE(status) == KC_CODE_NO_MORE_ENTRIES) return names;
        check("cannot list the sub-keys", status);
        names.push_back(record.text(session, offsetof(KX_KEY_INFORMATION, KeyName),
                                    record.as<KX_KEY_INFORMATION>()->KeyNameLength));
    }
}

}  // namespace osalctl
