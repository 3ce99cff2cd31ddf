// The address checks of core/address.cpp for text that is not terminated
// (a field of a database record): the same rules as PLRIsValidIP and
// PLRMACStandardizeFormat, with the common shapes checked without scanning.
#pragma once

#include <string_view>

namespace plr {

// True for text that PLRIsValidIP accepts; logs nothing.
bool IsValidIPText(std::string_view text);

// PLRMACStandardizeFormat for a field: the standard form into the 18-byte
// `out`, with its log line when the text is refused.
bool StandardizeMACText(std::string_view text, char out[18]);

}  // namespace plr
