#include <Korvo/KoStrUtils.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Korvo {

namespace {

static_assert(sizeof(off_t) == 8,
              "compile with _FILE_OFFSET_BITS=64: files of any size are copied");

/// Closes a descriptor and leaves errno alone, so that the cause of a failure reaches the caller.
void closeQuietly(int fd) {
  const int errnoBefore = errno;
  ::close(fd);
  errno = errnoBefore;
}

/// Owns a file descriptor, or none if opening failed.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd_ >= 0) closeQuietly(fd_);
  }

  explicit operator bool() const { return fd_ >= 0; }
  int get() const { return fd_; }

 private:
  int fd_;
};

/// What two names of the same file have in common.
struct FileId {
  dev_t device = 0;
  ino_t inode = 0;

  friend bool operator==(const FileId&, const FileId&) = default;
};

FileId fileId(const struct stat& info) {
  return {info.st_dev, info.st_ino};
}

/// A path that holds a NUL would reach the system cut short, and so name another file.
bool isNameable(std::string_view path) {
  if (path.find('\0') == path.npos) return true;
  errno = EINVAL;
  return false;
}

// ---------------------------------------------------------------------------------------------
// Removing a tree

struct DirectoryCloser {
  void operator()(DIR* dir) const {
    const int errnoBefore = errno;
    ::closedir(dir);
    errno = errnoBefore;
  }
};

/// An open directory and its identity; without `dir` if it could not be opened.
struct Directory {
  std::unique_ptr<DIR, DirectoryCloser> dir;
  FileId id;
};

int descriptorOf(const Directory& directory) {
  return ::dirfd(directory.dir.get());
}

/// Opens directory `name` of directory `parent`.
Directory openDirectory(int parent, const char* name, int flags) {
  const int fd = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags);
  if (fd < 0) return {};
  struct stat info;
  DIR* const dir = ::fstat(fd, &info) == 0 ? ::fdopendir(fd) : nullptr;
  if (dir == nullptr) {
    closeQuietly(fd);
    return {};
  }
  return {std::unique_ptr<DIR, DirectoryCloser>(dir), fileId(info)};
}

/// Removes one tree, relative to open directories only, so that nothing that happens to the paths
/// meanwhile leads it elsewhere. A list of levels takes the place of recursion, and only the
/// innermost of them stay open, so neither the stack nor the number of descriptors limits the
/// depth.
class TreeRemoval {
 public:
  explicit TreeRemoval(FileId root) : root_(root) {}

  /// Removes directory `name` of directory `parent`; a slash at the end of `name` follows a link.
  bool run(int parent, const char* name) {
    parent_ = parent;
    bool going = enter(parent, name, 0);
    while (going && !levels_.empty()) going = step();
    return going;
  }

 private:
  /// A directory that is being emptied.
  struct Level {
    std::string name;     // in the level before
    Directory directory;  // without its `dir` while the level is suspended
  };

  // Enough for nearly every tree, and little beside what a process may have open.
  static constexpr std::size_t maxOpenLevels = 16;

  /// Deals with the innermost level's next entry, or with its end.
  bool step() {
    const Directory& directory = levels_.back().directory;
    const struct dirent* const entry = ::readdir(directory.dir.get());
    if (entry == nullptr) return leave();
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") return true;
    const int fd = descriptorOf(directory);
    // An entry of unknown type counts as a file, on purpose.
    if (entry->d_type == DT_DIR) return enter(fd, entry->d_name, O_NOFOLLOW);
    return ::unlinkat(fd, entry->d_name, 0) == 0;
  }

  bool enter(int parent, const char* name, int flags) {
    if (levels_.size() - suspended_ == maxOpenLevels) suspendOutermost();
    Directory entered = openDirectory(parent, name, flags);
    while (!entered.dir && (errno == EMFILE || errno == ENFILE) && suspendOutermost()) {
      entered = openDirectory(parent, name, flags);
    }
    if (!entered.dir) return false;
    if (entered.id == root_) {
      errno = EBUSY;
      return false;
    }
    levels_.push_back({name, std::move(entered)});
    return true;
  }

