#include "bramblekit/convertible.h"

#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace ravelin::bramblekit {

using Json = nlohmann::ordered_json;

constexpr int max_depth = 32; // copying a value is recursive

struct KeyedEncoder::Object {
  Json json = Json::object();
  Json& operator[](std::string_view key) { return json[std::string(key)]; }
};

struct KeyedDecoder::Object {
  nlohmann::json json; // not ordered_json, whose lookup is linear

  static nlohmann::json parsed(std::string_view text) {
    if (text.find('\0') != std::string_view::npos)
      throw std::runtime_error("the JSON text has a null byte"); // the parser would ignore the rest
    using Event = nlohmann::json::parse_event_t;
    return nlohmann::json::parse(text, [](int depth, Event, nlohmann::json&) {
      if (depth > max_depth)
        throw std::runtime_error("the JSON text is nested too deeply");
      return true;
    });
  }

  [[noreturn]] static void fail(std::string_view key, const char* what) {
    throw std::runtime_error("the value of \"" + std::string(key) + "\" is " + what);
  }
  const nlohmann::json& at(std::string_view key) const {
    const auto found = json.find(std::string(key));
    if (found == json.end())
      fail(key, "missing");
    return *found;
  }
  static std::int64_t integer(std::string_view key, const nlohmann::json& value) {
    if (!value.is_number_integer())
      fail(key, "not a 64-bit integer");
    const bool too_large = value.is_number_unsigned() &&
                           value.get<std::uint64_t>() >
                               static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    if (too_large)
      fail(key, "not a 64-bit integer");
    return value.get<std::int64_t>();
  }
};

KeyedEncoder::KeyedEncoder() : object_(std::make_unique<Object>()) {}
KeyedEncoder::~KeyedEncoder() = default;

void KeyedEncoder::put(std::string_view key, const std::string& value) {
  (*object_)[key] = value;
}
void KeyedEncoder::put(std::string_view key, std::int64_t value) {
  (*object_)[key] = value;
}
void KeyedEncoder::put(std::string_view key, bool value) {
  (*object_)[key] = value;
}

void KeyedEncoder::put(std::string_view key, double value) {
  (*object_)[key] = value;
}
void KeyedEncoder::put_null(std::string_view key) {
  (*object_)[key] = nullptr;
}

void KeyedEncoder::put(std::string_view key, const std::optional<std::int64_t>& value) {
  if (value)
    put(key, *value);
}

void KeyedEncoder::put_list(std::string_view key, std::size_t count,
                            const std::function<void(std::size_t, KeyedEncoder&)>& encode_at) {
  auto list = Json::array();
  for (std::size_t i = 0; i < count; ++i) {
    KeyedEncoder element;
    encode_at(i, element);
    list.push_back(std::move(element.object_->json));
  }
  (*object_)[key] = std::move(list);
}

std::string KeyedEncoder::text() const {
  return object_->json.dump();
}

KeyedDecoder::KeyedDecoder(std::string_view text)
    : KeyedDecoder(std::make_unique<Object>(Object{Object::parsed(text)})) {}

KeyedDecoder::KeyedDecoder(std::unique_ptr<Object> object) : object_(std::move(object)) {
  if (!object_->json.is_object())
    throw std::runtime_error("the JSON value is not an object");
}

KeyedDecoder::~KeyedDecoder() = default;

void KeyedDecoder::get(std::string_view key, std::string& value) const {
  const auto& found = object_->at(key);
  if (!found.is_string())
    Object::fail(key, "not a string");
  value = found.get<std::string>();
}

void KeyedDecoder::get(std::string_view key, std::int64_t& value) const {
  value = Object::integer(key, object_->at(key));
}

void KeyedDecoder::get(std::string_view key, std::optional<std::int64_t>& value) const {
  const auto found = object_->json.find(std::string(key));
  const bool absent = found == object_->json.end() || found->is_null();
  value = absent ? std::nullopt : std::optional(Object::integer(key, *found));
}

void KeyedDecoder::get(std::string_view key, bool& value) const {
  const auto& found = object_->at(key);
  if (!found.is_boolean())
    Object::fail(key, "not true or false");
  value = found.get<bool>();
}

void KeyedDecoder::get_list(std::string_view key,
                            const std::function<void(const KeyedDecoder&)>& decode_next) const {
  const auto& found = object_->at(key);
  if (!found.is_array())
    Object::fail(key, "not a list");
  for (const auto& element : found)
    decode_next(KeyedDecoder(std::make_unique<Object>(Object{element})));
}

} // namespace ravelin::bramblekit
