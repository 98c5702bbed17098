#define FUSE_USE_VERSION 35
#include "bench/faults/tally.h"
#include "src/FileProcessor.h"
#include "tests/app/program.h"
#include "tests/harness/patterns.h"
#include "tests/harness/scripted_server.h"

#include <cstdio>
#include <fstream>
#include <fuse.h>
#include <mutex>
#include <random>
#include <sys/mman.h>
#include <sys/mount.h>

// Cuts the power of a real file system. A FUSE file under a loop device logs what ext4 and xfs
// write and flush during downloads, while another program flushes a file of its own. For each cut
// an image gets everything up to one flush and a random part of what was written after it, with
// torn writes. The file system then recovers from its journal: the record must not count a byte
// that is not in the file, and the same command must complete the download. What that writes is
// logged, too, and the power is cut once more.
//   --points N   cuts for each case and file system (6)     --all 1   two at each flush
//   --seed N     of the choices (1)
//   --flushes 0  those of the program do nothing: fails if nothing is found wrong then (1)

namespace test {
namespace {

using namespace std::chrono_literals;
using ravelin::URL;

constexpr std::size_t sector = 1024; // ext4 does not mount if half of its superblock is new

struct Write {
  off_t at;
  std::string bytes; // empty: a flush
};
using Log = std::vector<Write>;

/// The content of a disk, in a file, and what was written to it.
class LoggedDisk {
public:
  LoggedDisk(const fs::path& image, const fs::path& directory)
      : directory_(directory), size_(fs::file_size(image)) {
    const int file = ::open(image.c_str(), O_RDWR | O_CLOEXEC);
    void* const mapped = ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    content_ = static_cast<char*>(mapped);
    ::close(file);
    fs::create_directory(directory);
    fuse_args arguments = FUSE_ARGS_INIT(0, nullptr);
    fuse_opt_add_arg(&arguments, "power_cuts");
    fuse_operations calls{};
    calls.getattr = [](const char* path, struct stat* status, fuse_file_info*) {
      const bool is_disk = std::string(path) == "/disk";
      status->st_mode = is_disk ? S_IFREG | 0600 : S_IFDIR | 0700;
      status->st_nlink = 1;
      status->st_size = is_disk ? static_cast<off_t>(self().size_) : 0;
      return is_disk || std::string(path) == "/" ? 0 : -ENOENT;
    };
    calls.open = [](const char*, fuse_file_info* file_info) {
      file_info->direct_io = 1; // every write arrives here when it is made
      return 0;
    };
    calls.read = [](const char*, char* to, std::size_t size, off_t at, fuse_file_info*) {
      std::memcpy(to, self().content_ + at, size);
      return static_cast<int>(size);
    };
    calls.write = [](const char*, const char* from, std::size_t size, off_t at, fuse_file_info*) {
      std::memcpy(self().content_ + at, from, size);
      return self().note({at, {from, size}}), static_cast<int>(size);
    };
    calls.fsync = [](const char*, int, fuse_file_info*) { return self().note({0, ""}), 0; };
    fuse_ = fuse_new(&arguments, &calls, sizeof calls, this);
    if (!fuse_ || fuse_mount(fuse_, directory.c_str()) != 0)
      throw std::runtime_error("FUSE cannot be used here");
    thread_ = std::jthread([this] { fuse_loop(fuse_); });
    fuse_opt_free_args(&arguments);
  }
  ~LoggedDisk() {
    ::umount2(directory_.c_str(), MNT_DETACH); // ends the loop once the loop device is gone
    thread_.join();
    fuse_unmount(fuse_);
    fuse_destroy(fuse_);
    ::munmap(content_, size_);
  }
  Log take_log() {
    const std::lock_guard lock(mutex_);
    return std::exchange(log_, {});
  }

private:
  static LoggedDisk& self() { return *static_cast<LoggedDisk*>(fuse_get_context()->private_data); }
  void note(Write write) {
    const std::lock_guard lock(mutex_);
    log_.push_back(std::move(write));
  }
  const fs::path directory_;
  const std::size_t size_;
  char* content_ = nullptr;
  fuse* fuse_ = nullptr;
  std::mutex mutex_;
  Log log_;
  std::jthread thread_;
};

void must(const TempDir& dir, const std::string& line) {
  const auto ran = run(dir.path(), line);
  if (ran.status != 0)
    throw std::runtime_error(line + ": " + ran.err);
}

/// A file system on a loop device, mounted at `disk` of the directory until the end of its scope.
class Mounted {
public:
  Mounted(const TempDir& dir, const std::string& file) : dir_(dir) {
    must(dir, "mkdir -p disk && mount -o loop " + file + " disk && mkdir -p disk/d");
  }
  ~Mounted() { run(dir_.path(), "umount disk"); }

private:
  const TempDir& dir_;
};

struct Case {
  const char* name;
  const char* before; // is on the disk already
  const char* cut;    // during this
  const char* again = "ravelin get -q $at";
};

const Case cases[] = {
    {"five parts", "true", "ravelin get -q $at?slow"},
    {"one piece", "true", "ravelin get -q --no-split $at?slow", "ravelin get -q --no-split $at"},
    {"cancelled", "true", "timeout -s INT 0.4 ravelin get -q $at?slow; ravelin get -q $at?slow"},
    {"cancelled and cleared", "timeout -s INT 0.3 ravelin get -q $at?slow; true",
     "ravelin clear file.bin; ravelin get -q $at?slow"},
    {"replace", "ravelin get -q $at?older", "ravelin get -q --on-conflict replace $at?slow",
     "ravelin get -q --on-conflict replace $at"},
    {"over an older part", "timeout -s INT 0.3 ravelin get -q $at?older-slow; true",
     "ravelin get -q --on-conflict replace $at?slow", "ravelin get -q --on-conflict replace $at"},
    {"equal stems", "true", // one is refused while the other one is not complete
     "for n in 1 2 3; do ravelin get -q $at?slow ${at/bin/txt}?slow && break; done",
     "for n in 1 2 3; do ravelin get -q $at ${at/bin/txt} && break; done && "
     "curl -s ${at/bin/txt} | cmp - file.txt && rm file.txt"},
};

class Cuts {
public:
  Cuts(std::string system, const Case& one, unsigned seed, bool flushes)
      : system_(std::move(system)), one_(one), random_(seed), flushes_(flushes) {}

