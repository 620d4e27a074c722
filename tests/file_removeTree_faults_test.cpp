// Removal of a tree when the system fails it, or when somebody changes the tree at the worst
// moment: this program's own versions of the calls stand between the library and the system.

#include <Korvo/KoStrUtils.h>

#include <dirent.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <utility>

#include "confined.h"
#include "file_fault_support.h"

namespace {

struct Faults {
  Fault open, fdopendir, fstat, readdir, closedir, unlink, rmdir, allocate;
};
Faults faults;
bool armed = false;

bool failNow(Fault& fault, int error) {
  if (!armed || !fault.due()) return false;
  errno = error;
  return true;
}

/// Called before each call that goes by a name. What happens to names between any other two steps
/// shows in the next of these.
std::function<void()> beforeNamed;

void announceNamed() {
  if (!armed || !beforeNamed) return;
  armed = false;
  beforeNamed();
  armed = true;
}

/// Called with each entry that is read, and with null at the end of a folder.
std::function<void(dirent64*)> onEntry;

int openNext(const char* function, int parent, const char* path, int flags, mode_t mode) {
  announceNamed();
  if (failNow(faults.open, EIO)) return -1;
  return next<int(int, const char*, int, ...)>(function)(parent, path, flags, mode);
}

int fstatNext(const char* function, int fd, void* info) {
  if (failNow(faults.fstat, EIO)) return -1;
  return next<int(int, void*)>(function)(fd, info);
}

}  // namespace

INTERPOSED int openat(int parent, const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return openNext("openat", parent, path, flags, mode);
}

INTERPOSED int openat64(int parent, const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return openNext("openat64", parent, path, flags, mode);
}

INTERPOSED int fstat(int fd, struct stat* info) noexcept {
  return fstatNext("fstat", fd, info);
}
INTERPOSED int fstat64(int fd, struct stat64* info) noexcept {
  return fstatNext("fstat64", fd, info);
}

INTERPOSED DIR* fdopendir(int fd) {
  if (failNow(faults.fdopendir, ENOMEM)) return nullptr;
  return next<DIR*(int)>("fdopendir")(fd);
}

// The library is built with 64-bit offsets on either word size.
INTERPOSED dirent64* readdir64(DIR* dir) {
  if (failNow(faults.readdir, EIO)) return nullptr;
  dirent64* const entry = next<dirent64*(DIR*)>("readdir64")(dir);
  if (armed && onEntry) {
    armed = false;
    onEntry(entry);
    armed = true;
  }
  return entry;
}
#if __SIZEOF_POINTER__ == 8
INTERPOSED dirent* readdir(DIR* dir) {
  return reinterpret_cast<dirent*>(readdir64(dir));
}
#endif

INTERPOSED int closedir(DIR* dir) {
  const bool failed = failNow(faults.closedir, EIO);
  const int result = next<int(DIR*)>("closedir")(dir);
  if (failed) errno = EIO;
  return failed ? -1 : result;
}

INTERPOSED int unlinkat(int parent, const char* path, int flags) noexcept {
  announceNamed();
  if (failNow((flags & AT_REMOVEDIR) != 0 ? faults.rmdir : faults.unlink, EIO)) return -1;
  return next<int(int, const char*, int)>("unlinkat")(parent, path, flags);
}

