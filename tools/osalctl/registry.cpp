// Commands on the registry.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>

#include "commands.h"
#include "session.h"
#include "value.h"

namespace osalctl {
namespace {

void print(const Json& json) {
    std::puts(json.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
}

std::string below(const std::string& path, const std::string& name) {
    return path.empty() ? name : path + "\\" + name;
}

Json values_as_json(const Session& session, const Key& key) {
    Json values = Json::object();
    for (const auto& [name, value] : read_values(session, key))
        values[name] = to_json(value);
    return values;
}

bool key_exists(const Session& session, const std::string& path) try {
    const Key key(session, path, KX_KEY_READ);
    return true;
} catch (const Failure& problem) {
    if (problem.exit != kNotThere) throw;
    return false;
}

// A registry that was never written to has no root, which is nobody's mistake.
bool nothing_yet(const Session& session, const std::string& path) {
    return path.empty() && !key_exists(session, path);
}

void print_nothing(bool json) {
    if (json) print({{"values", Json::object()}, {"keys", Json::object()}});
}

Json tree(const Session& session, const std::string& path) {
    const Key key(session, path, KX_KEY_READ);
    Json keys = Json::object();
    for (const std::string& name : read_sub_keys(session, key))
        keys[name] = tree(session, below(path, name));
    return {{"values", values_as_json(session, key)}, {"keys", keys}};
}

void list_text(const Session& session, const std::string& path, bool recursive) {
    const Key key(session, path, KX_KEY_READ);
    const auto values = read_values(session, key);
    std::size_t width = 0;
    for (const auto& [name, value] : values)
        width = std::max(width, name.size());
    if (recursive) std::printf("%s\\\n", path.c_str());
    for (const auto& [name, value] : values)
        std::printf("%-*s  %-7s  %s\n", static_cast<int>(width), name.c_str(),
                    type_name(value.type), to_text(value).c_str());
    for (const std::string& name : read_sub_keys(session, key))
        if (recursive)
            list_text(session, below(path, name), true);
        else
            std::printf("%s\\\n", name.c_str());
}

void list_json(const Session& session, const std::string& path, bool recursive) {
    if (recursive) return print(tree(session, path));
    const Key key(session, path, KX_KEY_READ);
    print({{"values", values_as_json(session, key)}, {"keys", read_sub_keys(session, key)}});
}

void get(const std::string& path, const std::string& name, bool json) {
    const Session session;
    const Key key(session, path, KX_KEY_READ);
    const auto value = read_value(session, key, name);
    if (!value)
        throw Failure("key '" + path + "' has no value '" + name +
                          "'; 'osalctl registry ls' shows what there is",
                      kNotThere);
    if (json) return print(to_json(*value));
    std::puts(to_text(*value).c_str());
}

void set(const std::string& path, const std::string& name, const Value& value) {
    const Session session;
    write_value(session, Key(session, path, KX_KEY_ALL_ACCESS, true), name, value);
}

void delete_key(const Session& session, const std::string& path, bool recursive) {
    const Key key(session, path, KX_KEY_ALL_ACCESS);
    if (recursive)
        for (const std::string& name : read_sub_keys(session, key))
            delete_key(session, below(path, name), true);
    check("cannot delete key '" + path + "'", session->KxDeleteKey(session.self(), key.handle()));
}

void delete_value(const Session& session, const std::string& path, const std::string& name) {
    const Key key(session, path, KX_KEY_ALL_ACCESS);
    check("cannot delete value '" + name + "'",
          session->KxDeleteValue(session.self(), key.handle(), units(session.wide(name))));
}

// What an import is to do: keys in the order of their making, each with its values.
struct PlannedKey {
    std::string path;
    std::vector<NamedValue> values;
};

const Json& part(const Json& json, const char* name, const std::string& path) {
    static const Json kEmpty = Json::object();
    const auto found = json.find(name);
    if (found == json.end()) return kEmpty;
    if (!found->is_object())
        throw Failure("key '" + path + "': \"" + name + "\" is no object", kUsage);
    return *found;
}

void plan(const Json& json, const std::string& path, std::vector<PlannedKey>& keys) {
    if (!json.is_object())
        throw Failure("key '" + path + R"(' looks like {"values": {...}, "keys": {...}})", kUsage);
    PlannedKey key{path, {}};
    for (const auto& [name, value] : part(json, "values", path).items())
        key.values.push_back({name, from_json(value, "value '" + name + "' of '" + path + "'")});
    keys.push_back(std::move(key));
    for (const auto& [name, sub_key] : part(json, "keys", path).items()) {
        if (normal_path(name) != name || name.empty())
            throw Failure("\"" + name + "\" is no name of a key", kUsage);
        plan(sub_key, below(path, name), keys);
    }
}

void run(const Session& session, const PlannedKey& planned) {
    const Key key(session, planned.path, KX_KEY_ALL_ACCESS, true);
    for (const auto& [name, value] : planned.values)
        write_value(session, key, name, value);
}

Json read_json(const std::string& file) try {
    if (file == "-") return Json::parse(std::cin);
    std::ifstream input(file);
    if (!input) throw Failure("cannot read file '" + file + "'");
    return Json::parse(input);
} catch (const Json::exception& problem) {
    throw Failure("file '" + file + "' is no JSON: " + problem.what(), kUsage);
}

void import_file(const std::string& file, const std::string& path) {
    std::vector<PlannedKey> keys;
    plan(read_json(file), path, keys);
    const Session session;
    Transaction whole(session);
    for (const PlannedKey& key : keys)
        run(session, key);
    whole.commit();
}

// The words of one command; lives as long as the command line.
struct Words {
    std::string key;
    std::string name;
    std::string type = "string";
    std::string file = "-";
    std::vector<std::string> values;
    bool recursive = false;
    std::string path() const { return normal_path(key); }
};

constexpr const char* kKeyHelp = "Key below Software\\Orvane; names joined by / or \\";

void add_listing(CLI::App& registry, const Options& options) {
    auto words = std::make_shared<Words>();
    auto* ls = registry.add_subcommand("ls", "List the values and sub-keys of a key");
    ls->add_option("KEY", words->key, kKeyHelp);
    ls->add_flag("-r,--recursive", words->recursive, "And of all keys below");
    ls->callback([words, &options] {
        const Session session;
        if (nothing_yet(session, words->path())) return print_nothing(options.json);
        (options.json ? list_json : list_text)(session, words->path(), words->recursive);
    });
    auto* get_command = registry.add_subcommand("get", "Print a value");
    get_command->add_option("KEY", words->key, kKeyHelp)->required();
    get_command->add_option("NAME", words->name, "Name of the value; \"default\" if left out");
    get_command->callback([words, &options] { get(words->path(), words->name, options.json); });
}

void add_changes(CLI::App& registry) {
    auto words = std::make_shared<Words>();
    auto* set_command = registry.add_subcommand("set", "Set a value; makes the key if needed");
    set_command->add_option("KEY", words->key, kKeyHelp)->required();
    set_command->add_option("NAME", words->name, "Name of the value")->required();
    set_command->add_option("VALUE", words->values, "Number, text, texts or hexadecimal digits");
    set_command->add_option("-t,--type", words->type, "binary, uint32, uint64, string or strings")
        ->capture_default_str();
    set_command->callback(
        [words] { set(words->path(), words->name, parse_value(words->type, words->values)); });
    auto* remove = registry.add_subcommand("delete", "Delete a value, or a key with its values");
    remove->add_option("KEY", words->key, kKeyHelp)->required();
    remove->add_option("NAME", words->name, "Name of the value; the key itself if left out");
    remove->add_flag("-r,--recursive", words->recursive, "Delete the keys below it too");
    remove->callback([words] {
        const Session session;
        if (words->name.empty()) return delete_key(session, words->path(), words->recursive);
        delete_value(session, words->path(), words->name);
    });
}

void add_files(CLI::App& registry) {
    auto words = std::make_shared<Words>();
    auto* save = registry.add_subcommand("export", "Print a key and all below it as JSON");
    save->add_option("KEY", words->key, kKeyHelp);
    save->callback([words] {
        const Session session;
        if (nothing_yet(session, words->path())) return print_nothing(true);
        print(tree(session, words->path()));
    });
    auto* load =
        registry.add_subcommand("import",
                                "Set what an export printed; what it does not name stays.\n"
                                "All or nothing: the file is checked as a whole first, and what is "
                                "set takes effect in one\n"
                                "step at the end, or not at all, whatever ends the process.");
    load->add_option("FILE", words->file, "File to read, - for standard input")
        ->capture_default_str();
    load->add_option("-k,--key", words->key, "Key to put it at");
    load->callback([words] { import_file(words->file, words->path()); });
}

}  // namespace

void add_registry_commands(CLI::App& app, const Options& options) {
    auto* registry = app.add_subcommand("registry", "Read and change registry keys and values");
    registry->require_subcommand(1);
    add_listing(*registry, options);
    add_changes(*registry);
    add_files(*registry);
}

}  // namespace osalctl
