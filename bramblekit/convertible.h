#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace ravelin::bramblekit {

/// Writes the fields of one JSON object in the order of the calls. An empty optional is left out.
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
  /// A list of `count` objects, each written by `encode_at(index, its encoder)`.
  void put_list(std::string_view key, std::size_t count,
                const std::function<void(std::size_t, KeyedEncoder&)>& encode_at);
  /// Throws where a text is not UTF-8.
  std::string text() const;

private:
  struct Object;
  std::unique_ptr<Object> object_;
};

/// Reads the fields of one JSON object. A key that is missing or of the wrong type throws
/// `std::runtime_error`; other keys are ignored.
class KeyedDecoder {
public:
  /// Throws where `text` is not a JSON object.
  explicit KeyedDecoder(std::string_view text);
  ~KeyedDecoder();
  void get(std::string_view key, std::string& value) const;
  void get(std::string_view key, std::int64_t& value) const;
  /// A missing key and null give none.
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

/// Gives a type with `encode(KeyedEncoder&) const` and `decode(const KeyedDecoder&)` its JSON.
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
