#pragma once

#include "bramblekit/convertible.h"
#include "platform/data.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ravelin {

/// The content of the resume file: the parts of a download and how much of each was received.
///
/// Threads: the record of a running download belongs to the main thread.
struct ResumeData : bramblekit::Convertible<ResumeData> {
  /// A range of the file. The next bytes go to `begin_pos + curr_bytes`.
  struct Part : bramblekit::Convertible<Part> {
    std::int64_t begin_pos = 0;
    std::int64_t total_bytes_expected = 0; // -1 if the content length is not known
    std::int64_t curr_bytes = 0;

    void encode(bramblekit::KeyedEncoder& to) const;
    void decode(const bramblekit::KeyedDecoder& from);
  };

  std::string server_side_date;
  std::optional<std::int64_t> content_length; // bytes
  bool is_splitted = false;
  std::vector<std::shared_ptr<Part>> parts; // sorted by begin_pos

  /// Whether this library can have written it: the parts are those for its length, and the sum of
  /// their bytes does not overflow.
  bool is_valid() const;
  /// Whether no part counts more bytes than it has, which is possible only if servers may send more
  /// than requested.
  bool has_counts_within_parts() const;
  /// Whether the sum over all parts does not overflow.
  bool has_countable_bytes() const;
  /// The sum over all parts. Aborts on overflow.
  std::int64_t received_bytes() const;
  /// A deep copy.
  ResumeData clone() const;

  void encode(bramblekit::KeyedEncoder& to) const;
  void decode(const bramblekit::KeyedDecoder& from);
};

} // namespace ravelin
