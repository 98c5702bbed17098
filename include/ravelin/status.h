#pragma once

#include "ravelin/error.h"
#include "ravelin/url.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace ravelin {

/// Combines lambdas into a visitor: `status.visit(match{[](const Status::success&) {}, ...})`. It
/// does not compile if a case is not handled.
template <class... Cases> struct match : Cases... { using Cases::operator()...; };
template <class... Cases> match(Cases...) -> match<Cases...>;

/// What to do if the destination exists or is being downloaded.
enum class OnConflict {
  /// Continue an incomplete file, accept a complete one, take over one that is being downloaded.
  resume,
  /// Cancel its download, delete the file and download it again.
  replace,
  /// Download to another name, reported by `Status::renamed`.
  keep_both,
  /// Fail, and leave the file alone.
  stop,
};

/// The progress of a download.
struct Progress {
  /// Nothing received.
  Progress() : Progress(0.0F, 0, false) {}
  /// The order of the parameters differs from that of the fields.
  Progress(std::optional<float> value, std::int64_t bytes, bool at_snap_point,
           std::optional<std::int64_t> length = std::nullopt)
      : content_length(length), prog_value(value), received_bytes(bytes),
        is_at_snap_point(at_snap_point) {}

  std::optional<std::int64_t> content_length; ///< bytes; none if the server did not send it
  /// 0.0 to 1.0, or above if the server sends more than it was asked for and nothing refuses that;
  /// none if the length is not known.
  std::optional<float> prog_value;
  std::int64_t received_bytes; ///< written to disk or queued for writing
  /// True about once per `progress_snap_interval`, for applications that want few updates.
  bool is_at_snap_point;

  friend bool operator==(const Progress&, const Progress&) = default;
};

/// Why a download failed.
struct CustomError {
  /// Any other error.
  struct other {
    Error error; ///< as it was thrown
  };
  /// The server sent nothing for too long.
  struct timeout {};
  /// No network interface is up.
  struct not_connected_to_internet {};
  /// The connection ended before the response was complete.
  struct network_connection_lost {};

  /// The reason, for people.
  [[gnu::visibility("default")]] std::string text() const;

  /// Calls `visitor` with the current case.
  template <class Visitor> decltype(auto) visit(Visitor&& visitor) const {
    return std::visit(std::forward<Visitor>(visitor), value);
  }
  /// Whether this is the current case.
  template <class Case> bool holds() const { return std::holds_alternative<Case>(value); }
  /// The current case, or null if it is another one.
  template <class Case> const Case* get_if() const { return std::get_if<Case>(&value); }

  /// The cases.
  std::variant<other, timeout, not_connected_to_internet, network_connection_lost> value;
};

/// Classifies an error by its `URLError`: timeout, no network, lost connection, or else `other`.
[[gnu::visibility("default")]] CustomError make_custom_error(const Error& from);

/// The state of an operation.
struct State {
  /// Receiving the content.
  struct downloading {
    Progress progress; ///< of the last event
    friend bool operator==(const downloading&, const downloading&) = default;
  };
  /// The last run was cancelled.
  struct cancelled {
    bool also_cleared_files; ///< the destination and its record were deleted
    Progress progress;       ///< according to the record
    friend bool operator==(const cancelled&, const cancelled&) = default;
  };
  /// The last run failed.
  struct failed {
    CustomError custom_error; ///< why
  };
  /// Not started yet.
  struct none {};
  /// Waiting for a slot, or for an earlier download of the same file to end.
  struct pending {};
  /// Requesting the header.
  struct connecting {};
  /// The file is complete.
  struct successful {};
  /// Asked to stop.
  struct cancelling {};

  /// Calls `visitor` with the current case.
  template <class Visitor> decltype(auto) visit(Visitor&& visitor) const {
    return std::visit(std::forward<Visitor>(visitor), value);
  }
  /// Whether this is the current case.
  template <class Case> bool holds() const { return std::holds_alternative<Case>(value); }
  /// The current case, or null if it is another one.
  template <class Case> const Case* get_if() const { return std::get_if<Case>(&value); }

  /// The cases.
  std::variant<downloading, cancelled, failed, none, pending, connecting, successful, cancelling>
      value;
};

/// An event of a run. Each run ends with exactly one of `success`, `cancelled` and `error`.
struct Status {
  /// The destination exists, and the download goes to another name. Sent before `resume(...)`
  /// returns.
  struct renamed {
    URL new_file_url; ///< in the same directory
    friend bool operator==(const renamed&, const renamed&) = default;
  };
  /// The destination and its record were created. This is the only event that is sent on a
  /// background thread.
  struct files_are_created {
    URL main_file_url;   ///< the destination
    URL resume_file_url; ///< the record beside it
    friend bool operator==(const files_are_created&, const files_are_created&) = default;
  };
  /// The content starts to arrive.
  struct started {
    std::optional<std::int64_t> content_length; ///< bytes
    friend bool operator==(const started&, const started&) = default;
  };
  /// A chunk has arrived.
  struct downloading {
    Progress progress; ///< of the whole file
    friend bool operator==(const downloading&, const downloading&) = default;
  };
  /// Final. A download that was not split restarts from the beginning when it is resumed.
  struct cancelled {
    bool also_cleared_files; ///< the destination and its record were deleted
    Progress progress;       ///< according to the record
    friend bool operator==(const cancelled&, const cancelled&) = default;
  };
  /// Final: the run failed.
  struct error {
    CustomError custom_error; ///< why
  };
  /// Waiting for a slot, or for an earlier download of the same file to end.
  struct pending {};
  /// Requesting the header.
  struct connecting {};
  /// Final: the file is complete.
  struct success {};
  /// Asked to stop.
  struct cancelling {};

  /// Calls `visitor` with the current case.
  template <class Visitor> decltype(auto) visit(Visitor&& visitor) const {
    return std::visit(std::forward<Visitor>(visitor), value);
  }
  /// Whether this is the current case.
  template <class Case> bool holds() const { return std::holds_alternative<Case>(value); }
  /// The current case, or null if it is another one.
  template <class Case> const Case* get_if() const { return std::get_if<Case>(&value); }

  /// Whether this is the last event of the run.
  bool is_final() const { return holds<success>() || holds<cancelled>() || holds<error>(); }

  /// The cases.
  std::variant<renamed, files_are_created, started, downloading, cancelled, error, pending,
               connecting, success, cancelling>
      value;
};

} // namespace ravelin
