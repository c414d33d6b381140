#include <ZRVKit/ZRVBoundedJSON.h>

#include <exception>
#include <string>

namespace {

// Thrown out of the parser's callback to stop it at the first level too deep; nothing outside sees it.
struct NestedTooDeep {};

}  // namespace

ZRVJSONReading ZRVBoundedJSON::read(std::string_view text, const ZRVJSONLimits& limits) {
  ZRVJSONReading reading;
  if (text.size() > limits.maxBytes) {
    reading.error = "the document is larger than " + std::to_string(limits.maxBytes) + " bytes";
    return reading;
  }
  // The callback sees each array and object as it opens, with the number of levels already open, so the
  // parser never descends (or builds) beyond the limit.
  const int maxDepth = limits.maxDepth;
  ZRVJSON::parser_callback_t guard = [maxDepth](int depth, ZRVJSON::parse_event_t event, ZRVJSON&) {
    if ((event == ZRVJSON::parse_event_t::object_start || event == ZRVJSON::parse_event_t::array_start) &&
        depth >= maxDepth) {
      throw NestedTooDeep{};
    }
    return true;
  };
  try {
    reading.document = ZRVJSON::parse(text.begin(), text.end(), guard);
  } catch (const NestedTooDeep&) {
    reading.error = "the document is nested deeper than " + std::to_string(maxDepth) + " levels";
  } catch (const ZRVJSON::exception& error) {
    reading.error = error.what();
  } catch (const std::exception& error) {  // out of memory on the way
    reading.error = error.what();
  }
  return reading;
}

ZRVJSONReading ZRVBoundedJSON::read(const void* bytes, std::size_t size, const ZRVJSONLimits& limits) {
  return read(std::string_view(static_cast<const char*>(bytes), size), limits);
}

