#include "account/FormEncoder.h"

#include <ZRVKit/ZRVFormat.h>

#include <glib.h>

#include <cstdint>
#include <string_view>
#include <vector>

namespace zrv::account {

namespace {

bool isAllowed(gunichar character) {
  return g_unichar_isalnum(character) || g_unichar_ismark(character) || character == '*' || character == '-' ||
         character == '.' || character == '_';
}

// The standard encoding; nothing when the text is not well-formed UTF-8.
std::optional<std::string> percentEncoded(std::string_view text) {
  if (!g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) return std::nullopt;
  std::string result;
  result.reserve(text.size() * 3);
  const char* end = text.data() + text.size();
  for (const char* at = text.data(); at < end;) {
    const char* next = g_utf8_next_char(at);
    if (isAllowed(g_utf8_get_char(at))) {
      result.append(at, next);
    } else {
      for (const char* byte = at; byte < next; ++byte) result += ZRVFormat("%%%02X", static_cast<std::uint8_t>(*byte));
    }
    at = next;
  }
  return result;
}

struct Unit {
  std::uint16_t value;
  bool stray;  // a byte that is part of no character
};

// The UTF-16 units of text that is not well-formed: whole sequences where they decode (encoded surrogates
// included, as they stand for lone UTF-16 units), any other byte as a stray unit of its own value.
std::vector<Unit> utf16Units(std::string_view text) {
  std::vector<Unit> units;
  std::size_t i = 0;
  while (i < text.size()) {
    auto byte = [&](std::size_t at) { return static_cast<std::uint8_t>(text[at]); };
    std::uint8_t lead = byte(i);
    if (lead < 0x80) {
      units.push_back({lead, false});
      i += 1;
      continue;
    }
    std::size_t length = lead >= 0xF0 && lead <= 0xF4 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC2 && lead < 0xE0 ? 2 : 1;
    if (lead >= 0xF5) length = 1;
    std::uint32_t codePoint = lead;
    bool whole = length > 1 && i + length <= text.size();
    for (std::size_t k = 1; whole && k < length; ++k) whole = (byte(i + k) & 0xC0) == 0x80;
    if (whole) {
      codePoint = lead & (0x7F >> length);
      for (std::size_t k = 1; k < length; ++k) codePoint = (codePoint << 6) | (byte(i + k) & 0x3F);
      bool shortest = codePoint >= (length == 2 ? 0x80u : length == 3 ? 0x800u : 0x10000u);
      if (!shortest || codePoint > 0x10FFFF) whole = false;
    }
    if (!whole) {
      units.push_back({lead, true});
      i += 1;
      continue;
    }
    if (codePoint > 0xFFFF) {
      codePoint -= 0x10000;
      units.push_back({static_cast<std::uint16_t>(0xD800 + (codePoint >> 10)), false});
      units.push_back({static_cast<std::uint16_t>(0xDC00 + (codePoint & 0x3FF)), false});
    } else {
      units.push_back({static_cast<std::uint16_t>(codePoint), false});
    }
    i += length;
  }
  return units;
}

bool isSurrogate(std::uint16_t unit) { return unit >= 0xD800 && unit <= 0xDFFF; }

}  // namespace

std::optional<std::string> encoded(const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  if (auto standard = percentEncoded(*text)) return standard;
  // Malformed text: unit by unit, so a unit above 0xFF gives more than two hexadecimal digits. A stray
  // byte is no character at all and goes out as itself.
  std::string result;
  for (Unit unit : utf16Units(*text)) {
    if (!unit.stray && !isSurrogate(unit.value) && isAllowed(unit.value)) {
      result += ZRVFormat("%C", unit.value);
    } else {
      result += ZRVFormat("%%%02X", unit.value);
    }
  }
  return result;
}

}  // namespace zrv::account
