// Registry keys and values, with names and strings in UTF-8.
//
//     kx::Key key = kx::Key::create(service, "Client\\Settings");
//     key.set("retries", UINT32{5});
//     const UINT32 retries = key.get<UINT32>("retries").value_or(3);
//     for (const std::string& name : key.value_names()) key.remove_value(name);
//
// Where keys lie, what their names may be and what a store keeps of characters that its code page
// lacks is said in osal/registry.h; so are the blocking and the statuses, which come as kx::Error.
// The face adds these: records have whatever size they take; a zero inside of a name or a string,
// which would end it there, is code 4, and so is an empty string in a list, which would end that;
// empty strings and lists come back as what they are. An empty value name means "default". Text
// that looks like an escape ("[4E2D]") is read back as the character that it stands for.
//
// A key may be used on several threads at once, but neither moved, assigned nor destroyed beside
// that.
#pragma once

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "osal/interface.hpp"
#include "osal/registry.h"
#include "osal/text.hpp"

namespace kx {

enum class KeyAccess : KX_KEY_ACCESS {
    read = KX_KEY_READ,
    write = KX_KEY_WRITE,
    all = KX_KEY_ALL_ACCESS,
};

// Data of a value. The index of an alternative is its KX_REG_TYPE.
using RegistryBytes = std::vector<std::byte>;
using RegistryStrings = std::vector<std::string>;
using RegistryValue = std::variant<RegistryBytes, UINT32, std::string, RegistryStrings, UINT64>;

namespace detail {

constexpr Status kNoSuchEntry =
    KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_REGISTRY, KC_CODE_INVALID_HANDLE);
constexpr Status kNoMoreEntries =
    KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_REGISTRY, KC_CODE_NO_MORE_ENTRIES);
constexpr Status kBadRegistryArgument =
    KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_OSAL, KC_CODE_INVALID_ARGUMENT);

// A record that a service fills, in a buffer that grows.
template <class Information>
class RegistryRecord {
  public:
    // Calls call(record, bytes of room) until the room is enough.
    template <class Call>
    Status fill(Call call) {
        for (;; length_ *= 4) {
            if (buffer_ == nullptr) buffer_ = std::make_unique<std::byte[]>(length_);
            const Status status = call(new (buffer_.get()) Information(), length_);
            if (status.code() != KC_CODE_BUFFER_TOO_SMALL || length_ >= kMost) return status;
            buffer_.reset();
        }
    }
    const Information* operator->() const {
        return std::launder(reinterpret_cast<const Information*>(buffer_.get()));
    }
    const std::byte* bytes() const { return buffer_.get(); }
    std::u16string units(std::size_t offset, std::size_t size) const {
        std::u16string units(size / sizeof(char16_t), u'\0');
        std::memcpy(units.data(), bytes() + offset, units.size() * sizeof(char16_t));
        return units;
    }
    // The units before the first zero.
    std::u16string text(std::size_t offset, std::size_t size) const {
        const std::u16string all = units(offset, size);
        return all.substr(0, all.find(u'\0'));
    }

  private:
    static constexpr UINT32 kMost = 1u << 30;  // several times what the largest value takes
    UINT32 length_ = 1024;
    std::unique_ptr<std::byte[]> buffer_;
};

}  // namespace detail

// Owns the handle of a key.
class Key {
  public:
    // Opens a key that exists.
    Key(const Service& service, std::string_view path, KeyAccess access = KeyAccess::all)
        : service_(service) {
        check(open<&IOsalVtbl::KxOpenKey>(path, access).value());
    }
    // The same, for one that may be missing.
    static std::optional<Key> find(const Service& service, std::string_view path,
                                   KeyAccess access = KeyAccess::all) {
        Key key(service);
        const Status status = key.open<&IOsalVtbl::KxOpenKey>(path, access);
        if (status == detail::kNoSuchEntry) return std::nullopt;
        check(status.value());
        return key;
    }
    // Opens a key for all access, and makes it and those above it where they are missing.
    static Key create(const Service& service, std::string_view path) {
        Key key(service);
        check(key.open<&IOsalVtbl::KxCreateKey>(path, KeyAccess::all).value());
        return key;
    }
    Key(Key&& other) noexcept
        : service_(std::move(other.service_)), handle_(std::exchange(other.handle_, nullptr)) {}
    // Closes the key that was open before.
    Key& operator=(Key other) noexcept {
        std::swap(service_, other.service_);
        std::swap(handle_, other.handle_);
        return *this;
    }
    ~Key() {
        if (handle_ != nullptr) service_.call<&IOsalVtbl::KxCloseKey>(handle_);
    }

