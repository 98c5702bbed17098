#pragma once

#include "ravelin/error.h"
#include "ravelin/url.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace ravelin {

/// Makes one visitor of several lambdas: `status.visit(match{[](const Status::success&) {}, ...})`.
/// A case that no lambda takes does not compile.
template <class... Cases> struct match : Cases... { using Cases::operator()...; };
template <class... Cases> match(Cases...) -> match<Cases...>;

/// What happens when the destination exists already or is being downloaded.
enum class OnConflict {
  /// Continue what is incomplete, accept what is complete, take over what is being downloaded.
  resume,
  /// Delete what is there, cancelling who downloads it, and begin anew.
  replace,
  /// Download under another name; `Status::renamed` tells which.
  keep_both,
  /// Leave what is there alone and end in an error.
  stop,
};

/// How far a download has come.
struct Progress {
  /// The fields in another order: `prog_value`, `received_bytes`, and so on.
  Progress(std::optional<float> value, std::int64_t bytes, bool at_snap_point,
           std::optional<std::int64_t> length = std::nullopt)
      : content_length(length), prog_value(value), received_bytes(bytes),
        is_at_snap_point(at_snap_point) {}

  std::optional<std::int64_t> content_length; ///< bytes; none when the server does not tell
  std::optional<float> prog_value;            ///< 0.0 to 1.0; none when the length is not known
  std::int64_t received_bytes;                ///< flushed or on their way to the disk
  /// For applications that want few updates: true about every `progress_snap_interval`.
  bool is_at_snap_point;

  friend bool operator==(const Progress&, const Progress&) = default;
};

/// Why a download failed.
struct CustomError {
  /// Any other error, as it is.
  struct other {
    Error error; ///< with the platform's code, where it has one
  };
  /// The server was silent for too long.
  struct timeout {};
  /// There is no network at all.
  struct not_connected_to_internet {};
  /// In the middle.
  struct network_connection_lost {};

  /// The reason in words for people.
  [[gnu::visibility("default")]] std::string text() const;

  /// Calls `visitor` with the case that it is.
  template <class Visitor> decltype(auto) visit(Visitor&& visitor) const {
    return std::visit(std::forward<Visitor>(visitor), value);
  }
  /// Whether it is this case.
  template <class Case> bool holds() const { return std::holds_alternative<Case>(value); }
  /// The payload, or null when this is another case.
  template <class Case> const Case* get_if() const { return std::get_if<Case>(&value); }

  /// The cases.
  std::variant<other, timeout, not_connected_to_internet, network_connection_lost> value;
};

/// Where an operation stands.
struct State {
  /// The content comes in.
  struct downloading {
    Progress progress; ///< of the last event
    friend bool operator==(const downloading&, const downloading&) = default;
  };
  /// Its last run was cancelled.
  struct cancelled {
    bool also_cleared_files; ///< destination and record were deleted
    Progress progress;       ///< by the record
    friend bool operator==(const cancelled&, const cancelled&) = default;
  };
  /// Its last run failed.
  struct failed {
    CustomError custom_error; ///< why
  };
  /// It has not been started.
  struct none {};
  /// Waits for a free slot, or for an earlier download of the same file to end.
  struct pending {};
  /// Asks the server for its header.
  struct connecting {};
  /// The file is complete.
  struct successful {};
  /// Was asked to stop.
  struct cancelling {};

  /// Calls `visitor` with the case that it is.
  template <class Visitor> decltype(auto) visit(Visitor&& visitor) const {
    return std::visit(std::forward<Visitor>(visitor), value);
  }
  /// Whether it is this case.
  template <class Case> bool holds() const { return std::holds_alternative<Case>(value); }
  /// The payload, or null when this is another case.
  template <class Case> const Case* get_if() const { return std::get_if<Case>(&value); }

  /// The cases.
  std::variant<downloading, cancelled, failed, none, pending, connecting, successful, cancelling>
      value;
};

/// What a status callback is told. Each run ends in exactly one of `success`, `cancelled`, `error`.
struct Status {
  /// The destination's name was taken; the download goes to this one. Sent before `resume(...)`
  /// returns.
  struct renamed {
    URL new_file_url; ///< as given but for the name
    friend bool operator==(const renamed&, const renamed&) = default;
  };
  /// Both files were made anew. The one event that does not come on the main thread: it comes on
  /// the background thread that made them.
  struct files_are_created {
    URL main_file_url;   ///< the destination
    URL resume_file_url; ///< the record beside it
    friend bool operator==(const files_are_created&, const files_are_created&) = default;
  };
  /// The content comes in now.
  struct started {
    std::optional<std::int64_t> content_length; ///< bytes
    friend bool operator==(const started&, const started&) = default;
  };
  /// With every chunk.
  struct downloading {
    Progress progress; ///< of all parts together
    friend bool operator==(const downloading&, const downloading&) = default;
  };
  /// Final. The progress is the record's; what was not split begins anew all the same.
  struct cancelled {
    bool also_cleared_files; ///< destination and record were deleted
    Progress progress;       ///< by the record
    friend bool operator==(const cancelled&, const cancelled&) = default;
  };
  /// Final.
  struct error {
    CustomError custom_error; ///< why
  };
  /// Waits for a free slot, or for an earlier download of the same file to end.
  struct pending {};
  /// Asks the server for its header.
  struct connecting {};
  /// Final: the file is complete.
  struct success {};
  /// Was asked to stop.
  struct cancelling {};

  /// Calls `visitor` with the case that it is.
  template <class Visitor> decltype(auto) visit(Visitor&& visitor) const {
    return std::visit(std::forward<Visitor>(visitor), value);
  }
  /// Whether it is this case.
  template <class Case> bool holds() const { return std::holds_alternative<Case>(value); }
  /// The payload, or null when this is another case.
  template <class Case> const Case* get_if() const { return std::get_if<Case>(&value); }

  /// The cases.
  std::variant<renamed, files_are_created, started, downloading, cancelled, error, pending,
               connecting, success, cancelling>
      value;
};

} // namespace ravelin
