#include "settings.h"

#include <filesystem>

#include "registry_key.h"
#include "text.h"

namespace wordindex {
namespace {

constexpr const char16_t* kSettings = u"wordindex";
constexpr const char16_t* kLastRun = u"wordindex\\LastRun";

void attempt(const Note& note, const std::function<void()>& action) {
    try {
        action();
    } catch (const Failure& failure) {
        note(failure.what());
    }
}

std::optional<UINT32> buckets_in(const RegistryKey& key) {
    const std::optional<UINT32> buckets = key.number(u"Buckets");
    if (buckets && (*buckets == 0 || *buckets > kMostBuckets))
        throw Failure("registry value Buckets is out of range");
    return buckets;
}

std::optional<Encoding> encoding_in(const RegistryKey& key) {
    const std::optional<std::string> name = key.text(u"Encoding");
    if (!name) return {};
    const auto known = encodings().find(*name);
    if (known == encodings().end()) throw Failure("registry value Encoding: no encoding " + *name);
    return known->second;
}

std::optional<std::string> folder_in(const RegistryKey& key) {
    const std::optional<std::string> folder = key.text(u"Folder");
    std::error_code unused;
    if (folder && !std::filesystem::is_directory(*folder, unused))
        throw Failure("the folder of the last run is gone: " + printable(*folder));
    return folder;
}

}  // namespace

Settings read_settings(const Client& client, const Note& note) {
    Settings found;
    attempt(note, [&] {
        const RegistryKey key(client, kSettings, RegistryKey::Use::kRead);
        attempt(note, [&] { found.top = key.number(u"Top"); });
        attempt(note, [&] { found.buckets = buckets_in(key); });
        attempt(note, [&] { found.encoding = encoding_in(key); });
        const RegistryKey last_run(client, kLastRun, RegistryKey::Use::kRead);
        attempt(note, [&] { found.folder = folder_in(last_run); });
    });
    return found;
}

void write_last_run(const Client& client, const std::string& folder, const Summary& summary,
                    const Note& note) {
    attempt(note, [&] {
        const RegistryKey key(client, kLastRun, RegistryKey::Use::kWrite);
        key.set_number(u"Files", summary.totals.files);
        key.set_number(u"Bytes", summary.totals.bytes);
        key.set_number(u"Words", summary.totals.words);
        key.set_number(u"Distinct", summary.words.distinct());
        key.set_number(u"Owners", summary.owners.size());
        key.set_number(u"Elapsed_us", summary.elapsed_100ns / 10);
        key.set_text(u"Folder", std::filesystem::absolute(folder).lexically_normal());
    });
}

}  // namespace wordindex
