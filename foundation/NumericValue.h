#pragma once
// The numeric and truth readings of loosely typed JSON members: numbers as they are, texts by their leading
// number ("  42 apples" reads 42, "apples" reads 0), the way the game's services and files have always been
// read. Nothing here throws.

#include <ZRVKit/ZRVJSON.h>

#include <string_view>

namespace zrv {

/// The leading decimal number of `text` after blanks ("1.5e3", "-2", ".5"); 0 when there is none.
double doubleValueOfText(std::string_view text);
/// The leading whole number of `text` after blanks, clamped to the range of long long; 0 when there is none.
long long integerValueOfText(std::string_view text);
/// True when `text`, after blanks, an optional sign and zeros, starts with Y, y, T, t or a digit 1 to 9.
bool boolValueOfText(std::string_view text);

/// Numbers as they are (whole numbers truncated and clamped), texts as above, booleans as 1 or 0, else 0.
double doubleValue(const ZRVJSON& value);
long long integerValue(const ZRVJSON& value);
bool boolValue(const ZRVJSON& value);

}  // namespace zrv
