#include "libconf/conf_client_area.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>
#include <thread>
#include <type_traits>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "libconf/conf_misc.h"
#include "libconf/conf_service.h"

// The file: a head, then the slots (conf_client_info_t; a free one is zero). Agents change it under an exclusive flock.
// All access is by pread and pwrite, which see each other like mappings do: a peer that cut the file short would kill a
// process that had mapped it.

namespace {

constexpr char AREA_FILE[] = "clients";
constexpr mode_t AREA_MODE = 0660;
constexpr uint32_t AREA_MAGIC = 0x43474D59; // "YMGC" on little-endian machines
constexpr uint32_t AREA_VERSION = 1;
constexpr int MOST_SLOTS = 65535; // session ids have 16 bits
constexpr int LOCK_ATTEMPTS = 500;
constexpr std::chrono::milliseconds LOCK_PAUSE{10};

typedef struct _area_head {
  uint32_t magic;
  uint32_t version;
  uint32_t slots;
  uint32_t slot_size;
} area_head_t;
static_assert(std::is_trivially_copyable_v<area_head_t>);
static_assert(std::is_trivially_copyable_v<conf_client_info_t> && sizeof(conf_client_info_t) == 24);

class area_file {
public:
  explicit area_file(int fd = -1) : fd_(fd) {}
  area_file(const area_file &) = delete;
  area_file &operator=(const area_file &) = delete;
  ~area_file() { reset(-1); }

  int get() const { return fd_; }
  int release()
  {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  // Keeps errno: an early return must not lose its cause.
  void reset(int fd)
  {
    int cause = errno;
    if (fd_ >= 0) {
      close(fd_);
    }
    fd_ = fd;
    errno = cause;
  }

private:
  int fd_;
};

// The daemon's end. The number of slots is kept here: what the file says may have been changed by others.
area_file daemon_area;
uint32_t daemon_slots = 0;

off_t slot_offset(size_t index)
{
  return static_cast<off_t>(sizeof(area_head_t) + index * sizeof(conf_client_info_t));
}

bool write_at(int fd, const void *bytes, size_t size, off_t offset)
{
  ssize_t written = pwrite(fd, bytes, size, offset);
  if (written >= 0 && static_cast<size_t>(written) != size) {
    errno = ENOSPC;
  }
  return written >= 0 && static_cast<size_t>(written) == size;
}

// The slots that are there, at most `count`; nothing (with errno) when the file cannot be read.
std::optional<std::vector<conf_client_info_t>> read_slots(int fd, uint32_t count)
{
  try {
    std::vector<conf_client_info_t> slots(count);
    ssize_t size = pread(fd, slots.data(), count * sizeof(conf_client_info_t), slot_offset(0));
    if (size < 0) {
      return std::nullopt;
    }
    slots.resize(static_cast<size_t>(size) / sizeof(conf_client_info_t));
    return slots;
  } catch (const std::exception &) {
    errno = ENOMEM;
    return std::nullopt;
  }
}

bool is_free(const conf_client_info_t &slot)
{
  return slot.pid <= 0 || (kill(slot.pid, 0) != 0 && errno == ESRCH);
}

bool is_valid_family(int32_t family)
{
  return family == 0 || family == AF_INET || family == AF_INET6;
}

// Index of the slot that holds `pid`; the number of slots when none does.
size_t find_pid(const std::vector<conf_client_info_t> &slots, int pid)
{
  auto found =
      std::find_if(slots.begin(), slots.end(), [pid](const conf_client_info_t &slot) { return slot.pid == pid; });
  return static_cast<size_t>(found - slots.begin());
}

// --- The agent's end.

// The number of slots of a file that is a client area; nothing, with errno, when it is none.
std::optional<uint32_t> read_slot_count(int fd)
{
  area_head_t head = {};
  struct stat status = {};
  ssize_t size = pread(fd, &head, sizeof(head), 0);
  if (size < 0 || fstat(fd, &status) != 0) {
    return std::nullopt;
  }
  bool sound = static_cast<size_t>(size) == sizeof(head) && head.magic == AREA_MAGIC && head.version == AREA_VERSION &&
               head.slot_size == sizeof(conf_client_info_t) && head.slots > 0 &&
               head.slots <= static_cast<uint32_t>(MOST_SLOTS) && status.st_size >= slot_offset(head.slots);
  if (!sound) {
    errno = EPROTO;
    return std::nullopt;
  }
  return head.slots;
}

// Waits some seconds at most: a stopped process that holds the lock must not stop the others for ever.
int lock_area(int fd)
{
  for (int attempt = 0; attempt < LOCK_ATTEMPTS; attempt++) {
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
      return 0;
    }
    if (errno != EWOULDBLOCK && errno != EINTR) {
      return -1;
    }
    std::this_thread::sleep_for(LOCK_PAUSE);
  }
  errno = ETIMEDOUT;
  return -1;
}

int register_locked(int fd, const conf_client_info_t &info)
{
  std::optional<uint32_t> count = read_slot_count(fd);
  std::optional<std::vector<conf_client_info_t>> slots = count ? read_slots(fd, *count) : std::nullopt;
  if (!slots) {
    return -1;
  }
  size_t index = find_pid(*slots, info.pid);
  if (index == slots->size()) {
    index = static_cast<size_t>(std::find_if(slots->begin(), slots->end(), is_free) - slots->begin());
  }
  if (index == slots->size()) {
    errno = ENOSPC;
    return -1;
  }
  return write_at(fd, &info, sizeof(info), slot_offset(index)) ? 0 : -1;
}

// A new file under another name, complete before it gets its own: an agent never sees a half-made area.
int make_area(const std::string &path, uint32_t slots, area_file *ret_area)
{
  std::string draft = path + ".new";
  unlink(draft.c_str());
  area_file area(open(draft.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, AREA_MODE));
  if (area.get() < 0) {
    return -1;
  }
  area_head_t head = {AREA_MAGIC, AREA_VERSION, slots, sizeof(conf_client_info_t)};
  if (fchmod(area.get(), AREA_MODE) != 0 || ftruncate(area.get(), slot_offset(slots)) != 0 ||
      !write_at(area.get(), &head, sizeof(head), 0) || rename(draft.c_str(), path.c_str()) != 0) {
    int cause = errno;
    unlink(draft.c_str());
    errno = cause;
    return -1;
  }
  ret_area->reset(area.release());
  return 0;
}

} // namespace