    HANDLE handle() const { return handle_; }

    // A value of whatever type it has, or nothing if there is none of that name. Of data shorter
    // than the 32 or 64 bits of their type the missing bytes are 0. Code 4: a type of its own.
    std::optional<RegistryValue> value(std::string_view name) const;
    // A value of type T, an alternative of RegistryValue. Code 4: it has another type.
    template <class T>
    std::optional<T> get(std::string_view name) const {
        std::optional<RegistryValue> found = value(name);
        if (!found) return std::nullopt;
        if (T* data = std::get_if<T>(&*found)) return std::move(*data);
        throw Error(detail::kBadRegistryArgument);
    }

    void set(std::string_view name, UINT32 number) {
        set_data(name, KX_REG_UINT32, &number, sizeof number);
    }
    void set(std::string_view name, UINT64 number) {
        set_data(name, KX_REG_UINT64, &number, sizeof number);
    }
    void set(std::string_view name, std::string_view text) {
        const std::u16string wide = terminated(text);
        set_data(name, KX_REG_SZ, wide.data(), wide.size() * sizeof(char16_t));
    }
    void set(std::string_view name, const RegistryStrings& list);
    void set(std::string_view name, std::span<const std::byte> bytes) {
        set_data(name, KX_REG_BINARY, bytes.data(), bytes.size());
    }

    // False: there is no such value.
    bool remove_value(std::string_view name) {
        return found(service_.call<&IOsalVtbl::KxDeleteValue>(
            handle_, detail::units(terminated(name).c_str())));
    }
    // Deletes whatever key has the path now, with its values; code 0x1003 if there are keys below
    // it. This one then only remains to be closed. False: there is none.
    bool remove() { return found(service_.call<&IOsalVtbl::KxDeleteKey>(handle_)); }

    // The names as they are while the call runs. Values without a name, which only others than this
    // library make, are left out: nothing here could name them.
    std::vector<std::string> value_names() const;
    // The names of the keys directly below this one.
    std::vector<std::string> sub_keys() const;

  private:
    explicit Key(const Service& service) : service_(service) {}

    std::u16string terminated(std::string_view text) const {
        if (text.find('\0') != text.npos) throw Error(detail::kBadRegistryArgument);
        return to_wide(service_, text);
    }
    template <auto slot>
    Status open(std::string_view path, KeyAccess access) {
        return service_.call<slot>(detail::units(terminated(path).c_str()),
                                   static_cast<KX_KEY_ACCESS>(access), &handle_);
    }
    static bool found(Status status) {
        if (status == detail::kNoSuchEntry) return false;
        check(status.value());
        return true;
    }
    void set_data(std::string_view name, KX_REG_TYPE type, const void* data, std::size_t size) {
        if (size > std::numeric_limits<UINT32>::max())
            throw std::length_error("kx: registry value too long");
        check(service_.call<&IOsalVtbl::KxSetValueKey>(handle_,
                                                       detail::units(terminated(name).c_str()),
                                                       type, data, static_cast<UINT32>(size)));
    }
    using ValueRecord = detail::RegistryRecord<KX_KEY_VALUE_INFORMATION>;
    RegistryValue decode(const ValueRecord& record) const;
    RegistryStrings decode_list(const ValueRecord& record, std::size_t size) const;

    Service service_;
    HANDLE handle_ = nullptr;
};

