#include <Korvo/KoStrUtils.h>

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "confined.h"
#include "file_test_support.h"

namespace {

using Korvo::removeTree;

void expectFailure(const std::string& path, int expectedErrno) {
  errno = 0;
  EXPECT_EQ(removeTree(path), -1) << path;
  EXPECT_EQ(errno, expectedErrno) << path << ": " << std::strerror(errno);
}

/// Folder /d with a bit of everything that can be had without rights.
void makeMixedTree() {
  makeFolder("/d");
  makeFolder("/d/empty");
  makeFolder("/d/sub");
  makeFolder("/d/sub/subsub");
  makeFile("/d/sub/subsub/file");
  makeFile("/d/sub/file");
  makeFile("/d/file");
  makeFile("/d/no rights");
  ASSERT_EQ(chmod("/d/no rights", 0), 0);
  ASSERT_EQ(mkfifo("/d/fifo", 0600), 0);
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/d/socket");
  ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  close(fd);
}

TEST(RemoveTree, RemovesAFolderWithAllThatIsInIt) {
  for (const char* path : {"d", "d/", "d//", "/d", "/d/", "//d", "./d", "/keep/../d"}) {
    SCOPED_TRACE(path);
    confined([path] {
      makeFolder("/keep");
      makeMixedTree();
      EXPECT_EQ(removeTree(path), 0) << std::strerror(errno);
      EXPECT_FALSE(exists("/d"));
      EXPECT_TRUE(exists("/keep"));
    });
  }
}

TEST(RemoveTree, RemovesAnEmptyFolder) {
  confined([] {
    makeFolder("/d");
    EXPECT_EQ(removeTree("d"), 0);
    EXPECT_FALSE(exists("/d"));
  });
}

TEST(RemoveTree, FailsForAnEmptyPath) {
  confined([] {
    makeFile("/file");
    EXPECT_EQ(removeTree(""), -1);
    EXPECT_TRUE(exists("/file"));
  });
}

TEST(RemoveTree, FailsForWhatIsNoFolder) {
  confined([] {
    makeFile("/file");
    expectFailure("/file", ENOTDIR);
    expectFailure("/file/", ENOTDIR);
    expectFailure("/file/x", ENOTDIR);
    expectFailure("/missing", ENOENT);
    expectFailure("/missing/x", ENOENT);
    expectFailure("/" + std::string(256, 'n'), ENAMETOOLONG);
    EXPECT_EQ(contentOf("/file"), "content");
  });
}

// To the system it would be the path before the NUL: another folder.
TEST(RemoveTree, RefusesAPathWithANul) {
  confined([] {
    makeFolder("/d");
    expectFailure(std::string("/d\0x", 4), EINVAL);
    expectFailure(std::string("/d\0", 3), EINVAL);
    expectFailure(std::string("\0", 1), EINVAL);
    EXPECT_TRUE(exists("/d"));
  });
}

TEST(RemoveTree, RemovesLinksAndNotWhatTheyLeadTo) {
  confined([] {
    makeFolder("/outside");
    makeFile("/outside/file");
    makeFolder("/d");
    makeLink("/outside", "/d/to-folder");
    makeLink("../outside/file", "/d/to-file");
    makeLink("/nowhere", "/d/to-nothing");
    makeLink(".", "/d/to-itself");
    makeLink("..", "/d/to-above");
    ASSERT_EQ(link("/outside/file", "/d/hard-link"), 0);
    EXPECT_EQ(removeTree("/d"), 0) << std::strerror(errno);
    EXPECT_FALSE(exists("/d"));
    EXPECT_EQ(contentOf("/outside/file"), "content");
  });
}

// The path is opened like any other, so a link is followed once; removing a link as a folder fails.
TEST(RemoveTree, EmptiesTheFolderThatItsPathLinksToAndThenFails) {
  for (const char* path : {"/link", "/link/"}) {
    SCOPED_TRACE(path);
    confined([path] {
      makeFolder("/d");
      makeFolder("/d/sub");
      makeFile("/d/sub/file");
      makeLink("/d", "/link");
      expectFailure(path, ENOTDIR);
      EXPECT_TRUE(exists("/link"));
      EXPECT_TRUE(exists("/d"));
      EXPECT_FALSE(exists("/d/sub"));
    });
  }
}

TEST(RemoveTree, RemovesAFolderBehindALink) {
  confined([] {
    makeFolder("/a");
    makeFolder("/a/d");
    makeLink("a", "/link");
    EXPECT_EQ(removeTree("/link/d"), 0);
    EXPECT_FALSE(exists("/a/d"));
    EXPECT_TRUE(exists("/link"));
  });
}

TEST(RemoveTree, FailsForALinkToNoFolder) {
  confined([] {
    makeFile("/file");
    makeLink("/file", "/to-file");
    makeLink("/nowhere", "/to-nothing");
    makeLink("/loop", "/loop");
    expectFailure("/to-file", ENOTDIR);
    expectFailure("/to-nothing", ENOENT);
    expectFailure("/loop", ELOOP);
    EXPECT_TRUE(exists("/file"));
    EXPECT_TRUE(exists("/to-file"));
    EXPECT_TRUE(exists("/to-nothing"));
  });
}

TEST(RemoveTree, EmptiesTheCurrentFolderAndThenFails) {
  confined([] {
    makeFolder("/a");
    makeFolder("/a/d");
    makeFile("/a/d/file");
    ASSERT_EQ(chdir("/a/d"), 0);
    expectFailure(".", EINVAL);
    EXPECT_TRUE(exists("/a/d"));
    EXPECT_FALSE(exists("/a/d/file"));
    EXPECT_EQ(removeTree("../d"), 0);
    EXPECT_FALSE(exists("/a/d"));
  });
}

// -------------------------------------------------------------------------------------------------
// The root directory

TEST(RemoveTree, RefusesTheRootByWhateverName) {
  for (const char* path : {"/", "//", "/.", "/./", "/..", "/d/..", "/d/../", ".", "./", "..",
                           "d/..", "to-root", "/to-root/", "d/above", "/d/above/."}) {
    SCOPED_TRACE(path);
    confined([path] {
      makeFolder("/d");
      makeFile("/d/file");
      makeFile("/file");
      makeLink("/", "/to-root");
      makeLink("..", "/d/above");
      expectFailure(path, EBUSY);
      EXPECT_TRUE(exists("/d/file"));
      EXPECT_TRUE(exists("/file"));
      EXPECT_TRUE(exists("/to-root"));
      EXPECT_TRUE(exists("/d/above"));
    });
  }
}

TEST(RemoveTree, RefusesTheRootWhereItIsMounted) {
  confined(
      [] {
        makeFile("/file");
        struct stat root;
        struct stat mounted;
        ASSERT_EQ(stat("/", &root), 0);
        ASSERT_EQ(stat("/d/root", &mounted), 0);
        if (root.st_ino != mounted.st_ino) GTEST_SKIP() << "no right to mount";
        expectFailure("/d/root", EBUSY);
        expectFailure("/d", EBUSY);
        EXPECT_TRUE(exists("/file"));
        EXPECT_TRUE(exists("/d/root"));
      },
      [] {
        for (const char* folder : {"d", "d/root"}) {
          mkdir(folder, 0755);
          [[maybe_unused]] const int result =
              chown(folder, confinement::unprivilegedId, confinement::unprivilegedId);
        }
        mount(".", "d/root", "none", MS_BIND, nullptr);
      });
}

// -------------------------------------------------------------------------------------------------
// Names, depth, number

TEST(RemoveTree, TakesEveryName) {
  confined([] {
    makeFolder("/d");
    for (const std::string& name :
         {std::string(255, 'n'), std::string(255, '\xff'), std::string("..."), std::string("..x"),
          std::string(".hidden"), std::string(" "), std::string("-rf"), std::string("*"),
          std::string("a\nb"), std::string("\\"), std::string("\xc3\xbc")}) {
      makeFile("/d/" + name);
    }
    for (const std::string& name :
         {std::string(255, 'f'), std::string("...."), std::string(". ")}) {
      makeFolder("/d/" + name);
      makeFile("/d/" + name + "/file");
    }
    EXPECT_EQ(removeTree("/d"), 0) << std::strerror(errno);
    EXPECT_FALSE(exists("/d"));
  });
}

TEST(RemoveTree, TakesAFolderWithALongName) {
  confined([] {
    const std::string name(255, 'n');
    makeFolder(name);
    makeFile(name + "/file");
    EXPECT_EQ(removeTree(name), 0) << std::strerror(errno);
    EXPECT_FALSE(exists(name));
  });
}

/// Folder /d with so many levels below it, each of them with a file and an empty folder beside the
/// next level.
void makeDeepTree(int levels, const std::string& name) {
  makeFolder("/d");
  int fd = open("/d", O_RDONLY | O_DIRECTORY);
  for (int level = 0; level < levels; ++level) {
    const int file = openat(fd, "file", O_WRONLY | O_CREAT, 0600);
    ASSERT_GE(file, 0);
    close(file);
    ASSERT_EQ(mkdirat(fd, "a", 0700), 0);
    ASSERT_EQ(mkdirat(fd, name.c_str(), 0700), 0);
    ASSERT_EQ(mkdirat(fd, "z", 0700), 0);
    const int next = openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(next, 0);
    close(fd);
    fd = next;
  }
  close(fd);
}

TEST(RemoveTree, TakesTreesOfEveryDepthAroundWhatItKeepsOpen) {
  confined([] {
    for (const int levels : {0, 1, 2, 14, 15, 16, 17, 18, 31, 32, 33, 40}) {
      makeDeepTree(levels, "m");
      EXPECT_EQ(removeTree("/d"), 0) << levels << ' ' << std::strerror(errno);
      ASSERT_FALSE(exists("/d")) << levels;
    }
  });
}

TEST(RemoveTree, TakesATreeDeeperThanThePathLimit) {
  confined([] {
    const int before = openDescriptors();
    makeDeepTree(100, std::string(255, 'n'));
    EXPECT_EQ(removeTree("/d"), 0) << std::strerror(errno);
    EXPECT_FALSE(exists("/d"));
    EXPECT_EQ(openDescriptors(), before);
  });
}

void allowDescriptors(int count) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = static_cast<rlim_t>(count);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

TEST(RemoveTree, TakesATreeDeeperThanTheLimitOfOpenFiles) {
  confined([] {
    makeDeepTree(300, "n");
    const int before = openDescriptors();
    // Three descriptors to spare are enough.
    allowDescriptors(before + 3);
    EXPECT_EQ(removeTree("/d"), 0) << std::strerror(errno);
    EXPECT_FALSE(exists("/d"));
    EXPECT_EQ(openDescriptors(), before);
  });
}

TEST(RemoveTree, FailsWithoutDescriptorsToWorkWith) {
  confined([] {
    makeDeepTree(2, "n");
    const int before = openDescriptors();
    for (const int spare : {2, 1, 0}) {
      allowDescriptors(before + spare);
      expectFailure("/d", EMFILE);
      EXPECT_EQ(openDescriptors(), before);
    }
    EXPECT_TRUE(exists("/d/n/n"));
  });
}

/// Runs `body` on a thread with this much of a stack.
void onStackOf(std::size_t bytes, void* (*body)(void*)) {
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_attr_init(&attributes), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, bytes), 0);
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, &attributes, body, nullptr), 0);
  ASSERT_EQ(pthread_join(thread, nullptr), 0);
  pthread_attr_destroy(&attributes);
}