int conf_clishm_create(int slots)
{
  if (slots <= 0) {
    errno = EINVAL;
    return -1;
  }
  uint32_t count = static_cast<uint32_t>(std::min(slots, MOST_SLOTS));
  std::string path = std::string(conf_run_dir()) + "/" + AREA_FILE;
  if (conf_make_run_dir() != 0 || make_area(path, count, &daemon_area) != 0) {
    return -1;
  }
  daemon_slots = count;
  return 0;
}

void conf_clishm_destroy()
{
  if (daemon_area.get() < 0) {
    return;
  }
  std::string path = std::string(conf_run_dir()) + "/" + AREA_FILE;
  unlink(path.c_str());
  daemon_area.reset(-1);
  daemon_slots = 0;
}

int conf_get_client_info(int pid, conf_client_info_t *ret_info)
{
  if (daemon_area.get() < 0 || pid <= 0) {
    return -1;
  }
  std::optional<std::vector<conf_client_info_t>> slots = read_slots(daemon_area.get(), daemon_slots);
  size_t index = slots ? find_pid(*slots, pid) : 0;
  if (!slots || index == slots->size() || !is_valid_family((*slots)[index].family)) {
    return -1;
  }
  *ret_info = (*slots)[index];
  return 0;
}

void conf_free_client_info(int pid)
{
  // Never waits for the lock: while an agent holds it, the slot is left to be found free when its process has ended.
  if (daemon_area.get() < 0 || pid <= 0 || flock(daemon_area.get(), LOCK_EX | LOCK_NB) != 0) {
    return;
  }
  std::optional<std::vector<conf_client_info_t>> slots = read_slots(daemon_area.get(), daemon_slots);
  size_t index = slots ? find_pid(*slots, pid) : 0;
  if (slots && index < slots->size()) {
    const conf_client_info_t empty = {};
    if (!write_at(daemon_area.get(), &empty, sizeof(empty), slot_offset(index))) {
      conf_dbg(DBG_WARN, "Free the client area's slot of process %d failed.", pid);
    }
  }
  flock(daemon_area.get(), LOCK_UN);
}

int conf_register_client(const std::string &run_dir, const conf_client_info_t &info)
{
  if (info.pid <= 0 || !is_valid_family(info.family)) {
    errno = EINVAL;
    return -1;
  }
  std::string path = run_dir + "/" + AREA_FILE;
  area_file area(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
  if (area.get() < 0 || lock_area(area.get()) != 0) {
    return -1;
  }
  return register_locked(area.get(), info); // closing the file gives the lock back
}
