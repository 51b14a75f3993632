// Between 16-bit text and that of the OEM code page, which is the terminal's and that of file
// names; and what of a file name a terminal may be sent.
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

// The control characters of ASCII, and those above it in UTF-8, come as escapes: a file name may
// hold anything.
std::string printable(std::string_view text);

}  // namespace wordindex