  /// Removes the innermost level's directory, which is empty by now.
  bool leave() {
    Level emptied = std::move(levels_.back());
    levels_.pop_back();
    if (suspended_ > 0 && suspended_ == levels_.size() && !resumeInnermost(emptied)) return false;
    if (::closedir(emptied.directory.dir.release()) != 0) return false;
    const int parent = levels_.empty() ? parent_ : descriptorOf(levels_.back().directory);
    return ::unlinkat(parent, emptied.name.c_str(), AT_REMOVEDIR) == 0;
  }

  /// Closes the outermost open level, unless it is the innermost as well.
  bool suspendOutermost() {
    if (suspended_ + 1 >= levels_.size()) return false;
    levels_[suspended_++].directory.dir.reset();
    return true;
  }

  /// Opens a suspended level again by way of its child. It is read from the start once more, where
  /// only what is still to be removed is left.
  bool resumeInnermost(const Level& child) {
    Directory resumed = openDirectory(descriptorOf(child.directory), "..", 0);
    if (!resumed.dir) return false;
    // The child may have been moved meanwhile: its parent need not be part of the tree.
    if (resumed.id != levels_.back().directory.id) {
      errno = ESTALE;
      return false;
    }
    levels_.back().directory = std::move(resumed);
    --suspended_;
    return true;
  }

  const FileId root_;
  int parent_ = -1;
  std::vector<Level> levels_;
  std::size_t suspended_ = 0;  // the first levels, up to here, are suspended
};

// ---------------------------------------------------------------------------------------------
// Copying a file

bool writeAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = ::write(fd, data, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    data += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

/// Copies all that is left to read; fails if that is nothing.
bool copyContent(int from, int to, bool insideSystem) {
  bool copied = false;
  // What the system cannot copy by itself, or fails to, is left to the loop below: it meets the
  // same failure and reports it.
  constexpr std::size_t atOnce = std::size_t{1} << 30;
  while (insideSystem && ::copy_file_range(from, nullptr, to, nullptr, atOnce, 0) > 0)
    copied = true;

  char buffer[std::size_t{1} << 16];
  for (;;) {
    const ssize_t size = ::read(from, buffer, sizeof buffer);
    if (size == 0) return copied;
    if (size < 0 && errno == EINTR) continue;
    if (size < 0 || !writeAll(to, buffer, static_cast<std::size_t>(size))) return false;
    copied = true;
  }
}

}  // namespace

int removeTree(std::string path) try {
  if (path.empty() || !isNameable(path)) return -1;
  KoStrUtils::addTrailingSlash(path);
  struct stat root;
  if (::stat("/", &root) != 0) return -1;

  // The name keeps its slashes: it is opened like the path, a link followed, and rmdir then refuses
  // the link.
  const std::size_t nameStart = path.rfind('/', path.find_last_not_of('/')) + 1;
  const std::string name = nameStart == path.size() ? "/" : path.substr(nameStart);
  path.resize(nameStart);
  const Descriptor parent(
      ::open(path.empty() ? "." : path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!parent) return -1;
  return TreeRemoval(fileId(root)).run(parent.get(), name.c_str()) ? 0 : -1;
} catch (const std::bad_alloc&) {
  errno = ENOMEM;
  return -1;
}

int copyFile(const std::string& from, const std::string& to) {
  if (!isNameable(from) || !isNameable(to)) return -1;
  const Descriptor source(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  // Emptied only when it is known not to be the source.
  const Descriptor destination(::open(to.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
  if (!destination) return -1;

  // A source that may not be read can still be the destination.
  struct stat sourceInfo;
  const bool sourceExists =
      (source ? ::fstat(source.get(), &sourceInfo) : ::stat(from.c_str(), &sourceInfo)) == 0;
  if (source && !sourceExists) return -1;  // it might be the destination
  struct stat destinationInfo;
  if (::fstat(destination.get(), &destinationInfo) != 0) return -1;
  if (sourceExists && fileId(sourceInfo) == fileId(destinationInfo)) {
    if (source) errno = EINVAL;
    return -1;
  }
  const bool toRegular = S_ISREG(destinationInfo.st_mode);
  if (toRegular && ::ftruncate(destination.get(), 0) != 0) return -1;
  if (!source) return -1;
  const bool bothRegular = toRegular && sourceExists && S_ISREG(sourceInfo.st_mode);
  return copyContent(source.get(), destination.get(), bothRegular) ? 0 : -1;
}

}  // namespace Korvo
