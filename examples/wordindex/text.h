// Between 16-bit text and that of the OEM code page, which is the terminal's and that of file
// names.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "client.h"

namespace wordindex {

using WideText = std::basic_string_view<WCHAR>;

// Characters that the page does not hold come as escapes.
std::string to_oem(const Client& client, WideText text);

// Ended by a zero. Fails for bytes that are no text of the page.
std::vector<WCHAR> from_oem(const Client& client, const std::string& text);

}  // namespace wordindex