  /// Returns how many have brought something wrong.
  long carry_out(long points) {
    const TempDir dir;
    must(dir, "truncate -s " + std::string(system_ == "xfs" ? "300M" : "24M") +
                  " disk.img && mkfs." + system_ + " -q disk.img");
    {
      const Mounted mounted(dir, "disk.img");
      run(dir / "disk/d", one_.before, server_.url());
    }
    const std::string first = flushes_ ? "" : "export LD_PRELOAD=libeatmydata.so; ";
    const auto log = log_of(dir, "disk.img", [&] {
      const auto ran = run(dir / "disk/d",
                           "touch $0/on; while [ -e $0/on ]; do echo >../other; sync ../other; "
                           "sleep 0.02; done & { " +
                               first + one_.cut + "; }; status=$?; rm $0/on; wait; exit $status",
                           server_.url());
      if (ran.status != 0)
        throw std::runtime_error(std::string(one_.name) + ": " + ran.err);
    });
    const auto flushes = std::ranges::count_if(log, &std::string::empty, &Write::bytes);
    long cuts = 0, in_recoveries = 0;
    const auto print = [&] {
      std::printf("  %-5s %-22s %td flushes, %ld cuts, %ld in recoveries, %ld wrong\n",
                  system_.c_str(), one_.name, flushes, cuts, in_recoveries, wrong_);
    };
    cut(dir, "disk.img", log, points, [&](const std::string& where) {
      const auto recovery =
          log_of(dir, "disk.img-cut", [&] { check(dir, where, server_.url() + "?brief"); });
      cut(dir, "disk.img-cut", recovery, 1, [&](const std::string& again) {
        const Mounted mounted(dir, "disk.img-cut-cut");
        check(dir, where + ", then " + again + " of the recovery", server_.url());
        ++in_recoveries;
      });
      if (++cuts % 50 == 0 && cuts != points)
        print();
    });
    print();
    return wrong_;
  }

private:
  /// What the job writes to the disk of that content.
  Log log_of(const TempDir& dir, const std::string& image, const std::function<void()>& job) {
    must(dir, "cp --sparse=always " + image + " logged");
    LoggedDisk disk(dir / "logged", dir / "fuse");
    const Mounted mounted(dir, "fuse/disk");
    job();
    must(dir, "sync -f disk");
    return disk.take_log();
  }
  /// Makes IMAGE-cut for each cut, and then calls `check`. Negative points: two at each flush.
  void cut(const TempDir& dir, const std::string& image, const Log& log, long points,
           const std::function<void(const std::string& where)>& check) {
    std::vector<std::size_t> flushes{0};
    for (std::size_t i = 0; i < log.size(); ++i)
      if (log[i].bytes.empty())
        flushes.push_back(i + 1);
    std::vector<int> wanted(flushes.size(), points < 0 ? 2 : 0);
    for (long n = 0; n < points; ++n)
      ++wanted[random_() % wanted.size()];
    std::fstream flushed(dir / image, std::ios::in | std::ios::out | std::ios::binary);
    for (std::size_t i = 0; i < flushes.size(); ++i) {
      if (i > 0) // what the last flush has made safe
        for (auto at = flushes[i - 1]; at < flushes[i]; ++at)
          apply(flushed, log[at]);
      const auto end = i + 1 < flushes.size() ? flushes[i + 1] : log.size();
      for (int n = 0; n < wanted[i]; ++n) {
        must(dir, "cp --sparse=always " + image + " " + image + "-cut");
        std::fstream cut(dir / (image + "-cut"), std::ios::in | std::ios::out | std::ios::binary);
        const bool more = points < 0 ? n == 1 : random_() % 4 > 0;
        for (auto at = flushes[i]; more && at < end; ++at)
          apply_some(cut, log[at]);
        cut.close();
        check("flush " + std::to_string(i));
      }
    }
  }
  void apply(std::fstream& image, const Write& write) {
    image.seekp(write.at).write(write.bytes.data(), std::ssize(write.bytes)).flush();
  }
  /// All of it, nothing, or some of its sectors.
  void apply_some(std::fstream& image, const Write& write) {
    const auto how = random_() % 3;
    for (std::size_t at = 0; how > 0 && at < write.bytes.size(); at += sector)
      if (how == 1 || random_() % 2)
        apply(image, {write.at + static_cast<off_t>(at), write.bytes.substr(at, sector)});
  }
  void check(const TempDir& dir, const std::string& where, const std::string& at) {
    const auto file = dir / "disk/d/file.bin";
    std::string problem;
    const auto record = ravelin::FileProcessor::read_resume_data(URL::file(file));
    const auto held = fs::exists(file) ? dir.read("disk/d/file.bin") : "";
    for (std::size_t i = 0; fs::exists(file) && record && i < record->parts.size(); ++i) {
      const auto& part = *record->parts[i];
      const auto begin = static_cast<std::size_t>(part.begin_pos);
      const auto size = static_cast<std::size_t>(part.curr_bytes);
      const auto counted = held.substr(std::min(begin, held.size()), size);
      if (counted != content_.substr(begin, size) && counted != older_.substr(begin, size))
        problem += "part " + std::to_string(i) + " has other bytes than counted; ";
    }
    const auto ran =
        run(dir / "disk/d", "{ " + std::string(one_.again) + "; } && ls -AI '.hidden*'", at);
    if (ran.status != 0 || ran.out != "file.bin\n" || dir.read("disk/d/file.bin") != content_)
      problem += "was not completed: " + ran.out + ran.err;
    wrong_ += !problem.empty();
    if (flushes_ && !problem.empty())
      std::printf("  %s, %s, %s: %s\n", system_.c_str(), one_.name, where.c_str(), problem.c_str());
  }