TEST(RemoveTree, TakesADeepTreeOnASmallStack) {
  confined([] {
    makeDeepTree(5000, "n");
    onStackOf(std::size_t{256} << 10, [](void*) -> void* {
      EXPECT_EQ(removeTree("/d"), 0) << std::strerror(errno);
      return nullptr;
    });
    EXPECT_FALSE(exists("/d"));
  });
}

TEST(RemoveTree, TakesAWideTree) {
  confined([] {
    makeFolder("/d");
    for (int i = 0; i < 300; ++i) {
      const std::string folder = numbered("/d/", i);
      makeFolder(folder);
      for (int j = 0; j < 10; ++j) makeFile(numbered(folder + '/', j));
    }
    for (int i = 300; i < 3000; ++i) makeFile(numbered("/d/", i));
    EXPECT_EQ(removeTree("/d"), 0) << std::strerror(errno);
    EXPECT_FALSE(exists("/d"));
  });
}

// -------------------------------------------------------------------------------------------------
// Failures on the way

TEST(RemoveTree, StopsAtAFileThatItMayNotRemove) {
  confined([] {
    makeFolder("/d");
    makeFolder("/d/locked");
    makeFile("/d/locked/file");
    ASSERT_EQ(chmod("/d/locked", 0555), 0);
    const int before = openDescriptors();
    expectFailure("/d", EACCES);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_TRUE(exists("/d/locked/file"));
    ASSERT_EQ(chmod("/d/locked", 0755), 0);
  });
}

