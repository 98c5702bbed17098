#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace ravelin::bramblekit {

/// Writes the fields of one JSON object in call order. Empty optionals are omitted.
class KeyedEncoder {
public:
  KeyedEncoder();
  ~KeyedEncoder();
  void put(std::string_view key, const std::string& value);
  void put(std::string_view key, std::int64_t value);
  void put(std::string_view key, const std::optional<std::int64_t>& value);
  void put(std::string_view key, bool value);
  void put(std::string_view key, double value);
  void put_null(std::string_view key);
  /// A list of `count` objects; `encode_at(index, encoder)` writes each.
  void put_list(std::string_view key, std::size_t count,
                const std::function<void(std::size_t, KeyedEncoder&)>& encode_at);
  /// Throws if a string is not UTF-8.
  std::string text() const;

private:
  struct Object;
  std::unique_ptr<Object> object_;
};

/// Reads the fields of one JSON object. Throws `std::runtime_error` for a key that is missing or
/// has a value of the wrong type. Unknown keys are ignored.
class KeyedDecoder {
public:
  /// Throws if `text` is not a JSON object.
  explicit KeyedDecoder(std::string_view text);
  ~KeyedDecoder();
  void get(std::string_view key, std::string& value) const;
  void get(std::string_view key, std::int64_t& value) const;
  /// No value if the key is missing or null.
  void get(std::string_view key, std::optional<std::int64_t>& value) const;
  void get(std::string_view key, bool& value) const;
  /// Calls `decode_next` with a decoder for each object of the list.
  void get_list(std::string_view key,
                const std::function<void(const KeyedDecoder&)>& decode_next) const;

private:
  struct Object;
  explicit KeyedDecoder(std::unique_ptr<Object> object);
  std::unique_ptr<Object> object_;
};

template <class T>
concept KeyedCodable = requires(const T& value, T& target, KeyedEncoder& to,
                                const KeyedDecoder& from) {
  value.encode(to);
  target.decode(from);
};

/// Adds JSON conversion to a type with `encode(KeyedEncoder&) const` and
/// `decode(const KeyedDecoder&)`.
template <class T> class Convertible {
public:
  std::string to_json() const {
    static_assert(KeyedCodable<T>);
    KeyedEncoder encoder;
    static_cast<const T&>(*this).encode(encoder);
    return encoder.text();
  }
  static std::shared_ptr<T> instance(std::string_view from) {
    auto value = std::make_shared<T>();
    value->decode(KeyedDecoder(from));
    return value;
  }
};

} // namespace ravelin::bramblekit