  // Of the same size, since another size would show that a file is older.
  const std::string content_ = pattern(300'003), older_ = pattern(300'003, 2);
  const ScriptedServer server_{[this](const Request& request) {
    const auto has = [&](const char* word) {
      return request.target.find(word) != std::string::npos;
    };
    Reply reply{.body = has("txt")     ? pattern(content_.size(), 3)
                        : has("older") ? older_
                                       : content_};
    if (has("slow") || has("brief"))
      reply.piece = 4000, reply.piece_delay = has("slow") ? 40ms : 15ms;
    return reply;
  }};
  const std::string system_;
  const Case& one_;
  std::mt19937 random_;
  const bool flushes_;
  long wrong_ = 0;
};

} // namespace
} // namespace test

int main(int argc, char** argv) try {
  using namespace test;
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const bool all = number_option(argc, argv, "--all", 0) > 0;
  const auto points = all ? -1 : number_option(argc, argv, "--points", 6);
  const auto seed = static_cast<unsigned>(number_option(argc, argv, "--seed", 1));
  const bool flushes = number_option(argc, argv, "--flushes", 1) > 0;
  const TempDir dir;
  const auto probe = run(dir.path(), "test -w /dev/fuse && losetup -f && which mkfs.ext4 mkfs.xfs");
  if (probe.status != 0) {
    std::printf("skipped: needs /dev/fuse, a loop device, mkfs.ext4 and mkfs.xfs as root: %s\n",
                probe.err.c_str());
    return 77;
  }
  std::atomic<long> wrong = 0;
  std::atomic<bool> could_run = true;
  in_parallel([&](int number) {
    const auto index = static_cast<std::size_t>(number) / 2;
    if (index >= std::size(cases))
      return false;
    const auto* const system = number % 2 ? "xfs" : "ext4";
    try {
      wrong += Cuts(system, cases[index], 100 * seed + static_cast<unsigned>(number), flushes)
                   .carry_out(points);
    } catch (const std::exception& error) {
      std::printf("  %s, %s: could not run: %s\n", system, cases[index].name, error.what());
      could_run = false;
    }
    return true;
  });
  return could_run && (wrong == 0) == flushes ? 0 : 1;
} catch (const std::exception& error) {
  std::printf("could not run: %s\n", error.what());
  return 1;
}