TEST(RemoveTree, StopsAtAFolderThatItMayNotRead) {
  confined([] {
    makeFolder("/d");
    makeFolder("/d/unreadable", 0);
    const int before = openDescriptors();
    expectFailure("/d", EACCES);
    expectFailure("/d/unreadable", EACCES);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_TRUE(exists("/d/unreadable"));
    ASSERT_EQ(chmod("/d/unreadable", 0755), 0);
  });
}

TEST(RemoveTree, LeavesRemovedWhatItRemovedBeforeAFailure) {
  confined([] {
    makeFolder("/d");
    makeFile("/d/file");
    makeFolder("/d/sub");
    makeFile("/d/sub/file");
    ASSERT_EQ(chmod("/", 0555), 0);
    const int before = openDescriptors();
    expectFailure("/d", EACCES);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_TRUE(exists("/d"));
    EXPECT_FALSE(exists("/d/file"));
    EXPECT_FALSE(exists("/d/sub"));
    ASSERT_EQ(chmod("/", 0755), 0);
  });
}

TEST(RemoveTree, LeaksNothingWhereItFailsDeepDown) {
  confined([] {
    makeDeepTree(60, "n");
    std::string deep = "/d";
    for (int level = 0; level < 50; ++level) deep += "/n";
    ASSERT_EQ(chmod(deep.c_str(), 0555), 0);
    const int before = openDescriptors();
    expectFailure("/d", EACCES);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_TRUE(exists(deep));
    ASSERT_EQ(chmod(deep.c_str(), 0755), 0);
    EXPECT_EQ(removeTree("/d"), 0);
  });
}

