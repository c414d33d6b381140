#include <ZRVKit/ZRVBoundedJSON.h>

#include "foundation/PlainJSONReader.h"

#include <exception>
#include <string>
#include <vector>

namespace {

// Builds the document from the parser's events, refusing an array or object that would open more levels than
// allowed before it is built, so the parser never descends beyond the limit. (nlohmann's own reader with a
// callback would do the depth check too, but it searches the whole enclosing object for discarded members
// each time a member object ends: quadratic for a manifest of many entries.)
//
// A name that comes again in the same object keeps its first place and takes the last value, as nlohmann's
// reader does.
class DocumentBuilder {
 public:
  explicit DocumentBuilder(int maxDepth) : maxDepth_(maxDepth) {}

  bool null() { return place(nullptr); }
  bool boolean(bool value) { return place(value); }
  bool number_integer(ZRVJSON::number_integer_t value) { return place(value); }
  bool number_unsigned(ZRVJSON::number_unsigned_t value) { return place(value); }
  bool number_float(ZRVJSON::number_float_t value, const ZRVJSON::string_t&) { return place(value); }
  bool string(ZRVJSON::string_t& value) { return place(std::move(value)); }
  bool binary(ZRVJSON::binary_t& value) { return place(ZRVJSON(std::move(value))); }

  bool start_object(std::size_t) { return open(ZRVJSON::value_t::object); }
  bool start_array(std::size_t) { return open(ZRVJSON::value_t::array); }
  bool key(ZRVJSON::string_t& name) {
    member_ = &(*open_.back())[std::move(name)];
    return true;
  }
  bool end_object() {
    open_.pop_back();
    return true;
  }
  bool end_array() {
    open_.pop_back();
    return true;
  }

  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& error) {
    error_ = error.what();
    return false;
  }

  ZRVJSON& document() { return document_; }
  bool tooDeep() const { return tooDeep_; }
  const std::string& error() const { return error_; }

 private:
  // Puts a value where the parser is: the top level, the next element of the open array, or the member just named.
  ZRVJSON* put(ZRVJSON&& value) {
    if (open_.empty()) {
      document_ = std::move(value);
      return &document_;
    }
    ZRVJSON& container = *open_.back();
    if (container.is_array()) {
      container.push_back(std::move(value));
      return &container.back();
    }
    *member_ = std::move(value);
    return member_;
  }
  bool place(ZRVJSON&& value) {
    put(std::move(value));
    return true;
  }
  // The number of levels already open is the depth the new array or object is asked for at. An open
  // container's address stays put: its parent gets nothing new until it is closed.
  bool open(ZRVJSON::value_t type) {
    if (open_.size() >= static_cast<std::size_t>(maxDepth_)) {
      tooDeep_ = true;
      return false;
    }
    open_.push_back(put(ZRVJSON(type)));
    return true;
  }

  int maxDepth_;
  ZRVJSON document_;
  std::vector<ZRVJSON*> open_;
  ZRVJSON* member_ = nullptr;
  bool tooDeep_ = false;
  std::string error_;
};

}  // namespace

ZRVJSONReading ZRVBoundedJSON::read(std::string_view text, const ZRVJSONLimits& limits) {
  ZRVJSONReading reading;
  if (text.size() > limits.maxBytes) {
    reading.error = "the document is larger than " + std::to_string(limits.maxBytes) + " bytes";
    return reading;
  }
  try {
    // Most documents are plain, and read several times faster so; for the rest, nlohmann's reader decides.
    if (auto plain = zrv::readPlainJSON(text, limits.maxDepth)) {
      reading.document = std::move(plain);
      return reading;
    }
    DocumentBuilder builder(limits.maxDepth);
    if (ZRVJSON::sax_parse(text.begin(), text.end(), &builder)) {
      reading.document = std::move(builder.document());
    } else if (builder.tooDeep()) {
      reading.error = "the document is nested deeper than " + std::to_string(limits.maxDepth) + " levels";
    } else {
      reading.error = builder.error();
    }
  } catch (const std::exception& error) {  // out of memory on the way
    reading.error = error.what();
  }
  return reading;
}

ZRVJSONReading ZRVBoundedJSON::read(const void* bytes, std::size_t size, const ZRVJSONLimits& limits) {
  return read(std::string_view(static_cast<const char*>(bytes), size), limits);
}
