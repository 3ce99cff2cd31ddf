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

// A DNS name as a configuration file may carry it: labels of letters,
// digits, '-' and '_' (1 to 63 each) joined by single dots, optionally with
// a final dot, optionally in double quotes. Nothing that could end a
// statement, open a block or start a comment (';', braces, '#', white space,
// control characters) passes. Logs nothing.
bool IsValidDomainName(std::string_view text);

// An IPv6 prefix "address/length" with an address inet_pton reads and the
// length PLRIsValidPrefix allows, nothing else. Logs only as PLRIsValidPrefix.
bool IsValidIPv6PrefixText(const char* text);

}  // namespace plr