// Somebody keeps exchanging a folder of the tree and a link that leads out of it.
TEST(RemoveTree, NeverFollowsALinkThatTakesAFoldersPlace) {
  confined([] {
    makeFolder("/outside");
    for (int i = 0; i < 20; ++i) makeFile(numbered("/outside/", i));
    for (int round = 0; round < 200; ++round) {
      makeFolder("/d");
      makeFolder("/d/victim");
      for (int i = 0; i < 5; ++i) makeFile(numbered("/d/victim/", i));
      makeLink("/outside", "/spare");
      std::atomic<bool> stop = false;
      std::thread exchanger([&stop] {
        while (!stop) {
          renameat2(AT_FDCWD, "/d/victim", AT_FDCWD, "/spare", RENAME_EXCHANGE);
        }
      });
      removeTree("/d");
      stop = true;
      exchanger.join();
      for (int i = 0; i < 20; ++i) ASSERT_TRUE(exists(numbered("/outside/", i))) << round;
      // One of the two names is a link by now, or neither.
      for (const char* rest : {"/d/victim", "/spare"}) {
        struct stat info;
        if (lstat(rest, &info) != 0) continue;
        if (S_ISLNK(info.st_mode)) {
          ASSERT_EQ(unlink(rest), 0);
        } else {
          ASSERT_EQ(removeTree(rest), 0) << std::strerror(errno);
        }
      }
      if (exists("/d")) {
        ASSERT_EQ(removeTree("/d"), 0) << std::strerror(errno);
      }
    }
  });
}

}  // namespace