// Not inlined, so that the compiler takes them for the pair that they are.
[[gnu::noinline]] void* operator new(std::size_t size) {
  if (armed && faults.allocate.due()) throw std::bad_alloc();
  if (void* const block = std::malloc(size)) return block;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* block) noexcept {
  std::free(block);
}
[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept {
  std::free(block);
}

namespace {

/// Removes the tree with the faults at work, which are as if never used afterwards.
int removeWithFaults(std::string path) {
  errno = 0;
  armed = true;
  const int result = Korvo::removeTree(std::move(path));
  armed = false;
  return result;
}

/// A tree deeper than what is kept open, with a file on each level.
void makeTree() {
  std::string path = "/d";
  for (int level = 0; level < 20; ++level) {
    makeFolder(path);
    makeFile(path + "/file");
    path += "/a folder with a name beyond a short string";
  }
}

/// Fails every call of a removal.
void failEveryCall(Fault& fault, int expectedErrno) {
  const auto remove = [] { return removeWithFaults("/d"); };
  failEveryCall(fault, makeTree, remove, [&](int call, int error) {
    EXPECT_EQ(error, expectedErrno) << call << ' ' << std::strerror(error);
    if (exists("/d")) {
      ASSERT_EQ(remove(), 0);
    }
  });
  EXPECT_FALSE(exists("/d"));
}

TEST(RemoveTreeFaults, FailsWhenOpeningFails) {
  confined([] { failEveryCall(faults.open, EIO); });
}
TEST(RemoveTreeFaults, FailsWhenExaminingFails) {
  confined([] { failEveryCall(faults.fstat, EIO); });
}
TEST(RemoveTreeFaults, FailsWhenReadingCannotBegin) {
  confined([] { failEveryCall(faults.fdopendir, ENOMEM); });
}
TEST(RemoveTreeFaults, FailsWhenUnlinkFails) {
  confined([] { failEveryCall(faults.unlink, EIO); });
}
TEST(RemoveTreeFaults, FailsWhenRemovingAFolderFails) {
  confined([] { failEveryCall(faults.rmdir, EIO); });
}
TEST(RemoveTreeFaults, FailsWithoutMemoryAndThrowsNothing) {
  confined([] { failEveryCall(faults.allocate, ENOMEM); });
}

// A folder that stops being read counts as read to its end: removing it then tells.
TEST(RemoveTreeFaults, FailsToRemoveAFolderThatStopsBeingRead) {
  confined([] {
    makeTree();
    faults.readdir.failing = 1;
    EXPECT_EQ(removeWithFaults("/d"), -1);
    EXPECT_EQ(errno, ENOTEMPTY);
    EXPECT_TRUE(exists("/d/file"));
    EXPECT_EQ(removeWithFaults("/d"), 0);
  });
}

TEST(RemoveTreeFaults, FailsWhenClosingFails) {
  confined([] {
    makeFolder("/d");
    makeFolder("/d/sub");
    for (const int failing : {1, 2}) {
      const int before = openDescriptors();
      faults.closedir = {failing, 0};
      EXPECT_EQ(removeWithFaults("/d"), -1) << failing;
      EXPECT_EQ(errno, EIO);
      EXPECT_EQ(openDescriptors(), before);
      EXPECT_EQ(exists("/d/sub"), failing == 1) << "a folder that was not closed stays";
      EXPECT_TRUE(exists("/d"));
      if (failing == 1) {
        ASSERT_EQ(rmdir("/d/sub"), 0);
        makeFolder("/d/sub");
      }
    }
  });
}

// -------------------------------------------------------------------------------------------------

// Entries of unknown type count as files on purpose, so folders among them fail.
TEST(RemoveTreeFaults, TakesEntriesOfUnknownTypeForFiles) {
  confined([] {
    onEntry = [](dirent64* entry) {
      if (entry != nullptr) entry->d_type = DT_UNKNOWN;
    };
    makeFolder("/d");
    makeFile("/d/file");
    EXPECT_EQ(removeWithFaults("/d"), 0) << std::strerror(errno);
    EXPECT_FALSE(exists("/d"));

    makeFolder("/d");
    makeFolder("/d/sub");
    EXPECT_EQ(removeWithFaults("/d"), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_TRUE(exists("/d/sub"));
  });
}

TEST(RemoveTreeFaults, FailsWhenAFileAppearsAtTheEnd) {
  confined([] {
    makeFolder("/d");
    onEntry = [](dirent64* entry) {
      if (entry == nullptr) makeFile("/d/late");
    };
    EXPECT_EQ(removeWithFaults("/d"), -1);
    EXPECT_EQ(errno, ENOTEMPTY);
    EXPECT_TRUE(exists("/d/late"));
  });
}

TEST(RemoveTreeFaults, DoesNotFollowALinkPutInAFoldersPlaceBeforeItIsOpened) {
  confined([] {
    makeFolder("/outside");
    makeFile("/outside/file");
    makeFolder("/d");
    makeFolder("/d/victim");
    onEntry = [](dirent64* entry) {
      if (entry == nullptr || std::string(entry->d_name) != "victim") return;
      ASSERT_EQ(rename("/d/victim", "/moved"), 0);
      makeLink("/outside", "/d/victim");
    };
    const int before = openDescriptors();
    EXPECT_EQ(removeWithFaults("/d"), -1);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(contentOf("/outside/file"), "content");
    EXPECT_TRUE(exists("/d/victim"));
  });
}

TEST(RemoveTreeFaults, DoesNotFollowALinkPutInAnOpenFoldersPlace) {
  confined([] {
    makeFolder("/outside");
    makeFile("/outside/file");
    makeFolder("/d");
    makeFolder("/d/victim");
    makeFile("/d/victim/file");
    onEntry = [](dirent64* entry) {
      if (entry == nullptr || std::string(entry->d_name) != "file") return;
      ASSERT_EQ(rename("/d/victim", "/moved"), 0);
      makeLink("/outside", "/d/victim");
    };
    EXPECT_EQ(removeWithFaults("/d"), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(contentOf("/outside/file"), "content");
    EXPECT_FALSE(exists("/moved/file")) << "it was part of the tree when it was opened";
  });
}

// The way back to a level that is no longer kept open leads elsewhere when its child was moved.
TEST(RemoveTreeFaults, DoesNotGoBackIntoAnotherFolder) {
  confined([] {
    makeFolder("/outside");
    makeFile("/outside/file");
    std::string path = "/d";
    for (int level = 0; level < 20; ++level) {
      makeFolder(path);
      path += "/n";
    }
    makeFile("/d/n/file beside");
    makeFolder(path);
    makeFile(path + "/innermost");
    onEntry = [](dirent64* entry) {
      if (entry == nullptr || std::string(entry->d_name) != "innermost") return;
      ASSERT_EQ(rename("/d/n/n", "/outside/n"), 0);
    };
    const int before = openDescriptors();
    EXPECT_EQ(removeWithFaults("/d"), -1);
    EXPECT_EQ(errno, ESTALE);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(contentOf("/outside/file"), "content");
    EXPECT_TRUE(exists("/outside/n")) << "moved out of the tree, so no longer to be removed";
  });
}

// Also the last step, removing the tree's own folder, does not go by the path.
TEST(RemoveTreeFaults, DoesNotRemoveAFolderOfTheSameNameElsewhere) {
  confined([] {
    makeFolder("/a");
    makeFolder("/a/d");
    makeFolder("/b");
    makeFolder("/b/d");
    onEntry = [](dirent64* entry) {
      if (entry != nullptr) return;
      ASSERT_EQ(rename("/a", "/moved"), 0);
      makeLink("/b", "/a");
    };
    EXPECT_EQ(removeWithFaults("/a/d"), 0);
    EXPECT_TRUE(exists("/b/d"));
    EXPECT_FALSE(exists("/moved/d"));
  });
}

// -------------------------------------------------------------------------------------------------
// A folder swapped for a link between any two steps

constexpr int shallow = 3;
constexpr int deep = 18;  // deeper than what is kept open

std::string levelOf(std::string path, int level) {
  for (; level > 0; --level) path += "/n";
  return path;
}

/// Folders in one another, with a file in the first two and the last.
void makeLevels(const std::string& root, int depth) {
  for (int level = 0; level < depth; ++level) makeFolder(levelOf(root, level));
  for (const int level : {0, 1, depth - 1}) makeFile(levelOf(root, level) + "/file");
}

bool isWhole(const std::string& root, int depth) {
  return exists(root + "/file") && exists(root + "/n/file") &&
         exists(levelOf(root, depth - 1) + "/file");
}

/// Moves the folder `level` of the tree into a tree of the same form outside, and puts a link to
/// that one in its place: before step 1 of the removal, before step 2, and so on to its last.
void swapBeforeEveryStep(int depth, int level) {
  const std::string victim = levelOf("/d", level);
  int succeeded = 0;
  int failed = 0;
  bool isReached = true;
  makeLevels("/outside", depth);
  for (int step = 1; isReached; ++step) {
    makeLevels("/d", depth);
    int steps = 0;
    bool isSwapped = false;
    beforeNamed = [&] {
      if (++steps != step || rename(victim.c_str(), "/outside/moved") != 0) return;
      isSwapped = true;
      makeLink("/outside", victim);
    };
    const int before = openDescriptors();
    const int result = removeWithFaults("/d");
    beforeNamed = nullptr;
    EXPECT_EQ(openDescriptors(), before) << step;
    ASSERT_TRUE(isWhole("/outside", depth)) << step;
    isReached = steps >= step;
    if (isSwapped) ++(result == 0 ? succeeded : failed);
    EXPECT_TRUE(isSwapped || result == 0) << step;
    for (const char* left : {"/d", "/outside/moved"}) {
      ASSERT_TRUE(!exists(left) || removeWithFaults(left) == 0) << left;
    }
  }
  // A link that stands there in time is removed like a file; later ones are refused.
  EXPECT_GT(succeeded, 0);
  EXPECT_GT(failed, 0);
}

TEST(RemoveTreeFaults, NoSwapBetweenAnyTwoStepsLeadsOutOfTheTree) {
  for (int level = 1; level < shallow; ++level) {
    confined([level] { swapBeforeEveryStep(shallow, level); });
  }
}

TEST(RemoveTreeFaults, NoSwapBetweenAnyTwoStepsLeadsOutOfADeepTree) {
  for (const int level : {1, deep / 2}) {
    confined([level] { swapBeforeEveryStep(deep, level); });
  }
}

}  // namespace
