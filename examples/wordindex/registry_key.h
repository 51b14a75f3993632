// A key of the registry and its values.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "resources.h"
#include "text.h"

namespace wordindex {

class RegistryKey : Owned<&IOsalVtbl::KxCloseKey> {
  public:
    enum class Use { kRead, kWrite };

    // A key that is missing is made for writing; read, it has no values.
    RegistryKey(const Client& owner, const char16_t* name, Use use);

    // Nothing if there is no such value. Fail for a value of another type.
    std::optional<UINT32> number(const char16_t* name) const;
    std::optional<std::string> text(const char16_t* name) const;

    void set_number(const char16_t* name, UINT64 value) const;
    void set_text(const char16_t* name, const std::string& value) const;

  private:
    // A value's data behind its record.
    struct Value;
    bool query(const char16_t* name, KX_REG_TYPE type, Value& value) const;
    bool holds(const char16_t* name, KX_REG_TYPE type, const void* data, std::size_t size) const;
    void set(const char16_t* name, KX_REG_TYPE type, const void* data, std::size_t size) const;
};

}  // namespace wordindex
