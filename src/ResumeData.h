#pragma once

#include "bramblekit/convertible.h"
#include "platform/data.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ravelin {

/// How many ranges a download is divided into when it is split.
inline constexpr std::int64_t parts_when_split = 5;

/// How a download is divided and how much of each part has come: the content of the resume file.
///
/// Threads: a live record belongs to the main thread.
struct ResumeData : bramblekit::Convertible<ResumeData> {
  /// A range of the file. The next bytes go to `begin_pos + curr_bytes`.
  struct Part : bramblekit::Convertible<Part> {
    std::int64_t begin_pos = 0;
    std::int64_t total_bytes_expected = 0; // -1 when the whole length is unknown
    std::int64_t curr_bytes = 0;

    void encode(bramblekit::KeyedEncoder& to) const;
    void decode(const bramblekit::KeyedDecoder& from);
  };

  std::string server_side_date;
  std::optional<std::int64_t> content_length; // bytes
  bool is_splitted = false;
  std::vector<std::shared_ptr<Part>> parts; // by ascending begin_pos

  /// The sum over all parts. Ends the process on overflow.
  std::int64_t received_bytes() const;
  /// A record of its own with its own parts.
  ResumeData clone() const;

  void encode(bramblekit::KeyedEncoder& to) const;
  void decode(const bramblekit::KeyedDecoder& from);
};

/// `split_count` ranges that cover `length` bytes; the last one takes what is left over. Ends the
/// process on a negative count and on overflow.
std::vector<std::shared_ptr<ResumeData::Part>> split_into_parts(std::int64_t length,
                                                                std::int64_t split_count);

} // namespace ravelin