inline std::optional<RegistryValue> Key::value(std::string_view name) const {
    const std::u16string wide = terminated(name);
    ValueRecord record;
    const Status status = record.fill([&](KX_KEY_VALUE_INFORMATION* information, UINT32 length) {
        UINT32 used = 0;
        information->ValueType = KX_REG_BINARY;
        return service_.call<&IOsalVtbl::KxQueryValueKey>(handle_, detail::units(wide.c_str()),
                                                          PVOID{information}, length, &used);
    });
    if (status == detail::kNoSuchEntry) return std::nullopt;
    // A string or a list that is nothing but its terminator is refused once its type is known.
    const UINT32 type = record->ValueType;
    const bool is_empty =
        status == detail::kBadRegistryArgument && (type == KX_REG_SZ || type == KX_REG_MULTI_SZ);
    if (!is_empty) check(status.value());
    return decode(record);
}

inline RegistryValue Key::decode(const ValueRecord& record) const {
    const std::size_t size = record->ValueLength;
    const std::byte* data = record.bytes() + record->ValueOffset;
    const auto number = [&](auto value) {
        if (size != 0) std::memcpy(&value, data, std::min(size, sizeof value));
        return value;
    };
    switch (record->ValueType) {
        case KX_REG_BINARY:
            return RegistryBytes(data, data + size);
        case KX_REG_UINT32:
            return number(UINT32{0});
        case KX_REG_UINT64:
            return number(UINT64{0});
        case KX_REG_SZ:
            return to_narrow(service_, record.text(record->ValueOffset, size));
        case KX_REG_MULTI_SZ:
            return decode_list(record, size);
        default:
            throw Error(detail::kBadRegistryArgument);
    }
}

inline RegistryStrings Key::decode_list(const ValueRecord& record, std::size_t size) const {
    const std::u16string joined = record.units(record->ValueOffset, size);
    RegistryStrings list;
    std::u16string_view rest = joined;
    while (!rest.empty() && rest.front() != u'\0') {
        const std::u16string_view text = rest.substr(0, rest.find(u'\0'));
        list.push_back(to_narrow(service_, text));
        rest.remove_prefix(std::min(text.size() + 1, rest.size()));
    }
    return list;
}

inline void Key::set(std::string_view name, const RegistryStrings& list) {
    std::u16string joined;
    for (const std::string& text : list) {
        if (text.empty()) throw Error(detail::kBadRegistryArgument);
        joined.append(terminated(text)).push_back(u'\0');
    }
    set_data(name, KX_REG_MULTI_SZ, joined.data(), joined.size() * sizeof(char16_t));
}

inline std::vector<std::string> Key::value_names() const {
    std::vector<std::string> names;
    ValueRecord record;
    for (UINT32 index = 0;; ++index) {
        const Status status = record.fill([&](auto* information, UINT32 length) {
            UINT32 unused = 0;
            return service_.call<&IOsalVtbl::KxEnumerateValueKey>(
                handle_, index, PVOID{information}, length, &unused);
        });
        if (status == detail::kNoMoreEntries) return names;
        // Once the name is there it does not matter what became of the data.
        if (record->KeyValueNameLength != 0)
            names.push_back(
                to_narrow(service_, record.text(offsetof(KX_KEY_VALUE_INFORMATION, KeyValueName),
                                                record->KeyValueNameLength)));
        else if (status != detail::kBadRegistryArgument)
            check(status.value());
    }
}

inline std::vector<std::string> Key::sub_keys() const {
    std::vector<std::string> names;
    detail::RegistryRecord<KX_KEY_INFORMATION> record;
    for (UINT32 index = 0;; ++index) {
        const Status status = record.fill([&](auto* information, UINT32 length) {
            UINT32 unused = 0;
            return service_.call<&IOsalVtbl::KxEnumerateKey>(handle_, index, PVOID{information},
                                                             length, &unused);
        });
        if (status == detail::kNoMoreEntries) return names;
        check(status.value());
        names.push_back(to_narrow(
            service_, record.text(offsetof(KX_KEY_INFORMATION, KeyName), record->KeyNameLength)));
    }
}

}  // namespace kx
